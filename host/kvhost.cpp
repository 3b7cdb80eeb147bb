/// @file
/// kvhost, the reference host agent: loads the plug-in as an agent does and shows what it answers.

#include <sys/ioctl.h>
#include <unistd.h>

#include <charconv>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <optional>

#include "host/kvhost_CommandLine.h"
#include "host/kvhost_Sel.h"
#include "host/kvhost_Text.h"

namespace {

using namespace kvhost;

/// What COLUMNS says; 0 where it says nothing of use.
size_t WantedColumns() {
    const char* const text = std::getenv("COLUMNS");
    if (text == nullptr) return 0;
    uint16_t columns = 0;
    const auto [end, error] = std::from_chars(text, text + std::strlen(text), columns);
    return error == std::errc{} && *end == '\0' ? columns : 0;
}

/// The terminal's width; 80 columns, and nothing cut, where output goes elsewhere.
Screen OutputScreen() {
    Screen screen;
    if (isatty(STDOUT_FILENO) == 0) return screen;
    screen.cut = true;
    winsize size{};
    if (const size_t columns = WantedColumns(); columns > 0) {
        screen.width = columns;
    } else if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
        screen.width = size.ws_col;
    }
    return screen;
}

int Execute(const Order& order) {
    const Options& options = order.options;
    const Library library(options.library.empty() ? Library::DefaultPath() : std::filesystem::path(options.library));
    if (!order.startsPlugin) return order.run({library, nullptr, options, OutputScreen(), nullptr});
    std::optional<StopSignals> stop;
    if (options.follow) stop.emplace();
    const Machine machine(library, options.machine);
    const Session session(library, options.trace);
    return order.run({library, &session, options, OutputScreen(), stop ? &*stop : nullptr});
}

}  // namespace

int main(int argc, char** argv) {
    try {
        std::setlocale(LC_ALL, "");
        Order order;
        if (const auto status = ParseCommandLine(argc, argv, order)) return *status;
        const int status = Execute(order);
        std::cout.flush();
        if (!std::cout) throw std::runtime_error("the output could not be written");
        return status;
    } catch (const std::exception& error) {
        PrintError(error.what());
        return kFailure;
    }
}
