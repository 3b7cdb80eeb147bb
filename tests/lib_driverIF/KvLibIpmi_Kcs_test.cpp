// The KCS driver against the BMC's side of the registers, one fault at each step.

#include <cmath>
#include <functional>

#include "tests/support/RegisterPath.h"

namespace kcs = sim::kcs;

namespace {

class KcsTest : public RegisterPathTest, public testing::WithParamInterface<bool> {
protected:
    KcsTest() {
        UseKcs();
        server.Kcs().SetTakesAtOnce(GetParam());
    }
    ~KcsTest() override { EXPECT_EQ(0U, server.Kcs().Violations()); }

    unsigned Aborts() { return server.PortWrites(kKcsStatus, kcs::kAbort); }
    /// Changes the n-th status byte read from now on (1: the next).
    void ChangeStatus(unsigned n, uint8_t clear, uint8_t set) {
        server.OnPortRead(kKcsStatus, [=, count = 0U](uint8_t good) mutable {
            return ++count == n ? static_cast<uint8_t>((good & ~clear) | set) : good;
        });
    }
    /// Does something when the driver begins an abort.
    void OnAbort(const std::function<void()>& action) {
        server.OnPortWrite(kKcsStatus, [=](uint8_t value) {
            if (value == kcs::kAbort) action();
            return std::optional(value);
        });
    }
};

INSTANTIATE_TEST_SUITE_P(Controllers, KcsTest, testing::Bool(),
                         [](const auto& mode) { return mode.param ? "ThatTakesAtOnce" : "ThatKeepsTheLastByte"; });

TEST_P(KcsTest, CarriesAMessage) {
    server.Kcs().SetDummyBytes(true);
    AnswerWith(0x01, 12);
    ASSERT_EQ(0, Write());
    EXPECT_EQ(0, status);
    status = 0xEE;
    ASSERT_EQ(0, Read(5));
    EXPECT_EQ(0, status);
    EXPECT_EQ((Bytes{0x1C, 0x01, 0, 1, 2}), Head(5));
    EXPECT_EQ(14U, length) << "counts on behind the caller's room";
    EXPECT_EQ((Bytes{0xAA, 0xBB}), server.GetBmc().Log().back().data);
    EXPECT_EQ(0U, Aborts());
    EXPECT_EQ(0U, server.RaisedThreads()) << "I/O privilege left raised";
}

TEST_P(KcsTest, BytesLeftInTheRegisterAreTakenForNothing) {
    server.Kcs().SetDummyBytes(true);
    ASSERT_EQ(0, Write());
    ASSERT_EQ(kKcsDone, KCSWaitStatusReg(kcs::kObf, kcs::kObf, &status)) << "an answer that nobody fetches";
    ASSERT_EQ(0, Write());
    EXPECT_EQ(0, Read());
    EXPECT_EQ((Bytes{0x1C, 0x01, 0x00, 0x20}), Head(4));
}

TEST_P(KcsTest, RefusesImpossibleLengths) {
    Bytes bytes(kIpmiMaxMessage + 1);
    for (const uint32_t bad : {0U, 1U, kIpmiMaxMessage + 1})
        EXPECT_EQ(-14, ipmi_kcs_Write(bytes.data(), bad, &status)) << bad;
    EXPECT_EQ(-14, ipmi_kcs_Write(nullptr, 2, &status));
    for (uint32_t bad : {0U, kIpmiMaxMessage + 1})
        EXPECT_EQ(-14, ipmi_kcs_Read(bytes.data(), &bad, &status)) << bad;
    EXPECT_EQ(-14, ipmi_kcs_Read(nullptr, nullptr, &status));
    EXPECT_EQ(0U, server.PortReads(kKcsStatus));
    EXPECT_EQ(0, Write(Bytes(kIpmiMaxMessage, 0x18)));
}

TEST_P(KcsTest, WriteRecoversFromOneStateErrorAtAnyByte) {
    // WRITE_START, three bytes and WRITE_END; what follows shows in the read.
    for (unsigned n = 1; n <= 5; ++n) {
        const unsigned before = Aborts();
        server.Kcs().FailAtByte(n);
        EXPECT_EQ(0, Write()) << n;
        EXPECT_EQ(before + 1, Aborts()) << n;
        EXPECT_EQ(0, Read()) << n;
    }
}

TEST_P(KcsTest, WriteSpendsThreeStateErrorsOrThreeTimeouts) {
    // The abort succeeds: one each. It fails too: two each.
    server.OnPortRead(kKcsStatus, [aborting = false, this](uint8_t good) mutable {
        aborting =
            server.PortWrites(kKcsStatus, kcs::kAbort) * 2 > server.PortWrites(kKcsStatus, kcs::kWriteStart) * 2 - 1;
        return aborting ? good : static_cast<uint8_t>(good | kcs::kError);
    });
    EXPECT_EQ(-14, Write());
    EXPECT_EQ(3U, Aborts());
    server.OnPortRead(kKcsStatus, {});

    server.Kcs().FailEveryByte(1);
    EXPECT_EQ(-14, Write());
    EXPECT_EQ(3U + 2U, Aborts());
    server.Kcs().FailEveryByte(0);

    const uint64_t before = SleptMs();
    server.Kcs().SetHung(true);
    EXPECT_EQ(-16, Write());
    EXPECT_EQ(3U * 10000, SleptMs() - before);
    EXPECT_EQ(3U + 2U, Aborts());
}

TEST_P(KcsTest, OneTimeoutAtAnyByteStartsTheWriteAgain) {
    for (unsigned n = 1; n <= 4; ++n) {
        // The BMC misses the n-th byte, for one time limit.
        unsigned polls = 0;
        server.OnPortRead(kKcsStatus, [&, bytes = 0U](uint8_t good) mutable {
            if ((good & kcs::kIbf) != 0) ++bytes;
            return bytes == n && polls < 10000 ? (++polls, static_cast<uint8_t>(good | kcs::kIbf)) : good;
        });
        EXPECT_EQ(0, Write()) << n;
        EXPECT_EQ(10000U, polls);
        server.OnPortRead(kKcsStatus, {});
        EXPECT_EQ(0, Read()) << n;
    }
}

TEST_P(KcsTest, UnavailableBmcEndsTheTransferAtOnce) {
    ASSERT_EQ(0, Write());
    const unsigned inWrite = server.PortReads(kKcsStatus);
    ASSERT_EQ(0, Read());
    const unsigned inRead = server.PortReads(kKcsStatus) - inWrite;
    for (unsigned n = 1; n <= inWrite; ++n) {
        ChangeStatus(n, 0, kcs::kNotAvailable);
        const unsigned before = server.PortReads(kKcsStatus);
        EXPECT_EQ(-6, Write()) << n;
        EXPECT_EQ(before + n, server.PortReads(kKcsStatus)) << n;
    }
    // From the last wait on it is the dummy byte that does not come.
    for (unsigned n = 1; n <= inRead; ++n) {
        server.OnPortRead(kKcsStatus, {});
        ASSERT_EQ(0, Write());
        ChangeStatus(n, 0, kcs::kNotAvailable);
        EXPECT_EQ(n == inRead ? -14 : -6, Read()) << n;
    }
}

TEST_P(KcsTest, AbortOutcomesEndTheWrite) {
    server.Kcs().FailAtByte(2);
    OnAbort([this] { server.Kcs().SetHung(true); });
    EXPECT_EQ(-16, Write());  // one in the abort, two more
    EXPECT_EQ(3, std::lround(static_cast<double>(SleptMs()) / 10000));
    server.Kcs().SetHung(false);

    server.Kcs().FailAtByte(2);
    OnAbort([this] { server.Kcs().SetNotAvailable(true); });
    EXPECT_EQ(-6, Write());
    server.Kcs().SetNotAvailable(false);

    server.Kcs().FailAtByte(2);
    OnAbort([this] { server.Kcs().FailAtByte(1); });
    EXPECT_EQ(0, Write());  // two state errors spent, the third pass is good
}

TEST_P(KcsTest, EveryWaitEndsWhenTheRegisterPathIsStopped) {
    for (const uint8_t stuck : Bytes{kcs::kIbf, kcs::kIbf | kcs::kObf}) {
        for (unsigned n = 1; n <= 60; ++n) {
            server.Kcs().Reset();
            server.Kcs().FailAtByte(n % 2 == 0 ? 3 : 0);  // every other time in an abort
            server.OnPortRead(kKcsStatus, [=, this, count = 0U](uint8_t good) mutable {
                if (++count == n) StopIn(std::chrono::milliseconds(500));
                return g_ipmiStopping ? stuck : good;
            });
            const uint64_t before = SleptMs();
            Write();
            Read();
            EXPECT_GE(1000U, SleptMs() - before) << n;
            g_ipmiStopping = false;
        }
    }
}

TEST_P(KcsTest, ReadTakes1028BytesAndNoMore) {
    AnswerWith(0x01, kIpmiMaxMessage - 2);
    ASSERT_EQ(0, Write());
    EXPECT_EQ(0, Read());
    EXPECT_EQ(kIpmiMaxMessage, length);
    EXPECT_EQ(0U, Aborts());

    AnswerWith(0x01, kIpmiMaxMessage - 1);
    ASSERT_EQ(0, Write());
    EXPECT_EQ(-14, Read());
    EXPECT_EQ(kIpmiMaxMessage, length);
    EXPECT_EQ(1U, Aborts());
    EXPECT_EQ(kcs::kIdle, server.Kcs().State());
}

TEST_P(KcsTest, ReadGoesOnAfterATimeout) {
    for (const unsigned timeouts : {3U, 2U}) {
        AnswerWith(0x01, 4);
        ASSERT_EQ(0, Write());
        // No byte to read for so many time limits, after the first.
        server.OnPortRead(kKcsStatus, [=, looks = 0U, polls = 0U](uint8_t good) mutable {
            const bool late =
                (good & kcs::kObf) != 0 && ++looks > 3 && polls < timeouts * 10001;  // one look at IBF in each pass
            if (late) ++polls;
            return late ? static_cast<uint8_t>(good & ~kcs::kObf) : good;
        });
        EXPECT_EQ(timeouts < 3 ? 0 : -16, Read());
        server.OnPortRead(kKcsStatus, {});
    }
    EXPECT_EQ((Bytes{0x1C, 0x01, 0, 1, 2, 3}), Head(6));
}

TEST_P(KcsTest, ReadAllowsNoStateErrorNorAMissingDummyByte) {
    server.Kcs().FailAtByte(7);  // six for the request
    ASSERT_EQ(0, Write());
    EXPECT_EQ(-14, Read());
    EXPECT_EQ(1U, Aborts());

    ASSERT_EQ(0, Write());
    server.OnPortRead(kKcsStatus, [](uint8_t good) {
        return (good & 0xC0) == kcs::kIdle ? static_cast<uint8_t>(good & ~kcs::kObf) : good;
    });
    EXPECT_EQ(-16, Read());
}

TEST_P(KcsTest, GetStatusMapsTheAbortsResult) {
    EXPECT_EQ(-14, ipmi_kcs_GetStatus(nullptr));
    EXPECT_EQ(0, ipmi_kcs_GetStatus(&status));
    server.Kcs().FailAtByte(1);
    EXPECT_EQ(-14, ipmi_kcs_GetStatus(&status)) << "state error";
    server.Kcs().SetHung(true);
    EXPECT_EQ(-16, ipmi_kcs_GetStatus(&status));
    server.Kcs().SetNotAvailable(true);
    EXPECT_EQ(-6, ipmi_kcs_GetStatus(&status));
}

TEST_P(KcsTest, AbortFetchesTheErrorCode) {
    server.OnPortWrite(kKcsStatus, [](uint8_t) { return std::optional<uint8_t>(0x7F); });  // no such control code
    ipmi_ioreg_write(kKcsStatus, 0x61);
    KCSWaitStatusReg(0, kcs::kIbf, &status);
    server.OnPortWrite(kKcsStatus, {});
    uint8_t code = 0;
    EXPECT_EQ(kKcsDone, KCSAbortAndGetStatusCode(&code));
    EXPECT_EQ(kcs::kIllegalControl, code);
}

TEST_P(KcsTest, PrimitivesAndTheirArguments) {
    EXPECT_EQ(kKcsBadArgument, KCSWaitStatusReg(0x01, 0x02, &status));
    EXPECT_EQ(kKcsBadArgument, KCSWaitStatusReg(0x01, 0x01, nullptr));
    EXPECT_EQ(kKcsBadArgument, KCSAbortAndGetStatusCode(nullptr));
    EXPECT_EQ(0U, server.PortReads(kKcsStatus));

    EXPECT_EQ(kKcsTimeout, KCSWaitStatusReg(kcs::kObf, kcs::kObf, &status));
    EXPECT_EQ(10000U, server.PortReads(kKcsStatus));
    EXPECT_EQ(10000U, SleptMs());
    EXPECT_EQ(1, KCSGetStatusReg(kcs::kIdle, 0xC0, &status));
    EXPECT_EQ(0, KCSGetStatusReg(kcs::kRead, 0xC0, &status));

    server.OnPortRead(kKcsStatus, [](uint8_t) { return kcs::kObf; });
    EXPECT_EQ(kKcsTimeout, KCSClearObf(&status));
    EXPECT_EQ(1U, server.PortReads(kKcsData)) << "drained once, then waited";
}

TEST_P(KcsTest, Attention) {
    EXPECT_EQ(0, ipmi_kcs_SMSBitCheck(1));
    EXPECT_EQ(kKcsTimeout, ipmi_kcs_SMSBitCheck(2));
    server.GetBmc().QueueMessage({1, 2, 3}, std::chrono::milliseconds(50));
    const uint64_t before = clock.Now();
    EXPECT_EQ(kKcsDone, ipmi_kcs_SMSBitCheck(2));
    EXPECT_EQ(50U, (clock.Now() - before) / 1000);
    EXPECT_EQ(1, ipmi_kcs_SMSBitCheck(1));
    server.Kcs().SetNotAvailable(true);
    EXPECT_EQ(kKcsNotAvailable, ipmi_kcs_SMSBitCheck(2));
}

TEST_P(KcsTest, RefusedPrivilegeTouchesNoPort) {
    server.DenyIoPrivilege(true);
    EXPECT_EQ(-5, ipmi_ioreg_write(kKcsData, 1));
    EXPECT_EQ(0, ipmi_ioreg_read(kKcsStatus));
    EXPECT_EQ(-14, Write());
    EXPECT_EQ(0U, server.PortReads(kKcsStatus) + server.PortWrites(kKcsStatus) + server.PrivilegeViolations());
}

}  // namespace
