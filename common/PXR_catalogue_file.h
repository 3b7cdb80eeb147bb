#pragma once
/// @file
/// Reading compiled message catalogues (the files that gencat writes). The C library has such a reader too, but it
/// follows the file's own offsets before it has checked them and maps the file: a damaged header, or a catalogue that
/// is compiled anew in place while the agent runs, would take the whole agent down. This one reads the file once into
/// memory and holds every number in it against what was read.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

/// One catalogue in memory.
class CatalogueFile {
public:
    enum class Status { kOk, kUnreadable, kNoMemory };

    /// Reads the catalogue that `name` stands for under the locale `locale`: the file of that path when the name
    /// contains "/", else the first file that can be opened among the templates of `searchPath` (the form of NLSPATH)
    /// and the system's own catalogue folders.
    Status Read(const char* name, const char* locale, const char* searchPath);

    /// @return the text, which lives as long as this object, or null when the catalogue has no such message
    const char* Find(int set, int number) const;

private:
    struct Free {
        void operator()(void* block) const { free(block); }
    };

    Status ReadWhole(int descriptor);
    bool Check();
    uint32_t Word(size_t index) const;  ///< the index-th 32-bit word of the file, little-endian

    std::unique_ptr<unsigned char, Free> bytes_;
    size_t length_ = 0;
    uint32_t planeSize_ = 0;   ///< slots of one plane of the hash table
    uint32_t planeDepth_ = 0;  ///< planes: how many messages may share a slot
    size_t texts_ = 0;         ///< where the texts begin
};
