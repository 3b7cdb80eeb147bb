// The kernel's lists as files, and copies of texts for records.

#include "platform_IF/src/proc_if_Lists.h"

#include <cerrno>
#include <cstring>

#include "common/FileText.h"
#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "cover/CancelBlock.h"
#include "platform_IF/src/proc_if.h"

namespace {

/// The kernel's lists have a few hundred bytes for each device; what is longer than this is none of them.
constexpr size_t kLongestList = 64 * 1024 * 1024;

Reason ReasonOf(int error) {
    return error == ENOMEM || error == EFBIG ? Reason::OutOfMemory : Reason::KernelListRead;
}

}  // namespace

uint32_t KernelList::Read(const char* path, uint32_t function) {
    const CancelBlock whileOpen;
    const int error = ReadWhole(path, kLongestList, text_);
    return error == 0 ? 0 : MakeResult(function, ReasonOf(error));
}

OwnedText CopyForRecord(std::string_view text) {
    OwnedText copy(static_cast<char*>(std::calloc(1, AdjustAlignmentSize(static_cast<uint32_t>(text.size() + 1)))));
    if (copy) text.copy(copy.get(), text.size());
    return copy;
}

uint32_t ReadFileToBuffer(const char* path, char** buffer, int* size) {
    if (buffer != nullptr) *buffer = nullptr;
    if (size != nullptr) *size = 0;
    if (path == nullptr || buffer == nullptr || size == nullptr) {
        return MakeResult(fn::kReadFileToBuffer, Reason::NullArgument);
    }
    KernelList file;
    if (const uint32_t failure = file.Read(path, fn::kReadFileToBuffer)) return failure;
    *buffer = CopyForRecord(file.Text()).release();
    if (*buffer == nullptr) return MakeResult(fn::kReadFileToBuffer, Reason::OutOfMemory);
    *size = static_cast<int>(file.Text().size());
    return 0;
}
