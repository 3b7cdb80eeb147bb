#include <gmock/gmock.h>

#include <array>
#include <optional>
#include <thread>
#include <tuple>

#include "libplatform/KvPsBmc.h"
#include "tests/support/Eventually.h"
#include "tests/support/SimulatedMachine.h"

namespace {

using testing::ElementsAre;

constexpr uint8_t kApp = sim::netfn::kApp;

using Watchdog = SimulatedMachine;

TEST_F(Watchdog, IsSetAndStarted) {
    Run([this] {
        EXPECT_EQ(0x603DB280U, KvPsResetWatchdogTimerIpmi()) << "not set yet";
        using Case = std::tuple<uint8_t, uint16_t, std::array<uint8_t, 6>>;
        for (const auto& [action, count, settings] :
             {Case{0x01, 600, {0x04, 0x01, 0, 0x10, 0x58, 0x02}}, Case{0x83, 0xFFFF, {0x05, 0x03, 0, 0x10, 0xFF, 0xFF}},
              Case{0x7F, 1, {0x04, 0x07, 0, 0x10, 1, 0}}}) {
            EXPECT_EQ(0U, KvPsSetWatchdogTimerIpmi(action, count));
            EXPECT_EQ(settings, Bmc().Watchdog()->settings);
        }
        EXPECT_EQ(0U, KvPsResetWatchdogTimerIpmi());
        EXPECT_EQ(1U, Bmc().Watchdog()->resets);
    });
}

TEST_F(Watchdog, SaysThatItWaits) {
    Run([] {
        std::optional<ktx_ipmi::IpmiBracket> bracket(std::in_place);
        std::thread waiting([] { KvPsSetWatchdogTimerIpmi(1, 10); });
        EXPECT_TRUE(Eventually(ktx_ipmi::IsIPMIPriorityCtrl));
        bracket.reset();
        waiting.join();
        EXPECT_FALSE(ktx_ipmi::IsIPMIPriorityCtrl());
    });
}

TEST_F(Watchdog, IsServedInsideAnOpenConversation) {
    Run([this] {
        const ktx_ipmi::IpmiBracket bracket;
        ASSERT_TRUE(bracket);
        EXPECT_EQ(0U, KvPsSetWatchdogTimerIpmi(1, 10));
        EXPECT_EQ(0U, KvPsResetWatchdogTimerIpmi());
        EXPECT_EQ(1U, server.Opens("/dev/ipmi0"));
    });
}

TEST_F(Watchdog, FailuresHaveTheirNumbers) {
    Run([this] {
        Bmc().Refuse(kApp, 0x24, 0xC1);
        EXPECT_EQ(0x603EB2C1U, KvPsSetWatchdogTimerIpmi(1, 10));
        EXPECT_EQ(0U, KvPsSetWatchdogTimerIpmi(1, 10)) << "nothing is left locked";
        Bmc().Silence(kApp, 0x22, 1000);
        EXPECT_EQ(0x603DB101U, KvPsResetWatchdogTimerIpmi());
        ktx_ipmi::TerminateIpmiLib();
        EXPECT_EQ(0x604DB104U, KvPsSetWatchdogTimerIpmi(1, 10));
    });
}

TEST_F(Watchdog, TheTwoFlagsAreKeptApart) {
    Run([] {
        const auto flags = [] {
            std::array<uint8_t, 2> values{9, 9};
            EXPECT_EQ(0U, KvPsGetWatchDogStatusIpmi(&values[0]));
            EXPECT_EQ(0U, KvPsGetWatchDogReceiveIpmi(&values[1]));
            return values;
        };
        uint8_t one = 1;
        uint8_t zero = 0;
        EXPECT_THAT(flags(), ElementsAre(0, 0));
        EXPECT_EQ(0U, KvPsSetWatchDogStatusIpmi(&one));
        EXPECT_THAT(flags(), ElementsAre(1, 0));
        EXPECT_EQ(0U, KvPsSetWatchDogReceiveIpmi(&one));
        EXPECT_EQ(0U, KvPsSetWatchDogStatusIpmi(&zero));
        EXPECT_THAT(flags(), ElementsAre(0, 1));
        ktx_ipmi::TerminateIpmiLib();
        EXPECT_EQ(0x6000B10BU, KvPsSetWatchDogReceiveIpmi(&one));
    });
}

}  // namespace
