#pragma once
/// @file
/// Scenario files: a machine described in JSON. The format is told in docs/scenario.md; simulator/scenarios/ has
/// examples.

#include <filesystem>
#include <string>
#include <string_view>

#include "simulator/ScenarioNode.h"

namespace sim {

class Bmc;
class Controller;
class SdrRepository;
class SensorBank;
class EventLog;
class SimulatedServer;

/// Makes the server what the text describes. A server on which this failed is half-made.
/// @throws ScenarioError with the field and what is wrong with it; for a mistake of JSON itself the place in the text
void ApplyScenario(SimulatedServer& server, std::string_view json);
/// The same from a file; errors begin with the file's name.
void LoadScenario(SimulatedServer& server, const std::filesystem::path& file);

namespace scenario {  // sections of the file, each in a file of its own

void ApplyController(Controller& controller, ScenarioNode node);
void ApplySdrRecord(SdrRepository& repository, SensorBank& sensors, ScenarioNode node);
void ApplyEventLog(EventLog& log, ScenarioNode node);
void ApplySmbios(SimulatedServer& server, ScenarioNode node);
void ApplyFault(SimulatedServer& server, ScenarioNode node);

}  // namespace scenario

}  // namespace sim
