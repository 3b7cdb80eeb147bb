#pragma once
/// @file
/// What is remembered about memory across restarts of the agent: how many correctable errors there were, and what each
/// socket held. Both lie in /var/opt/velmora/lantrel/dat. InitLib reads them and TerminateLib writes them; the
/// functions on the files are for companions of the agent.

#include "libplatform/KvDfRecords.h"

#ifdef __cplusplus
KV_EXTERN_C_BEGIN

/// @param count  0 when there is no file @return 0; 0x60BA4201 null argument
KV_EXPORT uint32_t KvDfLoadEcc1ErrorCount(unsigned long* count);
/// Writes the count; what lies behind it in the file stays.
/// @return 0; 0x60C01301 the file cannot be written; 0x60BF1301 one that exists cannot be read: it is left as it is
KV_EXPORT uint32_t KvDfStoreEcc1ErrorCount(unsigned long count);

/// @param count  0 when there is no file @return 0; 0x60BC4201 null argument; 0x60BC1301 the file cannot be read now
KV_EXPORT uint32_t KvDfLoadMemoryDataCount(unsigned long* count);
/// @param count    of records, as many as the file holds @param records  the caller's
/// @return 0; 0x60BD4201 null argument; 0x60BD1302 the file holds another number; 0x60BD1301 it cannot be read
KV_EXPORT uint32_t KvDfLoadMemoryData(unsigned long count, KVDF_TMP_MEMORY* records);
/// Rewrites the file, unless it says the same already.
/// @return 0; 0x60BE4201 null or no records; 0x60C01301 the file cannot be written
KV_EXPORT uint32_t KvDfStoreMemoryData(unsigned long count, KVDF_TMP_MEMORY* records);
/// Stores what the sockets hold now, and takes their sum as the machine's total.
/// @return 0; what KvDfGetMemorySocket and KvDfStoreMemoryData give; 0x60BE1302 not all sockets could be read: nothing
///         is stored
KV_EXPORT uint32_t KvDfSaveNewMemoryDatas(void);

/// The machine's memory in MB, as it was found at the start.
KV_EXPORT unsigned long KvDfGetTotalMemorySize(void);
/// One record: the correctable errors counted. @return 0; 0x60AD4201 null argument; 0x60AD1202 out of memory
KV_EXPORT uint32_t KvDfGetMemoryError(unsigned long* count, KVDF_MEMERROR** records);

KV_EXTERN_C_END
#endif
