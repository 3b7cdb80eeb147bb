// Rewriting of key files. The current file is walked line by line; lines of keys are replaced by their values, all else
// passes as it is, and keys that never came are added at the end.

#include <fcntl.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "common/PXR_config_internal.h"
#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "common/PXR_string_internal.h"
#include "libplatform/PXR_config.h"
#include "libplatform/PXR_string.h"

namespace {

constexpr uint32_t kCannotWrite = MakeResult(fn::kWriteCfgFile, Reason::FileWrite);
/// Nothing to write: the old content cannot be read, or the new one would be empty.
constexpr uint32_t kNoContent = MakeResult(fn::kWriteCfgFile, Reason::FileRead);
constexpr uint32_t kBadText = MakeResult(fn::kWriteCfgFile, Reason::BadData);

/// From this length of key, text and "\t= " with the quotes on, a line is written without blanks.
constexpr size_t kNarrowLineLength = 1024;
constexpr size_t kTextLineExtra = 5;

bool IsStored(const PXR_config_key& key) {
    return (key.flags & PXR_CFG_FLAG_NOT_STORED) == 0;
}

/// The text can be written without double quotes.
bool IsPlainWord(std::string_view text) {
    if (text.starts_with('"') || text.find('#') != std::string_view::npos) return false;
    return std::none_of(text.begin(), text.end(), ascii::IsSpace);
}

/// What a line takes at least, with these many double quotes around the text.
bool Fits(const PXR_config_key& key, std::string_view text, size_t quotes) {
    return strlen(key.name) + 1 + text.size() + quotes <= cfg::kMaxLineLength;
}

/// What cannot be read back from between double quotes only ever comes from an unquoted word, and can be written as
/// one: a text with a double quote inside, and one that leaves no room for the quotes in what is read of a line.
bool NeedsBareForm(const PXR_config_key& key, std::string_view text) {
    return text.find('"') != std::string_view::npos || (!Fits(key, text, 2) && IsPlainWord(text));
}

/// The text, once written, can be read back whole.
bool IsWritable(const PXR_config_key& key, const char* text) {
    if (text == nullptr) return true;
    const std::string_view whole = text;
    if (whole.find('\n') != std::string_view::npos) return false;
    return NeedsBareForm(key, whole) ? IsPlainWord(whole) && Fits(key, whole, 0) : Fits(key, whole, 2);
}

bool AreTextsWritable(const PXR_config_table& table, const PXR_config_data* data) {
    for (const PXR_config_data* slot = data; slot->id != 0; ++slot) {
        const PXR_config_key* const key = cfg::FindKey(table, slot->id);
        if (key == nullptr || key->name == nullptr || !cfg::IsText(*key) || !IsStored(*key)) continue;
        if (!cfg::IsList(*key) && !IsWritable(*key, slot->value.text)) return false;
        if (!cfg::IsList(*key)) continue;
        for (const PXR_config_node* node = slot->list; node != nullptr; node = node->next) {
            if (!IsWritable(*key, node->value.text)) return false;
        }
    }
    return true;
}

bool HasKnownType(const PXR_config_key& key) {
    const uint16_t type = cfg::ElementType(key);
    return (type >= PXR_CFG_NUMBER && type <= PXR_CFG_UNSIGNED) || type == PXR_CFG_ENABLE_SWITCH;
}

class Rewriter {
public:
    /// @param path  the table's file itself, no link to it
    /// @param fd    the file, locked for as long as this object lives
    Rewriter(const PXR_config_table& table, const PXR_config_data* data, const char* path, int fd)
        : table_(table),
          data_(data),
          path_(path),
          fd_(fd),
          occurred_(new (std::nothrow) bool[cfg::CountKeys(table)]()) {}

    uint32_t Rewrite() {
        if (!occurred_) return PXR_ReportError(MakeResult(fn::kWriteCfgFile, Reason::OutOfMemory));
        if (!out_.Create(path_, fd_) || !Backup()) return PXR_ReportError(kCannotWrite);

        cfg::LineReader lines(fd_);
        WriteHeader(lines);
        while (lines.Next())
            RewriteLine(lines);
        if (lines.Failed()) return PXR_ReportError(kNoContent);
        AppendMissing();
        return Finish();
    }

private:
    bool Backup() const {
        struct stat info {};
        if (fstat(fd_, &info) != 0) return false;
        return info.st_size == 0 || cfg::MakeBackup(path_, fd_);
    }

    uint32_t Finish() {
        switch (out_.Commit()) {
            case cfg::ReplacementFile::Result::kReplaced:
                return 0;
            case cfg::ReplacementFile::Result::kEmpty:
                return PXR_ReportError(kNoContent);
            default:
                return PXR_ReportError(kCannotWrite);
        }
    }

    /// Keeps a good header line with its comment. Under any other first line the file's own lines begin at once.
    void WriteHeader(cfg::LineReader& lines) {
        const cfg::HeaderText header(table_.headerFormat, table_.version != nullptr ? table_.version : "");
        if (lines.Next() && header.Matches(lines.Line())) {
            out_.CopyLine(lines);
            return;
        }
        if (!header.Get().empty()) {
            out_.Write(header.Get());
            out_.Write("\n");
        }
        if (!lines.Failed()) lines.Rewind();
    }

    void RewriteLine(cfg::LineReader& lines) {
        const cfg::ParsedLine line(lines.Line());
        const PXR_config_key* const key = line.IsBlank() ? nullptr : cfg::FindKey(table_, line.Key());
        if (key == nullptr) return out_.CopyLine(lines);
        const bool again = std::exchange(Occurred(*key), true);
        const PXR_config_data* const slot = WritableSlot(*key);
        if (slot == nullptr) return out_.CopyLine(lines);
        if (again) return;
        const Comment comment{line.Comment(), &lines};
        WriteSlot(*key, *slot, comment.IsEmpty() ? nullptr : &comment);
    }

    void AppendMissing() {
        for (const PXR_config_key* key = table_.keys; key->id != 0; ++key) {
            if (Occurred(*key) || !HasKnownType(*key) || key->name == nullptr) continue;
            const PXR_config_data* const slot = WritableSlot(*key);
            if (slot != nullptr) {
                WriteSlot(*key, *slot, nullptr);
            } else if (!cfg::IsList(*key) || (key->listMode != -1 && cfg::IsText(*key))) {
                WriteDefault(*key);
            }
        }
    }

    /// The comment of a line that is replaced. Of a very long line the rest, which only the reader holds, belongs to
    /// it.
    struct Comment {
        const char* text;
        cfg::LineReader* lines;

        bool IsEmpty() const { return text == nullptr || (*text == '\0' && !lines->HasRest()); }
        void WriteTo(cfg::ReplacementFile& out) const {
            out.Write("#");
            out.Write(text);
            while (lines->HasRest())
                out.Write(lines->NextRest());
        }
    };

    bool& Occurred(const PXR_config_key& key) { return occurred_[static_cast<size_t>(&key - table_.keys)]; }

    const PXR_config_data* WritableSlot(const PXR_config_key& key) const {
        return HasKnownType(key) ? cfg::FindSlot(data_, key.id) : nullptr;
    }

    /// Writes all lines of a key. The comment goes with the first, so that it stays there from rewrite to rewrite.
    void WriteSlot(const PXR_config_key& key, const PXR_config_data& slot, const Comment* comment) {
        if (!cfg::IsList(key) || !IsStored(key)) return WriteLine(key, slot.value, comment);
        for (const PXR_config_node* node = slot.list; node != nullptr; node = node->next) {
            WriteLine(key, node->value, std::exchange(comment, nullptr));
        }
        if (comment != nullptr) WriteCommentLine(*comment);
    }

    void WriteDefault(const PXR_config_key& key) {
        PXR_config_value value{};
        if (cfg::IsText(key)) {
            value.text = const_cast<char*>(key.defaultValue.text);  // only read
        } else {
            value.unsignedNumber = key.defaultValue.number;
        }
        WriteLine(key, value, nullptr);
    }

    void WriteCommentLine(const Comment& comment) {
        out_.StartLine();
        comment.WriteTo(out_);
        out_.Write("\n");
    }

    void WriteLine(const PXR_config_key& key, const PXR_config_value& value, const Comment* comment) {
        // A single quote in a bare text would hide a "#" behind it.
        const bool bare = cfg::IsText(key) && IsStored(key) && value.text != nullptr && NeedsBareForm(key, value.text);
        if (bare && comment != nullptr) WriteCommentLine(*std::exchange(comment, nullptr));
        out_.StartLine();
        out_.Write(key.name);
        if (IsStored(key)) {
            WriteValue(key, value);
        } else {
            out_.Write("\t= ");
        }
        if (comment != nullptr) {
            out_.Write("\t");
            comment->WriteTo(out_);
        }
        out_.Write("\n");
    }

    void WriteValue(const PXR_config_key& key, const PXR_config_value& value) {
        char text[32] = "";
        const uint32_t address = value.address;
        switch (cfg::ElementType(key)) {
            case PXR_CFG_TEXT:
                return WriteText(key, value.text != nullptr ? value.text : "");
            case PXR_CFG_NUMBER:
                snprintf(text, sizeof(text), "%d", value.number);
                break;
            case PXR_CFG_UNSIGNED:
                snprintf(text, sizeof(text), "%u", value.unsignedNumber);
                break;
            case PXR_CFG_SWITCH:
                PXR_bool2str(text, value.on);
                break;
            case PXR_CFG_ENABLE_SWITCH:
                PXR_bool2str2(text, value.on);
                break;
            case PXR_CFG_ADDRESS:
                snprintf(text, sizeof(text), "%d.%d.%d.%d", address >> 24, address >> 16 & 0xFF, address >> 8 & 0xFF,
                         address & 0xFF);
                break;
            default:
                break;
        }
        out_.Write("\t= ");
        out_.Write(text);
    }

    void WriteText(const PXR_config_key& key, std::string_view text) {
        const bool narrow = strlen(key.name) + text.size() + kTextLineExtra >= kNarrowLineLength;
        const std::string_view quote = NeedsBareForm(key, text) ? "" : "\"";
        out_.Write(narrow ? "=" : "\t= ");
        out_.Write(quote);
        out_.Write(text);
        out_.Write(quote);
    }

    const PXR_config_table& table_;
    const PXR_config_data* data_;
    const char* path_;
    int fd_;
    std::unique_ptr<bool[]> occurred_;
    cfg::ReplacementFile out_;
};

}  // namespace

uint32_t PXR_write_cfgfile(const PXR_config_table* table, const PXR_config_data* data) {
    if (table == nullptr || table->path == nullptr || data == nullptr) {
        return PXR_ReportError(MakeResult(fn::kWriteCfgFile, Reason::NullArgument));
    }
    if (!AreTextsWritable(*table, data)) return PXR_ReportError(kBadText);
    cfg::LockedFile file;
    if (const uint32_t code = file.Open(table->path, O_RDWR | O_CREAT)) return code;
    const CancelBlock whole;  // only the wait for the lock may be cancelled
    char path[PATH_MAX];
    if (realpath(table->path, path) == nullptr || !IsNamed(file.Get(), path)) return PXR_ReportError(kCannotWrite);
    return Rewriter(*table, data, path, file.Get()).Rewrite();
}
