#pragma once
/// @file
/// The first page of libplatform's interface, and all of it: a host may include this header alone.
///
/// libplatform is the platform plug-in of a server-management agent for Linux on 32-bit x86. It reads the machine
/// through the board's management controller (BMC, over IPMI), the firmware's tables (SMBIOS) and Linux, and answers in
/// three ways: with instances of classes - one request, one class, all instances (platform_if.h) -, with records in the
/// words of an administrator (KvDf...), and with single things as they are: a sensor, an event, a structure (KvPs...).
/// Besides it exports the runtime that the agent's processes share: trace, messages, configuration files, threads,
/// processes, texts and files (PXR_...).
///
/// # A host's life
///
/// @code
///     PXR_set_command_name("pxragt");
///     PXR_trace_init();  // no daemon, no trace: go on
///     if (InitLib() != 0) {
///         // What could be started serves; TerminateLib is called all the same.
///     }
///     _KVCIM_ENUM* irqs = NULL;
///     if (CreateEnum(KTX_CLS_IRQ, &irqs) == 0) {
///         PXR_ExecCommand(irqs, NULL, KV_MODE_QUERY);  // all instances, or none
///         for (const _KVCIM_CLASS* irq = irqs->first; irq != NULL; irq = irq->next) {
///             for (const _KVCIM_PROP* p = irq->first; p != NULL; p = p->next) Show(p);
///         }
///         FreeEnum(irqs);
///     }
///     TerminateLib();
///     PXR_trace_term();
/// @endcode
///
///  1. The process becomes what it will be, before it has threads: PXR_daemon, PXR_lock_cmd. What it offers to the
///     library is in PXR_host.h, all of it optional. A host that uses mainjob_wait calls __for_main__init_job in its
///     main thread and handles SIGUSR1 (PXR_proc.h).
///  2. It loads the library, by dlopen or by linking with it, names itself and opens the trace connection. It may put a
///     simulated machine in place of the real one (KvDeviceOps.h).
///  3. InitLib: some seconds on a machine with many sensors. It finds the SMBIOS table, starts the way to the BMC, and
///     then the data factory (KvDfInitialize): this copies the SMBIOS structures (KvPsInitializeSmbios), makes the FRU
///     reader known (KvPsSetKvDf_GetFruInventoryDataFunc), sets the clock of the BMC's event log and reads the records
///     of all sensors (KvPsInitializeIpmi), and reads the definition files. A host calls none of these. Before InitLib
///     the shared runtime works; what needs the machine says that it is not up.
///  4. SendMessage hands over the watch configuration, and what to do on a watchdog event; it gives the table of poll
///     intervals, also to be had by PXR_GetAlertIntervalLevel.
///  5. Requests (PXR_ExecCommand), polls of alerts (class KTX_CLS_ALERT_RECORD, each kind at its interval), calls of
///     KvDf... and KvPs... functions.
///  6. When the process goes down: SetTerminateProcess, which a signal handler may call, ends the library's long loops.
///     The host's threads come out of the library; then TerminateLib, PXR_trace_term. A host that stays may call
///     InitLib again instead. dlclose does not unmap the library.
///
/// # Which header for what
///
/// | header            | what                                                                                         |
/// |-------------------|----------------------------------------------------------------------------------------------|
/// | platform_if.h     | the seven entry points: start, stop, version, classes, requests, watch configuration, alerts |
/// | PXR_data_access.h | enumerations, instances and properties: make, fill, read, copy, free, trace them             |
/// | PXR_data_codes.h  | the numbers of classes, properties and types                                                 |
/// | PXR_host.h        | what a host may supply                                                                       |
/// | KvPsDevice.h      | who the BMC is, and the registers that lead to it                                            |
/// | KvPsBmc.h         | watchdog, service processor, names, LAN settings, memory modules, capacity, FRU images       |
/// | KvPsSensor.h      | sensors: records and readings                                                                |
/// | KvPsSel.h         | the event log, each event once                                                               |
/// | KvDfHardware.h    | records of sensors, processors and memory, as an administrator sees them                     |
/// | KvDfRecords.h     | these records                                                                                |
/// | KvDfMemory.h      | memory across restarts: correctable errors, what the sockets held                            |
/// | KvDfConvert.h     | raw sensor readings into values                                                              |
/// | KvDfDataFactory.h | definition files, texts in the administrator's language                                      |
/// | KvDfCheck.h       | checking definition files before they are used                                               |
/// | KvDfFru.h         | fields of the unit's inventory (FRU)                                                         |
/// | KvPsSmbios.h      | SMBIOS structures and their fields                                                           |
/// | ipmi_ioctl.h      | IPMI messages over the BMC's registers, without the kernel's driver                          |
/// | smbios_ioctl.h    | requests to the reader of the SMBIOS table                                                   |
/// | KvDeviceOps.h     | another machine in place of the real one                                                     |
/// | PXR_trace.h       | writing the trace                                                                            |
/// | PXR_log_file.h    | log files that keep themselves small                                                         |
/// | trace_protocol.h  | packets between the library and the trace daemon; masks and levels                           |
/// | PXR_message.h     | texts of result codes, messages on streams and to the system log                             |
/// | PXR_catalogue.h   | message catalogues, locale                                                                   |
/// | PXR_config.h      | configuration files of keys and values                                                       |
/// | PXR_thread.h      | workers: a thread with a queue of actions                                                    |
/// | PXR_proc.h        | daemon, lock files, finding, running and ending commands                                     |
/// | PXR_string.h      | conversions, trimming, splitting                                                             |
/// | PXR_syscall.h     | files and directories, facts about the system, the flag of a process that ends               |
/// | CKvString.h       | the text of a record                                                                         |
/// | KvExport.h        | what the headers share                                                                       |
///
/// # Who frees what
///
/// | comes from                                                                  | is freed by               |
/// |-----------------------------------------------------------------------------|---------------------------|
/// | GetCat..., InsertInsMessage, PXR_GetErrCode..., PXR_str2str, PXR_cat_string | free                      |
/// | KvPsGetAllSdrData; KvPsGetSdrData: the array, its records are the library's | free                      |
/// | KvDfGet...: records                                                         | KvDfFreeDataArray         |
/// | KvDfCreateFileData                                                          | KvDfFreeFileData          |
/// | KvPsGetSelAllEntries                                                        | KvPsFreeDataArray         |
/// | KvPsGetTypeData: the array, its structures are the library's                | KvPsFreeTypeData          |
/// | KvPsGetSystemInformation                                                    | KvPsFreeSystemInformation |
/// | CreateEnum, DuplicateEnum: with all that was inserted                       | FreeEnum                  |
/// | CreateClass, DuplicateClass, until it is inserted                           | FreeClass                 |
/// | DuplicateProperty                                                           | FreeProp                  |
/// | PXR_GetCommandList, AllocCommandList                                        | FreeCommandList           |
/// | PXR_init_cfgdata, PXR_read_cfgfile: texts and lists of the data array       | PXR_clear_cfgdata         |
/// | PXR_file_open                                                               | PXR_file_close            |
/// | PXR_lock_cmd                                                                | PXR_unlock_cmd            |
/// | PXR_log_file_open                                                           | PXR_log_file_close        |
/// | PXR_thread_create: what the object owns                                     | PXR_thread_destroy        |
///
/// Whatever else is given stays the library's (versions, tables, names, structures) or lies in the caller's own memory.
/// What a host passes in stays the host's, and is copied where it must last, unless the function says that it takes it.
/// Both sides share the C heap: free and malloc mean the process's own.
///
/// # Threads
///
/// Any thread may call any function at any time, many at once, but for these:
///  - InitLib, TerminateLib, what they call (3 above), KvSetDeviceOps: one thread, while no other works with
///    what they start, stop or replace.
///  - A record belongs to one thread at a time: an enumeration with its instances, a data array of a configuration
///    file.
///  - One alert kind is polled by one thread at a time.
///  - PXR_daemon, __for_main__..., the companion commands (PXR_proc.h) and a worker's own calls (PXR_thread.h) belong
///    to the thread that is named there.
///
/// A signal handler may call SetTerminateProcess, IsTerminateProcess and __for_main__dispatch_job, nothing else.
///
/// # Results
///
/// Where nothing else is said a function gives 0, or a result code: 0x60000000 | function number << 16 | reason. It has
/// been reported to the trace by then; PXR_GetErrCodeString and PXR_GetErrCodeMes make it readable. Some functions
/// return it as uint32_t, others as int, with the same 32 bits: cast an int before you compare it with a listed code.
/// Other results are named in their headers:
///  - PXR_syscall.h, PXR_proc.h: an error number of errno; -1 for a descriptor or length, with errno
///  - ipmi_ioctl, smbios_ioctl: a negative error number
///  - PXR_str2...: 1, 2 or 3; the fields of a sensor's record (KvPsGetEntityId ...): decimal 2001 to 2018
///  - yes and no: int 1 and 0; bool in KvPsGetDIMMStateHWIntel alone
/// Counts of things are unsigned long, uint32_t or int, as their functions have come to be; sizes are bytes. All of
/// these have 32 bits here. No function throws.
///
/// # Languages
///
/// C99 or C++11 and later, of gcc or clang, for i386 (-m32). No record depends on _FILE_OFFSET_BITS or _TIME_BITS. The
/// records of the data factory are classes: only a C++ host sees them, and it deletes them by KvDfFreeDataArray alone.

#include "libplatform/CKvString.h"
#include "libplatform/KvDeviceOps.h"
#include "libplatform/KvDfCheck.h"
#include "libplatform/KvDfConvert.h"
#include "libplatform/KvDfDataFactory.h"
#include "libplatform/KvDfFru.h"
#include "libplatform/KvDfHardware.h"
#include "libplatform/KvDfMemory.h"
#include "libplatform/KvDfRecords.h"
#include "libplatform/KvExport.h"
#include "libplatform/KvPsBmc.h"
#include "libplatform/KvPsDevice.h"
#include "libplatform/KvPsSel.h"
#include "libplatform/KvPsSensor.h"
#include "libplatform/KvPsSmbios.h"
#include "libplatform/PXR_catalogue.h"
#include "libplatform/PXR_config.h"
#include "libplatform/PXR_data_access.h"
#include "libplatform/PXR_data_codes.h"
#include "libplatform/PXR_host.h"
#include "libplatform/PXR_log_file.h"
#include "libplatform/PXR_message.h"
#include "libplatform/PXR_proc.h"
#include "libplatform/PXR_string.h"
#include "libplatform/PXR_syscall.h"
#include "libplatform/PXR_thread.h"
#include "libplatform/PXR_trace.h"
#include "libplatform/ipmi_ioctl.h"
#include "libplatform/platform_if.h"
#include "libplatform/smbios_ioctl.h"
#include "libplatform/trace_protocol.h"
