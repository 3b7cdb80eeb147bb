#include "simulator/MachineRoot.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "tests/support/InMachineRoot.h"

namespace {

std::string Content(const char* path) {
    std::ostringstream out;
    out << std::ifstream(path).rdbuf();
    return out.str();
}

TEST(MachineRoot, HoldsItsOwnFilesAndTheKernelsOwnLists) {
    MachineRoot root = MakeTestRoot();
    root.AddFile("/etc/opt/velmora/lantrel/trace.cfg", "of this machine");
    root.ReplaceProc("/proc/ioports", "0000-001f : ours\n");
    RunInRoot(root, [] {
        EXPECT_EQ("of this machine", Content("/etc/opt/velmora/lantrel/trace.cfg"));
        EXPECT_EQ("0000-001f : ours\n", Content("/proc/ioports"));
        EXPECT_NE(std::string::npos, Content("/proc/self/status").find("Pid:"));
        EXPECT_EQ(0, std::system("echo ab | grep -q a && test \"$(echo ab | sed s/a/x/)\" = xb"));
        EXPECT_EQ(0, access("/opt/velmora/lantrel/lib/libplatform.so.1.0.0", R_OK));
        std::ofstream("/var/opt/velmora/lantrel/log/made") << "inside";
    });
    EXPECT_EQ("inside", root.ReadFile("/var/opt/velmora/lantrel/log/made"));
    EXPECT_NE("0000-001f : ours\n", Content("/proc/ioports"));
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
