// FRU images: the standard inventory devices, and the product's own images behind OEM commands.

#include <algorithm>
#include <array>
#include <cstring>
#include <source_location>
#include <span>

#include "common/Checksum.h"
#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "lib_driverIF/FruLayout.h"
#include "lib_driverIF/KvPltfSvcIpmiCall.h"
#include "lib_driverIF/KvPltfSvcIpmiCmd.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_Fru.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_Report.h"
#include "lib_driverIF/KvPltfSvcLibPilot2.h"
#include "libplatform/KvPsBmc.h"
#include "libplatform/PXR_trace.h"

namespace ktx_ipmi {

namespace {

// Every BMC serves pieces of 16 bytes over every interface; most serve twice as many in the same time.
constexpr uint8_t kPiece = 32;
constexpr uint8_t kSafePiece = 16;
constexpr uint8_t kCompletionOutOfRange = 0xC9;

uint32_t ReportBadData(std::source_location where = std::source_location::current()) {
    return PXR_ReportError(MakeResult(fn::kGetFruInventoryData, Reason::BadData), where);
}

uint32_t ReportShort(std::source_location where = std::source_location::current()) {
    return PXR_ReportError(reason::kBadArguments, where);
}

/// Whether the controller refused a piece for its length: request or answer do not fit its buffers.
bool PieceTooLong() {
    constexpr std::array<uint32_t, 4> kCodes{0xC7, 0xC8, 0xCA, 0xFF};
    return std::ranges::find(kCodes, GetRecentCompCode()) != kCodes.end();
}

/// Before each piece: others are let in. @return 0; 0x6000B10D the process is told to end; 0x6000B104
uint32_t MayGoOn(IpmiBracket& bracket, std::source_location where = std::source_location::current()) {
    if (ShallEnd()) return PXR_ReportError(MakeResult(fn::kNone, service_reason::kTerminating), where);
    return bracket.LetOthersIn() ? 0 : ReportNotOpened(MakeResult(fn::kNone, service_reason::kNotOpened), where);
}

/// Reads out.size() bytes of the OEM FRU. @return 0; the failure of a piece; 0x6000B100 the image ends before
uint32_t ReadOemBytes(IpmiBracket& bracket, uint32_t offset, std::span<uint8_t> out) {
    while (!out.empty()) {
        if (offset >= kLargestFruImage) return ReportShort();
        if (const uint32_t rc = MayGoOn(bracket)) return rc;
        const auto count = static_cast<uint8_t>(std::min<size_t>(out.size(), kPiece));
        OemAnswer answer;
        if (const uint32_t rc = ReadOEMFRU(bracket.Handle(), g_bBmcAdr, static_cast<uint16_t>(offset), count, &answer))
            return rc;
        const size_t received = std::min<size_t>(answer.length, count);
        if (received == 0) return ReportShort();
        std::copy_n(answer.bytes.begin(), received, out.begin());
        out = out.subspan(received);
        offset += static_cast<uint32_t>(received);
    }
    return 0;
}

// The OEM FRU's multi-records

constexpr uint32_t kMostRecords = 256;  // a list that is longer has lost its end

struct RecordHeader {
    std::array<uint8_t, fru::kRecordHeaderSize> bytes;

    uint8_t Type() const { return bytes[0]; }
    bool Last() const { return (bytes[1] & fru::kEndOfList) != 0; }
    uint8_t Version() const { return bytes[1] & fru::kVersionBits; }
    uint8_t Length() const { return bytes[2]; }
    uint8_t Checksum() const { return bytes[3]; }
    /// The two kinds of records that the product's inventory is made of: "BASIC" and "QVM".
    bool Wanted() const { return (Type() == 0xC1 && Version() >= 8) || (Type() == 0xF0 && Version() >= 2); }
};

void Dump(std::span<const uint8_t> bytes) {
    PXR_mem_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "OEM FRU\n", bytes.data(),
                  static_cast<int>(bytes.size()));
}

constexpr const char* kSource = "lib_driverIF/KvPltfSvcIpmiMain";

uint32_t ReadCommonHeader(IpmiBracket& bracket, std::array<uint8_t, fru::kCommonHeaderSize>& header) {
    if (const uint32_t rc = ReadOemBytes(bracket, 0, header)) {
        KvRasLog(1, kSource, __LINE__, "Can't read OEM Common Header.(Offset=%u)", 0u);
        Dump(header);
        return rc;
    }
    if (IsSumZero(header)) return 0;
    KvRasLog(1, kSource, __LINE__, "Unmatch checksum OEM Common Header.(Offset=%u)", 0u);
    Dump(header);
    return ReportBadData();
}

uint32_t ReadRecordHeader(IpmiBracket& bracket, uint32_t offset, RecordHeader& header) {
    if (const uint32_t rc = ReadOemBytes(bracket, offset, header.bytes)) {
        KvRasLog(1, kSource, __LINE__, "Can't read OEM Murti Record Header.(Offset=%u)", offset);
        Dump(header.bytes);
        return rc;
    }
    if (IsSumZero(header.bytes)) return 0;
    KvRasLog(1, kSource, __LINE__, "Unmatch checksum OEM Murti Record Header.(Offset=%u)", offset);
    Dump(header.bytes);
    return ReportBadData();
}

/// Appends a record with its header to those read so far.
uint32_t ReadRecord(IpmiBracket& bracket, uint32_t offset, const RecordHeader& header, uint8_t* buffer,
                    uint32_t* length) {
    const size_t size = fru::kRecordHeaderSize + header.Length();
    if (size > kOemFruRecordsSize - *length) {
        KvRasLog(1, kSource, __LINE__, "Record size(%d) will be overflow. now version is unsupported.",
                 header.Length());
        Dump(header.bytes);
        return ReportBadData();
    }
    const std::span<uint8_t> record(buffer + *length, size);
    const std::span<uint8_t> data = record.subspan(fru::kRecordHeaderSize);
    std::ranges::copy(header.bytes, record.begin());
    if (const uint32_t rc = ReadOemBytes(bracket, offset + fru::kRecordHeaderSize, data)) {
        KvRasLog(1, kSource, __LINE__, "Can't read OEM Murti Record.(Offset=%u)", offset);
        Dump(header.bytes);
        return rc;
    }
    if (static_cast<uint8_t>(SumOf(data) + header.Checksum()) != 0) {
        KvRasLog(1, kSource, __LINE__, "Unmatch checksum OEM Murti Record.(Offset=%u)", offset);
        Dump(record);
        return ReportBadData();
    }
    *length += static_cast<uint32_t>(size);
    return 0;
}

/// Reads a piece of a standard FRU image, in the size that the controller can take.
uint32_t ReadPiece(IpmiBracket& bracket, uint8_t fru, uint32_t offset, std::span<uint8_t> out, uint8_t& piece,
                   size_t& received) {
    while (true) {
        const auto count = static_cast<uint8_t>(std::min<size_t>(out.size(), piece));
        uint8_t returned = 0;
        const uint32_t rc = ReadFruInventoryData(bracket.Handle(), g_bBmcAdr, fru, static_cast<uint16_t>(offset), count,
                                                 &returned, out.data());
        received = returned;
        if (rc == 0) return returned != 0 ? 0 : ReportShort();
        if (piece <= kSafePiece || !PieceTooLong()) return rc;
        piece = kSafePiece;
    }
}

}  // namespace

uint32_t ReadFruImage(IpmiBracket& bracket, uint8_t fru, uint32_t offset, std::span<uint8_t> out, uint16_t* read) {
    *read = 0;
    uint8_t piece = kPiece;
    while (!out.empty()) {
        if (offset >= kLargestFruImage) return ReportShort();
        if (const uint32_t rc = MayGoOn(bracket)) return rc;
        size_t received = 0;
        if (const uint32_t rc = ReadPiece(bracket, fru, offset, out, piece, received)) return rc;
        out = out.subspan(received);
        offset += static_cast<uint32_t>(received);
        *read = static_cast<uint16_t>(*read + received);
    }
    return 0;
}

bool CheckReadVelmoraFruData() {
    return CheckSMBIOSCode() == kSmbiosCode003 && CheckBMCType() > kBmcTypePilot2;
}

uint32_t ReadVelmoraFruData(IpmiBracket& bracket, uint8_t* image, uint32_t* length) {
    for (*length = 0; *length < kLargestFruImage;) {
        if (const uint32_t rc = MayGoOn(bracket)) return rc;
        const auto count = static_cast<uint8_t>(std::min<uint32_t>(kPiece, kLargestFruImage - *length));
        OemAnswer answer;
        const uint32_t rc =
            ReadVelmoraFruCmd(bracket.Handle(), g_bBmcAdr, static_cast<uint16_t>(*length), count, &answer);
        // An offset behind the last byte is out of range: the image ended with the piece before.
        if (rc == reason::kOemRefused && *length > 0 && GetRecentCompCode() == kCompletionOutOfRange) return 0;
        if (rc != 0) return rc;
        const uint32_t received = std::min<uint32_t>(answer.length, count);
        memcpy(image + *length, answer.bytes.data(), received);
        *length += received;
        if (received < count) break;
    }
    return *length != 0 ? 0 : ReportShort();
}

uint32_t ReadOEMFRURecords(IpmiBracket& bracket, uint8_t* buffer, uint32_t* length) {
    memset(buffer, 0, kOemFruRecordsSize);
    *length = 0;
    std::array<uint8_t, fru::kCommonHeaderSize> common{};
    if (const uint32_t rc = ReadCommonHeader(bracket, common)) return rc;
    uint32_t offset = common[fru::kRecordArea] * uint32_t{fru::kAreaUnit};
    if (offset == 0) return 0;  // no such area
    for (uint32_t count = 0; count < kMostRecords; ++count) {
        RecordHeader header{};
        if (const uint32_t rc = ReadRecordHeader(bracket, offset, header)) return rc;
        if (header.Wanted()) {
            if (const uint32_t rc = ReadRecord(bracket, offset, header, buffer, length)) return rc;
        }
        if (header.Last()) return 0;
        offset += uint32_t{fru::kRecordHeaderSize} + header.Length();
    }
    return ReportBadData();
}

}  // namespace ktx_ipmi

using namespace ktx_ipmi;

uint32_t KvPsGetFruInventoryAreaSize(uint8_t fru, uint16_t* size) {
    if (size == nullptr) return PXR_ReportError(MakeResult(fn::kGetFruInventoryData, Reason::NullArgument));
    *size = 0;
    const IpmiBracket bracket;
    if (!bracket) return ReportNotOpened(MakeResult(fn::kNone, service_reason::kNotOpened));
    uint8_t access = 0;
    return GetFruInventoryAreaInfo(bracket.Handle(), g_bBmcAdr, fru, size, &access);
}

uint32_t KvPsReadFruInventoryData(uint8_t fru, uint16_t offset, uint16_t* size, uint8_t* buffer) {
    if (size == nullptr || buffer == nullptr) {
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "InValid_Parameter. %s", "pbData");
        return PXR_ReportError(MakeResult(fn::kGetFruInventoryData, Reason::NullArgument));
    }
    const std::span<uint8_t> out(buffer, *size);
    *size = 0;
    IpmiBracket bracket;
    if (!bracket) return ReportNotOpened(MakeResult(fn::kNone, service_reason::kNotOpened));
    return ReadFruImage(bracket, fru, offset, out, size);
}
