#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <ctime>
#include <filesystem>

#include "libplatform/PXR_proc.h"
#include "libplatform/trace_protocol.h"
#include "tests/support/Eventually.h"
#include "tests/support/InMachineRoot.h"
#include "tests/support/Lines.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

constexpr const char* kProgram = "/opt/velmora/lantrel/bin/pxrtraced";
constexpr const char* kDate = "\\[[0-9/]+ [0-9-]+\\] ";

/// A machine with a trace daemon, and clients that say whatever a test wants.
class Pxrtraced : public testing::Test {
protected:
    ~Pxrtraced() override {
        for (const int fd : clients_)
            close(fd);
        if (pid_ > 0) Stop(SIGKILL);
    }

    void Configure(const std::string& keys) {
        root_.AddFile("/etc/opt/velmora/lantrel/trace.cfg", "[ServerAgent0330_TRACE]\n" + keys);
    }

    static std::vector<char*> Argv(const std::vector<std::string>& arguments) {
        std::vector<char*> argv(arguments.size() + 2);
        argv[0] = const_cast<char*>(kProgram);
        std::transform(arguments.begin(), arguments.end(), argv.begin() + 1,
                       [](const std::string& argument) { return const_cast<char*>(argument.c_str()); });
        return argv;
    }
    pid_t Launch(const std::vector<std::string>& arguments) {
        return root_.Start([&] { return execv(kProgram, Argv(arguments).data()); });
    }
    void Start(const std::vector<std::string>& arguments = {}) {
        pid_ = Launch(arguments);
        ASSERT_TRUE(Eventually([&] { return Connect() >= 0; }));
    }
    int Stop(int signal = SIGTERM) {
        kill(pid_, signal);
        return WaitForExit(std::exchange(pid_, -1));
    }

    int Connect() {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::filesystem::relative(root_.Outside(PXR_TRACE_SOCKET))
            .string()
            .copy(address.sun_path, sizeof address.sun_path - 1);
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return clients_.emplace_back(fd);
        close(fd);
        return -1;
    }
    void Send(int fd, const PXR_trace_packet& packet, size_t count = sizeof(PXR_trace_packet)) {
        EXPECT_EQ(static_cast<ssize_t>(count), send(fd, &packet, count, MSG_NOSIGNAL));
    }
    int ConnectAs(const std::string& command, uint32_t pid) {
        PXR_trace_packet start = Packet(PXR_TRACE_TYPE_START);
        start.body.start.pid = pid;
        SetName(start.body.start.command, command);
        const int fd = Connect();
        Send(fd, start);
        return fd;
    }

    template <size_t N>
    static void SetName(char (&field)[N], const std::string& name) {
        name.copy(field, N);
    }
    static PXR_trace_packet Packet(int type) {
        PXR_trace_packet packet{};
        memcpy(packet.magic, PXR_TRACE_MAGIC, sizeof packet.magic);
        packet.type = static_cast<uint8_t>(type);
        return packet;
    }
    static PXR_trace_packet Message(const std::string& text, uint32_t level = 0, uint32_t mask = 0x1000,
                                    uint32_t header = 1) {
        PXR_trace_packet packet = Packet(PXR_TRACE_TYPE_MESSAGE);
        PXR_trace_message& message = packet.body.message;
        message.time = time(nullptr);
        message.mask = mask;
        message.level = level;
        message.header = header;
        message.length = static_cast<uint32_t>(text.copy(message.text, sizeof message.text));
        return packet;
    }

    /// The log's lines, once one of them ends in this.
    std::vector<std::string> LogUntil(const std::string& end, const char* path = PXR_TRACE_DAEMON_LOG) {
        std::string content;
        EXPECT_TRUE(Eventually([&] { return (content = root_.ReadFile(path)).find(end + "\n") != std::string::npos; }))
            << "no " << end << " in:\n"
            << content;
        return Lines(content);
    }
    /// Sends a message and waits until it is logged, and so everything that was sent before it on this connection.
    std::vector<std::string> LogAfter(int fd) {
        const std::string mark = "mark " + std::to_string(++marks_);
        Send(fd, Message(mark, 0, 0x1000, 0));
        auto lines = LogUntil(mark);
        lines.pop_back();
        return lines;
    }

    MachineRoot root_ = MakeTestRoot();
    pid_t pid_ = -1;
    std::vector<int> clients_;
    int marks_ = 0;
};

TEST_F(Pxrtraced, LogsWhatPassesItsFilters) {
    Configure("TraceLevel = 20\n");
    Start({"--mask", "0x7000", "--mask", "0x1000"});
    const int fd = ConnectAs("pxragt", 4711);
    PXR_trace_packet named = Message("first\n", 20, 0x7000);
    SetName(named.body.message.thread, "main");
    Send(fd, named);
    Send(fd, Message("too detailed", 21));
    for (const uint32_t mask : {0U, 0x2000U, 0x3000U})
        Send(fd, Message("of another mask", 0, mask));
    Send(fd, Message("continued", 5, 0x1000, 0));
    EXPECT_THAT(LogAfter(fd),
                ElementsAre(MatchesRegex(kDate + std::string("pxragt\\[4711\\]: main: first")), "continued"));
    EXPECT_EQ(0, Stop());
    EXPECT_FALSE(std::filesystem::exists(root_.Outside(PXR_TRACE_SOCKET))) << "SIGTERM removes the socket";
    Start({"--level", "21"});
    Send(Connect(), Message("more detailed", 21));
    EXPECT_THAT(LogUntil("more detailed").back(), HasSubstr("] ?["));
}

TEST_F(Pxrtraced, SurvivesDamagedPackets) {
    Configure("");  // binary data are kept
    Start();
    const int good = ConnectAs("good", 1);
    const int fd = ConnectAs("bad", 2);
    PXR_trace_packet packet = Message(std::string(448, 'x'));
    packet.body.message.length = 0xFFFFFFFF;
    memset(packet.body.message.thread, 't', 32);
    packet.body.message.time = INT64_MAX;
    Send(fd, packet);
    packet = Packet(PXR_TRACE_TYPE_DATA);
    memset(&packet.body.data, 'd', sizeof packet.body.data);  // no terminator, and a count of 0x64646464
    Send(fd, packet);
    packet.body.data.count = 0;
    Send(fd, packet);
    Send(fd, Packet(77));
    packet = Packet(PXR_TRACE_TYPE_START);
    memset(packet.body.start.command, 'c', 32);
    Send(fd, packet);
    // In pieces, across the end of another packet.
    packet = Message("in pieces\n");
    for (size_t i = 0; i < sizeof packet; i += 100) {
        const size_t count = std::min<size_t>(100, sizeof packet - i);
        EXPECT_EQ(static_cast<ssize_t>(count), send(fd, reinterpret_cast<char*>(&packet) + i, count, 0));
    }
    Send(fd, Packet(PXR_TRACE_TYPE_START), 100);
    shutdown(fd, SHUT_WR);
    LogUntil("[0]: connection ended within a packet");
    const int garbage = ConnectAs("garbage", 3);
    packet.magic[3] = 0;
    Send(garbage, packet);
    char end;
    EXPECT_EQ(0, recv(garbage, &end, 1, 0)) << "closed by the daemon";
    const auto lines = LogAfter(good);
    EXPECT_EQ("", root_.ReadFile("/var/opt/velmora/lantrel/log/agt_pt_linux.log"));
    EXPECT_THAT(lines, ElementsAre(HasSubstr("bad[2]: " + std::string(31, 't') + ": " + std::string(448, 'x')),
                                   EndsWith(std::string(32, 'c') + "[0]: : in pieces"),
                                   EndsWith("]: : " + std::string(32, 'c') + "[0]: connection ended within a packet"),
                                   EndsWith("]: : garbage[3]: no packet where one should begin, connection closed")));
}

TEST_F(Pxrtraced, ControlCharactersForgeNoLines) {
    Start();
    const int fd = ConnectAs("a\nb\x1B[2J", 5);
    Send(fd, Message("one\n[2024/01/01 00-00-00] root[1]: : forged\r\x1B[31m\x7F\ttab \x83\x5C\n", 0, 0x1000, 0));
    PXR_trace_packet packet = Message("two\n");
    SetName(packet.body.message.thread, "t\nu");
    Send(fd, packet);
    EXPECT_THAT(LogAfter(fd), ElementsAre("one.[2024/01/01 00-00-00] root[1]: : forged..[31m.\ttab \x83\x5C",
                                          EndsWith("] a.b.[2J[5]: t.u: two")));
}

TEST_F(Pxrtraced, RotatesAndKeepsBinaryDataAsADump) {
    Configure("TraceSize = 1\nPacketTraceFile = /var/opt/velmora/lantrel/log/data.log\nPacketTraceSize = 4\n");
    Start();
    const int fd = ConnectAs("pxragt", 6);
    PXR_trace_packet data = Packet(PXR_TRACE_TYPE_DATA);
    SetName(data.body.data.name, "frames");
    data.body.data.count = 18;
    memcpy(data.body.data.data, "@Qel_01-01_@\0\xFF~~ab", 18);
    Send(fd, data);
    EXPECT_THAT(LogUntil("ab", "/var/opt/velmora/lantrel/log/data.log"),
                ElementsAre(EndsWith("] pxragt[6]: : frames, 18 bytes"),
                            "0000  40 51 65 6C 5F 30 31 2D 30 31 5F 40 00 FF 7E 7E  @Qel_01-01_@..~~",
                            "0010  61 62                                            ab"));
    for (int i = 0; i < 100; ++i) {
        Send(fd, Message(std::string(50, 'r'), 0, 0x1000, 0));
        Send(fd, data);
    }
    for (const auto& line : LogAfter(fd))
        EXPECT_EQ(std::string(50, 'r'), line);
    EXPECT_GE(1024U, std::filesystem::file_size(root_.Outside(PXR_TRACE_DAEMON_LOG)));
    const auto size = std::filesystem::file_size(root_.Outside("/var/opt/velmora/lantrel/log/data.log"));
    EXPECT_TRUE(size > 1024 && size <= 4096) << size;
}

TEST_F(Pxrtraced, SettingsAreReadAgainOnHangUp) {
    Configure("NetworkLogMode = False\nPacketTraceMode = False\n");
    Start();
    const int fd = ConnectAs("pxragt", 7);
    kill(pid_, SIGSTOP);
    Send(fd, Message("not logged, though it is read with the signal"));
    EXPECT_FALSE(std::filesystem::exists(root_.Outside(PXR_TRACE_DAEMON_LOG)));
    Configure("TraceLevel = 1\n");
    kill(pid_, SIGHUP);
    kill(pid_, SIGCONT);
    EXPECT_TRUE(Eventually([&] { return std::filesystem::exists(root_.Outside(PXR_TRACE_DAEMON_LOG)); }));
    Send(fd, Message("too detailed", 2));
    EXPECT_THAT(LogAfter(fd), IsEmpty());
}

TEST_F(Pxrtraced, TakesOverASocketThatADeadDaemonLeft) {
    Start();
    EXPECT_EQ(256 + SIGKILL, Stop(SIGKILL));
    EXPECT_TRUE(std::filesystem::exists(root_.Outside(PXR_TRACE_SOCKET)));
    Start();
    EXPECT_EQ(std::filesystem::perms{0600}, std::filesystem::status(root_.Outside(PXR_TRACE_SOCKET)).permissions());
    EXPECT_EQ(1, WaitForExit(Launch({}))) << "a second daemon";
    EXPECT_EQ(1, WaitForExit(Launch({"--socket", "/no/such/place"})));
    LogAfter(Connect());
}

// As two daemons that were started together: the other one is about to replace the socket.
TEST_F(Pxrtraced, LeavesAStaleSocketToWhoHasTheLock) {
    Start();
    EXPECT_EQ(256 + SIGKILL, Stop(SIGKILL));
    const std::string lock = root_.Outside(PXR_TRACE_SOCKET ".lock");
    const int other = PXR_lock_cmd(lock.c_str());
    ASSERT_LE(0, other);
    pid_ = Launch({});
    ASSERT_TRUE(Eventually([this] { return waitpid(pid_, nullptr, WNOHANG) == pid_; }));
    pid_ = -1;
    EXPECT_EQ(0, PXR_unlock_cmd(lock.c_str(), other));
    Start();
    Stop();
    EXPECT_FALSE(std::filesystem::exists(lock));
}

TEST_F(Pxrtraced, ServesWhoWaitsWhenOthersLeave) {
    Start();
    const auto linesBecome = [this](long count) {
        return Eventually([&] {
            const std::string log = root_.ReadFile(PXR_TRACE_DAEMON_LOG);
            return std::count(log.begin(), log.end(), '\n') == count;
        });
    };
    for (uint32_t i = 1; i < 300; ++i)  // the first one is there already
        Send(ConnectAs("client", i), Message("line of " + std::to_string(i) + "\n", 0, 0x1000, 0));
    EXPECT_TRUE(linesBecome(255)) << "of 256 clients";
    for (int i = 0; i < 100; ++i)
        close(std::exchange(clients_[static_cast<size_t>(i)], -1));
    EXPECT_TRUE(linesBecome(299));
}

// At a shutdown these are the last words of those who go before.
TEST_F(Pxrtraced, WhatWasSentBeforeTheEndIsLogged) {
    Start();
    const int early = ConnectAs("early", 1);
    LogAfter(early);
    kill(pid_, SIGSTOP);
    const int late = ConnectAs("late", 2);
    for (int i = 0; i < 100; ++i) {
        Send(early, Message("early " + std::to_string(i), 0, 0x1000, 0));
        Send(late, Message("late " + std::to_string(i), 0, 0x1000, 0));
    }
    kill(pid_, SIGTERM);
    EXPECT_EQ(0, Stop(SIGCONT));
    const auto lines = Lines(root_.ReadFile(PXR_TRACE_DAEMON_LOG));
    EXPECT_EQ(201U, lines.size());
    EXPECT_THAT(lines, testing::IsSupersetOf({"early 99", "late 99"}));
}

// The runtime starts its companion commands without arguments and waits for them.
TEST_F(Pxrtraced, GoesIntoTheBackgroundForItsUsers) {
    for (const auto& arguments : std::vector<std::vector<std::string>>{{}, {"--daemon"}}) {
        RunInRoot(root_, [&] { ASSERT_EQ(0, PXR_exec_command(nullptr, 0, kProgram, Argv(arguments).data())); });
        Send(Connect(), PXR_trace_packet{});  // the daemon's remark tells its process id
        const std::string remark = LogUntil("connection closed").back();
        std::filesystem::remove(root_.Outside(PXR_TRACE_DAEMON_LOG));
        const pid_t daemon = std::stoi(remark.substr(remark.find("pxrtraced[") + 10));
        ASSERT_LT(1, daemon);
        EXPECT_EQ(0, kill(daemon, SIGTERM));
        EXPECT_TRUE(Eventually([&] { return !std::filesystem::exists(root_.Outside(PXR_TRACE_SOCKET)); }));
    }
}

}  // namespace
