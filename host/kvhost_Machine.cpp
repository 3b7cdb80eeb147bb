// Views of the machine below the classes: the BMC and the SMBIOS structures.

#include "host/kvhost_Machine.h"

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>

#include "host/kvhost_Text.h"

namespace kvhost {

namespace {

using Json = nlohmann::ordered_json;

std::string Revision(unsigned major, unsigned minor) {
    return std::to_string(major) + '.' + std::to_string(minor);
}

/// Two binary coded decimal digits.
unsigned FromBcd(uint8_t digits) {
    return (digits >> 4) * 10u + (digits & 0x0Fu);
}

uint32_t LittleEndian(std::span<const uint8_t> bytes) {
    uint32_t value = 0;
    for (size_t i = bytes.size(); i-- > 0;)
        value = value << 8 | bytes[i];
    return value;
}

Json BmcFields(const KVPS_DEVICE_ID& id, const KVPS_IPMI_INTERFACE& registers) {
    Json fields;
    fields["device id"] = Hex(id.deviceId, 2);
    fields["device revision"] = id.deviceRevision & 0x0F;
    fields["firmware revision"] = Revision(id.firmwareRevision1 & 0x7Fu, FromBcd(id.firmwareRevision2));
    fields["ipmi version"] = Revision(id.ipmiVersion & 0x0Fu, id.ipmiVersion >> 4);
    fields["manufacturer id"] = Hex(LittleEndian(id.manufacturerId), 6);
    fields["product id"] = Hex(LittleEndian(id.productId), 4);
    fields["slave address"] = Hex(registers.slaveAddress, 2);
    if (registers.type == KVPS_INTERFACE_NONE) {
        fields["interface"] = "other";
        return fields;
    }
    fields["interface"] = registers.type == KVPS_INTERFACE_KCS ? "KCS" : "SMIC";
    fields["registers"] = Hex(registers.dataRegister, 4) + ' ' + Hex(registers.statusRegister, 4);
    if (registers.segment != 0) fields["segment"] = Hex(registers.segment, 8);
    return fields;
}

std::string PlainText(const Json& value) {
    return value.is_string() ? value.get<std::string>() : value.dump();
}

struct Structure {
    unsigned type;
    unsigned handle;
    size_t size;
    std::vector<std::string> strings;
};

/// @param bytes  a whole structure, its header at least
Structure Read(std::span<const uint8_t> bytes) {
    return {bytes[0], LittleEndian(bytes.subspan(2, 2)), bytes.size(), StringsOf(bytes, bytes[1])};
}

class StructureReader {
public:
    StructureReader(const Library& library, const std::vector<unsigned>& types) : library_(library), types_(types) {}

    std::vector<Structure> All() {
        ReadCopied();
        for (unsigned type = KVPS_SMBIOS_TYPES; type <= UINT8_MAX; ++type) {
            if (IsWanted(type)) ReadVendors(static_cast<uint16_t>(type));
        }
        return std::move(structures_);
    }

private:
    bool IsWanted(unsigned type) const { return types_.empty() || std::ranges::find(types_, type) != types_.end(); }

    void ReadCopied() {
        unsigned long count = 0;
        KVPS_SMBIOS_TPHEAD** records = nullptr;
        library_.Check(library_.KvPsGetTypeData(KVPS_SMBIOS_ALL_TYPES, &count, &records));
        const std::unique_ptr<KVPS_SMBIOS_TPHEAD*[], decltype(library_.KvPsFreeTypeData)> owner(
            records, library_.KvPsFreeTypeData);
        for (const KVPS_SMBIOS_TPHEAD* record : std::span(records, count)) {
            const auto* const bytes = reinterpret_cast<const uint8_t*>(&record->type);
            const size_t size = record->dataSize - offsetof(KVPS_SMBIOS_TPHEAD, type);
            if (IsWanted(record->type)) structures_.push_back(Read({bytes, size}));
        }
    }

    /// The vendor's own types are not in the library's copy; its table reader has them.
    void ReadVendors(uint16_t type) {
        uint32_t count = 0;
        Ask(type, 0, &count, sizeof count);
        for (uint32_t index = 1; index <= std::min<uint32_t>(count, UINT16_MAX); ++index) {
            std::vector<uint8_t> bytes(Ask(type, index, nullptr, 0));
            Ask(type, index, bytes.data(), bytes.size());
            structures_.push_back(Read(bytes));
        }
    }

    /// @param index  0: for the number of structures of the type
    /// @return the size of what was asked for
    size_t Ask(uint16_t type, uint32_t index, void* buffer, size_t size) const {
        smbios_gettable_block block{};
        block.mode = SMBIOS_TABLE_BY_INDEX;
        block.type = type;
        block.index = static_cast<uint16_t>(index);
        block.buffer = buffer;
        block.size = static_cast<uint32_t>(size);
        if (library_.smbios_ioctl(SMBIOS_GETTABLE, &block) != 0) {
            throw std::runtime_error("the structures of type " + std::to_string(type) + " cannot be read");
        }
        return block.size;
    }

    const Library& library_;
    const std::vector<unsigned>& types_;
    std::vector<Structure> structures_;
};

Json ToJson(const Structure& structure) {
    Json strings = Json::array();
    for (const std::string& text : structure.strings)
        strings.push_back(Printable(text));
    return {{"type", structure.type},
            {"handle", Hex(structure.handle, 4)},
            {"size", structure.size},
            {"strings", std::move(strings)}};
}

void Print(const Structure& structure, std::ostream& out) {
    out << "type " << structure.type << ", handle " << Hex(structure.handle, 4) << ", " << structure.size << " bytes\n";
    for (size_t i = 0; i < structure.strings.size(); ++i) {
        out << "    " << i + 1 << ": " << Printable(structure.strings[i]) << '\n';
    }
}

}  // namespace

std::vector<std::string> StringsOf(std::span<const uint8_t> structure, size_t formatted) {
    std::vector<std::string> strings;
    auto rest = structure.subspan(std::min(formatted, structure.size()));
    while (!rest.empty() && rest[0] != 0) {
        const auto end = std::ranges::find(rest, uint8_t{0});
        strings.emplace_back(rest.begin(), end);
        rest = rest.subspan(std::min<size_t>(strings.back().size() + 1, rest.size()));
    }
    return strings;
}

void ShowBmc(const Library& library, std::ostream& out, bool json) {
    KVPS_DEVICE_ID id{};
    KVPS_IPMI_INTERFACE registers{};
    library.Check(library.KvPsGetIpmiInterface(&registers));
    library.Check(library.KvPsGetDeviceId(&id));
    const Json fields = BmcFields(id, registers);
    if (json) {
        out << fields.dump(2) << '\n';
        return;
    }
    for (const auto& [name, value] : fields.items()) {
        out << name << std::string(20 - std::min<size_t>(name.size(), 19), ' ') << PlainText(value) << '\n';
    }
}

void ShowSmbios(const Library& library, const std::vector<unsigned>& types, std::ostream& out, bool json) {
    KVPS_SMBIOS_HEAD head{};
    library.KvPsGetStructureHeader(&head);
    if (head.length == 0) throw std::runtime_error("the firmware's table was not found");
    const std::vector<Structure> structures = StructureReader(library, types).All();
    if (!json) {
        for (const Structure& structure : structures)
            Print(structure, out);
        return;
    }
    Json list = Json::array();
    for (const Structure& structure : structures)
        list.push_back(ToJson(structure));
    out << list.dump(2) << '\n';
}

}  // namespace kvhost
