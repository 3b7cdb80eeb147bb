// Lines of configuration files: reading, splitting, the header, and the file that a rewrite grows in.

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
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

ReplacementFile::~ReplacementFile() {
    const CancelBlock block;
    if (temporary_[0] != '\0') PXR_unlink(temporary_.data());
}

bool ReplacementFile::Create(const char* target, int fd) {
    std::array<char, PATH_MAX> name{};
    PXR_make_tmpfile(name.data(), target, ".tmp");
    if (name[0] == '\0' || strcmp(name.data(), target) == 0) return false;
    if (fstat(fd, &attributes_) != 0) {
        attributes_.st_mode = 0644;
        attributes_.st_uid = geteuid();
        attributes_.st_gid = getegid();
    }
    // What a killed writer has left is removed, and a link that somebody put there is not followed.
    const int removed = PXR_unlink(name.data());
    if (removed != 0 && removed != ENOENT) return false;
    fd_ = FileDescriptor(open(name.data(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd_) return false;
    temporary_ = name;
    PXR_chkstrcpy(target_.data(), target);
    return true;
}

void ReplacementFile::Flush() {
    if (used_ != 0 && !failed_) failed_ = PXR_write(fd_.Get(), buffer_.data(), static_cast<uint32_t>(used_)) < 0;
    used_ = 0;
}

void ReplacementFile::Write(std::string_view text) {
    if (text.empty()) return;
    anything_ = true;
    last_ = text.back();
    while (!text.empty()) {
        if (used_ == buffer_.size()) Flush();
        const size_t count = text.copy(buffer_.data() + used_, buffer_.size() - used_);
        used_ += count;
        text.remove_prefix(count);
    }
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

bool ReplacementFile::TakeAttributes() const {
    // An unprivileged writer cannot give files away; the permissions decide then. They come last, since a change of
    // owner clears some of them.
    const bool foreign = attributes_.st_uid != geteuid() || attributes_.st_gid != getegid();
    if (foreign && fchown(fd_.Get(), attributes_.st_uid, attributes_.st_gid) != 0 && errno != EPERM) return false;
    return fchmod(fd_.Get(), attributes_.st_mode & 07777) == 0;
}

namespace {

/// Makes a rename last through a power failure. File systems that cannot do this say so; there is nothing to be done
/// about it then, and the file is whole either way.
void SyncDirectoryOf(const char* path) {
    std::string_view directory = path;
    const size_t slash = directory.rfind('/');
    directory = slash == std::string_view::npos ? "." : directory.substr(0, slash + 1);
    std::array<char, PATH_MAX> name{};
    directory.copy(name.data(), name.size() - 1);
    const FileDescriptor fd(open(name.data(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd) fsync(fd.Get());
}

}  // namespace

ReplacementFile::Result ReplacementFile::Commit() {
    Flush();
    if (failed_ || !TakeAttributes() || fsync(fd_.Get()) != 0 || fd_.Close() != 0) return Result::kFailed;
    if (!anything_) return Result::kEmpty;
    if (rename(temporary_.data(), target_.data()) != 0) return Result::kFailed;
    temporary_[0] = '\0';
    SyncDirectoryOf(target_.data());
    return Result::kReplaced;
}

}  // namespace cfg
