#include "host/kvhost_Values.h"

#include <malloc.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>

#include "host/kvhost_Text.h"

namespace kvhost {

namespace {

#define NAME(name, number) #name,
constexpr std::string_view kClassNames[] = {KTX_CLASS_LIST(NAME)};
constexpr std::string_view kPropertyNames[] = {KTX_PROPERTY_LIST(NAME)};
#undef NAME
constexpr std::string_view kClassPrefix = "KTX_CLS_";
constexpr std::string_view kPropertyPrefix = "KTX_PROP_";

// Numbers that people know in hexadecimal.
constexpr uint32_t kHexadecimal[] = {KTX_PROP_STARTING_ADDRESS, KTX_PROP_ENDING_ADDRESS, KTX_PROP_ECC_SBC_ADDRESS,
                                     KTX_PROP_ECC_UNC_ADDRESS,  KTX_PROP_DEVICE_ID,      KTX_PROP_VENDER_ID,
                                     KTX_PROP_COMPRESSED_ID};

char ToLower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

template <class Number>
Number ReadNumber(const void* value) {
    Number number;
    std::memcpy(&number, value, sizeof number);
    return number;
}

template <class Number>
Value WordValue(const void* value) {
    if (ReadNumber<uint32_t>(value) == kUnknownNumber) return Unknown{};
    return Number{ReadNumber<std::conditional_t<std::is_signed_v<Number>, int32_t, uint32_t>>(value)};
}

/// The texts of a value that is an array of them: one block, a table of pointers with the texts behind it. The record
/// keeps no count; the table ends where the first text begins.
std::optional<std::vector<std::string>> ReadTextArray(const _KVCIM_PROP& p, bool japanese) {
    const auto* const block = static_cast<const char*>(p.value);
    const size_t size = malloc_usable_size(p.value);
    const auto offsetOf = [&](size_t i) {
        return size_t{ReadNumber<uintptr_t>(block + i * sizeof(char*)) - reinterpret_cast<uintptr_t>(block)};
    };
    if (size < sizeof(char*)) return std::nullopt;
    const size_t tableSize = offsetOf(0);
    if (tableSize == 0 || tableSize >= size || tableSize % sizeof(char*) != 0) return std::nullopt;
    std::vector<std::string> texts;
    for (size_t i = 0; i < tableSize / sizeof(char*); ++i) {
        const size_t offset = offsetOf(i);
        if (offset < tableSize || offset >= size) return std::nullopt;
        const size_t length = strnlen(block + offset, size - offset);
        if (length == size - offset) return std::nullopt;
        texts.push_back(ToUtf8({block + offset, length}, japanese));
    }
    return texts;
}

Value ReadText(const _KVCIM_PROP& p, bool japanese) {
    if (p.code == KTX_PROP_ALL_MAC_ADDRESS) {
        if (auto texts = ReadTextArray(p, japanese)) return std::move(*texts);
    }
    const auto* const text = static_cast<const char*>(p.value);
    return ToUtf8({text, strnlen(text, malloc_usable_size(p.value))}, japanese);
}

Value ReadValue(const _KVCIM_PROP& p, bool japanese) {
    if (p.value == nullptr) return Undefined{};
    switch (p.type) {
        case PROP_TYPE_STRING:
        case PROP_TYPE_TIME:
            return ReadText(p, japanese);
        case PROP_TYPE_UINT8:
            return uint64_t{ReadNumber<uint8_t>(p.value)};
        case PROP_TYPE_UINT16:
        case PROP_TYPE_UINT32:
            return WordValue<uint64_t>(p.value);
        case PROP_TYPE_UINT64:
            return ReadNumber<uint64_t>(p.value);
        case PROP_TYPE_SINT8:
            return int64_t{ReadNumber<int8_t>(p.value)};
        case PROP_TYPE_SINT16:
        case PROP_TYPE_SINT32:
            return WordValue<int64_t>(p.value);
        case PROP_TYPE_SINT64:
            return ReadNumber<int64_t>(p.value);
        default:
            return Undefined{};
    }
}

std::string NumberText(uint32_t code, uint64_t number) {
    if (std::find(std::begin(kHexadecimal), std::end(kHexadecimal), code) == std::end(kHexadecimal)) {
        return std::to_string(number);
    }
    char text[2 + 16 + 1];
    std::snprintf(text, sizeof text, "0x%04llx", static_cast<unsigned long long>(number));
    return text;
}

std::string JoinedText(const std::vector<std::string>& texts) {
    std::string joined;
    for (const std::string& text : texts) {
        if (!joined.empty()) joined += ", ";
        joined += text;
    }
    return joined;
}

/// One function for each kind of value.
template <class... Functions>
struct Overloaded : Functions... {
    using Functions::operator()...;
};
template <class... Functions>
Overloaded(Functions...) -> Overloaded<Functions...>;

nlohmann::ordered_json ToJson(const Value& value) {
    return std::visit(Overloaded{[](Undefined) { return nlohmann::ordered_json(nullptr); },
                                 [](Unknown) { return nlohmann::ordered_json(nullptr); },
                                 [](const auto& known) { return nlohmann::ordered_json(known); }},
                      value);
}

}  // namespace

std::string_view ClassCodeName(uint32_t classId) {
    return classId < std::size(kClassNames) ? kClassNames[classId] : std::string_view{};
}

std::string Key(std::string_view codeName) {
    for (const std::string_view prefix : {kClassPrefix, kPropertyPrefix}) {
        if (codeName.starts_with(prefix)) codeName.remove_prefix(prefix.size());
    }
    std::string key(codeName);
    std::transform(key.begin(), key.end(), key.begin(), ToLower);
    return key;
}

std::string ReadableName(std::string_view codeName) {
    std::string name = Key(codeName);
    std::replace(name.begin(), name.end(), '_', ' ');
    return name;
}

std::string PropertyKey(uint32_t code) {
    return code < std::size(kPropertyNames) ? Key(kPropertyNames[code]) : "property_" + std::to_string(code);
}

std::string PropertyName(uint32_t code) {
    return ReadableName(PropertyKey(code));
}

std::optional<uint32_t> FindClass(std::string_view text) {
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error == std::errc{} && end == text.data() + text.size()) {
        return number < KTX_CLASS_COUNT ? std::optional(number) : std::nullopt;
    }
    std::string wanted(text);
    std::transform(wanted.begin(), wanted.end(), wanted.begin(),
                   [](char c) { return c == '-' || c == ' ' ? '_' : ToLower(c); });
    constexpr std::string_view kPrefixInSmallLetters = "ktx_cls_";
    if (wanted.starts_with(kPrefixInSmallLetters)) wanted.erase(0, kPrefixInSmallLetters.size());
    for (uint32_t id = 0; id < KTX_CLASS_COUNT; ++id) {
        if (Key(kClassNames[id]) == wanted) return id;
    }
    return std::nullopt;
}

ClassData ReadEnum(const _KVCIM_ENUM& e, bool japanese) {
    ClassData data{e.classId, {}};
    for (const _KVCIM_CLASS* c = e.first; c != nullptr; c = c->next) {
        std::vector<Property>& instance = data.instances.emplace_back();
        for (const _KVCIM_PROP* p = c->first; p != nullptr; p = p->next) {
            instance.push_back({p->code, ReadValue(*p, japanese)});
        }
    }
    return data;
}

std::string ToText(const Property& property) {
    return std::visit(
        Overloaded{[](Undefined) { return std::string("-"); }, [](Unknown) { return std::string("unknown"); },
                   [&](uint64_t number) { return NumberText(property.code, number); },
                   [](int64_t number) { return std::to_string(number); },
                   [](const std::string& text) { return Printable(text); },
                   [](const std::vector<std::string>& texts) { return Printable(JoinedText(texts)); }},
        property.value);
}

nlohmann::ordered_json ToJson(const ClassData& data) {
    auto instances = nlohmann::ordered_json::array();
    for (const std::vector<Property>& properties : data.instances) {
        auto instance = nlohmann::ordered_json::object();
        for (const Property& property : properties) {
            instance[PropertyKey(property.code)] = ToJson(property.value);
        }
        instances.push_back(std::move(instance));
    }
    return {{"class", ClassCodeName(data.id)}, {"id", data.id}, {"instances", std::move(instances)}};
}

}  // namespace kvhost
