/// The BMC's side of KCS and SMIC, tried with the register sequences of the IPMI standard written out.

#include <gtest/gtest.h>

#include <tuple>
#include <utility>

#include "simulator/KcsRegisters.h"
#include "simulator/SmicRegisters.h"
#include "simulator/VirtualClock.h"

namespace sim {
namespace {

const Bytes kGetDeviceId{0x18, 0x01};

/// A driver that does everything right, one step at a time.
class KcsTest : public testing::Test {
protected:
    uint8_t Settled() {
        uint8_t status = 0;
        for (int i = 0; i < 10; ++i)
            if (((status = kcs.Read(kcs::kStatus)) & kcs::kIbf) == 0) break;
        if ((status & 0xC0) == kcs::kWrite && (status & kcs::kObf) != 0) kcs.Read(kcs::kData);  // a dummy byte
        return status;
    }
    uint8_t State() { return Settled() & 0xC0; }
    uint8_t Command(uint8_t code) {
        kcs.Write(kcs::kStatus, code);
        return State();
    }
    uint8_t Data(uint8_t value) {
        kcs.Write(kcs::kData, value);
        return State();
    }
    void Send(const Bytes& request) {
        ASSERT_EQ(kcs::kWrite, Command(kcs::kWriteStart));
        for (size_t i = 0; i + 1 < request.size(); ++i)
            ASSERT_EQ(kcs::kWrite, Data(request[i]));
        ASSERT_EQ(kcs::kWrite, Command(kcs::kWriteEnd));
        kcs.Write(kcs::kData, request.back());
    }
    Bytes Receive() {
        Bytes answer;
        while (State() == kcs::kRead && answer.size() < 2000) {
            EXPECT_TRUE(kcs.Read(kcs::kStatus) & kcs::kObf);
            answer.push_back(kcs.Read(kcs::kData));
            EXPECT_FALSE(kcs.Read(kcs::kStatus) & kcs::kObf);
            kcs.Write(kcs::kData, kcs::kReadByte);
        }
        return answer;
    }
    uint8_t AbortCode() {
        Command(kcs::kAbort);
        EXPECT_EQ(kcs::kRead, Data(0));
        const uint8_t code = kcs.Read(kcs::kData);
        EXPECT_EQ(kcs::kIdle, Data(kcs::kReadByte));
        EXPECT_TRUE(kcs.Read(kcs::kStatus) & kcs::kObf);
        kcs.Read(kcs::kData);
        return code;
    }

    VirtualClock clock;
    Bmc bmc{clock};
    KcsRegisters kcs{clock, bmc};
};

TEST_F(KcsTest, CarriesARequestAndItsAnswer) {
    for (const bool dummies : {false, true}) {
        kcs.SetDummyBytes(dummies);
        Send(kGetDeviceId);
        const Bytes answer = Receive();
        ASSERT_EQ(14U, answer.size());
        EXPECT_EQ((Bytes{0x1C, 0x01, 0x00, 0x20}), Bytes(answer.begin(), answer.begin() + 4));
        EXPECT_EQ(kcs::kIdle, State());
        EXPECT_TRUE(kcs.Read(kcs::kStatus) & kcs::kObf) << "the dummy byte behind the transfer";
        kcs.Read(kcs::kData);
    }
    EXPECT_EQ(0U, kcs.Violations());
}

TEST_F(KcsTest, AnswerIsThereWhenItIsDue) {
    for (const bool takesAtOnce : {false, true}) {
        kcs.SetTakesAtOnce(takesAtOnce);
        bmc.Delay(netfn::kApp, 0x01, std::chrono::milliseconds(30));
        Send(kGetDeviceId);
        Settled();
        clock.Advance(29'999);
        EXPECT_EQ(takesAtOnce ? kcs::kRead : kcs::kWrite | kcs::kIbf, Settled());
        clock.Advance(1);
        EXPECT_EQ(kcs::kRead, State());
        EXPECT_EQ(14U, Receive().size());
        kcs.Read(kcs::kData);
    }
}

TEST_F(KcsTest, AbortFetchesTheReason) {
    constexpr auto kControl = kcs::kStatus;
    constexpr auto kData = kcs::kData;
    using Writes = std::vector<std::pair<unsigned, uint8_t>>;  // register and value
    using Case = std::tuple<const char*, Writes, uint8_t>;
    for (const auto& [what, writes, code] : {
             Case{"nothing wrong", {}, kcs::kNoError},
             Case{"transfer under way", {{kControl, kcs::kWriteStart}}, kcs::kAborted},
             Case{"unknown control code", {{kControl, 0x55}}, kcs::kIllegalControl},
             Case{"end without start", {{kControl, kcs::kWriteEnd}}, kcs::kIllegalControl},
             Case{"data without start", {{kData, 1}}, kcs::kIllegalControl},
             Case{"one byte alone",
                  {{kControl, kcs::kWriteStart}, {kControl, kcs::kWriteEnd}, {kData, 0x18}},
                  kcs::kLengthError},
             Case{"wrong control code while reading",
                  {{kControl, kcs::kWriteStart}, {kData, 0x18}, {kControl, kcs::kWriteEnd}, {kData, 1}, {kData, 0x69}},
                  kcs::kIllegalControl},
         }) {
        SCOPED_TRACE(what);
        uint8_t state = kcs::kError;
        for (const auto& [reg, value] : writes) {
            kcs.Write(reg, value);
            state = State();
        }
        EXPECT_EQ(code == kcs::kAborted ? kcs::kWrite : kcs::kError, state);
        EXPECT_EQ(code, AbortCode());
        Send(kGetDeviceId);
        EXPECT_EQ(14U, Receive().size());
    }
    kcs.FailAtByte(3);
    Command(kcs::kWriteStart);
    EXPECT_EQ(kcs::kWrite, Data(0x18));
    EXPECT_EQ(kcs::kError, Command(kcs::kWriteEnd));
    EXPECT_EQ(kcs::kUnspecified, AbortCode());
}

TEST_F(KcsTest, FindsOutADriverThatDoesNotWait) {
    kcs.Write(kcs::kStatus, kcs::kWriteStart);
    kcs.Write(kcs::kData, 0x18);  // IBF is still set
    EXPECT_EQ(kcs::kError, State());
    EXPECT_EQ(1U, kcs.Violations());

    kcs.SetDummyBytes(true);
    kcs.Write(kcs::kStatus, kcs::kWriteStart);
    for (int i = 0; i < 2; ++i)
        kcs.Read(kcs::kStatus);  // the dummy byte is not taken
    Data(0x18);
    EXPECT_EQ(2U, kcs.Violations());
}

class SmicTest : public testing::Test {
protected:
    uint8_t Step(uint8_t control) {
        smic.Write(smic::kControl, control);
        smic.Write(smic::kFlags, smic.Read(smic::kFlags) | smic::kBusy);
        while ((smic.Read(smic::kFlags) & smic::kBusy) != 0) {
        }
        return smic.Read(smic::kControl);
    }
    uint8_t Step(uint8_t control, uint8_t data) {
        smic.Write(smic::kData, data);
        return Step(control);
    }

    VirtualClock clock;
    Bmc bmc{clock};
    SmicRegisters smic{clock, bmc};
};

TEST_F(SmicTest, CarriesARequestAndItsAnswer) {
    EXPECT_EQ(0xC1, Step(smic::kWriteStart, 0x10));  // Sensor/Event
    EXPECT_EQ(0xC2, Step(smic::kWriteNext, 0x2D));   // Get Sensor Reading
    bmc.Sensors()->At(7).reading = 0x42;
    EXPECT_EQ(0xC3, Step(smic::kWriteEnd, 7));
    EXPECT_EQ(0, smic.Read(smic::kData));
    Bytes answer;
    for (const int expected : {0xC4, 0xC5, 0xC5, 0xC5, 0xC5, 0xC5, 0xC6}) {
        EXPECT_TRUE(smic.Read(smic::kFlags) & smic::kRxDataReady);
        EXPECT_EQ(expected, Step(answer.empty() ? smic::kReadStart : smic::kReadNext));
        answer.push_back(smic.Read(smic::kData));
    }
    EXPECT_EQ((Bytes{0x14, 0x2D, 0x00, 0x42, 0xC0, 0x00, 0x80}), answer);
    EXPECT_EQ(0xC0, Step(smic::kReadEnd));
    EXPECT_FALSE(smic.Read(smic::kFlags) & smic::kRxDataReady);
    EXPECT_EQ(0U, smic.Violations());
}

TEST_F(SmicTest, GetStatusTellsWhyATransferBroke) {
    EXPECT_EQ(0xC0, Step(smic::kWriteNext, 1)) << "next without start";
    EXPECT_EQ(0xC0, Step(smic::kGetStatus));
    EXPECT_EQ(smic::kIllegalControl, smic.Read(smic::kData));
    EXPECT_EQ(0xC0, Step(smic::kReadStart)) << "nothing to read";
    EXPECT_EQ(smic::kNoResponse, smic.Read(smic::kData));
    smic.Write(smic::kControl, smic::kWriteStart);
    smic.Write(smic::kFlags, smic::kBusy);
    smic.Write(smic::kData, 0x18);  // while BUSY
    EXPECT_EQ(1U, smic.Violations());
}

}  // namespace
}  // namespace sim
