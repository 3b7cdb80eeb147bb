#pragma once
/// @file
/// The string of the records that go to the host: a heap block and its size, which the object owns. No function throws;
/// without memory a string has no buffer.

#include "libplatform/KvExport.h"

#ifdef __cplusplus

class KV_EXPORT CKvString {
public:
    /// @param text  null leaves the string empty @param capacity  of the block in bytes, terminator included; it grows
    /// when a longer text is stored. 0: no buffer until then
    CKvString(const char* text, unsigned long capacity);
    CKvString(const CKvString& other, unsigned long capacity);
    CKvString(const CKvString& other);
    ~CKvString();

    /// Makes a new block of n bytes, all zero; 0: none.
    void AllocBuffer(unsigned long n);
    void FreeBuffer();
    void ClearBuffer();
    /// Null changes nothing. s may lie in the string itself.
    void SetString(const char* s);
    /// Copies into the block that there is, as far as it fits.
    void CopyString(const char* s);
    /// Changes nothing where there is no buffer.
    void ConcatString(const char* s);
    /// @return 0 without a buffer
    unsigned long GetLength() const;
    /// @return 1 when the texts are the same. A string without a buffer is like no other, not even one without a buffer
    int Compare(const char* s) const;

    int operator==(const char* s) const { return Compare(s); }
    int operator==(const CKvString& other) const { return Compare(other.buffer_); }
    int operator!=(const char* s) const { return Compare(s) == 0 ? 1 : 0; }
    int operator!=(const CKvString& other) const { return *this != other.buffer_; }
    CKvString& operator=(const char* s);
    CKvString& operator=(const CKvString& other);
    operator const char*() const { return buffer_; }

    /// Remove every c from the ends. The block stays as large as it is.
    void TrimLeft(char c);
    void TrimRight(char c);
    void TrimBoth(char c);

private:
    char* buffer_ = nullptr;
    uint32_t capacity_ = 0;
};

KV_STATIC_ASSERT(sizeof(CKvString) == 8);
#endif
