// The text of definition files: normal form, sections, elements, numbers.
#include "kvdatafactory/DefinitionText.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <string>

namespace definition {

namespace {

/// What the pass over the file has to remember from one character to the next.
class Normalizer {
public:
    /// @return whether the character stays
    bool Keeps(char c) {
        if (escaped_) {
            escaped_ = false;
            return true;
        }
        if (c == '\n' || c == '\r') comment_ = false;
        if (c == '\n' || c == '\r' || c == '\t' || comment_) return false;
        switch (c) {
            case ';':
                comment_ = true;
                return false;
            case ' ':
                return parentheses_;
            case '\\':
                escaped_ = true;
                return true;
            case '"':
                quoted_ = !quoted_;
                return true;
            case '(':
            case ')':
                if (!quoted_) parentheses_ = c == '(';
                return true;
            default:
                return true;
        }
    }

    bool IsQuoted() const { return quoted_; }
    bool IsInParentheses() const { return parentheses_; }

private:
    bool comment_ = false;
    bool quoted_ = false;
    bool parentheses_ = false;  // not counted: the first ")" ends it
    bool escaped_ = false;      // behind a backslash a character stands for itself
};

bool IsWord(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
}

bool ConsistsOf(std::string_view text, std::string_view characters) {
    return !text.empty() && text.find_first_not_of(characters) == std::string_view::npos;
}

constexpr std::string_view kHexDigits = "0123456789abcdefABCDEF";

}  // namespace

size_t Normalize(char* text, size_t size, Notes& notes) {
    Normalizer normalizer;
    size_t kept = 0;
    uint32_t line = 1;
    for (size_t i = 0; i < size; ++i) {
        const char c = text[i];
        if (normalizer.Keeps(c)) {
            text[kept++] = c;
            if (notes.lines != nullptr) notes.lines->push_back(line);
            if (c == '[' && normalizer.IsInParentheses()) notes.bracketsInParentheses.push_back(line);
        }
        if (c != '\n') continue;
        if (normalizer.IsQuoted()) notes.quotesOverLineEnds.push_back(line);
        ++line;
    }
    std::fill(text + kept, text + size, '\0');
    return kept;
}

std::string_view SectionFrom(const char* from, const char* limit) {
    return {from, static_cast<size_t>(std::find(from, limit, '[') - from)};
}

std::string_view FindSection(std::string_view text, std::string_view tag) {
    const size_t at = text.find(tag);
    if (at == std::string_view::npos) return {};
    return SectionFrom(text.data() + at + tag.size(), text.data() + text.size());
}

const char* FindElement(const char* begin, const char* from, const char* limit, std::string_view tag) {
    const std::string_view text(from, static_cast<size_t>(limit - from));
    for (size_t at = text.find(tag); at != std::string_view::npos; at = text.find(tag, at + 1)) {
        const char* const found = from + at;
        if (found == begin || !IsWord(found[-1])) return found;
    }
    return nullptr;
}

std::string_view Trim(std::string_view field) {
    for (const char c : {' ', '"'}) {
        const size_t first = std::min(field.find_first_not_of(c), field.size());
        field.remove_prefix(first);
        field.remove_suffix(field.size() - (field.find_last_not_of(c) + 1));
    }
    return field;
}

bool ReadNumber(std::string_view field, unsigned long& number) {
    const bool hex = field.starts_with("0x") && ConsistsOf(field.substr(2), kHexDigits);
    if (!hex && !ConsistsOf(field, "0123456789-")) return false;
    number = strtoul(std::string(field).c_str(), nullptr, 0);
    return true;
}

unsigned long ReadHexKey(std::string_view text) {
    if (text.starts_with("0x") || text.starts_with("0X")) text.remove_prefix(2);
    if (!ConsistsOf(text, kHexDigits)) return 0;
    return strtoul(std::string(text).c_str(), nullptr, 16);
}

}  // namespace definition
