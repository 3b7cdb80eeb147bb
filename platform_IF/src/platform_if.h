#pragma once
/// @file
/// What the entry points, the dispatch and the class builders share.

#include <cstdint>

#include "libplatform/platform_if.h"

/// Catalogue words for an unknown and a normal state, loaded by InitLib; null when the catalogue has none.
extern char* g_pszUnknown;
extern char* g_pszNormal;

/// Runs the builder of the enumeration's class.
/// @return the builder's result where the class hands it to the host, else 0
uint32_t DispatchCommand(_KVCIM_ENUM* e, const _PXR_COMMAND_PARAM* param);

// Class builders. Each fills e with one instance per record of its source, all or none: on a failure the enumeration is
// emptied and the first failing step's code comes back.
uint32_t CreateClassProvider(_KVCIM_ENUM* e);
uint32_t CreateClassSysresPort(_KVCIM_ENUM* e);
uint32_t CreateClassSysresIrq(_KVCIM_ENUM* e);
uint32_t CreateClassSysresDma(_KVCIM_ENUM* e);

/// Carries out the command in the first instance of e (class KTX_CLS_POWER_CTRL). Unlike a builder it leaves the host's
/// enumeration alone.
/// @return 0x60234201 no command number; 0x60234202 a command that is not known
uint32_t ExecuteCommand(_KVCIM_ENUM* e);
