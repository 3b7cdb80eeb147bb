// What carries a command to the BMC: the kernel's device, unless it is replaced.

#include <atomic>

#include "lib_driverIF/KvPltfSvcIpmiCall_Internal.h"
#include "lib_driverIF/WDTOperationThread.h"

namespace ktx_ipmi {

namespace {

/// The kernel's device.
class KernelTransport : public IpmiTransport {
public:
    void BeginRequest() override { attempts_ = {}; }
    int Open() override { return objOprThread.LOGG_IPMIInit(); }
    void Close() override { objOprThread.LOGG_IPMIClose(); }
    int Execute(uint8_t command, uint8_t netFn, uint16_t dataLength, const uint8_t* data, uint16_t* responseLength,
                uint8_t* response) override {
        return objOprThread.IPMI_ExecCommand(command, netFn, dataLength, data, responseLength, response, attempts_);
    }

private:
    CWDTOperationThread::Attempts attempts_;
};

KernelTransport g_kernelTransport;
std::atomic<IpmiTransport*> g_transport{&g_kernelTransport};

}  // namespace

IpmiTransport& Transport() {
    return *g_transport;
}

void SetIpmiTransport(IpmiTransport* transport) {
    g_transport = transport != nullptr ? transport : &g_kernelTransport;
}

}  // namespace ktx_ipmi
