// The nats driver (see driver.h).
//
// Threads: Start only queues the action; a publisher thread of the driver
// sends it, so the action thread never waits on the network. Replies come
// to one wildcard subscription on an inbox of the driver's own
// ("<inbox>.<token>"), delivered on the client library's thread, which
// completes the open. Every open waiting for its reply is in `pending`
// under its token; whoever takes it out of the map (reply, no responders,
// lost connection, close) is the only one to act on it.
#include "host/drivers/nats/driver.h"

#include <stdio.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "host/common/number.h"
#include "host/common/say.h"
#include "host/drivers/nats/connect.h"
#include "host/drivers/nats/wire.h"
#include "platform/dbq1.h"

namespace qmta::host {
namespace {

// Set when the process exits: the client library then closes every
// connection, which is no loss worth reporting.
std::atomic<bool> exiting{false};

void Say(const std::string& text) { qmta::host::Say("qmtahost: nats: ", text); }

// One destination line's connection. Owned by its NatsDriver; left to the
// client library's callbacks when they may still come after the driver
// has gone (see ~NatsDriver).
struct State {
  natsconn::Settings settings;
  natsConnection* connection = nullptr;
  natsSubscription* replies = nullptr;
  std::string inbox;  // "<inbox prefix>"; replies go to "<inbox>.<token>"

  // Guards the members below: taken by the module's action threads
  // queueing a request (Start) or closing one (Take), by the publisher
  // thread, by the client library's threads delivering a reply or a
  // connection event, and by the thread destroying the driver.
  std::mutex mutex;
  std::condition_variable wake;
  std::map<uint64_t, std::shared_ptr<Completion>> pending;
  struct Outgoing {
    uint64_t token;
    std::string subject;
    std::string data;
  };
  std::deque<Outgoing> queue;
  uint64_t nextToken = 1;
  bool stopping = false;
  bool closed = false;          // the connection's closed callback ran
  bool repliesDone = false;     // the subscription's last callback returned
  std::thread publisher;

  std::shared_ptr<Completion> Take(uint64_t token) {
    std::lock_guard<std::mutex> hold(mutex);
    auto found = pending.find(token);
    if (found == pending.end()) return nullptr;
    auto done = std::move(found->second);
    pending.erase(found);
    return done;
  }

  void Publish() {
    std::unique_lock<std::mutex> hold(mutex);
    for (;;) {
      wake.wait(hold, [this] { return stopping || !queue.empty(); });
      if (stopping) return;
      Outgoing out = std::move(queue.front());
      queue.pop_front();
      if (!pending.count(out.token)) continue;  // closed while it waited
      hold.unlock();
      std::string reply = inbox + "." + std::to_string(out.token);
      natsStatus s = natsConnection_PublishRequest(connection, out.subject.c_str(), reply.c_str(),
                                                   out.data.data(),
                                                   static_cast<int>(out.data.size()));
      if (s != NATS_OK) {
        if (auto done = Take(out.token)) {
          Say("cannot send to " + out.subject + ": " + natsconn::StatusText(s));
          done->Fail(DBQ1_DEST_OFFLINE);
        }
      }
      hold.lock();
    }
  }
};

void OnReply(natsConnection*, natsSubscription*, natsMsg* message, void* closure) {
  auto* state = static_cast<State*>(closure);
  std::string_view subject = natsMsg_GetSubject(message);
  uint64_t token = 0;  // none of ours: tokens start at 1
  ParseNumber(subject.substr(std::min(subject.size(), state->inbox.size() + 1)), &token);
  std::shared_ptr<Completion> done = state->Take(token);
  if (!done) {  // closed already, or not ours: dropped
    natsMsg_Destroy(message);
    return;
  }
  if (natsMsg_IsNoResponders(message)) {
    natsMsg_Destroy(message);
    done->Fail(DBQ1_DEST_OFFLINE);
    return;
  }
  wire::Reply reply;
  std::string error;
  bool good = wire::DecodeReply(
      std::string_view(natsMsg_GetData(message), static_cast<size_t>(natsMsg_GetDataLength(message))),
      &reply, &error);
  natsMsg_Destroy(message);
  if (!good) {
    Say("unreadable reply (" + error + ")");
    done->Fail(DBQ1_ACTION_FAILED);
  } else if (reply.failed) {
    done->Fail(reply.status);
  } else {
    done->Rows(std::move(reply.codes));
  }
}

void OnRepliesDone(void* closure) {
  auto* state = static_cast<State*>(closure);
  std::lock_guard<std::mutex> hold(state->mutex);
  state->repliesDone = true;
  state->wake.notify_all();
}

// The connection is gone: nothing that was sent can be answered on it.
void OnDisconnected(natsConnection*, void* closure) {
  auto* state = static_cast<State*>(closure);
  std::map<uint64_t, std::shared_ptr<Completion>> lost;
  {
    std::lock_guard<std::mutex> hold(state->mutex);
    lost.swap(state->pending);
    // Requests not sent yet stay: they go out once the connection is back.
    for (const auto& out : state->queue) {
      auto found = lost.find(out.token);
      if (found != lost.end()) {
        state->pending.insert(*found);
        lost.erase(found);
      }
    }
  }
  if (exiting && lost.empty()) return;
  Say("lost the connection to " + state->settings.url + (lost.empty() ? "" : "; " +
      std::to_string(lost.size()) + " request(s) reported offline"));
  for (auto& [token, done] : lost) done->Fail(DBQ1_DEST_OFFLINE);
}

void OnReconnected(natsConnection*, void* closure) {
  Say("connected again to " + static_cast<State*>(closure)->settings.url);
}

void OnConnected(natsConnection*, void* closure) {
  Say("connected to " + static_cast<State*>(closure)->settings.url);
}

// Closed by the driver, or given up by the client library (which does so
// after a failed TLS handshake): then the line's nodes stay offline.
void OnClosed(natsConnection* connection, void* closure) {
  auto* state = static_cast<State*>(closure);
  bool asked;
  std::string url;
  {
    std::lock_guard<std::mutex> hold(state->mutex);
    asked = state->stopping;
    url = state->settings.url;
    state->closed = true;  // from here on `state` may be gone
    state->wake.notify_all();
  }
  if (asked || exiting) return;
  const char* text = nullptr;
  natsStatus why = natsConnection_GetLastError(connection, &text);
  Say("the client library closed the connection to " + url + " (" +
      (text && *text ? std::string(text) : natsconn::StatusText(why)) +
      "); its nodes are offline until qmtahost starts again");
}

void OnError(natsConnection* connection, natsSubscription*, natsStatus status, void*) {
  const char* text = nullptr;
  natsConnection_GetLastError(connection, &text);
  Say("server error: " + natsconn::StatusText(status) + (text && *text ? std::string(" (") + text + ")" : ""));
}

class NatsDriver final : public Driver {
 public:
  explicit NatsDriver(std::unique_ptr<State> state) : state_(std::move(state)) {}

  ~NatsDriver() override {
    State& state = *state_;
    {
      std::lock_guard<std::mutex> hold(state.mutex);
      state.stopping = true;
      state.wake.notify_all();
    }
    if (state.publisher.joinable()) state.publisher.join();
    natsSubscription_Unsubscribe(state.replies);
    natsConnection_Close(state.connection);
    bool quiet;
    {
      std::unique_lock<std::mutex> hold(state.mutex);
      quiet = state.wake.wait_for(hold, std::chrono::seconds(5),
                                  [&] { return state.closed && state.repliesDone; });
    }
    natsSubscription_Destroy(state.replies);
    natsConnection_Destroy(state.connection);
    // A callback that never came may still come: the state then stays.
    if (!quiet) state_.release();
  }

  void Start(const Action& action, std::shared_ptr<Completion> done) override {
    State& state = *state_;
    wire::Request request{action.requestId, action.callType, action.destination, action.command};
    uint64_t token;
    {
      std::lock_guard<std::mutex> hold(state.mutex);
      token = state.nextToken++;
      state.pending.emplace(token, done);
      state.queue.push_back({token, wire::NodeSubject(action.destination), wire::EncodeRequest(request)});
      state.wake.notify_all();
    }
    State* raw = &state;
    done->OnClose([raw, token] { raw->Take(token); });
  }

 private:
  std::unique_ptr<State> state_;
};

// The connection settings of a destination line's KEY=VALUE options; false
// with `*reason` set when they are not valid.
bool ReadSettings(const std::vector<std::string>& options, natsconn::Settings* settings,
                  std::string* reason) {
  for (const std::string& option : options) {
    size_t equals = option.find('=');
    if (equals == std::string::npos) {
      *reason = "\"" + option + "\" is not KEY=VALUE";
      return false;
    }
    if (!natsconn::Set(std::string_view(option).substr(0, equals),
                       std::string_view(option).substr(equals + 1), settings, reason))
      return false;
  }
  return natsconn::Check(*settings, reason);
}

std::unique_ptr<Driver> MakeDriver(const std::vector<std::string>& options, std::string* error) {
  auto state = std::make_unique<State>();
  std::string reason;
  if (!ReadSettings(options, &state->settings, &reason)) {
    *error = "nats: " + reason;
    return nullptr;
  }
  state->settings.name = "qmtahost";
  State* raw = state.get();
  natsconn::Callbacks callbacks{OnConnected, OnDisconnected, OnReconnected, OnClosed, OnError,
                                raw};
  natsOptions* clientOptions = natsconn::MakeOptions(state->settings, callbacks, &reason);
  if (!clientOptions) {
    *error = "nats: " + reason;
    return nullptr;
  }
  natsStatus s = natsConnection_Connect(&state->connection, clientOptions);
  natsOptions_Destroy(clientOptions);
  if (s != NATS_OK && s != NATS_NOT_YET_CONNECTED) {
    *error = "nats: cannot connect to " + state->settings.url + ": " + natsconn::StatusText(s);
    natsConnection_Destroy(state->connection);
    return nullptr;
  }
  if (s == NATS_NOT_YET_CONNECTED) Say("cannot reach " + state->settings.url + " yet; still trying");
  natsInbox* inbox = nullptr;
  natsInbox_Create(&inbox);
  state->inbox = inbox;
  natsInbox_Destroy(inbox);
  s = natsConnection_Subscribe(&state->replies, state->connection, (state->inbox + ".*").c_str(),
                               OnReply, raw);
  if (s == NATS_OK) s = natsSubscription_SetOnCompleteCB(state->replies, OnRepliesDone, raw);
  if (s == NATS_OK) s = natsSubscription_SetPendingLimits(state->replies, -1, -1);
  if (s != NATS_OK && natsConnection_IsClosed(state->connection)) {
    // Given up already (OnClosed said why): every request fails to send,
    // as on a connection given up later.
    natsSubscription_Destroy(state->replies);
    state->replies = nullptr;
    state->repliesDone = true;
  } else if (s != NATS_OK) {
    *error = "nats: cannot subscribe to replies: " + natsconn::StatusText(s);
    natsSubscription_Destroy(state->replies);
    natsConnection_Destroy(state->connection);
    // Its callbacks may still run: the state is left to them.
    state.release();
    return nullptr;
  }
  state->publisher = std::thread([raw] { raw->Publish(); });
  return std::make_unique<NatsDriver>(std::move(state));
}

}  // namespace

DriverFactory NatsDriverFactory() {
  static const bool watched = (std::atexit([] { exiting = true; }) == 0);
  (void)watched;
  return [](const std::vector<std::string>& options, std::string* error) {
    std::string reason;
    auto driver = MakeDriver(options, &reason);
    if (!driver && error) *error = reason;
    return driver;
  };
}

}  // namespace qmta::host
