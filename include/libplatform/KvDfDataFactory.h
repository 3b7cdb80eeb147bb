#pragma once
/// @file
/// The data factory: the definition files that say which sensors, SMBIOS fields and events of this machine mean what,
/// and the language that its records speak. InitLib starts it and TerminateLib ends it; a host calls neither.

#include "libplatform/CKvString.h"
#include "libplatform/KvExport.h"

KV_EXTERN_C_BEGIN

/// Start: SMBIOS, the BMC, the definition files, and the inventories that these do not define.
/// @return 0, or the IPMI start-up's code (reason 0xB10D) when the process is terminating
KV_EXPORT uint32_t KvDfInitialize(void);
/// End: what has to be remembered is written, the layers below are ended. @return 0
KV_EXPORT uint32_t KvDfTerminate(void);

/// Finds, reads and normalises one definition file of /opt/velmora/lantrel/maps.
/// @param text    receives a new text, deleted by the caller with array delete; KvDfFreeFileData does the same
/// @param length  receives its length in bytes
/// @param kind    0 inv_map, 1 alert_map, 2 sensor_map, 3 syslogWatchdog.dat
/// @return 0; 0x60C11301 no such kind; 0x60BF4201 null argument or no memory; 0x60BF1301 the file cannot be read
KV_EXPORT uint32_t KvDfCreateFileData(char** text, unsigned long* length, unsigned long kind);
/// Frees a text of KvDfCreateFileData; null is fine.
KV_EXPORT void KvDfFreeFileData(char* text);
/// Turns every section of a text into its table. What is wrong in it is logged and left out. The text is taken apart.
/// @return 0; 0x63F54201 no text
KV_EXPORT uint32_t KvDfAnalyzeFileData(char* text, unsigned long length);

/// The data factory's locale: 0 Japanese, 1 otherwise; the opposite of GetLocale.
/// KvDfSetLocale takes it from the process. @return what GetLocale gives
KV_EXPORT unsigned long KvDfSetLocale(void);
KV_EXPORT unsigned long KvDfGetLocale(void);
/// @return the locale as GetLocale numbers it
KV_EXPORT unsigned long KvDfConvertLinuxLocale(unsigned long locale);

#ifdef __cplusplus
/// Fetches a text of the platform's catalogues.
/// @param locale   as KvDfGetLocale gives it
/// @param id       below 0x10000 a message of set 2, of KvSvp.cat for 0x300 to 0x3FF; else one of set 3
/// @param inserts  insertCount texts for its placeholders; may be null when there are none
/// @return 0; 0x60B81202 out of memory; what GetCatInsMessage gives
KV_EXPORT uint32_t KvDfGetResourceString(unsigned long locale, unsigned long id, CKvString& text,
                                         unsigned long insertCount, CKvString* inserts);
#endif

KV_EXTERN_C_END
