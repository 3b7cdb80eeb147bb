// Tables and data arrays of key files: defaults, look-up, conversion of values, release.

#include <cstdlib>
#include <cstring>

#include "common/PXR_config_internal.h"
#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "common/PXR_string_internal.h"
#include "libplatform/PXR_config.h"
#include "libplatform/PXR_string.h"

namespace cfg {

namespace {

constexpr uint32_t kBadValue = MakeResult(fn::kConvertCfgValue, Reason::BadData);
static_assert(kBadValue == 0x61E41302);
constexpr int kConvertNoMemory = 3;

bool ReportBadValue() {
    PXR_ReportError(kBadValue);
    return false;
}

bool ConvertNumber(const PXR_config_key& key, const char* text, PXR_config_value& value) {
    int32_t number = 0;
    if (PXR_str2int(text, &number) != 0 || number < key.minimum || number > key.maximum) return ReportBadValue();
    value.number = number;
    return true;
}

bool ConvertUnsigned(const PXR_config_key& key, const char* text, PXR_config_value& value) {
    uint32_t number = 0;
    if (PXR_str2uint(text, &number) != 0) return ReportBadValue();
    if (number < static_cast<uint32_t>(key.minimum) || number > static_cast<uint32_t>(key.maximum)) {
        return ReportBadValue();
    }
    value.unsignedNumber = number;
    return true;
}

/// Cuts a heap text to a length; nothing is left of it at length 0.
void CutText(char*& text, int32_t length) {
    if (text == nullptr || length < 0 || strlen(text) <= static_cast<size_t>(length)) return;
    text[length] = '\0';
    if (length == 0) {
        free(text);
        text = nullptr;
    }
}

bool ConvertText(const PXR_config_key& key, const char* text, PXR_config_value& value) {
    char* copy = nullptr;
    const int result = PXR_str2str(text, &copy);
    if (result == kConvertNoMemory) {
        PXR_ReportError(MakeResult(fn::kConvertCfgValue, Reason::OutOfMemory));
        return false;
    }
    if (result != 0) return ReportBadValue();
    CutText(copy, key.maximum);
    value.text = copy;
    return true;
}

bool ConvertSwitch(int (*convert)(const char*, uint8_t*), const char* text, PXR_config_value& value) {
    uint8_t on = 0;
    if (convert(text, &on) != 0) return ReportBadValue();
    value.unsignedNumber = 0;
    value.on = on;
    return true;
}

bool ConvertAddress(const char* text, PXR_config_value& value) {
    return PXR_str2ipaddr(text, &value.address) == 0 || ReportBadValue();
}

}  // namespace

const PXR_config_key* FindKey(const PXR_config_table& table, uint32_t id) {
    for (const PXR_config_key* key = table.keys; key->id != 0; ++key) {
        if (key->id == id) return key;
    }
    return nullptr;
}

const PXR_config_key* FindKey(const PXR_config_table& table, std::string_view name) {
    for (const PXR_config_key* key = table.keys; key->id != 0; ++key) {
        if (key->name != nullptr && ascii::EqualIgnoreCase(key->name, name)) return key;
    }
    return nullptr;
}

const PXR_config_data* FindSlot(const PXR_config_data* data, uint32_t id) {
    for (; data->id != 0; ++data) {
        if (data->id == id) return data;
    }
    return nullptr;
}

PXR_config_data* FindSlot(PXR_config_data* data, uint32_t id) {
    return const_cast<PXR_config_data*>(FindSlot(static_cast<const PXR_config_data*>(data), id));
}

size_t CountKeys(const PXR_config_table& table) {
    size_t count = 0;
    while (table.keys[count].id != 0)
        ++count;
    return count;
}

uint16_t ElementType(const PXR_config_key& key) {
    const auto type = static_cast<uint16_t>(key.type);
    switch (type) {
        case PXR_CFG_NUMBER_ARRAY:
            return PXR_CFG_NUMBER;
        case PXR_CFG_TEXT_ARRAY:
            return PXR_CFG_TEXT;
        case PXR_CFG_SWITCH_ARRAY:
            return PXR_CFG_SWITCH;
        default:
            return type;
    }
}

bool IsList(const PXR_config_key& key) {
    const bool isArray = ElementType(key) != static_cast<uint16_t>(key.type);
    return isArray || key.occurrences == -1 || key.occurrences >= 2;
}

bool IsText(const PXR_config_key& key) {
    return ElementType(key) == PXR_CFG_TEXT;
}

void FreeList(const PXR_config_key& key, PXR_config_node*& list) {
    while (list != nullptr) {
        PXR_config_node* const node = list;
        list = node->next;
        if (IsText(key)) free(node->value.text);
        free(node);
    }
}

bool ConvertValue(const PXR_config_key& key, const char* text, PXR_config_value& value) {
    switch (ElementType(key)) {
        case PXR_CFG_NUMBER:
            return ConvertNumber(key, text, value);
        case PXR_CFG_UNSIGNED:
            return ConvertUnsigned(key, text, value);
        case PXR_CFG_TEXT:
            return ConvertText(key, text, value);
        case PXR_CFG_SWITCH:
            return ConvertSwitch(PXR_str2bool, text, value);
        case PXR_CFG_ENABLE_SWITCH:
            return ConvertSwitch(PXR_str2bool2, text, value);
        case PXR_CFG_ADDRESS:
            return ConvertAddress(text, value);
        default:
            return ReportBadValue();
    }
}

}  // namespace cfg

namespace {

/// @return false when memory for a text runs out
bool SetDefault(const PXR_config_key& key, PXR_config_data& slot) {
    slot.type = static_cast<uint16_t>(key.type);
    if (cfg::IsList(key)) {
        slot.listInitialised = 1;
        return true;
    }
    if (!cfg::IsText(key)) {
        slot.value.unsignedNumber = key.defaultValue.number;
        return true;
    }
    const char* const text = key.defaultValue.text;
    if (text == nullptr || *text == '\0') return true;
    slot.value.text = strdup(text);
    return slot.value.text != nullptr;
}

}  // namespace

int PXR_init_cfgdata(const PXR_config_table* table, PXR_config_data* data) {
    if (table == nullptr || data == nullptr) {
        return static_cast<int>(PXR_ReportError(MakeResult(fn::kInitCfgData, Reason::NullArgument)));
    }
    bool enoughMemory = true;
    for (; data->id != 0; ++data) {
        *data = PXR_config_data PXR_CFG_SLOT(data->id);
        const PXR_config_key* const key = cfg::FindKey(*table, data->id);
        if (key != nullptr && !SetDefault(*key, *data)) enoughMemory = false;
    }
    if (enoughMemory) return 0;
    return static_cast<int>(PXR_ReportError(MakeResult(fn::kInitCfgData, Reason::OutOfMemory)));
}

void* PXR_search_cfgid(PXR_config_data* data, uint32_t id, int n) {
    if (data == nullptr || id == 0) return nullptr;
    PXR_config_data* const slot = cfg::FindSlot(data, id);
    if (slot == nullptr || n <= 0) return slot;
    PXR_config_node* node = slot->list;
    while (node != nullptr && --n > 0)
        node = node->next;
    return node;
}

void* PXR_search_cfgname(const PXR_config_table* table, PXR_config_data* data, const char* name, int n) {
    if (table == nullptr || name == nullptr) return nullptr;
    for (const PXR_config_key* key = table->keys; key->id != 0; ++key) {
        if (key->name != nullptr && strcmp(key->name, name) == 0) return PXR_search_cfgid(data, key->id, n);
    }
    return nullptr;
}

void PXR_clear_cfgdata(const PXR_config_table* table, PXR_config_data* data) {
    if (table == nullptr || data == nullptr) return;
    for (; data->id != 0; ++data) {
        const PXR_config_key* const key = cfg::FindKey(*table, data->id);
        if (key == nullptr) continue;
        if (cfg::IsList(*key)) {
            cfg::FreeList(*key, data->list);
        } else if (cfg::IsText(*key)) {
            free(data->value.text);
            data->value.text = nullptr;
        }
    }
}
