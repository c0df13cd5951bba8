/* The numbers of the binary contract: keys, notification codes, capacities, text widths, list
 * operations and results, and the macros that pin every struct to its byte offsets.
 *
 * Sizes and offsets themselves stand in the other headers: each packed struct is followed by its
 * size and the offset of every field, typed as literals. They may never change: images of these
 * structs are shared between separately built programs and stored in flash archives.
 */
#ifndef SYSCONFIG_LAYOUT_H
#define SYSCONFIG_LAYOUT_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#if __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "the configuration images are little-endian"
#endif

#define SC_PACKED __attribute__((packed))

/* Compile-time facts, for C99 and C++ alike. */
#ifdef __cplusplus
#define SC_FACT(name, condition) static_assert(condition, #name)
#else
#define SC_FACT(name, condition) typedef char name[(condition) ? 1 : -1]
#endif
#define SC_SIZE(type, size) SC_FACT(sc_size_of_##type, sizeof(struct type) == (size))
#define SC_OFFSET(type, field, offset) \
  SC_FACT(sc_offset_of_##type##_##field, offsetof(struct type, field) == (offset))

/* Around prototypes: C linkage, exported. */
#ifdef __cplusplus
#define SC_BEGIN_DECLS _Pragma("GCC visibility push(default)") extern "C" {
#define SC_END_DECLS \
  }                  \
  _Pragma("GCC visibility pop")
#else
#define SC_BEGIN_DECLS _Pragma("GCC visibility push(default)")
#define SC_END_DECLS _Pragma("GCC visibility pop")
#endif

/* Shared-memory keys. */
enum {
  SC_KEY_LAN = 9600,
  SC_KEY_WAN = 9601,
  SC_KEY_PRODUCT_INFO = 9602,
  SC_KEY_MISC = 9603,
  SC_KEY_VS_IPPORT = 9604,
  SC_KEY_FW_IPPORT = 9605,
  SC_KEY_FW_MAC = 9606,
  SC_KEY_FW_URL = 9607,
  SC_KEY_IP_GROUP = 9608,
  SC_KEY_TIME_GROUP = 9609,
  SC_KEY_QOS = 9610,
  SC_KEY_MANAGE_AP_LIST = 9611,
  SC_KEY_AP_TEMPLATE_LIST = 9612,
  SC_KEY_DEF_AP_TEMPLATE = 9613,
  SC_KEY_AP_USER_LIST = 9614,
  SC_KEY_CLIENTS_GROUPS = 9615,
  SC_KEY_CLIENTS = 9616
};

/* Notification codes, sent to "/var/config_socket" as 4 bytes in native order. 12 and 13 are not
 * used. The run-time table of AP users has no code. */
enum {
  SC_CODE_LAN = 1,
  SC_CODE_WAN = 2,
  SC_CODE_PRODUCT_INFO = 3,
  SC_CODE_MISC = 4,
  SC_CODE_VS_IPPORT = 5,
  SC_CODE_FW_IPPORT = 6,
  SC_CODE_FW_MAC = 7,
  SC_CODE_FW_URL = 8,
  SC_CODE_QOS = 9,
  SC_CODE_IP_GROUP = 10,
  SC_CODE_TIME_GROUP = 11,
  SC_CODE_MANAGE_AP_LIST = 14,
  SC_CODE_AP_TEMPLATE_LIST = 15,
  SC_CODE_DEF_AP_TEMPLATE = 16,
  SC_CODE_CLIENTS_GROUPS = 17,
  SC_CODE_CLIENTS = 18
};

/* Table capacities, in records. */
enum {
  SC_DHCP_BINDS = 32,
  SC_IP_GROUPS = 16,
  SC_TIME_GROUPS = 16,
  SC_FILTER_RULES = 32, /* IP, MAC and URL filter, port forwarding and QoS alike */
  SC_ACCESS_POINTS = 300,
  SC_AP_USERS = 300,
  SC_AP_TEMPLATES = 15,
  SC_CLIENTS_GROUPS = 10,
  SC_CLIENTS = 300
};

/* Widths that several structs share, in bytes. */
enum {
  SC_TEXT = 200,    /* names and second texts of rules, groups and bindings */
  SC_MAC_TEXT = 20, /* a MAC address, or a short name, as text */
  SC_MAC_BYTES = 6,
  SC_IP_TEXT = 16,
  SC_TIME_TEXT = 10,
  SC_WEEKDAYS = 7,
  SC_LOCK_PATH = 130,
  SC_LIST_TAIL = 500 /* zero bytes behind the items of every item list */
};

/* List operations: the `op` of every SC_Operate_System_List_*. */
enum {
  LIST_OP_ADD = 0,    /* claim a free record, fill it, return its position */
  LIST_OP_DEL = 1,    /* free the record at the position */
  LIST_OP_MODIFY = 2, /* overwrite the payload of the record at the position */
  LIST_OP_DEL_ALL = 5 /* free every record */
};

/* Results of list operations. 4 is never returned. */
enum {
  SC_LIST_OK = 0,
  SC_LIST_REJECTED = 1,  /* add or modify: a clash; add: no free record */
  SC_LIST_DEL_RANGE = 2, /* delete: position not below the capacity */
  SC_LIST_MOD_RANGE = 3, /* modify: position not below the capacity */
  SC_LIST_BAD_OP = 5,    /* any other op; nothing is changed */
  SC_LIST_NO_LOCK = -1   /* the lock file could not be opened; nothing is changed */
};

/* First bytes of every area except the AP users' (ap.h). */
struct BlockHeader {
  uint8_t header_reserved[2];
  char lock_path[SC_LOCK_PATH]; /* NUL-terminated; empty until the area was read */
  int32_t block_lock_index;     /* always 1 once the area was read */
} SC_PACKED;
SC_SIZE(BlockHeader, 136);
SC_OFFSET(BlockHeader, header_reserved, 0);
SC_OFFSET(BlockHeader, lock_path, 2);
SC_OFFSET(BlockHeader, block_lock_index, 132);

#endif
