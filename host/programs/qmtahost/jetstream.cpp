#include "host/programs/qmtahost/jetstream.h"

#include <algorithm>

#include "host/common/number.h"
#include "host/common/say.h"
#include "host/programs/qmtahost/dispatcher.h"
#include "host/programs/qmtahost/intake.h"

namespace qmta::hostprog {
namespace {

namespace conn = host::natsconn;
using namespace std::chrono_literals;

// A fetch asks for at most this many events, and the host holds at most
// twice as many unacknowledged (fewer when the consumer allows fewer).
constexpr int kBatch = 64;
// How long one fetch waits for events; also how soon a stop is noticed.
constexpr int64_t kFetchWaitMs = 500;
// Time given to the action threads an event started to begin running,
// before the acknowledgement counts them.
constexpr auto kThreadStart = 2ms;

void Say(const std::string& text) { host::Say("qmtahost: events: ", text); }

std::string JsText(natsStatus status, jsErrCode code) {
  std::string text = conn::StatusText(status);
  if (const char* last = nats_GetLastError(nullptr); last != nullptr && *last != '\0')
    text = last;
  if (code != 0) text += " (JetStream error " + std::to_string(static_cast<int>(code)) + ")";
  return text;
}

}  // namespace

const char* const kEventsOptions[] = {"nats",     "stream",   "subject",       "consumer",
                                      "max-pending", "ack-wait", "user",     "password-file",
                                      "creds",    "tls-ca",   "tls-cert",      "tls-key",
                                      "insecure", nullptr};

bool EventsOptionTakesValue(std::string_view name) { return name != "insecure"; }

bool SetEventsOption(std::string_view name, const char* value, EventsSettings* settings,
                     std::string* error) {
  std::string_view text = value ? value : "";
  auto bad = [&](const std::string& why) {
    *error = "--events-" + std::string(name) + ": " + why;
    return false;
  };
  if (name == "nats") return conn::Set("url", text, &settings->connection, error) || bad(*error);
  if (name == "insecure") {
    settings->connection.insecure = true;
    return true;
  }
  if (name == "stream" || name == "subject" || name == "consumer") {
    // Names the server takes: no blanks, no control characters; a stream
    // or consumer name holds no '.', '*' or '>' either.
    bool subject = name == "subject";
    if (text.empty()) return bad("needs a value");
    for (unsigned char c : text)
      if (c <= ' ' || c == 0x7f || (!subject && (c == '.' || c == '*' || c == '>' || c == '/')))
        return bad("\"" + std::string(text) + "\" is not a valid name");
    (name == "stream" ? settings->stream : subject ? settings->subject : settings->consumer) = text;
    return true;
  }
  if (name == "max-pending") {
    if (!host::ParseNumber(text, &settings->maxPending, int64_t{1}, int64_t{1000000}))
      return bad("bad limit \"" + std::string(text) + "\" (1 to 1000000)");
    return true;
  }
  if (name == "ack-wait") {
    if (!host::ParseNumber(text, &settings->ackWaitSeconds, 1, 3600))
      return bad("bad wait \"" + std::string(text) + "\" (1 to 3600 s)");
    return true;
  }
  if (!conn::Set(name, text, &settings->connection, error)) return bad(*error);
  return true;
}

bool CheckEventsSettings(const EventsSettings& settings, std::string* error) {
  if (settings.stream.empty() || settings.subject.empty()) {
    *error = "--events-nats needs --events-stream and --events-subject";
    return false;
  }
  if (!conn::Check(settings.connection, error, "--events-insecure",
                   "any client of the server can make this host run actions")) {
    *error = "--events-nats: " + *error;
    return false;
  }
  return true;
}

JetStreamIntake::~JetStreamIntake() {
  StopFetching();
  Finish();
}

bool JetStreamIntake::Start(const EventsSettings& settings, Dispatcher* dispatcher,
                            ActionProgress progress, std::string* error) {
  settings_ = settings;
  progress_ = std::move(progress);
  settings_.connection.name = "qmtahost events";
  dispatcher_ = dispatcher;
  natsOptions* options = conn::MakeOptions(settings_.connection, {}, error);
  if (options == nullptr) {
    *error = "--events-nats: " + *error;
    return false;
  }
  // The first connection is made in the background when the server cannot
  // be reached yet (MakeOptions retries); the fetch thread waits for it.
  natsStatus s = natsConnection_Connect(&connection_, options);
  natsOptions_Destroy(options);
  if (s != NATS_OK && s != NATS_NOT_YET_CONNECTED) {
    *error = "--events-nats: " + conn::StatusText(s);
    return false;
  }
  fetcher_ = std::thread([this] { Fetch(); });
  acker_ = std::thread([this] { Acknowledge(); });
  return true;
}

void JetStreamIntake::SayOnce(const std::string& text) {
  if (text == lastSaid_) return;
  lastSaid_ = text;
  Say(text);
}

// The stream and the consumer, created when missing, and the pull
// subscription bound to the consumer. False (said once) when not yet.
bool JetStreamIntake::SetUp() {
  if (natsConnection_Status(connection_) != NATS_CONN_STATUS_CONNECTED) {
    SayOnce("waiting for the server at " + settings_.connection.url);
    return false;
  }
  jsErrCode code = static_cast<jsErrCode>(0);
  natsStatus s = NATS_OK;
  if (js_ == nullptr && (s = natsConnection_JetStream(&js_, connection_, nullptr)) != NATS_OK) {
    SayOnce("no JetStream context: " + JsText(s, code));
    return false;
  }
  jsStreamInfo* stream = nullptr;
  s = js_GetStreamInfo(&stream, js_, settings_.stream.c_str(), nullptr, &code);
  if (s == NATS_NOT_FOUND) {
    // A work queue: an event leaves the stream once a host acknowledged it.
    jsStreamConfig config;
    jsStreamConfig_Init(&config);
    config.Name = settings_.stream.c_str();
    const char* subjects[] = {settings_.subject.c_str()};
    config.Subjects = subjects;
    config.SubjectsLen = 1;
    config.Retention = js_WorkQueuePolicy;
    config.Storage = js_FileStorage;
    s = js_AddStream(&stream, js_, &config, nullptr, &code);
    if (s == NATS_OK) Say("created stream \"" + settings_.stream + "\" for " + settings_.subject);
  }
  jsStreamInfo_Destroy(stream);
  if (s != NATS_OK) {
    SayOnce("stream \"" + settings_.stream + "\": " + JsText(s, code));
    return false;
  }
  jsConsumerInfo* consumer = nullptr;
  s = js_GetConsumerInfo(&consumer, js_, settings_.stream.c_str(), settings_.consumer.c_str(),
                         nullptr, &code);
  if (s == NATS_NOT_FOUND) {
    jsConsumerConfig config;
    jsConsumerConfig_Init(&config);
    config.Durable = settings_.consumer.c_str();
    config.AckPolicy = js_AckExplicit;
    config.AckWait = std::chrono::nanoseconds(std::chrono::seconds(settings_.ackWaitSeconds)).count();
    config.MaxAckPending = settings_.maxPending;
    config.FilterSubject = settings_.subject.c_str();
    config.DeliverPolicy = js_DeliverAll;
    s = js_AddConsumer(&consumer, js_, settings_.stream.c_str(), &config, nullptr, &code);
  }
  if (s != NATS_OK) {
    SayOnce("consumer \"" + settings_.consumer + "\": " + JsText(s, code));
    return false;
  }
  // A consumer made before keeps its own settings; the host follows them.
  const int64_t ackWaitNs = consumer->Config->AckWait;
  const int64_t maxPending = consumer->Config->MaxAckPending;
  jsConsumerInfo_Destroy(consumer);
  // Pull requests go to the consumer's "next messages" subject and name an
  // inbox of the host's own, where the events (and the server's notes on
  // each request) come back.
  char* inbox = nullptr;
  if ((s = natsInbox_Create(&inbox)) == NATS_OK) {
    inbox_ = inbox;
    natsInbox_Destroy(inbox);
    s = natsConnection_SubscribeSync(&subscription_, connection_, inbox_.c_str());
  }
  if (s != NATS_OK) {
    SayOnce("cannot subscribe to an inbox: " + conn::StatusText(s));
    return false;
  }
  natsSubscription_SetPendingLimits(subscription_, -1, -1);
  pullSubject_ = "$JS.API.CONSUMER.MSG.NEXT." + settings_.stream + "." + settings_.consumer;
  const auto ackWait = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::nanoseconds(ackWaitNs));
  {
    std::lock_guard<std::mutex> hold(mutex_);
    progressEvery_ = std::max<std::chrono::milliseconds>(ackWait / 3, 100ms);
    window_ = static_cast<size_t>(std::clamp<int64_t>(maxPending, 1, 2 * kBatch));
  }
  lastSaid_.clear();
  Say("taking events from stream \"" + settings_.stream + "\", consumer \"" +
      settings_.consumer + "\" (ack wait " + std::to_string(ackWait.count()) +
      " ms, at most " + std::to_string(maxPending) + " unacknowledged)");
  return true;
}

void JetStreamIntake::Fetch() {
  while (!stopFetching_.load()) {
    if (subscription_ == nullptr && !SetUp()) {
      std::unique_lock<std::mutex> hold(mutex_);
      stopped_.wait_for(hold, 1s, [&] { return stopFetching_.load(); });
      continue;
    }
    int room;
    {
      // Fetch when at least half a batch fits: the events already here keep
      // the dispatcher busy meanwhile.
      std::unique_lock<std::mutex> hold(mutex_);
      const size_t want = std::min(window_, static_cast<size_t>(kBatch / 2));
      room_.wait(hold, [&] {
        return (unsettled_ < window_ && window_ - unsettled_ >= want) || stopFetching_.load();
      });
      if (stopFetching_.load()) break;
      room = static_cast<int>(std::min(window_ - unsettled_, static_cast<size_t>(kBatch)));
    }
    if (!Pull(room)) {
      std::unique_lock<std::mutex> hold(mutex_);
      stopped_.wait_for(hold, 500ms, [&] { return stopFetching_.load(); });
    }
  }
}

// One pull request for at most `count` events, waiting at most
// kFetchWaitMs for them; the events are queued as they come, a burst at a
// time. False (said once) when the request could not be sent.
bool JetStreamIntake::Pull(int count) {
  const std::string request = "{\"batch\":" + std::to_string(count) + ",\"expires\":" +
                              std::to_string(kFetchWaitMs * 1000000) + "}";
  natsStatus s = natsConnection_PublishRequestString(connection_, pullSubject_.c_str(),
                                                     inbox_.c_str(), request.c_str());
  if (s != NATS_OK) {
    SayOnce("cannot ask for events: " + conn::StatusText(s));
    return false;
  }
  lastSaid_.clear();
  // The request ends with its last event, or with the server's note that
  // it expired (408) or cannot be served now (404, 409); a note that got
  // lost ends it after a margin. An event of an earlier request that comes
  // late is taken all the same.
  const auto end = Clock::now() + std::chrono::milliseconds(kFetchWaitMs + 250);
  std::vector<natsMsg*> events;
  for (int taken = 0; taken < count;) {
    // Wait for the next message, then take those already here with it.
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    int here = 1;
    natsSubscription_GetPending(subscription_, &here, nullptr);
    bool over = left.count() <= 0 && here == 0;
    for (int i = 0; !over && i < std::max(here, 1) && taken < count; ++i) {
      natsMsg* message = nullptr;
      if (natsSubscription_NextMsg(&message, subscription_, std::max<int64_t>(left.count(), 1)) !=
          NATS_OK) {
        over = true;
        break;
      }
      const char* reply = natsMsg_GetReply(message);
      if (reply != nullptr && std::string_view(reply).starts_with("$JS.ACK.")) {
        events.push_back(message);
        ++taken;
        continue;
      }
      const char* status = nullptr;
      over = natsMsgHeader_Get(message, "Status", &status) == NATS_OK && status != nullptr &&
             std::string_view(status) != "100";  // 100: a heartbeat
      natsMsg_Destroy(message);
    }
    if (!events.empty()) TakeBatch(events);
    events.clear();
    if (over) break;
  }
  return true;
}

// Parses and checks each message; queues the events, terminates the rest.
void JetStreamIntake::TakeBatch(const std::vector<natsMsg*>& messages) {
  std::vector<Dispatcher::Line> lines;
  lines.reserve(messages.size());
  for (natsMsg* message : messages) {
    std::string_view data(natsMsg_GetData(message),
                          static_cast<size_t>(natsMsg_GetDataLength(message)));
    while (!data.empty() && (data.back() == '\n' || data.back() == '\r')) data.remove_suffix(1);
    Dispatcher::Line line;
    line.line = ParseInputLine(data);
    std::string refused;
    if (line.line.kind == InputLine::Kind::kError)
      refused = line.line.text;
    else if (line.line.kind != InputLine::Kind::kEvent)
      refused = "not an event (only events are taken from the stream)";
    else if (!settings_.allowAnyText)
      refused = CheckEventText(line.line.event);
    jsMsgMetaData* meta = nullptr;
    uint64_t sequence = 0;
    if (natsMsg_GetMetaData(&meta, message) == NATS_OK) {
      sequence = meta->Sequence.Stream;
      jsMsgMetaData_Destroy(meta);
    }
    if (!refused.empty()) {
      // Never delivered again: it would be refused again.
      natsStatus s = Answer(message, "+TERM");
      Say("message " + std::to_string(sequence) + " refused: " + refused +
          (s == NATS_OK ? "; terminated" : "; not terminated: " + conn::StatusText(s)));
      natsMsg_Destroy(message);
      continue;
    }
    uint64_t id;
    {
      std::lock_guard<std::mutex> hold(mutex_);
      id = nextId_++;
      held_[id] = Held{message, Clock::now()};
      ++unsettled_;
    }
    line.number = static_cast<long>(sequence);
    line.done = [this, id](bool handled) { Done(id, handled); };
    lines.push_back(std::move(line));
  }
  if (!lines.empty()) dispatcher_->SubmitLines(std::move(lines), "events: message");
}

// Acknowledges (+ACK), gives back (-NAK), terminates (+TERM) or says in
// progress (+WPI): a message to the event's reply subject.
natsStatus JetStreamIntake::Answer(natsMsg* message, const char* what) {
  return natsConnection_PublishString(connection_, natsMsg_GetReply(message), what);
}

// The dispatcher has handled (or dropped) event `id`.
void JetStreamIntake::Done(uint64_t id, bool handled) {
  std::lock_guard<std::mutex> hold(mutex_);
  auto found = held_.find(id);
  if (found == held_.end()) return;
  (handled ? handled_ : dropped_).push_back(found->second.message);
  held_.erase(found);
  if (handled) lastHandled_ = Clock::now();
  // Woken only when asleep: a busy ack thread takes what came meanwhile.
  if (ackerWaits_) ackWork_.notify_one();
}

void JetStreamIntake::Acknowledge() {
  std::vector<natsMsg*> handled, dropped;
  std::unique_lock<std::mutex> hold(mutex_);
  for (;;) {
    ackerWaits_ = true;
    ackWork_.wait_for(hold, progressEvery_ / 2,
                      [&] { return !handled_.empty() || !dropped_.empty() || finishing_; });
    ackerWaits_ = false;
    handled.swap(handled_);
    dropped.swap(dropped_);
    // Events that still wait in the host: the server is told they are in
    // progress, which restarts their ack wait. Under the lock, so that the
    // dispatcher's Done never moves a message while it is being used.
    const auto now = Clock::now();
    if (now >= nextProgress_) {
      nextProgress_ = now + progressEvery_ / 2;
      for (auto& [id, held] : held_) {
        if (now - held.touched < progressEvery_) continue;
        Answer(held.message, "+WPI");
        held.touched = now;
      }
    }
    if (handled.empty() && dropped.empty()) {
      if (finishing_ && held_.empty()) return;
      continue;
    }
    const Clock::time_point lastHandled = lastHandled_;
    hold.unlock();
    if (!handled.empty()) AwaitAnnouncements(lastHandled);
    for (natsMsg* message : handled) {
      if (Answer(message, "+ACK") == NATS_OK)
        acknowledged_.fetch_add(1, std::memory_order_relaxed);
      natsMsg_Destroy(message);
    }
    // Given back at once: another host takes them without waiting for the
    // ack wait.
    for (natsMsg* message : dropped) {
      Answer(message, "-NAK");
      natsMsg_Destroy(message);
    }
    const size_t settled = handled.size() + dropped.size();
    handled.clear();
    dropped.clear();
    hold.lock();
    unsettled_ -= settled;
    room_.notify_one();
  }
}

// The event exit starts an action thread per matching rule and returns;
// the thread announces its command (QMTA041I) a moment later. An event is
// acknowledged only once that line is on standard output, so that a host
// that dies leaves no acknowledged event whose actions never showed: the
// threads started so far (given a moment to begin after the last event)
// must all have announced. A thread that ends without announcing (a
// failure the module reports otherwise) would hold every later round up:
// after a while it is counted as such and no longer waited for.
void JetStreamIntake::AwaitAnnouncements(Clock::time_point lastHandled) {
  if (!progress_.started || !progress_.announced) return;
  std::this_thread::sleep_until(lastHandled + kThreadStart);
  const int64_t started = progress_.started() - unannounced_;
  const auto limit = Clock::now() + 2s;
  for (;;) {
    const int64_t short_ = started - static_cast<int64_t>(progress_.announced());
    if (short_ <= 0) return;
    if (Clock::now() > limit) {
      unannounced_ += short_;
      Say(std::to_string(short_) + " action threads have not announced their command after 2 s; "
          "acknowledgements no longer wait for them");
      return;
    }
    std::this_thread::sleep_for(200us);
  }
}

void JetStreamIntake::StopFetching() {
  {
    std::lock_guard<std::mutex> hold(mutex_);
    stopFetching_ = true;
    room_.notify_all();
    stopped_.notify_all();
  }
  if (fetcher_.joinable()) fetcher_.join();
}

void JetStreamIntake::Finish() {
  if (!acker_.joinable() && connection_ == nullptr) return;
  {
    std::lock_guard<std::mutex> hold(mutex_);
    finishing_ = true;
    // Anything the dispatcher never called back for is given back.
    for (auto& [id, held] : held_) dropped_.push_back(held.message);
    held_.clear();
    ackWork_.notify_one();
  }
  if (acker_.joinable()) acker_.join();
  if (connection_ != nullptr) natsConnection_FlushTimeout(connection_, 2000);
  natsSubscription_Unsubscribe(subscription_);
  natsSubscription_Destroy(subscription_);
  subscription_ = nullptr;
  jsCtx_Destroy(js_);
  js_ = nullptr;
  natsConnection_Destroy(connection_);
  connection_ = nullptr;
}

}  // namespace qmta::hostprog
