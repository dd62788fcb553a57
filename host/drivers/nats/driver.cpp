// The nats driver (see driver.h).
//
// Threads: Start only queues the action; a publisher thread of the driver
// sends it (and the cancels of closed requests, and the second tries), so
// the action thread never waits on the network. A request that a lost
// connection failed may still be with an agent: it is cancelled when the
// connection is back. Replies come to one
// wildcard subscription on an inbox of the driver's own
// ("<inbox>.<token>"), delivered on the client library's thread, which
// completes the open. Every open waiting for its reply is in `pending`
// under its token; whoever takes it out of the map (reply, no responders,
// lost connection, close, time run out before sending) is the only one to
// act on it.
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
#include "host/common/text.h"
#include "host/drivers/nats/connect.h"
#include "host/drivers/nats/wire.h"
#include "platform/dbq1.h"

namespace qmta::host {
namespace {

// Set when the process exits: the client library then closes every
// connection, which is no loss worth reporting.
std::atomic<bool> exiting{false};

void Say(const std::string& text) { qmta::host::Say("qmtahost: nats: ", text); }

using Clock = std::chrono::steady_clock;

// The output an agent sends with its answer: what the journal keeps.
constexpr size_t kOutputWanted = 16 * 1024;

// One request, from Start until its answer, its close or a lost
// connection takes it out of `State::pending`.
struct Pending {
  std::shared_ptr<Completion> done;
  uint32_t id = 0;
  std::string node;
  std::string data;  // the encoded request, kept for one more try
  Clock::time_point deadline;
  bool sent = false;     // published, not yet answered
  bool retried = false;  // its one more try after "no responders" is used
  // Never sent to an agent, whatever the host's intake let through: the
  // publisher answers it with status 105.
  bool controlCharacter = false;
};

// A cancel to publish, and until when it matters (the request's deadline:
// no agent starts the request after it).
struct CancelNote {
  std::string subject;
  std::string data;
  Clock::time_point deadline;
};

// Cancels owed after a lost connection are kept up to this many.
constexpr size_t kOwedMax = 65536;

// One destination line's connection. Owned by its NatsDriver; left to the
// client library's callbacks when they may still come after the driver
// has gone (see ~NatsDriver).
struct State {
  natsconn::Settings settings;
  Clock::duration settle = std::chrono::seconds(3);
  natsConnection* connection = nullptr;
  natsSubscription* replies = nullptr;
  std::string inbox;  // "<inbox prefix>"; replies go to "<inbox>.<token>"

  // Guards the members below: taken by the module's action threads
  // queueing a request (Start) or closing one (Close), by the publisher
  // thread, by the client library's threads delivering a reply or a
  // connection event, and by the thread destroying the driver.
  std::mutex mutex;
  std::condition_variable wake;
  std::map<uint64_t, Pending> pending;
  std::deque<uint64_t> queue;                          // to send now
  std::multimap<Clock::time_point, uint64_t> retries;  // to send again then
  std::deque<CancelNote> cancels;  // to send now
  // Cancels for requests that a lost connection failed (answered 2020) or
  // whose cancel it lost, while an agent may still hold them: sent when the
  // connection is back and again at `settledAt` (the agents may not have
  // subscribed yet), each until its request's deadline.
  std::vector<CancelNote> owed;
  Clock::time_point owedAgainAt = Clock::time_point::max();
  // "No responders" before then may mean that the agents have not yet
  // subscribed again after the server came back: such a request is tried
  // once more at that time.
  Clock::time_point settledAt;
  uint64_t nextToken = 1;
  uint64_t refusedReplies = 0;
  bool stopping = false;
  bool closed = false;          // the connection's closed callback ran
  bool repliesDone = false;     // the subscription's last callback returned
  std::thread publisher;

  std::shared_ptr<Completion> Take(uint64_t token) {
    std::lock_guard<std::mutex> hold(mutex);
    auto found = pending.find(token);
    if (found == pending.end()) return nullptr;
    auto done = std::move(found->second.done);
    pending.erase(found);
    return done;
  }

  std::string ReplySubject(uint64_t token) const { return inbox + "." + std::to_string(token); }

  CancelNote CancelFor(uint64_t token, const Pending& request) const {
    return {wire::CancelSubject(request.node), wire::EncodeCancel({request.id, ReplySubject(token)}),
            request.deadline};
  }

  // Queues the owed cancels whose requests may still start or run; called
  // with `mutex` held.
  void SendOwed(Clock::time_point now) {
    std::erase_if(owed, [now](const CancelNote& note) { return note.deadline <= now; });
    cancels.insert(cancels.end(), owed.begin(), owed.end());
    if (!owed.empty()) wake.notify_all();
  }

  // The module closed the request before its answer came: an agent that
  // may have it is told to end it.
  void Close(uint64_t token) {
    std::lock_guard<std::mutex> hold(mutex);
    auto found = pending.find(token);
    if (found == pending.end()) return;
    if (found->second.sent && !stopping) {
      cancels.push_back(CancelFor(token, found->second));
      wake.notify_all();
    }
    pending.erase(found);
  }

  void Publish() {
    std::unique_lock<std::mutex> hold(mutex);
    for (;;) {
      auto due = [this] { return !retries.empty() && retries.begin()->first <= Clock::now(); };
      // A retry added while waiting may fall due before anything wakes
      // the thread: the time to wait is taken again each round.
      while (!stopping && queue.empty() && cancels.empty() && !due() && owedAgainAt > Clock::now()) {
        Clock::time_point until = std::min(owedAgainAt, retries.empty() ? owedAgainAt : retries.begin()->first);
        if (until == Clock::time_point::max())
          wake.wait(hold);
        else
          wake.wait_until(hold, until);
      }
      if (stopping) return;
      if (owedAgainAt <= Clock::now()) {
        owedAgainAt = Clock::time_point::max();
        SendOwed(Clock::now());
      }
      if (!cancels.empty()) {
        CancelNote note = std::move(cancels.front());
        cancels.pop_front();
        hold.unlock();
        // Lost with the connection, the cancel is owed again (see
        // OnDisconnected); until then the agent keeps its own count of the
        // request's time.
        natsConnection_Publish(connection, note.subject.c_str(), note.data.data(),
                               static_cast<int>(note.data.size()));
        hold.lock();
        continue;
      }
      uint64_t token;
      if (!queue.empty()) {
        token = queue.front();
        queue.pop_front();
      } else if (due()) {
        token = retries.begin()->second;
        retries.erase(retries.begin());
      } else {
        continue;
      }
      auto found = pending.find(token);
      if (found == pending.end()) continue;  // closed while it waited
      Pending& request = found->second;
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(request.deadline - Clock::now());
      if (left.count() <= 0) {
        pending.erase(found);  // the module stops waiting now; no one hears an answer
        continue;
      }
      std::string subject = wire::NodeSubject(request.node);
      if (request.controlCharacter) {
        auto done = std::move(request.done);
        const uint32_t id = request.id;
        pending.erase(found);
        hold.unlock();
        Say("refused request " + std::to_string(id) + " for " + subject +
            ": the command holds a control character");
        done->Fail(DBQ1_BAD_PARAMETER);
        hold.lock();
        continue;
      }
      if (natsConnection_Status(connection) != NATS_CONN_STATUS_CONNECTED) {
        auto done = std::move(request.done);
        pending.erase(found);
        hold.unlock();
        Say("cannot send to " + subject + ": not connected to the server");
        done->Fail(DBQ1_DEST_OFFLINE);
        hold.lock();
        continue;
      }
      request.sent = true;
      std::string data = request.data;
      bool timed = request.deadline != Clock::time_point::max();
      hold.unlock();
      natsStatus s = Send(subject, ReplySubject(token), data,
                          timed ? std::min<int64_t>(left.count(), wire::kTimeLeftMax) : -1);
      if (s != NATS_OK) {
        if (auto done = Take(token)) {
          Say("cannot send to " + subject + ": " + natsconn::StatusText(s));
          done->Fail(DBQ1_DEST_OFFLINE);
        }
      }
      hold.lock();
    }
  }

  // Publishes one request with its time left (none when negative).
  natsStatus Send(const std::string& subject, const std::string& reply, const std::string& data,
                  int64_t timeLeftMs) {
    natsMsg* message = nullptr;
    natsStatus s = natsMsg_Create(&message, subject.c_str(), reply.c_str(), data.data(),
                                  static_cast<int>(data.size()));
    if (s == NATS_OK && timeLeftMs >= 0)
      s = natsMsgHeader_Set(message, wire::kTimeLeftHeader, std::to_string(timeLeftMs).c_str());
    // The program's output with the answer, for the journal (version 3).
    if (s == NATS_OK)
      s = natsMsgHeader_Set(message, wire::kOutputHeader, std::to_string(kOutputWanted).c_str());
    if (s == NATS_OK) s = natsConnection_PublishMsg(connection, message);
    natsMsg_Destroy(message);
    return s;
  }
};

void OnReply(natsConnection*, natsSubscription*, natsMsg* message, void* closure) {
  auto* state = static_cast<State*>(closure);
  const std::string subject = natsMsg_GetSubject(message);
  uint64_t token = 0;  // none of ours: tokens start at 1
  ParseNumber(std::string_view(subject).substr(std::min(subject.size(), state->inbox.size() + 1)), &token);
  bool noResponders = natsMsg_IsNoResponders(message);
  wire::Reply reply;
  std::string error;
  bool good = noResponders ||
              wire::DecodeReply(std::string_view(natsMsg_GetData(message),
                                                 static_cast<size_t>(natsMsg_GetDataLength(message))),
                                &reply, &error);
  natsMsg_Destroy(message);
  std::shared_ptr<Completion> done;
  uint32_t id = 0;
  uint64_t refused = 0;
  {
    std::lock_guard<std::mutex> hold(state->mutex);
    auto found = state->pending.find(token);
    if (found == state->pending.end()) return;  // closed already, or not ours: dropped
    Pending& request = found->second;
    id = request.id;
    if (noResponders && !request.retried && Clock::now() < state->settledAt &&
        state->settledAt < request.deadline) {
      request.retried = true;
      request.sent = false;
      state->retries.emplace(state->settledAt, token);
      state->wake.notify_all();
      return;
    }
    if (good && !noResponders && reply.id != id) {
      refused = ++state->refusedReplies;
    } else {
      done = std::move(request.done);
      state->pending.erase(found);
    }
  }
  if (refused) {  // the request goes on waiting for its own answer
    Say("refused a reply on " + subject + " for request " + std::to_string(id) +
        " that names request " + std::to_string(reply.id) + " (" + std::to_string(refused) +
        " refused so far)");
  } else if (noResponders) {
    done->Fail(DBQ1_DEST_OFFLINE);
  } else if (!good) {
    Say("unreadable reply (" + error + ")");
    done->Fail(DBQ1_ACTION_FAILED);
  } else {
    if (reply.hasDetail) {
      ActionDetail detail;
      detail.output = std::move(reply.output);
      detail.outputCut = reply.outputCut;
      detail.exitStatus = reply.exitStatus;
      detail.signal = reply.signal;
      done->Detail(std::move(detail));
    }
    if (reply.failed)
      done->Fail(reply.status);
    else
      done->Rows(std::move(reply.codes));
  }
}

void OnRepliesDone(void* closure) {
  auto* state = static_cast<State*>(closure);
  std::lock_guard<std::mutex> hold(state->mutex);
  state->repliesDone = true;
  state->wake.notify_all();
}

// The connection is gone: nothing that was sent can be answered on it,
// and no request is kept to be sent later. What was sent, and the cancels
// not sent yet, are owed a cancel when the connection is back.
void OnDisconnected(natsConnection*, void* closure) {
  auto* state = static_cast<State*>(closure);
  std::map<uint64_t, Pending> lost;
  {
    std::lock_guard<std::mutex> hold(state->mutex);
    lost.swap(state->pending);
    state->queue.clear();
    state->retries.clear();
    auto& owed = state->owed;
    const Clock::time_point now = Clock::now();
    std::erase_if(owed, [now](const CancelNote& note) { return note.deadline <= now; });
    for (auto& note : state->cancels) owed.push_back(std::move(note));
    state->cancels.clear();
    for (const auto& [token, request] : lost)
      if (request.sent) owed.push_back(state->CancelFor(token, request));
    if (owed.size() > kOwedMax) owed.erase(owed.begin(), owed.end() - kOwedMax);  // the oldest go
    state->owedAgainAt = Clock::time_point::max();
  }
  if (exiting && lost.empty()) return;
  Say("lost the connection to " + state->settings.url + (lost.empty() ? "" : "; " +
      std::to_string(lost.size()) + " request(s) reported offline"));
  for (auto& [token, request] : lost) request.done->Fail(DBQ1_DEST_OFFLINE);
}

// A new connection: the agents may still be on their way back. The owed
// cancels go now and once more when they have had time to subscribe.
void Settle(State* state) {
  std::lock_guard<std::mutex> hold(state->mutex);
  const Clock::time_point now = Clock::now();
  state->settledAt = now + state->settle;
  state->SendOwed(now);
  if (!state->owed.empty()) {
    state->owedAgainAt = state->settledAt;
    state->wake.notify_all();
  }
}

void OnReconnected(natsConnection*, void* closure) {
  Settle(static_cast<State*>(closure));
  Say("connected again to " + static_cast<State*>(closure)->settings.url);
}

void OnConnected(natsConnection*, void* closure) {
  Settle(static_cast<State*>(closure));
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

void OnError(natsConnection*, natsSubscription*, natsStatus status, void*) {
  // This thread's own copy of the error's text (see qmtaagent's OnError).
  const char* text = nats_GetLastError(nullptr);
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
      Pending& pending = state.pending.emplace(token, Pending{done, action.requestId, action.destination,
                                                              wire::EncodeRequest(request), action.deadline})
                             .first->second;
      pending.controlCharacter = HoldsControlCharacter(action.command);
      state.queue.push_back(token);
      state.wake.notify_all();
    }
    State* raw = &state;
    done->OnClose([raw, token] { raw->Close(token); });
  }

 private:
  std::unique_ptr<State> state_;
};

// The settings of a destination line's options (KEY=VALUE, and the word
// insecure); false with `*reason` set when they are not valid.
bool ReadSettings(const std::vector<std::string>& options, State* state, std::string* reason) {
  natsconn::Settings* settings = &state->settings;
  bool settle = false;
  for (const std::string& option : options) {
    size_t equals = option.find('=');
    std::string_view key = std::string_view(option).substr(0, equals);
    std::string_view value =
        equals == std::string::npos ? std::string_view() : std::string_view(option).substr(equals + 1);
    if (option == "insecure" && !settings->insecure) {
      settings->insecure = true;
    } else if (key == "settle" && !settle && equals != std::string::npos) {
      int ms = 0;
      if (!ParseNumber(value, &ms, 0, 60000)) {
        *reason = "bad settle \"" + std::string(value) + "\" (0 to 60000 ms)";
        return false;
      }
      state->settle = std::chrono::milliseconds(ms);
      settle = true;
    } else if (equals == std::string::npos || key == "settle") {
      *reason = "\"" + option + "\" is not KEY=VALUE, or given twice";
      return false;
    } else if (!natsconn::Set(key, value, settings, reason)) {
      return false;
    }
  }
  return natsconn::Check(*settings, reason, "the option insecure");
}

std::unique_ptr<Driver> MakeDriver(const std::vector<std::string>& options, std::string* error) {
  auto state = std::make_unique<State>();
  std::string reason;
  if (!ReadSettings(options, state.get(), &reason)) {
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
  // Nothing waits in the client library to be sent after a reconnection
  // (the least it takes is one message; the publisher sends nothing while
  // the connection is down).
  natsOptions_SetReconnectBufSize(clientOptions, 1);
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
