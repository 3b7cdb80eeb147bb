// The plug-in as a host sees it.

#include "host/kvhost_Library.h"

#include <dlfcn.h>

#include <cstdlib>
#include <memory>
#include <stdexcept>

#include "cover/Heap.h"
#include "host/kvhost_Text.h"

namespace kvhost {

namespace {

constexpr const char* kLibraryName = "libplatform.so.1";
constexpr const char* kInstalledFolder = "/opt/velmora/lantrel/lib";

template <class Function>
void Resolve(void* handle, const char* name, Function& function) {
    function = reinterpret_cast<Function>(dlsym(handle, name));
    if (function == nullptr) throw std::runtime_error(std::string(name) + " is missing in the plug-in");
}

/// Takes over a text that the plug-in allocated; a null one is empty.
std::string TakeText(char* text) {
    const OwnedText owner(text);
    return text != nullptr ? text : "";
}

}  // namespace

std::filesystem::path Library::DefaultPath() {
    std::error_code error;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
    if (!error) {
        auto beside = program.parent_path().parent_path() / "lib" / kLibraryName;
        if (std::filesystem::exists(beside, error)) return beside;
    }
    return std::filesystem::path(kInstalledFolder) / kLibraryName;
}

Library::Library(const std::filesystem::path& path) : path_(path) {
    const auto catalogues = path.parent_path() / "nls";
    std::error_code error;
    if (std::filesystem::is_directory(catalogues, error)) {
        setenv("NLSPATH", (catalogues / "%L" / "%N").c_str(), 0);
    }
    handle_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle_ == nullptr) throw std::runtime_error(dlerror());
#define KVHOST_RESOLVE(name) Resolve(handle_, #name, name);
    try {
        KVHOST_FUNCTIONS(KVHOST_RESOLVE)
    } catch (...) {
        dlclose(handle_);
        throw;
    }
#undef KVHOST_RESOLVE
}

Library::~Library() {
    dlclose(handle_);
}

std::string Library::Describe(int code) const {
    const auto unsignedCode = static_cast<uint32_t>(code);
    std::string line = TakeText(PXR_GetErrCodeString(unsignedCode));
    const std::string text = TakeText(PXR_GetErrCodeMes("KvAgent.cat", unsignedCode));
    if (!text.empty()) line += ": " + ToUtf8(text, IsJapanese());
    return line;
}

void Library::Check(uint32_t code) const {
    if (code != 0) throw std::runtime_error(Describe(static_cast<int>(code)));
}

}  // namespace kvhost
