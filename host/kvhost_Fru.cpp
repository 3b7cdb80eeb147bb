// "kvhost fru".

#include "host/kvhost_Fru.h"

#include <nlohmann/json.hpp>
#include <span>

#include "host/kvhost_FruImage.h"
#include "host/kvhost_Text.h"

namespace kvhost {

namespace {

using Json = nlohmann::ordered_json;

std::vector<uint8_t> ReadImage(const Library& library, uint8_t device) {
    uint16_t size = 0;
    library.Check(library.KvPsGetFruInventoryAreaSize(device, &size));
    std::vector<uint8_t> image(size);
    if (!image.empty()) library.Check(library.KvPsReadFruInventoryData(device, 0, &size, image.data()));
    return image;
}

/// The fields of one of the product's own records; empty on other machines.
FruArea ReadOwnRecord(const Library& library, const char* name, FruProductAreaNumber target, unsigned count) {
    FruArea area{name, {}, ""};
    for (unsigned i = 0; i < count; ++i) {
        _KvFruData field{};
        if (library.KvDf_GetFruInventoryData(target | i, &field) != 0) break;
        if (field.length == 0) continue;
        area.fields.emplace_back("field " + std::to_string(i), HexBytes(std::span(field.data).first(field.length)));
    }
    return area;
}

std::vector<FruArea> ReadAreas(const Library& library, uint8_t device) {
    std::vector<FruArea> areas = DecodeFru(ReadImage(library, device));
    if (device != 0) return areas;
    constexpr unsigned kFirstFields = 32, kSecondFields = 10;
    for (FruArea area : {ReadOwnRecord(library, "first own record", KV_FRU_OEM_AREA, kFirstFields),
                         ReadOwnRecord(library, "second own record", KV_FRU_SECOND_OEM_AREA, kSecondFields)}) {
        if (!area.fields.empty()) areas.push_back(std::move(area));
    }
    return areas;
}

Json ToJson(const std::vector<FruArea>& areas) {
    Json list = Json::array();
    for (const FruArea& area : areas) {
        Json fields = Json::array();  // names may repeat
        for (const auto& [name, value] : area.fields)
            fields.push_back({{"field", name}, {"value", value}});
        list.push_back({{"area", area.name},
                        {"fields", std::move(fields)},
                        {"problem", area.problem.empty() ? Json() : Json(area.problem)}});
    }
    return list;
}

Json Rows(const std::vector<FruArea>& areas) {
    Json rows = Json::array();
    for (const FruArea& area : areas) {
        for (const auto& [name, value] : area.fields)
            rows.push_back({{"area", area.name}, {"field", name}, {"value", value}});
        if (!area.problem.empty()) rows.push_back({{"area", area.name}, {"field", "(!)"}, {"value", area.problem}});
    }
    return rows;
}

}  // namespace

void ShowFru(const Library& library, uint8_t device, std::ostream& out, bool json, const Screen& screen) {
    const std::vector<FruArea> areas = ReadAreas(library, device);
    const Json rows = Rows(areas);
    if (json) {
        out << ToJson(areas).dump(2) << '\n';
    } else if (rows.empty()) {
        out << "the FRU image holds no areas\n";
    } else {
        out << FormatObjects(rows, screen);
    }
}

}  // namespace kvhost
