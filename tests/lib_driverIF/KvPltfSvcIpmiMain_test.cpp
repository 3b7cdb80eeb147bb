// What all service functions have in common: a missing argument, and a BMC that cannot be reached.

#include "lib_driverIF/KvPltfSvcIpmiMain_SdrTable.h"

#include <gmock/gmock.h>

#include "cover/Heap.h"
#include "lib_driverIF/KvPltfSvcIpmiSelDb.h"
#include "libplatform/KvPsBmc.h"
#include "libplatform/KvPsDevice.h"
#include "libplatform/KvPsSmbios.h"
#include "libplatform/PXR_message.h"
#include "tests/support/SimulatedMachine.h"
#include "tests/support/Tracing.h"

namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::StartsWith;

struct Row {
    const char* text;
    uint32_t code;
    uint32_t (*call)();
};
// A call, and the code that it gives and reports.
#define ROW(code, ...)                                                        \
    Row {                                                                     \
#__VA_ARGS__, code, [] { return static_cast<uint32_t>(__VA_ARGS__); } \
    }

unsigned long count;
uint8_t bytes[80];
uint16_t word;
uint32_t dword;
char buffer[80];
SDR* records;
SDR record;
KVPS_SENSOR_DATA reading;
KVPS_SEL_ENTRY entry;
KVPS_SEL_ENTRY* entries;
KVPS_SEL_INFO selInfo;
KVPS_DEVICE_ID deviceId;
KVPS_SMBIOS_TPHEAD** structures;
KVPS_SMBIOS_TPHEAD structure;

class Services : public SimulatedMachine {
protected:
    /// Expects the code of a row, and that it is reported once. @return what the call traces
    static std::vector<std::string> Expect(const Row& row, Tracing& tracing) {
        SCOPED_TRACE(row.text);
        const auto lines = tracing.LinesOf([&] { EXPECT_EQ(row.code, row.call()) << std::hex << row.code; });
        const OwnedText printed(PXR_GetErrCodeString(row.code));
        EXPECT_THAT(lines, Contains(StartsWith(std::string("1000 0 1 ") + printed.get() + " ")).Times(1));
        return lines;
    }
};

TEST_F(Services, SayThatAnArgumentIsMissing) {
    const Row kRows[] = {
        ROW(0x60004201, KvPsGetAllSdrData(nullptr, &records)),
        ROW(0x60004201, KvPsGetAllSdrData(&count, nullptr)),
        ROW(0x60004201, KvPsGetSdrData(3, 1, nullptr, nullptr)),
        ROW(0x60004201, KvPsGetSensorData(0x20, 0, 5, nullptr)),
        ROW(0x60004201, KvPsGetSensorDataList(nullptr, 1, &reading, &dword)),
        ROW(0x60004201, KvPsGetSensorDataList(&record, 1, nullptr, &dword)),
        ROW(0x60004201, KvPsGetSensorDataList(&record, 1, &reading, nullptr)),
        ROW(0x605B4201, KvPsGetSensorConvert(0x20, 0, 5, 0, nullptr)),
        ROW(0x60004201, KvPsGetSensorIdString(0x20, 4, 254, nullptr)),
        ROW(0x60004201, KvPsGetEntityId(0x20, 4, 254, nullptr)),
        ROW(0x60004201, KvPsGetEntityInstance(0x20, 4, 254, nullptr)),
        ROW(0x6000B10B, KvPsGetWatchDogStatusIpmi(nullptr)),
        ROW(0x6000B10B, KvPsSetWatchDogStatusIpmi(nullptr)),
        ROW(0x6000B10B, KvPsGetWatchDogReceiveIpmi(nullptr)),
        ROW(0x6000B10B, KvPsSetWatchDogReceiveIpmi(nullptr)),
        ROW(0x60004201, KvPsGetBmcAdr(nullptr)),
        ROW(0x604C4201, KvPsSendSVPCommandIpmi(nullptr)),
        ROW(0x60004201, KvPsGetProcessorName(nullptr)),
        ROW(0x60004201, KvPsGetProductName(nullptr)),
        ROW(0x63FC4202, KvPsGetLanConfiguration(nullptr, 8, 3)),
        ROW(0x63FC4202, KvPsGetLanConfiguration(bytes, 0, 3)),
        ROW(0x63FF4201, KvPsGetDIMMStateHWIntel(12, 3, 1, nullptr) ? 0 : 0x63FF4201U),
        ROW(0x60004201, KvPsGetCoDBladeInfo(nullptr)),
        ROW(0x60004201, KvPsOEMGetCodData(0x20, 0, 1, nullptr)),
        ROW(0x63F54201, KvPsGetFruInventoryAreaSize(0, nullptr)),
        ROW(0x63F54201, KvPsReadFruInventoryData(0, 0, nullptr, bytes)),
        ROW(0x63F54201, KvPsReadFruInventoryData(0, 0, &word, nullptr)),
        ROW(0x60004201, KvPsGetDeviceId(nullptr)),
        ROW(0x60004201, KvPsGetIpmiInterface(nullptr)),
        ROW(0x60524201, KvPsGetSelAllEntries(nullptr, &entries)),
        ROW(0x60524201, KvPsGetSelAllEntries(&count, nullptr)),
        ROW(0x6000B116, KvPsLockAndReserveSel(0x7B, 0x20, nullptr)),
        ROW(0x6000B116, KvPsLockAndGetSelInfo(0x7B, 0x20, nullptr)),
        ROW(0x6000B116, KvPsLockAndGetSelEntry(0x7B, 0x20, 0, 0, nullptr, &entry, 0)),
        ROW(0x6000B116, KvPsLockAndGetSelEntry(0x7B, 0x20, 0, 0, &word, nullptr, 0)),
        ROW(0x6000B116, KvPsLockAndClearSel(0x7B, 0x20, 0, 0xAA, nullptr)),
        ROW(0x60004201, IsSensorExist(0x20, 0, 1, nullptr)),
        ROW(0x611A4202, KvPsGetTypeData(1, nullptr, &structures)),
        ROW(0x611A4202, KvPsGetTypeData(1, &count, nullptr)),
        ROW(0x60D04202, KvPsGetSystemInformation(5, nullptr)),
        ROW(0x60984201, KvPsGetSmbiosString(nullptr, 4, sizeof buffer, buffer)),
        ROW(0x60984201, KvPsGetSmbiosString(&structure, 4, sizeof buffer, nullptr)),
        ROW(0x60D24202, KvPsGetSmbiosMultiByte(nullptr, 1, 1, bytes)),
        ROW(0x60D24202, KvPsGetSmbiosMultiByte(&structure, 1, 1, nullptr)),
    };
    Run([&] {
        Tracing tracing;
        for (const Row& row : kRows)
            Expect(row, tracing);
        EXPECT_EQ(0U, Bmc().Count()) << "nothing is sent";
    });
}

TEST_F(Services, SayThatTheDriverCannotBeOpened) {
    const Row kRows[] = {
        ROW(0x6050B104, KvPsInitializeIpmi()),
        ROW(0x6054B104, KvPsGetSensorData(0x20, 0, 5, &reading)),
        ROW(0x6054B104, KvPsGetSensorDataList(&record, 1, &reading, &dword)),
        ROW(0x605BB104, KvPsGetSensorConvert(0x20, 0, 5, 0, bytes)),
        ROW(0x604DB104, KvPsSetWatchdogTimerIpmi(1, 10)),
        ROW(0x604EB104, KvPsResetWatchdogTimerIpmi()),
        ROW(0x604CB104, KvPsSendSVPCommandIpmi(bytes)),
        ROW(0x6000B104, KvPsGetProcessorName(buffer)),
        ROW(0x6000B104, KvPsGetProductName(buffer)),
        ROW(0x63FCB104, KvPsGetLanConfiguration(bytes, sizeof bytes, 3)),
        ROW(0x63FFB104, KvPsGetDIMMStateHWIntel(12, 3, 1, &dword) ? 0 : 0x63FFB104U),
        ROW(0x6000B104, KvPsGetFruInventoryAreaSize(0, &word)),
        ROW(0x6000B104, KvPsReadFruInventoryData(0, 0, &word, bytes)),
        ROW(0x605DB104, KvPsSetIPMIInterfaceSMIC()),
        ROW(0x6000B104, KvPsGetDeviceId(&deviceId)),
        ROW(0x6052B104, KvPsGetSelAllEntries(&count, &entries)),
        ROW(0x607BB104, KvPsLockAndReserveSel(0x7B, 0x20, &word)),
        ROW(0x607BB104, KvPsLockAndGetSelInfo(0x7B, 0x20, &selInfo)),
        ROW(0x607BB104, KvPsLockAndGetSelEntry(0x7B, 0x20, 0, 0, &word, &entry, 0)),
        ROW(0x607BB104, KvPsLockAndClearSel(0x7B, 0x20, 0, 0xAA, bytes)),
    };
    Run([&] {
        Tracing tracing;
        for (const Row& row : kRows) {
            FailToOpen();
            const std::string name = row.text;
            const bool ownText = name.starts_with("KvPsGetP");  // the names
            EXPECT_THAT(Expect(row, tracing),
                        Contains(HasSubstr(ownText ? "IPMI Driver Open Error.: "
                                                   : "An attempt to open the IPMI driver failed. ")))
                << name;
            server.FailOpen("/dev/ipmi0", 0, 0);
        }
        EXPECT_EQ(0U, Bmc().Count());
    });
}

}  // namespace
