/* Notes which basic blocks are run, in a file that all processes of a test map: what a child, or a
 * process that is killed, has run is noted as well. The compiler calls this at the start of each
 * block (-fsanitize-coverage=trace-pc). SC_REACHED names the folder of the files; without it nothing
 * is noted. */
#include <fcntl.h>
#include <linux/openat2.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

extern const char __ehdr_start[] __attribute__((visibility("hidden")));

static char* reached;
static size_t size;

void __sanitizer_cov_trace_pc(void);
void __sanitizer_cov_trace_pc(void) {
  const size_t place = (size_t)((const char*)__builtin_return_address(0) - __ehdr_start);
  if (place < size) reached[place] = 1;
}

__attribute__((constructor)) static void begin(void) {
  const char* folder = getenv("SC_REACHED");
  if (folder == NULL) return;
  char path[4096];
  snprintf(path, sizeof path, "%s/" SC_PROGRAM, folder);
  /* By a call that no program makes, so that nobody who watches its calls takes this for its own. */
  const struct open_how how = {.flags = O_RDWR | O_CLOEXEC};
  const int file = (int)syscall(SYS_openat2, AT_FDCWD, path, &how, sizeof how);
  struct stat state;
  if (file >= 0 && fstat(file, &state) == 0) {
    void* mapped = mmap(NULL, (size_t)state.st_size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (mapped != MAP_FAILED) {
      reached = mapped;
      size = (size_t)state.st_size;
    }
  }
  if (file >= 0) close(file);
}
