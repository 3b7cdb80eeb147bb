#pragma once
/// @file
/// Text for people: UTF-8, printable, measured in columns of a terminal.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace kvhost {

/// Text from the plug-in as UTF-8. Japanese catalogues are in Shift-JIS; a byte that belongs to no character is shown
/// as "?".
/// @param japanese  the plug-in's texts are Japanese
std::string ToUtf8(std::string_view text, bool japanese);

/// UTF-8 text on one line, without control characters: what comes from hardware or a file must not move the cursor.
std::string Printable(std::string_view text);

/// Columns that UTF-8 text takes: 2 for wide characters, 0 for combining ones.
size_t Columns(std::string_view text);

/// UTF-8 text cut to a number of columns, ended by an ellipsis where something was cut.
std::string Cut(std::string_view text, size_t columns);

/// A number as "0x0a".
std::string Hex(unsigned value, int digits);

/// Bytes as "0a ff".
std::string HexBytes(std::span<const uint8_t> bytes);

/// Writes one line of trouble to the standard error.
void PrintError(const std::string& text);

}  // namespace kvhost
