// The local driver starts a program (see internal.h): pipes for its output,
// the eventfd through which a close wakes the runner, and posix_spawn with
// a fixed environment, in a process group of its own. Never a shell.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>

#include "host/common/files.h"
#include "host/drivers/local/internal.h"

namespace qmta::host::local {
namespace {

// Posix-spawn attributes and file actions, released on every path.
class SpawnSetup {
 public:
  SpawnSetup() {
    posix_spawnattr_init(&attributes_);
    posix_spawn_file_actions_init(&files_);
  }
  ~SpawnSetup() {
    posix_spawnattr_destroy(&attributes_);
    posix_spawn_file_actions_destroy(&files_);
  }
  SpawnSetup(const SpawnSetup&) = delete;
  SpawnSetup& operator=(const SpawnSetup&) = delete;

  // Standard input /dev/null, output and error to the pipes, nothing else
  // open; own process group, no blocked signals, default dispositions.
  int Prepare(int outFd, int errFd) {
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    int failed = posix_spawnattr_setflags(
        &attributes_, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    if (!failed) failed = posix_spawnattr_setpgroup(&attributes_, 0);
    if (!failed) failed = posix_spawnattr_setsigmask(&attributes_, &none);
    if (!failed) failed = posix_spawnattr_setsigdefault(&attributes_, &all);
    if (!failed)
      failed = posix_spawn_file_actions_addopen(&files_, 0, "/dev/null", O_RDONLY, 0);
    if (!failed) failed = posix_spawn_file_actions_adddup2(&files_, outFd, 1);
    if (!failed) failed = posix_spawn_file_actions_adddup2(&files_, errFd, 2);
#if defined(__GLIBC__) && (__GLIBC__ > 2 || __GLIBC_MINOR__ >= 34)
    // Descriptors that others opened without close-on-exec stay behind too.
    if (!failed) failed = posix_spawn_file_actions_addclosefrom_np(&files_, 3);
#endif
    return failed;
  }

  int Spawn(pid_t* pid, const std::string& path, std::vector<std::string>& words,
            std::vector<std::string>& environment) {
    std::vector<char*> argv, envp;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    for (auto& entry : environment) envp.push_back(entry.data());
    envp.push_back(nullptr);
    return posix_spawn(pid, path.c_str(), &files_, &attributes_, argv.data(), envp.data());
  }

 private:
  posix_spawnattr_t attributes_;
  posix_spawn_file_actions_t files_;
};

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

int StartProgram(Job& job, Program& program, Started* started) {
  const uint32_t id = job.action.requestId;
  const std::string& name = program.words[0];
  Fd out[2], err[2], wake;
  if (int failed = OpenChannels(out, err, &wake)) {
    SayFor(id, "cannot run \"" + name + "\": " + ErrorText(failed));
    return 126;
  }
  {
    std::lock_guard<std::mutex> hold(job.mutex);
    if (job.stopped) return 128 + SIGTERM;  // closed while it waited its turn
    job.wakeFd = wake.get();  // a close from now on wakes the runner
  }
  started->wake = wake.Release();

  std::vector<std::string> environment = Environment(job.action);
  SpawnSetup setup;
  int failed = setup.Prepare(out[1].get(), err[1].get());
  if (!failed) failed = setup.Spawn(&started->pid, program.path, program.words, environment);
  out[1].Reset();
  err[1].Reset();
  if (failed) {
    SayFor(id, "cannot run \"" + name + "\": " + ErrorText(failed));
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
