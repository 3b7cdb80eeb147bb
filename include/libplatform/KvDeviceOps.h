#pragma once
/// @file
/// The one seam between the library and devices. Everything that the library does to the kernel's IPMI device, to
/// physical memory, to the memory driver and to I/O ports goes through this table; the default table talks to Linux.
/// A simulated machine puts its own in place before InitLib.

#include <sys/types.h>

#include "libplatform/KvExport.h"

KV_EXTERN_C_BEGIN

/// Operations on devices. Every operation gets `context` as its first argument and reports a failure as the system call
/// of its name does: -1 (map: MAP_FAILED) and the reason in errno. Descriptors are the table's own: what open gave is
/// handed to the others and never to the operating system. Operations may be called by several threads at once.
///
/// A table may leave operations out: those that are null, and those behind its size, which a newer library knows. They
/// fail with ENOSYS (portIn gives 0xFF, as where no device answers); the real machine never answers in their place.
typedef struct KvDeviceOps {
    uint32_t size;  ///< sizeof(KvDeviceOps), as the table's maker knows it
    void* context;

    /// Opens "/dev/ipmi0", "/dev/mem" or "/dev/kvdrvmem". @param flags O_RDONLY, O_WRONLY or O_RDWR
    int (*open)(void* context, const char* path, int flags);
    int (*close)(void* context, int fd);
    ssize_t (*read)(void* context, int fd, void* buffer, size_t length);
    ssize_t (*write)(void* context, int fd, const void* buffer, size_t length);
    /// Sets the position for read and write, from the start. @return the position or -1
    int64_t (*seek)(void* context, int fd, int64_t offset);
    /// Maps length bytes from a page-aligned offset. @param writable also for writing, seen by the device
    void* (*map)(void* context, int fd, int64_t offset, size_t length, int writable);
    int (*unmap)(void* context, void* address, size_t length);
    int (*ioctl)(void* context, int fd, unsigned long request, void* argument);
    /// Waits until a message can be taken. @return 1 readable, 0 not within timeoutMs or not before a signal came, -1
    /// cannot be waited for
    int (*waitReadable)(void* context, int fd, int timeoutMs);

    /// Sets the I/O privilege level, 0 or 3, of the calling thread.
    int (*ioPrivilege)(void* context, int level);
    uint8_t (*portIn)(void* context, uint16_t port);
    void (*portOut)(void* context, uint16_t port, uint8_t value);
} KvDeviceOps;

KV_STATIC_ASSERT(sizeof(KvDeviceOps) == 56 && offsetof(KvDeviceOps, open) == 8);

/// Replaces the operations. Call it before InitLib or after TerminateLib, not between.
/// @param ops  copied; its context stays the caller's and must live until it is replaced. Null brings the default back
/// @return 0; EINVAL, and nothing is changed, when the size is not that of a table
KV_EXPORT int KvSetDeviceOps(const KvDeviceOps* ops);

KV_EXTERN_C_END
