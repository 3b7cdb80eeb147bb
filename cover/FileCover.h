#pragma once
/// @file
/// Files, directories and paths. Functions that give 1 or 0 leave the reason of a failure in the recent error.

#include <cstdint>

/// Longest path that _fullpath takes and gives.
inline constexpr uint32_t kLongestPath = 255;

/// Opens a file; children do not inherit it. @return descriptor; -1 on failure
int FileOpen(const char* path, int flags, int mode);
/// Reads until length bytes or the end of the file. @return bytes read; -1 on error
int FileRead(int fd, void* buffer, uint32_t length);
/// Writes all of it. @return length; -1 on error
int FileWrite(int fd, const void* buffer, uint32_t length);

/// Makes one directory. @return 1; 0 on failure, also when it exists (EEXIST)
int CreateNewDirectory(const char* path);
/// Makes a directory and those above it; existing ones are fine. @return 1; 0 on failure
int CreateDirectoryforPath(const char* path);
/// Makes the directories that a file lies in. @return 1; 0 on failure
int CreateDirectoryforFile(const char* file);
/// Removes a directory and all that is in it; links are removed, not followed. @return 1; 0 on failure
int RemoveDir(const char* path);

/// Copies a file with its mode (as masked by the process), inside the kernel where it can. A destination that could not
/// be written is removed; a copy to itself changes nothing.
/// @param failIfExists  1: fails with EEXIST when the destination exists
/// @return 1; 0 on failure
int CreateCopyFile(const char* source, const char* destination, int failIfExists);

/// The absolute form of a path, without "." and ".." components. Links are not looked at.
/// @param out   null: a buffer of 256 bytes is allocated, freed by the caller with free()
/// @param size  of out, in bytes
/// @return out or the new buffer; null on failure: EINVAL longer than kLongestPath, ERANGE longer than out
char* _fullpath(char* out, const char* path, uint32_t size);
