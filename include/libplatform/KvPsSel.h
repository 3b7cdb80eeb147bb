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

#include "libplatform/KvExport.h"

/// One SEL record, byte for byte as the BMC keeps it. The fields of more than one byte are little-endian, which is the
/// machine's own order.
typedef struct KVPS_SEL_ENTRY {
    uint16_t recordId;
    uint8_t recordType;    ///< 0x02 system event
    uint8_t timeStamp[4];  ///< seconds since 1970
    uint8_t generatorId[2];
    uint8_t messageRevision;
    uint8_t sensorType;
    uint8_t sensorNumber;
    uint8_t eventType;  ///< bit 7 direction (1: deassertion), bits 6-0 event type
    uint8_t eventData[3];
} KVPS_SEL_ENTRY;

KV_STATIC_ASSERT(sizeof(KVPS_SEL_ENTRY) == 16);
KV_STATIC_ASSERT(offsetof(KVPS_SEL_ENTRY, timeStamp) == 3);
KV_STATIC_ASSERT(offsetof(KVPS_SEL_ENTRY, eventData) == 13);

/// State of a log.
typedef struct KVPS_SEL_INFO {
    uint32_t lastAddition;  ///< seconds since 1970
    uint32_t lastErase;     ///< seconds since 1970
    uint16_t entries;
    uint16_t freeSpace;  ///< bytes; 0xFFFF means 65,535 or more
    uint8_t version;
    uint8_t operationSupport;  ///< bit 1: reservations are supported
} KVPS_SEL_INFO;

/// What KvPsLockAndGetSelEntry does with an entry that was handed out before.
enum {
    KVPS_SEL_CHECK_DATABASE = 1u << 0,     ///< looks it up in the local database
    KVPS_SEL_REPORT_REDETECTION = 1u << 1  ///< and tells the system log, and keeps copies of the files
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
/// @return as above; 0x60ffB501 the database of the current device holds the same entry: it was handed out before.
///         entry and nextId are good then, too
KV_EXPORT uint32_t KvPsLockAndGetSelEntry(uint32_t function, uint8_t address, uint16_t reservation, uint16_t recordId,
                                          uint16_t* nextId, KVPS_SEL_ENTRY* entry, uint8_t flags);
/// @param action    0xAA starts the erasure, 0x00 asks how far it is
/// @param progress  low 4 bits: 0 in progress, 1 completed
KV_EXPORT uint32_t KvPsLockAndClearSel(uint32_t function, uint8_t address, uint16_t reservation, uint8_t action,
                                       uint8_t* progress);

KV_EXTERN_C_END
