#pragma once
/// @file
/// The text that all definition files consist of, and the one tokenizer for it.
///
/// A file is a sequence of sections, each opened by its name in square brackets and ended by the next "[" or the end of
/// the text. A section is a sequence of elements: a tag with its parenthesis, fields separated by commas, and the
/// parenthesis that closes it. Fields may hold elements in turn.
///
///     [EnumSensorType]
///     SENSORTYPE(Fan, 0x04)   ; a comment ends with its line
///
/// Everything here works on a text and the place where it ends; bytes of zero in between are text like others, since the
/// readers that cut a text in place leave them behind.

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace definition {

/// What is worth telling of a file before it is analysed. Lines count from 1.
struct Notes {
    std::vector<uint32_t> quotesOverLineEnds;     ///< where a quote is open at the end of the line
    std::vector<uint32_t> bracketsInParentheses;  ///< where a "[" ends a section in the middle of an element
    std::vector<uint32_t>* lines = nullptr;       ///< not null: receives the line of each byte of the result
};

/// Brings a file into the form in which it is read, in place: without comments, line ends and tabs, without blanks
/// outside parentheses.
/// @return the length of the result
size_t Normalize(char* text, size_t size, Notes& notes);

/// The content of a section, from behind its tag to the next "[". Data is null when the text has no such section.
std::string_view FindSection(std::string_view text, std::string_view tag);
/// What there is of a section from a place inside it on: up to the next "[".
std::string_view SectionFrom(const char* from, const char* limit);

/// Finds the next element: its tag, with the parenthesis, at the beginning of a word ("TYPE(" is no part of
/// "SENSORTYPE("). @param from  not before begin, where the section begins @return null when there is none
const char* FindElement(const char* begin, const char* from, const char* limit, std::string_view tag);

enum class Quotes : uint8_t {
    kAreText,  ///< like any other character
    kProtect,  ///< what stands between two of them is never taken apart
};

/// Walks through an element's fields.
/// @param body       from behind the opening parenthesis to where the element ends at the latest
/// @param separator  called with the offset of each comma between fields
/// @return the offset of the closing parenthesis; the size of body when it is not closed
template <typename Separator>
size_t WalkFields(std::string_view body, Quotes quotes, Separator separator) {
    int depth = 1;
    bool quoted = false;
    for (size_t i = 0; i < body.size(); ++i) {
        const char c = body[i];
        if (c == '"' && quotes == Quotes::kProtect) quoted = !quoted;
        if (quoted) continue;
        if (c == '(') ++depth;
        if (c == ')' && --depth == 0) return i;
        if (c == ',' && depth == 1) separator(i);
    }
    return body.size();
}

/// Takes blanks, then double quotes, off both ends.
std::string_view Trim(std::string_view field);

/// A number as sections of names and numbers have it: "0x" and hexadecimal digits, or digits and minus signs; a leading
/// zero means octal, a minus sign wraps, what does not fit is 0xFFFFFFFF.
/// @return false when the text is none
bool ReadNumber(std::string_view field, unsigned long& number);
/// A hexadecimal number, the whole text, "0x" before it or not. @return 0 when it is none
unsigned long ReadHexKey(std::string_view text);

}  // namespace definition
