#pragma once
/// @file
/// A BMC that answers by script, in the place of the kernel's device.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "lib_driverIF/KvPltfSvcIpmiCall.h"

/// Keeps what it was asked.
class ScriptedTransport : public ktx_ipmi::IpmiTransport {
public:
    using Bytes = std::vector<uint8_t>;

    ScriptedTransport() { ktx_ipmi::SetIpmiTransport(this); }
    ~ScriptedTransport() override { ktx_ipmi::SetIpmiTransport(nullptr); }

    int Open() override { return 0; }
    void Close() override {}
    int Execute(uint8_t command, uint8_t netFn, uint16_t dataLength, const uint8_t* data, uint16_t* responseLength,
                uint8_t* response) override {
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
};

inline std::string HexBytes(const ScriptedTransport::Bytes& bytes) {
    std::string text;
    for (const uint8_t byte : bytes) {
        char hex[4];
        snprintf(hex, sizeof hex, " %02X", byte);
        text += text.empty() ? hex + 1 : hex;
    }
    return text;
}
