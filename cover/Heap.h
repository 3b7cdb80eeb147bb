#pragma once
/// @file
/// The owner of memory that came from malloc: our own, the C library's, or what an exported function hands out.

#include <cstdlib>
#include <memory>

struct FreeMemory {
    void operator()(void* memory) const { free(memory); }
};

template <typename T>
using HeapOwned = std::unique_ptr<T, FreeMemory>;

using OwnedText = HeapOwned<char>;
