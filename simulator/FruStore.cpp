#include "simulator/FruStore.h"

#include <algorithm>
#include <stdexcept>

namespace sim {
namespace {

constexpr uint8_t kAreaVersion = 0x01;
constexpr uint8_t kEnglish = 0x19;
constexpr uint8_t kEndOfFields = 0xC1;
constexpr uint8_t kEightBitText = 0xC0;
constexpr size_t kLongestField = 63;
constexpr size_t kUnit = 8;  // areas begin and end on multiples of 8 bytes
constexpr size_t kHeaderSize = 8;

void Append(Bytes& bytes, const Bytes& more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

void AppendFields(Bytes& area, const std::vector<std::string>& fields) {
    for (std::string text : fields) {
        if (text.size() > kLongestField) throw std::length_error("a FRU field has at most 63 characters");
        if (text.size() == 1) text += ' ';  // one character alone would read as the end of the fields
        area.push_back(static_cast<uint8_t>(text.empty() ? 0 : kEightBitText | text.size()));
        area.insert(area.end(), text.begin(), text.end());
    }
    area.push_back(kEndOfFields);
}

/// Pads, sets the length byte and adds the checksum. Nothing when all texts are empty.
Bytes Area(Bytes head, const std::vector<std::string>& fields) {
    if (std::all_of(fields.begin(), fields.end(), [](const std::string& text) { return text.empty(); })) return {};
    AppendFields(head, fields);
    head.resize((head.size() + 1 + kUnit - 1) / kUnit * kUnit - 1);
    head[1] = static_cast<uint8_t>((head.size() + 1) / kUnit);
    head.push_back(Checksum(head));
    return head;
}

Bytes Records(const std::vector<FruImage::MultiRecord>& records) {
    constexpr uint8_t kEndOfList = 0x80;
    Bytes area;
    for (const FruImage::MultiRecord& record : records) {
        if (record.data.size() > 0xFF) throw std::length_error("a FRU multi-record has at most 255 bytes");
        const bool last = &record == &records.back();
        Bytes header{record.type, static_cast<uint8_t>((record.version & 0x0F) | (last ? kEndOfList : 0)),
                     static_cast<uint8_t>(record.data.size()), Checksum(record.data)};
        header.push_back(Checksum(header));
        Append(area, header);
        Append(area, record.data);
    }
    return area;
}

}  // namespace

const Bytes* FruStore::Find(uint8_t device) const {
    const auto found = images_.find(device);
    return found == images_.end() ? nullptr : &found->second;
}

Response FruStore::GetAreaInfo(const Request& request) const {
    if (request.data.size() != 1) return {cc::kBadLength, {}};
    const Bytes* image = Find(request.data[0]);
    if (image == nullptr) return {cc::kNotPresent, {}};
    const auto lie = sizeLies_.find(request.data[0]);
    Response response;
    PutWord(response.data, lie != sizeLies_.end() ? lie->second : static_cast<unsigned>(image->size()));
    response.data.push_back(0);  // accessed by bytes
    return response;
}

Response FruStore::Read(const Request& request) const {
    if (request.data.size() != 4) return {cc::kBadLength, {}};
    const Bytes* image = Find(request.data[0]);
    if (image == nullptr) return {cc::kNotPresent, {}};
    const size_t offset = Word(request.data, 1);
    const size_t count = request.data[3];
    if (offset >= image->size()) return {cc::kOutOfRange, {}};
    if (count > largestPiece_) return {cc::kTooManyBytes, {}};
    const size_t given = std::min(count, image->size() - offset);
    const auto first = image->begin() + static_cast<std::ptrdiff_t>(offset);
    Response response{cc::kOk, {static_cast<uint8_t>(given)}};
    response.data.insert(response.data.end(), first, first + static_cast<std::ptrdiff_t>(given));
    return response;
}

Bytes FruImage::Encode() const {
    Bytes internal;
    if (!internalUse.empty()) {
        internal.push_back(kAreaVersion);
        Append(internal, internalUse);
        internal.resize((internal.size() + kUnit - 1) / kUnit * kUnit);
    }
    // In the order of the common header's offsets. The board's date of manufacture: not given.
    const Bytes areas[] = {internal, Area({kAreaVersion, 0, chassisType}, chassis),
                           Area({kAreaVersion, 0, kEnglish, 0, 0, 0}, board),
                           Area({kAreaVersion, 0, kEnglish}, product), Records(records)};
    Bytes header{kAreaVersion};
    Bytes body;
    for (const Bytes& area : areas) {
        header.push_back(static_cast<uint8_t>(area.empty() ? 0 : (kHeaderSize + body.size()) / kUnit));
        Append(body, area);
    }
    header.push_back(0);
    header.push_back(Checksum(header));
    Append(header, body);
    header.resize(std::max(header.size(), size));
    return header;
}

}  // namespace sim
