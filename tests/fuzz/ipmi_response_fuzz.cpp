// Whatever a management controller answers: bytes of its registers, messages from the IPMB behind it, answers to
// commands, and its sensor data records. The first byte chooses which.

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "cover/FileLockCover.h"
#include "lib_driverIF/KvLibIpmi_Interface.h"
#include "lib_driverIF/KvLibIpmi_Message.h"
#include "lib_driverIF/KvLibIpmi_Queue.h"
#include "lib_driverIF/KvPltfSvcIpmiCmd.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_Fru.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_IdString.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_Sdr.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_SdrPack.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_SdrRecord.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_SdrTable.h"
#include "libplatform/KvPsBmc.h"
#include "tests/support/RecordingClock.h"
#include "tests/support/ScriptedDevice.h"

extern _FLKHANDLE* g_hipmilock;

namespace {

/// Registers that read as the input says, one byte after the other; at its end the controller is not available (KCS) or
/// no longer moves (SMIC).
const uint8_t* g_next = nullptr;
const uint8_t* g_end = nullptr;

uint8_t ReadNext(uint16_t /*reg*/) {
    return g_next != g_end ? *g_next++ : 0x10;
}
int WriteNothing(uint16_t /*reg*/, uint8_t /*value*/) {
    return 0;
}
constexpr IpmiRegisterTable kInput = {WriteNothing, ReadNext};

void Require(bool holds, const char* what) {
    if (holds) return;
    fprintf(stderr, "broken: %s\n", what);
    abort();
}

/// A message to the BMC, over registers that answer what they like.
void Exchange() {
    std::vector<uint8_t> buffer(kIpmiMaxMessage);  // no byte more: the sanitizer watches its end
    buffer[0] = 0x18;
    buffer[1] = 0x01;
    uint32_t length = kIpmiMaxMessage;
    uint8_t status = 0;
    const int result = ipmi_message(buffer.data(), 2, &length, &status);
    Require(result <= 0, "result is 0 or negative");
    Require(length <= kIpmiMaxMessage, "no response is longer than a message");
}

/// A response into as little room as the first byte says.
void ReadOnce() {
    const uint32_t capacity = ReadNext(0);
    std::vector<uint8_t> response(capacity);
    uint32_t length = capacity;
    uint8_t status = 0;
    if (capacity > 0) IPMI_READ.load()(response.data(), &length, &status);
    Require(length <= kIpmiMaxMessage, "no response is longer than a message");
}

/// A Get Message response for a requester who waits.
void Bridge(const uint8_t* data, uint32_t size) {
    const std::vector<uint8_t> message(data, data + std::min(size, kIpmiMaxMessage));
    const auto received = static_cast<uint32_t>(message.size());
    std::vector<uint8_t> out(16);
    uint32_t length = 16;
    if (ipmb_create_response_data(message.data(), received, out.data(), &length) == 0) {
        Require(length == received - 7, "the response is the message without its header");
    }

    const uint8_t sequence = ipmb_reqq_push(ipmb_reqq_reserve(), {0x24, 0x01});
    ipmb_reqq_deq(message.data(), received);
    length = 16;
    const int result = ipmb_reqq_enq(sequence, out.data(), &length);
    Require(result == 0 || result == -110, "the requester has a response or none");
    Require(result != 0 || (length == received && message[6] == 0x24 && message[8] == 0x01), "it is the right one");
    Require(ipmb_seq_check() == 0, "the number is free again");
    ipmb_reqq_term();
}

using namespace ktx_ipmi;

/// A controller whose answers stand in the input: a length, the completion code and so many data bytes. No length is
/// above 0x8F, those say how often the driver fails; at the end of the input it always does.
class Controller : public ScriptedDevice {
    std::optional<std::vector<uint8_t>> Answer() override {
        constexpr uint8_t kFails = 0x90;
        if (g_next == g_end || *g_next >= kFails) {
            if (g_next != g_end) ++g_next;
            return std::nullopt;
        }
        std::vector<uint8_t> answer(ReadNext(0));
        std::ranges::generate(answer, [] { return ReadNext(0); });
        return answer;
    }
};

/// The lock is of no interest here: any file will do.
void UseController() {
    static Controller controller;
    static const bool once = [] {
        char path[] = "/tmp/ipmi_response_fuzz.XXXXXX";
        close(mkstemp(path));
        g_hipmilock = OpenFLock(path);
        unlink(path);
        return g_hipmilock != nullptr;
    }();
    Require(once, "there is a lock");
}

void AskEverything() {
    UseController();
    IpmiBracket bracket;
    const uint8_t count = ReadNext(0);
    std::vector<uint8_t> bytes(count);  // no byte more, as above
    uint16_t nextId = 0;
    uint32_t received = 0;
    uint8_t returned = 0;
    KVPS_SEL_ENTRY entry;
    OemAnswer answer;
    GetSelEntry(bracket.Handle(), 0x20, 0, 0, &nextId, &entry);
    GetSdr(bracket.Handle(), 0x20, 0, 0, 0, count, &nextId, bytes.data(), &received);
    Require(count == 0 || received <= count, "no more of a record than asked for");
    ReadFruInventoryData(bracket.Handle(), 0x20, 0, 0, count, &returned, bytes.data());
    Require(returned <= count, "no more of an image than asked for");
    received = count;
    GetLanConfiguration(bracket.Handle(), 0x20, 1, 3, 0, 0, bytes.data(), &received);
    Require(received <= count, "no more of a parameter than there is room for");
    OEMGetModelModifiers(bracket.Handle(), 0x20, &answer);
    Require(answer.length <= 9, "no more modifiers than there are");
    std::vector<char> name(KVPS_PROCESSOR_NAME_SIZE);
    if (KvPsGetProcessorName(name.data()) == 0) Require(name.back() == '\0', "a name has an end");
    KvPsGetLanConfiguration(bytes.data(), count, 3);
    std::vector<uint8_t> image(kLargestFruImage);
    uint32_t length = 0;
    if (ReadVelmoraFruData(bracket, image.data(), &length) == 0) Require(length <= image.size(), "it fits");
    image.resize(kOemFruRecordsSize);
    ReadOEMFRURecords(bracket, image.data(), &length);
    Require(length <= image.size(), "they fit");
}

void RequireGoodTable() {
    unsigned long count = 0;
    SDR* records = nullptr;
    if (KvPsGetAllSdrData(&count, &records) != 0) return;
    const std::vector<SDR> all(records, records + count);
    free(records);
    for (const SDR& sdr : all) {
        Require(memchr(sdr.name, 0, sizeof sdr.name) != nullptr, "a name has an end");
        Require(sdr.number != kNoSensor && sdr.lun <= kLastLun, "it is a sensor");
        Require(HasSensorRecord(sdr.owner, sdr.lun, sdr.number), "it can be found");
    }
}

void WalkRepository() {
    UseController();
    ClearSensorTables();
    IpmiBracket bracket;
    GetDeviceInfo(bracket);
    Require(MakeSdrTable(), "there is memory");
    GetAllSdr(bracket);
    RequireGoodTable();
}

/// One record, and its bytes as an ID string.
void PackRecord(const uint8_t* data, uint32_t size) {
    std::vector<uint8_t> record(kMaxSdrSize);
    std::copy_n(data, std::min(size, kMaxSdrSize), record.begin());
    std::fill(record.begin() + SdrLength(record.data()), record.end(), uint8_t{0});
    ClearSensorTables();
    DEVICE_INFO device{};
    device.address = record[sdr_byte::kOwner];
    device.lun = OwnerLun(record[sdr_byte::kLun]);
    AddSensorDevice(device);
    Require(MakeSdrTable(), "there is memory");
    PackFullSdr(record.data(), nullptr);
    PackCompactSdr(record.data(), nullptr);
    PackEvonlySdr(record.data(), nullptr);
    RequireGoodTable();

    const uint32_t characters = record[0] & kIdLengthBits;
    const std::vector<uint8_t> text(record.begin(),
                                    record.begin() + 1 + (characters * BitsPerIdCharacter(record[0]) + 7) / 8);
    std::vector<char> out(1 + record[1] % KVPS_SENSOR_NAME_SIZE);
    GetIdString(text.data(), out.data(), static_cast<uint32_t>(out.size()));
    Require(memchr(out.data(), 0, out.size()) != nullptr, "a text has an end");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static RecordingClock clock;
    clock.pauses.clear();
    if (size == 0) return 0;
    const uint8_t choice = data[0];
    g_next = data + 1;
    g_end = data + size;
    if (choice % 2 == 0)
        ipmi_set_function_kcs_ioport(0x0CA2);
    else
        ipmi_set_function_SMIC();
    ipmi_set_register_access(kInput);
    const auto rest = static_cast<uint32_t>(size - 1);
    switch (choice / 2 % 6) {
        case 0:
            Exchange();
            break;
        case 1:
            ReadOnce();
            break;
        case 2:
            Bridge(g_next, rest);
            break;
        case 3:
            AskEverything();
            break;
        case 4:
            WalkRepository();
            break;
        default:
            PackRecord(g_next, rest);
    }
    return 0;
}
