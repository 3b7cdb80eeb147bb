#pragma once
/// @file
/// Character tests of the text helpers: ASCII only, whatever locale the host has chosen. Under some locales `isspace`
/// and `tolower` would take bytes of two-byte characters for blanks or letters.

#include <string_view>

namespace ascii {

constexpr bool IsSpace(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

constexpr char ToLower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

constexpr bool EqualIgnoreCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (ToLower(a[i]) != ToLower(b[i])) return false;
    }
    return true;
}

constexpr std::string_view Trim(std::string_view s) {
    while (!s.empty() && IsSpace(s.front()))
        s.remove_prefix(1);
    while (!s.empty() && IsSpace(s.back()))
        s.remove_suffix(1);
    return s;
}

}  // namespace ascii
