/// @file
/// The value block of a text property: one text, or an array of them.

#include <malloc.h>

#include <cstring>

#include "common/PXR_data_access_internal.h"

namespace {

/// Of these alone the block's size is asked: the bytes of a damaged table need not end. Any other text is a text, also
/// one that a host with an allocator of its own has made.
bool MayBeTextArray(const _KVCIM_PROP& p) {
    return p.code == KTX_PROP_ALL_MAC_ADDRESS && IsTextType(p.type);
}

}  // namespace

TextArray TextsOf(const _KVCIM_PROP& p) {
    if (!MayBeTextArray(p) || p.value == nullptr) return {};
    const auto begin = reinterpret_cast<uintptr_t>(p.value);
    const uintptr_t end = begin + malloc_usable_size(p.value);
    const auto inside = [begin, end](uintptr_t at) { return at > begin && at < end; };
    if (end - begin < sizeof(char*)) return {};

    auto* const texts = static_cast<char* const*>(p.value);
    const auto first = reinterpret_cast<uintptr_t>(texts[0]);
    if (!inside(first) || (first - begin) % sizeof(char*) != 0) return {};
    const uint32_t count = (first - begin) / sizeof(char*);
    for (uint32_t i = 0; i < count; ++i) {
        const auto text = reinterpret_cast<uintptr_t>(texts[i]);
        if (!inside(text) || text < first) return {};
        if (std::memchr(texts[i], '\0', end - text) == nullptr) return {};
    }
    return {texts, count};
}

size_t TextLength(const _KVCIM_PROP& p) {
    const auto* const text = static_cast<const char*>(p.value);
    return MayBeTextArray(p) ? strnlen(text, malloc_usable_size(p.value)) : std::strlen(text);
}
