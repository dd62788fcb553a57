// qmtaagent's agent (see agent.h).
#include "host/programs/qmtaagent/agent.h"

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <utility>

#include "host/common/firstanswer.h"
#include "host/common/say.h"
#include "host/drivers/local/local.h"
#include "host/drivers/nats/wire.h"
#include "platform/dbq1.h"

namespace qmta::agent {

namespace conn = host::natsconn;
namespace wire = host::wire;

namespace {

void Say(const std::string& text) { host::Say("qmtaagent: ", text); }

}  // namespace

// One request being run: the local driver's view of it. The first answer
// wins; it is published on the request's reply subject, on the thread that
// gave it (a runner thread of the local driver, or the client library's
// thread for a refusal). Owned by the agent's set of open requests and by
// the local driver while it runs the program.
class Request final : public host::FirstAnswer, public std::enable_shared_from_this<Request> {
 public:
  Request(Agent* agent, std::string reply, uint32_t id)
      : agent_(agent), reply_(std::move(reply)), id_(id) {}
  // The agent stops: answer offline now and end the program.
  void Shutdown() {
    if (Close() != State::kWaiting) return;
    wire::Reply answer;
    answer.id = id_;
    answer.failed = true;
    answer.status = DBQ1_DEST_OFFLINE;
    Send(answer);
  }

 private:
  void Answered() override {
    wire::Reply answer;
    answer.id = id_;
    {
      std::lock_guard<std::mutex> hold(mutex_);
      answer.failed = status_ != DBQ1_OK;
      answer.status = status_;
      answer.codes = rows_;
    }
    Send(answer);
  }
  void Send(const wire::Reply& answer) {
    agent_->Publish(reply_, wire::EncodeReply(answer), shared_from_this());
  }

  Agent* const agent_;
  const std::string reply_;
  const uint32_t id_;
};

// One served node; its address is the closure of its subscription.
struct Agent::Served {
  Agent* agent;
  std::string node;
  std::string subject;
  natsSubscription* subscription = nullptr;
};

namespace {

void OnRequest(natsConnection*, natsSubscription*, natsMsg* message, void* closure) {
  auto* served = static_cast<Agent::Served*>(closure);
  served->agent->Handle(served->node, served->subject, message);
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
void OnError(natsConnection* connection, natsSubscription* subscription, natsStatus status, void*) {
  const char* text = nullptr;
  natsConnection_GetLastError(connection, &text);
  std::string where;
  if (subscription) where = std::string(" on ") + natsSubscription_GetSubject(subscription);
  Say("server error" + where + ": " + conn::StatusText(status) +
      (text && *text ? std::string(" (") + text + ")" : ""));
}

}  // namespace

Agent::Agent(std::unique_ptr<host::Driver> driver) : driver_(std::move(driver)) {}

int Agent::Connect(const conn::Settings& settings) {
  std::string error;
  conn::Callbacks callbacks{OnConnected, OnDisconnected, OnReconnected, OnClosed, OnError, this};
  natsOptions* options = conn::MakeOptions(settings, callbacks, &error);
  if (!options) {
    Say(error);
    return 2;
  }
  natsStatus s = natsConnection_Connect(&connection_, options);
  natsOptions_Destroy(options);
  if (s == NATS_OK) {
    Say("connected");
  } else if (s == NATS_NOT_YET_CONNECTED) {
    Say("cannot reach " + settings.url + " yet; still trying");
  } else {
    Say("cannot connect to " + settings.url + ": " + conn::StatusText(s));
    return 1;
  }
  return 0;
}

bool Agent::Serve(const std::string& node) {
  auto one = std::make_unique<Served>();
  one->agent = this;
  one->node = node;
  one->subject = wire::NodeSubject(node);
  // Agents serving the same node share the work (one queue group).
  natsStatus s = natsConnection_QueueSubscribe(&one->subscription, connection_,
                                               one->subject.c_str(), "qmtaagent", OnRequest,
                                               one.get());
  if (s != NATS_OK) {
    Say("cannot serve " + node + ": " + conn::StatusText(s));
    return false;
  }
  natsSubscription_SetPendingLimits(one->subscription, -1, -1);
  Say("serving node \"" + node + "\" on " + one->subject);
  served_.push_back(std::move(one));
  return true;
}

void Agent::Handle(const std::string& node, const std::string& subject, natsMsg* message) {
  const char* reply = natsMsg_GetReply(message);
  std::string_view data(natsMsg_GetData(message),
                        static_cast<size_t>(natsMsg_GetDataLength(message)));
  wire::Request request;
  std::string error;
  bool good = wire::DecodeRequest(data, &request, &error);
  if (!reply || !*reply) {
    Say("request without a reply subject on " + subject + "; ignored");
    return;
  }
  auto answer = std::make_shared<Request>(this, reply, request.id);
  if (good && request.node != node) {
    good = false;
    error = "the request names another node";
  }
  if (!good) {
    Say("refused a request on " + subject + ": " + error);
    answer->Fail(DBQ1_BAD_PARAMETER);
    return;
  }
  bool refused;
  {
    std::lock_guard<std::mutex> hold(mutex_);
    refused = stopping_.load();
    if (!refused) open_.insert(answer);
  }
  if (refused) {  // answered outside the lock: Publish takes it
    answer->Fail(DBQ1_DEST_OFFLINE);
    return;
  }
  host::Action action;
  action.requestId = request.id;
  action.callType = request.callType;
  action.command = std::move(request.command);
  action.destination = std::move(request.node);
  driver_->Start(action, answer);
}

void Agent::Publish(const std::string& subject, const std::string& data,
                    const std::shared_ptr<Request>& request) {
  natsStatus s = natsConnection_Publish(connection_, subject.c_str(), data.data(),
                                        static_cast<int>(data.size()));
  if (s != NATS_OK) Say("cannot answer on " + subject + ": " + conn::StatusText(s));
  std::lock_guard<std::mutex> hold(mutex_);
  open_.erase(request);
}

void Agent::Stop() {
  {
    std::lock_guard<std::mutex> hold(mutex_);
    stopping_.store(true);
  }
  for (auto& one : served_) natsSubscription_Unsubscribe(one->subscription);
  std::set<std::shared_ptr<Request>> open;
  {
    std::lock_guard<std::mutex> hold(mutex_);
    open = open_;
  }
  for (const auto& request : open) request->Shutdown();
  natsConnection_FlushTimeout(connection_, 2000);
}

void Agent::Close() {
  // The ended programs are reaped, and the runners gone, within the grace.
  if (!host::WaitForLocalRunners(std::chrono::seconds(5)))
    Say("action programs still running at exit");
  natsConnection_Close(connection_);
  for (auto& one : served_) natsSubscription_Destroy(one->subscription);
  natsConnection_Destroy(connection_);
  driver_.reset();
  nats_CloseAndWait(2000);
}

}  // namespace qmta::agent
