// The command line: one row for each command, with its options and what it runs.
#include "host/kvhost_CommandLine.h"

#include <CLI/CLI.hpp>
#include <iostream>

#include "host/kvhost_CheckMaps.h"
#include "host/kvhost_Classes.h"
#include "host/kvhost_Fru.h"
#include "host/kvhost_Machine.h"
#include "host/kvhost_Sel.h"
#include "host/kvhost_Sensors.h"
#include "host/kvhost_Text.h"

namespace kvhost {

namespace {

int ShowVersion(const Context& context) {
    const KvPluginVersion& version = *context.library.GetVersion();
    std::cout << version.name << ' ' << version.version << '\n'
              << "loaded from " << context.library.Path().string() << '\n';
    return kSuccess;
}

int RunBmc(const Context& context) {
    ShowBmc(context.library, std::cout, context.options.json);
    return kSuccess;
}

int RunSmbios(const Context& context) {
    ShowSmbios(context.library, context.options.smbiosTypes, std::cout, context.options.json);
    return kSuccess;
}

int RunSensors(const Context& context) {
    ShowSensors(context.library, context.options.packed ? SensorView::kPacked : SensorView::kReadings, std::cout,
                context.options.json, context.screen);
    return kSuccess;
}

int RunSel(const Context& context) {
    const Options& options = context.options;
    if (options.known) {
        ShowKnownEvents(context.library, std::cout, options.json, context.screen);
    } else if (context.stop != nullptr) {
        FollowEvents(context.library, *context.stop, std::cout, options.json, context.screen, PrintError);
    } else {
        ShowNewEvents(context.library, std::cout, options.json, context.screen);
    }
    return kSuccess;
}

int RunFru(const Context& context) {
    ShowFru(context.library, context.options.fruDevice, std::cout, context.options.json, context.screen);
    return kSuccess;
}

struct Command {
    const char* name;
    const char* description;
    Run run;
    void (*addOptions)(CLI::App& command, Options& options);  ///< null: it has none of its own
    bool startsPlugin = true;
};

const Command kCommands[] = {
    {"classes", "List all classes and which of them are served", ListClasses, nullptr},
    {"show", "Show all instances of classes", ShowClasses,
     [](CLI::App& command, Options& options) {
         command.add_option("CLASS", options.classes, "KTX_CLS_IRQ, irq or 30")->type_name("");
     }},
    {"bmc", "Show the BMC's identity and the way to it", RunBmc, nullptr},
    {"smbios", "Show the SMBIOS structures with their strings", RunSmbios,
     [](CLI::App& command, Options& options) {
         command.add_option("TYPE", options.smbiosTypes, "Only structures of these types")->type_name("");
     }},
    {"sensors", "Show the BMC's sensors with their raw readings", RunSensors,
     [](CLI::App& command, Options& options) {
         command.add_flag("--packed", options.packed, "Show the sensors' records instead");
     }},
    {"fru", "Show the inventory of a replaceable unit", RunFru,
     [](CLI::App& command, Options& options) {
         command.add_option("DEVICE", options.fruDevice, "Its number; 0, the BMC's own, unless given")->type_name("");
     }},
    {"sel", "Take the new events of the system event log, and show them", RunSel,
     [](CLI::App& command, Options& options) {
         CLI::Option* const known =
             command.add_flag("--all", options.known, "Show the events that were taken before instead; takes none");
         command.add_flag("--follow", options.follow, "Go on every ten seconds until stopped")->excludes(known);
     }},
    {"check-maps", "Check definition files: what of them would be left out, and why", CheckMaps,
     [](CLI::App& command, Options& options) {
         command.add_option("DIRECTORY", options.directory, "Where they lie, if not in place")
             ->type_name("")
             ->check(CLI::ExistingDirectory);
     }},
};

void AddCommonOptions(CLI::App& app, Options& options) {
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
}

/// What classes were named must be right.
std::optional<int> CheckClasses(const CLI::App& app, const Options& options) {
    if (options.classes.empty() && !options.all) {
        const bool asked = app.got_subcommand("show");
        std::cerr << app.help("", asked ? CLI::AppFormatMode::Sub : CLI::AppFormatMode::Normal);
        return kWrongUsage;
    }
    if (const std::string* const name = FindWrongClass(options)) {
        PrintError("there is no class \"" + *name + "\"; \"kvhost classes\" lists them");
        return kWrongUsage;
    }
    return std::nullopt;
}

}  // namespace

std::optional<int> ParseCommandLine(int argc, char** argv, Order& order) {
    CLI::App app("Shows what the platform plug-in tells about this machine.", "kvhost");
    app.fallthrough();
    app.require_subcommand(0, 1);
    AddCommonOptions(app, order.options);
    bool version = false;
    app.add_flag("--version", version, "Show name and version of the plug-in");
    order.run = ShowClasses;
    for (const Command& row : kCommands) {
        CLI::App* const command = app.add_subcommand(row.name, row.description);
        command->callback([&order, &row] {
            order.run = row.run;
            order.startsPlugin = row.startsPlugin;
        });
        if (row.addOptions != nullptr) row.addOptions(*command, order.options);
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kSuccess : kWrongUsage;
    }
    if (version) {
        order.run = ShowVersion;
        order.startsPlugin = false;
    }
    return order.run == ShowClasses ? CheckClasses(app, order.options) : std::nullopt;
}

}  // namespace kvhost
