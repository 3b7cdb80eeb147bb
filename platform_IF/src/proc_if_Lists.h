#pragma once
/// @file
/// What the readers of the kernel's lists share: the list as the kernel wrote it, and the records in the making.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>

#include "common/PXR_data_access_internal.h"
#include "cover/Heap.h"

/// A file of the kernel, whole.
class KernelList {
public:
    /// @param function  number of the reader, whose failure it is when the file cannot be read
    /// @return 0, or the reader's code, not reported yet
    uint32_t Read(const char* path, uint32_t function);
    std::string_view Text() const { return text_; }
    /// The same, to be changed in place.
    std::string& Content() { return text_; }

private:
    std::string text_;
};

/// A copy of a text for a record to own; null without memory.
OwnedText CopyForRecord(std::string_view text);

/// Frees records with what they own: FreeTexts(const Record&) is theirs.
template <typename Record>
void FreeRecords(Record* list, int count) {
    if (list == nullptr) return;
    std::for_each(list, list + std::max(count, 0), [](const Record& record) { FreeTexts(record); });
    std::free(list);
}

/// Gives a reader's outputs their first values. @return false: one is missing
template <typename Record>
bool PrepareOutputs(int* count, Record** list) {
    if (count == nullptr || list == nullptr) return false;
    *count = 0;
    *list = nullptr;
    return true;
}

/// A list in the making: frees everything unless it is handed out.
template <typename Record>
class ListInMaking {
public:
    ListInMaking() = default;
    ~ListInMaking() { FreeRecords(list_, count_); }
    ListInMaking(const ListInMaking&) = delete;
    ListInMaking& operator=(const ListInMaking&) = delete;

    /// Appends a record, whose texts the list owns from now on. @return null without memory, and nothing is appended
    Record* Append(const Record& record) {
        if (!MakeRoom()) return nullptr;
        list_[count_] = record;
        return &list_[count_++];
    }
    int Count() const { return count_; }

    void HandOut(int* count, Record** list) {
        *count = std::exchange(count_, 0);
        *list = std::exchange(list_, nullptr);
    }

private:
    bool MakeRoom() {
        if (count_ < room_) return true;
        const int room = std::max(16, 2 * room_);
        const uint32_t bytes = AdjustAlignmentSize(static_cast<uint32_t>(room) * sizeof(Record));
        void* longer = std::realloc(list_, bytes);
        if (longer == nullptr) return false;
        list_ = static_cast<Record*>(longer);
        room_ = room;
        return true;
    }

    Record* list_ = nullptr;
    int count_ = 0;
    int room_ = 0;
};
