#pragma once
/// @file
/// File-system calls that retry, make missing directories or work on whole trees; facts about this machine; and the
/// flag by which a process that is ending stops its long loops. Results are error numbers, 0 on success, unless stated.
/// Safe to call from any thread. Every descriptor is close-on-exec.

#include "libplatform/KvExport.h"

KV_EXTERN_C_BEGIN

/// Opens a file in up to three attempts: EAGAIN is tried again, and when a directory of the path is missing and flags
/// contain O_CREAT, the directories are made once with PXR_mkdir.
/// @param mode  permissions of a new file; directories get the search bit for each class that may read
/// @return a descriptor, or -1 with errno set
KV_EXPORT int PXR_open(const char* path, int flags, int mode);
/// Makes every directory along the path that does not exist. The mode (less the process's umask) gets the search bit
/// for each class that has the read bit. Stops at the first directory that cannot be made.
KV_EXPORT int PXR_mkdir(const char* path, int mode);
/// Reads until n bytes have come or the file ends, waiting 1 ms whenever the descriptor has nothing yet (EAGAIN).
/// @return the number of bytes read, or -1 with errno set (ECANCELED: the process is terminating)
KV_EXPORT int PXR_read(int fd, void* buffer, uint32_t n);
/// Writes all n bytes, waiting 1 ms whenever the descriptor takes nothing (EAGAIN).
/// @return n, or -1 with errno set (ECANCELED: the process is terminating)
KV_EXPORT int PXR_write(int fd, const void* buffer, uint32_t n);
/// Removes a name; waits 1 ms and tries again while it is busy (EBUSY), until the process is terminating.
KV_EXPORT int PXR_unlink(const char* path);
/// Removes a directory with all it holds, depth first. Symbolic links are removed, never followed, also when one takes
/// a directory's place meanwhile. Stops at the first name that cannot be removed.
KV_EXPORT int PXR_rmdir(const char* path);
/// Renames; a regular file moves into `to` under its own name when `to` is a directory.
KV_EXPORT int PXR_renameall(const char* from, const char* to);
/// Checks access to a file. For the superuser the file's own permission bits decide (any class will do), since the
/// system would grant everything.
/// @param mode  0 exists, 1 execute, 2 write, 4 read; EINVAL for any other when the caller is the superuser
KV_EXPORT int PXR_access(const char* path, int mode);

/// Total memory of the machine in bytes; 0 when the system does not tell.
KV_EXPORT uint64_t PXR_GetPhysicalMemory(void);
/// The node name, the name of the operating system and its release, as uname gives them.
/// @param size  size of the buffer in bytes; ERANGE when the text does not fit (the buffer is then as it was)
KV_EXPORT int PXR_GetMachineName(char* buffer, uint32_t size);
KV_EXPORT int PXR_GetOSName(char* buffer, uint32_t size);
KV_EXPORT int PXR_GetOSVersion(char* buffer, uint32_t size);
/// The IPv4 address of a network interface ("eth0") in dotted form.
/// @param size  size of the buffer in bytes; 16 always suffice; ERANGE when the text does not fit
KV_EXPORT int PXR_GetIPAddress(const char* interfaceName, char* buffer, uint32_t size);

/// Tells every long loop of the library to end: the process is going down. There is no way back. Callable from a signal
/// handler.
KV_EXPORT void SetTerminateProcess(void);
/// 1 from SetTerminateProcess on, 0 before. Callable from a signal handler.
KV_EXPORT int IsTerminateProcess(void);

KV_EXTERN_C_END
