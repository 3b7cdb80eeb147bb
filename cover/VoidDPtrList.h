#pragma once
/// @file
/// A doubly linked list of pointers that it does not own. Positions are element pointers and stay valid until their
/// element is removed; a null position is "none". Functions that give 1 or 0 (or null) leave the reason of a failure in
/// the recent error and in GetErrorCode.
///
/// The list does not lock by itself. Threads that share one create its mutex and bracket their work with LockList and
/// UnlockList; without a mutex the two do nothing.

#include <cstdint>
#include <type_traits>

#include "cover/DPtrListElement.h"
#include "cover/MutexCover.h"

class CVoidDPtrList {
public:
    CVoidDPtrList() = default;
    CVoidDPtrList(const CVoidDPtrList&) = delete;
    CVoidDPtrList& operator=(const CVoidDPtrList&) = delete;
    virtual ~CVoidDPtrList();

    /// These give the new element's position; null when memory runs out or a position is null.
    CDPtrListElement* AddHead(void* data);
    CDPtrListElement* AddTail(void* data);
    CDPtrListElement* InsertBefore(CDPtrListElement* position, void* data);
    CDPtrListElement* InsertAfter(CDPtrListElement* position, void* data);

    /// These give the removed element's data; null when the list is empty, which is no failure.
    void* RemoveHead();
    void* RemoveTail();
    /// @return 1; 0 when the position is null or not linked into this list
    int RemoveAt(CDPtrListElement* position);
    void RemoveAll();

    CDPtrListElement* GetHeadPosition() const { return m_head; }
    CDPtrListElement* GetTailPosition() const { return m_tail; }
    static CDPtrListElement* GetNextPosition(const CDPtrListElement* position);
    static CDPtrListElement* GetPrevPosition(const CDPtrListElement* position);
    static void* GetDataPtr(const CDPtrListElement* position);
    uint32_t GetListCount() const { return m_count; }
    /// Whether a position belongs to this list: 1 or 0. Goes through the list.
    int SearchElement(const CDPtrListElement* position) const;

    /// @return 1, also when there is one already; 0 when memory runs out
    int CreateMutexHandle();
    /// @return 1; 0 when it is held
    int CloseMutexHandle();
    int LockList();
    int UnlockList();

    int GetErrorCode() const { return m_error; }

private:
    CDPtrListElement* Link(CDPtrListElement* prev, CDPtrListElement* next, void* data);
    void* Unlink(CDPtrListElement* element);
    bool IsLinked(const CDPtrListElement* element) const;
    int Fail(int error);

    CDPtrListElement* m_head = nullptr;
    CDPtrListElement* m_tail = nullptr;
    uint32_t m_count = 0;
    MutexHandle m_mutex = nullptr;
    int m_error = 0;
};

/// The same list for pointers of one type.
template <typename T>
class CDataList : public CVoidDPtrList {
    static_assert(std::is_pointer_v<T>, "the list holds pointers");

public:
    CDPtrListElement* AddHead(T data) { return CVoidDPtrList::AddHead(data); }
    CDPtrListElement* AddTail(T data) { return CVoidDPtrList::AddTail(data); }
    CDPtrListElement* InsertBefore(CDPtrListElement* position, T data) {
        return CVoidDPtrList::InsertBefore(position, data);
    }
    CDPtrListElement* InsertAfter(CDPtrListElement* position, T data) {
        return CVoidDPtrList::InsertAfter(position, data);
    }
    T RemoveHead() { return static_cast<T>(CVoidDPtrList::RemoveHead()); }
    T RemoveTail() { return static_cast<T>(CVoidDPtrList::RemoveTail()); }
    static T GetDataPtr(const CDPtrListElement* position) {
        return static_cast<T>(CVoidDPtrList::GetDataPtr(position));
    }
};
