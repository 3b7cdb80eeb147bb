#pragma once
/// @file
/// A BMC that answers by script. The linker leads callers of CWDTOperationThread::IPMI_ExecCommand here (CMakeLists.txt),
/// so that the script may hold results which the kernel's device never has. For one file of a program.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "lib_driverIF/WDTOperationThread.h"

/// Keeps what it was asked.
class ScriptedDriver {
public:
    using Bytes = std::vector<uint8_t>;

    ScriptedDriver() { inForce = this; }

    int Execute(uint8_t command, uint8_t netFn, uint16_t dataLength, const uint8_t* data, uint16_t* responseLength,
                uint8_t* response) {
        Bytes request{netFn, command};
        request.insert(request.end(), data, data + dataLength);
        requests.push_back(request);
        if (results.size() >= requests.size() && results[requests.size() - 1] != 0) return results[requests.size() - 1];
        if (otherwise != 0) return otherwise;
        std::copy(answer.begin(), answer.end(), response);
        *responseLength = static_cast<uint16_t>(answer.size() + overstatement);
        return 0;
    }

    /// Begins anew: results of the first attempts, and of every further one.
    void Script(std::vector<int> first, int then = 0) {
        requests.clear();
        results = std::move(first);
        otherwise = then;
    }

    std::vector<int> results;  ///< of the first attempts
    int otherwise = 0;         ///< result of every further one
    Bytes answer{0};           ///< completion code and data
    size_t overstatement = 0;  ///< by which the length told exceeds the answer's
    std::vector<Bytes> requests;
    static inline ScriptedDriver* inForce = nullptr;
};

extern "C" int __wrap__ZN19CWDTOperationThread16IPMI_ExecCommandEhhtPKhPtPhRNS_8AttemptsE(
    CWDTOperationThread* /*self*/, uint8_t command, uint8_t netFn, uint16_t dataLength, const uint8_t* data,
    uint16_t* responseLength, uint8_t* response, CWDTOperationThread::Attempts* /*attempts*/) {
    return ScriptedDriver::inForce->Execute(command, netFn, dataLength, data, responseLength, response);
}

inline std::string HexBytes(const ScriptedDriver::Bytes& bytes) {
    std::string text;
    for (const uint8_t byte : bytes) {
        char hex[4];
        snprintf(hex, sizeof hex, " %02X", byte);
        text += text.empty() ? hex + 1 : hex;
    }
    return text;
}
