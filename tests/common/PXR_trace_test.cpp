#include "libplatform/PXR_trace.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <sstream>
#include <thread>

#include "common/PXR_thread_internal.h"
#include "common/PXR_trace_Connection.h"
#include "common/PXR_trace_internal.h"
#include "tests/support/CancelledThread.h"
#include "tests/support/InMachineRoot.h"
#include "tests/support/Lines.h"
#include "tests/support/SyslogListener.h"
#include "tests/support/TraceListener.h"
#include "tests/support/Tracing.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

std::string Bytes(const void* object, size_t count) {
    return {static_cast<const char*>(object), count};
}

std::string Padded(std::string text, size_t size) {
    text.resize(size);
    return text;
}

/// The begin of a packet, and words behind it. The machine's byte order is the protocol's.
std::string Packet(char type, std::initializer_list<uint32_t> words) {
    return "\x12\x34\x56\x78" + Padded({type}, 4) + Bytes(words.begin(), words.size() * 4);
}

std::string WithoutTime(const PXR_trace_packet& packet) {
    return Bytes(&packet, sizeof packet).erase(8, 8);
}

std::string TextOf(const PXR_trace_packet& packet) {
    return Bytes(packet.body.message.text, packet.body.message.length);
}

/// How many descriptors a child would inherit.
int Inherited() {
    int count = 0;
    for (int fd = 0; fd < 100; ++fd)
        count += fcntl(fd, F_GETFD) == 0 ? 1 : 0;
    return count;
}

bool IsOpenHere(const char* path) {
    const auto isIt = [path](const auto& entry) {
        std::error_code closed;  // the descriptor of the listing itself
        return std::filesystem::read_symlink(entry, closed) == path;
    };
    return std::ranges::any_of(std::filesystem::directory_iterator("/proc/self/fd"), isIt);
}

void SetName(const char* name) {
    std::string copy = name;
    PXR_set_command_name(copy.data());
}

std::string Config(const std::string& keys) {
    return "[ServerAgent0330_TRACE]\n" + keys;
}

/// A machine whose plug-in link names the library like this.
MachineRoot MakeVariant(const char* linkTarget) {
    MachineRoot root(".");
    std::filesystem::create_symlink(linkTarget, root.Outside("/opt/velmora/lantrel/lib/lib10platform.so"));
    return root;
}

const char* const kConfigPath = "/etc/opt/velmora/lantrel/trace.cfg";
const char* const kSinglePath = "/var/opt/velmora/lantrel/log/single.log";

TEST(PxrTrace, PacketsAreExact) {
    const MachineRoot root = MakeTestRoot();
    root.AddFile(kConfigPath, Config(""));
    RunInRoot(root, [] {
        SetName("/usr/local/bin/a-command-name-of-more-than-31-characters");
        TraceListener daemon;
        const int64_t before = time(nullptr);
        ASSERT_EQ(0, PXR_trace_init());
        ASSERT_EQ(0, PXR_trace_init()) << "connected already";
        PXR_SetThreadName("collector");
        PXR_trace(0x2000, 5, "[IN ]%s() (%08X)", "GetVersion", 0x1DU);
        PXR_SetThreadName(nullptr);
        PXR_trace_ext(0xA000, 80, 0, "%s", std::string(300, 'x').c_str());
        const auto packets = daemon.WaitFor(3);
        const int64_t after = time(nullptr);
        ASSERT_EQ(3U, packets.size());
        for (const auto& packet : packets) {
            int64_t time = 0;
            memcpy(&time, Bytes(&packet, 16).data() + 8, sizeof time);
            EXPECT_LE(before, time);
            EXPECT_GE(after, time);
        }
        EXPECT_EQ(Packet(1, {static_cast<uint32_t>(getpid()), 1}) + Padded("a-command-name-of-more-than-31-", 488),
                  WithoutTime(packets[0]));
        const std::string text = "[IN ]GetVersion() (0000001D)";
        EXPECT_EQ(Packet(2, {0x2000, 5, 1, text.size()}) + Padded("collector", 32) + Padded(text, 448),
                  WithoutTime(packets[1]));
        EXPECT_EQ(Packet(2, {0xA000, 80, 0, 256}) + Padded("", 32) + Padded(std::string(256, 'x'), 448),
                  WithoutTime(packets[2]));
    });
}

TEST(PxrTrace, SilentUntilInitSucceedsAndAfterTerm) {
    RunInRoot(MakeTestRoot(), [] {
        const int inherited = Inherited();
        EXPECT_EQ(-1, PXR_trace_init()) << "nobody listens";
        TraceListener daemon;
        errno = EXDEV;
        EXPECT_EQ(0, PXR_trace(0x1000, 0, "off"));
        EXPECT_EQ(0, PXR_trace_init());
        EXPECT_EQ(0, PXR_trace_term());
        EXPECT_EQ(0, PXR_trace(0x1000, 0, "off again"));
        EXPECT_EQ(EXDEV, errno);
        EXPECT_EQ(0, PXR_trace_init());
        PXR_trace(0x1000, 0, "on");
        EXPECT_EQ(3U, daemon.WaitFor(3).size());
        EXPECT_EQ("on", TextOf(daemon.Connections().at(1).at(1)));
        EXPECT_EQ(inherited, Inherited()) << "not the connection";
    });
}

// As a thread does that has seen tracing on while another one turns it off.
TEST(PxrTrace, AMessageOnItsWayDoesNotConnectAgainAfterTheEnd) {
    RunInRoot(MakeTestRoot(), [] {
        TraceListener daemon;
        trace::Connection connection;
        ASSERT_TRUE(connection.Open());
        {
            const std::lock_guard lock(connection.Mutex());
            connection.CloseLocked();
        }
        connection.Send(trace::EmptyPacket(PXR_TRACE_TYPE_DATA));
        ASSERT_TRUE(connection.Open());
        connection.Send(trace::EmptyPacket(PXR_TRACE_TYPE_MESSAGE));
        const auto packets = daemon.WaitFor(3);
        ASSERT_EQ(3U, packets.size());
        EXPECT_EQ(PXR_TRACE_TYPE_START, packets[1].type);
        EXPECT_EQ(PXR_TRACE_TYPE_MESSAGE, packets[2].type);
    });
}

TEST(PxrTrace, DumpsHaveTheirTableWithoutHeaders) {
    RunInRoot(MakeTestRoot(), [] {
        Tracing tracing;
        const uint8_t data[20] = {'A', '~', 0x7F, 0x1F, ' ', 0xFF, 0, 'z', 1, 2, 3, 4, 5, 6, 7, 8, '9', 10, 11, 12};
        const auto row = [&](size_t offset, const std::string& bytes) {
            char begin[32];
            snprintf(begin, sizeof begin, "1000 60 0 0x%08lX", reinterpret_cast<unsigned long>(data + offset));
            return begin + bytes;
        };
        const auto lines = tracing.LinesOf([&] {
            PXR_mem_trace(0x1000, 60, "100% title\n", data, 20);
            PXR_mem_trace(0x1000, 60, "nothing\n", data, 0);
        });
        const std::string plain = "1000 60 0 ";
        EXPECT_THAT(lines, ElementsAre("1000 60 1 100% title\n",
                                       plain + " address   +0 +1 +2 +3 +4 +5 +6 +7 +8 +9 +A +B +C +D +E +F    " +
                                           "0123456789ABCDEF\n",
                                       plain + std::string(78, '-') + "\n",
                                       row(0, " 41 7E 7F 1F 20 FF 00 7A 01 02 03 04 05 06 07 08    A~.. ..z........\n"),
                                       row(16, " 39 0A 0B 0C " + std::string(36, ' ') + "   9...\n"), plain + "\n",
                                       "1000 60 1 nothing\n"));
    });
}

TEST(PxrTrace, BinaryDataAreCutBehindTheMarker) {
    RunInRoot(MakeTestRoot(), [] {
        TraceListener daemon;
        ASSERT_EQ(0, PXR_trace_init());
        std::string data(500, '\0');
        for (size_t i = 0; i < data.size(); ++i)
            data[i] = static_cast<char>(i);
        const auto* bytes = reinterpret_cast<const uint8_t*>(data.data());
        EXPECT_EQ(0, PXR_trace_sp("null", nullptr, 500));
        EXPECT_EQ(0, PXR_trace_sp("negative", bytes, -1));
        EXPECT_EQ(0, PXR_trace_sp(std::string(70, 'n').c_str(), bytes, 500));
        const auto packets = daemon.WaitFor(3);
        ASSERT_EQ(3U, packets.size());
        const std::string sent = "@Qel_01-01_@" + data;
        const std::string name = Packet(16, {}) + Padded(std::string(63, 'n'), 64);
        EXPECT_EQ(name + Bytes("\xB0\1\0", 4), Bytes(&packets[1], 76));
        EXPECT_EQ(name + Bytes("\x50\0\0", 4), Bytes(&packets[2], 76));
        EXPECT_EQ(sent.substr(0, 432), Bytes(&packets[1], 512).substr(80));
        EXPECT_EQ(Padded(sent.substr(432), 432), Bytes(&packets[2], 512).substr(80));
    });
}

TEST(PxrTrace, ReconnectsUnderEightThreadsWithTheStartFirst) {
    RunInRoot(MakeTestRoot(), [] {
        TraceListener daemon;
        ASSERT_EQ(0, PXR_trace_init());
        std::mutex mutex;
        bool stop = false;
        std::vector<std::thread> tracers(8);
        for (auto& tracer : tracers) {
            tracer = std::thread([&] {
                for (int n = 0;; ++n) {
                    PXR_trace(0x1000, 10, "message %d\n", n);
                    std::this_thread::sleep_for(std::chrono::microseconds(50));
                    const std::lock_guard lock(mutex);
                    if (stop) return;
                }
            });
        }
        constexpr size_t kRounds = 10;
        for (size_t round = 0; round < kRounds; ++round) {
            const size_t sofar = daemon.WaitFor(0).size();
            EXPECT_LT(sofar + 50, daemon.WaitFor(sofar + 100).size()) << "silent after restart " << round;
            daemon.Kill();
            std::this_thread::sleep_for(milliseconds(2));
            daemon.Start();
        }
        daemon.WaitFor(daemon.WaitFor(0).size() + 10);
        {
            const std::lock_guard lock(mutex);
            stop = true;
        }
        for (auto& tracer : tracers)
            tracer.join();
        daemon.Kill();
        size_t used = 0;
        for (const auto& connection : daemon.Connections()) {
            if (connection.empty()) continue;
            ++used;
            EXPECT_EQ(PXR_TRACE_TYPE_START, connection[0].type);
            for (size_t i = 1; i < connection.size(); ++i)
                ASSERT_EQ(PXR_TRACE_TYPE_MESSAGE, connection[i].type);
        }
        EXPECT_EQ(kRounds + 1, used);
    });
}

TEST(PxrTrace, AStuckDaemonDelaysOnceAndLosesWhatItCannotTake) {
    RunInRoot(MakeTestRoot(), [] {
        const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{AF_UNIX, PXR_TRACE_SOCKET};
        ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address));
        ASSERT_EQ(0, listen(listener, 1));
        ASSERT_EQ(0, PXR_trace_init());
        const auto begin = steady_clock::now();
        for (int i = 0; i < 3000; ++i)
            PXR_trace(0x1000, 0, "%d", i);
        EXPECT_LT(steady_clock::now() - begin, milliseconds(2000));
        const int peer = accept(listener, nullptr, nullptr);
        std::vector<PXR_trace_packet> taken;
        const auto takeAll = [&] {
            PXR_trace_packet packet;
            while (recv(peer, &packet, sizeof packet, MSG_DONTWAIT) == ssize_t{sizeof packet})
                taken.push_back(packet);
        };
        takeAll();
        ASSERT_LT(10U, taken.size());
        EXPECT_EQ(PXR_TRACE_TYPE_START, taken[0].type);
        for (size_t i = 1; i < taken.size(); ++i)
            ASSERT_EQ(std::to_string(i - 1), TextOf(taken[i]));
        PXR_trace(0x1000, 0, "back");
        takeAll();
        EXPECT_EQ("back", TextOf(taken.back()));
    });
}

// A process that becomes a daemon closes every descriptor, and opens connections that get their numbers.
TEST(PxrTrace, NeverWritesIntoAConnectionThatReusesTheNumber) {
    RunInRoot(MakeTestRoot(), [] {
        const pid_t child = fork();
        if (child == 0) {
            if (!Eventually([] { return PXR_trace_init() == 0; })) _exit(1);
            close_range(3, ~0U, 0);
            int pairs[10][2];
            int failed = 0;
            for (auto& pair : pairs)
                failed += socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0 ? 1 : 0;
            PXR_trace(0x1000, 0, "after");
            char byte;
            for (const auto& [one, other] : pairs)
                failed += recv(one, &byte, 1, MSG_DONTWAIT) >= 0 || recv(other, &byte, 1, MSG_DONTWAIT) >= 0 ? 1 : 0;
            _exit(failed);
        }
        TraceListener daemon;
        EXPECT_EQ(0, WaitForExit(child));
        const auto packets = daemon.WaitFor(3);
        ASSERT_EQ(3U, packets.size());
        EXPECT_EQ(PXR_TRACE_TYPE_START, packets[1].type);
        EXPECT_EQ("after", TextOf(packets[2]));
    });
}

TEST(PxrTrace, ACancelledThreadFinishesItsCall) {
    RunInRoot(MakeVariant("libplatform.so.1.0.0"), [] {
        TraceListener daemon;
        PXR_log_file* log = nullptr;
        const std::function<void()> calls[] = {[] { PXR_trace_init(); },
                                               [] { PXR_trace(0x1000, 0, "to the daemon"); },
                                               [] { PXR_trace(0x8000, 0, "to the log"); },
                                               [&] { log = PXR_log_file_open("/tmp/cancelled.log", 1); },
                                               [&] { PXR_log_file_write(log, "line\n", 5); },
                                               [&] { PXR_log_file_close(log); },
                                               [] { PXR_trace_term(); }};
        for (const auto& call : calls)
            EXPECT_TRUE(FinishesWhenCancelled(call)) << &call - calls;
    });
}

TEST(PxrTrace, RasLogNamesItsLevels) {
    RunInRoot(MakeTestRoot(), [] {
        Tracing tracing;
        const auto lines = tracing.LinesOf([] {
            for (int level = -1; level <= 4; ++level)
                KvRasLog(level, "KvAlert.cpp", 42, "%d%% of %s", level, "%n%s");
        });
        EXPECT_THAT(lines, ElementsAre("1000 5 1 [Error] 1% of %n%s (KvAlert.cpp@42)",
                                       "1000 10 1 [Trace] 2% of %n%s (KvAlert.cpp@42)",
                                       "1000 30 1 [Debug] 3% of %n%s (KvAlert.cpp@42)"));
    });
}

TEST(PxrTrace, ConfigurationHasTwoKindsOfDefaults) {
    const std::string usual = "/var/opt/velmora/lantrel/log/agt_pt_linux.log";
    const std::string longest(400, 'p');
    const std::pair<std::string, std::string> cases[] = {
        // level, size, network, packet: mode, file, size
        {"", "20 5120 1 0 " + usual + " 1024"},  // no file
        {"[OtherProduct0330]\nTraceLevel = 3\n", "20 5120 1 0 " + usual + " 1024"},
        {Config(""), "10 5120 1 1 " + usual + " 1024"},
        {Config("TraceLevel=100\nTraceSize=1048577\nPacketTraceSize=0x10\n"), "100 5120 1 1 " + usual + " 16"},
        {Config("NetworkLogMode=False\nPacketTraceMode=False\nTraceLevel=101\nTraceSize=0\nPacketTraceFile=" + longest +
                "p\n"),
         "10 0 0 0 " + longest + " 1024"}};
    EXPECT_EQ(0x61B84201U, PXR_trace_read_config(nullptr));
    for (const auto& [file, expected] : cases) {
        const MachineRoot root = MakeTestRoot();
        if (!file.empty()) root.AddFile(kConfigPath, file);
        RunInRoot(root, [&] {
            PXR_trace_config c;
            EXPECT_EQ(file.find("ServerAgent") == std::string::npos, PXR_trace_read_config(&c) != 0) << file;
            std::ostringstream values;
            values << c.traceLevel << ' ' << c.traceSize << ' ' << +c.networkLogMode << ' ' << +c.packetTraceMode << ' '
                   << c.packetTraceFile << ' ' << c.packetTraceSize;
            EXPECT_EQ(expected, values.str()) << file;
        });
    }
}

TEST(PxrTrace, IpmiTrafficGoesToItsOwnLogInOneVariant) {
    for (const auto& [target, kept] : {std::pair{"libplatform.so.1.0.0", true},
                                       {"/opt/x/libplatform.so.1.0.0", true},
                                       {"libplatform.so.2.0.0", false}}) {
        MachineRoot root = MakeVariant(target);
        root.AddFile(kConfigPath, Config("TraceLevel = 20\n"));
        RunInRoot(root, [] {
            SetName("/opt/velmora/lantrel/bin/pxragt");
            TraceListener daemon;
            ASSERT_EQ(0, PXR_trace_init());
            PXR_SetThreadName("poller");
            PXR_trace(0x8000, 20, "sent %02X\n", 0x2D);
            PXR_trace_ext(0x8000, 0, 0, "%s", std::string(256, 'y').c_str());
            PXR_trace(0x8000, 21, "too detailed\n");
            PXR_trace(0xA000, 0, "no IPMI");
            EXPECT_EQ("no IPMI", TextOf(daemon.WaitFor(2).at(1))) << "0xA000 is a mask of its own";
            PXR_trace_term();
            PXR_trace(0x8000, 0, "closed\n");
            EXPECT_FALSE(IsOpenHere(PXR_TRACE_IPMI_LOG));
        });
        const auto lines = Lines(root.ReadFile(PXR_TRACE_IPMI_LOG));
        if (!kept) {
            EXPECT_TRUE(lines.empty());
            continue;
        }
        EXPECT_THAT(lines,
                    ElementsAre(MatchesRegex("\\[20[0-9][0-9]/[01][0-9]/[0-3][0-9] [0-2][0-9]-[0-5][0-9]-[0-6][0-9]\\] "
                                             "pxragt\\[[0-9]+\\]: poller: sent 2D"),
                                std::string(256, 'y')));
    }
}

TEST(PxrTrace, AnIpmiLogThatCannotBeOpenedIsReported) {
    const MachineRoot root = MakeVariant("libplatform.so.1.0.0");
    root.AddDirectory(PXR_TRACE_IPMI_LOG);
    RunInRoot(root, [] {
        SetName("pxragt");
        SyslogListener syslog;
        TraceListener daemon;
        EXPECT_EQ(0, PXR_trace_init()) << "tracing goes on";
        SetName("/bin/tool");
        EXPECT_EQ(0, PXR_trace_init());
        EXPECT_THAT(syslog.Lines(), ElementsAre("pxragt: WXPLG2049AA-E pxragt open 21",  // EISDIR; no catalogue here
                                                "pxragt: WXPLG2049AO-E tool open 21"));
    });
}

TEST(PxrTrace, EditToolWritesItsIpmiLogAndNothingElse) {
    const MachineRoot root = MakeTestRoot();
    RunInRoot(root, [] {
        SetName("edit");
        TraceListener daemon;
        EXPECT_EQ(0, PXR_trace_init_ipmi_pxraaedit_log());
        PXR_trace(0x8000, 20, "works without a daemon\n");
        PXR_trace_ext(0x8000, 0, 0, "needs one\n");
        PXR_mem_trace(0x8000, 20, "a dump\n", reinterpret_cast<const uint8_t*>("x"), 1);
        ASSERT_EQ(0, PXR_trace_init());
        PXR_trace(0x1000, 0, "dropped");
        EXPECT_EQ(0, PXR_trace_term_ipmi_pxraaedit_log());
        PXR_trace(0x8000, 0, "closed\n");
        PXR_trace_sp("end", reinterpret_cast<const uint8_t*>("x"), 1);
        EXPECT_EQ(PXR_TRACE_TYPE_DATA, daemon.WaitFor(2).at(1).type);
    });
    EXPECT_THAT(Lines(root.ReadFile(PXR_TRACE_IPMI_EDIT_LOG)),
                ElementsAre(EndsWith("]: : works without a daemon"), EndsWith(": a dump"), StartsWith(" address   +0"),
                            StartsWith("-----"), EndsWith("78 " + std::string(48, ' ') + "x"), ""));
    EXPECT_EQ("", root.ReadFile(PXR_TRACE_IPMI_LOG));
}

TEST(PxrTrace, SingleTraceFileOfTools) {
    const MachineRoot root = MakeTestRoot();
    root.AddFile(kConfigPath, Config("TraceLevel = 0\n"));
    root.AddFile(kSinglePath, "before\n");
    RunInRoot(root, [] {
        std::string path = kSinglePath;
        PXR_Single_trace(0xA000, "not open\n");
        EXPECT_EQ(0, PXR_single_trace_init(path.data()));
        PXR_Single_trace(0xA000, "%s", std::string(600, 't').c_str());
        PXR_Single_trace_pxraaedit(0, 1, 2, "zero\n");
        PXR_Single_trace_pxraaedit(1, 1, 2, "one\n");
        PXR_Single_trace_term();
        PXR_Single_trace(0xA000, "closed\n");
        std::string nowhere = "/no/such/place";
        EXPECT_EQ(-1, PXR_single_trace_init(nowhere.data()));
        EXPECT_EQ(-1, PXR_single_trace_init(nullptr));
        EXPECT_EQ(nullptr, PXR_log_file_open("/no/such/place", 0));
        EXPECT_EQ(ENOENT, errno);
    });
    EXPECT_THAT(Lines(root.ReadFile(kSinglePath)),
                ElementsAre("before", EndsWith("]: : " + std::string(448, 't')), EndsWith(": zero")));
}

TEST(PxrTrace, LinesAreCutAtTheirLimitAndDoNotTrustTheMessage) {
    PXR_trace_message message{};
    message.header = 1;
    message.length = 0xFFFFFFFF;
    memset(message.thread, 'n', sizeof message.thread);
    memset(message.text, 't', sizeof message.text);
    const std::string command(255, 'c');
    char line[PXR_TRACE_LINE_BUFFER_SIZE];
    ASSERT_EQ(612U, PXR_trace_format_line(line, command.c_str(), 7, &message));
    EXPECT_EQ(std::string(line).substr(22),
              command + "[7]: " + std::string(32, 'n') + ": " + std::string(295, 't') + "\n");
    for (const auto& [time, date] :
         {std::pair{INT64_MAX, "[1900/01/00 00-00-00] "}, {67768036191500000, "[2147485547/12/"}}) {
        message.time = time;
        PXR_trace_format_line(line, "c", 7, &message);
        EXPECT_THAT(line, StartsWith(date));
    }
    message.header = 2;
    message.text[3] = '\0';
    PXR_trace_format_line(line, "c", 7, &message);
    EXPECT_STREQ("ttt\n", line);
    message.length = 2;
    PXR_trace_format_line(line, "c", 7, &message);
    EXPECT_STREQ("tt\n", line);
    message.length = 0;
    PXR_trace_format_line(line, "c", 7, &message);
    EXPECT_STREQ("\n", line);
}

}  // namespace
