#pragma once
/// @file
/// Device inventory from the kernel's own lists.
///
/// A reader hands out a count and an array that the caller frees with the matching function. After a failure, and for
/// an empty list, the count is 0 and the array null. Each failure is reported where it arises.

#include <cstddef>
#include <cstdint>

/// One I/O port range, nested ranges included, in the kernel's order.
struct SysresPort {
    uint32_t start;
    uint32_t end;
    uint32_t index;     ///< position in the list, from 1
    char* device;       ///< the kernel's text behind the colon, its leading blank included
    uint32_t typeCode;  ///< 4
    char* typeText;     ///< "I/O"
};
static_assert(sizeof(SysresPort) == 24 && offsetof(SysresPort, device) == 12 && offsetof(SysresPort, typeText) == 20);

/// One interrupt line or one DMA channel.
struct SysresIrqDma {
    uint32_t number;    ///< of the interrupt or the channel
    uint32_t index;     ///< position in the list, from 1
    char* device;       ///< devices that use it, as the kernel writes them
    uint32_t typeCode;  ///< 5 interrupt, 6 DMA channel
    char* typeText;     ///< "IRQ" or "DMA"
};
static_assert(sizeof(SysresIrqDma) == 20 && offsetof(SysresIrqDma, device) == 8 &&
              offsetof(SysresIrqDma, typeText) == 16);

/// Reads /proc/ioports. A line that does not begin with a range ends the list.
/// @return 0; 0x61294201 null argument; 0x61297981 not readable; 0x61291202 no memory
uint32_t GetSysresPort(int* count, SysresPort** list);

/// Reads the numbered lines of /proc/interrupts, without the counts per processor and the controller's name. Kernels
/// from 4 on write the line's number at the controller and the trigger in columns of their own, which stay in the text
/// ("2-edge      timer").
/// @return 0; 0x612A4201 null argument; 0x612A7981 not readable; 0x612A7985 a line is not a number, a colon and a text;
///         0x612A1202 no memory
uint32_t GetSysresIrq(int* count, SysresIrqDma** list);

/// Reads /proc/dma. A line that does not begin with a number ends the list.
/// @return 0; 0x612B4201 null argument; 0x612B7981 not readable; 0x612B1202 no memory
uint32_t GetSysresDma(int* count, SysresIrqDma** list);

/// Reads a whole file, also one whose size the file system does not know. Reports nothing: the caller knows what the
/// file means to it.
/// @param buffer  zero-terminated, the caller's to free(); null after a failure
/// @param size    without the terminating zero
/// @return 0; 0x612C4201 null argument; 0x612C7981 not readable; 0x612C1202 no memory
uint32_t ReadFileToBuffer(const char* path, char** buffer, int* size);

void FreeSysresPort(SysresPort* list, int count);
void FreeSysresIrqDma(SysresIrqDma* list, int count);
