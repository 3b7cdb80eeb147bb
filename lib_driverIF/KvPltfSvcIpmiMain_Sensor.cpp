// Queries: what the sensor table knows, and what the BMC says now.

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <source_location>
#include <string_view>
#include <utility>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "lib_driverIF/KvPltfSvcIpmiCall.h"
#include "lib_driverIF/KvPltfSvcIpmiCmd.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_Report.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_SdrRecord.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_SdrTable.h"
#include "lib_driverIF/KvPltfSvcProduct.h"
#include "libplatform/PXR_trace.h"

namespace {

using namespace ktx_ipmi;

struct Free {
    void operator()(void* memory) const { free(memory); }
};
template <typename Item>
using MallocArray = std::unique_ptr<Item[], Free>;

uint32_t ReportNoTable(std::source_location where = std::source_location::current()) {
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR,
              "There is no SDR because initialization of the IPMI failed. g_pSdr=NULL");
    return PXR_ReportError(MakeResult(fn::kNone, service_reason::kNoRecords), where);
}

// Single fields

// These four are older than the structured codes.
constexpr uint32_t kBadLun = 2001;
constexpr uint32_t kBadNumber = 2006;
constexpr uint32_t kUnknownDevice = 2014;
constexpr uint32_t kEmptySlot = 2018;

uint32_t GetRecord(uint8_t owner, uint8_t lun, uint8_t sensor, SDR& out, std::source_location where) {
    if (lun > kLastLun) return PXR_ReportError(kBadLun, where);
    if (sensor == kNoSensor) return PXR_ReportError(kBadNumber, where);
    switch (FindSdr(owner, lun, sensor, &out)) {
        case SdrLookup::kFound:
            return 0;
        case SdrLookup::kEmpty:
            return PXR_ReportError(kEmptySlot, where);
        default:
            return PXR_ReportError(kUnknownDevice, where);
    }
}

/// Copies a field of a sensor's record.
template <typename Field>
uint32_t GetField(uint8_t owner, uint8_t lun, uint8_t sensor, Field SDR::*field, void* out,
                  std::source_location where = std::source_location::current()) {
    if (out == nullptr) return ReportNull(where);
    SDR sdr{};
    if (const uint32_t rc = GetRecord(owner, lun, sensor, sdr, where)) return rc;
    memcpy(out, &(sdr.*field), sizeof(Field));
    return 0;
}

// Records of an entity and type

/// Records of the table that fit a query. They are pointed to, so that the table has to stay.
struct Matches {
    bool loaded = false;  ///< there is a table
    unsigned long count = 0;
    MallocArray<SDR*> array;  ///< null when it was not wanted, or there is no memory
    char firstName[KVPS_SENSOR_NAME_SIZE] = "";
};

Matches FindMatches(uint8_t entityId, uint8_t sensorType, bool wantArray) {
    const auto fits = [=](const SDR& sdr) { return sdr.entityId == entityId && sdr.sensorType == sensorType; };
    Matches matches;
    const std::shared_lock lock(g_sdrMutex);
    matches.loaded = g_pSdr != nullptr;
    ForEachSdr([&](const SDR& sdr) { matches.count += fits(sdr) ? 1 : 0; });
    if (!wantArray || matches.count == 0) return matches;
    matches.array.reset(static_cast<SDR**>(malloc(matches.count * sizeof(SDR*))));
    if (matches.array == nullptr) return matches;
    size_t filled = 0;
    ForEachSdr([&](SDR& sdr) {
        if (!fits(sdr)) return;
        if (filled == 0) memcpy(matches.firstName, sdr.name, sizeof matches.firstName);
        matches.array[filled++] = &sdr;
    });
    return matches;
}

/// Whether the BMC of this machine lists the second processor's sensors before the first one's.
bool ProcessorsAreReversed(std::string_view firstName) {
    using product::ModelGroup;
    ModelGroup affected = ModelGroup::kNone;
    if (firstName == "CPU 2-1 Temp") affected = ModelGroup::kFirst;
    if (firstName == "Proc 1-1 Temp") affected = ModelGroup::kSecond;
    return affected != ModelGroup::kNone && product::Models() == affected;
}

void FixOrder(const Matches& matches) {
    if (matches.count < 4 || !ProcessorsAreReversed(matches.firstName)) return;
    std::swap(matches.array[0], matches.array[2]);
    std::swap(matches.array[1], matches.array[3]);
}

/// Copies of all records. @return whether there is a table
bool CopyAll(MallocArray<SDR>& copies, unsigned long& count) {
    const std::shared_lock lock(g_sdrMutex);
    count = 0;
    ForEachSdr([&](const SDR&) { ++count; });
    if (count == 0) return g_pSdr != nullptr;
    copies.reset(static_cast<SDR*>(malloc(count * sizeof(SDR))));
    if (copies == nullptr) return true;
    size_t filled = 0;
    ForEachSdr([&](const SDR& sdr) { copies[filled++] = sdr; });
    return true;
}

// Factors

constexpr size_t kFactors = 4;  // their place in the conversion bytes

}  // namespace

uint32_t KvPsGetAllSdrData(unsigned long* count, SDR** records) {
    if (count == nullptr || records == nullptr) return ReportNull();
    *count = 0;
    *records = nullptr;
    MallocArray<SDR> copies;
    unsigned long found = 0;
    if (!CopyAll(copies, found)) return ReportNoTable();
    if (found > 0 && copies == nullptr) return PXR_ReportError(MakeResult(fn::kNone, service_reason::kNoArray));
    *count = found;
    *records = copies.release();
    return 0;
}

uint32_t KvPsGetSdrData(uint8_t entityId, uint8_t sensorType, unsigned long* count, SDR*** array) {
    if (count == nullptr && array == nullptr) return ReportNull();
    Matches matches = FindMatches(entityId, sensorType, array != nullptr);
    if (!matches.loaded) return ReportNoTable();
    if (matches.count == 0) {
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_EVENT, "EntId=%d,SnsType=%d,No Exist SDR.", entityId,
                  sensorType);
        return 0;
    }
    if (array != nullptr && matches.array == nullptr) {
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR,
                  "An attempt to allocate memory has failed. (%dBytes) bEntId =%d bSnsType =%d",
                  static_cast<int>(matches.count * sizeof(SDR*)), entityId, sensorType);
        return PXR_ReportError(MakeResult(fn::kNone, service_reason::kNoArray));
    }
    if (count != nullptr) *count = matches.count;
    if (array != nullptr) {
        FixOrder(matches);
        *array = matches.array.release();
    }
    return 0;
}

uint32_t KvPsGetSensorData(uint8_t owner, uint8_t lun, uint8_t sensor, KVPS_SENSOR_DATA* out) {
    if (out == nullptr) return ReportNull();
    *out = {};
    constexpr uint32_t kNoSuchSensor = MakeResult(fn::kFindSensor, service_reason::kNoSuchSensor);
    if (lun > kLastLun || sensor == kNoSensor) return PXR_ReportError(kNoSuchSensor);
    SensorReading reading{};
    {
        const IpmiBracket bracket;
        if (!bracket) return ReportNotOpened(MakeResult(fn::kGetSensorData, service_reason::kNotOpened));
        if (const uint32_t rc = GetSensorReading(bracket.Handle(), owner, lun, sensor, &reading)) return rc;
    }
    out->reading = reading.reading;
    out->flags = reading.flags;
    std::copy_n(reading.states, sizeof out->states, out->states);
    SDR sdr;
    const SdrLookup found = FindSdr(owner, lun, sensor, &sdr);
    if (found != SdrLookup::kFound && found != SdrLookup::kEmpty) return PXR_ReportError(kNoSuchSensor);
    out->readingType = sdr.readingType;
    out->sensorType = sdr.sensorType;
    out->nominalSpecified = sdr.nominalSpecified;
    out->nominal = sdr.nominal;
    std::copy_n(sdr.conversion, sizeof out->conversion, out->conversion);
    return 0;
}

uint32_t KvPsGetSensorDataList(const SDR* records, unsigned long count, KVPS_SENSOR_DATA* data, uint32_t* results) {
    if (records == nullptr || data == nullptr || results == nullptr) return ReportNull();
    if (count == 0) return 0;
    constexpr uint32_t kNotOpened = MakeResult(fn::kGetSensorData, service_reason::kNotOpened);
    std::fill_n(data, count, KVPS_SENSOR_DATA{});
    std::fill_n(results, count, kNotOpened);
    IpmiBracket bracket;
    for (unsigned long i = 0; i < count; ++i) {
        if (!bracket || (i > 0 && !bracket.LetOthersIn())) return ReportNotOpened(kNotOpened);
        const SDR& sdr = records[i];
        results[i] = sdr.recordType == kEventOnlySensor ? reason::kBadArguments
                                                        : KvPsGetSensorData(sdr.owner, sdr.lun, sdr.number, &data[i]);
    }
    return 0;
}

uint32_t KvPsGetSensorConvert(uint8_t owner, uint8_t lun, uint8_t sensor, uint8_t reading, uint8_t* conversion) {
    const auto report = [](auto reason, std::source_location where = std::source_location::current()) {
        return PXR_ReportError(MakeResult(fn::kGetSensorConvert, reason), where);
    };
    if (conversion == nullptr) return report(Reason::NullArgument);
    if (const auto refusal = SensorRefusal(owner, lun, sensor)) return report(*refusal);
    const IpmiBracket bracket;
    if (!bracket) return ReportNotOpened(MakeResult(fn::kGetSensorConvert, service_reason::kNotOpened));
    SensorReadingFactors answer{};
    if (GetSensorReadingFactors(bracket.Handle(), owner, lun, sensor, reading, &answer) != 0) {
        return report(service_reason::kOemFailed);
    }
    std::copy_n(answer.factors, sizeof answer.factors, conversion + kFactors);
    return 0;
}

uint32_t KvPsGetSensorIdString(uint8_t owner, uint8_t lun, uint8_t sensor, char* name) {
    return GetField(owner, lun, sensor, &SDR::name, name);
}

uint32_t KvPsGetEntityId(uint8_t owner, uint8_t lun, uint8_t sensor, uint8_t* out) {
    return GetField(owner, lun, sensor, &SDR::entityId, out);
}

uint32_t KvPsGetEntityInstance(uint8_t owner, uint8_t lun, uint8_t sensor, uint8_t* out) {
    return GetField(owner, lun, sensor, &SDR::entityInstance, out);
}
