// The start and end of what the classes read from.

#include "platform_IF/src/ipmi_if.h"

#include "libplatform/KvDfDataFactory.h"

uint32_t InitIpmiIf() {
    return KvDfInitialize();
}

uint32_t TerminateIpmiIf() {
    return KvDfTerminate();
}
