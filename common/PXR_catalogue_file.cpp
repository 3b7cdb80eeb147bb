#include "common/PXR_catalogue_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <climits>
#include <cstring>
#include <optional>
#include <string_view>

#include "common/PXR_syscall_internal.h"
#include "libplatform/PXR_syscall.h"

namespace {

/// Where the C library looks for catalogues when NLSPATH leads nowhere.
constexpr std::string_view kSystemPath =
    "/usr/share/locale/%L/%N:/usr/share/locale/%L/LC_MESSAGES/%N:"
    "/usr/share/locale/%l/%N:/usr/share/locale/%l/LC_MESSAGES/%N";

/// No real catalogue comes near this; a file beyond it is something else.
constexpr off_t kMaxFileSize = off_t{16} << 20;

// The file: three words (magic, plane size, plane depth), the hash table twice (little-endian, then big-endian), the
// NUL-terminated texts. A slot of the table is three words: set + 1, message number, offset among the texts. The
// header is in the byte order of the machine that compiled the catalogue, which the magic tells.
constexpr uint32_t kMagic = 0x960408DE;
constexpr size_t kHeaderWords = 3;
constexpr size_t kSlotWords = 3;
constexpr size_t kWordBytes = 4;

/// A path of bounded length, built piece by piece. One that is too long could not be opened either.
class PathBuffer {
public:
    void Append(std::string_view piece) {
        fits_ = fits_ && piece.size() < sizeof text_ - length_;
        if (!fits_ || piece.empty()) return;
        memcpy(text_ + length_, piece.data(), piece.size());
        length_ += piece.size();
        text_[length_] = '\0';
    }
    /// The path, or null when there is none worth trying.
    const char* Get() const { return fits_ && length_ > 0 ? text_ : nullptr; }

private:
    char text_[PATH_MAX] = "";
    size_t length_ = 0;
    bool fits_ = true;
};

/// A locale's name, language[_territory][.codeset], and its pieces.
struct LocaleName {
    explicit LocaleName(std::string_view name) : whole(name), language(name.substr(0, name.find_first_of("_."))) {
        const size_t dot = name.find('.');
        if (dot != std::string_view::npos) codeset = name.substr(dot + 1);
        const std::string_view beforeCodeset = name.substr(0, dot);
        if (beforeCodeset.size() > language.size()) territory = beforeCodeset.substr(language.size() + 1);
    }

    std::string_view whole;
    std::string_view language;
    std::string_view territory;
    std::string_view codeset;
};

/// What "%" and `letter` stand for in a template; nothing when the letter has no meaning.
std::optional<std::string_view> Substitute(char letter, std::string_view name, const LocaleName& locale) {
    switch (letter) {
        case 'N':
            return name;
        case 'L':
            return locale.whole;
        case 'l':
            return locale.language;
        case 't':
            return locale.territory;
        case 'c':
            return locale.codeset;
        case '%':
            return "%";
        default:
            return std::nullopt;
    }
}

/// Expands one template into a path. False when it holds an unknown substitution: such a template is passed over.
bool Expand(std::string_view pattern, std::string_view name, const LocaleName& locale, PathBuffer& path) {
    if (pattern.empty()) pattern = "%N";
    while (!pattern.empty()) {
        const size_t plain = pattern.find('%');
        path.Append(pattern.substr(0, plain));
        if (plain == std::string_view::npos) return true;
        if (plain + 1 == pattern.size()) return false;
        const auto piece = Substitute(pattern[plain + 1], name, locale);
        if (!piece) return false;
        path.Append(*piece);
        pattern.remove_prefix(plain + 2);
    }
    return true;
}

/// O_NONBLOCK keeps a FIFO in the catalogue's place from blocking the caller; a plain file does not know the
/// difference.
FileDescriptor OpenPath(const char* path) {
    return FileDescriptor(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
}

/// Opens the first file that the ":"-separated templates lead to.
FileDescriptor OpenThrough(std::string_view searchPath, std::string_view name, const LocaleName& locale) {
    for (;;) {
        const size_t end = searchPath.find(':');
        PathBuffer path;
        if (Expand(searchPath.substr(0, end), name, locale, path) && path.Get() != nullptr) {
            FileDescriptor file = OpenPath(path.Get());
            if (file) return file;
        }
        if (end == std::string_view::npos) return FileDescriptor();
        searchPath.remove_prefix(end + 1);
    }
}

FileDescriptor OpenCatalogue(const char* name, const char* localeName, std::string_view searchPath) {
    if (strchr(name, '/') != nullptr) return OpenPath(name);
    const LocaleName locale(localeName);
    if (!searchPath.empty()) {
        FileDescriptor file = OpenThrough(searchPath, name, locale);
        if (file) return file;
    }
    return OpenThrough(kSystemPath, name, locale);
}

}  // namespace

CatalogueFile::Status CatalogueFile::Read(const char* name, const char* locale, const char* searchPath) {
    const FileDescriptor file = OpenCatalogue(name, locale, searchPath);
    if (!file) return Status::kUnreadable;
    const Status status = ReadWhole(file.Get());
    if (status != Status::kOk) return status;
    return Check() ? Status::kOk : Status::kUnreadable;
}

CatalogueFile::Status CatalogueFile::ReadWhole(int descriptor) {
    struct stat status {};
    if (fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) return Status::kUnreadable;
    if (status.st_size <= 0 || status.st_size > kMaxFileSize) return Status::kUnreadable;
    const auto size = static_cast<size_t>(status.st_size);
    bytes_.reset(static_cast<unsigned char*>(malloc(size)));
    if (bytes_ == nullptr) return Status::kNoMemory;
    const int got = PXR_read(descriptor, bytes_.get(), size);
    if (got < 0) return Status::kUnreadable;
    length_ = static_cast<size_t>(got);
    return Status::kOk;
}

/// Holds the header and the table against the file's length, so that Find needs no further check. A file that lacks
/// even the end of its last text is refused whole: half a catalogue is a failed installation.
bool CatalogueFile::Check() {
    if (length_ < kHeaderWords * kWordBytes) return false;
    const bool bigEndian = Word(0) == __builtin_bswap32(kMagic);
    if (!bigEndian && Word(0) != kMagic) return false;
    planeSize_ = bigEndian ? __builtin_bswap32(Word(1)) : Word(1);
    planeDepth_ = bigEndian ? __builtin_bswap32(Word(2)) : Word(2);

    constexpr size_t kBytesPerSlot = 2 * kSlotWords * kWordBytes;  // the table is there twice
    if (planeSize_ == 0 || planeDepth_ == 0 || planeDepth_ > length_ / kBytesPerSlot / planeSize_) return false;
    const size_t slots = size_t{planeSize_} * planeDepth_;
    texts_ = kHeaderWords * kWordBytes + slots * kBytesPerSlot;
    if (texts_ >= length_) return false;

    const unsigned char* const texts = bytes_.get() + texts_;
    const void* const lastEnd = memrchr(texts, '\0', length_ - texts_);
    if (lastEnd == nullptr) return false;
    const auto lastOffset = static_cast<size_t>(static_cast<const unsigned char*>(lastEnd) - texts);
    for (size_t slot = 0; slot < slots; slot++) {
        if (Word(kHeaderWords + slot * kSlotWords + 2) > lastOffset) return false;
    }
    return true;
}

const char* CatalogueFile::Find(int set, int number) const {
    if (set < 0 || number < 0) return nullptr;
    const uint32_t storedSet = static_cast<uint32_t>(set) + 1;
    const auto storedNumber = static_cast<uint32_t>(number);
    size_t slot = (storedSet * storedNumber) % planeSize_;
    for (uint32_t plane = 0; plane < planeDepth_; plane++, slot += planeSize_) {
        const size_t word = kHeaderWords + slot * kSlotWords;
        if (Word(word) != storedSet || Word(word + 1) != storedNumber) continue;
        return reinterpret_cast<const char*>(bytes_.get() + texts_ + Word(word + 2));
    }
    return nullptr;
}

uint32_t CatalogueFile::Word(size_t index) const {
    const unsigned char* const at = bytes_.get() + index * kWordBytes;
    return uint32_t{at[0]} | uint32_t{at[1]} << 8 | uint32_t{at[2]} << 16 | uint32_t{at[3]} << 24;
}
