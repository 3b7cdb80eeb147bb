/// @file
/// What an installation consists of: put into a scratch folder, and used from there.

#include <gmock/gmock.h>

#include <cstdlib>

#include "tests/support/KvhostProgram.h"
#include "tests/support/Lines.h"
#include "tests/support/TempDirectory.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

void RunHere(const std::string& command) {
    EXPECT_EQ(0, std::system((command + " >/dev/null").c_str())) << command;
}

/// A machine that has what was installed and nothing of the build tree.
class Installed : public KvhostProgram {
protected:
    Installed() : KvhostProgram(MachineRoot(".")) {
        RunHere("DESTDIR=" + root_.Outside("/").string() + " cmake --install " + InBuildTree() + " --strip");
    }
};

TEST_F(Installed, ShowsTheExampleMachineAndItsTexts) {
    EXPECT_THAT(RunOn("sim", "classes").output, HasSubstr("\n30  irq                  yes\n"));
    EXPECT_THAT(RunOn("sim", "show power_ctrl").output,
                StartsWith("kvhost: QNTR 64202-C 002: An argument is invalid."));
    EXPECT_EQ(0, Shell("/opt/velmora/lantrel/bin/pxrtraced --help >/output").status);
}

#ifndef __SANITIZE_ADDRESS__  // which tells where it found something

TEST_F(Installed, NamesNoSourceFolder) {
    for (const char* file : {"bin/kvhost", "bin/pxrtraced", "lib/libplatform.so.1.0.0", "lib/pkgconfig/libplatform.pc",
                             "maps/sensor_map"}) {
        const std::string content = root_.ReadFile(std::string("/opt/velmora/lantrel/") + file);
        EXPECT_LT(100U, content.size()) << file;
        EXPECT_EQ(std::string::npos, content.find(InSourceTree())) << file;
    }
}

TEST_F(Installed, LetsAHostBeBuilt) {
    const std::string source = root_.Outside("/host.c").string();
    const std::string tool = "PKG_CONFIG_LIBDIR=" + root_.Outside("/opt/velmora/lantrel/lib/pkgconfig").string();
    root_.AddFile("/host.c", "#include <libplatform/platform_if.h>\nint main(void) { return GetVersion() == 0; }\n");
    RunHere("gcc " + source + " $(" + tool + " pkg-config --cflags --libs libplatform) -o " +
            root_.Outside("/host").string());
    EXPECT_EQ(0, Shell("LD_LIBRARY_PATH=/opt/velmora/lantrel/lib /host").status);
}

#endif

TEST(Packaging, APrefixOfThePackagerHolds) {
    const TempDirectory build;
    RunHere("cmake -S " + InSourceTree() + " -B " + build.Path("") +
            " -G Ninja -DKV_TESTS=OFF -DCMAKE_INSTALL_PREFIX=/srv/agent");
    EXPECT_THAT(build.ReadFile("CMakeCache.txt"), HasSubstr("\nCMAKE_INSTALL_PREFIX:PATH=/srv/agent\n"));
}

}  // namespace
