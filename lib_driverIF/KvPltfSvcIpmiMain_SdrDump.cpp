// A readable copy of the sensor data repository, for support. It is made by whoever creates the file; the library only
// fills it.

#include <unistd.h>

#include "lib_driverIF/KvPltfSvcIpmiMain_SdrDump.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_SdrRecord.h"

namespace ktx_ipmi {

namespace {

constexpr const char* kDumpFile = "/var/opt/velmora/lantrel/log/sdr.dump";

const char* StateName(int state) {
    switch (state) {
        case kSensorEnabled:
            return "ENABLE";
        case kSensorForceEnabled:
            return "FRCENABLE";
        default:
            return "DISABLE";
    }
}

bool IsShown(uint8_t byte) {
    return byte >= 0x20 && byte <= 0x7E;
}

}  // namespace

FILE* OpenSdrDump() {
    return fopen(kDumpFile, "r+e");
}

void RestartSdrDump(FILE* dump) {
    if (dump == nullptr) return;
    rewind(dump);
    // What an earlier, longer dump left behind would pass for part of this one.
    [[maybe_unused]] const int rc = ftruncate(fileno(dump), 0);
}

void DumpSdr(FILE* dump, const uint8_t* record, uint32_t length, int sensorState) {
    if (dump == nullptr) return;
    fprintf(dump, "\nSensorNo=0x%02x, RecType=0x%02x, EntityId=0x%02x, Status=%s, Length: %d\n",
            record[sdr_byte::kNumber], record[sdr_byte::kType], record[sdr_byte::kEntityId], StateName(sensorState),
            static_cast<int>(length));
    for (uint32_t i = 0; i < length; ++i)
        fprintf(dump, "+%02x", i);
    fputc('\n', dump);
    for (uint32_t i = 0; i < length; ++i)
        fprintf(dump, " %02x", record[i]);
    fputc('\n', dump);
    for (uint32_t i = 0; i < length; ++i)
        fprintf(dump, "  %c", IsShown(record[i]) ? record[i] : '.');
    fputc('\n', dump);
}

}  // namespace ktx_ipmi
