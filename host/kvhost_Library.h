#pragma once
/// @file
/// The plug-in as a host sees it: loaded at run time, its functions found by name. Their types come from the public
/// headers, so a call that does not fit does not compile; nothing is linked.

#include <filesystem>
#include <string>

#include "libplatform/KvDeviceOps.h"
#include "libplatform/KvDfCheck.h"
#include "libplatform/KvDfFru.h"
#include "libplatform/KvPsBmc.h"
#include "libplatform/KvPsDevice.h"
#include "libplatform/KvPsSel.h"
#include "libplatform/KvPsSensor.h"
#include "libplatform/KvPsSmbios.h"
#include "libplatform/PXR_catalogue.h"
#include "libplatform/PXR_data_access.h"
#include "libplatform/PXR_message.h"
#include "libplatform/PXR_trace.h"
#include "libplatform/platform_if.h"
#include "libplatform/smbios_ioctl.h"

namespace kvhost {

/// The functions that this host calls.
#define KVHOST_FUNCTIONS(X)        \
    X(InitLib)                     \
    X(TerminateLib)                \
    X(GetVersion)                  \
    X(PXR_GetCommandList)          \
    X(PXR_ExecCommand)             \
    X(FreeCommandList)             \
    X(CreateEnum)                  \
    X(FreeEnum)                    \
    X(GetLocale)                   \
    X(PXR_GetErrCodeString)        \
    X(PXR_GetErrCodeMes)           \
    X(PXR_set_command_name)        \
    X(PXR_trace_init)              \
    X(PXR_trace_term)              \
    X(KvSetDeviceOps)              \
    X(KvPsGetDeviceId)             \
    X(KvPsGetIpmiInterface)        \
    X(KvPsGetStructureHeader)      \
    X(KvPsGetTypeData)             \
    X(KvPsFreeTypeData)            \
    X(smbios_ioctl)                \
    X(KvPsGetAllSdrData)           \
    X(KvPsGetSensorDataList)       \
    X(KvPsGetFruInventoryAreaSize) \
    X(KvPsReadFruInventoryData)    \
    X(KvDf_GetFruInventoryData)    \
    X(KvPsGetSelAllEntries)        \
    X(KvPsFreeDataArray)           \
    X(KvDfCheckDefinitions)

class Library {
public:
    /// Loads the plug-in. Its message catalogues are looked for beside it, unless NLSPATH says otherwise.
    /// @throws std::runtime_error with the loader's reason
    explicit Library(const std::filesystem::path& path);
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
    ~Library();

    /// The plug-in beside this program, else the installed one.
    static std::filesystem::path DefaultPath();

    const std::filesystem::path& Path() const { return path_; }

    /// A result code as people read it: the printable code and its text, "QNTR 64202-C 18C: ...".
    std::string Describe(int code) const;

    /// @throws std::runtime_error with the code and its text unless the code is 0
    void Check(uint32_t code) const;

    /// Whether the plug-in's texts are Japanese.
    bool IsJapanese() const { return GetLocale() == 1; }

#define KVHOST_MEMBER(name) decltype(&::name) name = nullptr;  // NOLINT(bugprone-macro-parentheses): it declares
    KVHOST_FUNCTIONS(KVHOST_MEMBER)
#undef KVHOST_MEMBER

private:
    std::filesystem::path path_;
    void* handle_ = nullptr;
};

}  // namespace kvhost
