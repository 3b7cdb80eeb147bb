/// The contract of the kernel's IPMI device, where programs are usually wrong about it.

#include <gmock/gmock.h>
#include <linux/ipmi.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "simulator/KernelIpmiDevice.h"
#include "simulator/VirtualClock.h"

namespace sim {
namespace {

using testing::ElementsAre;

struct Received {
    int result = -1;
    int error = 0;
    int type = 0;
    long id = 0;
    Bytes data;
};

class KernelDeviceTest : public testing::Test {
protected:
    void SetUp() override {
        device.Open(5);
        device.Open(6);
    }
    /// @return 0 or errno
    int Send(int fd, long id, uint8_t netFn, uint8_t command, Bytes data = {}) {
        address.addr_type = IPMI_SYSTEM_INTERFACE_ADDR_TYPE;
        address.channel = channel;
        ipmi_req request{reinterpret_cast<unsigned char*>(&address),
                         sizeof(address),
                         id,
                         {netFn, command, static_cast<unsigned short>(data.size()), data.data()}};
        return device.Ioctl(fd, kIpmiSendCommand, &request) == 0 ? 0 : errno;
    }
    Received Receive(int fd, unsigned short capacity = 200, unsigned addressLength = sizeof(ipmi_addr),
                     unsigned long how = kIpmiReceiveTrunc) {
        ipmi_addr from{};
        Bytes buffer(capacity);
        ipmi_recv receive{
            0, reinterpret_cast<unsigned char*>(&from), addressLength, 0, {0, 0, capacity, buffer.data()}};
        Received got;
        errno = 0;
        got.result = device.Ioctl(fd, how, &receive);
        got.error = errno;
        got.type = receive.recv_type;
        got.id = receive.msgid;
        got.data.assign(buffer.begin(), buffer.begin() + std::min(receive.msg.data_len, capacity));
        return got;
    }

    VirtualClock clock;
    Bmc bmc{clock};
    KernelIpmiDevice device{clock, bmc};
    ipmi_system_interface_addr address{};
    short channel = IPMI_BMC_CHANNEL;
};

TEST_F(KernelDeviceTest, TruncationDeliversAndRemovesWhatItReports) {
    Send(5, 1, netfn::kApp, 0x01);
    EXPECT_EQ(EMSGSIZE, Receive(5, 3, sizeof(ipmi_addr), kIpmiReceive).error);
    EXPECT_EQ(EAGAIN, Receive(6).error) << "each opening has its own queue";
    const Received got = Receive(5, 3);  // without truncation the message stays
    EXPECT_EQ(EMSGSIZE, got.error);
    EXPECT_THAT(got.data, ElementsAre(0, 0x20, 0x01));
    EXPECT_EQ(1, got.id);
    EXPECT_EQ(EAGAIN, Receive(5).error);
}

TEST_F(KernelDeviceTest, RefusesWhatTheDriverRefuses) {
    Send(5, 1, netfn::kApp, 0x01);
    EXPECT_EQ(EINVAL, Receive(5, 200, 7).error) << "no room for the address";
    EXPECT_EQ(0, Receive(5, 200, 8).result) << "but the message was kept";
    EXPECT_EQ(EINVAL, Send(5, 1, netfn::kApp, 0x34)) << "Send Message is the driver's own";
    EXPECT_EQ(EINVAL, Send(5, 1, netfn::kApp | 1, 0x01)) << "a response";
    EXPECT_EQ(EMSGSIZE, Send(5, 1, netfn::kOem, 0x00, Bytes(271)));
    EXPECT_EQ(EBADF, Send(9, 1, netfn::kApp, 0x01));
    channel = 1;
    EXPECT_EQ(EINVAL, Send(5, 1, netfn::kApp, 0x01));
}

TEST_F(KernelDeviceTest, LateAnswersAndOtherMessagesWaitInOrder) {
    bmc.Delay(netfn::kApp, 0x01, std::chrono::milliseconds(700));
    Send(5, 1, netfn::kApp, 0x01);
    EXPECT_EQ(0, device.WaitReadable(5, 600));
    device.PutBeforeNextAnswer({2, 0, 0x07, 0x35, Bytes(16, 0xEE)});
    Send(5, 2, netfn::kStorage, 0x40);
    EXPECT_EQ(1, device.WaitReadable(5, 100));
    EXPECT_EQ(2, Receive(5).type);
    EXPECT_EQ(2, Receive(5).id);
    EXPECT_EQ(1, device.WaitReadable(5, 5000));
    EXPECT_EQ(1, Receive(5).id) << "the answer nobody waits for any more";
    EXPECT_EQ(1'000'700'000U, clock.Now()) << "the wait ended when it came";
}

TEST_F(KernelDeviceTest, ServesOneCommandAfterTheOtherWhenTheyTakeTime) {
    device.SetServiceTime(std::chrono::milliseconds(100));
    bmc.Silence(netfn::kApp, 0x01);
    Send(6, 1, netfn::kApp, 0x01);  // takes its time although nothing comes of it
    device.Close(6);
    Send(5, 2, netfn::kApp, 0x01);
    EXPECT_EQ(1, device.WaitReadable(5, 1000));
    EXPECT_EQ(1'000'200'000U, clock.Now());
    EXPECT_EQ(2, Receive(5).id);
}

TEST_F(KernelDeviceTest, EventsGoToWhoAskedForThem) {
    device.DeliverEvent({1});
    EXPECT_EQ(EAGAIN, Receive(5).error);
    int yes = 1;
    ASSERT_EQ(0, device.Ioctl(6, kIpmiSetGetsEvents, &yes));
    EXPECT_EQ(2, Receive(6).type) << "kept for the first one who asks";
    device.DeliverEvent({2});
    EXPECT_EQ(0U, device.Queued(5));
    EXPECT_EQ(16U, Receive(6).data.size());
}

TEST(ConversationMarker, SeesOverlapsOfThreadsAndProcesses) {
    const auto marker = ConversationMarker::MakeShared();
    VirtualClock clock;
    Bmc bmc(clock);
    KernelIpmiDevice device(clock, bmc);
    device.SetMarker(marker.get());
    const auto inChild = [&](bool close) {
        const pid_t child = fork();
        if (child == 0) {
            device.Open(9);
            if (close) device.Close(9);
            _exit(0);
        }
        waitpid(child, nullptr, 0);
    };
    inChild(true);
    inChild(false);  // dies as the holder
    device.Open(5);
    EXPECT_EQ(0U, marker->Overlaps());
    inChild(true);
    EXPECT_EQ(1U, marker->Overlaps());
    int yes = 1;
    std::thread([&] { device.Ioctl(5, kIpmiSetGetsEvents, &yes); }).join();
    EXPECT_EQ(2U, marker->Overlaps()) << "another thread in the middle of this one's conversation";
    EXPECT_EQ(4U, marker->Conversations());
}

}  // namespace
}  // namespace sim
