// The command that checks definition files.
#include "host/kvhost_CheckMaps.h"

#include <iostream>

#include "host/kvhost_Text.h"
#include "libplatform/KvDfCheck.h"

namespace kvhost {

namespace {

const char* KindOf(const KVDF_REMARK& remark) {
    switch (remark.kind) {
        case KVDF_REMARK_SKIPPED:
            return "left out";
        case KVDF_REMARK_UNREADABLE:
            return "not read";
        default:
            return "note";
    }
}

nlohmann::ordered_json ToJson(const KVDF_REMARK& remark) {
    return {{"file", remark.file},       {"line", remark.line},       {"kind", KindOf(remark)},
            {"section", remark.section}, {"element", remark.element}, {"reason", remark.reason}};
}

/// "inv_map:12: left out: [BodyFan] INSTANCE(...: why"
std::string ToLine(const KVDF_REMARK& remark) {
    std::string line = remark.file;
    if (remark.line != 0) line += ":" + std::to_string(remark.line);
    line += std::string(": ") + KindOf(remark) + ": ";
    for (const char* const part : {remark.section, remark.element}) {
        if (*part != '\0') line += Printable(part) + " ";
    }
    return line + (*remark.section != '\0' || *remark.element != '\0' ? "- " : "") + Printable(remark.reason);
}

}  // namespace

int CheckMaps(const Context& context) {
    struct Found {
        bool json;
        nlohmann::ordered_json remarks = nlohmann::ordered_json::array();
    } found{context.options.json};
    const auto listen = [](const KVDF_REMARK* remark, void* data) {
        auto& to = *static_cast<Found*>(data);
        if (to.json) {
            to.remarks.push_back(ToJson(*remark));
        } else {
            std::cout << ToLine(*remark) << '\n';
        }
    };
    const std::string& directory = context.options.directory;
    KVDF_CHECK_COUNTS counts = {};
    context.library.Check(
        context.library.KvDfCheckDefinitions(directory.empty() ? nullptr : directory.c_str(), listen, &found, &counts));
    if (context.options.json) {
        std::cout << nlohmann::ordered_json{{"kept", counts.kept},
                                            {"skipped", counts.skipped},
                                            {"remarks", found.remarks}}
                         .dump(2)
                  << '\n';
    } else {
        std::cout << counts.kept << " elements kept, " << counts.skipped << " left out\n";
    }
    return counts.skipped == 0 ? kSuccess : kFailure;
}

}  // namespace kvhost
