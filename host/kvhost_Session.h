#pragma once
/// @file
/// A plug-in that runs, on a machine.

#include <memory>
#include <string>
#include <vector>

#include "host/kvhost_Library.h"
#include "host/kvhost_Values.h"

namespace sim {
class SimulatedServer;
}

namespace kvhost {

/// A plug-in that runs: traced if wanted, started, stopped again at the end.
class Session {
public:
    Session(const Library& library, bool trace);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// Ids that the plug-in serves, in its order.
    std::vector<uint32_t> ServedClasses() const;
    /// Asks the plug-in for all instances of a class.
    /// @throws std::runtime_error with the code and its text
    ClassData Query(uint32_t classId) const;

private:
    const Library& library_;
    bool trace_;
};

/// The machine that --machine names: the real one, or a simulated one in its place.
class Machine {
public:
    /// @param name  empty: the real one; "sim": the example of a rack server; "sim:FILE": another scenario
    Machine(const Library& library, const std::string& name);
    ~Machine();
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

private:
    const Library& library_;
    std::unique_ptr<sim::SimulatedServer> server_;
};

}  // namespace kvhost
