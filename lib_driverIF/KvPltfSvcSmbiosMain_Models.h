#pragma once
/// @file
/// Server models whose BMC lists its processor sensors in an order of its own.

#include <algorithm>
#include <array>
#include <string_view>

namespace ktx_smbios {

// By the system version that SMBIOS gives.
inline constexpr std::array<std::string_view, 5> kModelsFirstGroup = {
    "0000E51300", "0000F51100", "0000E51400", "0000F51200", "0000F51300",
};
inline constexpr std::array<std::string_view, 13> kModelsSecondGroup = {
    "0000F51500", "0000F51600", "0000F51900", "0000F51A00", "0000F51B00", "0000F51C00", "0000F51D00",
    "0000F51E00", "0000F51F00", "0000F51H00", "0000F51J00", "0000F51G00", "0000F51K00",
};

enum class ModelGroup { kNone, kFirst, kSecond };

/// @param version  System Information field at offset 6
constexpr ModelGroup ModelGroupOf(std::string_view version) {
    if (std::ranges::find(kModelsFirstGroup, version) != kModelsFirstGroup.end()) return ModelGroup::kFirst;
    if (std::ranges::find(kModelsSecondGroup, version) != kModelsSecondGroup.end()) return ModelGroup::kSecond;
    return ModelGroup::kNone;
}

}  // namespace ktx_smbios
