/* The store core: utilities, the areas without tables (Wan, ProductInfo, Misc) and the directory
 * of all areas. The conventions that hold for the whole interface are said here, once.
 *
 * 1. Blocks. An area is one System V shared-memory segment; a block pointer is the address at
 *    which the caller's process attached it. On 64-bit hosts segments are attached below 4 GiB, so
 *    an address always fits the 32-bit values of this interface. Callers own every item, item list,
 *    index list and directory they pass in; the library allocates nothing and keeps no state.
 * 2. Life of an area. The same six functions for each (AP users: Get, Uninit and Init only):
 *    SC_Get_<Area>_System_Config()
 *        Attach; 0 when the segment does not exist. When it exists but cannot be attached:
 *        "shmat failed\n" on stderr and exit(1). Every call attaches anew; nothing is detached.
 *    SC_Uninit_System_<Area>_Config()
 *        Remove the segment; 0. A failed step is said on stderr ("shmget failed\n",
 *        "shmat failed\n", "shmdt failed\n", "shmctl(IPC_RMID) failed\n") and the rest goes on.
 *    SC_Init_System_<Area>_Config(flag)
 *        Create or empty the segment, recreate the lock file, mark all records free; when the low
 *        byte of flag is 1, Read. 0; errno when it cannot be created, -1 when not attached.
 *        Without Read, lock_path stays empty and every operation that locks fails. The area is
 *        emptied for all who have it attached, whoever calls: only the boot does.
 *    SC_Read_System_<Area>_Config(b)
 *        Write lock path and lock indices, then load the flash archive
 *        /var/dataconfig/config_<stem>.bin over the block. -1 when there is none, else the last
 *        command's status. "cant open the file" (no newline) or "file read error\n" on stdout.
 *    SC_Save_System_<Area>_Config()
 *        Tell the configuration daemon: the area's code, 4 bytes, to the stream socket
 *        "/var/config_socket". Errors through perror("socket" | "connect" | "send"). A daemon that
 *        closes before it has read sends the caller SIGPIPE; one that does not accept holds it in
 *        connect() as soon as the socket's queue is full.
 *    SC_Save_System_<Area>_Config2Flash(b)
 *        Under byte 1 of the lock file write the image to /var/systemconfig/config_<stem>.cfg and
 *        pack it into the archive; then run the area's event commands, if any.
 *        "canot open the file." (no newline) or "file write error\n" on stdout, where the commands
 *        print, too: a program that prints a page there turns it away around the call. Whether the
 *        archive is whole is not told.
 *    Init and Read take no locks: they are for start-up, before others work on the area.
 * 3. Lists. The functions of a list on records, addressed by 0-based positions. Results of changes
 *    are list results (layout.h).
 *    SC_Operate_System_List_<X>(b, op, position, record)
 *        Add, modify, delete or delete all. `position` points to the position: read by delete and
 *        modify, written by add. `record` (or `item`) may be null for the deleting operations.
 *    SC_Operate_System_List_Get<X>_Blank(b)
 *        Claim the lowest free record; its position, or -1 when there is none.
 *    SC_Operate_System_List_<X>Check<Key>(b, record, skip_slot)
 *        1 when the record clashes with a used one other than that of slot_id skip_slot, else 0.
 * 4. Items. The functions of a list on items, addressed by 1-based ids.
 *    Get<X>ItemList(b, ..., list)
 *        Zero the list and pack the used records in table order.
 *    Get<X>Item(b, id, item)
 *        Zero the item and fill it from record id - 1, used or free; it stays zero when the id is
 *        out of range.
 *    Add<X>Item(b, item)
 *        Add to the lowest free record; a list result. The id is not told: list the table and look
 *        for the key. SC_LIST_REJECTED is a clash or a full table: the listing tells which.
 *    Modify<X>Item(b, item)
 *        Write over the record of the item's id; a list result.
 *    DelAll<X>Item(b)
 *        Free every record, and set the counter beside the table, if any, to 0.
 *    Del<X>Item(b, ids)
 *        Free the records of an index list: text of ids separated by '#', which is split in place.
 *        Tells nothing: list the table to know what was freed.
 *    With a null block the two that get return without touching the output. The others end with
 *    the area's change notification whatever the result; those that delete by a group's id send
 *    one for each rule instead. Counters beside tables are lowered once for each id of an index
 *    list, deleted or not. Address texts are read by inet_addr; text that is none is stored as
 *    255.255.255.255, a key like any other, so that a second such item clashes: check it before.
 * 5. Locks. Every change of a list's record is made under its byte (lock_index) of the area's lock
 *    file, blocking, held for that record only; readers, searches and checks take no lock. A lock
 *    file that cannot be opened is said as "Cannot Lock file %s" with the path (stdout, no newline).
 *    fcntl locks belong to the process: they do not keep its threads apart, and any close of the
 *    lock file drops them. Byte n is locked with l_whence SEEK_SET, l_start n, l_len 1; n is read
 *    from the lock_index of the record or section.
 * 6. Programs. sysconfig(7) says what a configuration daemon has to do and what programs do about all
 *    that the calls leave unsaid; bind_page.c, daemon.c and write_section.c among the examples do it.
 */
#ifndef SYSCONFIG_CORE_H
#define SYSCONFIG_CORE_H

#include <sysconfig/layout.h>

struct WanSection {
  int32_t lock_index; /* 2..5 */
  uint8_t settings[956];
} SC_PACKED;
SC_SIZE(WanSection, 960);
SC_OFFSET(WanSection, lock_index, 0);
SC_OFFSET(WanSection, settings, 4);

/* The settings belong to the programs that use them; they change a section under its lock byte. */
struct WanBlock {
  struct BlockHeader header;
  struct WanSection sections[4];
  uint8_t spare_3976[500]; /* the fourth section runs to the end of the block */
} SC_PACKED;
SC_SIZE(WanBlock, 4476);
SC_OFFSET(WanBlock, header, 0);
SC_OFFSET(WanBlock, sections, 136);
SC_OFFSET(WanBlock, spare_3976, 3976);

struct ProductInfoBlock {
  struct BlockHeader header;
  uint8_t settings[24088];
} SC_PACKED;
SC_SIZE(ProductInfoBlock, 24224);
SC_OFFSET(ProductInfoBlock, header, 0);
SC_OFFSET(ProductInfoBlock, settings, 136);

struct MiscBlock {
  struct BlockHeader header;
  int32_t lock_index_136; /* 2 */
  uint8_t settings_140[768];
  int32_t lock_index_908; /* 3 */
  uint8_t settings_912[504];
  int32_t lock_index_1416; /* 4 */
  uint8_t settings_1420[524];
  int32_t lock_index_1944; /* 5 */
  uint8_t settings_1948[552];
  int32_t lock_index_2500; /* 6 */
  uint8_t settings_2504[5044];
} SC_PACKED;
SC_SIZE(MiscBlock, 7548);
SC_OFFSET(MiscBlock, header, 0);
SC_OFFSET(MiscBlock, lock_index_136, 136);
SC_OFFSET(MiscBlock, settings_140, 140);
SC_OFFSET(MiscBlock, lock_index_908, 908);
SC_OFFSET(MiscBlock, settings_912, 912);
SC_OFFSET(MiscBlock, lock_index_1416, 1416);
SC_OFFSET(MiscBlock, settings_1420, 1420);
SC_OFFSET(MiscBlock, lock_index_1944, 1944);
SC_OFFSET(MiscBlock, settings_1948, 1948);
SC_OFFSET(MiscBlock, lock_index_2500, 2500);
SC_OFFSET(MiscBlock, settings_2504, 2504);

/* Attached addresses of all areas, 0 where the segment does not exist. Not in key order. */
struct SystemConfigDirectory {
  uint32_t lan;
  uint32_t wan;
  uint32_t product_info;
  uint32_t misc;
  uint32_t vs_ipport;
  uint32_t fw_ipport;
  uint32_t ip_group;
  uint32_t time_group;
  uint32_t fw_mac;
  uint32_t fw_url;
  uint32_t qos;
  uint32_t manage_ap_list;
  uint32_t ap_user_list;
  uint32_t ap_template_list;
  uint32_t def_ap_template;
  uint32_t clients_groups;
  uint32_t clients;
} SC_PACKED;
SC_SIZE(SystemConfigDirectory, 68);
SC_OFFSET(SystemConfigDirectory, lan, 0);
SC_OFFSET(SystemConfigDirectory, wan, 4);
SC_OFFSET(SystemConfigDirectory, product_info, 8);
SC_OFFSET(SystemConfigDirectory, misc, 12);
SC_OFFSET(SystemConfigDirectory, vs_ipport, 16);
SC_OFFSET(SystemConfigDirectory, fw_ipport, 20);
SC_OFFSET(SystemConfigDirectory, ip_group, 24);
SC_OFFSET(SystemConfigDirectory, time_group, 28);
SC_OFFSET(SystemConfigDirectory, fw_mac, 32);
SC_OFFSET(SystemConfigDirectory, fw_url, 36);
SC_OFFSET(SystemConfigDirectory, qos, 40);
SC_OFFSET(SystemConfigDirectory, manage_ap_list, 44);
SC_OFFSET(SystemConfigDirectory, ap_user_list, 48);
SC_OFFSET(SystemConfigDirectory, ap_template_list, 52);
SC_OFFSET(SystemConfigDirectory, def_ap_template, 56);
SC_OFFSET(SystemConfigDirectory, clients_groups, 60);
SC_OFFSET(SystemConfigDirectory, clients, 64);

SC_BEGIN_DECLS

/* Formats a command, cut to 4095 characters, and runs it with the shell. Returns the value of
 * system(); prints nothing itself. */
int sc_do_system(const char* format, ...) __attribute__((format(printf, 1, 2)));

/* Calls fcntl(fd, cmd, ...) with a struct flock of these members; note the order of the arguments.
 * Returns the value of fcntl: 0, or -1 with errno. */
#if defined(__GLIBC__) && __SIZEOF_POINTER__ == 4
SC_FACT(sc_needs_no_file_offset_bits, sizeof(off_t) == 4); /* _FILE_OFFSET_BITS would change it */
#endif
int sc_lock_reg(int fd, int cmd, short type, off_t start, short whence, off_t len);

/* Appends the dotted text of addr (as inet_addr returns it) to the text in dst, which is not
 * cleared first: an empty dst needs 16 bytes. Returns dst. */
char* sc_inet_ntoa(uint32_t addr, char* dst);

/* Copy a DHCP lease file between /var and /var/dataconfig: udhcpd.leases (LAN clients) and
 * addrserver.leases (access points). Return the copying command's status. */
int SC_Save_Dhcp_Clients(void);
int SC_Save_Dhcp_Ap(void);
int SC_Restore_Dhcp_Clients(void);
int SC_Restore_Dhcp_Ap(void);

/* Attaches all seventeen areas, in the directory's order, and stores their addresses (0 for a
 * segment that does not exist). Returns the Clients address. About 11 MB are mapped anew by each
 * call: call it once and keep the directory. */
uint32_t SC_Get_SysConfig(struct SystemConfigDirectory* directory);

/* Wan: settings in four sections, each with a lock byte for those who change them. A flash save runs
 * "change_event network" afterwards. */
uint32_t SC_Get_Wan_System_Config(void);
int SC_Uninit_System_Wan_Config(void);
int SC_Init_System_Wan_Config(int read_flag);
int SC_Read_System_Wan_Config(struct WanBlock* block);
void SC_Save_System_Wan_Config(void);
void SC_Save_System_Wan_Config2Flash(struct WanBlock* block);

/* ProductInfo: settings that the library neither reads nor writes. */
uint32_t SC_Get_ProductInfo_System_Config(void);
int SC_Uninit_System_ProductInfo_Config(void);
int SC_Init_System_ProductInfo_Config(int read_flag);
int SC_Read_System_ProductInfo_Config(struct ProductInfoBlock* block);
void SC_Save_System_ProductInfo_Config(void);
void SC_Save_System_ProductInfo_Config2Flash(struct ProductInfoBlock* block);

/* Misc: settings in five sections, each with a lock byte for those who change them. */
uint32_t SC_Get_Misc_System_Config(void);
int SC_Uninit_System_Misc_Config(void);
int SC_Init_System_Misc_Config(int read_flag);
int SC_Read_System_Misc_Config(struct MiscBlock* block);
void SC_Save_System_Misc_Config(void);
void SC_Save_System_Misc_Config2Flash(struct MiscBlock* block);

SC_END_DECLS

#endif
