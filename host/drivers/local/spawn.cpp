// The local driver starts a program (see internal.h): pipes for its output,
// the eventfd through which a close wakes the runner, and the program
// itself, in a process group of its own, with a fixed environment and the
// descriptor limit the host was started with. Never a shell.
//
// posix_spawn cannot set a resource limit in the child, so the program is
// started the way glibc's posix_spawn starts one: clone with CLONE_VM and
// CLONE_VFORK on a stack of its own, the runner suspended until the child
// has called execve or failed. The child shares the host's memory and makes
// nothing but system calls, through the C library's syscall(): no
// allocation, no lock, nothing a sanitizer or another thread could be
// inside of. It starts with every signal blocked. Its steps, in order:
// every signal to its default action, its own process group, standard
// input /dev/null, the pipes as standard output and error, every other
// descriptor closed, RLIMIT_NOFILE back to the host's soft limit at start,
// no blocked signal, execve. A failed step leaves its errno for the runner
// and ends the child.
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdint.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include "host/common/files.h"
#include "host/common/limits.h"
#include "host/drivers/local/internal.h"

#ifndef SYS_close_range
#define SYS_close_range 436  // the same number on every architecture
#endif

#ifdef __GLIBC__
// glibc's own name of clone(), which no sanitizer intercepts: the
// ThreadSanitizer runtime takes clone() for a fork and would reset, in
// the memory the child shares, its view of every other thread.
extern "C" int __clone(int (*fn)(void*), void* stack, int flags, void* arg, ...);
#define QMTA_CLONE __clone
#else
#define QMTA_CLONE clone
#endif

namespace qmta::host::local {
namespace {

// The child's stack: its one function and the syscall() wrapper.
constexpr size_t kChildStack = 64 * 1024;
// Without close_range (Linux before 5.9), descriptors up to this one are
// closed one by one.
constexpr int kCloseFallbackMax = 65536;

// What the child needs, prepared by the runner before the clone. `error`
// is the one thing the child writes.
struct ChildArgs {
  const char* path;
  char* const* argv;
  char* const* envp;
  int outFd;
  int errFd;
  bool setLimit;
  uint64_t limit[2];  // soft and hard, as prlimit64 takes them
  volatile int error;
};

#if defined(__x86_64__) || defined(__aarch64__)
// The kernel's struct sigaction on these architectures.
struct KernelSigaction {
  void* handler;
  unsigned long flags;
  void* restorer;
  uint64_t mask;
};
#endif

// One step of the child: the system call's result, or -1 with errno set.
#define QMTA_CHILD_STEP(call) \
  if ((call) == -1) goto failed

// The child between clone and execve. No instrumentation: it runs on a
// stack no sanitizer knows, in memory it shares with the host.
__attribute__((noinline, no_sanitize("address", "thread", "undefined")))
int ChildMain(void* data) {
  ChildArgs* args = static_cast<ChildArgs*>(data);
  long fd;
  for (int sig = 1; sig < 65; ++sig) {
    if (sig == SIGKILL || sig == SIGSTOP) continue;
#if defined(__x86_64__) || defined(__aarch64__)
    KernelSigaction defaults = {};  // SIG_DFL, no flags, nothing blocked
    syscall(SYS_rt_sigaction, sig, &defaults, nullptr, sizeof defaults.mask);
#else
    struct sigaction defaults = {};
    defaults.sa_handler = SIG_DFL;
    sigaction(sig, &defaults, nullptr);
#endif
  }
  QMTA_CHILD_STEP(syscall(SYS_setpgid, 0, 0));
  QMTA_CHILD_STEP(fd = syscall(SYS_openat, AT_FDCWD, "/dev/null", O_RDONLY));
  if (fd != 0) {
    QMTA_CHILD_STEP(syscall(SYS_dup3, fd, 0, 0));
    syscall(SYS_close, fd);
  }
  // The pipes were opened with 0, 1 and 2 in use, so they are above 2.
  QMTA_CHILD_STEP(syscall(SYS_dup3, args->outFd, 1, 0));
  QMTA_CHILD_STEP(syscall(SYS_dup3, args->errFd, 2, 0));
  if (syscall(SYS_close_range, 3, ~0U, 0) == -1)
    for (int open = 3; open < kCloseFallbackMax; ++open) syscall(SYS_close, open);
  if (args->setLimit)
    QMTA_CHILD_STEP(syscall(SYS_prlimit64, 0, RLIMIT_NOFILE, args->limit, nullptr));
  {
    uint64_t none = 0;
    QMTA_CHILD_STEP(syscall(SYS_rt_sigprocmask, SIG_SETMASK, &none, nullptr, sizeof none));
  }
  syscall(SYS_execve, args->path, args->argv, args->envp);
failed:
  args->error = errno;
  syscall(SYS_exit_group, 127);
  return 127;
}

#undef QMTA_CHILD_STEP

// Starts the program; 0 with `*pid` set, or the errno of what failed.
int Spawn(pid_t* pid, const std::string& path, std::vector<std::string>& words,
          std::vector<std::string>& environment, int outFd, int errFd) {
  std::vector<char*> argv, envp;
  for (auto& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  for (auto& entry : environment) envp.push_back(entry.data());
  envp.push_back(nullptr);
  ChildArgs args = {path.c_str(), argv.data(), envp.data(), outFd, errFd, false, {0, 0}, 0};
  rlimit limit;
  if (ProgramDescriptorLimit(&limit)) {
    args.setLimit = true;
    args.limit[0] = limit.rlim_cur;
    args.limit[1] = limit.rlim_max;
  }
  void* stack = mmap(nullptr, kChildStack, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
  if (stack == MAP_FAILED) return errno;
  // No signal handler of the host may run in the child before it has set
  // every signal to its default action.
  sigset_t all, old;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &old);
  const pid_t child = QMTA_CLONE(ChildMain, static_cast<char*>(stack) + kChildStack,
                                 CLONE_VM | CLONE_VFORK | SIGCHLD, &args);
  const int cloneError = errno;
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  munmap(stack, kChildStack);
  if (child < 0) return cloneError;
  if (args.error != 0) {
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    return args.error;
  }
  *pid = child;
  return 0;
}

std::vector<std::string> Environment(const Action& action) {
  return {
      "PATH=/usr/bin:/bin",
      "QMTA_REQUESTID=" + std::to_string(action.requestId),
      "QMTA_CALLTYPE=" + std::to_string(action.callType),
      "QMTA_NODE=" + action.destination,
  };
}

// Opens the pipes of the program's standard output and error ([0] read,
// [1] write) and the eventfd that wakes its runner. 0, or the errno of the
// call that failed.
int OpenChannels(Fd out[2], Fd err[2], Fd* wake) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return errno;
  out[0].Reset(ends[0]);
  out[1].Reset(ends[1]);
  if (pipe2(ends, O_CLOEXEC) != 0) return errno;
  err[0].Reset(ends[0]);
  err[1].Reset(ends[1]);
  wake->Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  return wake->open() ? 0 : errno;
}

}  // namespace

void Job::Stop() {
  std::lock_guard<std::mutex> hold(mutex);
  stopped = true;
  if (wakeFd >= 0) {
    uint64_t one = 1;
    ssize_t ignored = write(wakeFd, &one, sizeof one);
    (void)ignored;
  }
}

void ReleaseWake(Job& job) {
  std::lock_guard<std::mutex> hold(job.mutex);
  if (job.wakeFd >= 0) close(job.wakeFd);
  job.wakeFd = -1;
}

int StartProgram(Job& job, Program& program, Started* started, Output& output) {
  const std::string& name = program.words[0];
  Fd out[2], err[2], wake;
  if (int failed = OpenChannels(out, err, &wake)) {
    output.Note("cannot run \"" + name + "\": " + ErrorText(failed));
    return 126;
  }
  {
    std::lock_guard<std::mutex> hold(job.mutex);
    if (job.stopped) return 128 + SIGTERM;  // closed while it waited its turn
    job.wakeFd = wake.get();  // a close from now on wakes the runner
  }
  started->wake = wake.Release();

  std::vector<std::string> environment = Environment(job.action);
  int failed = Spawn(&started->pid, program.path, program.words, environment, out[1].get(),
                     err[1].get());
  out[1].Reset();
  err[1].Reset();
  if (failed) {
    output.Note("cannot run \"" + name + "\": " + ErrorText(failed));
    ReleaseWake(job);
    return failed == ENOENT ? 127 : 126;
  }
  for (Fd* end : {&out[0], &err[0]})
    fcntl(end->get(), F_SETFL, fcntl(end->get(), F_GETFL) | O_NONBLOCK);
  started->out = std::move(out[0]);
  started->err = std::move(err[0]);
  started->exit.Reset(static_cast<int>(syscall(SYS_pidfd_open, started->pid, 0)));
  return 0;
}

}  // namespace qmta::host::local
