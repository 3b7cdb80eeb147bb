#pragma once
/// @file
/// Definition files as text in, tables as text out.

#include <string>

#include "kvdatafactory/DefinitionReport.h"
#include "kvdatafactory/DefinitionText.h"
#include "kvdatafactory/Inventory/KvInventoryFactory.h"
#include "kvdatafactory/KvDfCommon_Maps.h"
#include "kvdatafactory/KvDfFilling.h"
#include "libplatform/KvDfDataFactory.h"

/// Reads a file as the start does, into tables of its own, and tells what was skipped.
class DefinitionFiles final : definition::Reader {
public:
    explicit DefinitionFiles(std::string text) { Read(std::move(text)); }

    void Read(std::string text) {
        definition::Notes notes;
        text.resize(definition::Normalize(text.data(), text.size(), notes));
        const definition::Reading reading(*this);
        if (!text.empty()) KvDfAnalyzeFileData(text.data(), static_cast<unsigned long>(text.size()));
    }

    /// "reason; reason"
    std::string skipped;
    int kept = 0;

    /// An inventory, one instance in braces: "type 1 {sensor 20.0.30.0, "System Fan 1", 1}"
    static std::string Inventory(unsigned long id) {
        const auto factory = g_invFactory.Get();
        CKvInventory* inventory = nullptr;
        if (!factory->HasInventory(id) || factory->SearchInventory(id, &inventory) != 0) return "none";
        std::string out = "type " + std::to_string(inventory->GetType());
        CKvInstance* instance = nullptr;
        for (unsigned long i = 0; i < inventory->GetInstanceCount(); ++i) {
            inventory->GetInstance(i, &instance);
            out += " {" + Columns(*instance) + "}";
        }
        return out;
    }

    /// A name's number; "?" when it has none.
    static std::string Number(const KvEnumMap& map, const char* name) {
        unsigned long number = 0;
        return map.Lookup(CKvString(name, 256), number) != 0 ? std::to_string(number) : "?";
    }

private:
    void Kept(const char* /*at*/) override { ++kept; }
    void Skipped(std::string_view /*element*/, const std::string& reason) override {
        if (!skipped.empty()) skipped += "; ";
        skipped += reason;
    }

    static std::string Columns(const CKvInstance& instance) {
        std::string out;
        for (unsigned long i = 0; i < instance.GetColumnCount(); ++i) {
            CKvColumn* column = nullptr;
            instance.GetColumn(i, &column);
            if (i > 0) out += ", ";
            out += Column(*column);
        }
        return out;
    }

    static std::string Column(CKvColumn& column) {
        if (const auto* const sensor = dynamic_cast<CKvSensorColumn*>(&column)) {
            const CKvSensor& key = sensor->GetKey();
            char text[64];
            snprintf(text, sizeof text, "%s %x.%x.%x.%x", column.GetType() == kColumnSensor ? "sensor" : "no sensor",
                     key.GetOwner(), key.GetLun(), key.GetNumber(), key.GetFourth());
            return text;
        }
        unsigned long value = 0;
        if (column.GetType() == kColumnValue && column.GetUlong(value) == 0) return std::to_string(value);
        CKvString text(nullptr, 256);
        column.GetString(text);
        return '"' + std::string(text) + '"';
    }

    KvDfFilling aside_;
};
