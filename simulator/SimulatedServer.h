#pragma once
/// @file
/// A simulated server: the devices that the library reaches through a KvDeviceOps table, with a BMC behind them.
///
///   ScopedVirtualClock clock;
///   SimulatedServer server(clock);                    // a good machine ...
///   server.OnPortRead(0xCA3, [n = 0](uint8_t good) mutable { return ++n == 3 ? kcs::kError : good; });  // ... with
///   one fault KvSetDeviceOps(server.Ops());
///   ...
///   EXPECT_EQ(1, server.PortWrites(0xCA3, kcs::kAbort));

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "libplatform/KvDeviceOps.h"
#include "simulator/Bmc.h"
#include "simulator/KcsRegisters.h"
#include "simulator/KernelIpmiDevice.h"
#include "simulator/PhysicalMemory.h"
#include "simulator/SmicRegisters.h"
#include "simulator/VirtualClock.h"

namespace sim {

/// Where a register interface is found.
struct RegisterWindow {
    bool memory = false;     ///< memory-mapped instead of I/O ports
    uint64_t base = 0x0CA2;  ///< port or physical address of the first register
    unsigned spacing = 1;    ///< distance between registers
};

class SimulatedServer {
public:
    /// @param clock  drives the BMC and the waits of the devices; must outlive the server
    explicit SimulatedServer(TimerClock& clock = MachineClock());
    ~SimulatedServer();
    SimulatedServer(const SimulatedServer&) = delete;
    SimulatedServer& operator=(const SimulatedServer&) = delete;

    /// The table for KvSetDeviceOps; lives as long as the server.
    const KvDeviceOps* Ops() const { return &ops_; }

    Bmc& GetBmc() { return bmc_; }
    KcsRegisters& Kcs() { return kcs_; }
    SmicRegisters& Smic() { return smic_; }
    KernelIpmiDevice& Kernel() { return kernel_; }

    /// Moves the registers. From the start: KCS at I/O port 0xCA2, SMIC at 0xCA9, spacing 1.
    void PlaceKcs(const RegisterWindow& window);
    void PlaceSmic(const RegisterWindow& window);

    /// Puts bytes at a physical address. Below 1 MiB memory reads as zero where nothing was put; above it there is
    /// none.
    void AddMemory(uint64_t physical, Bytes content) { memory_.Add(physical, std::move(content)); }
    /// Takes all of it away again.
    void ClearMemory() { memory_.Clear(); }
    /// Whether "/dev/kvdrvmem" can be opened (not from the start).
    void SetMemoryDriver(bool present);

    // Faults. Hooks are called one at a time; n-th accesses are counted by the hook itself. Registers are named by
    // their port, or by their physical address when memory-mapped.

    /// Replaces what a register reads as. @param hook gets the good value; an empty one takes the hook away
    void OnPortRead(uint64_t port, std::function<uint8_t(uint8_t good)> hook);
    /// Replaces what is written to a register; no value: the write is lost.
    void OnPortWrite(uint64_t port, std::function<std::optional<uint8_t>(uint8_t value)> hook);
    /// See Controller::OnCommand; these act on the BMC.
    void OnCommand(uint8_t netFn, uint8_t command, Controller::CommandHook hook);
    /// Node busy, so many times.
    void Busy(uint8_t netFn, uint8_t command, unsigned times) { bmc_.Refuse(netFn, command, cc::kNodeBusy, times); }
    /// The n-th use of the command from now on (1: the next) finds its reservation cancelled.
    void CancelReservationAt(uint8_t netFn, uint8_t command, unsigned n);
    /// The next openings of a device fail with errno.
    void FailOpen(const std::string& path, int error, unsigned times = 1);
    /// Reads of "/dev/mem" give at most so many bytes; the next ones are ended by a signal before they begin.
    void LimitReads(size_t atMost, unsigned interruptions = 0);
    /// The I/O privilege level cannot be raised: EPERM.
    void DenyIoPrivilege(bool deny);

    // What happened.

    unsigned PortReads(uint64_t port) const;
    unsigned PortWrites(uint64_t port) const;
    unsigned PortWrites(uint64_t port, uint8_t value) const;
    unsigned Opens(const std::string& path) const;
    /// Devices open now; ranges mapped now; threads whose I/O privilege is raised now.
    size_t OpenDescriptors() const;
    size_t OpenMaps() const { return memory_.OpenMaps(); }
    size_t RaisedThreads() const;
    /// Port accesses without I/O privilege (a real machine would have ended the process).
    unsigned PrivilegeViolations() const;
    /// Conversations that ran into each other, on the device or on the registers.
    unsigned Overlaps();

private:
    struct OpenFile {
        std::string path;
        int flags;
        int64_t position = 0;
    };
    struct Fault {
        int error = 0;
        unsigned times = 0;
    };

    void FillOps();
    int Open(const char* path, int flags);
    int Close(int fd);
    ssize_t Read(int fd, void* buffer, size_t length);
    ssize_t Write(int fd, const void* buffer, size_t length);
    int64_t Seek(int fd, int64_t offset);
    void* Map(int fd, int64_t offset, size_t length, bool writable);
    int Ioctl(int fd, unsigned long request, void* argument);
    int ReadByDriver(void* argument);
    int IoPrivilege(int level);
    uint8_t PortIn(uint16_t port);
    void PortOut(uint16_t port, uint8_t value);
    uint8_t ReadRegister(bool memory, uint64_t address);
    void WriteRegister(bool memory, uint64_t address, uint8_t value);
    RegisterInterface* FindRegister(bool memory, uint64_t address, unsigned& index);
    bool Privileged() const;
    void PlaceRegisters();
    std::optional<OpenFile> FindFile(int fd) const;

    KvDeviceOps ops_{};
    TimerClock& clock_;
    Bmc bmc_;
    KcsRegisters kcs_;
    SmicRegisters smic_;
    KernelIpmiDevice kernel_;
    PhysicalMemory memory_;

    mutable std::recursive_mutex mutex_;  // guards everything below and the register machines
    RegisterWindow kcsWindow_;
    RegisterWindow smicWindow_{false, 0x0CA9, 1};
    std::map<uint64_t, std::shared_ptr<std::function<uint8_t(uint8_t)>>> readHooks_;
    std::map<uint64_t, std::shared_ptr<std::function<std::optional<uint8_t>(uint8_t)>>> writeHooks_;
    std::map<uint64_t, unsigned> reads_;
    std::map<uint64_t, std::map<uint8_t, unsigned>> writes_;
    std::map<std::string, unsigned> opens_;
    std::map<std::string, Fault> openFaults_;
    std::map<int, OpenFile> files_;
    std::map<std::thread::id, int> privilege_;
    int nextFd_ = 1000;
    bool memoryDriver_ = false;
    size_t readAtMost_ = SIZE_MAX;
    unsigned readInterruptions_ = 0;
    bool denyPrivilege_ = false;
    unsigned privilegeViolations_ = 0;
};

}  // namespace sim
