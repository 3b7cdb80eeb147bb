/// @file
/// pxrtraced, the reference trace daemon: receives the trace messages of the agent, its tools and this library over a
/// local socket and writes them to one log.

#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "libplatform/PXR_proc.h"
#include "libplatform/PXR_trace.h"
#include "pxrtraced_Server.h"
#include "pxrtraced_Writer.h"

namespace {

struct Options {
    std::string socket = PXR_TRACE_SOCKET;
    std::string log = PXR_TRACE_DAEMON_LOG;
    std::vector<uint32_t> masks;
    std::optional<int> level;
    bool foreground = false;
    bool daemon = false;
};

/// How long a daemon that is told to end, or to read its settings anew, goes on reading what was sent to it before.
constexpr std::chrono::milliseconds kLastWords{1000};

constexpr const char* kFooter =
    "Settings come from /etc/opt/velmora/lantrel/trace.cfg:\n"
    "  NetworkLogMode   False: messages are not logged\n"
    "  TraceLevel       highest level in the log (--level stands above it)\n"
    "  TraceSize        limit of the log in KiB; it is then cut to its newest half (0: no limit)\n"
    "  PacketTraceMode  True: binary data are kept, as a hexadecimal dump, in\n"
    "  PacketTraceFile  with the limit\n"
    "  PacketTraceSize  in KiB\n"
    "SIGHUP reads the settings and opens the files anew; SIGTERM and SIGINT end the daemon.";

void AddOptions(CLI::App& app, Options& options) {
    app.add_option("--socket", options.socket, "Local socket to listen on")->capture_default_str();
    app.add_option("--log", options.log, "Log file")->capture_default_str();
    app.add_option("--mask", options.masks,
                   "Log the messages of this mask alone, for example 0x2000 for the plug-in interface; may be given "
                   "several times (default: all messages)")
        ->allow_extra_args(false);
    app.add_option("--level", options.level, "Highest level to log (default: TraceLevel)");
    auto* foreground = app.add_flag("--foreground", options.foreground, "Stay in the foreground (the default)");
    app.add_flag("--daemon", options.daemon, "Go into the background once the socket is there")->excludes(foreground);
    app.footer(kFooter);
}

// The agent's runtime starts its companion commands without arguments, as leader of a session of their own with
// all standard streams on /dev/null, and waits for them to return.
bool IsStartedAsCompanion() {
    if (getsid(0) != getpid()) return false;
    for (int fd = 0; fd <= 2; ++fd) {
        struct stat status {};
        if (fstat(fd, &status) != 0 || !S_ISCHR(status.st_mode) || status.st_rdev != makedev(1, 3)) return false;
    }
    return true;
}

// Blocks the signals that steer the daemon, so that they are read from a descriptor between two packets.
FileDescriptor OpenSignals() {
    sigset_t steering;
    sigemptyset(&steering);
    for (const int number : {SIGTERM, SIGINT, SIGHUP})
        sigaddset(&steering, number);
    sigprocmask(SIG_BLOCK, &steering, nullptr);
    signal(SIGPIPE, SIG_IGN);
    FileDescriptor signals(signalfd(-1, &steering, SFD_CLOEXEC | SFD_NONBLOCK));
    if (signals.Get() < 0) throw std::system_error(errno, std::generic_category(), "signalfd");
    return signals;
}

void OpenFiles(TraceWriter& writer, const Options& options) {
    PXR_trace_config config;
    PXR_trace_read_config(&config);
    writer.Open(options.log, {options.masks, options.level.value_or(static_cast<int>(config.traceLevel))}, config);
}

void Reload(TraceWriter& writer, const Options& options) {
    try {
        OpenFiles(writer, options);
    } catch (const std::system_error& e) {
        writer.WriteNote(std::string("files not opened anew: ") + e.what());
    }
}

int Run(const Options& options) {
    const FileDescriptor signals = OpenSignals();
    TraceWriter writer;
    OpenFiles(writer, options);
    const ListeningSocket listener(options.socket);
    // Whoever waits for the parent finds the socket in service.
    if (options.daemon || (!options.foreground && IsStartedAsCompanion())) {
        PXR_daemon();
        if (chdir("/") != 0) throw std::system_error(errno, std::generic_category(), "/");
    }
    TraceServer server(listener, writer);
    for (;;) {
        server.ServeUntil(signals.Get());
        signalfd_siginfo received{};
        if (read(signals.Get(), &received, sizeof received) != static_cast<ssize_t>(sizeof received)) continue;
        server.Drain(kLastWords);
        if (received.ssi_signo != SIGHUP) return EXIT_SUCCESS;
        Reload(writer, options);
    }
}

}  // namespace

int main(int argc, char** argv) {
    PXR_set_command_name(argv[0]);
    try {
        CLI::App app("Trace daemon of the server-management agent");
        Options options;
        AddOptions(app, options);
        CLI11_PARSE(app, argc, argv);
        options.socket = std::filesystem::absolute(options.socket);
        options.log = std::filesystem::absolute(options.log);
        return Run(options);
    } catch (const std::exception& e) {
        std::cerr << "pxrtraced: " << e.what() << '\n';
        return EXIT_FAILURE;
    }
}
