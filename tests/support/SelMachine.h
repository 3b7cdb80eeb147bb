#pragma once
/// @file
/// A simulated machine with SEL devices, polled through the SEL database.

#include <gmock/gmock.h>
#include <sys/mount.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "lib_driverIF/KvPltfSvcIpmiSelDb.h"
#include "tests/support/SimulatedMachine.h"

/// Bytes 13 to 15 of an event tell it from others.
inline sim::SelEntry Event(unsigned number, uint32_t time = 0) {
    return sim::SystemEvent(0x08, 0x49, 0x6F, {static_cast<uint8_t>(number), static_cast<uint8_t>(number >> 8), 0xFF},
                            time);
}

/// The same under an id of its own, for a log that is rewritten.
inline sim::SelEntry EventAt(uint8_t id, unsigned number) {
    sim::SelEntry event = Event(number);
    event[0] = id;
    return event;
}

inline unsigned NumberOf(const KVPS_SEL_ENTRY& entry) {
    return entry.eventData[0] | static_cast<unsigned>(entry.eventData[1]) << 8;
}

inline KVPS_SEL_ENTRY AsEntry(const sim::SelEntry& bytes) {
    KVPS_SEL_ENTRY entry;
    memcpy(&entry, bytes.data(), sizeof entry);
    return entry;
}

class SelMachine : public SimulatedMachine {
public:
    static constexpr const char* kFolder = "/var/opt/velmora/lantrel/log/";
    static constexpr const char* kInf = "ipmi_sel_51_000a.inf";  // of the first device
    static constexpr const char* kDb = "ipmi_sel_51_000a.db";
    static constexpr const char* kFirst = "FirstSEL51000a.dat";
    static constexpr const char* kRing = "ipmi_sel.log";
    static constexpr size_t kDbSize = 1024 * 1024;
    static constexpr uint8_t kStorage = sim::netfn::kStorage;
    static constexpr uint8_t kGetInfo = 0x40, kReserve = 0x42, kGetEntry = 0x43, kClear = 0x47;
    using Numbers = std::vector<unsigned>;

    /// Runs body on this machine with a log folder of its own in memory: synchronous writes cost nothing there.
    void Run(const std::function<void()>& body) {
        SimulatedMachine::Run([&] {
            ASSERT_EQ(0, mount("sel", kFolder, "tmpfs", 0, nullptr));
            body();
        });
    }
    /// What start-up does before the first poll. As often as wanted: a restart.
    uint32_t Start(bool reserve = true, uint32_t devices = 1) {
        fs_stSeldef[0].matched = 0;
        g_dwSelDevCnt = devices;
        for (uint32_t i = 0; i < devices; ++i) {
            g_stSelDev[i] = {0x20, 0, static_cast<uint16_t>(0x0A + i), 0x51, 0x12, uint8_t{reserve}, 0, 0, 0, 0};
        }
        InitializeSELDatabase();
        return LoadSelDeviceInfo();
    }
    /// Starts on a log of so many old events, numbered from 1, which the first poll takes note of.
    void StartWith(unsigned events) {
        Log(events);
        Start();
        EXPECT_EQ(Numbers{}, Poll());
    }
    /// Logs events, numbered on.
    void Log(unsigned events) {
        for (unsigned i = 0; i < events; ++i)
            Bmc().Sel()->Add(Event(++logged_));
    }
    /// The log was cleared, and holds so many new ones.
    void ClearAndLog(unsigned events) {
        Bmc().Sel()->Clear();
        Log(events);
    }
    /// One poll. @return the numbers of the events it gave
    Numbers Poll() {
        unsigned long count = 99;
        KVPS_SEL_ENTRY* entries = nullptr;
        result = KvPsGetSelAllEntries(&count, &entries);
        Numbers numbers;
        for (unsigned long i = 0; i < count; ++i)
            numbers.push_back(NumberOf(entries[i]));
        EXPECT_EQ(count > 0, entries != nullptr);
        KvPsFreeDataArray(entries);
        return numbers;
    }

    static std::string Path(const std::string& name) { return kFolder + name; }
    static bool Exists(const std::string& name) { return std::filesystem::exists(Path(name)); }
    static std::string Read(const std::string& name) {
        std::ostringstream content;
        content << std::ifstream(Path(name), std::ios::binary).rdbuf();
        return content.str();
    }
    static void Write(const std::string& name, std::string_view content) {
        std::ofstream(Path(name), std::ios::binary) << content;
    }
    static DEVICE_INFO ReadInf() {
        DEVICE_INFO info = {};
        const std::string bytes = Read(kInf);
        EXPECT_EQ(sizeof info, bytes.size());
        memcpy(&info, bytes.data(), std::min(sizeof info, bytes.size()));
        return info;
    }
    /// A record of the database file.
    static KVPS_SEL_ENTRY ReadDb(uint16_t id) {
        KVPS_SEL_ENTRY entry = {};
        std::ifstream in(Path(kDb), std::ios::binary);
        in.seekg(static_cast<std::streamoff>(id * sizeof entry));
        in.read(reinterpret_cast<char*>(&entry), sizeof entry);
        EXPECT_TRUE(in) << "record " << id;
        return entry;
    }

    std::atomic<uint32_t> result = 0;  ///< of the last poll

private:
    unsigned logged_ = 0;
};
