#pragma once
/// @file
/// What the library and the trace daemon agree on: the packets, masks and levels, and the settings of trace.cfg.
///
/// A client connects to the local stream socket PXR_TRACE_SOCKET and sends packets of exactly 512 bytes, a connection
/// start first; nothing comes back. Integers are in the machine's byte order. Bytes that have no name are zero.

#include "libplatform/KvExport.h"

#define PXR_TRACE_SOCKET "/var/opt/velmora/lantrel/trace.un"
/// The first four bytes of every packet.
#define PXR_TRACE_MAGIC "\x12\x34\x56\x78"
/// The daemon's own log, and the two logs that the library writes itself.
#define PXR_TRACE_DAEMON_LOG "/var/opt/velmora/lantrel/log/@agt_linux@.log"
#define PXR_TRACE_IPMI_LOG "/var/opt/velmora/lantrel/log/@ipmi@.log"
#define PXR_TRACE_IPMI_EDIT_LOG "/var/opt/velmora/lantrel/log/@ipmi_pxraaedit@.log"

/// What a message is about. A mask is a number of its own, not a set of bits: 0xA000 is no IPMI traffic.
enum PXR_trace_mask {
    PXR_TRACE_MASK_LIBRARY = 0x1000,   ///< diagnostics and errors of the library and the runtime
    PXR_TRACE_MASK_PLUGIN = 0x2000,    ///< entry and exit of the plug-in interface
    PXR_TRACE_MASK_SMBIOS = 0x7000,    ///< SMBIOS reader
    PXR_TRACE_MASK_IPMI = 0x8000,      ///< IPMI traffic: goes to the IPMI log, never to the daemon
    PXR_TRACE_MASK_TOOL_FILE = 0xA000  ///< single trace file of command-line tools
};

/// How detailed a message is; a reader sees everything up to the level that it chooses.
enum PXR_trace_level {
    PXR_TRACE_LEVEL_ERROR = 0,
    PXR_TRACE_LEVEL_EVENT = 1,    ///< notable events
    PXR_TRACE_LEVEL_CALL = 5,     ///< entry and exit of interface functions
    PXR_TRACE_LEVEL_DETAIL = 10,  ///< details; 20 is finer
    PXR_TRACE_LEVEL_FINE = 20,
    PXR_TRACE_LEVEL_POLL = 30,    ///< entry and exit of what is polled all the time
    PXR_TRACE_LEVEL_VERBOSE = 60  ///< data; 80 is finer
};

enum PXR_trace_type { PXR_TRACE_TYPE_START = 1, PXR_TRACE_TYPE_MESSAGE = 2, PXR_TRACE_TYPE_DATA = 16 };

enum PXR_trace_sizes {
    PXR_TRACE_PACKET_SIZE = 512,
    PXR_TRACE_NAME_SIZE = 32,         ///< command and thread names, zero included
    PXR_TRACE_TEXT_SIZE = 448,        ///< field of a message's text
    PXR_TRACE_TEXT_MAX = 256,         ///< characters that a sender puts into it
    PXR_TRACE_DATA_NAME_SIZE = 64,    ///< name of binary data, zero included
    PXR_TRACE_DATA_MAX = 432,         ///< bytes of binary data in one packet
    PXR_TRACE_LINE_MAX = 611,         ///< header and text of one log line, without the newline that may be added
    PXR_TRACE_LINE_BUFFER_SIZE = 613  ///< such a line with newline and terminating zero
};

/// Type 1, the first packet of every connection.
typedef struct PXR_trace_start {
    int64_t time;  ///< seconds since the epoch
    uint32_t pid;
    uint32_t one;  ///< always 1
    char command[PXR_TRACE_NAME_SIZE];
} PXR_trace_start;

/// Type 2, one message.
typedef struct PXR_trace_message {
    int64_t time;  ///< seconds since the epoch
    uint32_t mask;
    uint32_t level;
    uint32_t header;  ///< 1: date, command, process and thread stand before the text; 0: it continues the line before
    uint32_t length;  ///< bytes of text
    char thread[PXR_TRACE_NAME_SIZE];  ///< empty for a thread without a name
    char text[PXR_TRACE_TEXT_SIZE];
} PXR_trace_message;

/// Type 16, a piece of binary data.
typedef struct PXR_trace_data {
    char name[PXR_TRACE_DATA_NAME_SIZE];
    uint32_t count;  ///< bytes of data in this packet, 1 to 432
    uint32_t reserved;
    uint8_t data[PXR_TRACE_DATA_MAX];
} PXR_trace_data;

typedef struct PXR_trace_packet {
    uint8_t magic[4];  ///< PXR_TRACE_MAGIC
    uint8_t type;
    uint8_t reserved[3];
    union {
        PXR_trace_start start;
        PXR_trace_message message;
        PXR_trace_data data;
        uint8_t bytes[PXR_TRACE_PACKET_SIZE - 8];
    } body;
} PXR_trace_packet;

/// The settings of /etc/opt/velmora/lantrel/trace.cfg.
typedef struct PXR_trace_config {
    uint8_t networkLogMode;    ///< 1: the daemon logs what it receives
    uint8_t packetTraceMode;   ///< 1: the daemon keeps binary data in packetTraceFile
    uint32_t traceLevel;       ///< highest level that is written to a log file
    uint32_t traceSize;        ///< limit of a log file in KiB; 0: none
    uint32_t packetTraceSize;  ///< limit of packetTraceFile in KiB; 0: none
    char packetTraceFile[401];
} PXR_trace_config;

KV_STATIC_ASSERT(sizeof(PXR_trace_config) == 420 && offsetof(PXR_trace_config, traceLevel) == 4);
KV_STATIC_ASSERT(offsetof(PXR_trace_config, packetTraceFile) == 16);
KV_STATIC_ASSERT(sizeof(PXR_trace_packet) == PXR_TRACE_PACKET_SIZE);
KV_STATIC_ASSERT(offsetof(PXR_trace_packet, type) == 4 && offsetof(PXR_trace_packet, body) == 8);
KV_STATIC_ASSERT(offsetof(PXR_trace_packet, body.start.time) == 8 && offsetof(PXR_trace_packet, body.start.pid) == 16);
KV_STATIC_ASSERT(offsetof(PXR_trace_packet, body.start.one) == 20 &&
                 offsetof(PXR_trace_packet, body.start.command) == 24);
KV_STATIC_ASSERT(offsetof(PXR_trace_packet, body.message.time) == 8 &&
                 offsetof(PXR_trace_packet, body.message.mask) == 16);
KV_STATIC_ASSERT(offsetof(PXR_trace_packet, body.message.level) == 20);
KV_STATIC_ASSERT(offsetof(PXR_trace_packet, body.message.header) == 24);
KV_STATIC_ASSERT(offsetof(PXR_trace_packet, body.message.length) == 28);
KV_STATIC_ASSERT(offsetof(PXR_trace_packet, body.message.thread) == 32);
KV_STATIC_ASSERT(offsetof(PXR_trace_packet, body.message.text) == 64);
KV_STATIC_ASSERT(offsetof(PXR_trace_packet, body.data.name) == 8 && offsetof(PXR_trace_packet, body.data.count) == 72);
KV_STATIC_ASSERT(offsetof(PXR_trace_packet, body.data.data) == 80);
