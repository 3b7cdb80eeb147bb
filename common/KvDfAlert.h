#pragma once
/// @file
/// What raises an alert is told to the host as a KVDF_ALERT.

#include "libplatform/KvDfRecords.h"
