/// Commands of the Storage network function: FRU, SDR repository, SEL.

#include "simulator/Bmc.h"

namespace sim {

Response Controller::HandleStorage(const Request& request) {
    sel_.CatchUp();
    switch (request.command) {
        case 0x10:
            return fru_.GetAreaInfo(request);
        case 0x11:
            return fru_.Read(request);
        case 0x20:
            return sdr_.GetInfo();
        case 0x22:
            return sdr_.Reserve();
        case 0x23:
            return sdr_.Get(request);
        case 0x40:
            return sel_.GetInfo();
        case 0x42:
            return sel_.Reserve();
        case 0x43:
            return sel_.GetEntry(request);
        case 0x44:
            return sel_.AddEntry(request);
        case 0x46:
            return sel_.Delete(request);
        case 0x47:
            return sel_.ClearCommand(request);
        case 0x48: {
            Response response;
            PutLong(response.data, sel_.Time());
            return response;
        }
        case 0x49:
            if (request.data.size() != 4) return {cc::kBadLength, {}};
            sel_.SetTime(Long(request.data, 0));
            return {};
        default:
            return {cc::kInvalidCommand, {}};
    }
}

}  // namespace sim
