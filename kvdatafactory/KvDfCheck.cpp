// Checking definition files: the start's own analysis, with somebody who listens.
#include "libplatform/KvDfCheck.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "cover/Heap.h"
#include "kvdatafactory/DefinitionReport.h"
#include "kvdatafactory/Inventory/KvIfBuild.h"
#include "kvdatafactory/Inventory/KvIfSmbios.h"
#include "kvdatafactory/Inventory/KvInventoryFactory.h"
#include "kvdatafactory/KvDfCommon.h"
#include "kvdatafactory/KvDfFilling.h"

namespace {

constexpr const char* kFiles[] = {"sensor_map", "inv_map", "alert_map"};  // as the start reads them
constexpr size_t kShownOfElement = 60;

/// Gives remarks the place in the file that they are about.
class Checker final : public definition::Reader {
public:
    Checker(KvDfRemarkListener listener, void* context, KVDF_CHECK_COUNTS& counts)
        : listener_(listener), context_(context), counts_(counts) {}

    void CheckFile(const std::string& directory, const char* name);
    void Note(uint32_t line, const std::string& section, const std::string& element, const std::string& reason) {
        Remark(KVDF_REMARK_NOTE, line, section, element, reason);
    }

    void Begun(const char* at) override { last_ = at; }
    void Kept(const char* /*at*/) override { ++counts_.kept; }
    void Skipped(std::string_view element, const std::string& reason) override {
        ++counts_.skipped;
        Remark(KVDF_REMARK_SKIPPED, LineOf(element.data()), SectionOf(element.data()), Shown(element), reason);
    }

private:
    void Remark(KvDfRemarkKind kind, uint32_t line, const std::string& section, const std::string& element,
                const std::string& reason) {
        const KVDF_REMARK remark = {kind, file_.c_str(), line, section.c_str(), element.c_str(), reason.c_str()};
        listener_(&remark, context_);
    }

    bool IsInText(const char* at) const { return at >= text_.data() && at < text_.data() + text_.size(); }
    /// A copy of a field has no place of its own: it stands in the element that was begun last.
    const char* PlaceOf(const char* at) const { return IsInText(at) ? at : last_; }

    uint32_t LineOf(const char* at) {
        last_ = PlaceOf(at);
        const size_t offset = last_ != nullptr ? static_cast<size_t>(last_ - text_.data()) : lines_.size();
        return offset < lines_.size() ? lines_[offset] : 0;
    }

    std::string SectionOf(const char* at) const {
        const char* const place = PlaceOf(at);
        if (place == nullptr) return {};
        const std::string_view before = text_.substr(0, static_cast<size_t>(place - text_.data()) + 1);
        const size_t open = before.rfind('[');
        if (open == std::string_view::npos) return {};
        const size_t close = text_.find(']', open);
        return std::string(text_.substr(open, close == std::string_view::npos ? close : close + 1 - open));
    }

    static std::string Shown(std::string_view element) {
        std::string shown(element.substr(0, kShownOfElement));
        std::ranges::replace(shown, '\0', ',');  // where the fields were taken apart
        return shown;
    }

    KvDfRemarkListener listener_;
    void* context_;
    KVDF_CHECK_COUNTS& counts_;
    std::string file_;
    std::string_view text_;
    std::vector<uint32_t> lines_;
    const char* last_ = nullptr;
};

void Checker::CheckFile(const std::string& directory, const char* name) {
    file_ = name;
    text_ = {};
    last_ = nullptr;
    lines_.clear();
    definition::Notes notes;
    notes.lines = &lines_;
    char* text = nullptr;
    unsigned long length = 0;
    const std::string path = directory + name;
    const uint32_t rc = ReadDefinitionFile(path.c_str(), &text, &length, notes);
    const std::string why = rc != 0 ? strerror(errno) : "";
    const std::unique_ptr<char[]> owner(text);
    if (rc != 0) return Remark(KVDF_REMARK_UNREADABLE, 0, "", "", why);
    for (const uint32_t line : notes.quotesOverLineEnds)
        Note(line, "", "", "a double quote is open at the end of the line");
    for (const uint32_t line : notes.bracketsInParentheses)
        Note(line, "", "", "the \"[\" inside parentheses ends the section");
    text_ = {text, length};
    const definition::Reading reading(*this);
    if (length > 0) KvDfAnalyzeFileData(text, length);
}

/// An inventory of a file switches the built-in one off, whether or not it has instances.
void NoteEmptyInventories(Checker& checker) {
    constexpr const char* kSections[] = {"[BodyTemp]", "[BodyFan]", "[PowerUnit]", "[Voltage]", "[Cpu]"};
    const auto factory = g_invFactory.Get();
    for (unsigned long i = 0; i < std::size(kSections); ++i) {
        const unsigned long id = i + 1;
        CKvInventory* inventory = nullptr;
        if (!factory->HasInventory(id) || factory->SearchInventory(id, &inventory) != 0) continue;
        if (inventory->GetInstanceCount() != 0) continue;
        checker.Note(0, kSections[i], "", "the inventory is empty, and there will be no built-in one");
    }
}

unsigned long CountSensors(const char* key) {
    HeapOwned<SDR*> list;
    unsigned long count = 0;
    return KvIfCollectSensors(key, list, count) == 0 ? count : 0;
}

/// The n-th temperature belongs to the n-th socket, so there should be as many.
void NoteTemperatures(Checker& checker) {
    const size_t sockets = KvIfStructures("SmbiosCpu").All().size();
    const unsigned long temperatures = CountSensors("Processor Temp");
    if (sockets == 0 || temperatures == 0 || temperatures == sockets) return;
    checker.Note(0, "[Sensor]", "SENSOR(Processor Temp",
                 "this machine has " + std::to_string(sockets) + " processor sockets and " +
                     std::to_string(temperatures) +
                     " such temperatures, and the n-th is taken as that of the n-th socket");
}

}  // namespace

uint32_t KvDfCheckDefinitions(const char* directory, KvDfRemarkListener listener, void* context,
                              KVDF_CHECK_COUNTS* counts) {
    if (listener == nullptr || counts == nullptr) {
        return PXR_ReportError(MakeResult(fn::kAnalyzeFileData, Reason::NullArgument));
    }
    *counts = {};
    try {
        std::string from = directory != nullptr ? directory : "/opt/velmora/lantrel/maps/";
        if (!from.ends_with('/')) from += '/';
        const KvDfFilling aside;
        Checker checker(listener, context, *counts);
        for (const char* const name : kFiles)
            checker.CheckFile(from, name);
        NoteEmptyInventories(checker);
        NoteTemperatures(checker);
        return 0;
    } catch (const std::bad_alloc&) {
        return PXR_ReportError(MakeResult(fn::kNone, Reason::OutOfMemory));
    }
}
