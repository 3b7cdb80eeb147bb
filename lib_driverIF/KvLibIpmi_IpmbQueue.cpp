// Requesters of bridged messages wait here for their responses, which one thread fetches from the BMC while any is
// outstanding.
//
// The queue's mutex guards the queue, the free list, the sequence numbers and the timer thread's flags; the arrival of a
// response is guarded by its entry's mutex, always taken second. Requests, the interface's registers and other modules
// are never reached with either held.

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "cover/TimerCover.h"
#include "lib_driverIF/KvLibIpmi_Message.h"
#include "lib_driverIF/KvLibIpmi_Queue.h"

IpmbRequestEntry* ipmb_req_queue = nullptr;
IpmbRequestEntry* ipmb_reqqent_free = nullptr;
uint64_t ipmb_seq_flags = 0;
uint8_t ipmb_seq_reserve_now_seq = 0;

namespace {

constexpr uint8_t kSequences = 64;
constexpr size_t kEntriesPerBlock = 3;
constexpr uint64_t kGraceStep = 10'000;  // us between two looks at a response that is just being fetched
constexpr uint32_t kIdlePauseMs = 1;     // after an attention that brought nothing
constexpr uint32_t kEndPauseMs = 10;
constexpr int kStopWaits = 3;
constexpr uint64_t kStopWait = 1'000'000;  // us

constexpr uint8_t kNetFnAppRequest = 0x18;
constexpr uint8_t kCommandGetMessage = 0x33;

// A Get Message response, as far as it is needed to find the requester.
constexpr uint32_t kOffsetCompletionCode = 2;
constexpr uint32_t kOffsetResponder = 6;
constexpr uint32_t kOffsetSequence = 7;
constexpr uint32_t kOffsetCommand = 8;
constexpr uint8_t kSequenceMask = 0xFC;

struct EntryBlock {
    EntryBlock* next;
    IpmbRequestEntry entries[kEntriesPerBlock];
};

struct QueueState {
    std::mutex mutex;
    std::condition_variable work;     ///< there is a number outstanding, or the thread is to stop
    std::condition_variable stopped;  ///< the thread has ended
    EntryBlock* blocks = nullptr;
    bool stop = false;
    bool threadEnded = true;
    bool threadStarted = false;
    pthread_t thread = {};
};
// Never destroyed: the thread may still wait there when the process ends, and the end of a condition variable waits for
// those who wait in it.
QueueState& g_queue = *new QueueState;

std::atomic<bool> g_receiving = false;  // the timer thread is fetching a message

uint64_t SequenceBit(uint8_t sequence) {
    return uint64_t{1} << (sequence >> 2);
}

// ---- With the queue's mutex held. ----

IpmbRequestEntry* FindBySequence(uint8_t sequence) {
    IpmbRequestEntry* entry = ipmb_req_queue;
    while (entry != nullptr && entry->sequence != sequence)
        entry = entry->next;
    return entry;
}

/// @return number << 2; kIpmbNoSequence when all are in use
uint8_t ReserveNumber() {
    for (int tried = 0; tried < kSequences; ++tried) {
        const uint8_t number = ipmb_seq_reserve_now_seq;
        ipmb_seq_reserve_now_seq = static_cast<uint8_t>((number + 1) % kSequences);
        const auto sequence = static_cast<uint8_t>(number << 2);
        // A response releases its number before the requester has left the queue.
        if ((ipmb_seq_flags & SequenceBit(sequence)) == 0 && FindBySequence(sequence) == nullptr) {
            ipmb_seq_flags |= SequenceBit(sequence);
            return sequence;
        }
    }
    return kIpmbNoSequence;
}

/// With the last number the timer thread's look at the registers becomes pointless. It takes the flag back itself, under
/// the mutex, before it looks whether there is a number again: none can come in between.
void ReleaseNumber(uint8_t sequence) {
    ipmb_seq_flags &= ~SequenceBit(sequence);
    if (ipmb_seq_flags == 0 && g_queue.threadStarted) g_ipmbAttentionUnwanted = true;
}

bool AddEntries() {
    auto* const block = new (std::nothrow) EntryBlock{};
    if (block == nullptr) return false;
    block->next = std::exchange(g_queue.blocks, block);
    for (IpmbRequestEntry& entry : block->entries)
        entry.next = std::exchange(ipmb_reqqent_free, &entry);
    return true;
}

void Unlink(IpmbRequestEntry* entry) {
    (entry->previous != nullptr ? entry->previous->next : ipmb_req_queue) = entry->next;
    if (entry->next != nullptr) entry->next->previous = entry->previous;
}

IpmbRequestEntry* TakeFree() {
    if (ipmb_reqqent_free == nullptr && !AddEntries()) return nullptr;
    return std::exchange(ipmb_reqqent_free, ipmb_reqqent_free->next);
}

void PutBack(IpmbRequestEntry* entry) {
    entry->next = std::exchange(ipmb_reqqent_free, entry);
}

void Link(IpmbRequestEntry* entry, uint8_t sequence, const IpmbExpected& expected) {
    {
        const std::lock_guard entryLock(entry->mutex);
        entry->received = 0;
    }
    entry->sequence = sequence;
    entry->expected = expected;
    entry->previous = nullptr;
    entry->next = std::exchange(ipmb_req_queue, entry);
    if (entry->next != nullptr) entry->next->previous = entry;
    g_queue.work.notify_one();
}

bool IsAnswerTo(const IpmbExpected& expected, const uint8_t* message, uint32_t length) {
    if (expected.anyone) return true;
    return length > kOffsetCommand && message[kOffsetResponder] == expected.target &&
           message[kOffsetCommand] == expected.command;
}

void Deliver(IpmbRequestEntry& entry, const uint8_t* message, uint32_t length) {
    const std::lock_guard lock(entry.mutex);
    memcpy(entry.message, message, std::min<uint32_t>(length, sizeof entry.message));
    entry.received = length;
    entry.arrived.notify_one();
}

// ---- Without it. ----

/// The entry under a number; a new one that takes anyone's answer when there is none.
IpmbRequestEntry* FindOrLink(uint8_t sequence) {
    const std::lock_guard lock(g_queue.mutex);
    if (IpmbRequestEntry* const entry = FindBySequence(sequence)) return entry;
    IpmbRequestEntry* const entry = TakeFree();
    if (entry == nullptr) return nullptr;
    ipmb_seq_flags |= SequenceBit(sequence);  // a stray answer may have released it just now
    Link(entry, sequence, {.target = 0, .command = 0, .anyone = true});
    return entry;
}

bool IsResponseUnderWay() {
    return g_receiving || IPMI_SMSFLAG.load()(1) == 1;
}

/// Waits for the response. At the deadline the wait is over unless a response is being fetched, or wants to be: then it
/// goes on in small steps, but not past the latest moment, so that attention which never ends holds nobody for ever.
void WaitForResponse(IpmbRequestEntry& entry) {
    const uint64_t timeout = uint64_t{ipmi_param[kParamIpmbTimeout]} * 1000;
    uint64_t deadline = Clock().Now() + timeout;
    const uint64_t latest = deadline + timeout;

    std::unique_lock lock(entry.mutex);
    while (entry.received == 0 && !g_ipmiStopping) {
        if (const uint64_t now = Clock().Now(); now >= deadline) {
            lock.unlock();
            const bool goOn = now < latest && IsResponseUnderWay();
            lock.lock();
            if (!goOn) return;
            deadline = now + kGraceStep;
            continue;
        }
        Clock().WaitUntil(entry.arrived, lock, deadline);
    }
}

/// Takes the entry out of the queue; from then on nobody else touches it. Its number was released with the response.
/// @return length of the response, 0 without one
uint32_t TakeOut(IpmbRequestEntry& entry) {
    const std::lock_guard lock(g_queue.mutex);
    Unlink(&entry);
    const std::lock_guard entryLock(entry.mutex);
    if (entry.received == 0) ReleaseNumber(entry.sequence);
    return entry.received;
}

/// Fetches one message from the BMC. @return whether there was one
bool FetchMessage() {
    uint8_t message[kIpmiMaxMessage] = {kNetFnAppRequest, kCommandGetMessage};
    uint32_t length = sizeof message;
    uint8_t status = 0;
    if (ipmi_message(message, 2, &length, &status) != 0 || status != 0) return false;
    ipmb_reqq_deq(message, length);
    return length > kOffsetCompletionCode && message[kOffsetCompletionCode] == 0;
}

/// One round of the timer thread while responses are outstanding.
void LookForMessage() {
    const bool attention = IPMI_SMSFLAG.load()(2) == 0;
    if (g_ipmbAttentionUnwanted) return;
    bool fetched = false;
    if (attention) {
        g_receiving = true;
        fetched = FetchMessage();
        g_receiving = false;
    }
    // The BMC is away, or wants attention for something else.
    if (!fetched) Sleep(kIdlePauseMs);
}

/// Starts the thread with all signals blocked: they are the host's.
int StartThread() {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const int error = pthread_create(&g_queue.thread, nullptr, ipmb_timer, nullptr);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return error;
}

}  // namespace

uint8_t ipmb_seq_reserve() {
    IpmiCallTrace trace(__func__);
    const std::lock_guard lock(g_queue.mutex);
    const uint8_t sequence = ReserveNumber();
    trace.Out(sequence);
    return sequence;
}

void ipmb_seq_release(uint8_t sequence) {
    const IpmiCallTrace trace(__func__);
    const std::lock_guard lock(g_queue.mutex);
    ReleaseNumber(sequence);
}

int ipmb_seq_check() {
    IpmiCallTrace trace(__func__);
    const std::lock_guard lock(g_queue.mutex);
    return trace.Out(ipmb_seq_flags != 0 ? 1 : 0);
}

IpmbRequestEntry* ipmb_reqq_reserve() {
    const IpmiCallTrace trace(__func__);
    const std::lock_guard lock(g_queue.mutex);
    return TakeFree();
}

void ipmb_reqq_release(IpmbRequestEntry* entry) {
    const IpmiCallTrace trace(__func__);
    const std::lock_guard lock(g_queue.mutex);
    PutBack(entry);
}

uint8_t ipmb_reqq_push(IpmbRequestEntry* entry, const IpmbExpected& expected) {
    const std::lock_guard lock(g_queue.mutex);
    const uint8_t sequence = ReserveNumber();
    if (sequence != kIpmbNoSequence) Link(entry, sequence, expected);
    return sequence;
}

void ipmb_reqq_cancel(IpmbRequestEntry* entry) {
    TakeOut(*entry);
    ipmb_reqq_release(entry);
}

int ipmb_reqq_enq(uint8_t sequence, uint8_t* buffer, uint32_t* length) {
    IpmiCallTrace trace(__func__);
    IpmbRequestEntry* const entry = FindOrLink(sequence);
    if (entry == nullptr) return trace.Fail(-ENOMEM);
    WaitForResponse(*entry);
    const uint32_t received = TakeOut(*entry);
    if (received != 0) {
        memcpy(buffer, entry->message, std::min({received, *length, kIpmiMaxMessage}));
        *length = received;
    }
    ipmb_reqq_release(entry);
    return received != 0 ? trace.Out(0) : trace.Fail(-ETIMEDOUT);
}

void ipmb_reqq_deq(const uint8_t* message, uint32_t length) {
    const IpmiCallTrace trace(__func__);
    if (length <= kOffsetCompletionCode || message[kOffsetCompletionCode] != 0) return;  // nothing was there
    if (length <= kOffsetSequence) return;
    const auto sequence = static_cast<uint8_t>(message[kOffsetSequence] & kSequenceMask);
    {
        const std::lock_guard lock(g_queue.mutex);
        IpmbRequestEntry* const entry = FindBySequence(sequence);
        const bool answers = entry != nullptr && IsAnswerTo(entry->expected, message, length);
        if (answers) Deliver(*entry, message, length);
        // While somebody waits under the number for another answer it stays his.
        if (answers || entry == nullptr) ReleaseNumber(sequence);
        if (answers) return;
    }
    PXR_trace(PXR_TRACE_MASK_IPMI, PXR_TRACE_LEVEL_ERROR, "Error: IPMB Requester not found:Seq=%02X\n", sequence);
}

void ipmb_reqq_wake() {
    const std::lock_guard lock(g_queue.mutex);
    for (IpmbRequestEntry* entry = ipmb_req_queue; entry != nullptr; entry = entry->next) {
        const std::lock_guard entryLock(entry->mutex);
        entry->arrived.notify_all();
    }
}

void ipmb_reqq_term() {
    const IpmiCallTrace trace(__func__);
    const std::lock_guard lock(g_queue.mutex);
    while (g_queue.blocks != nullptr)
        delete std::exchange(g_queue.blocks, g_queue.blocks->next);
    ipmb_req_queue = nullptr;
    ipmb_reqqent_free = nullptr;
    ipmb_seq_flags = 0;
}

int ipmb_timer_start() {
    IpmiCallTrace trace(__func__);
    const std::lock_guard lock(g_queue.mutex);
    if (g_queue.threadStarted) return trace.Out(0);
    g_queue.stop = false;
    g_queue.threadEnded = false;
    if (StartThread() != 0) return trace.Fail(-EFAULT);
    g_queue.threadStarted = true;
    return trace.Out(0);
}

void ipmb_timer_stop() {
    const IpmiCallTrace trace(__func__);
    std::unique_lock lock(g_queue.mutex);
    if (!g_queue.threadStarted) return;
    g_queue.stop = true;
    g_ipmbAttentionUnwanted = true;
    g_queue.work.notify_all();
    for (int i = 0; i < kStopWaits && !g_queue.threadEnded; ++i)
        Clock().WaitUntil(g_queue.stopped, lock, Clock().Now() + kStopWait);
    g_queue.threadStarted = false;
    lock.unlock();
    pthread_join(g_queue.thread, nullptr);
}

void* ipmb_timer(void* /*unused*/) {
    const IpmiCallTrace trace(__func__);
    std::unique_lock lock(g_queue.mutex);
    while (!g_queue.stop) {
        g_ipmbAttentionUnwanted = false;
        if (ipmb_seq_flags == 0) {
            g_queue.work.wait(lock);
            continue;
        }
        lock.unlock();
        LookForMessage();
        lock.lock();
    }
    lock.unlock();
    Sleep(kEndPauseMs);
    lock.lock();
    g_ipmbAttentionUnwanted = false;
    g_queue.threadEnded = true;
    g_queue.stopped.notify_all();
    return nullptr;
}

void ipmb_forget() {
    // The locks may have been held by threads that are not here; the blocks are left to the parent's memory.
    new (&g_queue) QueueState;
    ipmb_req_queue = nullptr;
    ipmb_reqqent_free = nullptr;
    ipmb_seq_flags = 0;
    g_receiving = false;
    g_ipmbAttentionUnwanted = false;
}
