// What the files of the register path share.

#include "lib_driverIF/KvLibIpmi_State.h"

#include <cerrno>

#include "cover/TimerCover.h"

//                                                              flag  poll  wr  pause msg pause ipmb
std::array<std::atomic<uint32_t>, kParamCount> ipmi_param = {4000, 10, 3, 100, 3, 100, 1100};
const std::array<uint32_t, kParamCount> ipmi_prmin = {4000, 10, 1, 10, 1, 10, 100};
const std::array<uint32_t, kParamCount> ipmi_prmax = {16000, 1000, 10, 1000, 10, 1000, 5000};

std::atomic<bool> g_ipmiStopping = false;
std::atomic<uint64_t> g_ipmiGiveUpAt = 0;
std::atomic<bool> g_ipmbAttentionUnwanted = false;

std::atomic<uint8_t> IPMI_IFTYPE = kIfTypeSmic;
std::atomic<uint8_t> IPMI_SLAVE_ADDR = 0x20;
std::atomic<uint8_t> IPMI_NREGS = 3;
std::atomic<uint16_t> IPMI_REG_BASE = 0;
std::atomic<uint16_t> IPMI_REG_DATA = 0;
std::atomic<uint16_t> IPMI_REG_STATUS = 0;
std::atomic<uint16_t> IPMI_REG_CONTROL = 0;
std::atomic<uint32_t> g_pMMapSegmentAddress = 0;

// Bound to something from the start, so that no call meets a null.
std::atomic<IpmiWriteOperation> IPMI_WRITE{[](uint8_t*, uint32_t, uint8_t*) { return -EPERM; }};
std::atomic<IpmiReadOperation> IPMI_READ{[](uint8_t*, uint32_t*, uint8_t*) { return -EPERM; }};
std::atomic<IpmiStatusOperation> IPMI_STATUS{[](uint8_t*) { return -EPERM; }};
std::atomic<IpmiAttentionOperation> IPMI_SMSFLAG{[](int) { return -EPERM; }};
std::atomic<IpmiReadStateOperation> IPMI_ISREAD_STATE{[] { return 0; }};
std::atomic<RegisterWriteOperation> REG_WRITE{[](uint16_t, uint8_t) { return -EPERM; }};
std::atomic<RegisterReadOperation> REG_READ{[](uint16_t) { return uint8_t{0}; }};

bool ipmi_is_given_up() {
    return g_ipmiStopping && Clock().Now() >= g_ipmiGiveUpAt;
}
