// A plug-in that runs, on a machine.
#include "host/kvhost_Session.h"

#include <filesystem>

#include "host/kvhost_Text.h"
#include "simulator/Scenario.h"
#include "simulator/SimulatedServer.h"

namespace kvhost {

namespace {

/// "sim" is the example of a rack server that lies beside the programs.
std::filesystem::path ScenarioFile(const std::string& name) {
    if (name.size() > 4) return name.substr(4);
    return std::filesystem::read_symlink("/proc/self/exe").parent_path() / "../share/scenarios/rack-server.json";
}

}  // namespace

Session::Session(const Library& library, bool trace) : library_(library), trace_(trace) {
    if (trace_) {
        library_.PXR_set_command_name("kvhost");
        if (library_.PXR_trace_init() != 0) PrintError("no trace daemon is listening, going on without trace");
    }
    // What could be started serves: a machine without BMC has I/O ports all the same.
    if (const int error = library_.InitLib()) PrintError(library_.Describe(error) + " Going on without it.");
}

Session::~Session() {
    library_.TerminateLib();
    if (trace_) library_.PXR_trace_term();
}

std::vector<uint32_t> Session::ServedClasses() const {
    _PXR_COMMAND_LIST* head = nullptr;
    library_.Check(static_cast<uint32_t>(library_.PXR_GetCommandList(&head)));
    const std::unique_ptr<_PXR_COMMAND_LIST, decltype(library_.FreeCommandList)> list(head, library_.FreeCommandList);
    std::vector<uint32_t> ids;
    for (const _PXR_COMMAND_LIST* node = head; node != nullptr; node = node->next)
        ids.push_back(node->classId);
    return ids;
}

ClassData Session::Query(uint32_t classId) const {
    _KVCIM_ENUM* e = nullptr;
    library_.Check(static_cast<uint32_t>(library_.CreateEnum(classId, &e)));
    const std::unique_ptr<_KVCIM_ENUM, decltype(library_.FreeEnum)> owner(e, library_.FreeEnum);
    library_.Check(static_cast<uint32_t>(library_.PXR_ExecCommand(e, nullptr, KV_MODE_QUERY)));
    return ReadEnum(*e, library_.IsJapanese());
}

Machine::Machine(const Library& library, const std::string& name) : library_(library) {
    if (name.empty()) return;
    server_ = std::make_unique<sim::SimulatedServer>();
    sim::LoadScenario(*server_, ScenarioFile(name));
    library_.KvSetDeviceOps(server_->Ops());
}

Machine::~Machine() {
    if (server_) library_.KvSetDeviceOps(nullptr);
}

}  // namespace kvhost
