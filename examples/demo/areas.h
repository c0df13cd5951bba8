/* The seventeen areas as rows, in the order of the SystemConfigDirectory, and their life. */
#ifndef DEMO_AREAS_H
#define DEMO_AREAS_H

#include <stdint.h>

#include <sysconfig/core.h>

enum { STATUS_DONE, STATUS_REFUSED, STATUS_USAGE, STATUS_CANNOT_RUN };

enum { AREAS = 17, SAVED_AREAS = 16, AP_USERS = 12 };

struct Area {
  const char* name;
  const char* stem; /* of its files; NULL: never saved */
  uint32_t size;
  int key;
  int code;
  int (*init)(int read_flag);
  int (*uninit)(void);
  uint32_t (*get)(void);
  void (*save_to_flash)(uint32_t address);
};

extern const struct Area kAreas[AREAS];

/* The area with a notification code, or "unknown". */
const char* area_of_code(int32_t code);

/* Init(1) of every area, then attach them all; ends the program when one cannot be made. */
void boot(struct SystemConfigDirectory* directory);

/* Address of an area by its place in the directory. */
uint32_t address_of(const struct SystemConfigDirectory* directory, int place);
#define AT(Block, address) ((struct Block*)(uintptr_t)(address))

/* Saves an area. GNU tar's remark about the leading "/" of the path is left out, other remarks of
 * the commands are not. */
void save_area(const struct Area* area, uint32_t address);

/* Path of the area's flash archive, and its size in bytes, 0 when there is none. */
const char* archive_of(const struct Area* area);
long archive_size(const struct Area* area);

/* How many areas have their segment. */
int count_segments(void);

/* Removes every segment, and what else of the library does not survive a restart. */
void cut_power(void);

#endif
