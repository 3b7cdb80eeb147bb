#pragma once
/// @file
/// Lines of the reliability log (KvRasLog). A source file that writes them names itself first:
///
///     constexpr char kRasSource[] = "kvdatafactory/KvDfCommon";

#include <cstdint>

#include "libplatform/PXR_trace.h"

#define RAS_ERROR(...) KvRasLog(1, kRasSource, __LINE__, __VA_ARGS__)
#define RAS_INFO(...) KvRasLog(2, kRasSource, __LINE__, __VA_ARGS__)
#define RAS_DEBUG(...) KvRasLog(3, kRasSource, __LINE__, __VA_ARGS__)

/// Arguments that a function refuses. The compiler warns of the zero in the %08p of these texts, which the C library
/// honours; those who search the log know the texts so.
#define RAS_BAD_ARGUMENTS(...)                                                                                \
    do {                                                                                                      \
        _Pragma("GCC diagnostic push") _Pragma("GCC diagnostic ignored \"-Wformat\"") RAS_ERROR(__VA_ARGS__); \
        _Pragma("GCC diagnostic pop")                                                                         \
    } while (false)

/// A step of a longer course has failed; the course goes on or passes the code up.
/// @param error  the step's code @param step  the step's function
#define RAS_FAILED(error, step) \
    RAS_ERROR("dwError:%.8x dwLastError:%.8x %s Failed.", static_cast<unsigned>(error), KvRasLastError(), step)

/// What the operating system said last.
unsigned KvRasLastError();
