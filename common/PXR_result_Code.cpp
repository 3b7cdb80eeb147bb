// The printable form of a result code.
#include <cstdio>

#include "libplatform/PXR_message.h"

namespace {

char SeverityOf(uint32_t code) {
    switch (code >> 26 & 3) {
        case 1:
            return 'W';
        case 2:
            return 'E';
        default:
            return 'C';
    }
}

}  // namespace

char* PXR_GetErrCodeString(uint32_t code) {
    char* text = nullptr;
    const int length =
        asprintf(&text, "QNTR %X%04X-%c %03X", code >> 28, code & 0xFFFF, SeverityOf(code), code >> 16 & 0x3FF);
    return length < 0 ? nullptr : text;
}
