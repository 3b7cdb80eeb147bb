#pragma once
/// @file
/// One element of a CVoidDPtrList, and what a position in such a list points to.

class CVoidDPtrList;

class CDPtrListElement {
public:
    CDPtrListElement(void* data, const CVoidDPtrList* list) : m_data(data), m_list(list) {}

    CDPtrListElement* m_prev = nullptr;
    CDPtrListElement* m_next = nullptr;
    void* m_data;                 ///< the caller's
    const CVoidDPtrList* m_list;  ///< that it is linked into
};
