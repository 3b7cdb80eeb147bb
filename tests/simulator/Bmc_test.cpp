/// Message level: bridging, reservations, partial reads, the logs of what was asked.

#include <gmock/gmock.h>

#include "simulator/Bmc.h"
#include "simulator/VirtualClock.h"

namespace sim {
namespace {

using testing::ElementsAre;

class BmcTest : public testing::Test {
protected:
    Response Ask(uint8_t netFn, uint8_t command, const Bytes& data = {}) {
        return bmc.Execute({netFn, 0, command, data});
    }
    /// Send Message to a controller: App, Get Device ID, sequence 5.
    Bytes Frame(uint8_t target) {
        Bytes frame{target, 0x18};
        frame.push_back(Checksum(frame));
        Bytes body{0x20, 5 << 2 | 2, 0x01};
        body.push_back(Checksum(body));
        frame.insert(frame.end(), body.begin(), body.end());
        frame.insert(frame.begin(), 0);  // channel
        return frame;
    }

    VirtualClock clock;
    Bmc bmc{clock};
};

TEST_F(BmcTest, BridgesToAnotherController) {
    bmc.AddController(0x52).Identity()->id = 0x77;
    EXPECT_EQ(0, Ask(netfn::kApp, 0x34, Frame(0x52)).completionCode);
    EXPECT_TRUE(bmc.SmsAttention());
    const Response got = Ask(netfn::kApp, 0x33);
    ASSERT_EQ(19U, got.data.size());
    EXPECT_THAT(Bytes(got.data.begin(), got.data.begin() + 8),
                ElementsAre(0, 0x1E, 0xC2, 0x52, 5 << 2, 0x01, 0x00, 0x77));
    EXPECT_EQ(0, Checksum(got.data.data() + 3, got.data.size() - 3)) << "the second checksum";
    EXPECT_EQ(0, static_cast<uint8_t>(0x20 + got.data[1] + got.data[2])) << "the first, with the requester's address";
    EXPECT_FALSE(bmc.SmsAttention());
}

TEST_F(BmcTest, BusFaults) {
    Controller& other = bmc.AddController(0x52);
    Bytes damaged = Frame(0x52);
    damaged.back() ^= 1;
    EXPECT_EQ(0, Ask(netfn::kApp, 0x34, damaged).completionCode);
    EXPECT_FALSE(bmc.SmsAttention()) << "a damaged frame is dropped by its target";
    EXPECT_EQ(0U, other.Count());
    other.Delay(netfn::kApp, 0x01, std::chrono::milliseconds(40));
    Ask(netfn::kApp, 0x34, Frame(0x52));
    EXPECT_EQ(0x80, Ask(netfn::kApp, 0x33).completionCode);
    clock.Advance(40'000);
    EXPECT_TRUE(bmc.SmsAttention());
    bmc.OnBusAnswer([](Bytes& message) { message[3] = 63 << 2; });
    bmc.SetQueueCapacity(2);
    for (int i = 0; i < 3; ++i)
        Ask(netfn::kApp, 0x34, Frame(0x52));
    EXPECT_EQ(5 << 2, Ask(netfn::kApp, 0x33).data[4]);
    EXPECT_EQ(63 << 2, Ask(netfn::kApp, 0x33).data[4]);
    EXPECT_EQ(0x80, Ask(netfn::kApp, 0x33).completionCode) << "the queue held two";
}

TEST_F(BmcTest, SdrReadsByPiecesUnderAReservation) {
    FullRecord record;
    record.name = "Inlet Temp";
    bmc.Sdr()->Add(record.Encode());
    const auto get = [&](uint8_t reservation, uint8_t offset, uint8_t count) {
        return Ask(netfn::kStorage, 0x23, {reservation, 0, 1, 0, offset, count});
    };
    EXPECT_THAT(get(0, 0, 5).data, ElementsAre(0xFF, 0xFF, 1, 0, 0x51, 0x01, 53));
    EXPECT_EQ(cc::kReservationCancelled, get(0, 5, 16).completionCode);
    const uint8_t reservation = Ask(netfn::kStorage, 0x22).data[0];
    EXPECT_THAT(get(reservation, 57, 16).data, ElementsAre(0xFF, 0xFF, 'p')) << "the record ends there";
    EXPECT_EQ(cc::kOutOfRange, get(reservation, 58, 1).completionCode);
    bmc.Sdr()->SetLargestPiece(16);
    EXPECT_EQ(cc::kTooManyBytes, get(reservation, 0, 0xFF).completionCode);
    Ask(netfn::kStorage, 0x22);
    EXPECT_EQ(cc::kReservationCancelled, get(reservation, 5, 16).completionCode);
}

TEST_F(BmcTest, SelChangesNeedAReservationOfTheirOwn) {
    bmc.Sel()->SetErasePolls(1);
    for (uint8_t number = 1; number <= 3; ++number)
        bmc.Sel()->Add(SystemEvent(0x01, number, 0x01, {0x57, 90, 85}));
    const auto ask = [&](uint8_t command, Bytes data) { return Ask(netfn::kStorage, command, data); };
    EXPECT_EQ(cc::kReservationCancelled, ask(0x47, {9, 0, 'C', 'L', 'R', 0xAA}).completionCode);
    const uint8_t reservation = ask(0x42, {}).data[0];
    EXPECT_THAT(ask(0x46, {reservation, 0, 2, 0}).data, ElementsAre(2, 0));
    EXPECT_EQ(cc::kReservationCancelled, ask(0x46, {reservation, 0, 3, 0}).completionCode) << "gone with the deletion";
    const uint8_t again = ask(0x42, {}).data[0];
    EXPECT_THAT(ask(0x47, {again, 0, 'C', 'L', 'R', 0xAA}).data, ElementsAre(0));
    EXPECT_THAT(ask(0x47, {again, 0, 'C', 'L', 'R', 0x00}).data, ElementsAre(1));
    EXPECT_EQ(1, bmc.Sel()->Add(SystemEvent(0x01, 1, 0x01, {}))) << "ids start again";
    EXPECT_EQ(cc::kInvalidCommand, Ask(0x2C, 0x01).completionCode);
}

}  // namespace
}  // namespace sim
