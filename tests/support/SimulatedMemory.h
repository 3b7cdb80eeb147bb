#pragma once
/// @file
/// A simulated server of which only physical memory matters, in place of the machine's devices for the life of the
/// object.

#include <climits>

#include "simulator/SimulatedServer.h"

class SimulatedMemory : public sim::SimulatedServer {
public:
    SimulatedMemory() { KvSetDeviceOps(Ops()); }
    ~SimulatedMemory() { KvSetDeviceOps(nullptr); }

    using SimulatedServer::AddMemory;
    void AddMemory(const std::map<uint64_t, sim::Bytes>& blocks) {
        for (const auto& [address, bytes] : blocks)
            AddMemory(address, bytes);
    }
    /// Openings of /dev/mem fail with errno from now on; 0: they succeed.
    void FailToOpen(int error) { FailOpen("/dev/mem", error, error != 0 ? UINT_MAX : 0); }
};
