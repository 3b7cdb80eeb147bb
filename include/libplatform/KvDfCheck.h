#pragma once
/// @file
/// Checking definition files before the agent is started with them: every element that would be left out, and what else
/// an administrator should know of them.

#include "libplatform/KvExport.h"

typedef enum KvDfRemarkKind {
    KVDF_REMARK_SKIPPED = 0,     ///< an element is left out
    KVDF_REMARK_NOTE = 1,        ///< it is read, but perhaps not as it was meant
    KVDF_REMARK_UNREADABLE = 2,  ///< the file is not there or cannot be read
} KvDfRemarkKind;

/// One remark. The texts are the library's, valid during the call.
typedef struct KVDF_REMARK {
    uint32_t kind;        ///< one of KvDfRemarkKind
    const char* file;     ///< name of the file
    uint32_t line;        ///< where in it, from 1; 0: nowhere in particular
    const char* section;  ///< with its brackets; empty outside of any
    const char* element;  ///< the beginning of what is meant
    const char* reason;
} KVDF_REMARK;

typedef void (*KvDfRemarkListener)(const KVDF_REMARK* remark, void* context);

/// Elements of all files.
typedef struct KVDF_CHECK_COUNTS {
    uint32_t kept;
    uint32_t skipped;
} KVDF_CHECK_COUNTS;

KV_STATIC_ASSERT(sizeof(KVDF_REMARK) == 24 && offsetof(KVDF_REMARK, reason) == 20 && sizeof(KVDF_CHECK_COUNTS) == 8);

KV_EXTERN_C_BEGIN

/// Reads the definition files of a directory as the start would. The tables in use stay as they are. Where the library
/// is started, the files are also held against the sensors and processors of this machine.
/// @param directory  null: /opt/velmora/lantrel/maps/
/// @param listener   is called for each remark, in the order of the files' analysis
/// @param counts     receives what was kept and left out
/// @return 0, whatever is wrong with the files; 0x63F54201 no listener or no counts; 0x60001202 out of memory
KV_EXPORT uint32_t KvDfCheckDefinitions(const char* directory, KvDfRemarkListener listener, void* context,
                                        KVDF_CHECK_COUNTS* counts);

KV_EXTERN_C_END
