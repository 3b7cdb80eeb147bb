// The log file as a host's programs use it.
#include "libplatform/PXR_log_file.h"

#include <cerrno>
#include <memory>
#include <new>

#include "common/PXR_trace_LogFile.h"
#include "common/PXR_trace_internal.h"
#include "cover/CancelBlock.h"

struct PXR_log_file {
    LogFile file;
};

PXR_log_file* PXR_log_file_open(const char* path, uint32_t limitKiB) {
    const CancelBlock untilItIsOpen;
    std::unique_ptr<PXR_log_file> log(new (std::nothrow) PXR_log_file);
    const int error = log == nullptr ? ENOMEM : log->file.Open(path, limitKiB, trace::ReportFailingLog);
    if (error == 0) return log.release();
    log.reset();
    errno = error;
    return nullptr;
}

void PXR_log_file_write(PXR_log_file* file, const char* lines, size_t length) {
    const CancelBlock wholeLines;
    if (file != nullptr && lines != nullptr) file->file.Write(lines, length);
}

void PXR_log_file_close(PXR_log_file* file) {
    const CancelBlock untilItIsClosed;
    delete file;
}
