// What machine is this?

#include "lib_driverIF/KvPltfSvcProduct.h"

#include <algorithm>
#include <array>

#include "lib_driverIF/KvPltfSvcSmbiosView.h"

namespace product {

namespace {

constexpr uint8_t kNameField = 5;
constexpr uint8_t kVersionField = 6;

constexpr std::array<std::string_view, 2> kBlades = {"Varistel", "Tessark Blade"};
constexpr std::string_view kQ52 = "Varistel Q52";
constexpr std::string_view kSeparateHeaderVersion = "0000F5";

// By the system version.
constexpr std::array<std::string_view, 5> kFirstGroup = {
    "0000E51300", "0000F51100", "0000E51400", "0000F51200", "0000F51300",
};
constexpr std::array<std::string_view, 13> kSecondGroup = {
    "0000F51500", "0000F51600", "0000F51900", "0000F51A00", "0000F51B00", "0000F51C00", "0000F51D00",
    "0000F51E00", "0000F51F00", "0000F51H00", "0000F51J00", "0000F51G00", "0000F51K00",
};

bool Contains(std::string_view text, std::string_view part) {
    return text.find(part) != std::string_view::npos;
}

}  // namespace

uint32_t Name(std::string_view* name) {
    return ktx_smbios::FindSystemText(kNameField, name);
}

uint32_t SystemVersion(std::string_view* version) {
    return ktx_smbios::FindSystemText(kVersionField, version);
}

bool IsBlade(std::string_view name) {
    return std::ranges::any_of(kBlades, [name](std::string_view entry) { return Contains(name, entry); });
}

bool IsQ52(std::string_view name) {
    return Contains(name, kQ52);
}

bool IsQ52() {
    std::string_view name;
    return Name(&name) == 0 && IsQ52(name);
}

bool CountsRecordsWithoutHeader(std::string_view version) {
    return Contains(version, kSeparateHeaderVersion);
}

ModelGroup ModelGroupOf(std::string_view version) {
    if (std::ranges::find(kFirstGroup, version) != kFirstGroup.end()) return ModelGroup::kFirst;
    if (std::ranges::find(kSecondGroup, version) != kSecondGroup.end()) return ModelGroup::kSecond;
    return ModelGroup::kNone;
}

ModelGroup Models() {
    std::string_view version;
    return SystemVersion(&version) == 0 ? ModelGroupOf(version) : ModelGroup::kNone;
}

}  // namespace product
