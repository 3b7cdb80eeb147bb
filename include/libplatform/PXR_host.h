#pragma once
/// @file
/// What a host agent may supply to the library. Nothing here is exported by libplatform: each name is a weak reference
/// that is resolved when the host loads the library, so a host defines what it has (and links with -rdynamic). A name
/// that is absent has the answer given beside it, and the library loads in any process.
///
/// The functions are called by whatever thread the library happens to work in, several at once; they must not throw and
/// not call back into the request that is being served. Records that they get are the library's and end with the call.

#include <pthread.h>

#include "libplatform/KvExport.h"
#include "libplatform/PXR_data_access.h"

KV_EXTERN_C_BEGIN

/// 1 when the machine is a logical partition. Absent: 0.
int IsLPARAgent(void* reserved);

/// Sends an enumeration of alert records (KTX_CLS_ALERT_RECORD) to the management consoles. The result is not looked
/// at. Absent: not sent.
int PXR_SendPacket(_KVCIM_ENUM* alerts, int reserved);

/// Writes an enumeration of alert records to the agent's log; param is null. The result is not looked at. Absent: not
/// written.
int PXR_ExecCommand_LogFile(_KVCIM_ENUM* alerts, void* param, int reserved);

/// Fills an enumeration from the agent's own providers (used for class 39), as PXR_ExecCommand does from ours; param is
/// null, mode 1. Absent: nothing is filled in.
int PXR_DispatchForGetInfo(_KVCIM_ENUM* e, void* param, int mode);

/// May replace the distance, in bytes, between the BMC's registers. Absent: unchanged.
void GetIPMIRegSpace(uint16_t* spacing);

/// Tells the agent that the BMC's description is being read. The result is not looked at. Absent: not told.
int GetIPMIUpdate(void);

/// Type of the service processor: 0 or 1 as configured, -1 unknown. Absent: -1.
int GetSVPConfigType(void);

/// Fills the seven BMC function settings, in the order of the agent's configuration; the first, when not 0, says that a
/// service processor's driver runs. 0 on success. Absent, or another result: the defaults 1, 5, 0, 0, 10, 0, 10.
int nGetBMCFunc_cfgData(uint32_t values[7]);

/// How often a command is tried again while the BMC's firmware is updated, and the seconds waited before each.
/// Absent: 0.
extern int g_Update;
extern int g_WaitUpdate;

/// The agent's BMC configuration block; byte 168 is 1 when watchdog events are to be recorded. Absent: not recorded.
extern uint8_t pxr_bmccfg[];

/// Key of the thread names (heap copies, freed by the key's destructor). Absent: the library makes its own key.
extern pthread_key_t __pxr_tsd;

KV_EXTERN_C_END
