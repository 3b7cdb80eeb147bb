// machine-root [--build TREE] DIRECTORY -- COMMAND...: runs a command inside a machine root, so that programs which use
// the agent's absolute paths can be tried on a machine where nothing is installed.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstring>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "simulator/MachineRoot.h"

namespace {

int Execute(std::vector<std::string>& command) {
    std::vector<char*> argv;
    argv.reserve(command.size() + 1);
    for (std::string& word : command)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    std::cerr << "machine-root: " << command[0] << ": " << strerror(errno) << '\n';
    return 127;
}

int Run(int argc, char** argv) {
    CLI::App app{"Runs a command inside a directory that looks like a machine with the agent installed."};
    std::string directory;
    std::string build;
    std::vector<std::string> command;
    app.add_option("directory", directory, "the root; made when it is missing, and kept")->required();
    app.add_option("--build", build, "build tree whose lib/, bin/ and share/ appear under /opt/velmora/lantrel")
        ->check(CLI::ExistingDirectory);
    app.add_option("command", command, "program of the machine and its arguments")->required();
    app.positionals_at_end();
    CLI11_PARSE(app, argc, argv);

    if (command[0] == "--" && command.size() > 1) command.erase(command.begin());

    MachineRoot::At(directory, build).Enter();
    return Execute(command);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& e) {
        std::cerr << "machine-root: " << e.what() << '\n';
        return 126;
    }
}
