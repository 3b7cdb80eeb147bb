#pragma once
/// @file
/// One message on the system interface, one at a time (KvLibIpmi_Message.cpp).

#include "lib_driverIF/KvLibIpmi_State.h"

/// The calling thread's turn on the interface, one at a time per process.
class IpmiTurn {
public:
    IpmiTurn();  ///< waits; Terminate_IpmiIF ends the wait without a turn
    ~IpmiTurn();
    IpmiTurn(const IpmiTurn&) = delete;
    IpmiTurn& operator=(const IpmiTurn&) = delete;
    explicit operator bool() const { return taken_; }

private:
    bool taken_ = false;
};

/// Executes one message on the system interface.
/// @param buffer          kIpmiMaxMessage bytes: the request, then the response
/// @param responseLength  in: bytes to store at most, on KCS one at least; out: bytes received, which may be more
/// @param status          the interface's code, 0 good
int ipmi_message(uint8_t* buffer, uint32_t length, uint32_t* responseLength, uint8_t* status);

int ipmi_init_conditions();
void ipmi_destroy_conditions();
/// Ends the waits for a turn.
void ipmi_wake_conditions();
/// After a fork: whoever had the turn is not here.
void ipmi_forget_conditions();
