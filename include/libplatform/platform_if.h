#pragma once
/// @file
/// The plug-in's entry points. A host agent loads libplatform.so, finds these seven functions by name and drives the
/// library through them alone:
///
///   InitLib -> SendMessage / PXR_GetCommandList / PXR_ExecCommand, as often as needed -> TerminateLib
///
/// Before InitLib the process opens the trace connection (PXR_trace_init). Each function may be called by any thread;
/// each alert kind is polled by one thread at a time. Result 0 is success; any other value is a result code that has
/// been reported already (PXR_GetErrCodeString and PXR_GetErrCodeMes turn it into text).

#include "libplatform/KvExport.h"
#include "libplatform/PXR_config.h"
#include "libplatform/PXR_data_access.h"

/// Name and version of the plug-in; static, the library's.
typedef struct KvPluginVersion {
    const char* name;
    uint32_t version;
} KvPluginVersion;

/// One row of the alert interval table: how often the host polls an alert kind. The pair {0, 0} ends the table.
typedef struct KvAlertInterval {
    uint32_t kind;          ///< one of KvAlertKind
    uint32_t milliseconds;  ///< 0: the kind is not polled
} KvAlertInterval;

enum KvAlertKind {
    KV_ALERT_IPMI_EVENTS = 1,
    KV_ALERT_CPU_LOAD = 4,
    KV_ALERT_FILE_SYSTEM = 5,
    KV_ALERT_MEMORY = 6,
    KV_ALERT_SYSLOG = 8,
};

/// The watch configuration of message 0. A null pointer means that the watch is off. The library copies what it needs:
/// the records stay the host's and may be freed when SendMessage returns.
typedef struct KvWatchConfiguration {
    const PXR_memory_watch* memory;
    const PXR_strage_watch* fileSystems;
    const PXR_cpu_watch* cpu;
    const PXR_syslog_watch* syslog;
} KvWatchConfiguration;

/// The host's per-request parameter. The library reads the first field alone.
typedef struct _PXR_COMMAND_PARAM {
    int32_t alertKind;  ///< for class KTX_CLS_ALERT_RECORD: the kind that is asked for
} _PXR_COMMAND_PARAM;

/// Values of PXR_ExecCommand's mode.
enum KvCommandMode {
    KV_MODE_QUERY = 1,   ///< fill an enumeration
    KV_MODE_ACTION = 2,  ///< carry out a command (class KTX_CLS_POWER_CTRL)
};

/// Values of SendMessage's message.
enum KvPluginMessage {
    KV_MESSAGE_WATCH_CONFIGURATION = 0,
    KV_MESSAGE_WATCHDOG_WRITER = 3,   ///< param: void (*)(uint32_t timeStamp), called for a watchdog event
    KV_MESSAGE_WATCHDOG_CLEANER = 4,  ///< param: void (*)(void)
};

KV_STATIC_ASSERT(sizeof(KvPluginVersion) == 8 && sizeof(KvAlertInterval) == 8);
KV_STATIC_ASSERT(sizeof(KvWatchConfiguration) == 16 && offsetof(KvWatchConfiguration, fileSystems) == 4);
KV_STATIC_ASSERT(offsetof(KvWatchConfiguration, cpu) == 8 && offsetof(KvWatchConfiguration, syslog) == 12);
KV_STATIC_ASSERT(sizeof(_PXR_COMMAND_PARAM) == 4);

KV_EXTERN_C_BEGIN

/// Starts the library. A failure leaves running whatever was started: call TerminateLib in any case.
/// @return 0; 0x6000B700 no SMBIOS table; 0x6000B400 no way to the BMC, what comes from elsewhere is served; reason
///         0xB10D the process is terminating
KV_EXPORT int InitLib(void);

/// Stops the library and frees what InitLib made. May be called again, and InitLib after it.
/// @return 0
KV_EXPORT int TerminateLib(void);

/// @return name and version of this plug-in; static, never null
KV_EXPORT const KvPluginVersion* GetVersion(void);

/// Lists the class ids that the library serves.
/// @param out  head of the list; free it with FreeCommandList. Null after a failure.
/// @return 0; 0x61851202 memory exhausted; 0x61854201 null argument
KV_EXPORT int PXR_GetCommandList(_PXR_COMMAND_LIST** out);

/// Hands something over to the library (KvPluginMessage). Messages that it does not know change nothing.
/// @param param  KvWatchConfiguration*, or the callback, or ignored
/// @param out    message 0 stores the address of the interval table here (may be null); others leave it alone
/// @return 0; 0x60014202 message 0 without param; 0x60011202 memory exhausted; after both nothing was changed
KV_EXPORT int SendMessage(int message, void* param, void** out);

/// Carries out one request: fills the enumeration with all instances of its class, or performs its command.
/// @param e      the request, the host's own; its class id selects what is done. A class that is not served, and one
///               whose source failed, leave it without instances.
/// @param param  read for class KTX_CLS_ALERT_RECORD alone; may be null
/// @param mode   KvCommandMode: 2 for KTX_CLS_POWER_CTRL, 1 for every other class
/// @return 0; 0x60024201 no enumeration; 0x60024202 mode and class do not match; for the classes 39, 42, 52 and 60 the
///         code of the failed step
KV_EXPORT int PXR_ExecCommand(_KVCIM_ENUM* e, const _PXR_COMMAND_PARAM* param, int mode);

/// @return the alert interval table, six rows ended by {0, 0}; the library's, rewritten by message 0
KV_EXPORT const KvAlertInterval* PXR_GetAlertIntervalLevel(void);

KV_EXTERN_C_END
