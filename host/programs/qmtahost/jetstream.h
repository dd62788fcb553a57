// Events from a NATS JetStream stream (`qmtahost serve --events-nats URL
// --events-stream NAME --events-subject SUBJECT`).
//
// Every host of a group pulls from one durable consumer of the stream, so
// that each event goes to one host. An event is acknowledged once the
// module's event exit has returned for it and the action threads it started
// have announced their commands on standard output (QMTA041I), never
// before: a host that dies first leaves it unacknowledged, and the server
// hands it to another host when the consumer's ack wait has passed (at
// least once). While an event
// waits in the host (the dispatcher's queue, held back by back-pressure),
// the server is told that it is still in progress, so that it is not
// handed to another host meanwhile. A message that is not a valid event is
// refused, said on standard error and terminated: the server never
// delivers it again. See docs/scale-out.md.
//
// Threads: a fetch thread (connects, creates the stream and consumer when
// missing, fetches small batches, parses and checks them and queues the
// events on the dispatcher) and an ack thread (acknowledges handled events,
// gives back the ones the host dropped, sends the in-progress notices).
// The dispatcher calls back, from its own thread, when an event has been
// handled. Only the ack thread touches a message once it is queued; the
// table of those messages is guarded by mutex_.
#ifndef HOST_PROGRAMS_QMTAHOST_JETSTREAM_H_
#define HOST_PROGRAMS_QMTAHOST_JETSTREAM_H_

#include <stdint.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include <nats/nats.h>

#include "host/drivers/nats/connect.h"

namespace qmta::hostprog {

class Dispatcher;

struct EventsSettings {
  host::natsconn::Settings connection;  // url ("--events-nats") and credentials
  std::string stream;                   // the stream's name
  std::string subject;                  // the subject the events are published on
  std::string consumer = "qmtahost";    // durable consumer shared by the group
  int64_t maxPending = 1000;  // the consumer's limit of unacknowledged events
  int ackWaitSeconds = 30;    // redelivery of an unacknowledged event after this
  bool allowAnyText = false;  // no intake check on event text

  bool enabled() const { return !connection.url.empty(); }
};

// The serve options that configure the intake, without their "--events-"
// prefix: "nats" (the URL), "stream", "subject", "consumer", "max-pending",
// "ack-wait", the connection's credentials under the names the agent takes
// ("user", "password-file", "creds", "tls-ca", "tls-cert", "tls-key") and
// "insecure" (no value).
extern const char* const kEventsOptions[];
bool EventsOptionTakesValue(std::string_view name);
// Takes one; false with `*error` set when the value is not valid.
bool SetEventsOption(std::string_view name, const char* value, EventsSettings* settings,
                     std::string* error);
// Checks that the settings go together: a stream and a subject, and client
// credentials unless insecure (any client of the server could otherwise
// make this host run actions).
bool CheckEventsSettings(const EventsSettings& settings, std::string* error);

// How far the host's action threads have got, for the acknowledgements:
// action threads started so far, and the commands they announced (QMTA041I)
// that the output relay has written to standard output.
struct ActionProgress {
  std::function<int64_t()> started;
  std::function<uint64_t()> announced;
};

class JetStreamIntake {
 public:
  JetStreamIntake() = default;
  JetStreamIntake(const JetStreamIntake&) = delete;
  JetStreamIntake& operator=(const JetStreamIntake&) = delete;
  ~JetStreamIntake();

  // Starts the two threads; the connection is made, and the stream and
  // consumer set up, in the background (retried until it works). False,
  // with `*error` set, when the settings cannot be used (a file missing).
  bool Start(const EventsSettings& settings, Dispatcher* dispatcher, ActionProgress progress,
             std::string* error);
  // Fetches no more events; returns once the fetch thread has ended.
  void StopFetching();
  // After the dispatcher has run or dropped everything it was given:
  // acknowledges the handled events, gives back the dropped ones for
  // redelivery, flushes and closes the connection.
  void Finish();

  uint64_t acknowledged() const { return acknowledged_.load(std::memory_order_relaxed); }

 private:
  using Clock = std::chrono::steady_clock;
  struct Held {
    natsMsg* message = nullptr;
    Clock::time_point touched;  // fetched, or last said to be in progress
  };
  void Fetch();
  bool SetUp();
  bool Pull(int count);
  void TakeBatch(const std::vector<natsMsg*>& messages);
  natsStatus Answer(natsMsg* message, const char* what);
  void Done(uint64_t id, bool handled);
  void Acknowledge();
  void AwaitAnnouncements(Clock::time_point lastHandled);
  void SayOnce(const std::string& text);

  EventsSettings settings_;
  Dispatcher* dispatcher_ = nullptr;
  ActionProgress progress_;
  int64_t unannounced_ = 0;  // ack thread: started threads that never announced
  natsConnection* connection_ = nullptr;
  jsCtx* js_ = nullptr;
  // The inbox where pulled events come, its subscription and the subject
  // of pull requests: fetch thread, then Finish.
  std::string inbox_;
  natsSubscription* subscription_ = nullptr;
  std::string pullSubject_;
  std::atomic<bool> stopFetching_{false};
  std::thread fetcher_;
  std::thread acker_;
  std::string lastSaid_;  // fetch thread: the last trouble said, said once

  std::mutex mutex_;  // guards progressEvery_ and everything down to finishing_
  std::condition_variable ackWork_;  // the ack thread waits here
  std::condition_variable room_;     // the fetch thread waits here for room
  std::condition_variable stopped_;  // the fetch thread's pauses end here
  std::chrono::milliseconds progressEvery_{10000};  // in-progress notices this often
  uint64_t nextId_ = 1;
  std::unordered_map<uint64_t, Held> held_;  // queued on the dispatcher
  std::vector<natsMsg*> handled_, dropped_;  // to acknowledge, to give back
  size_t unsettled_ = 0;                     // fetched and not yet acknowledged
  size_t window_ = 0;          // the most unsettled events the host holds
  bool ackerWaits_ = false;    // the ack thread sleeps on ackWork_
  Clock::time_point nextProgress_;  // the ack thread's next look at held_
  Clock::time_point lastHandled_;   // when the dispatcher last handled an event
  bool finishing_ = false;

  std::atomic<uint64_t> acknowledged_{0};
};

}  // namespace qmta::hostprog

#endif  // HOST_PROGRAMS_QMTAHOST_JETSTREAM_H_
