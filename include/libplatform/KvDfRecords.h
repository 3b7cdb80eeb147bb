#pragma once
/// @file
/// The records that the data factory hands out: plain facts about this machine, in the language of its administrator.
///
/// A function that hands out records gives their number and an array made by array-new. The array may be longer than
/// the number says. KvDfFreeDataArray frees it, whatever its records are.
///
/// @code
///     unsigned long count = 0;
///     KVDF_FAN* fans = nullptr;
///     if (KvDfGetBodyFan(&count, &fans) != 0) return;
///     for (unsigned long i = 0; i < count; ++i) {
///         printf("%u: %s\n", (unsigned)fans[i].number, (const char*)fans[i].stateText);
///     }
///     KvDfFreeDataArray(fans);
/// @endcode
///
/// Codes that several records share, each with its text beside it:
/// exist  0 unknown, 1 present, 2 absent or not readable
/// state  0 unknown, 1 and 2 limits, 3 normal, 4 non-critical, 5 critical, 6 non-recoverable, 7 disabled; of a
///        processor whose capacity is bought by the piece also 10 to 15

#include "libplatform/CKvString.h"
#include "libplatform/KvExport.h"

#ifdef __cplusplus

/// Room of a text field; longer texts make it grow.
static const unsigned long kKvTextCapacity = 256;
/// What a number is when nobody knows it.
static const uint32_t kKvUnknownNumber = 0x80000000u;

/// Base of every record.
struct KVDF_BASE {
    virtual ~KVDF_BASE() = default;
};

/// A temperature sensor.
struct KVDF_TEMPERATURE : KVDF_BASE {
    uint32_t number = 0;  ///< from 1
    CKvString name{nullptr, kKvTextCapacity};
    uint32_t state = 0;  ///< 3 to 6, or 1: no known state
    CKvString stateText{nullptr, kKvTextCapacity};
    uint32_t temperature = 0;  ///< in tenths of a degree Celsius, signed; kKvUnknownNumber
};

/// A fan.
struct KVDF_FAN : KVDF_BASE {
    uint32_t number = 0;  ///< from 1
    uint32_t exist = 0;
    CKvString existText{nullptr, kKvTextCapacity};
    uint32_t state = 0;  ///< 3 normal, 4 not so, 0 otherwise
    CKvString stateText{nullptr, kKvTextCapacity};
};

/// A power supply unit.
struct KVDF_POWUNIT : KVDF_BASE {
    uint32_t number = 0;  ///< from 1
    uint32_t exist = 0;
    CKvString existText{nullptr, kKvTextCapacity};
    uint32_t state = 0;
    CKvString stateText{nullptr, kKvTextCapacity};
};

/// A voltage probe.
struct KVDF_VOLTAGE : KVDF_BASE {
    uint32_t number = 0;   ///< from 1
    uint32_t voltage = 0;  ///< in millivolts, signed; kKvUnknownNumber
    uint32_t nominal = 0;  ///< the same of normal operation
    CKvString name{nullptr, kKvTextCapacity};
};

/// The firmware of the machine.
struct KVDF_SYSBIOS : KVDF_BASE {
    uint32_t reserved = 0;
    CKvString version{nullptr, kKvTextCapacity};
    CKvString releaseDate{nullptr, kKvTextCapacity};  ///< as the firmware writes it
};

/// The machine as a whole.
struct KVDF_SYSINFO : KVDF_BASE {
    uint32_t reserved = 0;
};

/// The maker's words for the machine.
struct KVDF_PRODUCT : KVDF_BASE {
    CKvString texts[5] = {{nullptr, kKvTextCapacity},
                          {nullptr, kKvTextCapacity},
                          {nullptr, kKvTextCapacity},
                          {nullptr, kKvTextCapacity},
                          {nullptr, kKvTextCapacity}};
};

/// A processor.
struct KVDF_CPU : KVDF_BASE {
    uint32_t number = 0;                       ///< from 1
    CKvString name{nullptr, kKvTextCapacity};  ///< of its socket, or of its second-level cache where it has one
    uint32_t exist = 0;
    CKvString existText{nullptr, kKvTextCapacity};
    uint32_t state = 0;
    CKvString stateText{nullptr, kKvTextCapacity};
    uint32_t family = 0;  ///< as SMBIOS numbers them; 2: unknown
    CKvString familyText{nullptr, kKvTextCapacity};
    uint32_t speed = 0;  ///< current, in MHz
};

/// A cache of a processor, or of a node.
struct KVDF_CACHE : KVDF_BASE {
    uint32_t number = 0;  ///< of its processor or board
    uint32_t state = 0;   ///< 3 enabled, 7 not
    CKvString stateText{nullptr, kKvTextCapacity};
    uint32_t level = 0;
    uint32_t size = 0;  ///< in KB; kKvUnknownNumber
};

/// A board that carries processors.
struct KVDF_CPUBOARD : KVDF_BASE {
    uint32_t number = 0;  ///< from 1
    uint32_t exist = 0;
    CKvString existText{nullptr, kKvTextCapacity};
    uint32_t state = 0;
    CKvString stateText{nullptr, kKvTextCapacity};
    uint32_t state2 = 0;
    CKvString state2Text{nullptr, kKvTextCapacity};
};

/// An array of memory sockets.
struct KVDF_MEMARRAY : KVDF_BASE {
    uint32_t number = 0;   ///< from 1
    uint32_t sockets = 0;  ///< that it has
};

/// A memory socket.
struct KVDF_MEMSOCKET : KVDF_BASE {
    uint32_t array = 0;   ///< number of its array
    uint32_t number = 0;  ///< from 1, on through all arrays
    uint32_t state = 0;   ///< 0 unknown, 1 normal, 2 to 5 error, not installed, not enabled, faulty; 6 changed size
    CKvString stateText{nullptr, kKvTextCapacity};
    uint32_t size = 0;  ///< in MB
};

/// Errors of memory since the count was begun.
struct KVDF_MEMERROR : KVDF_BASE {
    uint32_t kind = 0;   ///< 1: correctable ones
    uint32_t count = 0;  ///< how many
};

/// What a memory socket held at the last start.
struct KVDF_TMP_MEMORY : KVDF_BASE {
    uint32_t array = 0;
    uint32_t socket = 0;
    uint32_t size = 0;  ///< in MB
};

/// Something that an administrator should know.
struct KVDF_ALERT : KVDF_BASE {
    uint32_t id = 0;
    uint32_t level = 0;
    uint32_t portion = 0;
    uint32_t time = 0;                             ///< seconds since 1970
    CKvString message{nullptr, kKvTextCapacity};   ///< in the agent's language
    CKvString message2{nullptr, kKvTextCapacity};  ///< in the neutral one
};

KV_STATIC_ASSERT(sizeof(KVDF_TEMPERATURE) == 32 && sizeof(KVDF_FAN) == 32 && sizeof(KVDF_POWUNIT) == 32);
KV_STATIC_ASSERT(sizeof(KVDF_VOLTAGE) == 24 && sizeof(KVDF_SYSBIOS) == 24 && sizeof(KVDF_SYSINFO) == 8);
KV_STATIC_ASSERT(sizeof(KVDF_CPU) == 56 && sizeof(KVDF_CACHE) == 28 && sizeof(KVDF_CPUBOARD) == 44);
KV_STATIC_ASSERT(sizeof(KVDF_MEMARRAY) == 12 && sizeof(KVDF_MEMSOCKET) == 28 && sizeof(KVDF_MEMERROR) == 12);
KV_STATIC_ASSERT(sizeof(KVDF_TMP_MEMORY) == 16 && sizeof(KVDF_PRODUCT) == 44 && sizeof(KVDF_ALERT) == 36);

KV_EXTERN_C_BEGIN

/// Frees an array of records, of whichever kind they are. Null is fine. Any thread may call.
KV_EXPORT void KvDfFreeDataArray(KVDF_BASE* records);

KV_EXTERN_C_END

#endif
