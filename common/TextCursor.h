#pragma once
/// @file
/// Pieces taken off the front of a text: what was taken is gone from the view. Blanks are the ASCII ones, whatever
/// locale the host has chosen.

#include <algorithm>
#include <charconv>
#include <limits>
#include <string_view>
#include <system_error>

#include "common/PXR_string_internal.h"

namespace text {

/// Takes the next line, without its newline. @return false at the end of the text
inline bool TakeLine(std::string_view& text, std::string_view& line) {
    if (text.empty()) return false;
    const size_t end = std::min(text.find('\n'), text.size());
    line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return true;
}

inline void SkipBlanks(std::string_view& text) {
    text.remove_prefix(static_cast<size_t>(std::ranges::find_if_not(text, ascii::IsSpace) - text.begin()));
}

/// Takes one character if it is the one expected.
inline bool Take(std::string_view& text, char expected) {
    if (!text.starts_with(expected)) return false;
    text.remove_prefix(1);
    return true;
}

/// Takes blanks, then all up to the next blank. Empty at the end of the text.
inline std::string_view TakeWord(std::string_view& text) {
    SkipBlanks(text);
    const auto length = static_cast<size_t>(std::ranges::find_if(text, ascii::IsSpace) - text.begin());
    const std::string_view word = text.substr(0, length);
    text.remove_prefix(length);
    return word;
}

/// Takes blanks, then a number. A number that does not fit gives the nearest that does.
/// @return false, only the blanks being gone, when there is no number
template <typename Number>
bool TakeNumber(std::string_view& text, Number& value, int base = 10) {
    SkipBlanks(text);
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error == std::errc::invalid_argument) return false;
    if (error == std::errc::result_out_of_range) {
        value = text.starts_with('-') ? std::numeric_limits<Number>::min() : std::numeric_limits<Number>::max();
    }
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    return true;
}

}  // namespace text
