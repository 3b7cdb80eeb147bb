#pragma once
/// @file
/// Definition files: where they lie, how they are read and taken apart, and the locale that their readers speak.
/// Functions that a host may call are in libplatform/KvDfDataFactory.h.

#include <cstdint>

#include "common/CKvList.h"
#include "kvdatafactory/DefinitionText.h"
#include "libplatform/CKvString.h"
#include "libplatform/KvDfDataFactory.h"

/// Kinds of definition files.
enum : unsigned long { kInventoryMap = 0, kAlertMap = 1, kSensorMap = 2, kSyslogMap = 3 };

/// The runtime's numbering of the locales, and that of the data factory: opposite to each other. The one is turned into
/// the other by KvDfConvertLinuxLocale alone.
enum class LinuxLocale : unsigned long { kNeutral = 0, kJapanese = 1 };
enum class FactoryLocale : unsigned long { kJapanese = 0, kOther = 1 };

extern "C" {

/// @param path  receives a new text, deleted by the caller (array delete)
/// @return 0; 0x60C11301 no such kind, or no memory
uint32_t KvDf_GetFilePath(char** path, unsigned long kind);
uint32_t KvDf_GetFilePathWithName(char** path, const char* directory, const char* name);

/// Reads a regular file whole, without waiting for what is none, and again when it changes meanwhile.
/// @param data  receives a new block with four bytes of zero behind it, deleted by the caller (array delete)
/// @return 0; 0x60BF4201 null argument or no memory; 0x60BF1301 it cannot be read, errno tells why (ENOENT: there is none)
uint32_t KvDf_ReadFileData(char* path, char** data, unsigned long* size);
/// Brings a text that was read into its normal form, in place. @return 0; 0x60C24201 null argument
uint32_t KvDf_AdjustFileData(char** data, unsigned long* size);

/// Goes to the next field of an element that was taken apart in place; stays where it is behind the last one.
void KvDf_NextStringPoint(char*& p, const char* end);
/// Takes blanks, then double quotes, off both ends.
void KvDf_TrimString(CKvString& text);

}  // extern "C"

/// Takes the next element apart in place: what separated its fields, and its end, become NUL. Quotes are text.
/// @param start  where to search; receives the element's first field
/// @param end    receives the place of the closing parenthesis
/// @param tag    with its parenthesis
/// @return 0; 0x63F54201 null argument; 0x63F51302 no element before limit, or one that does not end
uint32_t KvDf_GetElementData(char*& start, char** end, const char* limit, const char* tag, unsigned long tagLength);

/// Copies the fields of the next element, as they are, behind those of the list; a quoted comma separates nothing.
/// @param fields  receives new strings, the caller's to delete; also after a failure
/// @return as above; 0x63F51302 also for a field of more than 255 characters; 0x63F51202 out of memory
uint32_t KvDf_GetElementData(CKvList<CKvString*>* fields, const char* start, const char** end, const char* limit,
                             const char* tag);

/// Reads and normalises one file. @param notes  what is worth telling of it @return as KvDf_ReadFileData
uint32_t ReadDefinitionFile(const char* path, char** text, unsigned long* length, definition::Notes& notes);
