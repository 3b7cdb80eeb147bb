#pragma once
/// @file
/// The register path to the management controller (BMC), as lib_driverIF uses it and as its own files share it. From
/// the top: ipmi_ioctl and the lifecycle (KvLibIpmi.cpp), the choice of the interface (_Select), bridging over the IPMB
/// (_Ipmb, with the queue of waiting requesters and the timer thread in _IpmbQueue), one message at a time (_Message),
/// the interfaces (_Kcs, _Smic), the registers (_Registers).
///
/// Functions give 0 or a negative errno value unless they say otherwise. The words of the interface, KCS and SMIC, are
/// those of the IPMI standard. State that threads read while another changes it is atomic; a change of the
/// interface waits for its turn among the messages.

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <source_location>

#include "libplatform/PXR_trace.h"
#include "libplatform/ipmi_ioctl.h"

/// The longest message, request or response.
inline constexpr uint32_t kIpmiMaxMessage = 1028;

/// @name Lifecycle (KvLibIpmi.cpp)
/// @{

/// Starts the register path: chooses the interface, starts the timer thread. No register is touched. A call while it is
/// up gives 0. @return 0; -5 register address out of reach; -14 no lock or no thread; -38 interface not served
int Init_IpmiIF();

/// Stops it: new calls are refused, the timer thread ends, requesters of bridged messages give up with -110, callers
/// waiting for their turn with -1, and a transfer under way has half a second to come to its end. Returns when the last
/// caller has left. Init_IpmiIF may follow.
void Terminate_IpmiIF();
bool IsIpmiIFUp();

/// Whether Terminate_IpmiIF is under way: nothing new is begun.
extern std::atomic<bool> g_ipmiStopping;
/// When what is under way is broken off then, by the clock; what it leaves behind the next transfer discards.
extern std::atomic<uint64_t> g_ipmiGiveUpAt;
bool ipmi_is_given_up();

/// Makes one of the two named locks, "WDOG REQUEST" and "WDOG RECEIVE". @return 0; -14 no such name, or it exists
int ipmi_create_lock(const char* name);
void ipmi_release_lock(const char* name);

extern uint8_t WatchDogRequest;     ///< guarded by the lock "WDOG REQUEST"
extern uint8_t WatchDogReqReceive;  ///< guarded by the lock "WDOG RECEIVE"
/// @}

/// @name Parameters (ipmi_ioctl.h, KvIpmiParameterBlock, has their order)
/// @{
enum IpmiParameter : size_t {
    kParamSmicFlagLimit,
    kParamSmicFlagInterval,
    kParamSmicWriteAttempts,
    kParamSmicWritePause,
    kParamSmicMessageAttempts,
    kParamSmicReadPause,
    kParamIpmbTimeout,
    kParamCount
};
extern std::array<std::atomic<uint32_t>, kParamCount> ipmi_param;
extern const std::array<uint32_t, kParamCount> ipmi_prmin;
extern const std::array<uint32_t, kParamCount> ipmi_prmax;
/// @}

/// @name The interface in use (KvLibIpmi_Select.cpp)
/// @{
inline constexpr uint8_t kIfTypeKcs = 1;
inline constexpr uint8_t kIfTypeSmic = 2;
inline constexpr uint8_t kIfTypeBt = 3;  ///< not served

extern std::atomic<uint8_t> IPMI_IFTYPE;
extern std::atomic<uint8_t> IPMI_SLAVE_ADDR;  ///< the BMC's own; requests to others are bridged
extern std::atomic<uint8_t> IPMI_NREGS;       ///< 2 KCS, 3 SMIC
extern std::atomic<uint16_t> IPMI_REG_BASE;
extern std::atomic<uint16_t> IPMI_REG_DATA;
extern std::atomic<uint16_t> IPMI_REG_STATUS;        ///< KCS status and command; SMIC control and status
extern std::atomic<uint16_t> IPMI_REG_CONTROL;       ///< KCS as IPMI_REG_STATUS; SMIC flags
extern std::atomic<uint32_t> g_pMMapSegmentAddress;  ///< added to a register's address in physical memory

/// Operations of an interface. The status byte is the interface's own code, 0 good.
using IpmiWriteOperation = int (*)(uint8_t* buffer, uint32_t length, uint8_t* status);
using IpmiReadOperation = int (*)(uint8_t* buffer, uint32_t* length, uint8_t* status);
using IpmiStatusOperation = int (*)(uint8_t* status);
using IpmiAttentionOperation = int (*)(int mode);
using IpmiReadStateOperation = int (*)();

struct IpmiInterfaceTable {
    IpmiWriteOperation write;
    IpmiReadOperation read;
    IpmiStatusOperation status;
    IpmiAttentionOperation attention;
    IpmiReadStateOperation isReadState;
    uint16_t defaultBase;
};
extern const IpmiInterfaceTable kcs_func;
extern const IpmiInterfaceTable smic_func;

using RegisterWriteOperation = int (*)(uint16_t reg, uint8_t value);
using RegisterReadOperation = uint8_t (*)(uint16_t reg);

struct IpmiRegisterTable {
    RegisterWriteOperation write;
    RegisterReadOperation read;
};
extern const IpmiRegisterTable ioreg_func;
extern const IpmiRegisterTable memoryreg_func;

extern std::atomic<IpmiWriteOperation> IPMI_WRITE;
extern std::atomic<IpmiReadOperation> IPMI_READ;
extern std::atomic<IpmiStatusOperation> IPMI_STATUS;
extern std::atomic<IpmiAttentionOperation> IPMI_SMSFLAG;
extern std::atomic<IpmiReadStateOperation> IPMI_ISREAD_STATE;
extern std::atomic<RegisterWriteOperation> REG_WRITE;
extern std::atomic<RegisterReadOperation> REG_READ;

/// Chooses the interface by the SMBIOS structure of type 38, KCS at 0x0CA2 without one.
/// @return 0; -5 registers out of reach; -38 the machine has a BT interface
int ipmi_set_function();
void ipmi_set_function_SMIC();
/// KCS at a port; the kind of register access stays. @return 0; -22 the status register would have no port
int ipmi_set_function_kcs_ioport(uint16_t port);
void ipmi_set_register_access(const IpmiRegisterTable& table);
/// @}

/// @name Registers (KvLibIpmi_Registers.cpp)
/// @{

/// @return 0; -5 not written
int ipmi_ioreg_write(uint16_t reg, uint8_t value);
int ipmi_memoryreg_write(uint16_t reg, uint8_t value);
/// @return the byte; 0 when it cannot be read
uint8_t ipmi_ioreg_read(uint16_t reg);
uint8_t ipmi_memoryreg_read(uint16_t reg);

/// The two ways to one byte of physical memory. Kernels before 2.6 seek and transfer; later ones fail that way above
/// the end of RAM, where registers are, and map the page instead. @return whether it could be reached
bool ipmi_memory_write_by_seek(int64_t physical, uint8_t value);
bool ipmi_memory_read_by_seek(int64_t physical, uint8_t* value);
bool ipmi_memory_write_by_map(int64_t physical, uint8_t value);
bool ipmi_memory_read_by_map(int64_t physical, uint8_t* value);

/// Sleeps; a negative time counts as 0. @return 0; -14 a signal ended it
int ipmi_sleep_on_timeout(long ms);
/// @}

/// @name Messages (KvLibIpmi_Message.cpp)
/// @{

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
/// @}

/// @name Bridging (KvLibIpmi_Ipmb.cpp, KvLibIpmi_IpmbQueue.cpp)
/// @{

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
/// Whether the wait for the BMC's attention (mode 2 of the interfaces) has become pointless: nothing is outstanding any
/// more, or the timer thread is to stop.
extern std::atomic<bool> g_ipmbAttentionUnwanted;

/// After a fork: the queue of the parent is gone, and so is the timer thread.
void ipmb_forget();
/// @}

/// A response as it comes in, byte by byte.
struct IpmiIncoming {
    uint8_t* bytes;
    uint32_t capacity;  ///< what lies behind is counted and dropped
    uint32_t count = 0;

    void Append(uint8_t value) {
        if (count < capacity) bytes[count] = value;
        ++count;
    }
};

/// @name KCS (KvLibIpmi_Kcs.cpp)
/// @{

/// Results of the primitives.
enum KcsResult : int { kKcsDone, kKcsBadArgument, kKcsTimeout, kKcsStateError, kKcsNotAvailable };

int KCSWaitStatusReg(uint8_t value, uint8_t mask, uint8_t* status);
int KCSClearObf(uint8_t* status);
/// @return 1 when the status register reads value under mask, else 0
int KCSGetStatusReg(uint8_t value, uint8_t mask, uint8_t* status);
int KCSAbortAndGetStatusCode(uint8_t* code);

int ipmi_kcs_Write(uint8_t* request, uint32_t length, uint8_t* status);
int ipmi_kcs_Read(uint8_t* response, uint32_t* length, uint8_t* status);
int ipmi_kcs_GetStatus(uint8_t* status);
/// @param mode  1: whether the BMC wants attention, 1 or 0; 2: waits until it does, a KcsResult
int ipmi_kcs_SMSBitCheck(int mode);
int ipmi_kcs_IsREAD_STATE();
/// @}

/// @name SMIC (KvLibIpmi_Smic.cpp)
/// @{
int ipmi_smic_write(uint8_t* request, uint32_t length, uint8_t* status);
int ipmi_smic_read(uint8_t* response, uint32_t* length, uint8_t* status);
int ipmi_smic_status(uint8_t* status);
/// @param mode  1: whether the BMC wants attention, 1 or 0; 2: waits until it does, 0 or a negative errno value
int ipmi_smic_smsflag(int mode);
int ipmi_smic_IsREAD_STATE();
/// Waits until the flags register reads value under mask. @return 0; -16; -14
int ipmi_smic_flagwait(uint8_t mask, uint8_t value);
/// @}

/// Entry, exit and failure lines of one function. Register accesses leave a line of their own instead.
class IpmiCallTrace {
public:
    explicit IpmiCallTrace(const char* function) : function_(function) {
        PXR_trace(PXR_TRACE_MASK_IPMI, PXR_TRACE_LEVEL_POLL, "[IN ]%s\n", function_);
    }
    ~IpmiCallTrace() { PXR_trace(PXR_TRACE_MASK_IPMI, PXR_TRACE_LEVEL_POLL, "[OUT]%s()=%d\n", function_, result_); }
    IpmiCallTrace(const IpmiCallTrace&) = delete;
    IpmiCallTrace& operator=(const IpmiCallTrace&) = delete;

    /// The function's result, to be returned.
    int Out(int result) { return result_ = result; }
    /// The same for a failure that arises here; one that a called function reported is passed on with Out.
    int Fail(int error, std::source_location where = std::source_location::current()) {
        return result_ = Report(error, function_, where);
    }
    static int Report(int error, const char* function, std::source_location where = std::source_location::current()) {
        PXR_trace(PXR_TRACE_MASK_IPMI, PXR_TRACE_LEVEL_ERROR, "Error occured.(%d) %s(%d)\n", error, function,
                  static_cast<int>(where.line()));
        return error;
    }

private:
    const char* function_;
    int result_ = 0;
};
