// The SMIC driver against the BMC's side of the registers.

#include "tests/support/RegisterPath.h"

namespace smic = sim::smic;

namespace {

class SmicTest : public RegisterPathTest {
protected:
    SmicTest() { ipmi_set_function_SMIC(); }

    /// The status register reads as code, from the n-th time on.
    void ForceStatusCode(uint8_t code, unsigned n = 1) {
        server.OnPortRead(kSmicControl, [=, count = 0U](uint8_t good) mutable { return ++count >= n ? code : good; });
    }
};

TEST_F(SmicTest, CarriesAMessage) {
    AnswerWith(0x01, 12);
    ASSERT_EQ(0, Write());
    EXPECT_EQ(0, status);
    status = 0xEE;
    ASSERT_EQ(0, Read(5));
    EXPECT_EQ(0, status);
    EXPECT_EQ(14U, length) << "counts on behind the caller's room";
    EXPECT_EQ((Bytes{0x1C, 0x01, 0, 1, 2}), Head(5));
    EXPECT_EQ((Bytes{0xAA, 0xBB}), server.GetBmc().Log().back().data);
    EXPECT_EQ(0U, server.Smic().Violations());
    EXPECT_EQ(14U + 2U, server.PortReads(kSmicData)) << "the byte behind each transfer is taken out too";
    // The flags other than BUSY are written back as they were read.
    EXPECT_LT(0U, server.PortWrites(kSmicFlags, smic::kTxDataReady | smic::kBusy));
    EXPECT_LT(0U, server.PortWrites(kSmicFlags, smic::kRxDataReady | smic::kBusy));
}

TEST_F(SmicTest, ShortRequestIsABadLength) {
    EXPECT_EQ(0, Write({0x18}));
    EXPECT_EQ(4, status);
    EXPECT_EQ(0U, server.PortReads(kSmicFlags));
    EXPECT_EQ(0, Write({0x18, 0x01})) << "no middle byte";
    EXPECT_EQ(0, status);
}

TEST_F(SmicTest, WriteTriesAgainAfterAFailureAtAnyByte) {
    for (unsigned n = 1; n <= 4; ++n) {
        const uint64_t before = SleptMs();
        server.Smic().FailAtControl(n);
        EXPECT_EQ(0, Write()) << n;
        EXPECT_EQ(0, status) << n;
        EXPECT_LE(before + 100, SleptMs()) << n;
        EXPECT_EQ(0, Read()) << n;
    }
}

TEST_F(SmicTest, WriteGivesUpWithAStatusAfterItsAttempts) {
    ipmi_param[kParamSmicWriteAttempts] = 5;
    ForceStatusCode(smic::kStatusReady);
    EXPECT_EQ(0, Write());
    EXPECT_NE(0, status);
    EXPECT_EQ(5U, server.PortWrites(kSmicControl, smic::kWriteStart));
    EXPECT_EQ(0U, server.PortWrites(kSmicControl, smic::kWriteNext));
    EXPECT_EQ(1U, server.PortWrites(kSmicControl, smic::kGetStatus));
    ipmi_param[kParamSmicWriteAttempts] = 3;
}

TEST_F(SmicTest, FlagWaitEndsAtItsLimitOrWithASignal) {
    server.Smic().SetHung(true);
    EXPECT_EQ(-16, Write());
    // WR_START finds the chip free and hands it the byte; then it looks at once and every 10 ms up to the limit.
    EXPECT_EQ(1U + 1U + 401U, server.PortReads(kSmicFlags));
    EXPECT_EQ(4000U, SleptMs());
    clock.InterruptSleeps(1);
    EXPECT_EQ(-14, Write());
}

TEST_F(SmicTest, EveryWaitEndsWhenTheRegisterPathIsStopped) {
    for (unsigned n = 1; n <= 60; ++n) {
        server.Smic().Reset();
        server.OnPortRead(kSmicFlags, [=, this, count = 0U](uint8_t good) mutable {
            if (++count == n) StopIn(std::chrono::milliseconds(500));
            return g_ipmiStopping ? smic::kBusy : good;
        });
        const uint64_t before = SleptMs();
        Write();
        Read();
        EXPECT_GE(1000U, SleptMs() - before) << n;
        g_ipmiStopping = false;
    }
}

TEST_F(SmicTest, BytesWaitForTransmitReady) {
    server.Smic().SetTransmitBlocked(true);
    EXPECT_EQ(-16, Write());
    EXPECT_EQ(1U, server.PortWrites(kSmicControl)) << "WR_START does not wait for it, the next byte does";
}

TEST_F(SmicTest, ReadFailsAtAnyByteWithTheChipsStatus) {
    AnswerWith(0x01, 4);
    // RD_START, five RD_NEXT: all but the RD_END, which has nothing more to carry.
    for (unsigned n = 1; n <= 6; ++n) {
        ASSERT_EQ(0, Write());
        server.Smic().FailAtControl(n);
        EXPECT_EQ(0, Read()) << n;
        EXPECT_EQ(smic::kAborted, status) << n;
    }
}

TEST_F(SmicTest, EndlessResponseEnds) {
    ASSERT_EQ(0, Write());
    ForceStatusCode(smic::kReadNext + smic::kStatusOf, 2);
    server.OnPortRead(kSmicFlags, [](uint8_t) { return smic::kRxDataReady; });
    EXPECT_EQ(0, Read());
    EXPECT_NE(0, status);
    EXPECT_EQ(kIpmiMaxMessage - 1, server.PortWrites(kSmicControl, smic::kReadNext));
}

TEST_F(SmicTest, SilentBmcTimesTheReadOut) {
    server.GetBmc().Silence(sim::netfn::kApp, 0x01);
    ASSERT_EQ(0, Write());
    const uint64_t before = SleptMs();
    EXPECT_EQ(-16, Read());
    EXPECT_EQ(before + 4000, SleptMs());
}

TEST_F(SmicTest, Attention) {
    EXPECT_EQ(0, ipmi_smic_smsflag(1));
    EXPECT_EQ(-16, ipmi_smic_smsflag(2));
    server.GetBmc().QueueMessage({1, 2, 3}, std::chrono::milliseconds(50));
    EXPECT_EQ(0, ipmi_smic_smsflag(2));
    EXPECT_EQ(1, ipmi_smic_smsflag(1));
    EXPECT_EQ(0, ipmi_smic_IsREAD_STATE());
}

}  // namespace
