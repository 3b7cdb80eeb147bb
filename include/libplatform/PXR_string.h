#pragma once
/// @file
/// Text helpers that the configuration readers are made of: strict conversions, trimming and splitting that respect
/// double quotes, and a few checks. Nothing here depends on the locale but the two printability checks; all of it is
/// safe to call from any thread. Bytes above 0x7F are ordinary characters.
///
/// A *double-quoted part* begins at a double quote and runs to the next one, or to the end of the text when there is
/// none. White space is blank, tab, newline, vertical tab, form feed and carriage return.

#include "libplatform/KvExport.h"

KV_EXTERN_C_BEGIN

// ---- Conversions ----
// All give 0 and write the output, or leave the output as it was and give
//   1  the value does not fit
//   2  a character does not belong, the text is empty, or an argument is null
//   3  memory ran out
// The whole text must convert: blanks before, between or after do not belong.

/// Decimal digits only; 1 above 0xFFFFFFFF.
KV_EXPORT int PXR_str2digit(const char* text, uint32_t* out);
/// Hexadecimal digits of either case, without "0x"; 1 above 0xFFFFFFFF.
KV_EXPORT int PXR_str2hex(const char* text, uint32_t* out);
/// Octal digits only; 1 above 0xFFFFFFFF.
KV_EXPORT int PXR_str2oct(const char* text, uint32_t* out);
/// "0x" or "0X" and hexadecimal digits; "0" and octal digits; or an optional "+" or "-" and decimal digits. The first
/// two take any 32 bits (0xFFFFFFFF is -1), the last one what a signed 32-bit number holds.
KV_EXPORT int PXR_str2int(const char* text, int32_t* out);
/// As PXR_str2int for unsigned numbers: the only sign is "+", and any 32 bits will do.
KV_EXPORT int PXR_str2uint(const char* text, uint32_t* out);
/// As PXR_str2uint, PXR_str2digit, PXR_str2hex and PXR_str2oct, under names for callers that hold an `unsigned long`,
/// which has 32 bits here.
KV_EXPORT int PXR_str2ulong(const char* text, uint32_t* out);
KV_EXPORT int PXR_str2uldigit(const char* text, uint32_t* out);
KV_EXPORT int PXR_str2ulhex(const char* text, uint32_t* out);
KV_EXPORT int PXR_str2uloct(const char* text, uint32_t* out);
/// A word without white space, or a double-quoted text whose closing quote is the last character.
/// @param out  receives a heap copy (without the quotes), the caller's to free(); null for an empty text, quoted or not
KV_EXPORT int PXR_str2str(const char* text, char** out);
/// "TRUE" (1) or "FALSE" (0), in either case.
KV_EXPORT int PXR_str2bool(const char* text, uint8_t* out);
/// "ENABLED" (1) or "DISABLED" (0), in either case.
KV_EXPORT int PXR_str2bool2(const char* text, uint8_t* out);
/// Four decimal numbers of 0 to 255 joined by "."; the first becomes the most significant byte.
KV_EXPORT int PXR_str2ipaddr(const char* text, uint32_t* out);

/// Writes "True" or "False" (for 0). @param buffer  at least 6 bytes
KV_EXPORT void PXR_bool2str(char* buffer, uint8_t value);
/// Writes "Enabled" or "Disabled" (for 0). @param buffer  at least 9 bytes
KV_EXPORT void PXR_bool2str2(char* buffer, uint8_t value);
/// Writes the four bytes of value in the order they lie in memory, joined by ".": the dotted form of an address in
/// network byte order. Not the inverse of PXR_str2ipaddr. @param buffer  at least 16 bytes
KV_EXPORT void PXR_ipaddr2str(char* buffer, uint32_t value);

// ---- Trimming and splitting; these change the text in place and return positions inside it ----

/// The text without white space at either end. Null for null.
KV_EXPORT char* PXR_cut_space(char* text);
/// Ends the text at the first "#" outside double-quoted parts.
/// @return what stood behind the "#"; null when there is no comment or it is empty
KV_EXPORT char* PXR_cut_comment(char* text);
/// The first c outside double-quoted parts (for a double quote: the first one). Null when there is none.
KV_EXPORT char* PXR_skip_pt(char* text, int c);
/// As PXR_skip_pt; the text ends where c was. @return the position behind it, or null when there is no c
KV_EXPORT char* PXR_next_pt(char* text, int c);
/// The word, or the inside of the double-quoted text, that is all the text holds but for white space at its ends. Null
/// when anything follows, or a closing quote is missing.
KV_EXPORT char* PXR_cut_str(char* text);

// ---- Checks ----

/// 1 when the text is null, empty, all white space, or begins (behind white space) with "#"; 0 otherwise.
KV_EXPORT int PXR_chk_empty(const char* text);
/// Goes through the characters of set in their order. @return the first that stands in text outside double-quoted parts
/// (0 to 255), or -1
KV_EXPORT int PXR_chk_strchr(const char* text, const char* set);
/// 1 when token is one of the items of text, which are delimited by separator ("rw,noexec" and ','); 0 otherwise.
KV_EXPORT int PXR_check_token(const char* text, const char* token, char separator);
/// Number of characters that n takes in the base (2 or more, else 0): 1 for 0; in base 10 a negative number counts its
/// sign, in other bases its 32 bits count as an unsigned number.
KV_EXPORT int PXR_calc_figure(int n, int base);
/// 1 when a character of the text is not printable in the process's locale; 0 otherwise, and for null.
KV_EXPORT int PXR_is_exept_ank(const char* text);
/// 1 when the text is not printable Shift-JIS; 0 otherwise, and for null. A lead byte (0x81-0x84, 0x87-0x9F, 0xE0-0xFC)
/// and a trail byte (0x40-0xFC) are one character; every other byte must be printable in the process's locale.
KV_EXPORT int PXR_is_exept_sjis(const char* text);

// ---- Copying and searching ----

/// Copies src, or empties dst when src is null. @param dst  large enough for src @return dst
KV_EXPORT char* PXR_chkstrcpy(char* dst, const char* src);
/// Appends more to a heap text.
/// @param text  a heap text that the call takes over, or null for an empty one
/// @return the grown text, the caller's to free(); null when memory runs out: text is then as it was, still the
///         caller's
KV_EXPORT char* PXR_cat_string(char* text, const char* more);
/// The first place of pattern in text, ASCII letters of either case being equal; null when there is none.
KV_EXPORT char* PXR_stristr(const char* text, const char* pattern);
/// Reads and writes a 32-bit value in machine order at any address.
KV_EXPORT uint32_t PXR_getDWORD(const uint8_t* bytes);
KV_EXPORT void PXR_putDWORD(uint8_t* bytes, uint32_t value);

KV_EXTERN_C_END
