// Start and stop of the table reader.

#include <cerrno>
#include <new>

#include "lib_driverIF/KvLibSmbios.h"

namespace {

constexpr uint8_t kInitialised = 1;

int FindInMemory() {
    if (const int error = sb_search_header(GetSbBaseAddr(), sb::SearchLength())) return error;
    return sb_set_tableinfo();
}

int FindTable() {
    try {
        const int error = FindInMemory();
        if (error != -EIO && error != -ENXIO) return error;
        const int ofKernel = sb::TakeKernelTable();
        return ofKernel == -ENXIO ? error : ofKernel;
    } catch (const std::bad_alloc&) {
        return sb::Error(-ENOMEM);
    }
}

}  // namespace

int Init_SmbiosIF() {
    if (smbios_major != 0) return 0;
    const int error = FindTable();
    if (error != 0) {
        Terminate_SmbiosIF();
        return error;
    }
    smbios_major = kInitialised;
    return 0;
}

void Terminate_SmbiosIF() {
    sb::ClearState();
}
