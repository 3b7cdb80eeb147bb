// Reading of key files.

#include <fcntl.h>

#include <cstdlib>
#include <memory>
#include <new>

#include "common/PXR_config_internal.h"
#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "libplatform/PXR_config.h"
#include "libplatform/PXR_string.h"

namespace {

constexpr uint32_t kBadHeader = MakeResult(fn::kReadCfgFile, Reason::FileRead);
constexpr uint32_t kBadKey = MakeResult(fn::kReadCfgLine, Reason::BadData);
static_assert(kBadHeader == 0x61B81301 && kBadKey == 0x61C21302);

/// Versions of key files; the lines of all of them are the same.
constexpr std::string_view kVersions[] = {"0330", "0350", "0860", "0956"};

/// What this read has set of a key.
struct KeyState {
    bool set = false;
    PXR_config_node** end = nullptr;  ///< of a list: where the next node goes
};

class Reader {
public:
    Reader(const PXR_config_table& table, PXR_config_data* data) : table_(table), data_(data) {}

    uint32_t Read() {
        states_.reset(new (std::nothrow) KeyState[cfg::CountKeys(table_)]);
        if (!states_) return PXR_ReportError(MakeResult(fn::kReadCfgFile, Reason::OutOfMemory));
        cfg::LockedFile file;
        if (const uint32_t code = file.Open(table_.path, O_RDONLY)) return code;
        cfg::LineReader lines(file.Get());
        if (!lines.Next() || !IsHeader(lines.Line())) return PXR_ReportError(kBadHeader);
        while (lines.Next())
            ReadLine(cfg::ParsedLine(lines.Line()));
        return lines.Failed() ? PXR_ReportError(kBadHeader) : 0;
    }

private:
    bool IsHeader(std::string_view line) const {
        for (const std::string_view version : kVersions) {
            if (cfg::HeaderText(table_.headerFormat, version).Matches(line)) return true;
        }
        return false;
    }

    void ReadLine(const cfg::ParsedLine& line) {
        if (line.IsBlank()) return;
        const PXR_config_key* const key = cfg::FindKey(table_, line.Key());
        if (key == nullptr) {
            PXR_ReportError(kBadKey);
            return;
        }
        PXR_config_data* const slot = cfg::FindSlot(data_, key->id);
        if (slot == nullptr || PXR_chk_empty(line.Value()) != 0) return;
        KeyState& state = states_[static_cast<size_t>(key - table_.keys)];
        if (cfg::IsList(*key)) {
            AddValue(*key, line.Value(), *slot, state);
        } else if (state.set) {
            PXR_ReportError(kBadKey);
        } else {
            SetValue(*key, line.Value(), *slot, state);
        }
    }

    static void SetValue(const PXR_config_key& key, const char* text, PXR_config_data& slot, KeyState& state) {
        PXR_config_value value{};
        if (!cfg::ConvertValue(key, text, value)) return;
        if (cfg::IsText(key)) free(slot.value.text);
        slot.value = value;
        state.set = true;
    }

    static void AddValue(const PXR_config_key& key, const char* text, PXR_config_data& slot, KeyState& state) {
        PXR_config_value value{};
        if (!cfg::ConvertValue(key, text, value)) return;
        auto* const node = static_cast<PXR_config_node*>(malloc(sizeof(PXR_config_node)));
        if (node == nullptr) {
            if (cfg::IsText(key)) free(value.text);
            PXR_ReportError(MakeResult(fn::kReadCfgLine, Reason::OutOfMemory));
            return;
        }
        if (!state.set) {
            // As with single values, what the file says takes the place of what was there before.
            cfg::FreeList(key, slot.list);
            state.end = &slot.list;
            state.set = true;
        }
        *node = {nullptr, value};
        *state.end = node;
        state.end = &node->next;
    }

    const PXR_config_table& table_;
    PXR_config_data* data_;
    std::unique_ptr<KeyState[]> states_;
};

}  // namespace

uint32_t PXR_read_cfgfile(const PXR_config_table* table, PXR_config_data* data) {
    if (table == nullptr || table->path == nullptr || data == nullptr) {
        return PXR_ReportError(MakeResult(fn::kReadCfgFile, Reason::NullArgument));
    }
    return Reader(*table, data).Read();
}
