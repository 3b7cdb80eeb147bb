#pragma once
/// @file
/// The growable array of the data factory: exactly as long as the highest index that was asked for.

#include <algorithm>
#include <cstdint>
#include <new>
#include <utility>

template <typename T>
class CKvArray {
public:
    CKvArray() = default;
    ~CKvArray() { delete[] data_; }
    CKvArray(const CKvArray&) = delete;
    CKvArray& operator=(const CKvArray&) = delete;

    /// Grows the array to i + 1 elements when it is shorter.
    /// @param i  not negative; the new block must fit in memory
    T& operator[](int i) {
        if (count_ <= i) Fit(i + 1);
        return data_[i];
    }
    /// Makes it n elements long, keeping what there is room for; 0 or less: none. New elements are not cleared. Without
    /// memory the array is left without data.
    void Fit(int n) {
        if (n == count_) return;
        T* const block = n > 0 ? new (std::nothrow) T[static_cast<size_t>(n)] : nullptr;
        if (block != nullptr) std::copy_n(data_, std::min(count_, n), block);
        delete[] std::exchange(data_, block);
        count_ = data_ != nullptr ? n : 0;
    }
    /// Takes over a block of n elements that array-new has made.
    void UpdateMember(T* block, int n) {
        delete[] std::exchange(data_, block);
        count_ = n;
    }
    int GetCount() const { return count_; }
    operator T*() const { return data_; }

private:
    int32_t count_ = 0;
    T* data_ = nullptr;
};
