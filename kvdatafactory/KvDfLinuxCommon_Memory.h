#pragma once
/// @file
/// The course of the memory bookkeeping over a life of the agent.

#include <cstdint>

/// At start, once the inventories are there: takes over what the last life has left, and stores what there is now. What
/// cannot be read now is neither compared nor overwritten.
void RestoreMemoryBookkeeping();
/// Writes the error count if this life has changed it, and if what the file said is known.
void StoreCountedErrors();

extern "C" {
/// Writes a file whole, in one step. @return 0; 0x60C04201 null argument; 0x60C01301 it cannot be written
uint32_t KvDf_WriteFileData(char* path, char* data, unsigned long size);
}
