#include "libplatform/KvPsBmc.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <tuple>
#include <utility>

#include "lib_driverIF/KvLibIpmi.h"
#include "lib_driverIF/KvLibIpmi_State.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_Bmc.h"
#include "libplatform/KvPsSensor.h"
#include "libplatform/PXR_syscall.h"
#include "tests/support/SimulatedMachine.h"

namespace {

using sim::Bytes;
using testing::Each;
using testing::ElementsAre;

constexpr uint8_t kApp = sim::netfn::kApp;
constexpr uint8_t kOem = sim::netfn::kOem;
constexpr uint8_t kTransport = sim::netfn::kTransport;

class BmcServices : public SimulatedMachine {
protected:
    /// A name that the controller announces with its count, whatever it sends.
    void AnswerName(uint8_t command, uint8_t count, const std::string& text) {
        server.OnCommand(kOem, command, [=](const sim::Request&, const auto&) {
            sim::Response response;
            response.data.push_back(count);
            response.data.insert(response.data.end(), text.begin(), text.end());
            return response;
        });
    }
};

TEST_F(BmcServices, TheAddressIsThatOfTheFirstIpmiDevice) {
    const auto expectAddress = [this](uint8_t expected) {
        Run([expected] {
            uint8_t address = 0;
            EXPECT_EQ(0U, KvPsGetBmcAdr(&address));
            EXPECT_EQ(expected, address);
        });
    };
    expectAddress(0x20);
    smbios.Add(sim::SmbiosIpmiDevice{.slaveAddress = 0x24});
    smbios.Add(sim::SmbiosIpmiDevice{.slaveAddress = 0x26});
    expectAddress(0x24);
    smbios = {};
    smbios.Add(sim::SmbiosIpmiDevice{.slaveAddress = 0});  // not told
    expectAddress(0x20);
    smbios = {};
    smbios.Add(sim::SmbiosStructure(38, 38 << 8, 6));  // ends before the address
    expectAddress(0x20);
}

/// @return the processor's name, which is always to be had
std::string ProcessorName() {
    char name[KVPS_PROCESSOR_NAME_SIZE + 1];
    memset(name, '#', sizeof name);
    EXPECT_EQ(0U, KvPsGetProcessorName(name));
    EXPECT_EQ('#', name[KVPS_PROCESSOR_NAME_SIZE]);
    return name;
}

TEST_F(BmcServices, NamesAreGivenWhole) {
    Run([this] {
        Bmc().Oem()->processorName = std::string(47, 'x');
        EXPECT_EQ(std::string(47, 'x'), ProcessorName());
        char product[KVPS_PRODUCT_NAME_SIZE];
        for (const size_t length : {71U, 0U}) {
            Bmc().Oem()->productName = std::string(length, 'y');
            EXPECT_EQ(0U, KvPsGetProductName(product));
            EXPECT_EQ(std::string(length, 'y'), product);
        }
    });
}

TEST_F(BmcServices, NamesThatAreRefusedOrTooLongAreUnknown) {
    Run([this] {
        AnswerName(0x26, 48, std::string(48, 'x'));
        EXPECT_EQ("Unknown", ProcessorName());
        AnswerName(0x26, 255, "short");
        EXPECT_EQ("Unknown", ProcessorName());
        AnswerName(0x26, 40, "claims more");
        EXPECT_EQ("claims more", ProcessorName());
        AnswerName(0x26, 3, "Xeo and more");
        EXPECT_EQ("Xeo", ProcessorName());
        Bmc().Refuse(kOem, 0x26, 0xC1);
        unlink("/opt/velmora/lantrel/lib/nls/C/KvAgent.cat");
        EXPECT_EQ("Unknown", ProcessorName()) << "without a catalogue too";
    });
    setenv("LANG", "ja_JP.UTF-8", 1);
    Run([this] {
        Bmc().Refuse(kOem, 0x26, 0xC1);
        EXPECT_EQ("\x95\x73\x96\xbe", ProcessorName()) << "Japanese, however the host spells it";
    });
    unsetenv("LANG");
}

TEST_F(BmcServices, NameFailuresHaveTheirNumbers) {
    Run([this] {
        char name[KVPS_PRODUCT_NAME_SIZE] = "before";
        Bmc().Silence(kOem, 0x24, 1000);
        EXPECT_EQ(0x6000B107U, KvPsGetProductName(name));
        EXPECT_STREQ("", name);
        SetTerminateProcess();
        EXPECT_EQ(0x6000B10DU, KvPsGetProductName(name));
        EXPECT_EQ(0x6000B10DU, KvPsGetProcessorName(name));
    });
}

TEST_F(BmcServices, TheLanParameterComesFromTheFirstLanChannel) {
    Run([this] {
        Bytes buffer(8, 0xEE);
        EXPECT_EQ(0U, KvPsGetLanConfiguration(buffer.data(), 8, 3));
        EXPECT_EQ((Bytes{192, 0, 2, 20, 0, 0, 0, 0}), buffer);
        buffer.assign(8, 0xEE);
        EXPECT_EQ(0U, KvPsGetLanConfiguration(buffer.data(), 4, 5));
        EXPECT_EQ((Bytes{0x02, 0x00, 0x5E, 0x10, 0xEE, 0xEE, 0xEE, 0xEE}), buffer) << "cut to the buffer";

        auto& channels = Bmc().Lan()->channels;
        channels[7] = channels[1];
        channels[13] = channels[1];
        channels[1].medium = 5;
        channels[7].lanParameters[3] = {10, 0, 0, 1};
        EXPECT_EQ(0U, KvPsGetLanConfiguration(buffer.data(), 4, 3));
        EXPECT_EQ(10, buffer[0]) << "whichever it is";
    });
}

TEST_F(BmcServices, ALanParameterThatIsNotThere) {
    Run([this] {
        Bytes buffer(2000, 0xEE);
        EXPECT_EQ(0x63FCB11CU, KvPsGetLanConfiguration(buffer.data(), 2000, 99)) << "no such parameter";
        EXPECT_THAT(buffer, Each(0));
        server.OnCommand(kTransport, 0x02, [](const sim::Request&, const auto&) { return sim::Response{}; });
        EXPECT_EQ(0x63FCB11CU, KvPsGetLanConfiguration(buffer.data(), 8, 3)) << "not even a revision byte";
        server.OnCommand(kTransport, 0x02, {});
        Bmc().Lan()->channels.erase(1);
        Bmc().ResetCounts();
        EXPECT_EQ(0x63FCB11CU, KvPsGetLanConfiguration(buffer.data(), 8, 3));
        EXPECT_EQ(16U, Bmc().Count(kApp, 0x42));
        Bmc().Silence(kApp, 0x42, 10000);
        Bmc().ResetCounts();
        EXPECT_EQ(0x63FCB11CU, KvPsGetLanConfiguration(buffer.data(), 8, 3));
        EXPECT_EQ(51U, Bmc().Count(kApp, 0x42)) << "a silent controller is not asked for each channel";
    });
}

TEST_F(BmcServices, DimmStates) {
    Run([this] {
        using Case = std::tuple<Bytes, uint8_t, uint32_t>;
        constexpr uint32_t kUnchanged = 77;
        for (const auto& [answer, mask, expected] :
             {Case{{0xFE, 0xFF, 0xFF, 0xFF, 0xFF}, 0x01, 2}, Case{{0x01, 0xFE, 0xFF, 0xFF, 0xFF}, 0x01, 0},
              Case{{0x01, 0x03, 0x03, 0x03, 0x03}, 0x03, 4}, Case{{0x01, 0x01, 0x03, 0x01, 0x03}, 0x03, 8},
              Case{{0x01, 0x02, 0x00, 0x00, 0x03}, 0x03, 7}, Case{{0x01, 0x02, 0x00, 0x00, 0x01}, 0x03, kUnchanged}}) {
            Bmc().Oem()->dimmStates[3] = answer;
            uint32_t state = kUnchanged;
            EXPECT_TRUE(KvPsGetDIMMStateHWIntel(12, 3, mask, &state));
            EXPECT_EQ(expected, state);
        }
        uint32_t state = kUnchanged;
        EXPECT_FALSE(KvPsGetDIMMStateHWIntel(12, 4, 1, &state)) << "no such board";
        Bmc().Oem()->dimmStates[3].resize(4);
        EXPECT_FALSE(KvPsGetDIMMStateHWIntel(12, 3, 1, &state)) << "answer too short";
        EXPECT_EQ(kUnchanged, state);
    });
}

TEST_F(BmcServices, SvpCommandsGoOutWithTheirCount) {
    Run([this] {
        uint8_t command[] = {3, 0xA1, 0xA2, 0xA3, 0xFF};
        EXPECT_EQ(0U, KvPsSendSVPCommandIpmi(command));
        EXPECT_EQ((Bytes{3, 0xA1, 0xA2, 0xA3}), Bmc().Oem()->lastSvpCommand);
        Bmc().Oem()->acceptsSvp = false;
        EXPECT_EQ(0x6000B107U, KvPsSendSVPCommandIpmi(command));
    });
}

TEST_F(BmcServices, CapacityOnDemand) {
    Bmc().Sdr()->Add(sim::FullRecord{{.owner = 0x20, .number = 1, .name = "CoD"}}.Encode());
    Run([this] {
        KVPS_COD_BLADE_INFO info = {9, 9, 9, 9, 9};
        EXPECT_EQ(0U, KvPsGetCoDBladeInfo(&info));
        EXPECT_EQ(0U, info.deviceRevision + info.supported);
        ktx_ipmi::SetCoDBladeInfo({0x20, 1, 2, 3, 0, 0, {}, {}}, true);
        EXPECT_EQ(0U, KvPsGetCoDBladeInfo(&info));
        EXPECT_THAT((Bytes{info.deviceRevision, info.firmwareRevision1, info.firmwareRevision2}), ElementsAre(1, 2, 3));
        EXPECT_EQ(1U, info.supported);

        uint8_t record[4] = {9, 9, 9, 9};
        EXPECT_EQ(0x6000B109U, KvPsOEMGetCodData(0x21, 0, 1, record));
        EXPECT_EQ(0x6000B10AU, KvPsOEMGetCodData(0x20, 4, 1, record));
        EXPECT_EQ(0x6000B106U, KvPsOEMGetCodData(0x20, 0, 255, record));
        EXPECT_EQ(0x6000B106U, KvPsOEMGetCodData(0x20, 0, 1, record)) << "no sensors are loaded";
        ASSERT_EQ(0U, KvPsInitializeIpmi());
        const std::pair<Bytes, uint32_t> answers[] = {
            {{1, 2, 3, 4}, 0}, {{1, 2, 3}, 0x6000B100}, {{1, 2, 3, 4, 5}, 0}, {{}, 0x6000B133}};
        for (const auto& [answer, result] : answers) {
            Bmc().Oem()->capacity[1] = answer;
            if (answer.empty()) Bmc().Refuse(kOem, 0x23, sim::cc::kNotPresent);
            EXPECT_EQ(result, KvPsOEMGetCodData(0x20, 0, 1, record));
            EXPECT_EQ(result == 0 ? (std::array<uint8_t, 4>{1, 2, 3, 4}) : (std::array<uint8_t, 4>{}),
                      std::to_array(record));
        }
        SetTerminateProcess();
        EXPECT_EQ(0x6000B10DU, KvPsOEMGetCodData(0x21, 0, 1, record));
        EXPECT_THAT(record, Each(0));
    });
}

TEST_F(BmcServices, TheRegisterPathIsSet) {
    Run([this] {
        EXPECT_EQ(0U, KvPsIPMISetIOPortAddress(0xCC0));
        EXPECT_EQ(0xCC0, IPMI_REG_BASE);
        EXPECT_EQ(0x6000B10BU, KvPsIPMISetIOPortAddress(0x10000));
        EXPECT_EQ(0U, KvPsIPMISetIOMemoryAddress(0xFED00000));
        EXPECT_EQ(0xFED00000U, g_pMMapSegmentAddress);

        const uint32_t before = ipmi_param[kParamSmicFlagLimit];
        EXPECT_EQ(0U, KvPsSetIPMIInterfaceSMIC());
        EXPECT_EQ(kIfTypeSmic, IPMI_IFTYPE);
        EXPECT_EQ(0xCA9, IPMI_REG_BASE);
        EXPECT_EQ(before, ipmi_param[kParamSmicFlagLimit]) << "the other parameters stay";
    });
    Run([] {
        const ktx_ipmi::IpmiBracket bracket;
        Terminate_IpmiIF();
        EXPECT_EQ(0x605DB10BU, KvPsSetIPMIInterfaceSMIC());
        EXPECT_EQ(0x6000B10BU, KvPsIPMISetIOMemoryAddress(0));
    });
}

}  // namespace
