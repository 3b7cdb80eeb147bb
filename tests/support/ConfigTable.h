#pragma once
/// @file
/// A key file of every value type, as a table whose path is chosen at run time, and its data array.

#include <array>
#include <string>

#include "libplatform/PXR_config.h"

namespace sample {

enum Id : uint32_t {
    kLevel = 1,
    kName,
    kSwitch,
    kEnable,
    kAddress,
    kCount,
    kSecret,
    kWords,
    kNumbers,
    kUnwanted,      // no slot in the data
    kUnwantedList,  // no slot, appended with its default
};

inline PXR_config_file<12> table = {
    nullptr,
    "[ServerAgent%s_TEST]",
    "0330",
    "Test Configuration File",
    {{kLevel, "Level", 1, -1, 0, -20, 100, PXR_CFG_NUMBER, {.number = 10}, 0, {0, 0}},
     {kName, "Name", 1, -1, 0, 0, 8, PXR_CFG_TEXT, {.text = "standard"}, 0, {0, 0}},
     {kSwitch, "Switch", 1, -1, 0, 0, 0, PXR_CFG_SWITCH, {.number = 1}, 0, {0, 0}},
     {kEnable, "Enable", 1, -1, 0, 0, 0, PXR_CFG_ENABLE_SWITCH, {.number = 0}, 0, {0, 0}},
     {kAddress, "Address", 1, -1, 0, 0, 0, PXR_CFG_ADDRESS, {.number = 0x7F000001}, 0, {0, 0}},
     {kCount, "Count", 1, -1, 0, 1, -1, PXR_CFG_UNSIGNED, {.number = 4000000000}, 0, {0, 0}},
     {kSecret, "Secret", 1, -1, 0, 0, 8, PXR_CFG_TEXT, {.text = nullptr}, PXR_CFG_FLAG_NOT_STORED, {0, 0}},
     {kWords, "Word", -1, -1, 0, 0, 2000, PXR_CFG_TEXT, {.text = nullptr}, 0, {0, 0}},
     {kNumbers, "Number", 1, -1, 0, 0, 9, PXR_CFG_NUMBER_ARRAY, {.number = 0}, 0, {0, 0}},
     {kUnwanted, "Unwanted", 1, -1, 0, 0, 9, PXR_CFG_NUMBER, {.number = 7}, 0, {0, 0}},
     {kUnwantedList, "Unwanted2", 2, 1, 0, 0, 9, PXR_CFG_TEXT, {.text = "x y"}, 0, {0, 0}},
     {}}};

/// The values of the table's keys, from the defaults on.
class Data {
public:
    Data() { PXR_init_cfgdata(table.Table(), slots_.data()); }
    ~Data() { PXR_clear_cfgdata(table.Table(), slots_.data()); }
    Data(const Data&) = delete;
    Data& operator=(const Data&) = delete;

    PXR_config_data* Get() { return slots_.data(); }
    uint32_t Read() { return PXR_read_cfgfile(table.Table(), Get()); }
    uint32_t Write() { return PXR_write_cfgfile(table.Table(), Get()); }
    PXR_config_value& operator[](Id id) { return static_cast<PXR_config_data*>(PXR_search_cfgid(Get(), id, 0))->value; }
    /// Takes the place of a text's value.
    void SetText(Id id, const std::string& text);

    /// Every value in the table's order, for comparison: "10 standard on off 7f000001 4000000000 - [] []".
    std::string Print();

private:
    std::array<PXR_config_data, 10> slots_{{PXR_CFG_SLOT(kLevel), PXR_CFG_SLOT(kName), PXR_CFG_SLOT(kSwitch),
                                            PXR_CFG_SLOT(kEnable), PXR_CFG_SLOT(kAddress), PXR_CFG_SLOT(kCount),
                                            PXR_CFG_SLOT(kSecret), PXR_CFG_SLOT(kWords), PXR_CFG_SLOT(kNumbers),
                                            PXR_CFG_SLOT(0)}};
};

}  // namespace sample
