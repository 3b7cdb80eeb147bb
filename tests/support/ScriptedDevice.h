#pragma once
/// @file
/// The kernel's IPMI device as a test plays it, in place of the machine's devices for the life of the object.

#include <linux/ipmi.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <vector>

#include "libplatform/KvDeviceOps.h"
#include "simulator/KernelIpmiDevice.h"

class ScriptedDevice {
public:
    ScriptedDevice() {
        KvDeviceOps ops = {};
        ops.size = sizeof ops;
        ops.context = this;
        ops.open = [](void* self, const char*, int) { return static_cast<ScriptedDevice*>(self)->Open(); };
        ops.close = [](void* self, int) { return static_cast<ScriptedDevice*>(self)->Close(), 0; };
        ops.ioctl = [](void* self, int, unsigned long request, void* argument) {
            auto& device = *static_cast<ScriptedDevice*>(self);
            return request == sim::kIpmiSendCommand ? device.Take(argument) : device.Give(argument);
        };
        ops.waitReadable = [](void*, int, int) { return 1; };
        KvSetDeviceOps(&ops);
    }
    virtual ~ScriptedDevice() { KvSetDeviceOps(nullptr); }
    ScriptedDevice(const ScriptedDevice&) = delete;
    ScriptedDevice& operator=(const ScriptedDevice&) = delete;

protected:
    virtual int Open() { return 0; }
    virtual void Close() {}
    /// @return completion code and data; nothing: the command is not taken
    virtual std::optional<std::vector<uint8_t>> Answer() { return std::nullopt; }

private:
    int Take(void* argument) {
        ipmi_req request;
        memcpy(&request, argument, sizeof request);
        id_ = request.msgid;
        answer_ = Answer();
        if (!answer_) errno = EIO;
        return answer_ ? 0 : -1;
    }
    int Give(void* argument) {
        ipmi_recv receive;
        memcpy(&receive, argument, sizeof receive);
        errno = EAGAIN;
        if (!answer_) return -1;
        receive.recv_type = IPMI_RESPONSE_RECV_TYPE;
        receive.msgid = id_;
        receive.msg.data_len = static_cast<unsigned short>(std::min<size_t>(answer_->size(), receive.msg.data_len));
        std::copy_n(answer_->begin(), receive.msg.data_len, receive.msg.data);
        answer_.reset();
        memcpy(argument, &receive, sizeof receive);
        return 0;
    }

    long id_ = 0;
    std::optional<std::vector<uint8_t>> answer_;
};
