#pragma once
/// @file
/// The tools that all configuration files are read and rewritten with, whatever the syntax of their lines: a locked
/// file, a reader of bounded lines, the split into key, value and comment, the header line, and a replacement that
/// takes the file's place in one step. Below them, what the key files share.
///
/// Nothing here allocates but where it says so, and nothing throws; errors stick to the object they happen to.

#include <array>
#include <climits>
#include <cstdint>
#include <string_view>

#include "common/FileText.h"
#include "common/PXR_syscall_internal.h"
#include "libplatform/PXR_config.h"

namespace cfg {

/// What is read of a line. The rest of a longer one counts for copying only.
inline constexpr size_t kMaxLineLength = 1023;

/// An open file with its lock, both given back at the end of the block.
class LockedFile {
public:
    LockedFile() = default;
    ~LockedFile() {
        if (fd_ >= 0) PXR_file_close(fd_);
    }
    LockedFile(const LockedFile&) = delete;
    LockedFile& operator=(const LockedFile&) = delete;

    /// @return 0, or the code that PXR_file_open has reported
    uint32_t Open(const char* path, int flags);
    int Get() const { return fd_; }

private:
    int fd_ = -1;
};

/// Reads an open file line by line, from its current position.
class LineReader {
public:
    explicit LineReader(int fd) : fd_(fd) {}

    /// Goes to the next line. False at the end of the file, or when reading fails.
    bool Next();
    /// Starts again at the beginning of the file.
    void Rewind();
    /// The first kMaxLineLength bytes of the line, without its newline.
    std::string_view Line() const { return {line_.data(), length_}; }
    /// More of the line follows than Line() shows.
    bool HasRest() const { return !atEndOfLine_; }
    /// The next bytes that Line() does not show, empty at the end of the line. Valid until the next call.
    std::string_view NextRest();
    /// The line (once its end was reached) ended with a newline; the last line of a file may lack it.
    bool HadNewline() const { return hadNewline_; }
    bool Failed() const { return failed_; }

private:
    bool Fill();
    std::string_view TakeUpTo(size_t limit);

    int fd_;
    std::array<char, 4096> block_{};
    size_t begin_ = 0;
    size_t end_ = 0;
    std::array<char, kMaxLineLength> line_{};
    size_t length_ = 0;
    bool atEndOfLine_ = true;
    bool hadNewline_ = false;
    bool failed_ = false;
};

/// A line cut into its parts: trimmed, the comment apart, split at the first "=" outside double quotes.
class ParsedLine {
public:
    explicit ParsedLine(std::string_view line);
    ParsedLine(const ParsedLine&) = delete;
    ParsedLine& operator=(const ParsedLine&) = delete;

    /// Nothing but white space and comment.
    bool IsBlank() const { return *key_ == '\0' && !hasEquals_; }
    const char* Key() const { return key_; }
    /// Empty when the line has no "=".
    const char* Value() const { return value_; }
    /// The text behind "#", possibly empty; null when there is no "#".
    const char* Comment() const { return comment_; }

private:
    std::array<char, kMaxLineLength + 1> text_{};
    const char* comment_ = nullptr;
    const char* key_ = "";
    const char* value_ = "";
    bool hasEquals_ = false;
};

/// The header line of a file: the format with the version in the place of its "%s".
class HeaderText {
public:
    HeaderText(const char* format, std::string_view version);
    /// Empty for a format that is null, empty or too long for a line.
    std::string_view Get() const { return {text_.data(), length_}; }
    /// The line is this header, but for blanks around it and a comment behind it.
    bool Matches(std::string_view line) const;

private:
    void Append(std::string_view piece);

    std::array<char, kMaxLineLength> text_{};
    size_t length_ = 0;
};

/// The lines that will take the place of a configuration file.
class ReplacementFile {
public:
    enum class Result { kReplaced, kEmpty, kFailed };

    /// Makes the temporary file.
    /// @param fd  the file to be replaced, open; owner and permissions are taken from it
    bool Create(const char* target, int fd);
    void Write(std::string_view text);
    /// Ends the last line if it is not.
    void StartLine();
    /// Copies the line that the reader stands on, all of it, as it is.
    void CopyLine(LineReader& reader);
    /// Puts the content in the file's place. Nothing can be written afterwards.
    Result Commit();

private:
    Replacement file_;
    bool anything_ = false;
    char last_ = '\n';
};

/// Copies the open file to the name with the extension ".bak".
bool MakeBackup(const char* path, int fd);

// ---- Key files ----

/// The key of that name, in either case; null when there is none.
const PXR_config_key* FindKey(const PXR_config_table& table, std::string_view name);
/// The slot of a key; null when the caller does not want it.
PXR_config_data* FindSlot(PXR_config_data* data, uint32_t id);
const PXR_config_data* FindSlot(const PXR_config_data* data, uint32_t id);
/// Number of keys in the table.
size_t CountKeys(const PXR_config_table& table);
/// The key may stand on several lines.
bool IsList(const PXR_config_key& key);
/// Type of one value: an array's elements have the type of their own.
uint16_t ElementType(const PXR_config_key& key);
bool IsText(const PXR_config_key& key);
/// The key with that id; null when there is none.
const PXR_config_key* FindKey(const PXR_config_table& table, uint32_t id);
/// Frees the values of a list-valued key.
void FreeList(const PXR_config_key& key, PXR_config_node*& list);
/// Converts the value of a line; a text is a heap copy. Reports what does not convert or lies out of range.
bool ConvertValue(const PXR_config_key& key, const char* text, PXR_config_value& value);

}  // namespace cfg
