// qmtaagent: serves destination nodes on a NATS server. Each request for a
// served node is run by the host's local driver (the same word splitting,
// actions directory, environment, limits, time-out and output handling as
// qmtahost's "local" destinations) and answered with the program's return
// code. See docs/remote-nodes.md.
//
// Threads: the client library delivers the requests of each node on a
// thread of its own; the local driver runs every program on its runner
// threads and answers from there. The main thread only waits for SIGTERM
// or SIGINT, then stops taking requests, ends the programs still running
// (answering their requests with DBQ1_DEST_OFFLINE) and exits.
#include <getopt.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "host/localdriver.h"
#include "host/nats/connect.h"
#include "host/natswire.h"
#include "platform/dbq1.h"

namespace {

namespace fs = std::filesystem;
namespace conn = qmta::host::natsconn;
namespace wire = qmta::host::wire;

constexpr char kUsage[] =
    "usage: qmtaagent --url URL --actions DIR [OPTION]... NODE...\n";
constexpr char kHelp[] =
    "usage: qmtaagent --url URL --actions DIR [OPTION]... NODE...\n"
    "Serves the destination nodes NODE... on a NATS server: runs each action\n"
    "sent to them as a program of DIR and answers with its return code.\n"
    "  --url URL[,URL...]     server(s): nats://HOST:PORT or tls://HOST:PORT\n"
    "  --actions DIR          where the action programs are\n"
    "  --dir DIR              working directory of the programs (default: .)\n"
    "  --timeout S            end a program after S seconds (default: 50)\n"
    "  --max N                programs run at once per node (default: 64)\n"
    "  --tls-ca FILE          CA certificates (PEM) that sign the server's certificate\n"
    "  --tls-cert FILE        client certificate (PEM), with --tls-key\n"
    "  --tls-key FILE         key of the client certificate\n"
    "  --user NAME            user name, with --password-file\n"
    "  --password-file FILE   file holding the password\n"
    "  --creds FILE           credentials file (JWT and NKey private key)\n"
    "  --reconnect-wait MS    pause between reconnection attempts (default: 1000)\n"
    "  -h, --help             print this help and exit\n"
    "  --version              print the version and exit\n";

void Say(const std::string& text) {
  std::string line = "qmtaagent: " + text + "\n";
  flockfile(stderr);
  fwrite(line.data(), 1, line.size(), stderr);
  fflush(stderr);
  funlockfile(stderr);
}

class Agent;

// One request being run: the local driver's view of it. The first answer
// wins; an answer is published on the request's reply subject.
class Request final : public qmta::host::Completion,
                      public std::enable_shared_from_this<Request> {
 public:
  Request(Agent* agent, std::string reply, uint32_t id)
      : agent_(agent), reply_(std::move(reply)), id_(id) {}
  void Rows(std::vector<int32_t> codes) override {
    wire::Reply answer;
    answer.id = id_;
    answer.codes = std::move(codes);
    Answer(answer);
  }
  void Fail(int32_t status) override {
    wire::Reply answer;
    answer.id = id_;
    answer.failed = true;
    answer.status = status;
    Answer(answer);
  }
  void OnClose(std::function<void()> stop) override {
    std::unique_lock<std::mutex> hold(mutex_);
    if (!closed_) {
      stop_ = std::move(stop);
      return;
    }
    hold.unlock();
    stop();
  }
  bool Closed() const override {
    std::lock_guard<std::mutex> hold(mutex_);
    return closed_;
  }
  // The agent stops: answer offline now and end the program.
  void Shutdown() {
    std::function<void()> stop;
    {
      std::lock_guard<std::mutex> hold(mutex_);
      if (closed_) return;
      closed_ = true;
      stop = std::move(stop_);
    }
    wire::Reply answer;
    answer.id = id_;
    answer.failed = true;
    answer.status = DBQ1_DEST_OFFLINE;
    Send(answer);
    if (stop) stop();
  }

 private:
  void Answer(const wire::Reply& answer) {
    {
      std::lock_guard<std::mutex> hold(mutex_);
      if (closed_) return;
      closed_ = true;
      stop_ = nullptr;
    }
    Send(answer);
  }
  void Send(const wire::Reply& answer);

  Agent* const agent_;
  const std::string reply_;
  const uint32_t id_;
  mutable std::mutex mutex_;
  bool closed_ = false;
  std::function<void()> stop_;
};

struct Served {
  Agent* agent;
  std::string node;
  std::string subject;
  natsSubscription* subscription = nullptr;
};

class Agent {
 public:
  natsConnection* connection = nullptr;
  std::unique_ptr<qmta::host::Driver> driver;

  void Handle(const Served& served, natsMsg* message) {
    const char* reply = natsMsg_GetReply(message);
    std::string_view data(natsMsg_GetData(message), static_cast<size_t>(natsMsg_GetDataLength(message)));
    wire::Request request;
    std::string error;
    bool good = wire::DecodeRequest(data, &request, &error);
    if (!reply || !*reply) {
      Say("request without a reply subject on " + served.subject + "; ignored");
      return;
    }
    auto answer = std::make_shared<Request>(this, reply, request.id);
    if (good && request.node != served.node) {
      good = false;
      error = "the request names another node";
    }
    if (!good) {
      Say("refused a request on " + served.subject + ": " + error);
      answer->Fail(DBQ1_BAD_PARAMETER);
      return;
    }
    {
      std::lock_guard<std::mutex> hold(mutex_);
      if (stopping_) {
        answer->Fail(DBQ1_DEST_OFFLINE);
        return;
      }
      open_.insert(answer);
    }
    qmta::host::Action action;
    action.requestId = request.id;
    action.callType = request.callType;
    action.command = std::move(request.command);
    action.destination = std::move(request.node);
    driver->Start(action, answer);
  }

  void Publish(const std::string& subject, const std::string& data,
               const std::shared_ptr<Request>& request) {
    natsStatus s = natsConnection_Publish(connection, subject.c_str(), data.data(),
                                          static_cast<int>(data.size()));
    if (s != NATS_OK) Say("cannot answer on " + subject + ": " + conn::StatusText(s));
    std::lock_guard<std::mutex> hold(mutex_);
    open_.erase(request);
  }

  // No new requests from now on; the open ones are answered offline and
  // their programs ended.
  void Stop() {
    std::set<std::shared_ptr<Request>> open;
    {
      std::lock_guard<std::mutex> hold(mutex_);
      stopping_ = true;
      open = open_;
    }
    for (const auto& request : open) request->Shutdown();
  }

 private:
  std::mutex mutex_;
  bool stopping_ = false;
  std::set<std::shared_ptr<Request>> open_;
};

void Request::Send(const wire::Reply& answer) {
  agent_->Publish(reply_, wire::EncodeReply(answer), shared_from_this());
}

void OnRequest(natsConnection*, natsSubscription*, natsMsg* message, void* closure) {
  auto* served = static_cast<Served*>(closure);
  served->agent->Handle(*served, message);
  natsMsg_Destroy(message);
}

void OnConnected(natsConnection*, void*) { Say("connected"); }
std::atomic<bool> stopping{false};
void OnDisconnected(natsConnection*, void*) {
  if (!stopping) Say("lost the connection to the server; reconnecting");
}
void OnReconnected(natsConnection*, void*) { Say("connected again"); }
// The client library gives up a connection (after a failed TLS handshake,
// for one): the agent cannot serve any more and ends with status 1.
void OnClosed(natsConnection* connection, void*) {
  if (stopping) return;
  const char* text = nullptr;
  natsStatus why = natsConnection_GetLastError(connection, &text);
  Say("the client library closed the connection (" +
      (text && *text ? std::string(text) : conn::StatusText(why)) + ")");
  kill(getpid(), SIGUSR1);
}
void OnError(natsConnection* connection, natsSubscription* subscription, natsStatus status, void*) {
  const char* text = nullptr;
  natsConnection_GetLastError(connection, &text);
  std::string where;
  if (subscription) where = std::string(" on ") + natsSubscription_GetSubject(subscription);
  Say("server error" + where + ": " + conn::StatusText(status) +
      (text && *text ? std::string(" (") + text + ")" : ""));
}

struct Options {
  conn::Settings settings;
  std::string actions;
  std::string dir;
  std::vector<std::string> localOptions;  // for the local driver: timeout=S, max=N
  std::vector<std::string> nodes;
  bool help = false;
  bool version = false;
};

bool ParseOptions(int argc, char** argv, Options* options, std::string* error) {
  enum { kUrl = 1000, kActions, kDir, kTimeout, kMax, kCa, kCert, kKey, kUser, kPassword,
         kCreds, kReconnect };
  static const struct option longOptions[] = {
      {"url", required_argument, nullptr, kUrl},
      {"actions", required_argument, nullptr, kActions},
      {"dir", required_argument, nullptr, kDir},
      {"timeout", required_argument, nullptr, kTimeout},
      {"max", required_argument, nullptr, kMax},
      {"tls-ca", required_argument, nullptr, kCa},
      {"tls-cert", required_argument, nullptr, kCert},
      {"tls-key", required_argument, nullptr, kKey},
      {"user", required_argument, nullptr, kUser},
      {"password-file", required_argument, nullptr, kPassword},
      {"creds", required_argument, nullptr, kCreds},
      {"reconnect-wait", required_argument, nullptr, kReconnect},
      {"help", no_argument, nullptr, 'h'},
      {"version", no_argument, nullptr, 'V'},
      {nullptr, 0, nullptr, 0},
  };
  opterr = 0;
  for (;;) {
    int index = -1;
    int option = getopt_long(argc, argv, ":h", longOptions, &index);
    if (option == -1) break;
    std::string word = optopt > 0 && optopt < 256 ? std::string("-") + static_cast<char>(optopt)
                                                 : std::string(argv[optind - 1]);
    switch (option) {
      case kActions: options->actions = optarg; break;
      case kDir: options->dir = optarg; break;
      case kTimeout: options->localOptions.push_back(std::string("timeout=") + optarg); break;
      case kMax: options->localOptions.push_back(std::string("max=") + optarg); break;
      case 'h': options->help = true; break;
      case 'V': options->version = true; break;
      case ':': *error = word + ": needs a value"; return false;
      case '?': *error = "unknown option \"" + word + "\""; return false;
      default: {
        // The connection settings, under the names the nats driver uses.
        if (!conn::Set(longOptions[index].name, optarg, &options->settings, error)) return false;
      }
    }
  }
  if (options->help || options->version) return true;
  for (int i = optind; i < argc; ++i) options->nodes.push_back(argv[i]);
  if (options->actions.empty()) {
    *error = "--actions is required";
    return false;
  }
  if (options->nodes.empty()) {
    *error = "name at least one node to serve";
    return false;
  }
  for (const auto& node : options->nodes) {
    if (node.size() > wire::kNodeMax) {
      *error = "node name longer than " + std::to_string(wire::kNodeMax) + " bytes";
      return false;
    }
  }
  return conn::Check(options->settings, error);
}

int Run(Options& options) {
  std::error_code failure;
  std::string actions = fs::absolute(options.actions, failure).lexically_normal().string();
  if (!fs::is_directory(actions, failure)) {
    Say("--actions " + options.actions + ": not a directory");
    return 2;
  }
  std::string error;
  Agent agent;
  agent.driver = qmta::host::LocalDriverFactory(actions)(options.localOptions, &error);
  if (!agent.driver) {
    Say(error);
    return 2;
  }
  if (!options.dir.empty() && chdir(options.dir.c_str()) != 0) {
    Say("cannot change into " + options.dir);
    return 2;
  }
  options.settings.name = "qmtaagent";
  natsOptions* natsOptions = conn::MakeOptions(options.settings, &error);
  if (!natsOptions) {
    Say(error);
    return 2;
  }
  natsOptions_SetErrorHandler(natsOptions, OnError, nullptr);
  natsOptions_SetDisconnectedCB(natsOptions, OnDisconnected, nullptr);
  natsOptions_SetReconnectedCB(natsOptions, OnReconnected, nullptr);
  natsOptions_SetClosedCB(natsOptions, OnClosed, nullptr);
  natsOptions_SetRetryOnFailedConnect(natsOptions, true, OnConnected, nullptr);
  natsStatus s = natsConnection_Connect(&agent.connection, natsOptions);
  natsOptions_Destroy(natsOptions);
  if (s == NATS_OK) Say("connected");
  else if (s == NATS_NOT_YET_CONNECTED) Say("cannot reach " + options.settings.url + " yet; still trying");
  else {
    Say("cannot connect to " + options.settings.url + ": " + conn::StatusText(s));
    return 1;
  }

  std::vector<std::unique_ptr<Served>> served;
  for (const auto& node : options.nodes) {
    auto one = std::make_unique<Served>();
    one->agent = &agent;
    one->node = node;
    one->subject = wire::NodeSubject(node);
    // Agents serving the same node share the work (one queue group).
    s = natsConnection_QueueSubscribe(&one->subscription, agent.connection, one->subject.c_str(),
                                      "qmtaagent", OnRequest, one.get());
    if (s != NATS_OK) {
      Say("cannot serve " + node + ": " + conn::StatusText(s));
      return 1;
    }
    natsSubscription_SetPendingLimits(one->subscription, -1, -1);
    Say("serving node \"" + node + "\" on " + one->subject);
    served.push_back(std::move(one));
  }

  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGUSR1);
  int signal = 0;
  while (sigwait(&stopSignals, &signal) != 0) {
  }
  if (signal != SIGUSR1) Say(std::string("stopping on ") + (signal == SIGTERM ? "SIGTERM" : "SIGINT"));
  stopping = true;
  for (auto& one : served) natsSubscription_Unsubscribe(one->subscription);
  agent.Stop();
  natsConnection_FlushTimeout(agent.connection, 2000);
  // The ended programs are reaped, and the runners gone, within the grace.
  if (!qmta::host::WaitForLocalRunners(std::chrono::seconds(5)))
    Say("action programs still running at exit");
  natsConnection_Close(agent.connection);
  for (auto& one : served) natsSubscription_Destroy(one->subscription);
  natsConnection_Destroy(agent.connection);
  agent.driver.reset();
  nats_CloseAndWait(2000);
  return signal == SIGUSR1 ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  // The stop signals are taken by the main thread alone, with sigwait: every
  // thread started later inherits this mask.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGUSR1);  // sent by the agent itself: connection given up
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  Options options;
  std::string error;
  if (!ParseOptions(argc, argv, &options, &error)) {
    fprintf(stderr, "qmtaagent: %s\n%sTry 'qmtaagent --help' for more.\n", error.c_str(), kUsage);
    return 2;
  }
  if (options.help) {
    fputs(kHelp, stdout);
    return 0;
  }
  if (options.version) {
    puts("qmtaagent " QMTA_VERSION);
    return 0;
  }
  return Run(options);
}
