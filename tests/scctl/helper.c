/* What the transcripts of scctl need besides scctl: other processes that write, hold locks or lack
 * rights.
 *
 * usage: helper hold BYTE...                   holds bytes of the LAN area's lock file until it is
 *                                              ended, and says so in /var/held;
 *                                              its name is a "helper", or that of $NAME
 *        helper half_written COMMAND...        runs a command while the first LAN binding is half
 *                                              written, under its lock: the flag is new, the name
 *                                              follows 0.3 s later
 *        helper segment KEY BYTES MODE         makes a segment; MODE is octal
 *        helper remove KEY                     removes a segment
 *        helper copy KEY                       writes a segment to standard output
 *        helper spoil KEY                      fills bytes of a segment: "AT SIZE NAME" a line
 *        helper without_rights COMMAND...      runs a command as a root that has no capabilities
 *        helper faults COMMAND...              runs a command and says how many pages it touched
 */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

enum { RECORD = 1508, FLAG = 8, NAME = 48, RECORD_LOCK = 2 };

static void fail(const char* what) {
  fprintf(stderr, "helper: %s: %s\n", what, strerror(errno));
  exit(1);
}

static int lock_file(void) {
  int file = open("/var/lock_store/lan_conf_lock", O_RDWR);
  if (file < 0) fail("lan_conf_lock");
  return file;
}

static void lock(int file, off_t byte) {
  struct flock bytes = {.l_type = F_WRLCK, .l_whence = SEEK_SET, .l_start = byte, .l_len = 1};
  if (fcntl(file, F_SETLKW, &bytes) != 0) fail("fcntl");
}

static pid_t start(char** command) {
  pid_t child = fork();
  if (child != 0) return child;
  execvp(command[0], command);
  fail(command[0]);
  return -1;
}

static int status_of(pid_t child) {
  int ended;
  if (waitpid(child, &ended, 0) != child || !WIFEXITED(ended)) fail("wait");
  return WEXITSTATUS(ended);
}

static _Noreturn void hold(int count, char** bytes) {
  int file = lock_file();
  const char* name = getenv("NAME");
  prctl(PR_SET_NAME, name != NULL ? name : "a \"helper\"");
  for (int i = 0; i < count; i++) lock(file, atol(bytes[i]));
  close(open("/var/held", O_CREAT | O_WRONLY, 0600));
  for (;;) pause();
}

static int remove_segment(const char* key) {
  if (shmctl(shmget(atoi(key), 0, 0), IPC_RMID, NULL) != 0) fail(key);
  return 0;
}

static char* attach(const char* key, size_t* size) {
  struct shmid_ds status;
  int segment = shmget(atoi(key), 0, 0);
  char* block = shmat(segment, NULL, 0);
  if (block == (char*)-1 || shmctl(segment, IPC_STAT, &status) != 0) fail(key);
  *size = status.shm_segsz;
  return block;
}

static _Noreturn void half_written(char** command) {
  size_t size;
  char* record = attach("9600", &size) + RECORD;
  lock(lock_file(), RECORD_LOCK);
  record[FLAG] = 9;
  pid_t reader = start(command);
  usleep(300000);
  record[NAME] = '9';
  exit(status_of(reader)); /* which lets the lock go */
}

static int make_segment(char** words) {
  if (shmget(atoi(words[0]), strtoul(words[1], NULL, 10),
             IPC_CREAT | (int)strtol(words[2], NULL, 8)) < 0) {
    fail("shmget");
  }
  return 0;
}

static int copy(const char* key) {
  size_t size;
  const char* block = attach(key, &size);
  if (fwrite(block, size, 1, stdout) != 1 || fflush(stdout) != 0) fail("standard output");
  return 0;
}

static int spoil(const char* key) {
  size_t size, at, count;
  char* block = attach(key, &size);
  while (scanf("%zu %zu %*s", &at, &count) == 2) {
    if (at > size || count > size - at) return 1;
    memset(block + at, 0xa5, count);
  }
  return 0;
}

/* Without a bounding set, root has nothing after an exec. */
static int without_rights(char** command) {
  for (int capability = 0; prctl(PR_CAPBSET_READ, capability) >= 0; capability++) {
    if (prctl(PR_CAPBSET_DROP, capability) != 0) fail("prctl");
  }
  return status_of(start(command));
}

static int count_faults(char** command) {
  int status = status_of(start(command));
  struct rusage used;
  getrusage(RUSAGE_CHILDREN, &used);
  fprintf(stderr, "%ld\n", used.ru_minflt);
  return status;
}

int main(int argc, char** argv) {
  char** words = argv + 2;
  if (argc < 3) return 2;
  if (strcmp(argv[1], "hold") == 0) hold(argc - 2, words);
  if (strcmp(argv[1], "half_written") == 0) half_written(words);
  if (strcmp(argv[1], "segment") == 0 && argc == 5) return make_segment(words);
  if (strcmp(argv[1], "remove") == 0) return remove_segment(words[0]);
  if (strcmp(argv[1], "copy") == 0) return copy(words[0]);
  if (strcmp(argv[1], "spoil") == 0) return spoil(words[0]);
  if (strcmp(argv[1], "without_rights") == 0) return without_rights(words);
  if (strcmp(argv[1], "faults") == 0) return count_faults(words);
  return 2;
}
