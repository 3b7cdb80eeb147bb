#pragma once
/// @file
/// One element of a CVoidDPtrList, and what a position in such a list points to.

class CDPtrListElement {
public:
    explicit CDPtrListElement(void* data) : m_data(data) {}

    CDPtrListElement* m_prev = nullptr;
    CDPtrListElement* m_next = nullptr;
    void* m_data;  ///< the caller's
};
