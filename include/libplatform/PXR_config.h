#pragma once
/// @file
/// Configuration files: text files of keys and values under /etc/opt/velmora/lantrel that administrators edit and
/// programs rewrite.
///
/// A file is described by a static table, and its values live in an array that the caller declares:
/// @code
///     static const PXR_config_file<2> kTrace = {
///         "/etc/opt/velmora/lantrel/trace.cfg", "[ServerAgent%s_TRACE]", "0330", "Trace Configuration File",
///         {{0x1F42, "TraceLevel", 1, -1, 0, 0, 100, PXR_CFG_NUMBER, {10}, 0, {}},
///          {}}};
///
///     PXR_config_data values[] = {PXR_CFG_SLOT(0x1F42), PXR_CFG_SLOT(0)};
///     PXR_init_cfgdata(kTrace.Table(), values);  // the defaults
///     PXR_read_cfgfile(kTrace.Table(), values);  // what the file says; a failure leaves the defaults
///     const int32_t level = values[0].value.number;
///     PXR_clear_cfgdata(kTrace.Table(), values);
/// @endcode
///
/// The file: a header line ("[ServerAgent0330_TRACE]"), then one `key = value` per line.
///  - "#" outside double quotes begins a comment. Keys are matched without regard to case.
///  - A number is decimal, "0x" hexadecimal or "0" octal; a text is one word or stands in double quotes.
///  - The first of several lines with the same single-valued key counts; each line of a list-valued key adds a value.
///  - A bad line is reported and skipped; it never keeps the rest from being read.
///  - 1023 characters of a line are read; what is longer is skipped.
///
/// Processes are kept apart by whole-file locks: readers share, a writer is alone. The locks belong to the open file,
/// so threads of one process are kept apart in the same way; a thread that holds a file open must not open it again. A
/// data array belongs to its caller and is not locked.

#include <stdio.h>

#include "libplatform/KvExport.h"

KV_EXTERN_C_BEGIN

/// Value types of a key.
enum {
    PXR_CFG_NUMBER = 1,    ///< signed 32-bit number
    PXR_CFG_TEXT = 2,      ///< text
    PXR_CFG_SWITCH = 3,    ///< "True" or "False"
    PXR_CFG_ADDRESS = 4,   ///< IPv4 address, the first number in the most significant byte
    PXR_CFG_UNSIGNED = 5,  ///< unsigned 32-bit number
    // Arrays: list-valued whatever their occurrences say, one element per line.
    PXR_CFG_NUMBER_ARRAY = 0x8001,    ///< of signed numbers
    PXR_CFG_TEXT_ARRAY = 0x8002,      ///< of texts
    PXR_CFG_SWITCH_ARRAY = 0x8003,    ///< of switches "True" or "False"
    PXR_CFG_ENABLE_SWITCH = 0x8004,   ///< "Enabled" or "Disabled"; one value, not an array
    PXR_CFG_FLAG_NOT_STORED = 0x2000  ///< flag of a key: it is written with an empty value (passwords)
};

/// Default of a key.
typedef union PXR_config_default {
    uint32_t number;   ///< number, address, or switch (0 or 1)
    const char* text;  ///< static text; null for an empty one
} PXR_config_default;

/// One key of a table.
typedef struct PXR_config_key {
    uint32_t id;          ///< unique within the table; 0 ends the table
    const char* name;     ///< as written into the file
    int32_t occurrences;  ///< 1: one value; -1, or 2 and more: one value per line, any number of lines
    /// For a list-valued text key that the caller's data do not contain: any value but -1 has a rewrite append the key
    /// with its default when the file lacks it.
    int32_t listMode;
    uint32_t reserved;
    int32_t minimum;  ///< of a number; of an unsigned number the same 32 bits
    int32_t maximum;  ///< of a number; of a text its length in bytes (longer ones are cut; negative: no limit)
    uint32_t type;    ///< PXR_CFG_...; the low 16 bits count
    PXR_config_default defaultValue;
    uint32_t flags;  ///< PXR_CFG_FLAG_NOT_STORED or 0
    uint32_t reserved2[2];
} PXR_config_key;

/// One configuration file. Tables are static objects whose keys follow the four texts directly (in C++ a
/// PXR_config_file).
typedef struct PXR_config_table {
    const char* path;                     ///< absolute path of the file
    const char* headerFormat;             ///< the first line, with one "%s" for the version
    const char* version;                  ///< version written into the header: "0330", "0350", "0860" or "0956"
    const char* title;                    ///< what the file is, for people
    __extension__ PXR_config_key keys[];  ///< ended by a key whose id is 0
} PXR_config_table;

/// A value, by the type of its key.
typedef union PXR_config_value {
    int32_t number;
    uint32_t unsignedNumber;
    uint32_t address;
    uint8_t on;  ///< switch: 0 or 1
    char* text;  ///< heap text of the data array; null for an empty text
} PXR_config_value;

/// One value of a list-valued key.
typedef struct PXR_config_node {
    struct PXR_config_node* next;
    PXR_config_value value;
} PXR_config_node;

/// One slot of a data array. The caller sets the ids of the keys it wants, and 0 in the slot that ends the array.
/// A caller that changes texts or lists keeps them in malloc'ed memory: PXR_clear_cfgdata frees them.
typedef struct PXR_config_data {
    uint32_t id;
    uint16_t type;            ///< set by PXR_init_cfgdata to the key's type
    uint8_t listInitialised;  ///< 1 from PXR_init_cfgdata on for a list-valued key
    uint8_t reserved;
    PXR_config_value value;  ///< of a single-valued key
    PXR_config_node* list;   ///< of a list-valued key, in the file's order
} PXR_config_data;

/// Initialiser of a slot; PXR_CFG_SLOT(0) ends an array.
#define PXR_CFG_SLOT(id) \
    { (id), 0, 0, 0, {0}, NULL }

/// Sets every slot to its key's default, a list to the empty one. Frees nothing: the slots may hold anything before.
/// @return 0; 0x61BA4201 null argument; 0x61BA1202 out of memory (the texts concerned are null)
KV_EXPORT int PXR_init_cfgdata(const PXR_config_table* table, PXR_config_data* data);

/// Reads the table's file under a shared lock. A key that the file lacks, or gives a bad value, keeps what its slot
/// held. The first value of a list-valued key replaces the list that the slot held. A header with any recognised
/// version is accepted.
/// Reported, but no failure: 0x61C21302 unknown key, or second line of a single-valued one; 0x61E41302 value that does
/// not convert or lies out of range.
/// @return 0; a code of PXR_file_open; 0x61B81301 no header, another one, or an unknown version, or the file broke off;
///         0x61B81202 out of memory; 0x61B84201 null argument
KV_EXPORT uint32_t PXR_read_cfgfile(const PXR_config_table* table, PXR_config_data* data);

/// Rewrites the table's file with the data's values under an exclusive lock, creating it when it is missing. Comments,
/// unknown lines and the order of lines stay; keys that were missing are appended. The new content replaces the old one
/// in one step: a crash or a power failure at any time leaves the old or the new file whole. The old content stays
/// beside it with the extension ".bak". Of a symbolic link the file that it names is rewritten, in its own directory.
/// Files that differ in nothing but their extension are written one after the other, and share the backup.
///
/// A list is written at its key's first line, whose comment stays with the first value. A text that could not be read
/// back (line break, double quote in a text that is no plain word, longer than a line) fails the call and changes
/// nothing.
/// @return 0; a code of PXR_file_open; 0x61B91300 a file could not be written or renamed; 0x61B91301 the result would be
///         empty, or the old content could not be read; 0x61B91302 text that cannot be written; 0x61B91202 out of
///         memory; 0x61B94201 null argument. After a failure the file is as it was.
KV_EXPORT uint32_t PXR_write_cfgfile(const PXR_config_table* table, const PXR_config_data* data);

/// Finds a value. @param n  0 (or less) for the slot, 1 and more for the n-th node of its list
/// @return PXR_config_data* for the slot, PXR_config_node* for a node; null when there is none. Part of the data array.
KV_EXPORT void* PXR_search_cfgid(PXR_config_data* data, uint32_t id, int n);
/// The same by the key's name, which must match exactly.
KV_EXPORT void* PXR_search_cfgname(const PXR_config_table* table, PXR_config_data* data, const char* name, int n);

/// Frees every text and list of the data; numbers and switches stay. May be called again.
KV_EXPORT void PXR_clear_cfgdata(const PXR_config_table* table, PXR_config_data* data);

/// Opens a regular file (a new one with mode 0644, missing directories included) and locks the whole of it: shared when
/// opened read-only, exclusive otherwise. Waits for a conflicting lock, 1 ms at a time, without limit while the process
/// is not terminating (IsTerminateProcess). A file that is replaced meanwhile is opened anew, so the lock is always on
/// the file that the path names. O_TRUNC takes effect once the lock is held. Data are flushed to the disk around it.
/// @param error  set when the call fails, may be null: 0x61E51301 cannot be opened or is no regular file (a pipe or
///               device is refused without waiting); 0x61E51304 cannot be locked; 0x61E54201 null path
/// @return a close-on-exec descriptor, to be closed with PXR_file_close; -1 on failure
KV_EXPORT int PXR_file_open(const char* path, int flags, int* error);
/// Closes the file and so drops its lock. @return 0, or -1 with errno set
KV_EXPORT int PXR_file_close(int fd);
/// The same for a stream made from such a descriptor; what the stream holds is flushed first. @return 0, or -1 with
/// errno
KV_EXPORT int PXR_file_stream_close(FILE* stream);

/// Replaces the path's extension (from the last "." behind the last "/") by the suffix, or appends the suffix when
/// there is none: ("/etc/trace.cfg", ".bak") gives "/etc/trace.bak".
/// @param buffer  PATH_MAX (4096) bytes; holds an empty text when the result does not fit or an argument is null
KV_EXPORT void PXR_make_tmpfile(char* buffer, const char* path, const char* suffix);
/// Copies an open file, from its beginning, to path, replacing what is there in one step (a symbolic link itself, not its
/// target), with the permissions of the open file. The descriptor's position is kept. The copy grows in path with ".tmp"
/// behind it.
/// @return 0, or an error number
KV_EXPORT int PXR_copy_fd2file(int fd, const char* path);

// ---- Records of the alert configuration, as the host hands them over ----

/// One entry per alert event. The words are settings of the agent's, handed on as they are. A new entry has 1, 0, the
/// time, 0, 0, 1, 0 in them; an EVENT line of the file has words 1, 5, 6, 2 and 7, in this order.
typedef struct PXR_event_conf {
    uint32_t eventNumber;  ///< the low 16 bits are the alert id
    uint32_t word1;
    uint32_t word2;
    uint32_t word3;  ///< when the entry was made, in seconds since 1970 by this machine's clock; not in the file
    uint32_t word4;  ///< not in the file
    uint32_t word5;
    uint32_t word6;  ///< switch: 0 or 1
    uint32_t word7;  ///< switch: 0 or 1
} PXR_event_conf;

/// Watch on the memory in use.
typedef struct PXR_memory_watch {
    uint32_t enabled;    ///< 1 on; any other value off, as in the watches below
    uint32_t interval;   ///< seconds
    uint32_t samples;    ///< polls that are averaged
    uint32_t threshold;  ///< percent of memory in use
} PXR_memory_watch;

/// Watch on the processors' load, laid out as the one on memory.
typedef struct PXR_cpu_watch {
    uint32_t enabled;
    uint32_t interval;  ///< seconds
    uint32_t number3;   ///< third and fourth field of the file's CPU line, as they are written there
    uint32_t number4;
} PXR_cpu_watch;

/// One watched file system.
typedef struct PXR_fs_watch {
    struct PXR_fs_watch* next;
    char* name;       ///< heap text of the entry
    uint32_t number;  ///< what the file's FSNAME line says in parentheses
} PXR_fs_watch;

/// Watch on the file systems.
typedef struct PXR_strage_watch {
    uint32_t reserved;
    uint32_t enabled;
    uint32_t interval;   ///< seconds
    uint32_t number4;    ///< third field of the file's FILESYSTEM line
    PXR_fs_watch* list;  ///< null: none
} PXR_strage_watch;

/// Watch on the system log; what follows these two words is the host's own.
typedef struct PXR_syslog_watch {
    uint32_t enabled;
    uint32_t interval;  ///< seconds
} PXR_syslog_watch;

KV_EXTERN_C_END

#ifdef __cplusplus
/// A table with room for its keys, the ending one included: C++ has no initialiser for an array without a bound.
template <size_t kKeys>
struct PXR_config_file {
    const char* path;
    const char* headerFormat;
    const char* version;
    const char* title;
    PXR_config_key keys[kKeys];

    const PXR_config_table* Table() const { return reinterpret_cast<const PXR_config_table*>(this); }
};

KV_STATIC_ASSERT(offsetof(PXR_config_file<1>, title) == 12 && offsetof(PXR_config_file<1>, keys) == 16);
KV_STATIC_ASSERT(sizeof(PXR_config_key) == 48 && offsetof(PXR_config_key, minimum) == 20);
KV_STATIC_ASSERT(offsetof(PXR_config_key, type) == 28 && offsetof(PXR_config_key, flags) == 36);
KV_STATIC_ASSERT(sizeof(PXR_config_table) == 16 && offsetof(PXR_config_table, keys) == 16);
KV_STATIC_ASSERT(sizeof(PXR_config_data) == 16 && offsetof(PXR_config_data, type) == 4);
KV_STATIC_ASSERT(offsetof(PXR_config_data, listInitialised) == 6 && offsetof(PXR_config_data, value) == 8);
KV_STATIC_ASSERT(offsetof(PXR_config_data, list) == 12 && sizeof(PXR_config_node) == 8);
KV_STATIC_ASSERT(sizeof(PXR_event_conf) == 32 && offsetof(PXR_event_conf, word7) == 28);
KV_STATIC_ASSERT(sizeof(PXR_memory_watch) == 16 && offsetof(PXR_memory_watch, threshold) == 12);
KV_STATIC_ASSERT(sizeof(PXR_cpu_watch) == 16 && sizeof(PXR_syslog_watch) == 8);
KV_STATIC_ASSERT(sizeof(PXR_strage_watch) == 20 && offsetof(PXR_strage_watch, list) == 16);
KV_STATIC_ASSERT(sizeof(PXR_fs_watch) == 12 && offsetof(PXR_fs_watch, number) == 8);
#endif
