/* The seventeen areas as rows, in the order of the SystemConfigDirectory, and their life. */
#ifndef DEMO_AREAS_H
#define DEMO_AREAS_H

#include <stdint.h>

#include <sysconfig/core.h>

enum { AREAS = 17, AP_USERS = 12 };

struct Area {
  const char* name;
  uint32_t size;
  int code; /* 0: never announced, nor saved */
  void (*save_to_flash)(uint32_t address);
};

extern const struct Area kAreas[AREAS];

/* The area with a notification code, or "unknown". */
const char* area_of_code(int32_t code);

/* Makes every area, then attaches them all. */
void boot(struct SystemConfigDirectory* directory);

/* Address of an area by its place in the directory. */
uint32_t address_of(const struct SystemConfigDirectory* directory, int place);
#define AT(Block, address) ((struct Block*)(uintptr_t)(address))

/* Saves an area. GNU tar's remark about the leading "/" of the path is left out, other remarks of
 * the commands are not. */
void save_area(const struct Area* area, uint32_t address);

/* Removes every segment, and what else of the library does not survive a restart. */
void cut_power(void);

#endif
