#pragma once
/// @file
/// Fields of SMBIOS structures. Offsets count from the structure's first byte. What lies behind the formatted area, or
/// behind what firmware has delivered, reads as zero.

#include <cstdint>
#include <memory>
#include <span>

#include "kvdatafactory/KvDfCommon_Maps.h"
#include "libplatform/CKvString.h"
#include "libplatform/KvPsSmbios.h"

/// Gives the string whose number stands at offset; out stays as it is when there is none.
/// @return 0; 0x60974201 null argument; 0x60971302 the structure has no such field
uint32_t KvIfGetSmbiosString(const KVPS_SMBIOS_TPHEAD* structure, unsigned char offset, CKvString& out);

// @return 0; 0x60984201 null argument; 0x60981302 the structure has no such field. Out is 0 unless 0 is returned.
uint32_t KvIfGetSmbiosByte(const KVPS_SMBIOS_TPHEAD* structure, unsigned char offset, unsigned char* out);
uint32_t KvIfGetSmbiosWord(const KVPS_SMBIOS_TPHEAD* structure, unsigned char offset, unsigned short* out);
uint32_t KvIfGetSmbiosDword(const KVPS_SMBIOS_TPHEAD* structure, unsigned char offset, unsigned long* out);
uint32_t KvIfGetSmbiosMultiByte(const KVPS_SMBIOS_TPHEAD* structure, unsigned char offset, int length,
                                unsigned char* out);

/// The field that a key of the definition files names. @return also what KvIf_GetSmbiosKey gives
uint32_t KvIfKeyToSmbiosByte(const KVPS_SMBIOS_TPHEAD* structure, const char* key, unsigned char* out);
uint32_t KvIfKeyToSmbiosWord(const KVPS_SMBIOS_TPHEAD* structure, const char* key, unsigned short* out);
uint32_t KvIfKeyToSmbiosString(const KVPS_SMBIOS_TPHEAD* structure, const char* key, CKvString& out);

/// All structures of a type, in the order of their handles. They stay the library's.
class KvIfStructures {
public:
    KvIfStructures() = default;
    explicit KvIfStructures(uint8_t type);
    /// Of the type that a key names; none where the key is unknown, which has been reported.
    explicit KvIfStructures(const char* key);

    std::span<KVPS_SMBIOS_TPHEAD* const> All() const { return {array_.get(), count_}; }
    bool IsEmpty() const { return count_ == 0; }
    /// What the query gave.
    uint32_t Code() const { return code_; }

private:
    void Read(uint8_t type);

    std::unique_ptr<KVPS_SMBIOS_TPHEAD*[]> array_;
    unsigned long count_ = 0;
    uint32_t code_ = 0;
};

/// Whether the string at offset is that text.
bool KvIfHasText(const KVPS_SMBIOS_TPHEAD& structure, unsigned char offset, const char* text);
