#pragma once
/// @file
/// The recent error of this layer: the calling thread's errno, set by whatever failed last.

int GetRecentErrno();
void SetRecentErrno(int error);
