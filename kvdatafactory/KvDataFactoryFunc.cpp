// Start and end of the data factory, and which section of a definition file is read by whom.
#include <cerrno>
#include <memory>
#include <mutex>
#include <new>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "common/RasLog.h"
#include "cover/TimerCover.h"
#include "kvdatafactory/Inventory/KvIfAnalyze.h"
#include "kvdatafactory/Inventory/KvIfMemoryState.h"
#include "kvdatafactory/Inventory/KvInventoryFactoryFunc.h"
#include "kvdatafactory/KvDfCommon.h"
#include "kvdatafactory/KvDfCommon_Maps.h"
#include "kvdatafactory/KvDfFilling.h"
#include "kvdatafactory/KvDfLinuxCommon_Memory.h"
#include "libplatform/KvDfDataFactory.h"
#include "libplatform/KvDfFru.h"
#include "libplatform/KvPsBmc.h"
#include "libplatform/KvPsSensor.h"
#include "libplatform/KvPsSmbios.h"

namespace {

constexpr char kRasSource[] = "kvdatafactory/KvDataFactoryFunc";

constexpr unsigned long kVersionWhereNoneIsGiven = 0x300;
constexpr uint32_t kReasonMask = 0xFFFF;
constexpr uint32_t kTerminating = 0xB10D;

// ---- Sections

/// One text under analysis.
struct Analysis {
    std::string_view text;
    KvDfTables& tables;
    unsigned long version = 0;

    char* Begin(std::string_view section) const { return const_cast<char*>(section.data()); }
    const char* Limit() const { return text.data() + text.size(); }
};

using SectionReader = uint32_t (*)(Analysis& analysis, char* section);

template <KvEnumMap KvDfTables::*Map>
uint32_t ReadEnumMap(Analysis& analysis, char* section, const char* tag) {
    return KvDf_CreateEnumMap(section, analysis.Limit(), tag, &(analysis.tables.*Map));
}

template <unsigned long Id>
uint32_t ReadInventory(Analysis& analysis, char* section) {
    return KvIf_CreateInstance(section, Id, analysis.Limit());
}

struct Section {
    const char* tag;
    const char* reader;  // as the log names it
    SectionReader read;
};

// In the order in which they are read: names before the lists that use them.
constexpr Section kSections[] = {
    {"[EnumSensorType]", "KvDf_CreateEnumMap",
     [](Analysis& a, char* s) { return ReadEnumMap<&KvDfTables::mapSnsType>(a, s, "SENSORTYPE("); }},
    {"[EnumSensorId]", "KvDf_CreateEnumMap",
     [](Analysis& a, char* s) { return ReadEnumMap<&KvDfTables::mapSnsId>(a, s, "SENSORID("); }},
    {"[EnumEntityId]", "KvDf_CreateEnumMap",
     [](Analysis& a, char* s) { return ReadEnumMap<&KvDfTables::mapEntityId>(a, s, "ENTITYID("); }},
    {"[Sensor]", "KvDf_CreateSensorTypeList",
     [](Analysis& a, char* s) { return KvDf_CreateSensorTypeList(s, a.Limit(), "SENSOR(", &a.tables.listSensorType); }},
    {"[EnumStructureType]", "KvDf_CreateEnumMap",
     [](Analysis& a, char* s) { return ReadEnumMap<&KvDfTables::mapStructType>(a, s, "STRUCTTYPE("); }},
    {"[EnumOffset]", "KvDf_CreateEnumMap",
     [](Analysis& a, char* s) { return ReadEnumMap<&KvDfTables::mapOffset>(a, s, "OFFSET("); }},
    {"[EnumSmbiosId]", "KvDf_CreateEnumMap",
     [](Analysis& a, char* s) { return ReadEnumMap<&KvDfTables::mapSmbiosId>(a, s, "SMBIOSID("); }},
    {"[Smbios]", "KvDf_CreateSmbiosList",
     [](Analysis& a, char* s) { return KvDf_CreateSmbiosList(s, a.Limit(), "SMBIOS(", &a.tables.listSmbios); }},
};

// Read only where the text holds the first of them.
constexpr Section kInventorySections[] = {
    {"[BodyTemp]", "KvIf_CreateInstance", ReadInventory<kInventoryBodyTemp>},
    {"[BodyFan]", "KvIf_CreateInstance", ReadInventory<kInventoryBodyFan>},
    {"[PowerUnit]", "KvIf_CreateInstance", ReadInventory<kInventoryPowerUnit>},
    {"[Voltage]", "KvIf_CreateInstance", ReadInventory<kInventoryVoltage>},
    {"[Cpu]", "KvIf_CreateInstance", ReadInventory<kInventoryCpu>},
    {"[CpuBoard]", "KvIf_CreateInstance", ReadInventory<kInventoryCpuBoard>},
    {"[Memory]", "KvIf_CreateInstance", ReadInventory<kInventoryMemory>},
};

void ReadSection(Analysis& analysis, const Section& section) {
    const std::string_view found = definition::FindSection(analysis.text, section.tag);
    if (found.data() == nullptr) return;
    const uint32_t rc = section.read(analysis, analysis.Begin(found));
    if (rc != 0) RAS_FAILED(rc, section.reader);
}

void ReadVersion(Analysis& analysis) {
    analysis.version = kVersionWhereNoneIsGiven;
    const std::string_view found = definition::FindSection(analysis.text, "[Version]");
    if (found.data() == nullptr) return;
    KvDf_CreateVersion(analysis.Begin(found), analysis.Limit(), "VERSION(", &analysis.version);
}

// ---- Files

/// Reads one kind of file into the tables that are being filled.
/// @return false when it is there but cannot be read now
bool LoadFile(unsigned long kind) {
    char* text = nullptr;
    unsigned long length = 0;
    const uint32_t rc = KvDfCreateFileData(&text, &length, kind);
    const int error = errno;
    const std::unique_ptr<char[]> owner(text);
    if (rc != 0) {
        RAS_FAILED(rc, "KvDfCreateFileData");
        return error == ENOENT;
    }
    if (const uint32_t analyzed = KvDfAnalyzeFileData(text, length)) RAS_FAILED(analyzed, "KvDfAnalyzeFileData");
    return true;
}

/// Fills all tables from the files, and what these do not define from the hardware. Others see the old tables until the
/// new ones are whole.
/// @return whether no file kept something back
bool LoadDefinitions() {
    bool complete = true;
    KvDfFilling tables;
    try {
        for (const unsigned long kind : {kSensorMap, kInventoryMap, kAlertMap})
            complete = LoadFile(kind) && complete;
        for (const unsigned long id : {kInventoryBodyTemp, kInventoryBodyFan, kInventoryPowerUnit, kInventoryVoltage,
                                       kInventoryCpu, kInventoryMemory})
            KvIf_CreateInstance(id);
    } catch (const std::bad_alloc&) {
        RAS_FAILED(PXR_ReportError(MakeResult(fn::kNone, Reason::OutOfMemory)), "LoadDefinitions");
    }
    tables.Publish();
    return complete;
}

// A file that is there but could not be read is tried again when its tables are used, at most once a minute.
constexpr uint32_t kRetryMs = 60'000;
std::mutex g_loadMutex;  // guards the two below
bool g_mustRetry = false;
TimeLimit g_nextTry{};

void Load() {
    g_mustRetry = !LoadDefinitions();
    MakeLimitTime(&g_nextTry, kRetryMs);
}

void RetryDefinitions() {
    const std::unique_lock lock(g_loadMutex, std::try_to_lock);
    if (lock.owns_lock() && g_mustRetry && LimitPassed(g_nextTry)) Load();
}

}  // namespace

uint32_t KvDfAnalyzeFileData(char* text, unsigned long length) {
    constexpr uint32_t kNoText = MakeResult(fn::kAnalyzeFileData, Reason::NullArgument);
    static_assert(kNoText == 0x63F54201);
    if (text == nullptr || length == 0) return PXR_ReportError(kNoText);
    const auto tables = g_tables.Get();
    Analysis analysis{{text, length}, *tables};
    ReadVersion(analysis);
    for (const Section& section : kSections)
        ReadSection(analysis, section);
    if (analysis.text.find(kInventorySections[0].tag) != std::string_view::npos) {
        for (const Section& section : kInventorySections)
            ReadSection(analysis, section);
    }
    return 0;
}

uint32_t KvDfInitialize() {
    KvDfSetLocale();
    if (const uint32_t rc = KvPsInitializeSmbios()) RAS_FAILED(rc, "KvPsIitializeSmbios");
    KvPsSetKvDf_GetFruInventoryDataFunc(KvDf_GetFruInventoryData);
    if (const uint32_t rc = KvPsInitializeIpmi()) {
        if ((rc & kReasonMask) == kTerminating) {
            RAS_INFO("Process terminated.");
            return rc;
        }
        RAS_FAILED(rc, "KvPsInitializeIpmi");
    }
    {
        const std::lock_guard lock(g_loadMutex);
        Load();
    }
    SetDefinitionsRetry(RetryDefinitions);
    RestoreMemoryBookkeeping();
    return 0;
}

uint32_t KvDfTerminate() {
    KvIfDeleteOldMemory();
    StoreCountedErrors();
    KvPsTerminateIpmi();
    return KvPsTerminateSmbios();
}
