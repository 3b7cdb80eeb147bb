// Start and stop of the table reader.

#include "lib_driverIF/KvLibSmbios.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <string>

#include "common/FileText.h"
#include "libplatform/PXR_trace.h"

uint8_t smbios_header[kSmbiosHeaderSize];
uint8_t smbios_headsize;
uint8_t smbios_major;
smbios_table_entry* smbios_tableinfo;
uint32_t smbios_tablecnt;

namespace {

constexpr uint8_t kInitialised = 1;

int FindInMemory() {
    if (const int error = sb_search_header(GetSbBaseAddr(), sb_get_search_length())) return error;
    return sb_set_tableinfo();
}

int FindTable() {
    try {
        const int error = FindInMemory();
        if (error != -EIO && error != -ENXIO) return error;
        const int ofKernel = sb_take_kernel_table();
        return ofKernel == -ENXIO ? error : ofKernel;
    } catch (const std::bad_alloc&) {
        return sb_error(-ENOMEM);
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
    delete[] smbios_tableinfo;
    smbios_tableinfo = nullptr;
    smbios_tablecnt = 0;
    sb_free_kernel_table();
    memset(smbios_header, 0, sizeof(smbios_header));
    smbios_headsize = 0;
    smbios_major = 0;
}

const char* sb_file_name(std::source_location where) {
    const char* const slash = strrchr(where.file_name(), '/');
    return slash != nullptr ? slash + 1 : where.file_name();
}

int sb_error(int error, std::source_location where) {
    PXR_trace(PXR_TRACE_MASK_SMBIOS, PXR_TRACE_LEVEL_ERROR, "Error occured.(%d) %s(%d)\n", error, sb_file_name(where),
              static_cast<int>(where.line()));
    return error;
}

int FileDataAllRead(const char* path, size_t limit, std::string& content) {
    return -ReadWhole(path, limit, content);
}
