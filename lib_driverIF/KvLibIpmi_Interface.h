#pragma once
/// @file
/// The system interfaces, KCS and SMIC, their registers, and the choice between them. The words are those of the IPMI
/// standard.

#include "lib_driverIF/KvLibIpmi_State.h"

/// @name The choice (KvLibIpmi_Select.cpp)
/// @{

struct IpmiInterfaceTable {
    IpmiWriteOperation write;
    IpmiReadOperation read;
    IpmiStatusOperation status;
    IpmiAttentionOperation attention;
    IpmiReadStateOperation isReadState;
    uint16_t defaultBase;
};
extern const IpmiInterfaceTable kcs_func;
extern const IpmiInterfaceTable smic_func;

struct IpmiRegisterTable {
    RegisterWriteOperation write;
    RegisterReadOperation read;
};
extern const IpmiRegisterTable ioreg_func;
extern const IpmiRegisterTable memoryreg_func;

/// Chooses the interface by the SMBIOS structure of type 38, KCS at 0x0CA2 without one.
/// @return 0; -5 registers out of reach; -38 the machine has a BT interface
int ipmi_set_function();
void ipmi_set_function_SMIC();
/// KCS at a port; the kind of register access stays. @return 0; -22 the status register would have no port
int ipmi_set_function_kcs_ioport(uint16_t port);
void ipmi_set_register_access(const IpmiRegisterTable& table);
/// @}

/// @name Registers (KvLibIpmi_Registers.cpp)
/// @{

/// @return 0; -5 not written
int ipmi_ioreg_write(uint16_t reg, uint8_t value);
int ipmi_memoryreg_write(uint16_t reg, uint8_t value);
/// @return the byte; 0 when it cannot be read
uint8_t ipmi_ioreg_read(uint16_t reg);
uint8_t ipmi_memoryreg_read(uint16_t reg);

/// The two ways to one byte of physical memory. Kernels before 2.6 seek and transfer; later ones fail that way above
/// the end of RAM, where registers are, and map the page instead. @return whether it could be reached
bool ipmi_memory_write_by_seek(int64_t physical, uint8_t value);
bool ipmi_memory_read_by_seek(int64_t physical, uint8_t* value);
bool ipmi_memory_write_by_map(int64_t physical, uint8_t value);
bool ipmi_memory_read_by_map(int64_t physical, uint8_t* value);

/// A register of the interface in use. A write that fails shows in the state that does not change.
inline uint8_t ReadRegister(uint16_t reg) {
    return REG_READ.load()(reg);
}
inline void WriteRegister(uint16_t reg, uint8_t value) {
    REG_WRITE.load()(reg, value);
}

/// Sleeps; a negative time counts as 0. @return 0; -14 a signal ended it
int ipmi_sleep_on_timeout(long ms);
/// @}

/// A response as it comes in, byte by byte.
struct IpmiIncoming {
    uint8_t* bytes;
    uint32_t capacity;  ///< what lies behind is counted and dropped
    uint32_t count = 0;

    void Append(uint8_t value) {
        if (count < capacity) bytes[count] = value;
        ++count;
    }
};

/// @name KCS (KvLibIpmi_Kcs.cpp)
/// @{

/// Results of the primitives.
enum KcsResult : int { kKcsDone, kKcsBadArgument, kKcsTimeout, kKcsStateError, kKcsNotAvailable };

int KCSWaitStatusReg(uint8_t value, uint8_t mask, uint8_t* status);
int KCSClearObf(uint8_t* status);
/// @return 1 when the status register reads value under mask, else 0
int KCSGetStatusReg(uint8_t value, uint8_t mask, uint8_t* status);
int KCSAbortAndGetStatusCode(uint8_t* code);

int ipmi_kcs_Write(uint8_t* request, uint32_t length, uint8_t* status);
int ipmi_kcs_Read(uint8_t* response, uint32_t* length, uint8_t* status);
int ipmi_kcs_GetStatus(uint8_t* status);
/// @param mode  1: whether the BMC wants attention, 1 or 0; 2: waits until it does, a KcsResult
int ipmi_kcs_SMSBitCheck(int mode);
int ipmi_kcs_IsREAD_STATE();
/// @}

/// @name SMIC (KvLibIpmi_Smic.cpp)
/// @{
int ipmi_smic_write(uint8_t* request, uint32_t length, uint8_t* status);
int ipmi_smic_read(uint8_t* response, uint32_t* length, uint8_t* status);
int ipmi_smic_status(uint8_t* status);
/// @param mode  1: whether the BMC wants attention, 1 or 0; 2: waits until it does, 0 or a negative errno value
int ipmi_smic_smsflag(int mode);
int ipmi_smic_IsREAD_STATE();
/// Waits until the flags register reads value under mask. @return 0; -16; -14
int ipmi_smic_flagwait(uint8_t mask, uint8_t value);
/// @}
