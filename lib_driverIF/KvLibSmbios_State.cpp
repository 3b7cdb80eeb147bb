// What the files of the table reader share.

#include "lib_driverIF/KvLibSmbios_State.h"

#include <cstring>

#include "common/FileText.h"
#include "libplatform/PXR_trace.h"

uint8_t smbios_header[kSmbiosHeaderSize];
uint8_t smbios_headsize;
uint8_t smbios_major;
smbios_table_entry* smbios_tableinfo;
uint32_t smbios_tablecnt;

namespace {

std::string& Table() {
    static auto* const table = new std::string;  // the host may still ask while the process ends
    return *table;
}

}  // namespace

namespace sb {

void ClearState() {
    delete[] smbios_tableinfo;
    smbios_tableinfo = nullptr;
    smbios_tablecnt = 0;
    KeepKernelTable({});
    memset(smbios_header, 0, sizeof(smbios_header));
    smbios_headsize = 0;
    smbios_major = 0;
}

void KeepKernelTable(std::string table) {
    Table().swap(table);  // what was kept is freed
}

std::span<const uint8_t> KernelTable() {
    return BytesOf(Table());
}

const char* FileName(std::source_location where) {
    const char* const slash = strrchr(where.file_name(), '/');
    return slash != nullptr ? slash + 1 : where.file_name();
}

int Error(int error, std::source_location where) {
    PXR_trace(PXR_TRACE_MASK_SMBIOS, PXR_TRACE_LEVEL_ERROR, "Error occured.(%d) %s(%d)\n", error, FileName(where),
              static_cast<int>(where.line()));
    return error;
}

}  // namespace sb

int FileDataAllRead(const char* path, size_t limit, std::string& content) {
    return -ReadWhole(path, limit, content);
}
