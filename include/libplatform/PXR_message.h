#pragma once
/// @file
/// Texts of result codes, messages of the catalogues on a stream, and messages to the system log.
///
/// Catalogue texts that take printf arguments are trusted: they are delivered with the product and writable by root
/// alone, and the caller passes what the message asks for.
///
/// Any thread may call. Lines for the system log are written one at a time.

#include <stdio.h>

#include "libplatform/KvExport.h"

KV_EXTERN_C_BEGIN

/// The printable form of a result code: "QNTR 64202-C 18C" for 0x618C4202 - class and reason, W for a warning, E for an
/// error, C for anything else, and the number of the function.
/// @return freed by the caller; null when memory runs out
KV_EXPORT char* PXR_GetErrCodeString(uint32_t code);

/// The text of a result code in the process locale.
/// @param catalogue  usually "KvAgent.cat"
/// @param numberOrCode  message number in set 1; of a code its low 16 bits count
/// @return freed by the caller; null when there is none
KV_EXPORT char* PXR_GetErrCodeMes(const char* catalogue, uint32_t numberOrCode);

/// Prints a message with the further arguments put in as its printf arguments, a newline, and flushes.
/// The message is taken in the current locale, else in the neutral one.
/// @return the catalogue's error (nothing is printed then), else the result of the flush; EOF for a null stream
KV_EXPORT int PXR_output_message(FILE* stream, const char* catalogue, int set, int number, ...);

/// PXR_output_message, and the same text (at most 447 characters) to the single trace file.
KV_EXPORT int PXR_output_message_trace(FILE* stream, const char* catalogue, int set, int number, ...);

/// Formats a message into a buffer, which must be large enough for it.
/// @return 0; the catalogue's error, the buffer being left as it was; EOF for a null buffer
KV_EXPORT int PXR_sprint_message(char* buffer, const char* catalogue, int set, int number, ...);

/// Writes a message to the system log: "WXPLG", the number, and the text with its placeholders replaced.
/// @param priority  LOG_ERR, LOG_WARNING or LOG_INFO
/// @param count     number of further arguments, each a const char*; null counts as ""
KV_EXPORT void PXR_syslog_message(int priority, const char* catalogue, int set, int number, int count, ...);

/// From now on messages to the system log are printed to this stream instead, without identifier; null: system log.
/// Returns when no other thread writes to the stream before; a stream that is set must stay open until then.
KV_EXPORT void PXR_set_syslog_output(FILE* stream);

/// From now on messages to the system log are dropped.
KV_EXPORT void PXR_disable_syslog_output(void);

KV_EXTERN_C_END
