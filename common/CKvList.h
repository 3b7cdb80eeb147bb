#pragma once
/// @file
/// The linked list of the data factory. It holds a few hundred entries at most, in the order they came; it never deletes
/// what an entry points to. Not for use by several threads without a lock of the caller's. Nothing throws: without
/// memory an entry is dropped.

#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

#include "libplatform/CKvString.h"

/// What the containers hold of a T: strings keep room for the fields that pass through them.
template <typename T>
struct KvHeld {
    T item;
    explicit KvHeld(const T& value) : item(value) {}
};
template <>
struct KvHeld<CKvString> {
    static constexpr unsigned long kCapacity = 256;
    CKvString item{nullptr, kCapacity};
    explicit KvHeld(const CKvString& value) { item = value; }
};

template <typename T>
struct KVLIST_ELEMENT {
    KvHeld<T> data;
    KVLIST_ELEMENT* prev = nullptr;
    KVLIST_ELEMENT* next = nullptr;
    explicit KVLIST_ELEMENT(const T& item) : data(item) {}
};

template <typename T>
class CKvList {
public:
    CKvList() = default;
    ~CKvList() { RemoveAll(); }
    CKvList(const CKvList&) = delete;
    CKvList& operator=(const CKvList&) = delete;

    void AddTail(const T& item) {
        auto* const element = new (std::nothrow) KVLIST_ELEMENT<T>(item);
        if (element == nullptr) return;
        element->prev = tail_;
        (tail_ != nullptr ? tail_->next : head_) = element;
        tail_ = element;
        ++count_;
    }
    /// @param index  0: the oldest entry @return 1; 0, and out as it was, when there is no such entry
    int GetAt(unsigned long index, T& out) const {
        const KVLIST_ELEMENT<T>* element = index < count_ ? head_ : nullptr;
        for (; index > 0 && element != nullptr; --index)
            element = element->next;
        if (element == nullptr) return 0;
        out = element->data.item;
        return 1;
    }
    unsigned long GetCount() const { return count_; }
    /// Takes the oldest entry. @return 1; 0 when the list is empty
    int RemoveHead(T& out) {
        if (head_ == nullptr) return 0;
        out = head_->data.item;
        DropHead();
        return 1;
    }
    void RemoveAll() {
        while (head_ != nullptr)
            DropHead();
    }

    /// Calls visit with each entry, from the oldest on, until it gives true. @return whether it did
    template <typename Visit>
    bool AnyOf(Visit visit) const {
        for (const KVLIST_ELEMENT<T>* element = head_; element != nullptr; element = element->next) {
            if (visit(element->data.item)) return true;
        }
        return false;
    }

private:
    void DropHead() {
        KVLIST_ELEMENT<T>* const old = std::exchange(head_, head_->next);
        (head_ != nullptr ? head_->prev : tail_) = nullptr;
        --count_;
        delete old;
    }

    uint32_t count_ = 0;
    KVLIST_ELEMENT<T>* head_ = nullptr;
    KVLIST_ELEMENT<T>* tail_ = nullptr;
};
