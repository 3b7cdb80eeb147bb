#pragma once
/// @file
/// Words for codes, in the agent's language.

#include "kvdatafactory/KvDfCommon.h"

// Where the words for a kind of code begin in the platform's catalogue.
inline constexpr unsigned long kStateTexts = 0x10000;   ///< presence and state
inline constexpr unsigned long kFamilyTexts = 0x11000;  ///< processor families
inline constexpr unsigned long kMemoryTexts = 0x12000;  ///< states of memory sockets

/// @return as KvDfGetResourceString
inline uint32_t SetCodeText(CKvString& text, unsigned long texts, unsigned long code) {
    return KvDfGetResourceString(KvDfGetLocale(), texts + code, text, 0, nullptr);
}
