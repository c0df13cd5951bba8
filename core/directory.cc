/* The directory of all areas. */
#include <string.h>

#include <sysconfig/core.h>

#include "core/area.h"
#include "core/bytes.h"

uint32_t SC_Get_SysConfig(SystemConfigDirectory* directory) {
  memset(directory, 0, sizeof *directory);
  auto* words = reinterpret_cast<uint8_t*>(directory);
  uint32_t address = 0;
  for (unsigned id = 0; id < sc::kAreaCount; ++id) {
    address = sc::attach_area(static_cast<sc::AreaId>(id));
    sc::store(words + 4 * id, address);
  }
  return address;
}
