#include "tests/support/ConfigTable.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace sample {

namespace {

std::string TextOf(const char* text) {
    return text != nullptr ? text : "-";
}

std::string Join(const PXR_config_node* node, std::string (*print)(const PXR_config_value&)) {
    std::string list = "[";
    for (; node != nullptr; node = node->next)
        list += (list.size() > 1 ? "|" : "") + print(node->value);
    return list + "]";
}

}  // namespace

void Data::SetText(Id id, const std::string& text) {
    free((*this)[id].text);
    (*this)[id].text = strdup(text.c_str());
}

std::string Data::Print() {
    Data& self = *this;
    char address[16];
    snprintf(address, sizeof(address), "%x", self[kAddress].address);
    const auto* const words = static_cast<PXR_config_node*>(PXR_search_cfgid(Get(), kWords, 1));
    const auto* const numbers = static_cast<PXR_config_node*>(PXR_search_cfgid(Get(), kNumbers, 1));
    return std::to_string(self[kLevel].number) + " " + TextOf(self[kName].text) + " " +
           (self[kSwitch].on != 0 ? "on" : "off") + " " + (self[kEnable].on != 0 ? "on" : "off") + " " + address + " " +
           std::to_string(self[kCount].unsignedNumber) + " " + TextOf(self[kSecret].text) + " " +
           Join(words, [](const PXR_config_value& value) { return TextOf(value.text); }) + " " +
           Join(numbers, [](const PXR_config_value& value) { return std::to_string(value.number); });
}

}  // namespace sample
