#pragma once
/// @file
/// What start-up tells the questions to the BMC.

#include "lib_driverIF/KvPltfSvcIpmiCmd.h"

namespace ktx_ipmi {

/// At start-up: what KvPsGetCoDBladeInfo answers from then on.
void SetCoDBladeInfo(const DeviceId& id, bool supported);

}  // namespace ktx_ipmi
