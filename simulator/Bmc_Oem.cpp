/// Commands of the product's own network functions.

#include <algorithm>

#include "simulator/Bmc.h"

namespace sim {
namespace {

Response Record(const std::optional<Bytes>& record) {
    return record ? Response{cc::kOk, *record} : Response{cc::kInvalidCommand, {}};
}

Response BySelector(const std::map<uint8_t, Bytes>& records, const Bytes& data) {
    if (data.size() != 1) return {cc::kBadLength, {}};
    const auto found = records.find(data[0]);
    return found == records.end() ? Response{cc::kInvalidData, {}} : Response{cc::kOk, found->second};
}

/// A count, then so many characters.
Response CountedText(const std::optional<std::string>& text) {
    if (!text) return {cc::kInvalidCommand, {}};
    Response response{cc::kOk, {static_cast<uint8_t>(text->size())}};
    response.data.insert(response.data.end(), text->begin(), text->end());
    return response;
}

/// Offset (a word) and count.
Response Piece(const std::optional<Bytes>& image, const Bytes& data) {
    if (!image) return {cc::kInvalidCommand, {}};
    if (data.size() != 3) return {cc::kBadLength, {}};
    const size_t offset = Word(data, 0);
    if (offset >= image->size()) return {cc::kOutOfRange, {}};
    const size_t end = std::min(offset + data[2], image->size());
    const auto at = [&](size_t position) { return image->begin() + static_cast<std::ptrdiff_t>(position); };
    return {cc::kOk, Bytes(at(offset), at(end))};
}

}  // namespace

Response Controller::HandleOem(const Request& request) {
    const bool dimmState = request.netFn == netfn::kOemIntel;
    if (!dimmState) return oem_.Handle(request);
    return request.command == 0x21 ? BySelector(oem_.dimmStates, request.data) : Response{cc::kInvalidCommand, {}};
}

Response OemData::Handle(const Request& request) {
    switch (request.command) {
        case 0x00:
            lastSvpCommand = request.data;
            return {acceptsSvp ? cc::kOk : cc::kInvalidCommand, {}};
        case 0x22:
            return Record(modelModifiers);
        case 0x23:
            return BySelector(capacity, request.data);
        case 0x24:
            return CountedText(productName);
        case 0x26:
            return CountedText(processorName);
        case 0x28:
            return Piece(fru, request.data);
        case 0x2A:
            return Record(capability);
        case 0x2C:
            return Piece(secondFru, request.data);
        default:
            return {cc::kInvalidCommand, {}};
    }
}

}  // namespace sim
