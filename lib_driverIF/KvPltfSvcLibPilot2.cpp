// The log of this module, its files, and what machine it is on.

#include "lib_driverIF/KvPltfSvcLibPilot2.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>

#include "common/FileText.h"
#include "common/TextCursor.h"
#include "lib_driverIF/KvPltfSvcLibPilot2_Internal.h"
#include "lib_driverIF/KvPltfSvcProduct.h"
#include "lib_driverIF/KvPltfSvcSmbiosView.h"
#include "libplatform/KvPsSmbios.h"

std::recursive_mutex g_capabilityMutex;

namespace {

constexpr const char* kSmbiosConfiguration = "/etc/opt/velmora/lantrel/kvgetsmbios.cfg";
constexpr std::string_view kSmbiosCodeKey = "SMBIOSCode = ";
constexpr std::array<std::string_view, 2> kSmbiosCodes{"002", "003"};

constexpr uint8_t kSystemInformation = 1;
constexpr size_t kLargestFile = 1024 * 1024;
constexpr size_t kLongestLine = 31;

std::atomic<CapabilityLogFunction> g_logFunction{nullptr};

// Guarded by g_capabilityMutex.
uint32_t dwIsVaristel = kFamilyUnknown;
bool g_smbiosTried = false;
char g_cSmbioscode[4] = {};

/// The copy of SMBIOS may not have been made when the first question comes. Tried once: a machine without a System
/// Information structure would be asked again and again, under the feet of those who read the copy.
void EnsureSmbiosCopy() {
    if (!ktx_smbios::StructuresOf(kSystemInformation).empty() || g_smbiosTried) return;
    g_smbiosTried = true;
    KvPsInitializeSmbios();
}

int IndexOfSmbiosCode(std::string_view text) {
    const auto found =
        std::ranges::find_if(kSmbiosCodes, [text](std::string_view code) { return text.starts_with(code); });
    return found == kSmbiosCodes.end() ? kSmbiosCodeUnknown
                                       : kSmbiosCode002 + static_cast<int>(found - kSmbiosCodes.begin());
}

/// Takes a line, without a carriage return at its end. Empty at the end of the text.
std::string_view TakeLine(std::string_view& rest) {
    std::string_view line;
    text::TakeLine(rest, line);
    if (line.ends_with('\r')) line.remove_suffix(1);
    return line;
}

int ReadSmbiosCode() {
    if (access(kSmbiosConfiguration, F_OK) != 0) return kSmbiosCodeNoFile;  // most machines have none
    const std::optional<std::string> text = ReadWholeFile(kSmbiosConfiguration);
    if (!text) return kSmbiosCodeNoFile;
    std::string_view rest = *text;
    TakeLine(rest);
    if (rest.empty()) return kSmbiosCodeNoFile;
    std::string_view line = TakeLine(rest);
    int code = kSmbiosCodeUnknown;
    if (line.starts_with(kSmbiosCodeKey)) {
        line.remove_prefix(kSmbiosCodeKey.size());
        code = IndexOfSmbiosCode(line);
    }
    if (code == kSmbiosCodeUnknown) {
        LOG_CAPABILITY(kLogTrace, "FileRead & Check NG(SMBIOSCode != PILOTX/SH)");
        return code;
    }
    LOG_CAPABILITY(kLogTrace, "FileRead & Check OK(SMBIOSCode == PILOTX/SH)");
    line.copy(g_cSmbioscode, sizeof g_cSmbioscode - 1);
    return code;
}

}  // namespace

void SetLogFunction(CapabilityLogFunction function) {
    g_logFunction = function;
}

void ExecLogFunction(int level, const char* source, int line, const char* format, ...) {
    const CapabilityLogFunction log = g_logFunction;
    if (log == nullptr) return;
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    log(level, source, line, "%s", text);
}

std::optional<std::string> ReadWholeFile(const char* path) {
    std::string content;
    const int error = ReadWhole(path, kLargestFile, content);
    if (error == 0) return content;
    const bool opened = error == EIO || error == EINVAL || error == EFBIG || error == ENOMEM;
    LOG_CAPABILITY(kLogError, "%s Error.(%s)", opened ? "FileRead" : "FileOpen(rb)", path);
    return std::nullopt;
}

bool WriteWholeFile(const char* path, std::string_view content) {
    char temporary[128];
    snprintf(temporary, sizeof temporary, "%s.tmp", path);
    Replacement file;
    if (file.Create(path, temporary, 0644) != 0) {
        LOG_CAPABILITY(kLogError, "FileOpen(wb) Error.(%s)", path);
        return false;
    }
    file.Write(content);
    if (file.Commit() == 0) return true;
    LOG_CAPABILITY(kLogError, "FileWrite Error.(%s)", path);
    return false;
}

AddressList ParseAddressList(std::string_view text) {
    AddressList addresses;
    while (!text.empty()) {
        const std::string_view line = TakeLine(text).substr(0, kLongestLine);
        if (!line.empty()) addresses.emplace_back(line);
    }
    return addresses;
}

bool IsVaristel(uint32_t* family) {
    const std::lock_guard lock(g_capabilityMutex);
    if (dwIsVaristel == kFamilyUnknown) {
        EnsureSmbiosCopy();
        std::string_view name;
        if (const uint32_t rc = product::Name(&name)) {
            LOG_CAPABILITY(kLogError, "KvPsGetSystemInformation return 0x%08x.", rc);
            return false;
        }
        dwIsVaristel = product::IsBlade(name) ? kFamilyBlade : kFamilyRack;
    }
    if (dwIsVaristel == kFamilyBlade) ExecLogFunction(kLogDebug, kLogSource, __LINE__, "[LibPilot2]IsVaristel() ...VS");
    if (family != nullptr) *family = dwIsVaristel;
    return true;
}

int CheckSMBIOSCode() {
    const std::lock_guard lock(g_capabilityMutex);
    return g_cSmbioscode[0] != '\0' ? IndexOfSmbiosCode(g_cSmbioscode) : ReadSmbiosCode();
}
