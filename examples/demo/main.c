/* The library at work, from a boot to the boot after a power cut. Part one takes one list all the
 * way; part two (tour.c) sends a request through every other subsystem.
 *
 * usage: sysconfig_demo NAME, with the bindings on stdin; NAME is what messages call them.
 * The program changes the system's own areas, so it runs in examples/private_world alone.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <signal.h>
#include <unistd.h>

#include "areas.h"
#include "bindings.h"
#include "listener.h"
#include "page.h"
#include "tour.h"

static struct SystemConfigDirectory directory;

/* The saved areas as they were before a power cut. */
static void* before[AREAS];

static void remember(void) {
  for (int i = 0; i < AREAS; i++) {
    if (before[i] == NULL) before[i] = malloc(kAreas[i].size);
    if (before[i] == NULL) {
      fputs("demo: no memory left\n", stderr);
      exit(STATUS_CANNOT_RUN);
    }
    memcpy(before[i], (const void*)(uintptr_t)address_of(&directory, i), kAreas[i].size);
  }
}

/* How many bytes of an area are not what they were. */
static unsigned bytes_changed(int place) {
  const unsigned char* was = before[place];
  const unsigned char* is = (const unsigned char*)(uintptr_t)address_of(&directory, place);
  unsigned changed = 0;
  for (uint32_t i = 0; i < kAreas[place].size; i++) changed += was[i] != is[i];
  return changed;
}

/* ---- part one ---- */

static void show_boot(void) {
  heading("Boot");
  puts(
      "Init makes each area, a shared-memory segment, and loads its flash archive. This\n"
      "flash is new, so every area starts empty. Commands are shown as they are typed.\n");
  boot(&directory);
  type("scctl areas");
}

static unsigned show_bindings_through_a_power_cut(const char* name) {
  struct LanBlock* lan = AT(LanBlock, directory.lan);

  heading("Add the bindings");
  printf(
      "Each line becomes an item. Adding it claims a free record under that record's\n"
      "lock; then the daemon is told the code of the area, even when it was refused.\n\n");
  struct Tally tally = add_bindings(stdin, name, lan);
  printf("%6u added, %u refused.\n", tally.added, tally.refused);

  heading("The list, as every process sees it");
  type("scctl list lan_binds");
  type("scctl check Lan");

  heading("Save to flash");
  printf(
      "Nothing survives a restart by itself: a program saves when its edits are done.\n"
      "Under the area's own lock the image is written and packed.\n\n");
  save_area(&kAreas[0], directory.lan);
  type("tar -tzvf /var/dataconfig/config_lan.bin");
  type("scctl dump Lan --archive /var/dataconfig/config_lan.bin | head -17");
  remember();

  heading("Power cut, and boot");
  cut_power();
  boot(&directory);
  type("scctl list lan_binds");
  puts("\nThe archive against what is live, field by field; a difference would be a line:\n");
  type("scctl diff /var/dataconfig/config_lan.bin live");
  unsigned changed = bytes_changed(0);
  printf("\nThe image before and after: %u bytes compared, %u differ.\n", (unsigned)kAreas[0].size,
         changed);
  if (changed != 0) exit(STATUS_CANNOT_RUN);
  return tally.refused;
}

/* ---- the end of part two ---- */

static void show_everything_through_a_power_cut(void) {
  unsigned changed = 0;
  heading("Everything to flash, and the second power cut");
  for (int i = 0; i < AREAS; i++) {
    if (i != AP_USERS) save_area(&kAreas[i], address_of(&directory, i));
  }
  remember();
  cut_power();
  boot(&directory);
  type("scctl areas");
  puts("\nSaved against live, field by field; a difference would be a line:\n");
  type("scctl diff");
  for (int i = 0; i < AREAS; i++) {
    if (i != AP_USERS) changed += bytes_changed(i);
  }
  printf("\nSixteen images are back, %u bytes differ. The AP users live at run time only.\n",
         changed);
  if (changed != 0) exit(STATUS_CANNOT_RUN);
}

int main(int argc, char** argv) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (argc != 2) {
    fputs("usage: sysconfig_demo NAME <BINDINGS\n", stderr);
    return STATUS_USAGE;
  }
  if (access("/var/private_world", F_OK) != 0) {
    fputs("sysconfig_demo: run me by ./demo: I change the system's own configuration\n", stderr);
    return STATUS_CANNOT_RUN;
  }
  start_listener();
  puts(
      "Part one: DHCP bindings, from a file to flash and back.\n"
      "All of this happens in a private world: own System V memory, own /var.");
  show_boot();
  unsigned refused = show_bindings_through_a_power_cut(argv[1]);
  puts("\n\nPart two: a request through every other subsystem.");
  tour(&directory);
  show_everything_through_a_power_cut();
  stop_listener();
  if (refused != 0) {
    printf("\nDone, but for %u of the bindings, which were refused: status %d.\n", refused,
           STATUS_REFUSED);
    return STATUS_REFUSED;
  }
  puts("\nDone. Nothing of it is left on this machine.");
  return STATUS_DONE;
}
