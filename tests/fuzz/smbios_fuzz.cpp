/// @file
/// The SMBIOS reader and its queries on arbitrary bytes. The first byte chooses what the rest is: even, a structure
/// table behind a good entry point that claims as many structures as the next two bytes say; odd, the firmware segment.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "lib_driverIF/KvLibSmbios.h"
#include "lib_driverIF/KvPltfSvcSmbiosMain.h"
#include "libplatform/PXR_message.h"
#include "simulator/SmbiosImage.h"
#include "tests/support/SimulatedMemory.h"

namespace {

constexpr uint64_t kSegment = 0xF0000;
constexpr uint32_t kTable = 0x7FFF'F123;  // begins in the middle of a page

void Require(bool holds) {
    if (!holds) abort();
}

void PlaceTable(SimulatedMemory& memory, const sim::Bytes& input) {
    sim::SmbiosImage image;
    image.tableAddress = kTable;
    image.AddRaw({input.begin() + 3, input.end()});
    image.claimedCount = static_cast<uint16_t>(input[1] | input[2] << 8);
    memory.AddMemory(image.Blocks());
}

void CheckIndex(size_t tableSize) {
    for (uint32_t i = 0; i < smbios_tablecnt; ++i) {
        const smbios_table_entry& entry = smbios_tableinfo[i];
        Require(entry.size >= 4 && entry.address - kTable + entry.size <= tableSize);
        if (i == 0) continue;
        const smbios_table_entry& before = smbios_tableinfo[i - 1];
        Require(before.type < entry.type || (before.type == entry.type && before.handle <= entry.handle));
    }
}

void AskEverything(KVPS_SMBIOS_TPHEAD* structure) {
    char text[24];
    uint8_t bytes[64];
    for (unsigned offset = 0; offset <= UINT8_MAX; ++offset) {
        const bool inside = offset <= structure->length;
        Require((KvPsGetSmbiosMultiByte(structure, static_cast<uint8_t>(offset), sizeof(bytes), bytes) == 0) == inside);
        text[sizeof(text) - 1] = 0;
        KvPsGetSmbiosString(structure, static_cast<uint8_t>(offset), sizeof(text), text);
        Require(text[sizeof(text) - 1] == 0);
    }
}

void Query() {
    unsigned long count = 0;
    KVPS_SMBIOS_TPHEAD** array = nullptr;
    Require(KvPsGetTypeData(KVPS_SMBIOS_ALL_TYPES, &count, &array) == 0);
    const std::unique_ptr<KVPS_SMBIOS_TPHEAD*[]> owner(array);
    constexpr unsigned long kEnough = 8;  // more of them only cost time
    for (unsigned long i = 0; i < count && i < kEnough; ++i)
        AskEverything(array[i]);
    for (const uint8_t field : sim::Bytes{5, 6, 8, 24}) {
        char* text = nullptr;
        KvPsGetSystemInformation(field, &text);
        delete[] text;
    }
}

void AskForSlots() {
    sim::Bytes slots(16 * SMBIOS_PCI_ENTRY_SIZE);
    smbios_getpci_block pci = {0, SMBIOS_PCI_SLOTS, slots.data(), static_cast<uint32_t>(slots.size()), 0};
    if (smbios_ioctl(SMBIOS_GETPCI, &pci) == 0) Require(pci.count <= 16);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const sim::Bytes input(data, data + size);
    if (input.size() < 4 || input.size() > 0xFFFF) return 0;
    PXR_disable_syslog_output();
    static SimulatedMemory memory;
    memory.ClearMemory();
    const bool table = input[0] % 2 == 0;
    if (table) {
        PlaceTable(memory, input);
    } else {
        memory.AddMemory(kSegment, {input.begin() + 1, input.end()});
    }
    if (Init_SmbiosIF() == 0) {
        if (table) CheckIndex(input.size() - 3);
        Require(KvPsInitializeSmbios() == 0 || !table);
    }
    Query();
    if (!table) AskForSlots();
    KvPsTerminateSmbios();
    Require(memory.OpenDescriptors() == 0 && memory.OpenMaps() == 0);
    return 0;
}
