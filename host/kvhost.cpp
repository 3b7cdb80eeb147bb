/// @file
/// kvhost, the reference host agent: loads the plug-in as an agent does and shows what it answers.

#include <sys/ioctl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <set>

#include "host/kvhost_Fru.h"
#include "host/kvhost_Library.h"
#include "host/kvhost_Machine.h"
#include "host/kvhost_Sel.h"
#include "host/kvhost_Sensors.h"
#include "host/kvhost_Table.h"
#include "host/kvhost_Text.h"
#include "host/kvhost_Values.h"
#include "simulator/Scenario.h"
#include "simulator/SimulatedServer.h"

namespace {

using namespace kvhost;

constexpr int kSuccess = 0;
constexpr int kFailure = 1;
constexpr int kWrongUsage = 2;

/// What to show, of which machine, and how.
enum class View { kClasses, kClassList, kBmc, kSmbios, kSensors, kSel, kFru, kVersion };

struct Options {
    View view = View::kClasses;
    std::string library;
    std::string machine;
    std::vector<std::string> classes;
    std::vector<unsigned> smbiosTypes;
    uint8_t fruDevice = 0;
    bool packed = false;
    bool known = false;
    bool follow = false;
    bool all = false;
    bool json = false;
    bool trace = false;
};

void PrintError(const std::string& text) {
    std::cerr << "kvhost: " << Printable(text) << '\n';
}

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

/// A plug-in that runs: traced if wanted, started, stopped again at the end.
class Session {
public:
    Session(const Library& library, bool trace) : library_(library), trace_(trace) {
        if (trace_) StartTrace();
        // What could be started serves: a machine without BMC has I/O ports all the same.
        if (const int error = library_.InitLib()) PrintError(library_.Describe(error) + " Going on without it.");
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session() { Stop(); }

    /// Ids that the plug-in serves, in its order.
    std::vector<uint32_t> ServedClasses() const {
        _PXR_COMMAND_LIST* head = nullptr;
        library_.Check(static_cast<uint32_t>(library_.PXR_GetCommandList(&head)));
        const std::unique_ptr<_PXR_COMMAND_LIST, decltype(library_.FreeCommandList)> list(head,
                                                                                          library_.FreeCommandList);
        std::vector<uint32_t> ids;
        for (const _PXR_COMMAND_LIST* node = head; node != nullptr; node = node->next) {
            ids.push_back(node->classId);
        }
        return ids;
    }

    /// Asks the plug-in for all instances of a class.
    /// @throws std::runtime_error with the code and its text
    ClassData Query(uint32_t classId) const {
        _KVCIM_ENUM* e = nullptr;
        library_.Check(static_cast<uint32_t>(library_.CreateEnum(classId, &e)));
        const std::unique_ptr<_KVCIM_ENUM, decltype(library_.FreeEnum)> owner(e, library_.FreeEnum);
        library_.Check(static_cast<uint32_t>(library_.PXR_ExecCommand(e, nullptr, KV_MODE_QUERY)));
        return ReadEnum(*e, library_.IsJapanese());
    }

private:
    void StartTrace() const {
        library_.PXR_set_command_name("kvhost");
        if (library_.PXR_trace_init() != 0) PrintError("no trace daemon is listening, going on without trace");
    }

    void Stop() const {
        library_.TerminateLib();
        if (trace_) library_.PXR_trace_term();
    }

    const Library& library_;
    bool trace_;
};

/// The machine that --machine names: the real one, or a simulated one in its place.
class Machine {
public:
    Machine(const Library& library, const std::string& name) : library_(library) {
        if (name.empty()) return;
        server_ = std::make_unique<sim::SimulatedServer>();
        sim::LoadScenario(*server_, ScenarioFile(name));
        library_.KvSetDeviceOps(server_->Ops());
    }
    ~Machine() {
        if (server_) library_.KvSetDeviceOps(nullptr);
    }
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

private:
    /// "sim" is the example of a rack server that lies beside the programs.
    static std::filesystem::path ScenarioFile(const std::string& name) {
        if (name.size() > 4) return name.substr(4);
        return std::filesystem::read_symlink("/proc/self/exe").parent_path() / "../share/scenarios/rack-server.json";
    }

    const Library& library_;
    std::unique_ptr<sim::SimulatedServer> server_;
};

void PrintClassList(const std::vector<uint32_t>& served, const Options& options) {
    const std::set<uint32_t> ids(served.begin(), served.end());
    auto list = nlohmann::ordered_json::array();
    std::vector<Row> rows;
    for (uint32_t id = 0; id < KTX_CLASS_COUNT; ++id) {
        const std::string_view name = ClassCodeName(id);
        const bool isServed = ids.contains(id);
        list.push_back({{"id", id}, {"class", name}, {"name", Key(name)}, {"served", isServed}});
        rows.push_back({std::to_string(id), Key(name), isServed ? "yes" : "no"});
    }
    if (options.json) {
        std::cout << list.dump(2) << '\n';
    } else {
        std::cout << FormatTable({{"id", true}, {"name"}, {"served"}}, rows, OutputScreen());
    }
}

/// The classes to show. What commands serve (powering off) is no query.
std::vector<uint32_t> SelectClasses(const std::vector<uint32_t>& served, const Options& options) {
    std::vector<uint32_t> ids;
    if (options.all) {
        for (const uint32_t id : served) {
            if (id != KTX_CLS_POWER_CTRL) ids.push_back(id);
        }
        return ids;
    }
    for (const std::string& name : options.classes) {
        if (const auto id = FindClass(name)) ids.push_back(*id);
    }
    return ids;
}

/// Asks for each class and shows the answers; a class that fails is reported and does not keep back the others.
int ShowClasses(const Session& session, const std::vector<uint32_t>& served, const Options& options) {
    int status = kSuccess;
    auto json = nlohmann::ordered_json::array();
    bool first = true;
    std::string empty;  // names of classes that have nothing to show
    for (const uint32_t id : SelectClasses(served, options)) {
        try {
            if (std::find(served.begin(), served.end(), id) == served.end()) {
                throw std::runtime_error("the plug-in does not serve this class");
            }
            const ClassData data = session.Query(id);
            if (options.json) {
                json.push_back(ToJson(data));
            } else if (options.all && data.instances.empty()) {
                empty += (empty.empty() ? "" : ", ") + ReadableName(ClassCodeName(id));
            } else {
                std::cout << (first ? "" : "\n") << FormatClass(data, OutputScreen());
                first = false;
            }
        } catch (const std::runtime_error& failure) {
            PrintError(failure.what() + (" (" + Key(ClassCodeName(id)) + ")"));
            status = kFailure;
        }
    }
    if (options.json) std::cout << json.dump(2) << '\n';
    if (!empty.empty()) std::cout << (first ? "" : "\n") << "without instances: " << empty << '\n';
    return status;
}

/// @return the first class named that is none
const std::string* FindWrongClass(const Options& options) {
    for (const std::string& name : options.classes) {
        if (!FindClass(name)) return &name;
    }
    return nullptr;
}

void ShowVersion(const Library& library) {
    const KvPluginVersion& version = *library.GetVersion();
    std::cout << version.name << ' ' << version.version << '\n' << "loaded from " << library.Path().string() << '\n';
}

void ShowSel(const Library& library, const Options& options, const std::optional<StopSignals>& stop) {
    if (options.known) {
        ShowKnownEvents(library, std::cout, options.json, OutputScreen());
    } else if (stop) {
        FollowEvents(library, *stop, std::cout, options.json, OutputScreen(), PrintError);
    } else {
        ShowNewEvents(library, std::cout, options.json, OutputScreen());
    }
}

int Run(const Options& options) {
    const Library library(options.library.empty() ? Library::DefaultPath() : std::filesystem::path(options.library));
    if (options.view == View::kVersion) {
        ShowVersion(library);
        return kSuccess;
    }
    std::optional<StopSignals> stop;
    if (options.follow) stop.emplace();
    const Machine machine(library, options.machine);
    const Session session(library, options.trace);
    switch (options.view) {
        case View::kBmc:
            ShowBmc(library, std::cout, options.json);
            break;
        case View::kSmbios:
            ShowSmbios(library, options.smbiosTypes, std::cout, options.json);
            break;
        case View::kSensors:
            ShowSensors(library, options.packed ? SensorView::kPacked : SensorView::kReadings, std::cout, options.json,
                        OutputScreen());
            break;
        case View::kSel:
            ShowSel(library, options, stop);
            break;
        case View::kFru:
            ShowFru(library, options.fruDevice, std::cout, options.json, OutputScreen());
            break;
        case View::kClassList:
            PrintClassList(session.ServedClasses(), options);
            break;
        default:
            return ShowClasses(session, session.ServedClasses(), options);
    }
    return kSuccess;
}

/// @return the status to exit with, when the command line already decides it
std::optional<int> ParseCommandLine(int argc, char** argv, Options& options) {
    CLI::App app("Shows what the platform plug-in tells about this machine.", "kvhost");
    app.fallthrough();
    app.require_subcommand(0, 1);
    app.add_flag("--all", options.all, "Show every class that the plug-in serves");
    app.add_flag("--json", options.json, "Write JSON instead of tables");
    app.add_flag("--trace", options.trace, "Connect to the trace daemon before the plug-in starts");
    app.add_option("--library", options.library, "Plug-in to load instead of ../lib/libplatform.so.1")
        ->type_name("FILE")
        ->check(CLI::ExistingFile);
    app.add_option("--machine", options.machine, "A simulated machine in place of this one: sim, or sim:SCENARIO.json")
        ->type_name("MACHINE")
        ->check([](const std::string& name) {
            return name == "sim" || name.starts_with("sim:") ? "" : "a machine is called sim or sim:SCENARIO.json";
        });
    bool version = false;
    app.add_flag("--version", version, "Show name and version of the plug-in");
    const auto view = [&](const char* name, View which, const char* description) {
        return app.add_subcommand(name, description)->callback([&options, which] { options.view = which; });
    };
    view("classes", View::kClassList, "List all classes and which of them are served");
    CLI::App* const show = view("show", View::kClasses, "Show all instances of classes");
    show->add_option("CLASS", options.classes, "KTX_CLS_IRQ, irq or 30")->type_name("");
    view("bmc", View::kBmc, "Show the BMC's identity and the way to it");
    view("smbios", View::kSmbios, "Show the SMBIOS structures with their strings")
        ->add_option("TYPE", options.smbiosTypes, "Only structures of these types")
        ->type_name("");
    view("sensors", View::kSensors, "Show the BMC's sensors with their raw readings")
        ->add_flag("--packed", options.packed, "Show the sensors' records instead");
    view("fru", View::kFru, "Show the inventory of a replaceable unit")
        ->add_option("DEVICE", options.fruDevice, "Its number; 0, the BMC's own, unless given")
        ->type_name("");
    CLI::App* const sel = view("sel", View::kSel, "Take the new events of the system event log, and show them");
    CLI::Option* const known =
        sel->add_flag("--all", options.known, "Show the events that were taken before instead; takes none");
    sel->add_flag("--follow", options.follow, "Go on every ten seconds until stopped")->excludes(known);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kSuccess : kWrongUsage;
    }
    if (version) options.view = View::kVersion;
    if (options.view != View::kClasses) return std::nullopt;
    if (options.classes.empty() && !options.all) {
        std::cerr << app.help("", show->parsed() ? CLI::AppFormatMode::Sub : CLI::AppFormatMode::Normal);
        return kWrongUsage;
    }
    if (const std::string* const name = FindWrongClass(options)) {
        PrintError("there is no class \"" + *name + "\"; \"kvhost classes\" lists them");
        return kWrongUsage;
    }
    return std::nullopt;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        std::setlocale(LC_ALL, "");
        Options options;
        if (const auto status = ParseCommandLine(argc, argv, options)) return *status;
        const int status = Run(options);
        std::cout.flush();
        if (!std::cout) throw std::runtime_error("the output could not be written");
        return status;
    } catch (const std::exception& error) {
        PrintError(error.what());
        return kFailure;
    }
}
