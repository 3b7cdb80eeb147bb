// Commands to the controller's storage: event log, sensor data records, FRU inventory.

#include <cstring>

#include "lib_driverIF/KvPltfSvcIpmiCmd.h"
#include "lib_driverIF/KvPltfSvcIpmiCmd_Exchange.h"
#include "libplatform/PXR_trace.h"

namespace ktx_ipmi {

namespace {

constexpr Command kGetSelInfo{netfn::kStorage, 0x40, 0x31};
constexpr Command kReserveSel{netfn::kStorage, 0x42, 0x32};
constexpr Command kGetSelEntry{netfn::kStorage, 0x43, 0x33};
constexpr Command kDeleteSelEntry{netfn::kStorage, 0x46, 0x34};
constexpr Command kClearSel{netfn::kStorage, 0x47, 0x35};
constexpr Command kGetSelTime{netfn::kStorage, 0x48, 0x36};
constexpr Command kSetSelTime{netfn::kStorage, 0x49, 0x3C};
constexpr Command kReserveSdr{netfn::kStorage, 0x22, 0x37};
constexpr Command kGetSdr{netfn::kStorage, 0x23, 0x38};
constexpr Command kGetSdrHeader{netfn::kStorage, 0x23, 0x3B};
constexpr Command kGetFruAreaInfo{netfn::kStorage, 0x10, 0x3F6};
constexpr Command kReadFruData{netfn::kStorage, 0x11};

constexpr uint8_t kWholeEntry = 0xFF;     // bytes to read
constexpr uint32_t kSelEntryAnswer = 21;  // header of 3, next id, 16 bytes
constexpr uint8_t kSdrHeaderLength = 5;

template <typename Number>
uint32_t GetNumber(Exchange& exchange, Number* out, Number (ByteReader::*read)()) {
    if (out != nullptr) *out = 0;
    if (const uint32_t rc = exchange.Send({}, out != nullptr)) return rc;
    ByteReader in = exchange.Reader();
    *out = (in.*read)();
    return exchange.Decoded(in);
}

uint32_t ReadSdrPiece(Exchange& exchange, uint16_t reservation, uint16_t recordId, uint8_t offset, uint8_t count,
                      uint16_t* nextId, uint8_t* bytes, uint32_t* received) {
    const bool outputs = nextId != nullptr && bytes != nullptr && received != nullptr;
    if (outputs) {
        *nextId = 0;
        *received = 0;
        memset(bytes, 0, count);
    }
    if (const uint32_t rc = exchange.Send(
            {Low(reservation), High(reservation), Low(recordId), High(recordId), offset, count}, outputs)) {
        return rc;
    }
    ByteReader in = exchange.Reader();
    *nextId = in.U16();
    *received = static_cast<uint32_t>(std::min<size_t>(in.Rest().size(), count));
    const uint32_t rc = exchange.Decoded(in);
    in.Bytes({bytes, count});
    return rc;
}

}  // namespace

uint32_t GetSelInfo(int handle, uint8_t address, SelInfo* out) {
    Exchange exchange(handle, address, kGetSelInfo);
    if (out != nullptr) *out = {};
    if (const uint32_t rc = exchange.Send({}, out != nullptr)) return rc;
    ByteReader in = exchange.Reader();
    out->version = in.U8();
    out->entries = in.U16();
    out->freeSpace = in.U16();
    out->lastAddition = in.U32();
    out->lastErase = in.U32();
    const uint32_t rc = exchange.Decoded(in);
    out->operationSupport = in.U8();  // who leaves it out supports nothing of it
    return rc;
}

uint32_t ReserveSel(int handle, uint8_t address, uint16_t* reservation) {
    Exchange exchange(handle, address, kReserveSel);
    return GetNumber(exchange, reservation, &ByteReader::U16);
}

uint32_t GetSelEntry(int handle, uint8_t address, uint16_t reservation, uint16_t recordId, uint16_t* nextId,
                     KVPS_SEL_ENTRY* out) {
    const bool outputs = nextId != nullptr && out != nullptr;
    if (nextId != nullptr) *nextId = kLastRecord;
    if (out != nullptr) *out = {};
    Exchange exchange(handle, address, kGetSelEntry);
    if (const uint32_t rc = exchange.Send(
            {Low(reservation), High(reservation), Low(recordId), High(recordId), 0, kWholeEntry}, outputs)) {
        return rc;
    }
    if (const size_t length = exchange.Data().size() + 3; length != kSelEntryAnswer) {
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "GetSelEntry Command Invalid Response. Len=%d",
                  static_cast<int>(length));
        return exchange.ReportPlain(reason::kBadArguments);
    }
    ByteReader in = exchange.Reader();
    *nextId = in.U16();
    std::array<uint8_t, sizeof *out> record{};
    in.Bytes(record);
    memcpy(out, record.data(), record.size());
    return 0;
}

uint32_t DeleteSelEntry(int handle, uint8_t address, uint16_t reservation, uint16_t recordId) {
    return Exchange(handle, address, kDeleteSelEntry)
        .Send({Low(reservation), High(reservation), Low(recordId), High(recordId)});
}

uint32_t ClearSel(int handle, uint8_t address, uint16_t reservation, uint8_t action, uint8_t* progress) {
    if (progress != nullptr) *progress = 0;
    Exchange exchange(handle, address, kClearSel);
    if (const uint32_t rc =
            exchange.Send({Low(reservation), High(reservation), 'C', 'L', 'R', action}, progress != nullptr)) {
        return rc;
    }
    *progress = exchange.Reader().U8();  // a controller that answers nothing has nothing left to do
    return 0;
}

uint32_t GetSelTime(int handle, uint8_t address, uint32_t* time) {
    Exchange exchange(handle, address, kGetSelTime);
    return GetNumber(exchange, time, &ByteReader::U32);
}

uint32_t SetSelTime(int handle, uint8_t address, uint32_t time) {
    const auto low = static_cast<uint16_t>(time);
    const auto high = static_cast<uint16_t>(time >> 16);
    return Exchange(handle, address, kSetSelTime).Send({Low(low), High(low), Low(high), High(high)});
}

uint32_t ReserveSdrRepository(int handle, uint8_t address, uint16_t* reservation) {
    Exchange exchange(handle, address, kReserveSdr);
    return GetNumber(exchange, reservation, &ByteReader::U16);
}

uint32_t GetSdr(int handle, uint8_t address, uint16_t reservation, uint16_t recordId, uint8_t offset, uint8_t count,
                uint16_t* nextId, uint8_t* bytes, uint32_t* received) {
    Exchange exchange(handle, address, kGetSdr);
    return ReadSdrPiece(exchange, reservation, recordId, offset, count, nextId, bytes, received);
}

uint32_t GetSdrHeader(int handle, uint8_t address, uint16_t reservation, uint16_t recordId, uint16_t* nextId,
                      uint8_t header[5]) {
    Exchange exchange(handle, address, kGetSdrHeader);
    uint32_t received = 0;
    if (const uint32_t rc =
            ReadSdrPiece(exchange, reservation, recordId, 0, kSdrHeaderLength, nextId, header, &received)) {
        return rc;
    }
    return received == kSdrHeaderLength ? 0 : exchange.Report(reason::kBadArguments);
}

uint32_t GetFruInventoryAreaInfo(int handle, uint8_t address, uint8_t fru, uint16_t* size, uint8_t* access) {
    const bool outputs = size != nullptr && access != nullptr;
    if (outputs) {
        *size = 0;
        *access = 0;
    }
    Exchange exchange(handle, address, kGetFruAreaInfo);
    if (const uint32_t rc = exchange.Send({fru}, outputs)) return rc;
    ByteReader in = exchange.Reader();
    *size = in.U16();
    *access = in.U8();
    return exchange.Decoded(in);
}

uint32_t ReadFruInventoryData(int handle, uint8_t address, uint8_t fru, uint16_t offset, uint8_t count,
                              uint8_t* returned, uint8_t* data) {
    const bool outputs = returned != nullptr && data != nullptr;
    if (outputs) {
        *returned = 0;
        memset(data, 0, count);
    }
    Exchange exchange(handle, address, kReadFruData);
    if (const uint32_t rc = exchange.Send({fru, Low(offset), High(offset), count}, outputs)) return rc;
    ByteReader in = exchange.Reader();
    const uint8_t claimed = in.U8();
    if (const uint32_t rc = exchange.Decoded(in)) return rc;
    *returned = static_cast<uint8_t>(std::min<size_t>({claimed, count, in.Rest().size()}));
    in.Bytes({data, *returned});
    return 0;
}

}  // namespace ktx_ipmi
