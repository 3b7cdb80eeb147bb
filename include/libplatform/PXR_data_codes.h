#pragma once
/// @file
/// The numbers of the class data model: property types, class ids and property codes. Each list is written once; the
/// enumerators, the printed names and the templates inside the library are all made from it, and a host can make its
/// own tables the same way:
/// @code
///     #define NAME(name, number) #name,
///     static const char* const kClassNames[] = {KTX_CLASS_LIST(NAME)};
///     #undef NAME
/// @endcode
/// Names and numbers are fixed for good, unusual spellings included; a new entry takes the next number.

/// Types of a property's value, and the block that holds it.
#define PROP_TYPE_LIST(X)                                      \
    X(PROP_TYPE_STRING, 0) /* NUL-terminated text */           \
    X(PROP_TYPE_TIME, 1)   /* NUL-terminated text of a time */ \
    X(PROP_TYPE_UINT8, 2)  /* 1 byte */                        \
    X(PROP_TYPE_UINT16, 3) /* 4 bytes, widened */              \
    X(PROP_TYPE_UINT32, 4) /* 4 bytes */                       \
    X(PROP_TYPE_UINT64, 5) /* 8 bytes */                       \
    X(PROP_TYPE_SINT8, 6)  /* 1 byte */                        \
    X(PROP_TYPE_SINT16, 7) /* 4 bytes, widened */              \
    X(PROP_TYPE_SINT32, 8) /* 4 bytes */                       \
    X(PROP_TYPE_SINT64, 9) /* 8 bytes */

/// Class ids: the kinds of managed objects.
#define KTX_CLASS_LIST(X)              \
    X(KTX_CLS_PROVIDER, 0)             \
    X(KTX_CLS_KEYBOARD, 1)             \
    X(KTX_CLS_SYSTEM_BIOS, 2)          \
    X(KTX_CLS_OPERATING_SYSTEM, 3)     \
    X(KTX_CLS_COMPUTER_SYSTEM, 4)      \
    X(KTX_CLS_BODY_TEMP_SENSOR, 5)     \
    X(KTX_CLS_PROC_TEMP_SENSOR, 6)     \
    X(KTX_CLS_BODY_FAN, 7)             \
    X(KTX_CLS_PROC_FAN, 8)             \
    X(KTX_CLS_UPS_BATTERY, 9)          \
    X(KTX_CLS_POWER_UNIT, 10)          \
    X(KTX_CLS_VOLTAGE_SENSOR, 11)      \
    X(KTX_CLS_PROCESSOR, 12)           \
    X(KTX_CLS_CACHE_MEMORY, 13)        \
    X(KTX_CLS_PHISICAL_MEM_ARRAY, 14)  \
    X(KTX_CLS_PHISICAL_MEM_SOCKET, 15) \
    X(KTX_CLS_PHISICAL_MEM_DEVICE, 16) \
    X(KTX_CLS_SCSI_CONTROLLER, 17)     \
    X(KTX_CLS_SCSI_PORT, 18)           \
    X(KTX_CLS_SCSI_BUS, 19)            \
    X(KTX_CLS_SCSI_DEV, 20)            \
    X(KTX_CLS_SCSI_DEV_STATISTICS, 21) \
    X(KTX_CLS_SCSI_DEV_ERRCOUNTS, 22)  \
    X(KTX_CLS_PCI_BRIDGE, 23)          \
    X(KTX_CLS_PCI_SLOT, 24)            \
    X(KTX_CLS_EISA_SLOT, 25)           \
    X(KTX_CLS_PCI_CARD, 26)            \
    X(KTX_CLS_EISA_CARD, 27)           \
    X(KTX_CLS_MEMORY_RES, 28)          \
    X(KTX_CLS_PORT_RES, 29)            \
    X(KTX_CLS_IRQ, 30)                 \
    X(KTX_CLS_DMA, 31)                 \
    X(KTX_CLS_PRODUCT, 32)             \
    X(KTX_CLS_PROPERTY, 33)            \
    X(KTX_CLS_ADMINISTRATOR, 34)       \
    X(KTX_CLS_PLACE, 35)               \
    X(KTX_CLS_NETWORK_SETTING, 36)     \
    X(KTX_CLS_ALERT_SETTING, 37)       \
    X(KTX_CLS_ALERT_ATTR_SETTING, 38)  \
    X(KTX_CLS_ALERT_DATA, 39)          \
    X(KTX_CLS_THRESHOLD_SETTING, 40)   \
    X(KTX_CLS_TOOL_MENU_SETTING, 41)   \
    X(KTX_CLS_TIME_ZONE, 42)           \
    X(KTX_CLS_DEVICE_SETTING, 43)      \
    X(KTX_CLS_ALERT_LOG_FILE, 44)      \
    X(KTX_CLS_ALERT_RECORD, 45)        \
    X(KTX_CLS_SVP_NODE, 46)            \
    X(KTX_CLS_RM_OUTPUT_FILE, 47)      \
    X(KTX_CLS_FILE_TRANSFER, 48)       \
    X(KTX_CLS_FILE_SYSTEM, 49)         \
    X(KTX_CLS_EXEC_CMD, 50)            \
    X(KTX_CLS_REMOTE_CMD, 51)          \
    X(KTX_CLS_POWER_CTRL, 52)          \
    X(KTX_CLS_POWER_CTRL_SVP, 53)      \
    X(KTX_CLS_SVP_LOGWRITE, 54)        \
    X(KTX_CLS_SVP_RESET, 55)           \
    X(KTX_CLS_PRE_POWER_OFF, 56)       \
    X(KTX_CLS_POWER_OFF_NG, 57)        \
    X(KTX_CLS_CHASSIS_INFO, 58)        \
    X(KTX_CLS_HOSTID_INFO, 59)         \
    X(KTX_CLS_COD_INFO, 60)

/// Property codes. The same code may have different types in different classes.
#define KTX_PROPERTY_LIST(X)                    \
    X(KTX_PROP_VERSION, 0)                      \
    X(KTX_PROP_TYPE, 1)                         \
    X(KTX_PROP_RELEASE_DATE, 2)                 \
    X(KTX_PROP_BOOT_TIME, 3)                    \
    X(KTX_PROP_TOTAL_VISIBLE_MEMORY_SIZE, 4)    \
    X(KTX_PROP_SIZE_STORED_LN_PAGING_FILES, 5)  \
    X(KTX_PROP_ECC_ERROR_COUNT, 6)              \
    X(KTX_PROP_ECC_SBC_ADDRESS, 7)              \
    X(KTX_PROP_ECC_UNC_ADDRESS, 8)              \
    X(KTX_PROP_HOST, 9)                         \
    X(KTX_PROP_DOMAIN, 10)                      \
    X(KTX_PROP_NUMBER_OF_SLOTS, 11)             \
    X(KTX_PROP_MAC_ADDRESS, 12)                 \
    X(KTX_PROP_WOL_PERMISSION, 13)              \
    X(KTX_PROP_NAME, 14)                        \
    X(KTX_PROP_TEMP_NO, 15)                     \
    X(KTX_PROP_STATE_CODE, 16)                  \
    X(KTX_PROP_STATE_STRING, 17)                \
    X(KTX_PROP_CURRENT_READING, 18)             \
    X(KTX_PROP_NOMINAL_READING, 19)             \
    X(KTX_PROP_NOMINAL_STRING, 20)              \
    X(KTX_PROP_FAN_NO, 21)                      \
    X(KTX_PROP_EXIST_CODE, 22)                  \
    X(KTX_PROP_EXIST_STRING, 23)                \
    X(KTX_PROP_UPS_STATUS, 24)                  \
    X(KTX_PROP_OPERATION_STATE, 25)             \
    X(KTX_PROP_BATTERY_STATUS, 26)              \
    X(KTX_PROP_POWER_UNIT_NO, 27)               \
    X(KTX_PROP_CPU_NO, 28)                      \
    X(KTX_PROP_ROLE, 29)                        \
    X(KTX_PROP_CPU_STATUS, 30)                  \
    X(KTX_PROP_CPU_STATUS_STRING, 31)           \
    X(KTX_PROP_FAMILY, 32)                      \
    X(KTX_PROP_FAMILY_STRING, 33)               \
    X(KTX_PROP_MAX_CLOCK_SPEED, 34)             \
    X(KTX_PROP_LEVEL, 35)                       \
    X(KTX_PROP_LINE_SIZE, 36)                   \
    X(KTX_PROP_ARRAY_NO, 37)                    \
    X(KTX_PROP_NUMBER_OF_SOCKETS, 38)           \
    X(KTX_PROP_SOCKET_NUMBER, 39)               \
    X(KTX_PROP_CAPACITY, 40)                    \
    X(KTX_PROP_ADAPTER_ID, 41)                  \
    X(KTX_PROP_DRIVER_NAME, 42)                 \
    X(KTX_PROP_PORT_ID, 43)                     \
    X(KTX_PROP_BUS_ID, 44)                      \
    X(KTX_PROP_DEVICE_TYPE_CODE, 45)            \
    X(KTX_PROP_DEVICE_TYPE_STRING, 46)          \
    X(KTX_PROP_STORAGE_TYPE_CODE, 47)           \
    X(KTX_PROP_STORAGE_TYPE_STRING, 48)         \
    X(KTX_PROP_VENDORNAME, 49)                  \
    X(KTX_PROP_PRODUCTNAME, 50)                 \
    X(KTX_PROP_REVISION, 51)                    \
    X(KTX_PROP_TOTAL_SIZE, 52)                  \
    X(KTX_PROP_FREE_SIZE, 53)                   \
    X(KTX_PROP_TARGET_ID, 54)                   \
    X(KTX_PROP_LUN, 55)                         \
    X(KTX_PROP_TOTAL_USED_TIME, 56)             \
    X(KTX_PROP_TOTAL_READ_COUNT, 57)            \
    X(KTX_PROP_TOTAL_WRITE_COUNT, 58)           \
    X(KTX_PROP_TOTAL_READ_ERRORS, 59)           \
    X(KTX_PROP_TOTAL_WRITE_ERRORS, 60)          \
    X(KTX_PROP_TOTAL_RECOVERD_READ_ERRORS, 61)  \
    X(KTX_PROP_TOTAL_RECOVERD_WRITE_ERRORS, 62) \
    X(KTX_PROP_TOTAL_SECTOR_REASSIGN_COUNT, 63) \
    X(KTX_PROP_TOTAL_BUS_RESET_COUNT, 64)       \
    X(KTX_PROP_TOTAL_BUS_PARITY_ERRORS, 65)     \
    X(KTX_PROP_TOTAL_PHASE_ERRORS, 66)          \
    X(KTX_PROP_TOTAL_SECTION_TIMEOUTS, 67)      \
    X(KTX_PROP_TOTAL_MEDIUM_ERRORS, 68)         \
    X(KTX_PROP_TOTAL_HARD_ERRORS, 69)           \
    X(KTX_PROP_TOTAL_RESET_COUNT, 70)           \
    X(KTX_PROP_BRIDGE_NO, 71)                   \
    X(KTX_PROP_PRIMARY_PCI_DEVICE_NUMBER, 72)   \
    X(KTX_PROP_PRIMARY_PCI_STATE_CODE, 73)      \
    X(KTX_PROP_PRIMARY_PCI_STATE_STRING, 74)    \
    X(KTX_PROP_SECONDARY_PCI_DEVICE_NUMBER, 75) \
    X(KTX_PROP_SECONDARY_PCI_STATE_CODE, 76)    \
    X(KTX_PROP_SECONDARY_PCI_STATE_STRING, 77)  \
    X(KTX_PROP_SLOT_NO, 78)                     \
    X(KTX_PROP_FUSE_STATUS_CODE, 79)            \
    X(KTX_PROP_FUSE_STATUS_STRING, 80)          \
    X(KTX_PROP_DEVICE_ID, 81)                   \
    X(KTX_PROP_BOARD_NAME_CODE, 82)             \
    X(KTX_PROP_BOARD_NAME_STRING, 83)           \
    X(KTX_PROP_VENDER_ID, 84)                   \
    X(KTX_PROP_VENDER_NAME_CODE, 85)            \
    X(KTX_PROP_VENDER_NAME_STRING, 86)          \
    X(KTX_PROP_COMPRESSED_ID, 87)               \
    X(KTX_PROP_STARTING_ADDRESS, 88)            \
    X(KTX_PROP_ENDING_ADDRESS, 89)              \
    X(KTX_PROP_INDEX, 90)                       \
    X(KTX_PROP_DEVICE, 91)                      \
    X(KTX_PROP_TYPE_CODE, 92)                   \
    X(KTX_PROP_TYPE_STRING, 93)                 \
    X(KTX_PROP_IRQ_NUMBER, 94)                  \
    X(KTX_PROP_DMA_CHANEL, 95)                  \
    X(KTX_PROP_SKU_NUMBER, 96)                  \
    X(KTX_PROP_IDENTIFYING_NUMBER, 97)          \
    X(KTX_PROP_NUMBER, 98)                      \
    X(KTX_PROP_CONFIGURATION, 99)               \
    X(KTX_PROP_PURCHASE_DATE, 100)              \
    X(KTX_PROP_DEPRECIATION_PERIOD, 101)        \
    X(KTX_PROP_ADMIN_DEPERTMENT, 102)           \
    X(KTX_PROP_ADMIN_DEPERTMENT_NUMBER, 103)    \
    X(KTX_PROP_ADMIN_NAME, 104)                 \
    X(KTX_PROP_ADMIN_NUMBER, 105)               \
    X(KTX_PROP_ADMIN_DESCRIPTION, 106)          \
    X(KTX_PROP_DESCRIPTION, 107)                \
    X(KTX_PROP_PHONE_NUMBER, 108)               \
    X(KTX_PROP_MAIL_ADDRESS, 109)               \
    X(KTX_PROP_NOTE, 110)                       \
    X(KTX_PROP_TIMEOUT, 111)                    \
    X(KTX_PROP_ISKEEPALIVE, 112)                \
    X(KTX_PROP_INTERVAL, 113)                   \
    X(KTX_PROP_LOGLIFE, 114)                    \
    X(KTX_PROP_LOGSIZE, 115)                    \
    X(KTX_PROP_APPLOG_FLAG, 116)                \
    X(KTX_PROP_ALERT_ID, 117)                   \
    X(KTX_PROP_CURRENT_COUNT, 118)              \
    X(KTX_PROP_START, 119)                      \
    X(KTX_PROP_PERIOD, 120)                     \
    X(KTX_PROP_THRESHOLD, 121)                  \
    X(KTX_PROP_SERVER_OPERATION, 122)           \
    X(KTX_PROP_FAILOVER_FLAG, 123)              \
    X(KTX_PROP_UPDATE, 124)                     \
    X(KTX_PROP_LEVEL_STRING, 125)               \
    X(KTX_PROP_PORTION, 126)                    \
    X(KTX_PROP_PORTION_STRING, 127)             \
    X(KTX_PROP_TIME_STAMP, 128)                 \
    X(KTX_PROP_MESSAGE, 129)                    \
    X(KTX_PROP_SYSLOG_MESSAGE, 130)             \
    X(KTX_PROP_FILTERING, 131)                  \
    X(KTX_PROP_POWER_MANAGEMENT, 132)           \
    X(KTX_PROP_FAILOVER, 133)                   \
    X(KTX_PROP_QR5_ALERT, 134)                  \
    X(KTX_PROP_ACTION, 135)                     \
    X(KTX_PROP_MONITOR_ID, 136)                 \
    X(KTX_PROP_MONITOR_DETAIL_ID, 137)          \
    X(KTX_PROP_QR5_EVENT_ID, 138)               \
    X(KTX_PROP_QR5_PORTION_STRING, 139)         \
    X(KTX_PROP_POLLING_INTERVAL, 140)           \
    X(KTX_PROP_SAMPLING_COUNT, 141)             \
    X(KTX_PROP_THRESHOLD_ID, 142)               \
    X(KTX_PROP_MENU_ID, 143)                    \
    X(KTX_PROP_MENU_TITLE, 144)                 \
    X(KTX_PROP_TOOL_TYPE, 145)                  \
    X(KTX_PROP_EXE_FILE_PATH, 146)              \
    X(KTX_PROP_SOURCE_DIRECTORY, 147)           \
    X(KTX_PROP_OUTPUT_DIRECTORY, 148)           \
    X(KTX_PROP_SERIAL_NUM, 149)                 \
    X(KTX_PROP_BIAS, 150)                       \
    X(KTX_PROP_STANDERD_YEAR, 151)              \
    X(KTX_PROP_STANDERD_MONTH, 152)             \
    X(KTX_PROP_STANDERD_DAY, 153)               \
    X(KTX_PROP_STANDERD_DAY_OF_WEEK, 154)       \
    X(KTX_PROP_STANDERD_HOUR, 155)              \
    X(KTX_PROP_STANDERD_MINUTE, 156)            \
    X(KTX_PROP_STANDERD_SECOND, 157)            \
    X(KTX_PROP_STANDERD_BIAS, 158)              \
    X(KTX_PROP_DAYLIGHT_YEAR, 159)              \
    X(KTX_PROP_DAYLIGHT_MONTH, 160)             \
    X(KTX_PROP_DAYLIGHT_DAY, 161)               \
    X(KTX_PROP_DAYLIGHT_DAY_OF_WEEK, 162)       \
    X(KTX_PROP_DAYLIGHT_HOUR, 163)              \
    X(KTX_PROP_DAYLIGHT_MINUTE, 164)            \
    X(KTX_PROP_DAYLIGHT_SECOND, 165)            \
    X(KTX_PROP_DAYLIGHT_BIAS, 166)              \
    X(KTX_PROP_FIELD, 167)                      \
    X(KTX_PROP_CURRENT_SIZE, 168)               \
    X(KTX_PROP_NODE_TYPE, 169)                  \
    X(KTX_PROP_ADDRESS, 170)                    \
    X(KTX_PROP_MGR_ADDRESS, 171)                \
    X(KTX_PROP_EVENT_ID, 172)                   \
    X(KTX_PROP_PORT, 173)                       \
    X(KTX_PROP_FILE_ID, 174)                    \
    X(KTX_PROP_FILE_PATH, 175)                  \
    X(KTX_PROP_FILE_NAME, 176)                  \
    X(KTX_PROP_FILE_SIZE, 177)                  \
    X(KTX_PROP_FILE_DATA_SIZE, 178)             \
    X(KTX_PROP_MOUNT_POINT, 179)                \
    X(KTX_PROP_FILESYSTEM_TYPE, 180)            \
    X(KTX_PROP_ACCESS_TYPE, 181)                \
    X(KTX_PROP_SIZE, 182)                       \
    X(KTX_PROP_TOTAL_INODE, 183)                \
    X(KTX_PROP_FREE_INODE, 184)                 \
    X(KTX_PROP_DISK, 185)                       \
    X(KTX_PROP_FLAG, 186)                       \
    X(KTX_PROP_TRANSFER_FLAG, 187)              \
    X(KTX_PROP_FUNC_ID, 188)                    \
    X(KTX_PROP_READ_OFFSET, 189)                \
    X(KTX_PROP_DATA, 190)                       \
    X(KTX_PROP_COMMAND_ID, 191)                 \
    X(KTX_PROP_COMMAND_PARAM, 192)              \
    X(KTX_PROP_OPERATION_STATE_STRING, 193)     \
    X(KTX_PROP_BATTERY_STATUS_STRING, 194)      \
    X(KTX_PROP_CHARGING_STATUS, 195)            \
    X(KTX_PROP_CHARGING_STATUS_STRING, 196)     \
    X(KTX_PROP_CARD_JOINT_STATUS_CODE, 197)     \
    X(KTX_PROP_ALL_MAC_ADDRESS, 198)            \
    X(KTX_PROP_CHASSIS_ID, 199)                 \
    X(KTX_PROP_CPU_SLOT_NUM, 200)               \
    X(KTX_PROP_MLPF_ID, 201)                    \
    X(KTX_PROP_LPAR_ID, 202)                    \
    X(KTX_PROP_UUID, 203)                       \
    X(KTX_PROP_BMC_PASSWORD, 204)               \
    X(KTX_PROP_DEST_IPADDR, 205)                \
    X(KTX_PROP_DEST_MACADDR, 206)               \
    X(KTX_PROP_BMCIPADDR, 207)                  \
    X(KTX_PROP_COD_DUMMY, 208)                  \
    X(KTX_PROP_DEVICE_REV, 209)                 \
    X(KTX_PROP_FIRM_REV1, 210)                  \
    X(KTX_PROP_FIRM_REV2, 211)                  \
    X(KTX_PROP_COD_INFO, 212)                   \
    X(KTX_PROP_OCCUR_COUNT_CLEAR, 213)

#define KTX_ENUMERATOR(name, number) name = (number),
enum PROP_TYPE { PROP_TYPE_LIST(KTX_ENUMERATOR) PROP_TYPE_COUNT };
enum KTX_CLASS_ID { KTX_CLASS_LIST(KTX_ENUMERATOR) KTX_CLASS_COUNT };
enum KTX_PROPERTY_CODE { KTX_PROPERTY_LIST(KTX_ENUMERATOR) KTX_PROPERTY_COUNT };
#undef KTX_ENUMERATOR
