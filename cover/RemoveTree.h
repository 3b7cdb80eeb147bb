#pragma once
/// @file
/// Removal of directory trees.

/// Removes a directory and all that is in it; links in it are removed, not followed. A thread that is cancelled meanwhile
/// ends afterwards.
/// @param path        trailing slashes do not count
/// @param linkAsWell  whether the path may be a link, which is removed then
/// @return 0, or an errno value: ENOTDIR anything else, ELOOP more than 256 levels
int RemoveTree(const char* path, bool linkAsWell);
