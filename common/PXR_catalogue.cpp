// Messages in a locale: which locale, and under which locks a catalogue is read.
#include "libplatform/PXR_catalogue.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string_view>

#include "common/PXR_catalogue_file.h"
#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "cover/CancelBlock.h"
#include "cover/Heap.h"
#include "libplatform/PXR_message.h"
#include "libplatform/PXR_trace.h"

namespace {

constexpr char kDefaultSearchPath[] = "/opt/velmora/lantrel/lib/nls/%L/%N";
constexpr char kNeutralName[] = "C";
constexpr char kJapaneseName[] = "ja_JP.SJIS";

constexpr std::string_view kJapaneseNames[] = {
    "ja_JP.eucJP", "ja_JP.SJIS", "ja_JP.JIS7",   "ja_JP.ISO-2022-JP", "ja_JP.UTF-8", "ja",        "ja_JP",
    "ja_JP.ujis",  "japanese",   "japanese.euc", "ja_JP.JIS",         "ja_JP.EUC",   "ja_JP.utf8"};

// Taken in this order, each held while the next is taken; nothing that may trace runs while one is held, since a trace
// can lead back here.
std::mutex localeLock;     // the cached locale, and LANG while a message is fetched for it
std::mutex catalogueLock;  // NLSPATH and the search through it
std::mutex nlsLock;        // one catalogue is open at a time

constexpr int kLocaleUnset = -1;
int cachedLocale = kLocaleUnset;  // guarded by localeLock

struct MessageId {
    const char* catalogue;
    int set;
    int number;
};

/// A copy of LANG, which the host may change meanwhile; null when memory runs out. No LANG, an empty one and a path
/// (the name of no locale, but a way out of the catalogue folders) stand for the neutral locale.
OwnedText CopyLang() {
    const char* const lang = getenv("LANG");
    const bool usable = lang != nullptr && *lang != '\0' && strchr(lang, '/') == nullptr;
    return OwnedText(strdup(usable ? lang : kNeutralName));
}

/// NLSPATH, which gets its default for the rest of the process when there is none: the one change of the environment.
const char* SearchPath() {
    if (getenv("NLSPATH") == nullptr) setenv("NLSPATH", kDefaultSearchPath, 0);
    const char* const path = getenv("NLSPATH");
    return path == nullptr ? kDefaultSearchPath : path;
}

/// Fetches a message for a locale's name. Nothing is traced: the caller does that when it holds no lock.
uint32_t Fetch(const char* locale, const MessageId& id, char** out) {
    constexpr uint32_t kNoMessage = MakeResult(fn::kGetCatMessagePureLocale, Reason::CatalogueRead);
    constexpr uint32_t kNoMemory = MakeResult(fn::kGetCatMessagePureLocale, Reason::OutOfMemory);
    static_assert(kNoMessage == 0x61821303 && kNoMemory == 0x61821202);
    if (out == nullptr) return MakeResult(fn::kGetCatMessagePureLocale, Reason::NullArgument);
    if (id.catalogue == nullptr) return kNoMessage;

    const CancelBlock whileOpen;  // the file is closed by a destructor, which cancellation must not leave
    const std::lock_guard catalogueGuard(catalogueLock);
    const std::lock_guard nlsGuard(nlsLock);
    CatalogueFile file;
    const CatalogueFile::Status status = file.Read(id.catalogue, locale, SearchPath());
    if (status == CatalogueFile::Status::kNoMemory) return kNoMemory;
    if (status != CatalogueFile::Status::kOk) return kNoMessage;
    const char* const text = file.Find(id.set, id.number);
    if (text == nullptr || *text == '\0') return kNoMessage;
    char* const copy = strdup(text);
    if (copy == nullptr) return kNoMemory;
    *out = copy;
    return 0;
}

/// Traces a failure and gives its code back. The usual report cannot serve here: it reads the code's text from a
/// catalogue. Call with no lock held.
uint32_t Report(uint32_t code, const MessageId& id) {
    if (code == 0) return 0;
    const bool noMemory = (code & 0xFFFF) == static_cast<uint32_t>(Reason::OutOfMemory);
    const OwnedText codeText(PXR_GetErrCodeString(code));
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "%s %s CatFile=%s SetId=0x%08x MesId=0x%08x\n",
              codeText == nullptr ? "" : codeText.get(), noMemory ? "AGT_CANNOT_ALLOC_MEMORY" : "AGT_ACCESS_CAT_FILE",
              id.catalogue == nullptr ? "" : id.catalogue, static_cast<unsigned>(id.set),
              static_cast<unsigned>(id.number));
    return code;
}

uint32_t FetchForLocale(int locale, const MessageId& id, char** out) {
    const std::lock_guard guard(localeLock);
    if (locale == KV_LOCALE_NEUTRAL) return Fetch(kNeutralName, id, out);
    if (locale == KV_LOCALE_JAPANESE) return Fetch(kJapaneseName, id, out);
    const OwnedText lang = CopyLang();
    return lang == nullptr ? MakeResult(fn::kGetCatMessage, Reason::OutOfMemory) : Fetch(lang.get(), id, out);
}

}  // namespace

int GetLocale(void) {
    const std::lock_guard guard(localeLock);
    if (cachedLocale == kLocaleUnset) {
        const char* const lang = getenv("LANG");
        const bool japanese = lang != nullptr && std::ranges::find(kJapaneseNames, lang) != std::end(kJapaneseNames);
        cachedLocale = japanese ? KV_LOCALE_JAPANESE : KV_LOCALE_NEUTRAL;
    }
    return cachedLocale;
}

uint32_t GetCatMessagePureLocale(const char* catalogue, int set, int number, char** out) {
    const MessageId id{catalogue, set, number};
    const OwnedText lang = CopyLang();
    if (lang == nullptr) return Report(MakeResult(fn::kGetCatMessagePureLocale, Reason::OutOfMemory), id);
    return Report(Fetch(lang.get(), id, out), id);
}

uint32_t GetCatMessage(int locale, const char* catalogue, int set, int number, char** out) {
    const MessageId id{catalogue, set, number};
    return Report(FetchForLocale(locale, id, out), id);
}

uint32_t GetCatMessageLocale(const char* catalogue, int set, int number, char** out) {
    return GetCatMessage(GetLocale(), catalogue, set, number, out);
}

uint32_t GetCatMessageCollectLocale(const char* catalogue, int set, int number, char** out) {
    const MessageId id{catalogue, set, number};
    uint32_t first = 0;
    uint32_t result = MakeResult(fn::kGetCatMessageCollectLocale, Reason::OutOfMemory);
    {
        const std::lock_guard guard(localeLock);
        if (const OwnedText lang = CopyLang()) result = first = Fetch(lang.get(), id, out);
        if (first != 0) result = Fetch(kNeutralName, id, out);
    }
    Report(first, id);
    return Report(result, id);
}
