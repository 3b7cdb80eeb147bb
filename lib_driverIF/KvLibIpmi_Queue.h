#pragma once
/// @file
/// Bridging to controllers on the IPMB: the messages (KvLibIpmi_Ipmb.cpp), the requesters who wait for them and the timer
/// thread that fetches the answers (KvLibIpmi_IpmbQueue.cpp).

#include <condition_variable>
#include <mutex>

#include "lib_driverIF/KvLibIpmi_State.h"

/// Which message under its number a requester takes for the answer. A late answer may carry a number that somebody else
/// has by now; responder and command tell.
struct IpmbExpected {
    uint8_t target;  ///< slave address of the controller that is to answer
    uint8_t command;
    bool anyone = false;  ///< the number alone decides
};

/// A request that waits for its bridged response. The links, sequence and expected belong to the queue's mutex, what
/// arrived to the entry's own, which is taken second.
struct IpmbRequestEntry {
    IpmbRequestEntry* next;
    IpmbRequestEntry* previous;
    std::mutex mutex;
    std::condition_variable arrived;
    uint8_t sequence;   ///< sequence number << 2
    uint32_t received;  ///< length of message; 0 nothing has arrived
    uint8_t message[kIpmiMaxMessage];
    IpmbExpected expected;
};

inline constexpr uint8_t kIpmbNoSequence = 255;

// Guarded by the queue's mutex.
extern IpmbRequestEntry* ipmb_req_queue;     ///< newest first
extern IpmbRequestEntry* ipmb_reqqent_free;  ///< linked by next
extern uint64_t ipmb_seq_flags;              ///< a bit per sequence number in use
extern uint8_t ipmb_seq_reserve_now_seq;     ///< where the next search begins

/// Sends a message to a controller behind the BMC and waits for its answer. Arguments as for ipmi_message.
int ipmb_message(uint8_t target, uint8_t* buffer, uint32_t length, uint32_t* responseLength, uint8_t* status);

/// Wraps a request into a Send Message request.
/// @param sequence  a number << 2
/// @param out       capacity bytes  @param outLength  its length
int ipmb_create_send_message(uint8_t target, uint8_t sequence, const uint8_t* request, uint32_t length, uint8_t* out,
                             uint32_t capacity, uint32_t* outLength);

/// Unwraps the response from a Get Message response.
/// @param length  in: room; out: length of the response, which may exceed it
int ipmb_create_response_data(const uint8_t* message, uint32_t received, uint8_t* out, uint32_t* length);

/// Takes an entry that nobody uses, making three more if there is none. @return null: memory exhausted
IpmbRequestEntry* ipmb_reqq_reserve();
void ipmb_reqq_release(IpmbRequestEntry* entry);
/// Reserves a sequence number and puts the entry under it at the head of the queue, at once: a stray answer in between
/// would free the number again. The timer thread begins to look for the response.
/// @return number << 2; kIpmbNoSequence when all are in use: the entry is not in the queue then
uint8_t ipmb_reqq_push(IpmbRequestEntry* entry, const IpmbExpected& expected);
/// Takes an entry out of the queue, releasing its sequence number unless its response has come, and then the entry.
void ipmb_reqq_cancel(IpmbRequestEntry* entry);
/// Waits for the response under a sequence number (anyone's, when no entry was pushed for it).
/// @param length  in: room; out: bytes received, which may be more. @return 0; -12; -110 nothing came
int ipmb_reqq_enq(uint8_t sequence, uint8_t* buffer, uint32_t* length);
/// Hands a Get Message response to its requester.
void ipmb_reqq_deq(const uint8_t* message, uint32_t length);
/// Ends the waits of all requesters.
void ipmb_reqq_wake();
/// Frees all entries; nobody uses one.
void ipmb_reqq_term();

/// @return number << 2; kIpmbNoSequence when all 64 are in use
uint8_t ipmb_seq_reserve();
void ipmb_seq_release(uint8_t sequence);
/// @return 1 while a number is in use, else 0
int ipmb_seq_check();

int ipmb_timer_start();
void ipmb_timer_stop();
void* ipmb_timer(void*);

/// After a fork: the queue of the parent is gone, and so is the timer thread.
void ipmb_forget();
