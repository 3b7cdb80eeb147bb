// Physical memory: through the memory driver, or through /dev/mem.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/utsname.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

#include "cover/DeviceCover.h"
#include "lib_driverIF/KvLibSmbios.h"
#include "libplatform/PXR_trace.h"

namespace {

constexpr const char* kDriverModule = "/opt/velmora/lantrel/lib/KvDrvMem.o";
constexpr const char* kDriverDevice = "/dev/kvdrvmem";
constexpr const char* kMemoryDevice = "/dev/mem";
constexpr uint32_t kPageSize = 4096;

/// Copies a range of physical memory.
constexpr unsigned long kDriverRead = 0x80044501;
struct DriverReadBlock {
    uint32_t unused;
    uint32_t address;
    void* buffer;
    uint32_t length;
};
static_assert(sizeof(DriverReadBlock) == 16);

bool IsDriverInstalled() {
    struct stat status = {};
    const bool installed = stat(kDriverModule, &status) == 0 && S_ISREG(status.st_mode);
    if (installed) {
        PXR_trace(PXR_TRACE_MASK_SMBIOS, PXR_TRACE_LEVEL_DETAIL,
                  "The file %s is found, so SMBIOS data will be read by the driver.", kDriverModule);
    } else {
        PXR_trace(PXR_TRACE_MASK_SMBIOS, PXR_TRACE_LEVEL_DETAIL,
                  "The file %s is not found, so SMBIOS data will be read by the standard method.", kDriverModule);
    }
    return installed;
}

uint32_t ReadByDriver(void* buffer, uint32_t address, uint32_t length) {
    const device::Descriptor driver(kDriverDevice, O_RDONLY);
    if (!driver) {
        PXR_trace(PXR_TRACE_MASK_SMBIOS, PXR_TRACE_LEVEL_ERROR, "Failed to open %s.(errno=%d)\n", kDriverDevice, errno);
        return 0;
    }
    DriverReadBlock block = {0, address, buffer, length};
    if (device::Ioctl(driver.Get(), kDriverRead, &block) < 0) {
        PXR_trace(PXR_TRACE_MASK_SMBIOS, PXR_TRACE_LEVEL_ERROR,
                  "Failed to read the data from %s using ioctl.(errno=%d)\n", kDriverDevice, errno);
        PXR_trace(PXR_TRACE_MASK_SMBIOS, PXR_TRACE_LEVEL_ERROR, "physical address=0x%08x buffer=%p size=%u\n", address,
                  buffer, length);
        return 0;
    }
    return length;
}

uint32_t ReadError(std::source_location where = std::source_location::current()) {
    PXR_trace(PXR_TRACE_MASK_SMBIOS, PXR_TRACE_LEVEL_ERROR, "%s(%d) : /dev/mem read error=(%d)\n", sb::FileName(where),
              static_cast<int>(where.line()), errno);
    return 0;
}

uint32_t NothingRead(std::source_location where = std::source_location::current()) {
    PXR_trace(PXR_TRACE_MASK_SMBIOS, PXR_TRACE_LEVEL_ERROR, "%s(%d) : /dev/mem read length=0\n", sb::FileName(where),
              static_cast<int>(where.line()));
    return 0;
}

/// The page that an address lies in begins here.
constexpr uint32_t PageStart(uint32_t address) {
    return address / kPageSize * kPageSize;
}

/// Bytes of the whole pages that cover a range, or 0 when it does not fit below 4 GB.
uint32_t CoveringBytes(uint32_t address, uint32_t length) {
    const uint64_t end = (uint64_t{address} + length + kPageSize - 1) / kPageSize * kPageSize;
    constexpr uint64_t kAddressSpace = uint64_t{1} << 32;
    return end <= kAddressSpace ? static_cast<uint32_t>(end - PageStart(address)) : 0;
}

int CopyFromKernelTable(void* buffer, uint32_t offset, uint32_t size) {
    const std::span<const uint8_t> table = sb::KernelTable();
    if (offset > table.size() || size > table.size() - offset) return sb::Error(-EIO);
    memcpy(buffer, table.data() + offset, size);
    return 0;
}

int CopyFromMemory(void* buffer, uint32_t address, uint32_t size) {
    const uint32_t start = PageStart(address);
    const uint32_t length = CoveringBytes(address, size);
    if (length == 0) return sb::Error(-EIO);
    const std::unique_ptr<uint8_t[]> pages(new (std::nothrow) uint8_t[length]);
    if (pages == nullptr) return sb::Error(-ENOMEM);
    const uint32_t before = address - start;
    if (ReadMem(pages.get(), start, length) < before + size) return sb::Error(-EIO);
    memcpy(buffer, pages.get() + before, size);
    return 0;
}

}  // namespace

bool sb::IsKernel26(const char* release) {
    const char* const end = release + strlen(release);
    unsigned major = 0;
    unsigned minor = 0;
    const auto [rest, error] = std::from_chars(release, end, major);
    if (error != std::errc{}) return true;  // no number that we know; no kernel of today is older
    if (rest != end && *rest == '.') std::from_chars(rest + 1, end, minor);
    return major > 2 || (major == 2 && minor >= 6);
}

bool sb::IsKernel26() {
    struct utsname names = {};
    return uname(&names) != 0 || sb::IsKernel26(names.release);
}

uint32_t sb::ReadBySeek(int fd, void* buffer, uint32_t address, uint32_t length) {
    if (device::Seek(fd, address) < 0) return ReadError();
    uint32_t done = 0;
    while (done < length) {
        const ssize_t got = device::Read(fd, static_cast<uint8_t*>(buffer) + done, length - done);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return ReadError();
        if (got == 0) break;
        done += std::min(static_cast<uint32_t>(got), length - done);
    }
    return done != 0 ? done : NothingRead();
}

uint32_t sb::ReadByMap(int fd, void* buffer, uint32_t address, uint32_t length) {
    const uint32_t start = PageStart(address);
    const uint32_t covering = CoveringBytes(address, length);
    if (length == 0 || covering == 0) return NothingRead();
    void* const pages = device::Map(fd, start, covering, false);
    if (pages == MAP_FAILED) return ReadError();
    memcpy(buffer, static_cast<const uint8_t*>(pages) + (address - start), length);
    device::Unmap(pages, covering);
    return length;
}

uint32_t ReadMem(void* buffer, uint32_t address, uint32_t length) {
    if (IsDriverInstalled()) return ReadByDriver(buffer, address, length);
    const device::Descriptor memory(kMemoryDevice, O_RDONLY);
    if (!memory) return ReadError();
    return sb::IsKernel26() ? sb::ReadByMap(memory.Get(), buffer, address, length)
                            : sb::ReadBySeek(memory.Get(), buffer, address, length);
}

int sb_cp_rmem2vmem(void* buffer, uint32_t address, uint32_t size) {
    const int error =
        sb::KernelTable().empty() ? CopyFromMemory(buffer, address, size) : CopyFromKernelTable(buffer, address, size);
    if (error != 0) return error;
    PXR_trace(PXR_TRACE_MASK_SMBIOS, PXR_TRACE_LEVEL_DETAIL, "SMBIOS data:size=%d\n", static_cast<int>(size));
    PXR_mem_trace(PXR_TRACE_MASK_SMBIOS, PXR_TRACE_LEVEL_DETAIL, "", static_cast<const uint8_t*>(buffer),
                  static_cast<int>(size));
    return 0;
}
