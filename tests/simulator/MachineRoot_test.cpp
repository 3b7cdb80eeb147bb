#include "simulator/MachineRoot.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "tests/support/BuildTree.h"
#include "tests/support/InMachineRoot.h"

namespace {

TEST(MachineRoot, NothingLeaksOutAndNothingStays) {
    std::filesystem::path directory;
    {
        MachineRoot root = MakeTestRoot();
        root.ReplaceProc("/proc/ioports", "0000-001f : ours\n");
        directory = root.Outside("/");
        RunInRoot(root, [] {
            // NOLINTNEXTLINE(cert-env33-c): the machine's shell and tools are tried
            EXPECT_EQ(0, std::system("test \"$(sed s/ours/x/ /proc/ioports)\" = '0000-001f : x'"));
            EXPECT_EQ(0, access("/proc/self/status", R_OK)) << "the kernel's other files are there";
            EXPECT_NE(0, access(InSourceTree().c_str(), F_OK)) << "the system's own files are out of sight";
            std::ofstream("/tmp/only-here") << "x";
        });
        EXPECT_EQ("x", root.ReadFile("/tmp/only-here"));
        EXPECT_NE(0, access("/tmp/only-here", F_OK));
        std::ifstream outside("/proc/ioports");
        std::string line;
        EXPECT_FALSE(std::getline(outside, line) && line == "0000-001f : ours");
    }
    EXPECT_NE(0, access(directory.c_str(), F_OK));
}

}  // namespace
