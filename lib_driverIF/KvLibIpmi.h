#pragma once
/// @file
/// The register path to the management controller (BMC): start, end and the two watchdog locks. ipmi_ioctl.h has its
/// entry. From the top: start and entry (KvLibIpmi.cpp), bridging over the IPMB (_Ipmb, _IpmbQueue), one message at a time
/// (_Message), the choice of the interface (_Select), the interfaces (_Kcs, _Smic), the registers (_Registers), what
/// they share (_State). Each calls what is below it.

#include <cstdint>

#include "libplatform/ipmi_ioctl.h"

/// Starts the register path: chooses the interface, starts the timer thread. No register is touched. A call while it is
/// up gives 0. @return 0; -5 register address out of reach; -14 no lock or no thread; -38 interface not served
int Init_IpmiIF();

/// Stops it: new calls are refused, the timer thread ends, requesters of bridged messages give up with -110, callers
/// waiting for their turn with -1, and a transfer under way has half a second to come to its end. Returns when the last
/// caller has left. Init_IpmiIF may follow.
void Terminate_IpmiIF();
bool IsIpmiIFUp();

/// Makes one of the two named locks, "WDOG REQUEST" and "WDOG RECEIVE". @return 0; -14 no such name, or it exists
int ipmi_create_lock(const char* name);
void ipmi_release_lock(const char* name);

extern uint8_t WatchDogRequest;     ///< guarded by the lock "WDOG REQUEST"
extern uint8_t WatchDogReqReceive;  ///< guarded by the lock "WDOG RECEIVE"
