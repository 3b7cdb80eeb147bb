#pragma once
/// @file
/// Tracing. Messages go to the trace daemon over a local socket; messages about IPMI traffic go to the IPMI log, and
/// command-line tools may keep a single trace file. Any thread may trace. Nothing here reports its own failures to the
/// caller beyond the results named below, changes errno, or waits for a daemon that is stuck for longer than a tenth of
/// a second: without a listener messages are dropped. Only the report of a log that begins to fail may wait longer, for
/// the system log. A call costs a flag test while tracing is off.
///
/// @code
///     PXR_set_command_name(argv[0]);
///     PXR_trace_init();  // a host may go on when this fails, and try again later
///     PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_EVENT, "%d sensors found\n", count);
///     PXR_trace_term();
/// @endcode

#include "libplatform/KvExport.h"
#include "libplatform/PXR_log_file.h"
#include "libplatform/trace_protocol.h"

KV_EXTERN_C_BEGIN

/// Reads trace.cfg, opens the IPMI log when this installation keeps one, and connects to the daemon.
/// Tracing is on from the first call that succeeds until PXR_trace_term; a connection that is lost in between is made
/// anew by the next message.
/// @return 0; -1 when the daemon cannot be reached
KV_EXPORT int PXR_trace_init(void);

/// Turns tracing off: closes the IPMI log and the connection. @return 0
KV_EXPORT int PXR_trace_term(void);

/// Traces one message, cut at 256 characters. In edit-tool mode messages of other masks than 0x8000 are dropped.
/// @param mask   one of PXR_trace_mask
/// @param level  0 most important
/// @return 0
KV_EXPORT int PXR_trace(int mask, int level, const char* format, ...) __attribute__((format(printf, 3, 4)));

/// Traces one message as PXR_trace does, while connected.
/// @param headerFlag  1: a new line with date, command and thread; 0: continues the line before
/// @return 0
KV_EXPORT int PXR_trace_ext(int mask, int level, int headerFlag, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

/// Traces a title, and bytes as a table of 16 per line. @return 0
KV_EXPORT int PXR_mem_trace(int mask, int level, const char* title, const uint8_t* data, int length);

/// Sends binary data to the daemon, behind the marker "@Qel_01-01_@", in packets of up to 432 bytes.
/// @param name  at most 63 characters are used
/// @return 0; -1 when memory runs out
KV_EXPORT int PXR_trace_sp(const char* name, const uint8_t* data, int length);

/// Sets the command name of packets and log lines: what follows the last "/" of argv0, which is copied. The agent,
/// "pxragt", marks its system-log messages with 'A', every other command with 'O'. To be called before tracing starts.
KV_EXPORT void PXR_set_command_name(const char* argv0);

/// Opens the single trace file for appending, with the level and size limit of trace.cfg. @return 0; -1 on failure
KV_EXPORT int PXR_single_trace_init(const char* path);

/// Writes a line of level 0 to the single trace file, when one is open. @return 0
KV_EXPORT int PXR_Single_trace(int mask, const char* format, ...) __attribute__((format(printf, 2, 3)));

/// Writes a line of mask 0xA000 to the single trace file, unless its level is above TraceLevel. The two numbers are
/// not used. @return 0
KV_EXPORT int PXR_Single_trace_pxraaedit(int level, int, int, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

KV_EXPORT void PXR_Single_trace_term(void);

/// Switches the process, for good, into the mode of the alert-action edit tool: no messages to the daemon, and IPMI
/// traffic into PXR_TRACE_IPMI_EDIT_LOG, which is opened. @return 0; -1 when it cannot be opened
KV_EXPORT int PXR_trace_init_ipmi_pxraaedit_log(void);

/// Closes that log. @return 0
KV_EXPORT int PXR_trace_term_ipmi_pxraaedit_log(void);

/// RAS log of the data factory and the builders: traces "[name] message (file@line)" at mask 0x1000.
/// @param level  1 "Error", 2 "Trace", 3 "Debug" (traced at levels 5, 10 and 30); others write nothing
KV_EXPORT void KvRasLog(int level, const char* sourceFile, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

/// Reads trace.cfg. Keys that are missing there have their defaults; when the file cannot be read at all the settings
/// are more careful ones (level 20, no packet trace). @param config  the caller's, always filled whole
/// @return 0; the code of PXR_read_cfgfile when the file cannot be read, or for null
KV_EXPORT uint32_t PXR_trace_read_config(PXR_trace_config* config);

/// Builds the log line of one message: "[date time] command[pid]: thread: " when its header flag is 1, then the text,
/// cut together at 611 bytes, and a newline where the text has none. Lengths and names in the message are not trusted.
/// @param line  at least PXR_TRACE_LINE_BUFFER_SIZE bytes; zero-terminated
/// @return length of the line
KV_EXPORT size_t PXR_trace_format_line(char* line, const char* command, uint32_t pid, const PXR_trace_message* message);

KV_EXTERN_C_END
