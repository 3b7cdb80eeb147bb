// Access to the registers of the interface, one byte at a time, and the pause of its polling loops.

#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>

#include "cover/DeviceCover.h"
#include "cover/TimerCover.h"
#include "lib_driverIF/KvLibIpmi_Interface.h"
#include "lib_driverIF/KvLibSmbios.h"

const IpmiRegisterTable ioreg_func = {ipmi_ioreg_write, ipmi_ioreg_read};
const IpmiRegisterTable memoryreg_func = {ipmi_memoryreg_write, ipmi_memoryreg_read};

namespace {

constexpr int64_t kPageSize = 4096;

/// The right to port I/O, held for one access: raised for longer it would serve every thread's stray instruction.
class PortPrivilege {
public:
    PortPrivilege() : raised_(device::IoPrivilege(3) == 0) {}
    ~PortPrivilege() {
        if (raised_) device::IoPrivilege(0);
    }
    PortPrivilege(const PortPrivilege&) = delete;
    PortPrivilege& operator=(const PortPrivilege&) = delete;
    explicit operator bool() const { return raised_; }

private:
    bool raised_;
};

bool PortOut(uint16_t port, uint8_t value) {
    const PortPrivilege privilege;
    if (privilege) device::PortOut(port, value);
    return static_cast<bool>(privilege);
}

bool PortIn(uint16_t port, uint8_t* value) {
    const PortPrivilege privilege;
    if (privilege) *value = device::PortIn(port);
    return static_cast<bool>(privilege);
}

/// Physical memory around one register, mapped as the device sees it.
class RegisterPage {
public:
    RegisterPage(int64_t physical, bool writable)
        :  // A mapping that can be written needs a descriptor that can be read as well. O_SYNC: past the cache.
          memory_("/dev/mem", (writable ? O_RDWR : O_RDONLY) | O_SYNC),
          offset_(static_cast<size_t>(physical % kPageSize)) {
        if (memory_) page_ = device::Map(memory_.Get(), physical - physical % kPageSize, kPageSize, writable);
    }
    ~RegisterPage() {
        if (page_ != MAP_FAILED) device::Unmap(page_, kPageSize);
    }
    RegisterPage(const RegisterPage&) = delete;
    RegisterPage& operator=(const RegisterPage&) = delete;
    explicit operator bool() const { return page_ != MAP_FAILED; }
    volatile uint8_t& Register() const { return static_cast<volatile uint8_t*>(page_)[offset_]; }

private:
    device::Descriptor memory_;
    size_t offset_;
    void* page_ = MAP_FAILED;
};

int64_t PhysicalAddress(uint16_t reg) {
    return int64_t{g_pMMapSegmentAddress} + reg;
}

}  // namespace

bool ipmi_memory_write_by_seek(int64_t physical, uint8_t value) {
    const device::Descriptor memory("/dev/mem", O_WRONLY);
    return memory && device::Seek(memory.Get(), physical) == physical && device::Write(memory.Get(), &value, 1) == 1;
}

bool ipmi_memory_read_by_seek(int64_t physical, uint8_t* value) {
    const device::Descriptor memory("/dev/mem", O_RDONLY);
    return memory && device::Seek(memory.Get(), physical) == physical && device::Read(memory.Get(), value, 1) == 1;
}

bool ipmi_memory_write_by_map(int64_t physical, uint8_t value) {
    const RegisterPage page(physical, true);
    if (page) page.Register() = value;
    return static_cast<bool>(page);
}

bool ipmi_memory_read_by_map(int64_t physical, uint8_t* value) {
    const RegisterPage page(physical, false);
    if (page) *value = page.Register();
    return static_cast<bool>(page);
}

int ipmi_ioreg_write(uint16_t reg, uint8_t value) {
    if (!PortOut(reg, value)) return IpmiCallTrace::Report(-EIO, __func__);
    PXR_trace(PXR_TRACE_MASK_IPMI, PXR_TRACE_LEVEL_DETAIL, "O: R=%04X D=%02X\n", reg, value);
    return 0;
}

uint8_t ipmi_ioreg_read(uint16_t reg) {
    uint8_t value = 0;
    if (!PortIn(reg, &value)) {
        IpmiCallTrace::Report(-EIO, __func__);
        return 0;
    }
    PXR_trace(PXR_TRACE_MASK_IPMI, PXR_TRACE_LEVEL_DETAIL, "I: R=%04X D=%02X\n", reg, value);
    return value;
}

int ipmi_memoryreg_write(uint16_t reg, uint8_t value) {
    const int64_t physical = PhysicalAddress(reg);
    if (!(sb::IsKernel26() ? ipmi_memory_write_by_map(physical, value) : ipmi_memory_write_by_seek(physical, value))) {
        return IpmiCallTrace::Report(-EIO, __func__);
    }
    PXR_trace(PXR_TRACE_MASK_IPMI, PXR_TRACE_LEVEL_DETAIL, "%s: REG=%04X DAT=%02X\n", __func__, reg, value);
    return 0;
}

uint8_t ipmi_memoryreg_read(uint16_t reg) {
    uint8_t value = 0;
    const int64_t physical = PhysicalAddress(reg);
    if (!(sb::IsKernel26() ? ipmi_memory_read_by_map(physical, &value) : ipmi_memory_read_by_seek(physical, &value))) {
        IpmiCallTrace::Report(-EIO, __func__);
        return 0;
    }
    PXR_trace(PXR_TRACE_MASK_IPMI, PXR_TRACE_LEVEL_DETAIL, "%s: REG=%04X DAT=%02X\n", __func__, reg, value);
    return value;
}

int ipmi_sleep_on_timeout(long ms) {
    IpmiCallTrace trace(__func__);
    const auto pause = static_cast<uint64_t>(std::max(ms, 0L));
    return Clock().SleepFor(pause * 1000) == 0 ? trace.Out(0) : trace.Fail(-EFAULT);
}
