#pragma once
/// @file
/// The alert that a failed database of the event logs raises.

#include "libplatform/KvDfRecords.h"

/// Appends one alert when a file of the database has failed since the last call that did.
/// @param count   of alerts
/// @param alerts  made by array-new, or null for none; a longer array takes its place
/// @return 0; 0x60004201 null; 0x60001202 out of memory: nothing is changed, and the next call tries again
uint32_t AddAlertOccurredBySELDb(unsigned long* count, KVDF_ALERT** alerts);
