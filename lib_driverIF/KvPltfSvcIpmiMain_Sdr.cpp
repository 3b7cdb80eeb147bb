// The walks over the BMC's sensor data repository: one to find the controllers, one to read everything.
//
// A walk follows the ids from record to record under a reservation. The controller cancels that whenever the repository
// changes or another one reserves it; the walk then begins anew, and lets nobody in again before its end: two walks
// that go on by turns would cancel each other for ever.

#include <algorithm>
#include <array>
#include <bitset>
#include <cstring>
#include <memory>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "lib_driverIF/KvPltfSvcIpmiCmd.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_Report.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_Sdr.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_SdrDump.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_SdrPack.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_SdrRecord.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_SdrTable.h"
#include "lib_driverIF/KvPltfSvcProduct.h"
#include "libplatform/PXR_trace.h"

namespace ktx_ipmi {

namespace {

constexpr int kPasses = 4;
constexpr uint32_t kPieceSize = 16;       // every controller can give as many
constexpr uint32_t kDiscoverySize = 16;   // what discovery needs of a record lies within
constexpr uint8_t kSdrVersion15 = 0x51;   // IPMI 1.5 and later
constexpr uint8_t kKeepsEventLog = 0x04;  // device capability
constexpr uint8_t kAllCapabilities = 0xFF;

uint16_t RecordId(const uint8_t* record) {
    return static_cast<uint16_t>(record[sdr_byte::kRecordId] | record[sdr_byte::kRecordId + 1] << 8);
}

/// Results of a walk that does not come to its end.
struct WalkCodes {
    uint32_t notOpened;
    uint32_t terminating;
};

/// What one step of a walk works on.
struct Step {
    int handle;
    uint16_t reservation;
    uint16_t id;                    ///< of the record; 0 means the first one
    uint16_t nextId = kLastRecord;  ///< out
    uint16_t ownId = 0;             ///< out: the record's id as it says itself
};

/// Goes through the repository once. An id that comes up twice ends the walk: from there it would go in circles.
/// @param courteous  others are let in between records
template <typename Visit>
uint32_t WalkOnce(IpmiBracket& bracket, uint16_t reservation, bool courteous, const WalkCodes& codes, Visit visit) {
    std::bitset<0x10000> seen;
    uint16_t id = 0;
    while (id != kLastRecord) {
        if (ShallEnd()) return PXR_ReportError(codes.terminating);
        if (seen[id]) {
            PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_EVENT, "SDR 0x%04x comes up again. The walk ends.", id);
            return 0;
        }
        seen.set(id);
        Step step{bracket.Handle(), reservation, id};
        if (const uint32_t rc = visit(step)) return rc;
        if (id == 0) seen.set(step.ownId);
        id = step.nextId;
        if (courteous && id != kLastRecord && !bracket.LetOthersIn()) return ReportNotOpened(codes.notOpened);
    }
    return 0;
}

/// Walks until a walk comes to its end, four times at most. A failed reservation costs one of them.
/// @param begin  called before each walk
template <typename Begin, typename Visit>
uint32_t Walk(IpmiBracket& bracket, const WalkCodes& codes, Begin begin, Visit visit) {
    uint32_t result = 0;
    bool cancelled = false;
    for (int pass = 0; pass < kPasses; ++pass) {
        if (!cancelled && !bracket.LetOthersIn()) return ReportNotOpened(codes.notOpened);
        uint16_t reservation = 0;
        result = ReserveSdrRepository(bracket.Handle(), g_bBmcAdr, &reservation);
        if (result != 0) continue;
        begin();
        result = WalkOnce(bracket, reservation, !cancelled, codes, visit);
        if (!IsRefusedWith(result, kReservationCancelled)) return result;
        cancelled = true;
        result = 0;
    }
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_EVENT,
              "The walk over the SDR repository is given up after %d passes. (0x%08X)", kPasses, result);
    return result;
}

/// Reads the bytes [begin, end) of a record into their places.
uint32_t ReadPieces(const Step& step, uint8_t* record, uint32_t begin, uint32_t end) {
    for (uint32_t offset = begin; offset < end;) {
        if (offset > UINT8_MAX) return PXR_ReportError(reason::kBadArguments);  // where no command reaches
        const auto count = static_cast<uint8_t>(std::min(end - offset, kPieceSize));
        uint16_t nextId = 0;
        uint32_t received = 0;
        if (const uint32_t rc = GetSdr(step.handle, g_bBmcAdr, step.reservation, step.id, static_cast<uint8_t>(offset),
                                       count, &nextId, record + offset, &received)) {
            return rc;
        }
        if (received == 0) return PXR_ReportError(reason::kBadArguments);  // the record is shorter than it says
        offset += received;
    }
    return 0;
}

// Discovery

bool IsSensor(uint8_t recordType) {
    return recordType >= kFullSensor && recordType <= kEventOnlySensor;
}

using Beginning = std::array<uint8_t, kDiscoverySize>;

DEVICE_INFO DeviceOf(const Beginning& record, uint8_t lun) {
    DEVICE_INFO device{};
    device.address = record[sdr_byte::kOwner];
    device.lun = lun;
    device.recordId = RecordId(record.data());
    device.sdrVersion = record[sdr_byte::kVersion];
    device.bType = record[sdr_byte::kType];
    return device;
}

void AddController(int handle, const Beginning& record, bool canEverything) {
    const size_t position = record[sdr_byte::kVersion] == kSdrVersion15 ? 8 : 7;
    const uint8_t capabilities = canEverything ? kAllCapabilities : record[position];
    if ((capabilities & kKeepsEventLog) == 0) return;
    DEVICE_INFO device = DeviceOf(record, 0);
    if (!IsNewSelDevice(device)) return;
    SelInfo info{};
    const bool known = GetSelInfo(handle, device.address, &info) == 0;
    device.reserve = known && (info.operationSupport & kSelReserveSupported) != 0 ? 1 : 0;
    AddSelDevice(device);
}

/// Looks at one record. Only the header is read of those that name no device.
uint32_t DiscoverIn(Step& step, bool canEverything) {
    Beginning record{};
    if (const uint32_t rc =
            GetSdrHeader(step.handle, g_bBmcAdr, step.reservation, step.id, &step.nextId, record.data())) {
        return rc;
    }
    step.ownId = RecordId(record.data());
    const uint8_t type = record[sdr_byte::kType];
    if (!IsSensor(type) && type != kControllerLocator) return 0;
    const uint32_t length = std::min(SdrLength(record.data()), kDiscoverySize);
    if (const uint32_t rc = ReadPieces(step, record.data(), kSdrHeaderSize, length)) return rc;
    if (IsSensor(type)) {
        if (length > sdr_byte::kLun) AddSensorDevice(DeviceOf(record, OwnerLun(record[sdr_byte::kLun])));
    } else if (length > sdr_byte::kOwner) {
        AddController(step.handle, record, canEverything);
    }
    return 0;
}

// Full read

void Pack(const uint8_t* record, FILE* dump) {
    switch (record[sdr_byte::kType]) {
        case kFullSensor:
            return PackFullSdr(record, dump);
        case kCompactSensor:
            return PackCompactSdr(record, dump);
        case kEventOnlySensor:
            return PackEvonlySdr(record, dump);
        default:
            return;
    }
}

uint32_t ReadAndPack(Step& step, FILE* dump) {
    std::array<uint8_t, kMaxSdrSize> record{};
    uint32_t length = 0;
    if (const uint32_t rc = GetFullSdr(step.handle, step.reservation, step.id, &step.nextId, record.data(), &length)) {
        return rc;
    }
    step.ownId = RecordId(record.data());
    DumpSdr(dump, record.data(), length, IsSensorEnable(step.handle, record.data()));
    Pack(record.data(), dump);
    return 0;
}

struct CloseFile {
    void operator()(FILE* file) const { fclose(file); }
};

}  // namespace

uint32_t GetDeviceInfo(IpmiBracket& bracket) {
    constexpr WalkCodes kCodes{MakeResult(fn::kNone, service_reason::kNotOpened),
                               MakeResult(fn::kNone, service_reason::kTerminating)};
    if (!bracket) return ReportNotOpened(kCodes.notOpened);
    const bool canEverything = product::IsQ52();  // whose records do not tell what its controllers can do
    return Walk(
        bracket, kCodes, [] {}, [=](Step& step) { return DiscoverIn(step, canEverything); });
}

uint32_t GetAllSdr(IpmiBracket& bracket) {
    constexpr WalkCodes kCodes{MakeResult(fn::kGetAllSdr, service_reason::kNotOpened),
                               MakeResult(fn::kGetAllSdr, service_reason::kTerminating)};
    if (!bracket) return ReportNotOpened(kCodes.notOpened);
    const std::unique_ptr<FILE, CloseFile> dump(OpenSdrDump());
    return Walk(
        bracket, kCodes, [&] { RestartSdrDump(dump.get()); },
        [&](Step& step) { return ReadAndPack(step, dump.get()); });
}

uint32_t GetFullSdr(int handle, uint16_t reservation, uint16_t recordId, uint16_t* nextId, uint8_t* record,
                    uint32_t* length) {
    memset(record, 0, kMaxSdrSize);
    *length = 0;
    if (const uint32_t rc = GetSdrHeader(handle, g_bBmcAdr, reservation, recordId, nextId, record)) return rc;
    const uint32_t whole = SdrLength(record);
    if (const uint32_t rc = ReadPieces({handle, reservation, recordId}, record, kSdrHeaderSize, whole)) return rc;
    *length = whole;
    return 0;
}

int IsSensorEnable(int handle, const uint8_t* record) {
    const uint8_t type = record[sdr_byte::kType];
    if (type != kFullSensor && type != kCompactSensor) return kSensorForceEnabled;
    SensorReading reading{};
    const uint32_t rc = GetSensorReading(handle, record[sdr_byte::kOwner], OwnerLun(record[sdr_byte::kLun]),
                                         record[sdr_byte::kNumber], &reading);
    return rc == 0 && (reading.flags & kScanningEnabled) != 0 ? kSensorEnabled : kSensorDisabled;
}

}  // namespace ktx_ipmi
