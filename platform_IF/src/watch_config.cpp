// The watch configuration that the host hands over.

#include "platform_IF/src/watch_config.h"

#include <mutex>
#include <new>
#include <utility>

namespace {

std::mutex g_configMutex;                     // a leaf: nothing is called with it held
CurrentWatch<PXR_memory_watch> g_memory;      // guarded by g_configMutex
CurrentWatch<FileSystemWatch> g_fileSystems;  // guarded by g_configMutex
CurrentWatch<PXR_cpu_watch> g_cpu;            // guarded by g_configMutex
PXR_syslog_watch g_syslog{};                  // guarded by g_configMutex

template <typename Watch>
void Replace(CurrentWatch<Watch>& kept, Watch watch) {
    const std::lock_guard lock(g_configMutex);
    kept.watch = std::move(watch);
    kept.refresh = true;
}

template <typename Watch>
CurrentWatch<Watch> Take(CurrentWatch<Watch>& kept) {
    const std::lock_guard lock(g_configMutex);
    CurrentWatch<Watch> taken = kept;
    kept.refresh = false;
    return taken;
}

FileSystemWatch CopyOf(const PXR_strage_watch& watch) {
    FileSystemWatch copy;
    copy.words = watch;
    copy.words.list = nullptr;
    for (const PXR_fs_watch* entry = watch.list; entry != nullptr; entry = entry->next) {
        copy.fileSystems.push_back({entry->name != nullptr ? entry->name : "", entry->number});
    }
    return copy;
}

}  // namespace

void SetMemAlertConfig(const PXR_memory_watch* watch) {
    Replace(g_memory, watch != nullptr ? *watch : PXR_memory_watch{});
}

bool SetFSAlertConfig(const PXR_strage_watch* watch) {
    try {
        Replace(g_fileSystems, watch != nullptr ? CopyOf(*watch) : FileSystemWatch{});
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void SetCpuAlertConfig(const PXR_cpu_watch* watch) {
    Replace(g_cpu, watch != nullptr ? *watch : PXR_cpu_watch{});
}

void SetSyslogDogAlertConfig(const PXR_syslog_watch* watch) {
    const std::lock_guard lock(g_configMutex);
    g_syslog = watch != nullptr ? *watch : PXR_syslog_watch{};
}

CurrentWatch<PXR_memory_watch> TakeMemAlertConfig() {
    return Take(g_memory);
}

CurrentWatch<FileSystemWatch> TakeFSAlertConfig() {
    return Take(g_fileSystems);
}

CurrentWatch<PXR_cpu_watch> TakeCpuAlertConfig() {
    return Take(g_cpu);
}

PXR_syslog_watch GetSyslogDogAlertConfig() {
    const std::lock_guard lock(g_configMutex);
    return g_syslog;
}
