#pragma once
/// @file
/// The associative list of the data factory: searched from its oldest entry on, so that of two equal keys the first
/// counts. It never deletes what an entry points to. Not for use by several threads without a lock of the caller's.
/// Nothing throws: without memory an entry is dropped.

#include "common/CKvList.h"

template <typename K, typename V>
struct KVMAP_ELEMENT {
    KvHeld<K> key;
    KvHeld<V> value;
    KVMAP_ELEMENT* prev = nullptr;
    KVMAP_ELEMENT* next = nullptr;
    KVMAP_ELEMENT(const K& k, const V& v) : key(k), value(v) {}
};

template <typename K, typename V>
class CKvMap {
public:
    CKvMap() = default;
    ~CKvMap() { RemoveAll(); }
    CKvMap(const CKvMap&) = delete;
    CKvMap& operator=(const CKvMap&) = delete;

    /// @return 1; 0, and out as it was, when there is no such key
    int Lookup(const K& key, V& out) const {
        return FindIf([&key](const K& held) { return held == key; }, out);
    }
    /// The value of the first key that matches gives true for. @return as Lookup
    template <typename Matches>
    int FindIf(Matches matches, V& out) const {
        for (const Element* element = head_; element != nullptr; element = element->next) {
            if (!matches(element->key.item)) continue;
            out = element->value.item;
            return 1;
        }
        return 0;
    }
    /// Appends, whether or not the key is there.
    void AddData(const K& key, const V& value) {
        auto* const element = new (std::nothrow) Element(key, value);
        if (element == nullptr) return;
        element->prev = tail_;
        (tail_ != nullptr ? tail_->next : head_) = element;
        tail_ = element;
        ++count_;
    }
    /// Replaces the value of the first entry with that key; nothing without one.
    void UpdateData(const K& key, const V& value) {
        for (Element* element = head_; element != nullptr; element = element->next) {
            if (!(element->key.item == key)) continue;
            element->value.item = value;
            return;
        }
    }
    /// Replaces or appends. @param old  receives the value that was replaced; as it was when there was none
    void SetAt(const K& key, const V& value, V& old) {
        if (Lookup(key, old) != 0) {
            UpdateData(key, value);
        } else {
            AddData(key, value);
        }
    }
    /// Takes the oldest entry's value. @return 1; 0 when the map is empty
    int RemoveHead(V& out) {
        if (head_ == nullptr) return 0;
        out = head_->value.item;
        DropHead();
        return 1;
    }
    void RemoveAll() {
        while (head_ != nullptr)
            DropHead();
    }
    unsigned long GetCount() const { return count_; }

private:
    using Element = KVMAP_ELEMENT<K, V>;

    void DropHead() {
        Element* const old = std::exchange(head_, head_->next);
        (head_ != nullptr ? head_->prev : tail_) = nullptr;
        --count_;
        delete old;
    }

    uint32_t count_ = 0;
    Element* head_ = nullptr;
    Element* tail_ = nullptr;
};
