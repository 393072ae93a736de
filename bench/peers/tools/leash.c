/* Runs one supervisor so that it can do no harm, and ends all of it. Usage: leash TABLE BASE -- PROGRAM
 * ARGUMENT...
 *
 * PROGRAM gets mounts and System V IPC of its own, a throw-away root (an overlay of /, and of BASE/peers
 * where that exists, with what is written on a tmpfs; /tmp, /data, /run and /dev/shm are empty, the console
 * is /dev/null), and not the right to restart the machine: CAP_SYS_BOOT is taken out of every set, and
 * nothing is started before all sets have been read back without it. The pid namespace stays: the process
 * connector answers only there.
 *
 * The leash adopts all that comes loose below it. On SIGTERM, on SIGINT and when its own parent ends, it
 * kills its descendants, found by their parents, never by their names. */
#include <dirent.h>
#include <errno.h>
#include <linux/capability.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include "bench.h"

enum { MOST_PROCESSES = 65536, DESCRIPTORS = 20000, PATH_SIZE = 512 };

static void fail(const char* what) {
  fprintf(stderr, "leash: %s: %s\n", what, strerror(errno));
  _exit(125);
}

/* ---- No restart of the machine --------------------------------------------------------------------------
 */

static void read_capabilities(struct __user_cap_header_struct* head, struct __user_cap_data_struct* sets) {
  head->version = _LINUX_CAPABILITY_VERSION_3;
  head->pid = 0;
  if (syscall(SYS_capget, head, sets) != 0) {
    fail("capget");
  }
}

static void drop_boot(void) {
  const uint32_t boot = 1u << CAP_SYS_BOOT;
  struct __user_cap_header_struct head;
  struct __user_cap_data_struct sets[2];
  if (prctl(PR_CAPBSET_DROP, CAP_SYS_BOOT, 0, 0, 0) != 0) {
    fail("bounding set");
  }
  read_capabilities(&head, sets);
  sets[0].effective &= ~boot;
  sets[0].permitted &= ~boot;
  sets[0].inheritable &= ~boot;
  if (syscall(SYS_capset, &head, sets) != 0) {
    fail("capset");
  }
}

/* Nothing is started while any set holds the right; what cannot be read counts as held. An ambient right
 * would have to be in the permitted set. */
static void refuse_with_boot(void) {
  const uint32_t boot = 1u << CAP_SYS_BOOT;
  struct __user_cap_header_struct head;
  struct __user_cap_data_struct sets[2];
  read_capabilities(&head, sets);
  if (prctl(PR_CAPBSET_READ, CAP_SYS_BOOT, 0, 0, 0) != 0 ||
      ((sets[0].effective | sets[0].permitted | sets[0].inheritable) & boot) != 0) {
    errno = EPERM;
    fail("CAP_SYS_BOOT is still there: a restart would take this machine down");
  }
}

/* ---- The throw-away root --------------------------------------------------------------------------------
 */

static void join(char* path, const char* folder, const char* name) {
  if (snprintf(path, PATH_SIZE, "%s%s", folder, name) >= PATH_SIZE) {
    errno = ENAMETOOLONG;
    fail(folder);
  }
}

static void bind(const char* from, const char* root, const char* at) {
  char to[PATH_SIZE];
  join(to, root, at);
  if (access(to, F_OK) == 0 && mount(from, to, NULL, MS_BIND | MS_REC, NULL) != 0) {
    fail(to);
  }
}

static void empty(const char* root, const char* at, const char* options) {
  char to[PATH_SIZE];
  join(to, root, at);
  mkdir(to, 0755);
  if (mount("bench", to, "tmpfs", 0, options) != 0) {
    fail(to);
  }
}

static void make_directories(const char* root, const char* path) {
  char all[PATH_SIZE];
  char* slash;
  join(all, root, path);
  for (slash = all + strlen(root) + 1; (slash = strchr(slash, '/')) != NULL; ++slash) {
    *slash = '\0';
    mkdir(all, 0755);
    *slash = '/';
  }
  mkdir(all, 0755);
}

static void overlay(const char* base, char* root) {
  char layers[PATH_SIZE];
  char path[PATH_SIZE];
  char options[4 * PATH_SIZE];
  struct stat about;
  join(layers, base, "/layers");
  mkdir(layers, 0755);
  if (mount("bench", layers, "tmpfs", 0, "mode=755") != 0) {
    fail(layers);
  }
  join(path, layers, "/upper");
  mkdir(path, 0755);
  join(path, layers, "/work");
  mkdir(path, 0755);
  join(root, layers, "/root");
  mkdir(root, 0755);
  join(path, base, "/peers");
  snprintf(options, sizeof options, "lowerdir=%s%s/,upperdir=%s/upper,workdir=%s/work",
           stat(path, &about) == 0 ? path : "", stat(path, &about) == 0 ? ":" : "", layers, layers);
  if (mount("bench", root, "overlay", 0, options) != 0) {
    fail("overlay");
  }
}

static void enter_root(const char* base) {
  char root[PATH_SIZE];
  if (unshare(CLONE_NEWNS | CLONE_NEWIPC) != 0 || mount("none", "/", NULL, MS_REC | MS_PRIVATE, NULL) != 0) {
    fail("namespaces");
  }
  overlay(base, root);
  bind("/proc", root, "/proc");
  bind("/sys", root, "/sys");
  bind("/dev", root, "/dev");
  bind("/dev/null", root, "/dev/console");
  bind("/dev/null", root,
       "/proc/sysrq-trigger"); /* the other way to restart the machine, where there is one */
  empty(root, "/tmp", "mode=1777");
  empty(root, "/data", "mode=755");
  empty(root, "/run", "mode=755");
  empty(root, "/dev/shm", "mode=1777");
  make_directories(root, base);
  bind(base, root, base);
  if (chroot(root) != 0 || chdir(base) != 0) {
    fail("chroot");
  }
}

/* ---- The end of everything below ------------------------------------------------------------------------
 */

typedef struct {
  pid_t pid;
  pid_t parent;
  int ours;
} process;

static process processes[MOST_PROCESSES];

static pid_t parent_of(pid_t pid) {
  char path[64];
  char text[512];
  const char* name_end;
  ssize_t length;
  int parent = -1;
  int fd;
  snprintf(path, sizeof path, "/proc/%d/stat", (int)pid);
  fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return -1;
  }
  length = read(fd, text, sizeof text - 1);
  close(fd);
  text[length > 0 ? length : 0] = '\0';
  name_end = strrchr(text, ')');
  return name_end != NULL && sscanf(name_end + 1, " %*c %d", &parent) == 1 ? parent : -1;
}

static int list_processes(void) {
  DIR* directory = opendir("/proc");
  const struct dirent* entry;
  int count = 0;
  while (directory != NULL && count < MOST_PROCESSES && (entry = readdir(directory)) != NULL) {
    process* next = &processes[count];
    next->pid = atoi(entry->d_name);
    next->parent = next->pid > 1 ? parent_of(next->pid) : -1;
    next->ours = next->parent == getpid();
    count += next->parent > 0;
  }
  if (directory != NULL) {
    closedir(directory);
  }
  return count;
}

static int has_our_parent(int count, const process* child) {
  int i;
  for (i = 0; i < count; ++i) {
    if (processes[i].ours && processes[i].pid == child->parent) {
      return 1;
    }
  }
  return 0;
}

/* One pass; the number of descendants that were killed. All are stopped first, so that none starts another.
 */
static int kill_descendants(void) {
  const int count = list_processes();
  int killed = 0;
  int found = 1;
  int i;
  while (found) {
    found = 0;
    for (i = 0; i < count; ++i) {
      if (!processes[i].ours && has_our_parent(count, &processes[i])) {
        processes[i].ours = 1;
        found = 1;
      }
    }
  }
  for (i = 0; i < count; ++i) {
    processes[i].ours = processes[i].ours && parent_of(processes[i].pid) == processes[i].parent;
    if (processes[i].ours) {
      kill(processes[i].pid, SIGSTOP);
    }
  }
  for (i = 0; i < count; ++i) {
    killed += processes[i].ours && kill(processes[i].pid, SIGKILL) == 0;
  }
  return killed;
}

static void end_all(void) {
  int round;
  for (round = 0; round < 500; ++round) {
    const int killed = kill_descendants();
    while (waitpid(-1, NULL, WNOHANG) > 0) {
    }
    if (killed == 0 && waitpid(-1, NULL, WNOHANG) < 0 && errno == ECHILD) {
      return;
    }
    usleep(2000);
  }
}

/* ---- The start ----------------------------------------------------------------------------------------- */

static void run(bench_table* table, const char* base, char** argv, const sigset_t* mask) {
  struct rlimit most;
  most.rlim_cur = DESCRIPTORS;
  most.rlim_max = DESCRIPTORS;
  setrlimit(RLIMIT_NOFILE, &most);
  setsid();
  enter_root(base);
  drop_boot();
  refuse_with_boot();
  sigprocmask(SIG_SETMASK, mask, NULL);
  table->head.exec_at = bench_now();
  execvp(argv[0], argv);
  fail(argv[0]);
}

/* Reaps until no child is left or a signal tells to end. */
static void wait_for_the_end(const sigset_t* signals) {
  do {
    while (waitpid(-1, NULL, WNOHANG) > 0) {
    }
    if (waitpid(-1, NULL, WNOHANG) < 0 && errno == ECHILD) {
      return;
    }
  } while (sigwaitinfo(signals, NULL) == SIGCHLD);
}

int main(int argc, char** argv) {
  sigset_t signals;
  sigset_t before;
  bench_table* table;
  pid_t pid;
  if (argc < 5 || strcmp(argv[3], "--") != 0 || (table = bench_map(argv[1])) == NULL) {
    fprintf(stderr, "usage: leash TABLE BASE -- PROGRAM ARGUMENT...\n");
    return 125;
  }
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGCHLD);
  sigprocmask(SIG_BLOCK, &signals, &before);
  prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
  prctl(PR_SET_PDEATHSIG, SIGTERM, 0, 0, 0);
  pid = fork();
  if (pid == 0) {
    run(table, argv[2], argv + 4, &before);
  }
  wait_for_the_end(&signals);
  end_all();
  return pid > 0 ? 0 : 125;
}
