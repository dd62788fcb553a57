// qmtaagent's agent (see agent.h).
#include "host/programs/qmtaagent/agent.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <utility>

#include "host/common/say.h"
#include "host/drivers/local/local.h"
#include "host/drivers/nats/wire.h"
#include "platform/dbq1.h"

namespace qmta::agent {

namespace conn = host::natsconn;
namespace wire = host::wire;
using Clock = std::chrono::steady_clock;

namespace {

void Say(const std::string& text) { host::Say("qmtaagent: ", text); }

std::string StatusReply(uint32_t id, int32_t status) {
  wire::Reply reply;
  reply.id = id;
  reply.failed = true;
  reply.status = status;
  return wire::EncodeReply(reply);
}

}  // namespace

struct Agent::Served {
  Agent* agent;
  std::string node;
  std::string subject;
  natsSubscription* requests = nullptr;
  natsSubscription* cancels = nullptr;
  // Guarded by the agent's mutex_.
  int running = 0;                                // handed to the driver
  std::deque<std::shared_ptr<Request>> waiting;   // in turn, at most queue_
  uint64_t turnedAway = 0;  // answered "queue full" since the queue last had room
};

// One request taken: waiting, then run by the local driver, which reports
// its end through Rows or Fail. Its answer is published on the thread that
// gives it, unless the request was cancelled or answered offline by Stop
// first. Owned by the agent's open requests, its node's queue and the local
// driver while it runs.
class Request final : public host::Completion, public std::enable_shared_from_this<Request> {
 public:
  // `outputWanted`: the most output the host takes with the answer; 0 for
  // a host that asks for none (before version 3).
  Request(Agent* agent, Agent::Served* served, std::string reply, host::Action action,
          Clock::time_point deadline, size_t outputWanted)
      : agent_(agent), served_(served), reply_(std::move(reply)), action_(std::move(action)),
        deadline_(deadline), outputWanted_(outputWanted) {}

  Agent::Served& served() const { return *served_; }
  const std::string& reply() const { return reply_; }
  const host::Action& action() const { return action_; }
  Clock::time_point deadline() const { return deadline_; }
  std::string Name() const {
    return "request " + std::to_string(action_.requestId) + " of \"" + served_->node + "\"";
  }

  void Rows(std::vector<int32_t> codes) override {
    wire::Reply answer;
    answer.id = action_.requestId;
    answer.codes = std::move(codes);
    Finish(answer);
  }
  void Fail(int32_t status) override {
    wire::Reply answer;
    answer.id = action_.requestId;
    answer.failed = true;
    answer.status = status == DBQ1_OK ? DBQ1_ACTION_FAILED : status;
    Finish(answer);
  }
  // The program's output and exit, before Rows or Fail (local driver).
  void Detail(host::ActionDetail detail) override {
    std::lock_guard<std::mutex> hold(mutex_);
    detail_ = std::move(detail);
  }
  void OnClose(std::function<void()> stop) override {
    {
      std::lock_guard<std::mutex> hold(mutex_);
      if (!ending_) {
        stop_ = std::move(stop);
        return;
      }
    }
    stop();
  }
  // Never closed for the driver: a cancelled request's program is ended
  // through its stop, and the driver still reports its end, which gives
  // its place to the next request.
  bool Closed() const override { return false; }

  // No answer goes out from now on; false when one has already.
  bool Silence() {
    std::lock_guard<std::mutex> hold(mutex_);
    return !std::exchange(silent_, true);
  }
  // Ends the program (SIGTERM, SIGKILL a second later), or keeps it from
  // starting.
  void End() {
    std::function<void()> stop;
    {
      std::lock_guard<std::mutex> hold(mutex_);
      ending_ = true;
      stop = std::move(stop_);
    }
    if (stop) stop();
  }

 private:
  void Finish(wire::Reply answer) {
    bool send;
    {
      std::lock_guard<std::mutex> hold(mutex_);
      if (finished_) return;
      finished_ = true;
      send = !std::exchange(silent_, true);
      stop_ = nullptr;
      if (outputWanted_ > 0) {
        answer.hasDetail = true;
        answer.exitStatus = detail_.exitStatus;
        answer.signal = detail_.signal;
        answer.outputCut = detail_.outputCut || detail_.output.size() > outputWanted_;
        answer.output = detail_.output.substr(0, outputWanted_);
      }
    }
    if (send) agent_->Publish(reply_, wire::EncodeReply(answer));
    agent_->Finished(shared_from_this());
  }

  Agent* const agent_;
  Agent::Served* const served_;
  const std::string reply_;
  const host::Action action_;
  const Clock::time_point deadline_;
  const size_t outputWanted_;
  // Guards the members below: taken by the runner reporting the end, by
  // the thread taking a cancel and by the main thread stopping.
  mutable std::mutex mutex_;
  bool silent_ = false;    // answered, or no answer is to go out
  bool ending_ = false;    // the program is to end
  bool finished_ = false;  // the driver reported the end
  std::function<void()> stop_;
  host::ActionDetail detail_;
};

namespace {

void OnRequest(natsConnection*, natsSubscription*, natsMsg* message, void* closure) {
  auto* served = static_cast<Agent::Served*>(closure);
  served->agent->Handle(*served, message);
  natsMsg_Destroy(message);
}

void OnCancel(natsConnection*, natsSubscription*, natsMsg* message, void* closure) {
  auto* served = static_cast<Agent::Served*>(closure);
  served->agent->HandleCancel(*served, message);
  natsMsg_Destroy(message);
}

void OnConnected(natsConnection*, void*) { Say("connected"); }
void OnDisconnected(natsConnection*, void* closure) {
  if (!static_cast<Agent*>(closure)->stopping())
    Say("lost the connection to the server; reconnecting");
}
void OnReconnected(natsConnection*, void*) { Say("connected again"); }
// The client library gives up a connection (after a failed TLS handshake,
// for one): the agent cannot serve any more and ends with status 1.
void OnClosed(natsConnection* connection, void* closure) {
  if (static_cast<Agent*>(closure)->stopping()) return;
  const char* text = nullptr;
  natsStatus why = natsConnection_GetLastError(connection, &text);
  Say("the client library closed the connection (" +
      (text && *text ? std::string(text) : conn::StatusText(why)) + ")");
  kill(getpid(), SIGUSR1);
}

bool RefusesSubscription(natsStatus status, const char* text) {
  return status == NATS_NOT_PERMITTED && text &&
         std::string_view(text).find("Subscription") != std::string_view::npos;
}

void OnError(natsConnection*, natsSubscription* subscription, natsStatus status, void* closure) {
  // The client library hands this thread its own copy of the error's text;
  // the connection's last error may already be the next one, being written
  // by the library's reader thread.
  const char* text = nats_GetLastError(nullptr);
  std::string where;
  if (subscription) where = std::string(" on ") + natsSubscription_GetSubject(subscription);
  if (status == NATS_SLOW_CONSUMER) {
    Say("requests" + where + " come faster than the agent takes them; some were dropped "
        "(the host hears nothing of those)");
    return;
  }
  Say("server error" + where + ": " + conn::StatusText(status) +
      (text && *text ? std::string(" (") + text + ")" : ""));
  if (RefusesSubscription(status, text)) static_cast<Agent*>(closure)->Refused();
}

}  // namespace

Agent::Agent(std::unique_ptr<host::Driver> driver, int maxRunning, int queue)
    : driver_(std::move(driver)), maxRunning_(maxRunning), queue_(static_cast<size_t>(queue)) {}

int Agent::Connect(const conn::Settings& settings, bool retry) {
  std::string error;
  conn::Callbacks callbacks{OnConnected, OnDisconnected, OnReconnected, OnClosed, OnError, this};
  natsOptions* options = conn::MakeOptions(settings, callbacks, &error);
  if (!options) {
    Say(error);
    return 2;
  }
  if (!retry) natsOptions_SetRetryOnFailedConnect(options, false, nullptr, nullptr);
  natsStatus s = natsConnection_Connect(&connection_, options);
  natsOptions_Destroy(options);
  if (s == NATS_OK) {
    Say("connected");
  } else if (s == NATS_NOT_YET_CONNECTED) {
    Say("cannot reach " + settings.url + " yet; still trying");
  } else {
    const char* text = nullptr;
    natsConnection_GetLastError(connection_, &text);
    Say("cannot connect to " + settings.url + ": " + conn::StatusText(s) +
        (text && *text ? std::string(" (") + text + ")" : ""));
    return 1;
  }
  return 0;
}

bool Agent::Serve(const std::string& node) {
  auto one = std::make_unique<Served>();
  one->agent = this;
  one->node = node;
  one->subject = wire::NodeSubject(node);
  std::string cancels = wire::CancelSubject(node);
  // Agents serving the same node share the work (one queue group); each
  // hears every cancel of the node and acts on its own requests.
  natsStatus s = natsConnection_QueueSubscribe(&one->requests, connection_, one->subject.c_str(),
                                               "qmtaagent", OnRequest, one.get());
  if (s == NATS_OK)
    s = natsConnection_Subscribe(&one->cancels, connection_, cancels.c_str(), OnCancel, one.get());
  if (s != NATS_OK) {
    Say("cannot serve " + node + ": " + conn::StatusText(s));
    natsSubscription_Destroy(one->requests);
    return false;
  }
  // Requests the agent has not taken yet are bounded too; past that the
  // client library drops them and says so (OnError).
  natsSubscription_SetPendingLimits(one->requests, 1024, 32 * 1024 * 1024);
  served_.push_back(std::move(one));
  return true;
}

int Agent::Confirm(bool check) {
  const bool connected = natsConnection_Status(connection_) == NATS_CONN_STATUS_CONNECTED;
  if (connected) {
    // The server answers the round trip after it has taken or refused
    // every subscription before it; a refusal is then the last error.
    natsStatus s = natsConnection_FlushTimeout(connection_, 5000);
    const char* text = nullptr;
    natsStatus last = natsConnection_GetLastError(connection_, &text);
    if (RefusesSubscription(last, text)) {
      Say(std::string("the server refuses this agent a subscription: ") + text);
      return 3;
    }
    if (s != NATS_OK && check) {
      Say("the server did not answer: " + conn::StatusText(s));
      return 1;
    }
  }
  {
    std::lock_guard<std::mutex> hold(mutex_);
    confirmed_ = true;
  }
  for (const auto& one : served_)
    Say(std::string(check ? "check: may serve" : "serving") + " node \"" + one->node + "\" on " +
        one->subject + (connected ? "" : " once connected"));
  return 0;
}

void Agent::Refused() {
  std::lock_guard<std::mutex> hold(mutex_);
  if (confirmed_ && !stopping_) kill(getpid(), SIGUSR2);
}

void Agent::Handle(Served& served, natsMsg* message) {
  const char* replyText = natsMsg_GetReply(message);
  if (!replyText || !*replyText) {
    Say("request without a reply subject on " + served.subject + "; ignored");
    return;
  }
  std::string reply = replyText;
  std::string_view data(natsMsg_GetData(message),
                        static_cast<size_t>(natsMsg_GetDataLength(message)));
  wire::Request request;
  std::string error;
  bool good = wire::DecodeRequest(data, &request, &error);
  if (good && request.node != served.node) {
    good = false;
    error = "the request names another node";
  }
  int64_t timeLeft = wire::kTimeLeftDefault;
  const char* header = nullptr;
  if (good && natsMsgHeader_Get(message, wire::kTimeLeftHeader, &header) == NATS_OK &&
      !wire::DecodeTimeLeft(header ? header : "", &timeLeft)) {
    good = false;
    error = "bad time left";
  }
  size_t outputWanted = 0;  // none asked for: an older host
  if (good && natsMsgHeader_Get(message, wire::kOutputHeader, &header) == NATS_OK &&
      !wire::DecodeOutputWanted(header ? header : "", &outputWanted)) {
    good = false;
    error = "bad output size";
  }
  if (!good) {
    Say("refused a request on " + served.subject + ": " + error);
    Publish(reply, StatusReply(request.id, DBQ1_BAD_PARAMETER));
    return;
  }
  host::Action action;
  action.requestId = request.id;
  action.callType = request.callType;
  action.command = std::move(request.command);
  action.destination = std::move(request.node);
  auto taken = std::make_shared<Request>(this, &served, reply, std::move(action),
                                         Clock::now() + std::chrono::milliseconds(timeLeft),
                                         outputWanted);
  if (timeLeft == 0) {
    Say(taken->Name() + " not started: it came with no time left");
    return;
  }
  enum { kStart, kWait, kFull, kOffline, kTwice } what;
  uint64_t turnedAway = 0;
  {
    std::lock_guard<std::mutex> hold(mutex_);
    if (stopping_) {
      what = kOffline;
    } else if (open_.count(reply)) {
      what = kTwice;
    } else if (served.running < maxRunning_) {
      what = kStart;
      ++served.running;
    } else if (served.waiting.size() < queue_) {
      what = kWait;
      served.waiting.push_back(taken);
    } else {
      what = kFull;
      turnedAway = ++served.turnedAway;
    }
    if (what == kStart || what == kWait) open_.emplace(reply, taken);
  }
  switch (what) {
    case kStart:
      driver_->Start(taken->action(), taken);
      break;
    case kWait:
      break;
    case kFull:
      if (turnedAway == 1)
        Say("node \"" + served.node + "\": " + std::to_string(queue_) +
            " request(s) wait already; answering further ones with status " +
            std::to_string(wire::kStatusQueueFull) + " until there is room");
      Publish(reply, StatusReply(request.id, wire::kStatusQueueFull));
      break;
    case kOffline:
      Publish(reply, StatusReply(request.id, DBQ1_DEST_OFFLINE));
      break;
    case kTwice:
      Say("refused a request on " + served.subject + ": its reply subject is in use");
      Publish(reply, StatusReply(request.id, DBQ1_BAD_PARAMETER));
      break;
  }
}

void Agent::Finished(const std::shared_ptr<Request>& request) {
  Served& served = request->served();
  std::vector<std::shared_ptr<Request>> expired;
  std::shared_ptr<Request> next;
  uint64_t turnedAway = 0;
  {
    std::lock_guard<std::mutex> hold(mutex_);
    auto found = open_.find(request->reply());
    if (found != open_.end() && found->second == request) open_.erase(found);
    const Clock::time_point now = Clock::now();
    while (!stopping_ && !next && !served.waiting.empty()) {
      std::shared_ptr<Request> first = std::move(served.waiting.front());
      served.waiting.pop_front();
      if (first->deadline() > now) {
        next = std::move(first);
      } else {
        open_.erase(first->reply());
        expired.push_back(std::move(first));
      }
    }
    if (!next) --served.running;
    if (served.turnedAway && served.waiting.size() < queue_)
      turnedAway = std::exchange(served.turnedAway, 0);
  }
  for (const auto& one : expired)
    Say(one->Name() + " not started: its time ran out while it waited");
  if (turnedAway)
    Say("node \"" + served.node + "\": room in the queue again; " + std::to_string(turnedAway) +
        " request(s) were answered with status " + std::to_string(wire::kStatusQueueFull));
  if (next) driver_->Start(next->action(), next);
}

void Agent::HandleCancel(Served& served, natsMsg* message) {
  wire::Cancel cancel;
  std::string error;
  if (!wire::DecodeCancel(std::string_view(natsMsg_GetData(message),
                                           static_cast<size_t>(natsMsg_GetDataLength(message))),
                          &cancel, &error)) {
    Say("refused a cancel on " + wire::CancelSubject(served.node) + ": " + error);
    return;
  }
  std::shared_ptr<Request> request;
  bool waited = false;
  {
    std::lock_guard<std::mutex> hold(mutex_);
    auto found = open_.find(cancel.reply);
    // Answered already, or never taken by this agent: nothing to do.
    if (found == open_.end() || found->second->action().requestId != cancel.id ||
        &found->second->served() != &served)
      return;
    request = found->second;
    auto queued = std::find(served.waiting.begin(), served.waiting.end(), request);
    if (queued != served.waiting.end()) {
      served.waiting.erase(queued);
      open_.erase(found);
      waited = true;
    }
  }
  if (waited) {
    Say(request->Name() + " cancelled by the host before it started");
  } else if (request->Silence()) {
    Say(request->Name() + " cancelled by the host; ending its program");
    request->End();
  }
}

void Agent::Publish(const std::string& subject, const std::string& data) {
  natsStatus s = natsConnection_Publish(connection_, subject.c_str(), data.data(),
                                        static_cast<int>(data.size()));
  if (s != NATS_OK) Say("cannot answer on " + subject + ": " + conn::StatusText(s));
}

void Agent::Stop() {
  {
    std::lock_guard<std::mutex> hold(mutex_);
    stopping_.store(true);
  }
  for (auto& one : served_) {
    natsSubscription_Unsubscribe(one->requests);
    natsSubscription_Unsubscribe(one->cancels);
  }
  std::vector<std::shared_ptr<Request>> waiting, running;
  {
    std::lock_guard<std::mutex> hold(mutex_);
    for (auto& one : served_) {
      for (auto& request : one->waiting) {
        open_.erase(request->reply());
        waiting.push_back(std::move(request));
      }
      one->waiting.clear();
    }
    for (const auto& [reply, request] : open_) running.push_back(request);
  }
  for (const auto& request : waiting)
    Publish(request->reply(), StatusReply(request->action().requestId, DBQ1_DEST_OFFLINE));
  for (const auto& request : running) {
    if (request->Silence())
      Publish(request->reply(), StatusReply(request->action().requestId, DBQ1_DEST_OFFLINE));
    request->End();
  }
  natsConnection_FlushTimeout(connection_, 2000);
}

void Agent::Close() {
  // The ended programs are reaped, and the runners gone, within the grace.
  if (!host::WaitForLocalRunners(std::chrono::seconds(5)))
    Say("action programs still running at exit");
  natsConnection_Close(connection_);
  for (auto& one : served_) {
    natsSubscription_Destroy(one->requests);
    natsSubscription_Destroy(one->cancels);
  }
  natsConnection_Destroy(connection_);
  driver_.reset();
  nats_CloseAndWait(2000);
}

}  // namespace qmta::agent
