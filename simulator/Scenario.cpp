#include "simulator/Scenario.h"

#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>

#include "simulator/SimulatedServer.h"

namespace sim {
namespace {

RegisterWindow ReadWindow(ScenarioNode node, RegisterWindow window) {
    node.Take("memory", window.memory);
    node.Take("base", window.base);
    node.Take("spacing", window.spacing);
    node.Done();
    if (window.spacing == 0) node.Fail("spacing must not be 0");
    if (!window.memory && window.base > 0xFFFF) node.Fail("an I/O port is at most 0xFFFF");
    return window;
}

void ApplyInterfaces(SimulatedServer& server, ScenarioNode node) {
    if (const auto kcs = node.Child("kcs")) server.PlaceKcs(ReadWindow(*kcs, {false, 0x0CA2, 1}));
    if (const auto smic = node.Child("smic")) server.PlaceSmic(ReadWindow(*smic, {false, 0x0CA9, 1}));
    node.Done();
}

void ApplyOther(Bmc& bmc, ScenarioNode node) {
    uint8_t address = 0;
    node.Need("address", address);
    if ((address & 1) != 0) node.Fail("an address on the bus is even");
    if (bmc.FindController(address) != nullptr) node.Fail("the address is taken");
    scenario::ApplyController(bmc.AddController(address), std::move(node));
}

void Apply(SimulatedServer& server, ScenarioNode root) {
    std::string description;
    root.Take("description", description);
    if (root.Has("memoryDriver")) {
        bool present = false;
        root.Take("memoryDriver", present);
        server.SetMemoryDriver(present);
    }
    if (const auto interfaces = root.Child("interfaces")) ApplyInterfaces(server, *interfaces);
    if (const auto bmc = root.Child("bmc")) scenario::ApplyController(server.GetBmc(), *bmc);
    for (const ScenarioNode& controller : root.List("controllers"))
        ApplyOther(server.GetBmc(), controller);
    if (const auto smbios = root.Child("smbios")) scenario::ApplySmbios(server, *smbios);
    for (const ScenarioNode& fault : root.List("faults"))
        scenario::ApplyFault(server, fault);
    root.Done();
}

nlohmann::json Parse(std::string_view text) {
    try {
        return nlohmann::json::parse(text);
    } catch (const nlohmann::json::parse_error& error) {
        throw ScenarioError("not JSON: " + std::string(error.what()));
    }
}

/// A file may build upon another one, which is applied first. @param depth  ends files that name each other
void Load(SimulatedServer& server, const std::filesystem::path& file, int depth) {
    constexpr int kDeepest = 8;
    std::ifstream stream(file, std::ios::binary);
    if (!stream) throw ScenarioError("cannot be read");
    const std::string text{std::istreambuf_iterator<char>(stream), {}};
    const nlohmann::json document = Parse(text);
    ScenarioNode root(document, "");
    if (const auto base = root.Child("base")) {
        std::string name;
        base->Read(name);
        if (depth == kDeepest) base->Fail("too many files upon each other");
        try {
            Load(server, file.parent_path() / name, depth + 1);
        } catch (const ScenarioError& error) {
            base->Fail(name + ": " + error.what());
        }
    }
    Apply(server, std::move(root));
}

}  // namespace

void ApplyScenario(SimulatedServer& server, std::string_view json) {
    const nlohmann::json document = Parse(json);
    Apply(server, ScenarioNode(document, ""));
}

void LoadScenario(SimulatedServer& server, const std::filesystem::path& file) {
    try {
        Load(server, file, 0);
    } catch (const ScenarioError& error) {
        throw ScenarioError(file.string() + ": " + error.what());
    }
}

}  // namespace sim
