#pragma once
/// @file
/// A log file that keeps itself small: when it has outgrown its limit it is cut to its newest half, at a line boundary.
/// One object may be used by many threads, and one file by many processes. Failures to write or cut are reported to the
/// system log (set 4, message 534), once until the file works again.

#include "libplatform/KvExport.h"

KV_EXTERN_C_BEGIN

typedef struct PXR_log_file PXR_log_file;

/// Opens a log for appending, creating it with mode 0666 as masked by the process.
/// @param limitKiB  size limit; 0: none
/// @return to be closed by the caller; null on failure, with errno set
KV_EXPORT PXR_log_file* PXR_log_file_open(const char* path, uint32_t limitKiB);

/// Appends whole lines with one write, then cuts the file if it is due. While another process cuts it the lines are
/// held back, for a tenth of a second at most.
KV_EXPORT void PXR_log_file_write(PXR_log_file* file, const char* lines, size_t length);

KV_EXPORT void PXR_log_file_close(PXR_log_file* file);

KV_EXTERN_C_END
