/* Writes one section of the Wan area by hand, as a program does whose settings are no list: attach,
 * lock the section's byte, write, let go, announce.
 *
 * Byte n of a lock file is locked with l_whence SEEK_SET, l_start n, l_len 1; n stands in the section's
 * lock_index. The lock ends with the process, and with any close of that file in it.
 */
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <sysconfig/core.h>

/* Waits for byte n and holds it: 0, or -1 with errno. Whoever goes on
 * without it writes into the middle of another program's change. */
static int lock_byte(int fd, int32_t n) {
  struct flock lock = {
      .l_type = F_WRLCK,
      .l_whence = SEEK_SET,
      .l_start = n,
      .l_len = 1,
  };
  int status;
  do {
    status = fcntl(fd, F_SETLKW, &lock);
  } while (status != 0 && errno == EINTR);
  return status;
}

/* Section i, counted from 0. */
static int write_section(struct WanBlock* wan, int i, const char* text) {
  struct WanSection* section = &wan->sections[i];
  const int fd = open(wan->header.lock_path, O_RDWR | O_CLOEXEC);
  if (fd < 0 || lock_byte(fd, section->lock_index) != 0) {
    perror(wan->header.lock_path);
    if (fd >= 0) close(fd);
    return -1;
  }
  memset(section->settings, 0, sizeof section->settings);
  memcpy(section->settings, text, strlen(text));
  close(fd); /* which lets go of the byte */
  return 0;
}

int main(int argc, char** argv) {
  const int number = argc == 3 ? atoi(argv[1]) : 0;
  if (number < 1 || number > 4 || strlen(argv[2]) > sizeof((struct WanSection*)0)->settings) {
    fputs("usage: write_section SECTION TEXT     (SECTION: 1 to 4; TEXT: 956 bytes)\n", stderr);
    return 2;
  }
  struct WanBlock* wan = (struct WanBlock*)(uintptr_t)SC_Get_Wan_System_Config();
  if (wan == NULL) {
    fputs("write_section: there is no Wan area; it is made at boot\n", stderr);
    return 1;
  }
  if (write_section(wan, number - 1, argv[2]) != 0) return 1;
  signal(SIGPIPE, SIG_IGN);    /* a daemon that ends just now is no reason to end, too */
  SC_Save_System_Wan_Config(); /* announces; SC_Save_System_Wan_Config2Flash(wan) would save */
  return 0;
}
