// What the files of the table reader share.

#include "lib_driverIF/KvLibSmbios_State.h"

#include <cstring>
#include <utility>

#include "common/FileText.h"
#include "libplatform/PXR_trace.h"

uint8_t smbios_header[kSmbiosHeaderSize];
uint8_t smbios_headsize;
uint8_t smbios_major;
smbios_table_entry* smbios_tableinfo;
uint32_t smbios_tablecnt;

namespace {

std::string& KernelTable() {
    static auto* const table = new std::string;  // the host may still ask while the process ends
    return *table;
}

}  // namespace

void sb_clear_state() {
    delete[] smbios_tableinfo;
    smbios_tableinfo = nullptr;
    smbios_tablecnt = 0;
    sb_keep_kernel_table({});
    memset(smbios_header, 0, sizeof(smbios_header));
    smbios_headsize = 0;
    smbios_major = 0;
}

void sb_keep_kernel_table(std::string table) {
    KernelTable() = std::move(table);
}

std::span<const uint8_t> sb_kernel_table() {
    return sb_bytes(KernelTable());
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
