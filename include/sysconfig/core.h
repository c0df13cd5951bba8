/* The store core: utilities, the areas without tables (Wan, ProductInfo, Misc) and the directory
 * of all areas. The conventions that hold for the whole interface are said here, once.
 *
 * 1. Blocks. An area is one System V shared-memory segment. A block pointer is the address at
 *    which the caller's process attached it. On 64-bit hosts segments are attached below 4 GiB, so
 *    an address always fits the 32-bit values of this interface. Callers own every item, item list,
 *    index list and directory that they pass in. The library allocates nothing and keeps no state.
 * 2. Life of an area. Each area has the same six functions (AP users: Get, Uninit and Init only):
 *    SC_Get_<Area>_System_Config()
 *        Attaches the segment. Returns the address, or 0 when the segment does not exist. When the
 *        segment exists but cannot be attached: "shmat failed\n" on stderr and exit(1). Every call
 *        attaches the segment again; nothing is detached.
 *    SC_Uninit_System_<Area>_Config()
 *        Removes the segment. Always returns 0. A step that fails prints a message on stderr
 *        ("shmget failed\n", "shmat failed\n", "shmdt failed\n", "shmctl(IPC_RMID) failed\n"), and
 *        the next step follows all the same.
 *    SC_Init_System_<Area>_Config(flag)
 *        Creates or empties the segment, recreates the lock file and marks all records free.
 *        When the low byte of flag is 1, Read follows. Returns 0; errno when the segment cannot be
 *        created; -1 when it cannot be attached. Without Read, lock_path stays empty and every
 *        operation that locks fails. The area is emptied for all programs that have it attached, so
 *        only the program that runs at boot calls Init.
 *    SC_Read_System_<Area>_Config(b)
 *        Writes lock path and lock indices, then loads the flash archive
 *        /var/dataconfig/config_<stem>.bin over the block. Returns -1 when the archive does not
 *        exist, else the status of the last command. Prints "cant open the file" (no newline) or
 *        "file read error\n" on stdout when the image cannot be opened or read.
 *    SC_Save_System_<Area>_Config()
 *        Sends the area's code, 4 bytes, to the configuration daemon at the stream socket
 *        "/var/config_socket". Errors are printed by perror("socket" | "connect" | "send"). A daemon
 *        that closes before it has read causes SIGPIPE in the caller. A daemon that does not accept
 *        blocks the caller in connect() as soon as the socket's queue is full.
 *    SC_Save_System_<Area>_Config2Flash(b)
 *        Under byte 1 of the lock file, writes the image to /var/systemconfig/config_<stem>.cfg and
 *        packs it into the archive. Then runs the area's event commands, if any. Prints
 *        "canot open the file." (no newline) or "file write error\n" on stdout when the image cannot
 *        be opened or written. The commands print on stdout, too: a program that prints a page there
 *        redirects stdout around the call. The function does not tell whether the archive is whole.
 *    Init and Read take no locks. They are for start-up, before other programs use the area.
 * 3. Lists. The functions of a list on records, addressed by 0-based positions. Results of changes
 *    are list results (layout.h).
 *    SC_Operate_System_List_<X>(b, op, position, record)
 *        Adds, modifies, deletes or deletes all. `position` points to the position: delete and
 *        modify read it, add writes it. `record` (or `item`) may be null for the operations that
 *        delete.
 *    SC_Operate_System_List_Get<X>_Blank(b)
 *        Claims the lowest free record. Returns its position, or -1 when no record is free.
 *    SC_Operate_System_List_<X>Check<Key>(b, record, skip_slot)
 *        Returns 1 when the record clashes with a used record whose slot_id is not skip_slot, else
 *        0.
 * 4. Items. The functions of a list on items, addressed by 1-based ids.
 *    Get<X>ItemList(b, ..., list)
 *        Zeroes the list and writes the used records into it, in table order and without gaps.
 *    Get<X>Item(b, id, item)
 *        Zeroes the item and fills it from record id - 1, used or free. The item stays zero when the
 *        id is out of range.
 *    Add<X>Item(b, item)
 *        Adds the item at the lowest free record. Returns a list result, not the id: to learn the
 *        id, list the table and search for the key. SC_LIST_REJECTED means a clash or a full table;
 *        the listing shows which.
 *    Modify<X>Item(b, item)
 *        Overwrites the record of the item's id. Returns a list result.
 *    DelAll<X>Item(b)
 *        Frees every record and sets the counter beside the table, if any, to 0.
 *    Del<X>Item(b, ids)
 *        Frees the records of an index list: text of ids separated by '#'. The text is split in
 *        place. Returns nothing: to learn what was freed, list the table.
 *    With a null block the two functions that get return at once and do not write to the output. The
 *    others end with the area's change notification, whatever the result. Exception: those that
 *    delete by a group's id send one notification for each rule. Counters beside tables are lowered
 *    once for each id of an index list, whether a record was deleted or not. inet_addr reads address
 *    texts. Invalid text is stored as 255.255.255.255, which is a key like any other, so a second
 *    such item clashes: callers check the text before the call.
 * 5. Locks. Every change of a list's record is made under its byte (lock_index) of the area's lock
 *    file. The call waits for the byte and holds it for that record only. Readers, searches and
 *    checks take no lock. When a lock file cannot be opened, "Cannot Lock file %s" with the path is
 *    printed (stdout, no newline). fcntl locks belong to the process: they do not separate its
 *    threads, and any close of the lock file drops them. Byte n is locked with l_whence SEEK_SET,
 *    l_start n, l_len 1. n is read from the lock_index of the record or section.
 * 6. Programs. sysconfig(7) says what a configuration daemon has to do, and how programs handle what
 *    the calls do not report. The examples bind_page.c, daemon.c and write_section.c do so.
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

/* The settings belong to the programs that use them. A program changes a section under its lock
 * byte. */
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

/* Attached addresses of all areas; 0 where the segment does not exist. Not in key order. */
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

/* Calls fcntl(fd, cmd, ...) with a struct flock of these members. Note that the arguments have
 * another order than the members of struct flock. Returns the value of fcntl: 0, or -1 with
 * errno. */
#if defined(__GLIBC__) && __SIZEOF_POINTER__ == 4
SC_FACT(sc_needs_no_file_offset_bits, sizeof(off_t) == 4); /* _FILE_OFFSET_BITS would change it */
#endif
int sc_lock_reg(int fd, int cmd, short type, off_t start, short whence, off_t len);

/* Appends the dotted text of addr (as inet_addr returns it) to the text in dst. dst is not cleared
 * first; an empty dst needs 16 bytes. Returns dst. */
char* sc_inet_ntoa(uint32_t addr, char* dst);

/* Copy a DHCP lease file between /var and /var/dataconfig: udhcpd.leases (LAN clients) or
 * addrserver.leases (access points). Return the status of the copying command. */
int SC_Save_Dhcp_Clients(void);
int SC_Save_Dhcp_Ap(void);
int SC_Restore_Dhcp_Clients(void);
int SC_Restore_Dhcp_Ap(void);

/* Attaches all seventeen areas, in the directory's order, and stores their addresses (0 for a
 * segment that does not exist). Returns the Clients address. Each call maps about 11 MB again: call
 * it once and keep the directory. */
uint32_t SC_Get_SysConfig(struct SystemConfigDirectory* directory);

/* Wan: settings in four sections, each with a lock byte for programs that change it. A flash save
 * runs "change_event network" afterwards. */
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

/* Misc: settings in five sections, each with a lock byte for programs that change it. */
uint32_t SC_Get_Misc_System_Config(void);
int SC_Uninit_System_Misc_Config(void);
int SC_Init_System_Misc_Config(int read_flag);
int SC_Read_System_Misc_Config(struct MiscBlock* block);
void SC_Save_System_Misc_Config(void);
void SC_Save_System_Misc_Config2Flash(struct MiscBlock* block);

SC_END_DECLS

#endif
