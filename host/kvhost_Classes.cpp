// The commands about classes.
#include "host/kvhost_Classes.h"

#include <algorithm>
#include <iostream>
#include <set>
#include <stdexcept>

#include "host/kvhost_Text.h"

namespace kvhost {

namespace {

/// The classes to show. What commands serve (powering off) is no query.
std::vector<uint32_t> SelectClasses(const std::vector<uint32_t>& served, const Options& options) {
    std::vector<uint32_t> ids;
    if (options.all) {
        for (const uint32_t id : served) {
            if (id != KTX_CLS_POWER_CTRL) ids.push_back(id);
        }
        return ids;
    }
    for (const std::string& name : options.classes) {
        if (const auto id = FindClass(name)) ids.push_back(*id);
    }
    return ids;
}

}  // namespace

int ListClasses(const Context& context) {
    const std::vector<uint32_t> served = context.session->ServedClasses();
    const std::set<uint32_t> ids(served.begin(), served.end());
    auto list = nlohmann::ordered_json::array();
    std::vector<Row> rows;
    for (uint32_t id = 0; id < KTX_CLASS_COUNT; ++id) {
        const std::string_view name = ClassCodeName(id);
        const bool isServed = ids.contains(id);
        list.push_back({{"id", id}, {"class", name}, {"name", Key(name)}, {"served", isServed}});
        rows.push_back({std::to_string(id), Key(name), isServed ? "yes" : "no"});
    }
    if (context.options.json) {
        std::cout << list.dump(2) << '\n';
    } else {
        std::cout << FormatTable({{"id", true}, {"name"}, {"served"}}, rows, context.screen);
    }
    return kSuccess;
}

int ShowClasses(const Context& context) {
    const Options& options = context.options;
    const std::vector<uint32_t> served = context.session->ServedClasses();
    int status = kSuccess;
    auto json = nlohmann::ordered_json::array();
    bool first = true;
    std::string empty;  // names of classes that have nothing to show
    for (const uint32_t id : SelectClasses(served, options)) {
        try {
            if (std::find(served.begin(), served.end(), id) == served.end()) {
                throw std::runtime_error("the plug-in does not serve this class");
            }
            const ClassData data = context.session->Query(id);
            if (options.json) {
                json.push_back(ToJson(data));
            } else if (options.all && data.instances.empty()) {
                empty += (empty.empty() ? "" : ", ") + ReadableName(ClassCodeName(id));
            } else {
                std::cout << (first ? "" : "\n") << FormatClass(data, context.screen);
                first = false;
            }
        } catch (const std::runtime_error& failure) {
            PrintError(failure.what() + (" (" + Key(ClassCodeName(id)) + ")"));
            status = kFailure;
        }
    }
    if (options.json) std::cout << json.dump(2) << '\n';
    if (!empty.empty()) std::cout << (first ? "" : "\n") << "without instances: " << empty << '\n';
    return status;
}

const std::string* FindWrongClass(const Options& options) {
    for (const std::string& name : options.classes) {
        if (!FindClass(name)) return &name;
    }
    return nullptr;
}

}  // namespace kvhost
