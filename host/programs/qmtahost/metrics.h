// What `qmtahost serve` counts for its HTTP endpoint GET /metrics, and
// whether it is ready (GET /readyz).
//
// Metrics watches the output relay (operator messages by id, each action
// from its QMTA040I to its outcome, the module's start and its table
// loads) and the dispatcher's intake (lines taken and refused, by source
// and by a fixed set of reason kinds). Render writes those and the figures
// that other parts keep (the dispatcher's counts, the relay's waits, live
// action threads, the query service's requests per stack) in the
// Prometheus text format.
//
// Threads: the relay listener runs on the relay thread and alone touches
// the table of actions in flight; the intake listener runs on any thread
// that queues lines; Render and Ready on any thread. Every count is a
// relaxed atomic.
#ifndef HOST_PROGRAMS_QMTAHOST_METRICS_H_
#define HOST_PROGRAMS_QMTAHOST_METRICS_H_

#include <stdint.h>

#include <array>
#include <atomic>
#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "host/programs/qmtahost/dispatcher.h"
#include "host/programs/qmtahost/outputrelay.h"

namespace qmta::hostprog {

// The kinds of reason a line is refused for; labels stay a fixed set
// whatever the line held.
enum class RefusalKind { kJson, kField, kNul, kTooLong, kText, kNotEvent, kWithBody, kStopping,
                         kOther, kCount };
std::string_view RefusalLabel(RefusalKind kind);
// The kind of a reason as the parser (inputline.cpp), the intake check
// (intake.cpp) and the dispatcher word it.
RefusalKind KindOfRefusal(std::string_view reason);

// Where lines come from: "input" (the input file), "control", "http",
// "jetstream" (--events-nats), "alertmanager" (POST /v1/alertmanager),
// "signal" (SIGHUP's reload), "queued" (dropped from the queue at a stop).
enum class SourceKind { kInput, kControl, kHttp, kJetStream, kAlertmanager, kSignal, kQueued,
                        kOther, kCount };
SourceKind KindOfSource(std::string_view source);

// Back-pressure (--max-actions): how long the dispatcher has been holding
// the event now waiting back because too many actions run, and what it has
// held back so far in all.
struct BackPressure {
  double heldForSeconds = 0;  // 0: not holding back now
  double waitSeconds = 0;
  uint64_t events = 0;
};
BackPressure DispatcherBackPressure(const Dispatcher& dispatcher);

class Metrics {
 public:
  Metrics() = default;
  Metrics(const Metrics&) = delete;
  Metrics& operator=(const Metrics&) = delete;

  // For OutputRelay::AddListener and Dispatcher::SetIntakeListener.
  OutputRelay::Listener RelayListener();
  Dispatcher::IntakeListener IntakeListener();

  // Lines refused outside the dispatcher (an HTTP body refused whole).
  void Refused(SourceKind source, RefusalKind kind, uint64_t lines);
  // Rules as the last checked load counted them; nothing when unknown (a
  // forced reload is not counted).
  void SetRules(std::optional<int64_t> rules);
  // The alerts of Alertmanager notifications, and the fingerprints whose
  // state is kept now.
  void Alerts(uint64_t delivered, uint64_t unchanged, uint64_t refused, size_t states);

  // The module has started and its table is loaded (QMTA093I, or a REFRESH
  // with status 0 since); why not, when it is not.
  bool Ready(std::string* why) const;

  std::string Render(const Dispatcher& dispatcher, const OutputRelay& relay) const;

 private:
  void Message(const OutputRelay::Message& message);
  void Outcome(int kind, std::string_view text, bool always);

  // Operator messages by id ("QMTAnnnX" at nnn, "QMTALnnX" at 1000 + nn),
  // with the severity letter last seen for each.
  static constexpr int kIds = 1100;
  std::array<std::atomic<uint64_t>, kIds> messages_{};
  std::array<std::atomic<char>, kIds> letters_{};

  // Intake, by source and reason kind.
  static constexpr int kSources = static_cast<int>(SourceKind::kCount);
  static constexpr int kKinds = static_cast<int>(RefusalKind::kCount);
  std::array<std::atomic<uint64_t>, kSources> taken_{};
  std::array<std::atomic<uint64_t>, kSources * kKinds> refused_{};

  // Actions: outcomes by kind (completed, offline, no response, error),
  // and the histogram of QMTA040I to the outcome.
  std::array<std::atomic<uint64_t>, 4> outcomes_{};
  static constexpr std::array<double, 11> kBounds = {0.005, 0.01, 0.025, 0.05, 0.1, 0.25,
                                                     0.5,   1,    5,     15,   60};
  std::array<std::atomic<uint64_t>, kBounds.size() + 1> buckets_{};  // not cumulative
  std::atomic<uint64_t> durationNanos_{0};
  // Relay thread only: request id -> when its QMTA040I passed.
  std::map<uint64_t, std::chrono::steady_clock::time_point> inFlight_;

  std::atomic<bool> moduleStarted_{false};  // QMTA093I or QMTA092I seen
  std::atomic<bool> tableLoaded_{false};
  std::atomic<int64_t> rules_{-1};  // -1: unknown
  std::array<std::atomic<uint64_t>, 3> alerts_{};  // delivered, unchanged, refused
  std::atomic<uint64_t> alertStates_{0};
};

}  // namespace qmta::hostprog

#endif  // HOST_PROGRAMS_QMTAHOST_METRICS_H_
