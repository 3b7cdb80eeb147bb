// The list of pointers.

#include "cover/VoidDPtrList.h"

#include <cerrno>
#include <new>
#include <utility>

#include "cover/ErrorCover.h"
#include "cover/TimerCover.h"

CVoidDPtrList::~CVoidDPtrList() {
    RemoveAll();
    DestroyMutex(m_mutex);
}

CDPtrListElement* CVoidDPtrList::AddHead(void* data) {
    return Link(nullptr, m_head, data);
}

CDPtrListElement* CVoidDPtrList::AddTail(void* data) {
    return Link(m_tail, nullptr, data);
}

CDPtrListElement* CVoidDPtrList::InsertBefore(CDPtrListElement* position, void* data) {
    if (IsLinked(position)) return Link(position->m_prev, position, data);
    Fail(EINVAL);
    return nullptr;
}

CDPtrListElement* CVoidDPtrList::InsertAfter(CDPtrListElement* position, void* data) {
    if (IsLinked(position)) return Link(position, position->m_next, data);
    Fail(EINVAL);
    return nullptr;
}

void* CVoidDPtrList::RemoveHead() {
    return m_head != nullptr ? Unlink(m_head) : nullptr;
}

void* CVoidDPtrList::RemoveTail() {
    return m_tail != nullptr ? Unlink(m_tail) : nullptr;
}

int CVoidDPtrList::RemoveAt(CDPtrListElement* position) {
    if (!IsLinked(position)) return Fail(EINVAL);
    Unlink(position);
    return 1;
}

void CVoidDPtrList::RemoveAll() {
    CDPtrListElement* element = std::exchange(m_head, nullptr);
    m_tail = nullptr;
    m_count = 0;
    while (element != nullptr)
        delete std::exchange(element, element->m_next);
}

CDPtrListElement* CVoidDPtrList::GetNextPosition(const CDPtrListElement* position) {
    return position != nullptr ? position->m_next : nullptr;
}

CDPtrListElement* CVoidDPtrList::GetPrevPosition(const CDPtrListElement* position) {
    return position != nullptr ? position->m_prev : nullptr;
}

void* CVoidDPtrList::GetDataPtr(const CDPtrListElement* position) {
    return position != nullptr ? position->m_data : nullptr;
}

int CVoidDPtrList::SearchElement(const CDPtrListElement* position) const {
    for (const CDPtrListElement* element = m_head; element != nullptr; element = element->m_next) {
        if (element == position) return 1;
    }
    return 0;
}

int CVoidDPtrList::CreateMutexHandle() {
    if (m_mutex == nullptr) m_mutex = InitMutex(0);
    return m_mutex != nullptr ? 1 : Fail(GetRecentErrno());
}

int CVoidDPtrList::CloseMutexHandle() {
    if (DestroyMutex(m_mutex) == 0) return Fail(GetRecentErrno());
    ZeroMutexHandle(&m_mutex);
    return 1;
}

// A failure here is not noted in m_error, which the lock guards with the rest of the list.
int CVoidDPtrList::LockList() {
    return WaitMutex(m_mutex, kInfinite) == kLockDone ? 1 : 0;
}

int CVoidDPtrList::UnlockList() {
    return PostMutex(m_mutex);
}

CDPtrListElement* CVoidDPtrList::Link(CDPtrListElement* prev, CDPtrListElement* next, void* data) {
    auto* const element = new (std::nothrow) CDPtrListElement(data, this);
    if (element == nullptr) {
        Fail(ENOMEM);
        return nullptr;
    }
    element->m_prev = prev;
    element->m_next = next;
    (prev != nullptr ? prev->m_next : m_head) = element;
    (next != nullptr ? next->m_prev : m_tail) = element;
    ++m_count;
    return element;
}

void* CVoidDPtrList::Unlink(CDPtrListElement* element) {
    CDPtrListElement* const prev = element->m_prev;
    CDPtrListElement* const next = element->m_next;
    (prev != nullptr ? prev->m_next : m_head) = next;
    (next != nullptr ? next->m_prev : m_tail) = prev;
    --m_count;
    void* const data = element->m_data;
    delete element;
    return data;
}

bool CVoidDPtrList::IsLinked(const CDPtrListElement* element) const {
    return element != nullptr && element->m_list == this;
}

int CVoidDPtrList::Fail(int error) {
    m_error = error;
    SetRecentErrno(error);
    return 0;
}
