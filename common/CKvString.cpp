#include "libplatform/CKvString.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace {

constexpr unsigned long kRoomBehindText = 4;  // terminator included, in a block that grew

}  // namespace

CKvString::CKvString(const char* text, unsigned long capacity) {
    AllocBuffer(capacity);
    SetString(text);
}

CKvString::CKvString(const CKvString& other, unsigned long capacity) : CKvString(other.buffer_, capacity) {}

CKvString::CKvString(const CKvString& other) : CKvString(other.buffer_, other.capacity_) {}

CKvString::~CKvString() {
    FreeBuffer();
}

void CKvString::AllocBuffer(unsigned long n) {
    FreeBuffer();
    if (n > 0) buffer_ = new (std::nothrow) char[n]();
    if (buffer_ != nullptr) capacity_ = n;
}

void CKvString::FreeBuffer() {
    delete[] std::exchange(buffer_, nullptr);
    capacity_ = 0;
}

void CKvString::ClearBuffer() {
    if (buffer_ != nullptr) memset(buffer_, 0, capacity_);
}

void CKvString::SetString(const char* s) {
    if (s == nullptr) return;
    const size_t length = strlen(s);
    if (capacity_ <= length) {
        char* const old = std::exchange(buffer_, nullptr);
        AllocBuffer(length + 1);
        CopyString(s);
        delete[] old;
        return;
    }
    memmove(buffer_, s, length);
    memset(buffer_ + length, 0, capacity_ - length);
}

void CKvString::CopyString(const char* s) {
    if (buffer_ == nullptr || s == nullptr) return;
    const size_t length = std::min<size_t>(strlen(s), capacity_ - 1);
    memmove(buffer_, s, length);
    buffer_[length] = '\0';
}

void CKvString::ConcatString(const char* s) {
    if (buffer_ == nullptr || s == nullptr || *s == '\0') return;
    const size_t length = GetLength();
    const size_t added = strlen(s);
    if (length + added + 1 > capacity_) {
        CKvString longer(buffer_, length + added + kRoomBehindText);
        longer.ConcatString(s);
        std::swap(buffer_, longer.buffer_);
        std::swap(capacity_, longer.capacity_);
        return;
    }
    memmove(buffer_ + length, s, added);
    buffer_[length + added] = '\0';
}

unsigned long CKvString::GetLength() const {
    return buffer_ != nullptr ? strlen(buffer_) : 0;
}

int CKvString::Compare(const char* s) const {
    return buffer_ != nullptr && s != nullptr && strcmp(buffer_, s) == 0 ? 1 : 0;
}

CKvString& CKvString::operator=(const char* s) {
    SetString(s);
    return *this;
}

CKvString& CKvString::operator=(const CKvString& other) {
    if (this != &other) SetString(other.buffer_);
    return *this;
}

void CKvString::TrimLeft(char c) {
    if (buffer_ == nullptr || c == '\0') return;
    const char* first = buffer_;
    while (*first == c)
        ++first;
    SetString(first);
}

void CKvString::TrimRight(char c) {
    for (size_t length = GetLength(); length > 0 && buffer_[length - 1] == c; --length)
        buffer_[length - 1] = '\0';
}

void CKvString::TrimBoth(char c) {
    TrimLeft(c);
    TrimRight(c);
}
