// The JetStream intake (`qmtahost serve --events-nats`) with a nats-server of
// its own (JetStream, file storage) on 127.0.0.1, against the standard-input
// path in the same run. Every event matches one rule whose destination is
// `sim rc=0`, so each starts one action.
//
// Rate. Ours: the events wait in a stream; `qmtahost serve` is timed from
// its start until the consumer has every event acknowledged and the host
// has exited after SIGTERM. Floor: `qmtahost` reading the same lines from a
// file (the standard-input reader), timed from its start to its exit.
// Latency, one event at a time to a running host. Ours: from just before
// js_Publish (which waits for the stream's acknowledgement) until the
// event's QMTA041I line, printed with its QMTA040I, comes out of the host's
// standard output. Floor: from writing the line to a running qmtahost's
// standard input until the same line. Median and 99th percentile.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <nats/nats.h>

#include "bench/support/benchsupport.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

std::string Event(int seq) {
  return R"({"sitname": "Js", "originnode": "o", "currstate": 1, "attributes": [["Seq", ")" +
         std::to_string(seq) + "\"]]}";
}

// A child process; `in` and `out` are descriptors given to it (or -1 for
// /dev/null), standard error goes to `err`.
pid_t Spawn(const std::vector<std::string>& words, int in, int out, const std::string& err) {
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  if (in >= 0) posix_spawn_file_actions_adddup2(&files, in, 0);
  else posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
  if (out >= 0) posix_spawn_file_actions_adddup2(&files, out, 1);
  else posix_spawn_file_actions_addopen(&files, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&files, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  std::vector<char*> argv;
  for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawn(&pid, argv[0], &files, nullptr, argv.data(), environ) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&files);
  return pid;
}

int Reap(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

std::string ReadAll(const std::string& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

struct Setup {
  std::unique_ptr<qmtabench::ScratchDir> dir;
  pid_t server = -1;
  std::string url;
  natsConnection* connection = nullptr;
  jsCtx* js = nullptr;
  int events = 0;
  int streams = 0;  // streams made so far: each rate run has one of its own

  std::vector<std::string> Serve(const std::string& stream, const std::string& subject) const {
    return {QMTAHOST_PATH, "serve", "--control", dir->path() + "/control", "--dir", dir->path(),
            "--nodes", dir->path() + "/nodes", "--module", QMTA_MODULE_PATH, "--events-nats", url,
            "--events-stream", stream, "--events-subject", subject, "--events-insecure"};
  }
};

Setup setup;

// A stream holding `setup.events` events.
bool FillStream(const std::string& stream, const std::string& subject) {
  jsStreamConfig config;
  jsStreamConfig_Init(&config);
  config.Name = stream.c_str();
  const char* subjects[] = {subject.c_str()};
  config.Subjects = subjects;
  config.SubjectsLen = 1;
  config.Retention = js_WorkQueuePolicy;
  config.Storage = js_FileStorage;
  if (js_AddStream(nullptr, setup.js, &config, nullptr, nullptr) != NATS_OK) return false;
  for (int i = 0; i < setup.events; ++i) {
    std::string text = Event(i);
    if (js_PublishAsync(setup.js, subject.c_str(), text.data(), static_cast<int>(text.size()),
                        nullptr) != NATS_OK)
      return false;
  }
  jsPubOptions wait;
  jsPubOptions_Init(&wait);
  wait.MaxWait = 60000;
  return js_PublishAsyncComplete(setup.js, &wait) == NATS_OK;
}

bool AllAcknowledged(const std::string& stream) {
  jsConsumerInfo* info = nullptr;
  if (js_GetConsumerInfo(&info, setup.js, stream.c_str(), "qmtahost", nullptr, nullptr) != NATS_OK)
    return false;
  bool done = info->NumPending == 0 && info->NumAckPending == 0 &&
              info->Delivered.Consumer >= static_cast<uint64_t>(setup.events);
  jsConsumerInfo_Destroy(info);
  return done;
}

void RateOurs(benchmark::State& state) {
  const std::string err = setup.dir->path() + "/rate-errors";
  std::string failure;
  for (auto _ : state) {
    state.PauseTiming();
    const std::string name = "RATE" + std::to_string(++setup.streams);
    const std::string subject = "rate." + std::to_string(setup.streams);
    if (!FillStream(name, subject)) failure = "cannot fill the stream";
    state.ResumeTiming();
    if (!failure.empty()) break;
    pid_t host = Spawn(setup.Serve(name, subject), -1, -1, err);
    if (!qmtabench::WaitUntil([&] { return AllAcknowledged(name); }, 120s, 2ms))
      failure = "not every event was acknowledged";
    kill(host, SIGTERM);
    int status = Reap(host);
    state.PauseTiming();
    js_DeleteStream(setup.js, name.c_str(), nullptr, nullptr);
    std::string said = ReadAll(err);
    if (failure.empty() && (!WIFEXITED(status) || WEXITSTATUS(status) != 0 ||
                            said.find("stopped: " + std::to_string(setup.events) + " events, " +
                                      std::to_string(setup.events) + " actions") ==
                                std::string::npos))
      failure = "qmtahost: " + said;
    state.ResumeTiming();
    if (!failure.empty()) break;
  }
  if (!failure.empty()) state.SkipWithError(failure.c_str());
  state.SetItemsProcessed(state.iterations() * setup.events);
}

void RateFloor(benchmark::State& state) {
  const std::string err = setup.dir->path() + "/floor-errors";
  bool failed = false;
  for (auto _ : state)
    failed |= qmtabench::RunProgram({QMTAHOST_PATH, "--dir", setup.dir->path(), "--nodes",
                                     setup.dir->path() + "/nodes", "--module", QMTA_MODULE_PATH,
                                     setup.dir->path() + "/events"},
                                    "/dev/null", err) != 0;
  if (failed || ReadAll(err).find("stopped: " + std::to_string(setup.events) + " events, " +
                                  std::to_string(setup.events) + " actions") == std::string::npos)
    state.SkipWithError("qmtahost failed");
  state.SetItemsProcessed(state.iterations() * setup.events);
}

// Reads a host's standard output and notes when each event's QMTA041I
// line came.
class Watch {
 public:
  explicit Watch(int fd) : fd_(fd), thread_([this] { Run(); }) {}
  ~Watch() {
    thread_.join();
    close(fd_);
  }
  // Waits (at most 10 s) for the line of event `seq`; when it came.
  std::optional<Clock::time_point> Await(int seq) {
    std::unique_lock<std::mutex> hold(mutex_);
    if (!seen_.wait_for(hold, 10s, [&] { return came_.count(seq) > 0; })) return std::nullopt;
    return came_[seq];
  }

 private:
  void Run() {
    static const std::string kPrefix = "QMTA041I CMD=job \"";
    std::string text;
    char buffer[4096];
    for (ssize_t got; (got = read(fd_, buffer, sizeof buffer)) > 0;) {
      const auto now = Clock::now();
      text.append(buffer, static_cast<size_t>(got));
      for (size_t end; (end = text.find('\n')) != std::string::npos; text.erase(0, end + 1)) {
        if (text.compare(0, kPrefix.size(), kPrefix) != 0) continue;
        std::lock_guard<std::mutex> hold(mutex_);
        came_[std::atoi(text.c_str() + kPrefix.size())] = now;
        seen_.notify_all();
      }
    }
  }
  int fd_;
  std::mutex mutex_;
  std::condition_variable seen_;
  std::map<int, Clock::time_point> came_;
  std::thread thread_;
};

void Percentiles(benchmark::State& state, std::vector<double> micros) {
  if (micros.empty()) return;
  std::sort(micros.begin(), micros.end());
  state.counters["p50_us"] = micros[micros.size() / 2];
  state.counters["p99_us"] = micros[std::min(micros.size() - 1, micros.size() * 99 / 100)];
}

// Ours (`jetstream`) or the floor: one event at a time, timed from its
// publication (or its write to standard input) to its line.
void Latency(benchmark::State& state, bool jetstream) {
  int out[2], in[2] = {-1, -1};
  if (pipe2(out, O_CLOEXEC) != 0 || (!jetstream && pipe2(in, O_CLOEXEC) != 0)) {
    state.SkipWithError("no pipe");
    return;
  }
  const std::string err = setup.dir->path() + (jetstream ? "/latency-errors" : "/stdin-errors");
  const std::string stream = "LATENCY" + std::to_string(++setup.streams);
  const std::string subject = "latency." + std::to_string(setup.streams);
  pid_t host = jetstream ? Spawn(setup.Serve(stream, subject), -1, out[1], err)
                         : Spawn({QMTAHOST_PATH, "--dir", setup.dir->path(), "--nodes",
                                  setup.dir->path() + "/nodes", "--module", QMTA_MODULE_PATH, "-"},
                                 in[0], out[1], err);
  close(out[1]);
  if (in[0] >= 0) close(in[0]);
  std::string failure;
  if (jetstream &&
      !qmtabench::WaitUntil([&] { return ReadAll(err).find("taking events") != std::string::npos; },
                            20s, 1ms))
    failure = "the host does not take events: " + ReadAll(err);
  std::vector<double> micros;
  {
    Watch watch(out[0]);
    int seq = 0;
    // One event through a path; how long it took, or nothing.
    auto once = [&]() -> std::optional<double> {
      const std::string text = Event(++seq);
      const auto start = Clock::now();
      bool sent = jetstream ? js_Publish(nullptr, setup.js, subject.c_str(), text.data(),
                                         static_cast<int>(text.size()), nullptr, nullptr) == NATS_OK
                            : write(in[1], (text + "\n").data(), text.size() + 1) ==
                                  static_cast<ssize_t>(text.size() + 1);
      auto came = sent ? watch.Await(seq) : std::nullopt;
      if (!came) failure = "event " + std::to_string(seq) + " did not come out";
      if (!came) return std::nullopt;
      return std::chrono::duration<double, std::micro>(*came - start).count();
    };
    if (failure.empty()) once();  // the module's start-up, not timed
    for (auto _ : state) {
      if (!failure.empty()) break;
      auto took = once();
      if (took) micros.push_back(*took);
    }
    if (in[1] >= 0) close(in[1]);
    kill(host, SIGTERM);
    Reap(host);
  }
  if (jetstream) js_DeleteStream(setup.js, stream.c_str(), nullptr, nullptr);
  if (!failure.empty()) state.SkipWithError(failure.c_str());
  Percentiles(state, std::move(micros));
}

void StartServer() {
  const std::string program = qmtatest::ProgramIn("nats-server");
  if (program.empty())
    throw std::runtime_error("nats-server is not installed (Debian nats-server)");
  const int port = qmtatest::FreePort();
  setup.url = "nats://127.0.0.1:" + std::to_string(port);
  setup.server = Spawn({program, "-a", "127.0.0.1", "-p", std::to_string(port), "-js", "-sd",
                        setup.dir->path() + "/js"},
                       -1, -1, setup.dir->path() + "/server-errors");
  natsOptions* options = nullptr;
  natsOptions_Create(&options);
  natsOptions_SetURL(options, setup.url.c_str());
  const bool up = qmtabench::WaitUntil(
      [&] { return natsConnection_Connect(&setup.connection, options) == NATS_OK; }, 10s, 20ms);
  natsOptions_Destroy(options);
  jsOptions js;
  jsOptions_Init(&js);
  js.PublishAsync.MaxPending = 4096;
  if (!up || natsConnection_JetStream(&setup.js, setup.connection, &js) != NATS_OK) {
    kill(setup.server, SIGKILL);
    Reap(setup.server);
    throw std::runtime_error("nats-server did not start: " +
                             ReadAll(setup.dir->path() + "/server-errors"));
  }
}

}  // namespace

int main(int argc, char** argv) {
  int status = qmtabench::Main(argc, argv, [&] {
    setup.dir = std::make_unique<qmtabench::ScratchDir>();
    setup.events = qmtabench::Tiny() ? 500 : 20000;
    setup.dir->Write("QMTASITR", "SITNAME=Js DESTNODE=sim:N SCRIPT=job ARG1=Seq;\n");
    setup.dir->Write("nodes", "* sim rc=0\n");
    std::string events;
    for (int i = 0; i < setup.events; ++i) events += Event(i) + "\n";
    setup.dir->Write("events", events);
    StartServer();
    benchmark::RegisterBenchmark("jetstream/ours", RateOurs)->UseRealTime();
    benchmark::RegisterBenchmark("jetstream/floor", RateFloor)->UseRealTime();
    benchmark::RegisterBenchmark("jetstream_latency/ours", Latency, true)->UseRealTime();
    benchmark::RegisterBenchmark("jetstream_latency/floor", Latency, false)->UseRealTime();
  });
  jsCtx_Destroy(setup.js);
  natsConnection_Destroy(setup.connection);
  if (setup.server > 0) {
    kill(setup.server, SIGTERM);
    Reap(setup.server);
  }
  return status;
}
