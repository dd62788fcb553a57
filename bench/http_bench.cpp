// HTTP ingest: JSON event lines that match no rule, sent to one running
// `qmtahost serve --listen 127.0.0.1:0` over one keep-alive connection,
// timed until the host has handed them all to the module (its
// qmta_events_delivered_total, read from /metrics). "batch" sends 100
// lines per POST /v1/events, "single" one line per request. The floor
// ("stdin") is the standard-input path: `qmtahost` reading the same lines
// from its standard input, timed from its start to its exit (the start,
// about 20 ms, is counted there and not for HTTP, where the server runs
// already).
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdio.h>
#include <stdlib.h>

#include <fstream>
#include <memory>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/support/benchsupport.h"

namespace {

using namespace std::chrono_literals;

std::string ReadAll(const std::string& path) {
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

pid_t Spawn(const std::vector<std::string>& words, const std::string& in, const std::string& err) {
  std::vector<char*> argv;
  for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addopen(&files, 0, in.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&files, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&files, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  char* environment[] = {const_cast<char*>("PATH=/usr/bin:/bin"), nullptr};
  pid_t pid = -1;
  int failed = posix_spawn(&pid, argv[0], &files, nullptr, argv.data(), environment);
  posix_spawn_file_actions_destroy(&files);
  return failed ? -1 : pid;
}

// A keep-alive HTTP/1.1 client on one connection: a request, then its
// answer (the host always sends Content-Length).
class Client {
 public:
  explicit Client(int port) {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    int one = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    if (connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
      throw std::runtime_error("cannot connect to the host");
  }
  ~Client() { close(fd_); }

  // The status; the body in `*body`. Throws when the connection fails.
  int Send(const char* method, const char* path, const std::string& body,
           std::string* answer = nullptr) {
    request_.assign(method).append(" ").append(path).append(
        " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: ");
    request_.append(std::to_string(body.size())).append("\r\n\r\n").append(body);
    for (std::string_view rest(request_); !rest.empty();) {
      ssize_t put = send(fd_, rest.data(), rest.size(), MSG_NOSIGNAL);
      if (put <= 0) throw std::runtime_error("send failed");
      rest.remove_prefix(static_cast<size_t>(put));
    }
    size_t end;
    while ((end = pending_.find("\r\n\r\n")) == std::string::npos) Receive();
    int status = atoi(pending_.c_str() + 9);  // "HTTP/1.1 202 ..."
    size_t length = pending_.find("Content-Length: ");
    if (length == std::string::npos || length > end) throw std::runtime_error("no length");
    size_t size = strtoul(pending_.c_str() + length + 16, nullptr, 10);
    while (pending_.size() < end + 4 + size) Receive();
    if (answer != nullptr) answer->assign(pending_, end + 4, size);
    pending_.erase(0, end + 4 + size);
    return status;
  }

  // The host's count of events handed to the module.
  uint64_t Delivered() {
    std::string metrics;
    if (Send("GET", "/metrics", "", &metrics) != 200) throw std::runtime_error("no metrics");
    size_t at = metrics.find("\nqmta_events_delivered_total ");
    if (at == std::string::npos) throw std::runtime_error("no delivered count");
    return strtoull(metrics.c_str() + at + 29, nullptr, 10);
  }

 private:
  void Receive() {
    char buffer[65536];
    ssize_t got = recv(fd_, buffer, sizeof buffer, 0);
    if (got <= 0) throw std::runtime_error("the host closed the connection");
    pending_.append(buffer, static_cast<size_t>(got));
  }
  int fd_ = -1;
  std::string request_, pending_;
};

struct Setup {
  std::unique_ptr<qmtabench::ScratchDir> dir;
  std::string events;                // the file of all lines
  std::vector<std::string> batches;  // 100 lines each
  std::vector<std::string> singles;  // the first lines, one each
  int lines = 0;
  pid_t server = -1;
  int port = 0;

  // qmtahost [serve] with the scratch directory's rules and nodes.
  std::vector<std::string> Host(bool serve, std::vector<std::string> extra) const {
    std::vector<std::string> words = {QMTAHOST_PATH, "--dir", dir->path(), "--nodes",
                                      dir->path() + "/nodes", "--module", QMTA_MODULE_PATH};
    if (serve) words.insert(words.begin() + 1, "serve");
    words.insert(words.end(), extra.begin(), extra.end());
    return words;
  }
  void Stop() {
    if (server > 0) {
      kill(server, SIGTERM);
      waitpid(server, nullptr, 0);
    }
    server = -1;
  }
};
Setup setup;

// Sends `bodies` and waits until the host has delivered `events` more.
void Post(benchmark::State& state, const std::vector<std::string>& bodies, int events) {
  try {
    Client client(setup.port);
    for (auto _ : state) {
      const uint64_t target = client.Delivered() + static_cast<uint64_t>(events);
      for (const std::string& body : bodies)
        if (client.Send("POST", "/v1/events", body) != 202)
          throw std::runtime_error("an event request was not taken");
      while (client.Delivered() < target) std::this_thread::sleep_for(500us);
    }
  } catch (const std::exception& failure) {
    state.SkipWithError(failure.what());
  }
  state.SetItemsProcessed(state.iterations() * events);
}

void Batch(benchmark::State& state) { Post(state, setup.batches, setup.lines); }
void Single(benchmark::State& state) {
  Post(state, setup.singles, static_cast<int>(setup.singles.size()));
}

void Stdin(benchmark::State& state) {
  const std::string errors = setup.dir->path() + "/stdin-errors";
  bool failed = false;
  for (auto _ : state) {
    pid_t pid = Spawn(setup.Host(false, {"-"}), setup.events, errors);
    int status = -1;
    failed |= pid < 0 || waitpid(pid, &status, 0) != pid || status != 0;
  }
  if (failed) state.SkipWithError("qmtahost failed");
  else if (ReadAll(errors).find("qmtahost: stopped: " + std::to_string(setup.lines) + " events") != 0)
    state.SkipWithError("qmtahost complained or lost events");
  state.SetItemsProcessed(state.iterations() * setup.lines);
}

}  // namespace

int main(int argc, char** argv) {
  int status = 1;
  try {
    status = qmtabench::Main(argc, argv, [&] {
    setup.dir = std::make_unique<qmtabench::ScratchDir>();
    const std::string& dir = setup.dir->path();
    setup.lines = qmtabench::Tiny() ? 2000 : 200000;
    const std::string text = qmtabench::IngestEventLines(setup.lines);
    setup.dir->Write("QMTASITR", qmtabench::Text(qmtabench::RealisticRules(10)));
    setup.dir->Write("nodes", "* sim rc=0\n");
    setup.dir->Write("events", text);
    setup.events = dir + "/events";
    for (size_t at = 0, line = 0; at < text.size(); ++line) {
      size_t end = text.find('\n', at) + 1;
      if (line % 100 == 0) setup.batches.emplace_back();
      setup.batches.back().append(text, at, end - at);
      if (line < static_cast<size_t>(setup.lines / 20))
        setup.singles.push_back(text.substr(at, end - at));
      at = end;
    }

    setup.server = Spawn(setup.Host(true, {"--control", dir + "/control", "--listen",
                                           "127.0.0.1:0"}),
                         "/dev/null", dir + "/server-errors");
    std::smatch port;
    std::regex listening("listening on http://127.0.0.1:([0-9]+)");
    std::string said;
    for (int i = 0; i < 500 && !std::regex_search(said = ReadAll(dir + "/server-errors"), port,
                                                  listening);
         ++i)
      std::this_thread::sleep_for(10ms);
    if (port.empty()) throw std::runtime_error("qmtahost serve did not listen:\n" + said);
    setup.port = std::stoi(port[1]);
    // A first batch, checked: taken whole and delivered, no action started.
    Client client(setup.port);
    std::string answer;
    if (client.Send("POST", "/v1/events", setup.batches[0], &answer) != 202 ||
        answer != "{\"taken\":100}\n")
      throw std::runtime_error("the first batch was not taken: " + answer);
    if (!qmtabench::WaitUntil([&] { return client.Delivered() >= 100; }, 10s, 1ms) ||
        client.Send("GET", "/metrics", "", &answer) != 200 ||
        answer.find("\nqmta_actions_started_total 0\n") == std::string::npos)
      throw std::runtime_error("the first batch was not delivered, or started actions:\n" + answer);

    benchmark::RegisterBenchmark("http/batch", Batch)->UseRealTime();
    benchmark::RegisterBenchmark("http/single", Single)->UseRealTime();
    benchmark::RegisterBenchmark("http/stdin", Stdin)->UseRealTime();
    });
  } catch (const std::exception& failure) {
    fprintf(stderr, "http bench: %s\n", failure.what());
  }
  setup.Stop();  // the server goes with the program, whatever happened
  return status;
}
