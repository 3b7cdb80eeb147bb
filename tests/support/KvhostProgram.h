#pragma once
/// @file
/// kvhost as it is installed, run on a simulated machine in a machine root of its own.

#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "tests/support/BuildTree.h"
#include "tests/support/InMachineRoot.h"

class KvhostProgram : public testing::Test {
protected:
    explicit KvhostProgram(MachineRoot root = MakeTestRoot()) : root_(std::move(root)) {}

    struct Outcome {
        int status;
        std::string output;  ///< of both streams, or what else the command leaves in /output
    };

    /// Runs a shell command, in which $KVHOST is the program.
    Outcome Shell(const std::string& command) const {
        const int status = root_.Run([&] {
            setenv("TZ", "UTC", 1);
            setenv("KVHOST", "/opt/velmora/lantrel/bin/kvhost", 1);
            execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            return 127;
        });
        return {status, root_.ReadFile("/output")};
    }
    /// Runs it on a machine as --machine names it; empty: the real one.
    Outcome RunOn(const std::string& machine, const std::string& arguments) const {
        return Shell("$KVHOST " + (machine.empty() ? "" : "--machine " + machine + ' ') + arguments + " >/output 2>&1");
    }
    Outcome Run(const std::string& arguments) const { return RunOn("sim:/machine.json", arguments); }
    /// Runs it where it succeeds. @return its output
    std::string Output(const std::string& arguments) const {
        const Outcome outcome = Run(arguments);
        EXPECT_EQ(0, outcome.status) << arguments << '\n' << outcome.output;
        return outcome.output;
    }
    nlohmann::json Json(const std::string& arguments) const {
        return nlohmann::json::parse(Output(arguments + " --json"));
    }

    /// What the machine is: the example of a server, or a scenario.
    void UseRackServer() {
        root_.AddSystemFile(InSourceTree("/simulator/scenarios/rack-server.json"), "/machine.json");
    }
    void UseMachine(const std::string& scenario) { root_.AddFile("/machine.json", scenario); }

    MachineRoot root_;
};
