// Definition files: paths and reading, elements; the locale and its texts.
#include "kvdatafactory/KvDfCommon.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "common/PXR_texts.h"
#include "common/RasLog.h"
#include "cover/FileDescriptor.h"
#include "cover/Heap.h"
#include "libplatform/PXR_catalogue.h"
#include "libplatform/PXR_syscall.h"

namespace {

constexpr char kRasSource[] = "kvdatafactory/KvDfCommon";

constexpr char kMapsDirectory[] = "/opt/velmora/lantrel/maps/";
constexpr const char* kFileNames[] = {"inv_map", "alert_map", "sensor_map", "syslogWatchdog.dat"};

constexpr size_t kSpareBytes = 4;  // of zero behind what was read
constexpr off_t kLargestFile = off_t{64} * 1024 * 1024;
constexpr int kReadAttempts = 3;
constexpr size_t kLongestField = 255;

constexpr uint32_t kCannotRead = MakeResult(fn::kReadDefinitionFile, Reason::FileRead);
constexpr uint32_t kNoElement = MakeResult(fn::kGetElementData, Reason::BadData);
static_assert(kCannotRead == 0x60BF1301 && kNoElement == 0x63F51302);

std::atomic<unsigned long> g_locale{static_cast<unsigned long>(FactoryLocale::kOther)};

// ---- Reading

bool IsSame(const struct stat& a, const struct stat& b) {
    return a.st_size == b.st_size && a.st_ino == b.st_ino && a.st_mtim.tv_sec == b.st_mtim.tv_sec &&
           a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

/// Reads what is open from its beginning. @return null with errno; EAGAIN when it has changed meanwhile
std::unique_ptr<char[]> ReadOnce(int fd, size_t& size) {
    struct stat before {};
    struct stat after {};
    if (fstat(fd, &before) != 0) return nullptr;
    errno = S_ISREG(before.st_mode) ? EFBIG : EINVAL;
    if (!S_ISREG(before.st_mode) || before.st_size > kLargestFile) return nullptr;
    size = static_cast<size_t>(before.st_size);
    std::unique_ptr<char[]> data(new (std::nothrow) char[size + kSpareBytes]());
    if (data == nullptr) errno = ENOMEM;
    if (data == nullptr || lseek(fd, 0, SEEK_SET) != 0) return nullptr;
    const int got = PXR_read(fd, data.get(), static_cast<uint32_t>(size));
    if (got < 0 || fstat(fd, &after) != 0) return nullptr;
    errno = EAGAIN;
    if (static_cast<size_t>(got) != size || !IsSame(before, after)) return nullptr;
    return data;
}

/// @return null with errno
std::unique_ptr<char[]> ReadWhileItStays(char* path, size_t& size) {
    const CancelBlock block;
    const FileDescriptor file(PXR_open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0));
    if (!file) {
        const int error = errno;
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "FilePath = %s\n", path);
        errno = error;
        return nullptr;
    }
    for (int attempt = 1;; ++attempt) {
        auto data = ReadOnce(file.Get(), size);
        if (data != nullptr || errno != EAGAIN || attempt == kReadAttempts) return data;
    }
}

// ---- Elements

/// An element that was found: its body from behind the tag to where it ends at the latest.
struct Found {
    const char* body = nullptr;
    const char* bound = nullptr;
};

/// @return 0, or the code, which has been reported
uint32_t Locate(const char* start, const char* limit, std::string_view tag, Found& found) {
    if (start >= limit) {
        RAS_ERROR("No Analyze Data");
        return PXR_ReportError(kNoElement);
    }
    const char* const at = definition::FindElement(start, start, limit, tag);
    if (at == nullptr) return PXR_ReportError(kNoElement);
    found.body = at + tag.size();
    const char* const next = definition::FindElement(start, found.body, limit, tag);
    found.bound = next != nullptr ? next : limit;
    if (found.body < found.bound) return 0;
    RAS_ERROR("Reached to end of Data.");
    return PXR_ReportError(kNoElement);
}

/// The element's end is there, or it is that of the whole text.
bool Ends(const Found& found, size_t length) {
    const char* const end = found.body + length;
    return end < found.bound || (end != nullptr && *end == '\0');
}

uint32_t Unended() {
    RAS_ERROR("Reached to end of Data.");
    return PXR_ReportError(kNoElement);
}

uint32_t AppendField(CKvList<CKvString*>& fields, std::string_view field) {
    if (field.size() > kLongestField) {
        RAS_ERROR("Element length(%d) too long! Quit CreateInstance.", static_cast<int>(field.size()));
        return PXR_ReportError(kNoElement);
    }
    char text[kLongestField + 1] = {};
    field.copy(text, kLongestField);
    auto* const copy = new (std::nothrow) CKvString(text, KvHeld<CKvString>::kCapacity);
    if (copy == nullptr) return PXR_ReportError(MakeResult(fn::kGetElementData, Reason::OutOfMemory));
    fields.AddTail(copy);
    return 0;
}

}  // namespace

uint32_t KvDf_GetFilePathWithName(char** path, const char* directory, const char* name) {
    const uint32_t code = MakeResult(fn::kGetDefinitionPath, Reason::NullArgument);
    if (path == nullptr || directory == nullptr || name == nullptr) return PXR_ReportError(code);
    const size_t size = strlen(directory) + strlen(name) + 1;
    *path = new (std::nothrow) char[size];
    if (*path == nullptr) return PXR_ReportError(MakeResult(fn::kGetDefinitionPath, Reason::OutOfMemory));
    snprintf(*path, size, "%s%s", directory, name);
    return 0;
}

uint32_t KvDf_GetFilePath(char** path, unsigned long kind) {
    constexpr uint32_t kNoSuchKind = MakeResult(fn::kGetDefinitionPath, Reason::FileRead);
    static_assert(kNoSuchKind == 0x60C11301);
    if (kind >= std::size(kFileNames)) return PXR_ReportError(kNoSuchKind);
    return KvDf_GetFilePathWithName(path, kMapsDirectory, kFileNames[kind]);
}

uint32_t KvDf_ReadFileData(char* path, char** data, unsigned long* size) {
    constexpr uint32_t kNull = MakeResult(fn::kReadDefinitionFile, Reason::NullArgument);
    static_assert(kNull == 0x60BF4201);
    if (path == nullptr || data == nullptr || size == nullptr) return PXR_ReportError(kNull);
    *data = nullptr;
    *size = 0;
    size_t length = 0;
    std::unique_ptr<char[]> content = ReadWhileItStays(path, length);
    if (content == nullptr) {
        const int error = errno;
        PXR_ReportError(error == ENOMEM ? kNull : kCannotRead);
        errno = error;
        return error == ENOMEM ? kNull : kCannotRead;
    }
    *data = content.release();
    *size = static_cast<unsigned long>(length);
    return 0;
}

uint32_t KvDf_AdjustFileData(char** data, unsigned long* size) {
    constexpr uint32_t kNull = MakeResult(fn::kAdjustDefinitionFile, Reason::NullArgument);
    static_assert(kNull == 0x60C24201);
    if (data == nullptr || *data == nullptr || size == nullptr) return PXR_ReportError(kNull);
    definition::Notes notes;
    *size = static_cast<unsigned long>(definition::Normalize(*data, *size, notes));
    return 0;
}

uint32_t ReadDefinitionFile(const char* path, char** text, unsigned long* length, definition::Notes& notes) {
    const uint32_t code = KvDf_ReadFileData(const_cast<char*>(path), text, length);
    if (code == 0) *length = static_cast<unsigned long>(definition::Normalize(*text, *length, notes));
    return code;
}

uint32_t KvDfCreateFileData(char** text, unsigned long* length, unsigned long kind) {
    char* path = nullptr;
    if (const uint32_t code = KvDf_GetFilePath(&path, kind)) return code;
    const std::unique_ptr<char[]> owner(path);
    if (const uint32_t code = KvDf_ReadFileData(path, text, length)) return code;
    return KvDf_AdjustFileData(text, length);
}

void KvDfFreeFileData(char* text) {
    delete[] text;
}

uint32_t KvDf_GetElementData(char*& start, char** end, const char* limit, const char* tag, unsigned long tagLength) {
    if (start == nullptr || end == nullptr || limit == nullptr || tag == nullptr) {
        RAS_BAD_ARGUMENTS("Invalid Parameter. pStart=0x%08p, ppEnd=0x%08p, pLmd=0x%08p, pElmStr=0x%08p",
                          static_cast<void*>(start), static_cast<void*>(end), limit, tag);
        return PXR_ReportError(MakeResult(fn::kGetElementData, Reason::NullArgument));
    }
    Found found;
    if (const uint32_t code = Locate(start, limit, {tag, tagLength}, found)) return code;
    const std::string_view body(found.body, static_cast<size_t>(found.bound - found.body));
    const size_t length = definition::WalkFields(body, definition::Quotes::kAreText, [](size_t) {});
    if (!Ends(found, length)) return Unended();  // its end is the next element's beginning, which is left in peace
    start += found.body - start;
    definition::WalkFields(body, definition::Quotes::kAreText, [start](size_t comma) { start[comma] = '\0'; });
    start[length] = '\0';
    *end = start + length;
    return 0;
}

uint32_t KvDf_GetElementData(CKvList<CKvString*>* fields, const char* start, const char** end, const char* limit,
                             const char* tag) {
    if (fields == nullptr || start == nullptr || end == nullptr || limit == nullptr || tag == nullptr) {
        RAS_ERROR("Invalid Parameter. KvDf_GetElementData(%p, %p, %p, %p, %p).", static_cast<void*>(fields), start,
                  static_cast<const void*>(end), limit, tag);
        return PXR_ReportError(MakeResult(fn::kGetElementData, Reason::NullArgument));
    }
    Found found;
    if (const uint32_t code = Locate(start, limit, tag, found)) return code;
    const std::string_view body(found.body, static_cast<size_t>(found.bound - found.body));
    size_t field = 0;
    uint32_t code = 0;
    const auto take = [&](size_t fieldEnd) {
        if (code == 0) code = AppendField(*fields, body.substr(field, fieldEnd - field));
        field = fieldEnd + 1;
    };
    const size_t length = definition::WalkFields(body, definition::Quotes::kProtect, take);
    if (code == 0 && !Ends(found, length)) return Unended();
    take(length);
    *end = found.body + length;
    return code;
}

void KvDf_NextStringPoint(char*& p, const char* end) {
    if (p == nullptr || end == nullptr || p >= end) return;
    char* const next = p + strnlen(p, static_cast<size_t>(end - p)) + 1;
    if (next <= end) p = next;
}

void KvDf_TrimString(CKvString& text) {
    text.TrimBoth(' ');
    text.TrimBoth('"');
}

// ---- Locale

unsigned long KvDfSetLocale() {
    const auto runtime = static_cast<LinuxLocale>(GetLocale());
    const bool japanese = runtime == LinuxLocale::kJapanese;
    g_locale = static_cast<unsigned long>(japanese ? FactoryLocale::kJapanese : FactoryLocale::kOther);
    return static_cast<unsigned long>(runtime);
}

unsigned long KvDfGetLocale() {
    return g_locale;
}

unsigned long KvDfConvertLinuxLocale(unsigned long locale) {
    const bool japanese = locale == static_cast<unsigned long>(FactoryLocale::kJapanese);
    return static_cast<unsigned long>(japanese ? LinuxLocale::kJapanese : LinuxLocale::kNeutral);
}

uint32_t KvDfGetResourceString(unsigned long locale, unsigned long id, CKvString& text, unsigned long insertCount,
                               CKvString* inserts) {
    constexpr unsigned long kFirstOfStates = 0x10000;
    constexpr uint32_t kNoMemory = MakeResult(fn::kGetResourceString, Reason::OutOfMemory);
    static_assert(kNoMemory == 0x60B81202);
    const std::unique_ptr<const char*[]> texts(new (std::nothrow) const char*[insertCount + 1]());
    if (texts == nullptr) return PXR_ReportError(kNoMemory);
    for (unsigned long i = 0; inserts != nullptr && i < insertCount; ++i)
        texts[i] = inserts[i];
    const bool ofServiceProcessor = id < kFirstOfStates && (id & 0xFF00) == 0x300;
    char* message = nullptr;
    const uint32_t code = GetCatInsMessage(static_cast<int>(KvDfConvertLinuxLocale(locale)),
                                           ofServiceProcessor ? texts::kServiceProcessor : texts::kPlatform,
                                           id < kFirstOfStates ? texts::kAlerts : texts::kWords, static_cast<int>(id),
                                           static_cast<int>(insertCount), texts.get(), "", &message);
    const OwnedText owner(message);
    if (message != nullptr) text = message;
    return code;
}
