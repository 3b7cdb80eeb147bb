#pragma once
/// @file
/// The system event log (SEL): each event that the machine's controllers log is handed out once.
///
/// @code
///     unsigned long count = 0;
///     KVPS_SEL_ENTRY* entries = NULL;
///     if (KvPsGetSelAllEntries(&count, &entries) == 0) {  // every ten seconds or so
///         for (unsigned long i = 0; i < count; ++i) Report(&entries[i]);
///         KvPsFreeDataArray(entries);
///     }
/// @endcode
///
/// What was handed out is remembered on disk, in a local database for each log, through restarts of the process and of
/// the machine. Times are seconds since 1970, UTC, by the clock of the controller that keeps the log; InitLib sets the
/// BMC's to this machine's. Values up to 0x20000000 are seconds since that controller was started, before anybody had
/// set its clock; 0xFFFFFFFF is "unknown".

#include "libplatform/KvExport.h"

/// One SEL record, byte for byte as the BMC keeps it. The fields of more than one byte are little-endian, which is the
/// machine's own order.
typedef struct KVPS_SEL_ENTRY {
    uint16_t recordId;        ///< a label, not an order: a log that was cleared may use it again
    uint8_t recordType;       ///< 0x02 system event; 0xC0 to 0xDF the maker's own, of which the next four bytes are the
                              ///< time; from 0xE0 on the maker's own in all 13 bytes that follow
    uint8_t timeStamp[4];     ///< by the controller's clock, see above
    uint8_t generatorId[2];   ///< slave address, or with bit 0 set software id, of who reports; LUN and channel
    uint8_t messageRevision;  ///< 4, since IPMI 1.5
    uint8_t sensorType;       ///< temperature, voltage ...: code of the IPMI standard, as in SDR
    uint8_t sensorNumber;     ///< of the controller that generatorId names
    uint8_t eventType;        ///< bit 7 direction (1: deassertion), bits 6-0 event type
    uint8_t eventData[3];     ///< bits 3-0 of the first: which threshold or state; the others by sensor and event type
} KVPS_SEL_ENTRY;

/// State of a log.
typedef struct KVPS_SEL_INFO {
    uint32_t lastAddition;     ///< by the controller's clock, as the next
    uint32_t lastErase;        ///< 0xFFFFFFFF: never, or unknown
    uint16_t entries;          ///< number of them
    uint16_t freeSpace;        ///< bytes; 0xFFFF means 65,535 or more
    uint8_t version;           ///< of the log's commands, low digit first: 0x51 is 1.5
    uint8_t operationSupport;  ///< bit 7: entries were lost since the log is full; bit 1: reservations are supported
} KVPS_SEL_INFO;

KV_STATIC_ASSERT(sizeof(KVPS_SEL_ENTRY) == 16 && offsetof(KVPS_SEL_ENTRY, timeStamp) == 3);
KV_STATIC_ASSERT(offsetof(KVPS_SEL_ENTRY, sensorType) == 10 && offsetof(KVPS_SEL_ENTRY, eventData) == 13);
KV_STATIC_ASSERT(sizeof(KVPS_SEL_INFO) == 16 && offsetof(KVPS_SEL_INFO, operationSupport) == 13);

/// What KvPsLockAndGetSelEntry does with an entry that was handed out before.
enum {
    KVPS_SEL_CHECK_DATABASE = 1u << 0,     ///< looks it up in the local database of the machine's first log
    KVPS_SEL_REPORT_REDETECTION = 1u << 1  ///< and tells the system log, and keeps copies of the database's files
};

KV_EXTERN_C_BEGIN

/// Gives the entries that were logged since the last call, by this process or an earlier one. The entries that a log
/// holds when its device is met for the first time are not given. What is given has been recorded as taken when the
/// call returns; a thread that is cancelled when something has been is so afterwards. Takes the machine-wide IPMI lock;
/// several threads may call, one at a time is served.
/// @param count    entries given
/// @param entries  one array for all devices, in the order of devices and records, freed by the caller with
///                 KvPsFreeDataArray; null when there are none
/// @return 0; with no entries given: 0x60524201 null argument; 0x6052B104 the driver could not be opened; reason 0xB2C5
///         the logs changed again and again while they were read. Other failures of single devices are traced, and the
///         device is read again by the next call.
KV_EXPORT uint32_t KvPsGetSelAllEntries(unsigned long* count, KVPS_SEL_ENTRY** entries);

/// Frees what KvPsGetSelAllEntries gave; null is fine.
KV_EXPORT void KvPsFreeDataArray(void* array);

// Single operations on the log of one controller, each with the machine-wide IPMI lock taken for its time.
//
// function   number of the calling function, 0 to 0x3FF: it stands in the code of a driver that could not be opened
// address    slave address of the controller
// Results: 0; 0x60ffB104 (ff: function) the driver could not be opened; 0x6000B116 null output; 0x6000B109 the address
// names software; with the number of the command in bits 16 to 25: 0xB101/0xB102 the driver failed, 0xB100 the answer
// was cut, 0xB2cc the controller answered with completion code cc.

/// @param reservation  to be passed to the other two; it ends when the log changes or somebody else reserves
KV_EXPORT uint32_t KvPsLockAndReserveSel(uint32_t function, uint8_t address, uint16_t* reservation);
KV_EXPORT uint32_t KvPsLockAndGetSelInfo(uint32_t function, uint8_t address, KVPS_SEL_INFO* info);
/// @param recordId  0x0000 the first entry, 0xFFFF the last
/// @param nextId    id of the entry behind it; 0xFFFF when there is none, and after a failure
/// @param flags     KVPS_SEL_CHECK_DATABASE and more
/// @return as above; 0x60ffB501 the local database holds the same entry: it was handed out before. entry and nextId are
///         good then, too
KV_EXPORT uint32_t KvPsLockAndGetSelEntry(uint32_t function, uint8_t address, uint16_t reservation, uint16_t recordId,
                                          uint16_t* nextId, KVPS_SEL_ENTRY* entry, uint8_t flags);
/// @param action    0xAA starts the erasure, 0x00 asks how far it is
/// @param progress  low 4 bits: 0 in progress, 1 completed
KV_EXPORT uint32_t KvPsLockAndClearSel(uint32_t function, uint8_t address, uint16_t reservation, uint8_t action,
                                       uint8_t* progress);

KV_EXTERN_C_END
