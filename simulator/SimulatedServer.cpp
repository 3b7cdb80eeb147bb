#include "simulator/SimulatedServer.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstring>

namespace sim {
namespace {

constexpr char kIpmiDevice[] = "/dev/ipmi0";
constexpr char kMemoryDevice[] = "/dev/mem";
constexpr char kMemoryDriver[] = "/dev/kvdrvmem";
constexpr unsigned long kMemoryDriverRead = 0x80044501;
constexpr uint8_t kNobody = 0xFF;  // what a port reads as behind which nothing lies

int Failed(int error) {
    errno = error;
    return -1;
}

SimulatedServer* Self(void* context) {
    return static_cast<SimulatedServer*>(context);
}

}  // namespace

SimulatedServer::SimulatedServer(TimerClock& clock)
    : clock_(clock), bmc_(clock_), kcs_(clock_, bmc_), smic_(clock_, bmc_), kernel_(clock_, bmc_) {
    FillOps();
}

SimulatedServer::~SimulatedServer() = default;

void SimulatedServer::FillOps() {
    ops_.size = sizeof ops_;
    ops_.context = this;
    ops_.open = [](void* c, const char* path, int flags) { return Self(c)->Open(path, flags); };
    ops_.close = [](void* c, int fd) { return Self(c)->Close(fd); };
    ops_.read = [](void* c, int fd, void* buffer, size_t length) { return Self(c)->Read(fd, buffer, length); };
    ops_.write = [](void* c, int fd, const void* buffer, size_t length) { return Self(c)->Write(fd, buffer, length); };
    ops_.seek = [](void* c, int fd, int64_t offset) { return Self(c)->Seek(fd, offset); };
    ops_.map = [](void* c, int fd, int64_t offset, size_t length, int writable) {
        return Self(c)->Map(fd, offset, length, writable != 0);
    };
    ops_.unmap = [](void* c, void* address, size_t length) { return Self(c)->memory_.Unmap(address, length); };
    ops_.ioctl = [](void* c, int fd, unsigned long request, void* argument) {
        return Self(c)->Ioctl(fd, request, argument);
    };
    ops_.waitReadable = [](void* c, int fd, int timeoutMs) { return Self(c)->kernel_.WaitReadable(fd, timeoutMs); };
    ops_.ioPrivilege = [](void* c, int level) { return Self(c)->IoPrivilege(level); };
    ops_.portIn = [](void* c, uint16_t port) { return Self(c)->PortIn(port); };
    ops_.portOut = [](void* c, uint16_t port, uint8_t value) { Self(c)->PortOut(port, value); };
}

// --- files ---------------------------------------------------------------------------------------------------------

int SimulatedServer::Open(const char* path, int flags) {
    const std::lock_guard lock(mutex_);
    ++opens_[path];
    if (Fault& fault = openFaults_[path]; fault.times > 0) {
        --fault.times;
        return Failed(fault.error);
    }
    const std::string name = path;
    if (name != kIpmiDevice && name != kMemoryDevice && (name != kMemoryDriver || !memoryDriver_))
        return Failed(ENOENT);
    const int fd = nextFd_++;
    files_[fd] = {name, flags};
    if (name == kIpmiDevice) kernel_.Open(fd);
    return fd;
}

int SimulatedServer::Close(int fd) {
    const std::lock_guard lock(mutex_);
    const auto found = files_.find(fd);
    if (found == files_.end()) return Failed(EBADF);
    if (found->second.path == kIpmiDevice) kernel_.Close(fd);
    files_.erase(found);
    return 0;
}

std::optional<SimulatedServer::OpenFile> SimulatedServer::FindFile(int fd) const {
    const std::lock_guard lock(mutex_);
    const auto found = files_.find(fd);
    if (found == files_.end()) return std::nullopt;
    return found->second;
}

ssize_t SimulatedServer::Read(int fd, void* buffer, size_t length) {
    const auto file = FindFile(fd);
    if (!file || (file->flags & O_ACCMODE) == O_WRONLY) return Failed(EBADF);
    if (file->path != kMemoryDevice) return Failed(EINVAL);
    {
        const std::lock_guard lock(mutex_);
        if (readInterruptions_ > 0) return --readInterruptions_, Failed(EINTR);
        length = std::min(length, readAtMost_);
    }
    const ssize_t done = memory_.Read(static_cast<uint64_t>(file->position), buffer, length);
    if (done > 0) Seek(fd, file->position + done);
    return done;
}

ssize_t SimulatedServer::Write(int fd, const void* buffer, size_t length) {
    const auto file = FindFile(fd);
    if (!file || (file->flags & O_ACCMODE) == O_RDONLY) return Failed(EBADF);
    if (file->path != kMemoryDevice) return Failed(EINVAL);
    const ssize_t done = memory_.Write(static_cast<uint64_t>(file->position), buffer, length);
    if (done > 0) Seek(fd, file->position + done);
    return done;
}

int64_t SimulatedServer::Seek(int fd, int64_t offset) {
    const std::lock_guard lock(mutex_);
    const auto found = files_.find(fd);
    if (found == files_.end()) return Failed(EBADF);
    if (found->second.path != kMemoryDevice || offset < 0) return Failed(EINVAL);
    return found->second.position = offset;
}

void* SimulatedServer::Map(int fd, int64_t offset, size_t length, bool writable) {
    const auto file = FindFile(fd);
    const int access = file ? file->flags & O_ACCMODE : 0;
    if (!file) {
        errno = EBADF;
    } else if (file->path != kMemoryDevice) {
        errno = ENODEV;
    } else if (access == O_WRONLY || (writable && access != O_RDWR)) {
        errno = EACCES;  // a shared mapping that can be written needs a descriptor that can be read and written
    } else {
        return memory_.Map(static_cast<uint64_t>(offset), length, writable);
    }
    return MAP_FAILED;
}

int SimulatedServer::Ioctl(int fd, unsigned long request, void* argument) {
    const auto file = FindFile(fd);
    if (!file) return Failed(EBADF);
    if (file->path == kIpmiDevice) return kernel_.Ioctl(fd, request, argument);
    if (file->path == kMemoryDriver && request == kMemoryDriverRead) return ReadByDriver(argument);
    return Failed(ENOTTY);
}

/// The memory driver's one request: a block of four words (unused, physical address, buffer, length).
int SimulatedServer::ReadByDriver(void* argument) {
    if (argument == nullptr) return Failed(EFAULT);
    uintptr_t block[4];
    static_assert(sizeof(void*) != 4 || sizeof(block) == 16);
    std::memcpy(block, argument, sizeof(block));
    if (block[2] == 0) return Failed(EFAULT);
    auto* buffer = reinterpret_cast<void*>(block[2]);  // NOLINT(performance-no-int-to-ptr): the request carries it so
    const ssize_t done = memory_.Read(block[1], buffer, block[3]);
    return done == static_cast<ssize_t>(block[3]) ? 0 : Failed(EFAULT);
}

// --- ports and registers -------------------------------------------------------------------------------------------

int SimulatedServer::IoPrivilege(int level) {
    const std::lock_guard lock(mutex_);
    if (level < 0 || level > 3) return Failed(EINVAL);
    if (level > 0 && denyPrivilege_) return Failed(EPERM);
    if (level == 0)
        privilege_.erase(std::this_thread::get_id());
    else
        privilege_[std::this_thread::get_id()] = level;
    return 0;
}

bool SimulatedServer::Privileged() const {
    const auto found = privilege_.find(std::this_thread::get_id());
    return found != privilege_.end() && found->second == 3;
}

uint8_t SimulatedServer::PortIn(uint16_t port) {
    const std::lock_guard lock(mutex_);
    if (Privileged()) return ReadRegister(false, port);
    ++privilegeViolations_;
    return kNobody;
}

void SimulatedServer::PortOut(uint16_t port, uint8_t value) {
    const std::lock_guard lock(mutex_);
    if (Privileged())
        WriteRegister(false, port, value);
    else
        ++privilegeViolations_;
}

RegisterInterface* SimulatedServer::FindRegister(bool memory, uint64_t address, unsigned& index) {
    const std::pair<const RegisterWindow&, RegisterInterface&> groups[] = {{kcsWindow_, kcs_}, {smicWindow_, smic_}};
    for (const auto& [window, registers] : groups) {
        if (window.memory != memory || address < window.base) continue;
        const uint64_t distance = address - window.base;
        if (distance % window.spacing != 0 || distance / window.spacing >= registers.RegisterCount()) continue;
        index = static_cast<unsigned>(distance / window.spacing);
        return &registers;
    }
    return nullptr;
}

uint8_t SimulatedServer::ReadRegister(bool memory, uint64_t address) {
    const std::lock_guard lock(mutex_);
    ++reads_[address];
    unsigned index = 0;
    RegisterInterface* registers = FindRegister(memory, address, index);
    const uint8_t good = registers == nullptr ? kNobody : registers->Read(index);
    const auto found = readHooks_.find(address);
    if (found == readHooks_.end()) return good;
    const auto hook = found->second;
    return (*hook)(good);
}

void SimulatedServer::WriteRegister(bool memory, uint64_t address, uint8_t value) {
    const std::lock_guard lock(mutex_);
    ++writes_[address][value];
    std::optional<uint8_t> taken = value;
    if (const auto found = writeHooks_.find(address); found != writeHooks_.end()) {
        const auto hook = found->second;
        taken = (*hook)(value);
    }
    unsigned index = 0;
    RegisterInterface* registers = FindRegister(memory, address, index);
    if (taken && registers != nullptr) registers->Write(index, *taken);
}

void SimulatedServer::PlaceKcs(const RegisterWindow& window) {
    const std::lock_guard lock(mutex_);
    kcsWindow_ = window;
    PlaceRegisters();
}

void SimulatedServer::PlaceSmic(const RegisterWindow& window) {
    const std::lock_guard lock(mutex_);
    smicWindow_ = window;
    PlaceRegisters();
}

void SimulatedServer::PlaceRegisters() {
    std::vector<PhysicalMemory::RegisterRange> ranges;
    const std::pair<const RegisterWindow&, const RegisterInterface&> groups[] = {{kcsWindow_, kcs_},
                                                                                 {smicWindow_, smic_}};
    for (const auto& [window, registers] : groups) {
        if (!window.memory) continue;
        ranges.push_back({window.base, uint64_t{registers.RegisterCount() - 1} * window.spacing + 1,
                          [this](uint64_t address) { return ReadRegister(true, address); },
                          [this](uint64_t address, uint8_t value) { WriteRegister(true, address, value); }});
    }
    memory_.SetRegisters(std::move(ranges));
}

// --- faults and counts ---------------------------------------------------------------------------------------------

void SimulatedServer::SetMemoryDriver(bool present) {
    const std::lock_guard lock(mutex_);
    memoryDriver_ = present;
}

void SimulatedServer::OnPortRead(uint64_t port, std::function<uint8_t(uint8_t)> hook) {
    const std::lock_guard lock(mutex_);
    if (hook)
        readHooks_[port] = std::make_shared<std::function<uint8_t(uint8_t)>>(std::move(hook));
    else
        readHooks_.erase(port);
}

void SimulatedServer::OnPortWrite(uint64_t port, std::function<std::optional<uint8_t>(uint8_t)> hook) {
    const std::lock_guard lock(mutex_);
    if (hook)
        writeHooks_[port] = std::make_shared<std::function<std::optional<uint8_t>(uint8_t)>>(std::move(hook));
    else
        writeHooks_.erase(port);
}

void SimulatedServer::OnCommand(uint8_t netFn, uint8_t command, Controller::CommandHook hook) {
    bmc_.OnCommand(netFn, command, std::move(hook));
}

void SimulatedServer::CancelReservationAt(uint8_t netFn, uint8_t command, unsigned n) {
    bmc_.OnCommand(netFn, command, [this, n, used = 0U](const Request&, const Controller::Answer& answer) mutable {
        if (++used == n) {
            bmc_.Sdr()->CancelReservation();
            bmc_.Sel()->CancelReservation();
            return Response{cc::kReservationCancelled, {}};
        }
        return answer();
    });
}

void SimulatedServer::FailOpen(const std::string& path, int error, unsigned times) {
    const std::lock_guard lock(mutex_);
    openFaults_[path] = {error, times};
}

void SimulatedServer::LimitReads(size_t atMost, unsigned interruptions) {
    const std::lock_guard lock(mutex_);
    readAtMost_ = atMost;
    readInterruptions_ = interruptions;
}

void SimulatedServer::DenyIoPrivilege(bool deny) {
    const std::lock_guard lock(mutex_);
    denyPrivilege_ = deny;
}

unsigned SimulatedServer::PortReads(uint64_t port) const {
    const std::lock_guard lock(mutex_);
    const auto found = reads_.find(port);
    return found == reads_.end() ? 0 : found->second;
}

unsigned SimulatedServer::PortWrites(uint64_t port) const {
    const std::lock_guard lock(mutex_);
    unsigned sum = 0;
    if (const auto found = writes_.find(port); found != writes_.end())
        for (const auto& [value, count] : found->second)
            sum += count;
    return sum;
}

unsigned SimulatedServer::PortWrites(uint64_t port, uint8_t value) const {
    const std::lock_guard lock(mutex_);
    const auto found = writes_.find(port);
    if (found == writes_.end()) return 0;
    const auto count = found->second.find(value);
    return count == found->second.end() ? 0 : count->second;
}

unsigned SimulatedServer::Opens(const std::string& path) const {
    const std::lock_guard lock(mutex_);
    const auto found = opens_.find(path);
    return found == opens_.end() ? 0 : found->second;
}

size_t SimulatedServer::OpenDescriptors() const {
    const std::lock_guard lock(mutex_);
    return files_.size();
}

size_t SimulatedServer::RaisedThreads() const {
    const std::lock_guard lock(mutex_);
    return privilege_.size();
}

unsigned SimulatedServer::PrivilegeViolations() const {
    const std::lock_guard lock(mutex_);
    return privilegeViolations_;
}

unsigned SimulatedServer::Overlaps() {
    const unsigned onDevice = kernel_.Marker().Overlaps();
    const std::lock_guard lock(mutex_);
    return onDevice + kcs_.Overlaps() + smic_.Overlaps();
}

}  // namespace sim
