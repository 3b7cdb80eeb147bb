#pragma once
/// @file
/// Texts for people: messages from the message catalogues, in the neutral locale ("C") or in Japanese (Shift-JIS).
///
/// A catalogue is named by its file name ("KvAgent.cat") and found through the templates of the environment variable
/// NLSPATH; a name that contains "/" is a path. When NLSPATH is unset, the first call sets it for the rest of the
/// process to "/opt/velmora/lantrel/lib/nls/%L/%N". LANG is read and never changed: a message in a given locale is
/// found by putting that locale's name into the templates, so other threads and child processes notice nothing.
///
/// Every function may be called by any thread. The texts handed out are allocated with malloc and freed by the caller
/// with free. The output is written only on success. A failure has been traced when the function returns.

#include "libplatform/KvExport.h"

KV_EXTERN_C_BEGIN

/// Locale numbers.
enum KvLocale {
    KV_LOCALE_NEUTRAL = 0,   ///< "C"
    KV_LOCALE_JAPANESE = 1,  ///< "ja_JP.SJIS"
};

/// Tells the process's locale: KV_LOCALE_JAPANESE when LANG had one of the Japanese names ("ja_JP.eucJP", "ja", ...) at
/// the first call, KV_LOCALE_NEUTRAL otherwise. The answer stays the same for the life of the process.
KV_EXPORT int GetLocale(void);

/// Fetches a message in the locale that LANG names at present.
/// @param catalogue  file name or path of the catalogue
/// @param set        set number, from 1
/// @param number     message number, from 1
/// @param out        receives the text
/// @return 0; 0x61821303 the catalogue cannot be read, or the message is missing or empty; 0x61821202 out of memory;
///         0x61824201 no output argument
KV_EXPORT uint32_t GetCatMessagePureLocale(const char* catalogue, int set, int number, char** out);

/// Fetches a message in a given locale.
/// @param locale  one of KvLocale; any other value means the locale of LANG
/// @return as GetCatMessagePureLocale; 0x61811202 no memory for a copy of LANG
KV_EXPORT uint32_t GetCatMessage(int locale, const char* catalogue, int set, int number, char** out);

/// Fetches a message in the process's locale (GetLocale).
/// @return as GetCatMessage
KV_EXPORT uint32_t GetCatMessageLocale(const char* catalogue, int set, int number, char** out);

/// Fetches a message in the locale that LANG names at present, and when that fails in the neutral one.
/// @return as GetCatMessagePureLocale, for the second attempt; 0x61841202 no memory for a copy of LANG
KV_EXPORT uint32_t GetCatMessageCollectLocale(const char* catalogue, int set, int number, char** out);

/// Fetches a message in a given locale and puts inserts into it (InsertInsMessage).
/// @return as GetCatMessage and InsertInsMessage
KV_EXPORT uint32_t GetCatInsMessage(int locale, const char* catalogue, int set, int number, int count,
                                    const char** inserts, const char* fallback, char** out);

/// Fetches an alert message (set 2) in a given locale and puts inserts into it; a place without an insert becomes
/// empty.
/// @return as GetCatInsMessage
KV_EXPORT uint32_t GetCatAlertMessage(int locale, const char* catalogue, int number, int count, const char** inserts,
                                      char** out);

/// Copies a text with its placeholders replaced. A placeholder is "%" and a decimal number, all its digits, that does
/// not begin with 0: "%12" is number 12, while "%0", "%s" and "%%" are plain text.
///
///   InsertInsMessage("%1 of %2%%", 2, {"3", "7"}, NULL, &out)  gives  "3 of 7%%"
///   InsertInsMessage("%1 of %2", 1, {"3"}, NULL, &out)         gives  "3 of %2"
///   InsertInsMessage("%1 of %2", 1, {"3"}, "?", &out)          gives  "3 of ?"
///
/// @param text      the text; null gives a null output and 0
/// @param count     number of inserts
/// @param inserts   the texts for %1, %2, ...; a null one counts as ""
/// @param fallback  what a placeholder above count becomes; null: it stays as written
/// @return 0; 0x61831202 out of memory; 0x61834201 no output argument
KV_EXPORT uint32_t InsertInsMessage(const char* text, int count, const char** inserts, const char* fallback,
                                    char** out);

KV_EXTERN_C_END
