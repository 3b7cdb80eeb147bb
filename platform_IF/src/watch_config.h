#pragma once
/// @file
/// The watch configuration that the host hands over: the library's own copy, so that the host may free its records at
/// any time. Written by SendMessage, read by the watchers on whatever thread polls them.

#include <cstdint>
#include <string>
#include <vector>

#include "libplatform/PXR_config.h"

/// One file system to watch, by name, with the number of its FSNAME line.
struct WatchedFileSystem {
    std::string name;
    uint32_t number;
};

/// Copy of a PXR_strage_watch and its list.
struct FileSystemWatch {
    PXR_strage_watch words{};  ///< its list pointer is null; the entries are those below
    std::vector<WatchedFileSystem> fileSystems;
};

// Each setter replaces the copy; null switches the watch off. All but the syslog one raise the refresh flag that makes
// the watcher start over with the new settings on its next pass.
void SetMemAlertConfig(const PXR_memory_watch* watch);
/// @return false, and the old settings stay, when memory is exhausted
bool SetFSAlertConfig(const PXR_strage_watch* watch);
void SetCpuAlertConfig(const PXR_cpu_watch* watch);
void SetSyslogDogAlertConfig(const PXR_syslog_watch* watch);

/// What a watcher works by: its settings, and whether they were replaced since it last took them.
template <typename Watch>
struct CurrentWatch {
    Watch watch{};
    bool refresh = false;
};

// Each watcher takes its own at the beginning of a pass. Copying and lowering the flag are one step: settings that come
// during the pass are news to the next one.
CurrentWatch<PXR_memory_watch> TakeMemAlertConfig();
/// @throws std::bad_alloc; the flag stays up
CurrentWatch<FileSystemWatch> TakeFSAlertConfig();
CurrentWatch<PXR_cpu_watch> TakeCpuAlertConfig();
PXR_syslog_watch GetSyslogDogAlertConfig();
