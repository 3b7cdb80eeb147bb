#pragma once
/// @file
/// A simulated machine with a repository of sensor data records, and records for it.

#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

#include "lib_driverIF/KvPltfSvcIpmiMain_SdrTable.h"
#include "libplatform/KvPsSensor.h"
#include "tests/support/SimulatedMachine.h"

inline sim::FullRecord Full(uint8_t number, const std::string& name = "Sensor", uint8_t owner = 0x20, uint8_t lun = 0) {
    return {{.owner = owner, .lun = lun, .number = number, .name = name}};
}

inline sim::SharedRecord Shared(uint8_t number, const std::string& name, uint8_t count, uint8_t offset = 0) {
    return {{.number = number, .sensorType = 0x0D, .eventType = 0x6F, .name = name}, count, false, offset};
}

inline sim::Bytes WithByte(sim::Bytes record, size_t at, uint8_t value) {
    record.at(at) = value;
    return record;
}

/// Number and name of every record in the table.
inline std::vector<std::pair<int, std::string>> Names() {
    std::vector<std::pair<int, std::string>> names;
    const std::shared_lock lock(g_sdrMutex);
    ktx_ipmi::ForEachSdr([&](const SDR& sdr) { names.emplace_back(sdr.number, sdr.name); });
    return names;
}

class Repository : public SimulatedMachine {
protected:
    uint16_t Add(const sim::Bytes& record) { return Bmc().Sdr()->Add(record); }
    /// Sensors 1 to count, 53 bytes each.
    void AddSensors(uint8_t count) {
        for (uint8_t number = 1; number <= count; ++number)
            Add(Full(number, "Sens" + std::to_string(number % 10)).Encode());
    }
    /// Starts the library's sensors, and expects a result and sensors of these names.
    void ExpectNames(const std::vector<std::string>& expected, uint32_t result = 0) {
        Run([&] {
            EXPECT_EQ(result, KvPsInitializeIpmi());
            std::vector<std::string> names;
            for (const auto& [number, name] : Names())
                names.push_back(name);
            EXPECT_EQ(expected, names);
        });
    }
};
