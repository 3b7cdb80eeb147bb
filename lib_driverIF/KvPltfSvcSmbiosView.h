#pragma once
/// @file
/// The copy of the SMBIOS structures as it lies there. Spans and views are good until KvPsTerminateSmbios or the next
/// KvPsInitializeSmbios; nothing is allocated. The exported queries wrap this.

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "libplatform/KvPsSmbios.h"

namespace ktx_smbios {

class StructureView {
public:
    explicit StructureView(const KVPS_SMBIOS_TPHEAD& record);

    /// Of the formatted area, as the structure says; its bytes may end before.
    uint8_t Length() const { return length_; }
    /// What is really there, from the type byte to the NUL of the last string.
    std::span<const uint8_t> Bytes() const { return bytes_; }
    bool HasStrings() const { return bytes_.size() > length_; }
    /// @param number  from 1 @return nothing when there are not so many
    std::optional<std::string_view> String(uint8_t number) const;

    /// The string that a field names by its number; nothing when it names none. Reports a field that is not there.
    /// @return 0; 0x60981302 the structure has no such field, or no strings
    uint32_t Text(uint8_t offset, std::optional<std::string_view>* text) const;

private:
    std::span<const uint8_t> bytes_;
    uint8_t length_;
};

/// The structures of a type below KVPS_SMBIOS_TYPES, in the order of their handles.
std::span<KVPS_SMBIOS_TPHEAD* const> StructuresOf(uint8_t type);
/// Traces that there is none.
void TraceNoStructure(uint8_t type);

/// There is no System Information structure, or no such field in it.
inline constexpr uint32_t kNoSystemInformation = 0x60D0B802;
/// The first System Information structure. @return null, which has been reported, when there is none
const KVPS_SMBIOS_TPHEAD* FindSystemInformation();
/// One of its texts, as far as KvPsGetSystemInformation gives it; empty where the field names none.
/// @return 0; kNoSystemInformation
uint32_t FindSystemText(uint8_t offset, std::string_view* text);
/// Reports that a field of it is not there. @param reason  what its reading gave @return kNoSystemInformation
uint32_t ReportNoSystemField(uint32_t reason);

}  // namespace ktx_smbios
