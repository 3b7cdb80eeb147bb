// Lines of configuration files: reading, splitting, the header, and the file that a rewrite grows in.

#include <cerrno>
#include <cstring>

#include "common/PXR_config_internal.h"
#include "common/PXR_string_internal.h"
#include "libplatform/PXR_string.h"
#include "libplatform/PXR_syscall.h"

namespace cfg {

// ---- LineReader ----

bool LineReader::Fill() {
    if (failed_) return false;
    const int count = PXR_read(fd_, block_.data(), static_cast<uint32_t>(block_.size()));
    failed_ = count < 0;
    begin_ = 0;
    end_ = count > 0 ? static_cast<size_t>(count) : 0;
    return end_ != 0;
}

/// Takes bytes up to the end of the line, but no more than limit; the newline is taken as well when it is reached.
std::string_view LineReader::TakeUpTo(size_t limit) {
    if (begin_ == end_ && !Fill()) {
        atEndOfLine_ = true;
        return {};
    }
    std::string_view bytes(block_.data() + begin_, end_ - begin_);
    const size_t newline = bytes.find('\n');
    if (newline <= limit) {
        bytes = bytes.substr(0, newline);
        begin_ += newline + 1;
        atEndOfLine_ = true;
        hadNewline_ = true;
    } else {
        bytes = bytes.substr(0, limit);
        begin_ += bytes.size();
    }
    return bytes;
}

bool LineReader::Next() {
    while (HasRest())
        NextRest();
    if (begin_ == end_ && !Fill()) return false;
    atEndOfLine_ = false;
    hadNewline_ = false;
    length_ = 0;
    // At the limit, one more look finds out whether the line ends there.
    bool more = true;
    while (HasRest() && more) {
        const std::string_view piece = TakeUpTo(kMaxLineLength - length_);
        piece.copy(line_.data() + length_, piece.size());
        length_ += piece.size();
        more = !piece.empty();
    }
    return !failed_;
}

void LineReader::Rewind() {
    failed_ = lseek(fd_, 0, SEEK_SET) != 0;
    begin_ = end_ = length_ = 0;
    atEndOfLine_ = true;
}

std::string_view LineReader::NextRest() {
    return HasRest() ? TakeUpTo(block_.size()) : std::string_view();
}

// ---- ParsedLine ----

ParsedLine::ParsedLine(std::string_view line) {
    line.copy(text_.data(), kMaxLineLength);
    comment_ = PXR_next_pt(text_.data(), '#');
    char* const key = PXR_cut_space(text_.data());
    char* const value = PXR_next_pt(key, '=');
    hasEquals_ = value != nullptr;
    if (hasEquals_) value_ = PXR_cut_space(value);
    key_ = PXR_cut_space(key);
}

// ---- HeaderText ----

HeaderText::HeaderText(const char* format, std::string_view version) {
    if (format == nullptr) return;
    const std::string_view whole = format;
    const size_t place = whole.find("%s");
    if (whole.size() + version.size() > text_.size()) return;
    Append(whole.substr(0, place));
    if (place == std::string_view::npos) return;
    Append(version);
    Append(whole.substr(place + 2));
}

void HeaderText::Append(std::string_view piece) {
    length_ += piece.copy(text_.data() + length_, piece.size());
}

bool HeaderText::Matches(std::string_view line) const {
    std::array<char, kMaxLineLength + 1> text{};
    line.copy(text.data(), kMaxLineLength);
    PXR_next_pt(text.data(), '#');
    return length_ != 0 && Get() == PXR_cut_space(text.data());
}

// ---- ReplacementFile ----

bool ReplacementFile::Create(const char* target, int fd) {
    constexpr mode_t kNewFileMode = 0644;
    std::array<char, PATH_MAX> temporary{};
    PXR_make_tmpfile(temporary.data(), target, ".tmp");
    if (temporary[0] == '\0' || strcmp(temporary.data(), target) == 0) return false;
    if (file_.Create(target, temporary.data(), kNewFileMode) != 0) return false;
    struct stat attributes {};
    if (fstat(fd, &attributes) == 0) file_.TakeAttributes(attributes);
    return true;
}

void ReplacementFile::Write(std::string_view text) {
    if (text.empty()) return;
    anything_ = true;
    last_ = text.back();
    file_.Write(text);
}

void ReplacementFile::StartLine() {
    if (last_ != '\n') Write("\n");
}

void ReplacementFile::CopyLine(LineReader& reader) {
    StartLine();
    Write(reader.Line());
    while (reader.HasRest())
        Write(reader.NextRest());
    if (reader.HadNewline()) Write("\n");
}

ReplacementFile::Result ReplacementFile::Commit() {
    if (!anything_) return Result::kEmpty;
    return file_.Commit() == 0 ? Result::kReplaced : Result::kFailed;
}

}  // namespace cfg
