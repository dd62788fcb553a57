// qmtahost: the reference host. Loads the automation module, starts it, and
// feeds it the events and operator commands of an input file, one line at
// a time, on this thread. Standard output carries only the module's
// operator messages; everything the host itself says goes to standard
// error.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include "host/hostsvc.h"
#include "host/localdriver.h"
#ifdef QMTA_HAVE_NATS
#include "host/nats/driver.h"
#endif
#include "host/prog/explain.h"
#include "host/prog/inputline.h"
#include "host/prog/options.h"
#include "host/prog/reload.h"
#include "host/prog/rulecheck.h"
#include "qmtauto1/qmtautox.h"

namespace {

namespace fs = std::filesystem;
using qmta::hostprog::InputLine;

constexpr int kUsageError = 2;
constexpr int kModuleError = 1;
// Longest input line read; the rest of a longer one is skipped.
constexpr size_t kLineMax = 1 << 20;

struct Entries {
  QMTAUTOX_Entry event = nullptr;
  QMTAINIT_Entry init = nullptr;
  QMTASITR_Entry command = nullptr;
};

std::string ErrorText(int error) { return std::generic_category().message(error); }

// Descriptors 0, 1 and 2 are open, so that nothing the host opens later
// takes their place (and is handed to action programs as one of them).
void EnsureStandardDescriptors() {
  for (int fd = 0; fd < 3; ++fd) {
    if (fcntl(fd, F_GETFD) != -1 || errno != EBADF) continue;
    int opened = open("/dev/null", O_RDWR);
    if (opened >= 0 && opened != fd) {
      dup2(opened, fd);
      close(opened);
    }
  }
}

// The default module: ../lib/libqmtautox.so beside this program.
std::string DefaultModule() {
  std::error_code error;
  fs::path self = fs::read_symlink("/proc/self/exe", error);
  if (error) return "libqmtautox.so";
  return (self.parent_path() / ".." / "lib" / "libqmtautox.so").lexically_normal().string();
}

bool ReadFile(const std::string& path, std::string* text) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream content;
  content << in.rdbuf();
  *text = content.str();
  return !in.bad();
}

// Reads the input a block at a time and hands it out line by line: one
// memchr per line instead of a call per character, which made reading the
// lines cost as much as parsing them. It reads the descriptor directly, so
// a line that arrives on a pipe is handed out as soon as it is there.
class LineReader {
 public:
  explicit LineReader(int fd) : fd_(fd) {}

  // Reads one line without its line end ("\n" or "\r\n"); false at the end
  // of the input or after a read error. A line longer than kLineMax is cut
  // and `*tooLong` set.
  bool Next(std::string* line, bool* tooLong) {
    line->clear();
    *tooLong = false;
    bool any = false;
    bool ended = false;
    while (!ended) {
      if (next_ == end_ && !Fill()) break;
      any = true;
      const char* newline = static_cast<const char*>(memchr(next_, '\n', end_ - next_));
      const char* stop = newline ? newline : end_;
      size_t length = static_cast<size_t>(stop - next_);
      size_t room = kLineMax - line->size();
      if (length > room) *tooLong = true;
      line->append(next_, std::min(length, room));
      next_ = newline ? newline + 1 : end_;
      ended = newline != nullptr;
    }
    if (ended && !line->empty() && line->back() == '\r') line->pop_back();
    return any;
  }

  // The error number of a failed read, 0 when none failed.
  int error() const { return error_; }

 private:
  bool Fill() {
    ssize_t got;
    do {
      got = read(fd_, buffer_, sizeof buffer_);
    } while (got < 0 && errno == EINTR);
    if (got < 0) error_ = errno;
    next_ = buffer_;
    end_ = buffer_ + (got > 0 ? got : 0);
    return got > 0;
  }

  int fd_;
  int error_ = 0;
  char buffer_[1 << 16];
  const char* next_ = buffer_;
  const char* end_ = buffer_;
};

std::string Now() {
  time_t now = time(nullptr);
  struct tm local = {};
  localtime_r(&now, &local);
  return qmta::hostprog::Timestamp(local);
}

// Waits until every action started so far has finished (WaitForActions
// also waits out the moment between an event call and its action threads'
// first count).
void Drain() {
  while (!qmta::host::WaitForActions(std::chrono::hours(1))) {
  }
}

void SendEvent(const Entries& module, const qmta::hostprog::Event& event) {
  std::vector<const char*> names, values;
  for (const auto& [name, value] : event.attributes) {
    names.push_back(name.c_str());
    values.push_back(value.c_str());
  }
  std::string timestamp = event.timestamp ? *event.timestamp : Now();
  DBQ1_Handle path = {};
  if (event.pathHandle) path = qmta::host::OwnPath();
  module.event(event.sitname.c_str(), event.originnode.c_str(), event.prevstate,
               event.currstate, timestamp.c_str(), static_cast<int32_t>(names.size()),
               names.empty() ? nullptr : names.data(),
               values.empty() ? nullptr : values.data(),
               event.threshold ? event.threshold->c_str() : nullptr,
               event.pathHandle ? &path : nullptr, event.onDS);
}

void SendCommand(const Entries& module, const std::string& text) {
  QMTA_CommandText command{text.data(), nullptr, static_cast<uint32_t>(text.size())};
  int32_t reason = 0;
  module.command(nullptr, &command, nullptr, &reason);
}

// Runs the start-up entry on a thread of its own and waits until it has
// returned. The entry detaches that thread, so it is never joined.
void Initialise(QMTAINIT_Entry init) {
  struct Start {
    QMTAINIT_Entry init;
    std::mutex mutex;
    std::condition_variable finished;
    bool done = false;
  };
  auto start = std::make_shared<Start>();
  start->init = init;
  // The thread owns one reference, so the block outlives whichever of the
  // two lets go last.
  auto* reference = new std::shared_ptr<Start>(start);
  pthread_t thread;
  int failed = pthread_create(
      &thread, nullptr,
      [](void* argument) -> void* {
        std::unique_ptr<std::shared_ptr<Start>> owned(static_cast<std::shared_ptr<Start>*>(argument));
        Start& start = **owned;
        start.init();
        std::lock_guard<std::mutex> hold(start.mutex);
        start.done = true;
        start.finished.notify_all();
        return nullptr;
      },
      reference);
  if (failed) {
    delete reference;
    fprintf(stderr, "qmtahost: cannot start the start-up thread: %s; the first event "
            "initialises the module\n", ErrorText(failed).c_str());
    return;
  }
  std::unique_lock<std::mutex> hold(start->mutex);
  start->finished.wait(hold, [&] { return start->done; });
}

int Run(const qmta::hostprog::Options& options) {
  std::error_code error;
  const fs::path origin = fs::current_path(error);
  auto absolute = [&](const std::string& path) {
    return (origin / path).lexically_normal().string();
  };

  const std::string dir = absolute(options.dir);
  if (!fs::is_directory(dir, error)) {
    fprintf(stderr, "qmtahost: --dir %s: not a directory\n", options.dir.c_str());
    return kUsageError;
  }
  const std::string actions = options.actions.empty() ? (fs::path(dir) / "actions").string()
                                                      : absolute(options.actions);
  qmta::host::RegisterDriver("local", qmta::host::LocalDriverFactory(actions));
#ifdef QMTA_HAVE_NATS
  qmta::host::RegisterDriver("nats", qmta::host::NatsDriverFactory());
#endif

  std::string nodes = "* local\n";
  if (!options.nodes.empty() && !ReadFile(absolute(options.nodes), &nodes)) {
    fprintf(stderr, "qmtahost: cannot read %s: %s\n", options.nodes.c_str(),
            ErrorText(errno).c_str());
    return kUsageError;
  }
  std::string reason;
  if (!qmta::host::SetDestinations(nodes, &reason)) {
    fprintf(stderr, "qmtahost: %s: %s\n",
            options.nodes.empty() ? "destinations" : options.nodes.c_str(), reason.c_str());
    return kUsageError;
  }

  FILE* in = stdin;
  if (options.input != "-") {
    in = fopen(absolute(options.input).c_str(), "re");
    if (!in) {
      fprintf(stderr, "qmtahost: cannot open %s: %s\n", options.input.c_str(),
              ErrorText(errno).c_str());
      return kUsageError;
    }
  }
  if (chdir(dir.c_str()) != 0) {
    fprintf(stderr, "qmtahost: cannot change into %s: %s\n", dir.c_str(),
            ErrorText(errno).c_str());
    return kUsageError;
  }

  if (options.trace) qmta::host::SetTraceLevel(*options.trace);
  if (!options.server.empty()) qmta::host::SetServerName(options.server);
  qmta::host::SetCommandLength(options.commandLength);
  if (options.clockShift != 0) qmta::host::SetClockShift(std::chrono::seconds(options.clockShift));

  const std::string module = options.module.empty() ? DefaultModule() : absolute(options.module);
  void* handle = dlopen(module.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    fprintf(stderr, "qmtahost: cannot load %s: %s\n", module.c_str(), dlerror());
    return kModuleError;
  }
  Entries entries;
  entries.event = reinterpret_cast<QMTAUTOX_Entry>(dlsym(handle, "QMTAUTOX"));
  entries.init = reinterpret_cast<QMTAINIT_Entry>(dlsym(handle, "QMTAINIT"));
  entries.command = reinterpret_cast<QMTASITR_Entry>(dlsym(handle, "QMTASITR"));
  for (const auto& [name, found] : {std::pair{"QMTAUTOX", entries.event != nullptr},
                                    std::pair{"QMTAINIT", entries.init != nullptr},
                                    std::pair{"QMTASITR", entries.command != nullptr}}) {
    if (!found) {
      fprintf(stderr, "qmtahost: %s has no entry %s\n", module.c_str(), name);
      return kModuleError;
    }
  }
  // The module is never unloaded: its action threads may outlive any call.
  qmta::host::RegisterLoadModule("QMTAUTOX", module);

  if (options.init) Initialise(entries.init);

  std::string text;
  bool tooLong;
  auto reader = std::make_unique<LineReader>(fileno(in));
  for (long number = 1; reader->Next(&text, &tooLong); ++number) {
    InputLine line = tooLong ? InputLine{InputLine::Kind::kError, {}, "line too long"}
                             : qmta::hostprog::ParseInputLine(text);
    switch (line.kind) {
      case InputLine::Kind::kSkip: break;
      case InputLine::Kind::kEvent: SendEvent(entries, line.event); break;
      case InputLine::Kind::kDrain: Drain(); break;
      case InputLine::Kind::kCommand: SendCommand(entries, line.text); break;
      case InputLine::Kind::kReload:
        qmta::hostprog::ReloadFromInput(line.force, [&] { SendCommand(entries, "REFRESH"); });
        break;
      case InputLine::Kind::kError:
        fprintf(stderr, "qmtahost: line %ld: %s\n", number, line.text.c_str());
        break;
    }
  }
  if (reader->error() != 0)
    fprintf(stderr, "qmtahost: error reading the input: %s\n", ErrorText(reader->error()).c_str());
  if (in != stdin) fclose(in);

  Drain();
  // The local driver's threads end right after their last completion.
  if (!qmta::host::WaitForLocalRunners(std::chrono::seconds(30)))
    fprintf(stderr, "qmtahost: action programs still running at exit\n");
  fflush(stdout);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  EnsureStandardDescriptors();
  signal(SIGPIPE, SIG_IGN);  // a closed output is reported as an error, not fatal

  // The operator tools: own processes that never load the module.
  if (argc > 1 && strcmp(argv[1], "check") == 0) return qmta::hostprog::RunCheck(argc - 1, argv + 1);
  if (argc > 1 && strcmp(argv[1], "explain") == 0) return qmta::hostprog::RunExplain(argc - 1, argv + 1);

  qmta::hostprog::Options options;
  std::string error;
  if (!qmta::hostprog::ParseOptions(argc, argv, &options, &error)) {
    fprintf(stderr, "qmtahost: %s\n%sTry 'qmtahost --help' for more.\n", error.c_str(),
            qmta::hostprog::kUsage);
    return kUsageError;
  }
  if (options.help) {
    fputs(qmta::hostprog::kHelp, stdout);
    return 0;
  }
  if (options.version) {
    puts("qmtahost " QMTA_VERSION);
    return 0;
  }
  return Run(options);
}
