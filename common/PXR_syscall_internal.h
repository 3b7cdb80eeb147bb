#pragma once
/// @file
/// Helpers of the file wrappers that other runtime modules share.

#include "cover/FileDescriptor.h"

/// The pause between two attempts of a call that has to be repeated: 1 ms.
/// @return false, without pausing, when the process is terminating and the caller should give up
bool PauseBeforeRetry();
