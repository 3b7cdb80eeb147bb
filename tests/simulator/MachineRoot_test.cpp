#include "simulator/MachineRoot.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

#include <cstdlib>
#include <fstream>

#include "tests/support/InMachineRoot.h"

namespace {

TEST(MachineRoot, HoldsItsOwnFilesAndTheKernelsOwnLists) {
    MachineRoot root = MakeTestRoot();
    root.AddFile("/etc/opt/velmora/lantrel/trace.cfg", "of this machine");
    root.ReplaceProc("/proc/ioports", "0000-001f : ours\n");
    RunInRoot(root, [] {
        EXPECT_EQ(0, std::system("grep -q 'of this machine' /etc/opt/velmora/lantrel/trace.cfg"));
        EXPECT_EQ(0, std::system("test \"$(sed s/ours/x/ /proc/ioports)\" = '0000-001f : x'"));
        EXPECT_EQ(0, access("/proc/self/status", R_OK)) << "the kernel's other files are there";
        EXPECT_EQ(0, access("/opt/velmora/lantrel/lib/libplatform.so.1.0.0", R_OK));
        std::ofstream("/var/opt/velmora/lantrel/log/made") << "inside";
    });
    EXPECT_EQ("inside", root.ReadFile("/var/opt/velmora/lantrel/log/made"));
    EXPECT_NE(0, std::system("grep -q ours /proc/ioports"));
}

TEST(MachineRoot, NothingLeaksOutAndNothingStays) {
    std::filesystem::path directory;
    {
        const MachineRoot root = MakeTestRoot();
        directory = root.Outside("/");
        RunInRoot(root, [] {
            EXPECT_NE(0, access(KV_SOURCE_DIR, F_OK)) << "the system's own files are out of sight";
            std::ofstream("/tmp/only-here") << "x";
        });
        EXPECT_NE(0, access("/tmp/only-here", F_OK));
    }
    EXPECT_NE(0, access(directory.c_str(), F_OK));
}

TEST(MachineRoot, ReportsHowTheChildEnded) {
    const MachineRoot root = MakeTestRoot();
    EXPECT_EQ(7, root.Run([] { return 7; }));
    EXPECT_EQ(256 + SIGKILL, root.Run([] {
        raise(SIGKILL);
        return 0;
    }));
}

}  // namespace
