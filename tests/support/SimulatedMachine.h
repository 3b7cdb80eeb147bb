#pragma once
/// @file
/// A simulated server in a machine root, with the SMBIOS and IPMI layers started. What the library keeps for a process
/// begins anew with each Run; the files and the server's settings stay as the test makes them.

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "lib_driverIF/KvPltfSvcIpmiCall.h"
#include "lib_driverIF/KvPltfSvcSmbiosMain.h"
#include "simulator/SimulatedServer.h"
#include "simulator/SmbiosImage.h"
#include "tests/support/InMachineRoot.h"

class SimulatedMachine : public testing::Test {
public:
    static constexpr const char* kSmbiosCodeFile = "/etc/opt/velmora/lantrel/kvgetsmbios.cfg";

    void SetProduct(const std::string& name, const std::string& version = "") {
        smbios = {};
        smbios.Add(sim::SmbiosSystem{.product = name, .version = version});
    }
    void SetSmbiosCode(const std::string& code) {
        root.AddFile(kSmbiosCodeFile, "[Configuration]\nSMBIOSCode = " + code + "\n");
    }
    sim::Bmc& Bmc() { return server.GetBmc(); }
    /// The next openings of the IPMI device fail; each opening of the bracket makes three attempts.
    void FailToOpen(unsigned brackets = 1) { server.FailOpen("/dev/ipmi0", ENODEV, 3 * brackets); }

    /// Runs body in a process of its own on this machine.
    void Run(const std::function<void()>& body) {
        RunInRoot(root, [&] {
            for (const auto& [address, bytes] : smbios.Blocks())
                server.AddMemory(address, bytes);
            KvSetDeviceOps(server.Ops());
            ktx_smbios::InitSmbiosLib();
            KvPsInitializeSmbios();
            ASSERT_TRUE(ktx_ipmi::InitIpmiLib());
            body();
            ktx_ipmi::TerminateIpmiLib();
            KvPsTerminateSmbios();
            EXPECT_EQ(0U, server.OpenDescriptors());
            KvSetDeviceOps(nullptr);
        });
    }

    MachineRoot root = MakeTestRoot();
    sim::ScopedVirtualClock clock;
    sim::SimulatedServer server{clock};
    sim::SmbiosImage smbios;
};
