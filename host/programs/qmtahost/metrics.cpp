#include "host/programs/qmtahost/metrics.h"

#include <stdio.h>

#include <cmath>

#include "host/programs/qmtahost/journal.h"
#include "host/services/control.h"

namespace qmta::hostprog {
namespace {

using Clock = std::chrono::steady_clock;

// Actions whose outcome never came (an error message carries no request
// id) are forgotten after this long, or when this many are waiting.
constexpr auto kForgetAfter = std::chrono::minutes(5);
constexpr size_t kInFlightMax = 1 << 16;

enum Outcome { kCompleted, kOffline, kNoResponse, kError };
constexpr std::string_view kOutcomeLabels[] = {"completed", "offline", "no_response", "error"};
constexpr std::string_view kSourceLabels[] = {"input",  "control", "http",  "jetstream",
                                              "alertmanager", "signal", "queued", "other"};
constexpr std::string_view kAlertLabels[] = {"delivered", "unchanged", "refused"};
constexpr std::string_view kStackLabels[] = {"VX", "RM", "SNMP"};

// "QMTAnnnX" -> nnn, "QMTALnnX" -> 1000 + nn; -1 for anything else.
int IdIndex(std::string_view id) {
  if (id.size() != 8) return -1;
  auto digit = [&](size_t i) { return id[i] >= '0' && id[i] <= '9' ? id[i] - '0' : -1; };
  if (id[4] == 'L') {
    if (digit(5) < 0 || digit(6) < 0) return -1;
    return 1000 + digit(5) * 10 + digit(6);
  }
  if (digit(4) < 0 || digit(5) < 0 || digit(6) < 0) return -1;
  return digit(4) * 100 + digit(5) * 10 + digit(6);
}

// The number after the last `key` in `text`, or nothing.
std::optional<uint64_t> NumberAfter(std::string_view text, std::string_view key) {
  size_t at = text.rfind(key);
  if (at == std::string_view::npos) return std::nullopt;
  at += key.size();
  bool negative = at < text.size() && text[at] == '-';
  if (negative) ++at;
  uint64_t number = 0;
  size_t digits = 0;
  for (; at < text.size() && text[at] >= '0' && text[at] <= '9' && digits < 19; ++at, ++digits)
    number = number * 10 + static_cast<uint64_t>(text[at] - '0');
  if (digits == 0) return std::nullopt;
  return negative ? (number == 0 ? 0 : UINT64_MAX) : number;
}

bool Contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

// Whole numbers (counts) in full, others with nine significant digits.
std::string Number(double value) {
  char text[32];
  if (value == std::floor(value) && std::fabs(value) < 1e15)
    snprintf(text, sizeof text, "%.0f", value);
  else
    snprintf(text, sizeof text, "%.9g", value);
  return text;
}

// One metric's HELP and TYPE lines.
void Head(std::string* out, std::string_view name, std::string_view type, std::string_view help) {
  out->append("# HELP ").append(name).append(" ").append(help).append("\n");
  out->append("# TYPE ").append(name).append(" ").append(type).append("\n");
}

void Sample(std::string* out, std::string_view name, std::string_view labels, double value) {
  out->append(name);
  if (!labels.empty()) out->append("{").append(labels).append("}");
  out->append(" ").append(Number(value)).append("\n");
}

}  // namespace

std::string_view RefusalLabel(RefusalKind kind) {
  static constexpr std::string_view kLabels[] = {"json",      "field",     "nul",
                                                 "too_long",  "text",      "not_event",
                                                 "with_body", "stopping",  "other"};
  return kLabels[static_cast<int>(kind)];
}

RefusalKind KindOfRefusal(std::string_view reason) {
  if (reason.starts_with("bad JSON")) return RefusalKind::kJson;
  if (reason == "the host is stopping") return RefusalKind::kStopping;
  if (Contains(reason, "NUL")) return RefusalKind::kNul;
  if (Contains(reason, "too long")) return RefusalKind::kTooLong;
  if (reason.ends_with(" holds a double quote") || reason.ends_with(" holds a control character") ||
      reason.ends_with(" is not valid UTF-8"))
    return RefusalKind::kText;
  if (reason.starts_with("missing ") || reason.starts_with("unknown field ") ||
      Contains(reason, " must be ") || Contains(reason, "out of 32-bit range") ||
      Contains(reason, " takes no "))
    return RefusalKind::kField;
  return RefusalKind::kOther;
}

SourceKind KindOfSource(std::string_view source) {
  if (source.starts_with("line")) return SourceKind::kInput;
  if (source == "control") return SourceKind::kControl;
  if (source.starts_with("http")) return SourceKind::kHttp;
  if (source.starts_with("events")) return SourceKind::kJetStream;
  if (source.starts_with("alertmanager")) return SourceKind::kAlertmanager;
  if (source == "SIGHUP") return SourceKind::kSignal;
  if (source == "queued") return SourceKind::kQueued;
  return SourceKind::kOther;
}

BackPressure DispatcherBackPressure(const Dispatcher& dispatcher) {
  BackPressure pressure;
  pressure.heldForSeconds = std::chrono::duration<double>(dispatcher.HeldBackFor()).count();
  const DispatchCounts& counts = dispatcher.counts();
  pressure.waitSeconds = static_cast<double>(counts.heldBackNanos.load(std::memory_order_relaxed)) / 1e9;
  pressure.events = counts.heldBack.load(std::memory_order_relaxed);
  return pressure;
}

OutputRelay::Listener Metrics::RelayListener() {
  return {[this](const OutputRelay::Message& message) { Message(message); }, {}};
}

Dispatcher::IntakeListener Metrics::IntakeListener() {
  Dispatcher::IntakeListener listener;
  listener.taken = [this](std::string_view source, uint64_t events) {
    taken_[static_cast<int>(KindOfSource(source))].fetch_add(events, std::memory_order_relaxed);
  };
  listener.refused = [this](std::string_view source, std::string_view reason, uint64_t lines) {
    Refused(KindOfSource(source), KindOfRefusal(reason), lines);
  };
  return listener;
}

void Metrics::Refused(SourceKind source, RefusalKind kind, uint64_t lines) {
  refused_[static_cast<int>(source) * kKinds + static_cast<int>(kind)].fetch_add(
      lines, std::memory_order_relaxed);
}

void Metrics::SetRules(std::optional<int64_t> rules) {
  rules_.store(rules ? *rules : -1, std::memory_order_relaxed);
}

void Metrics::Alerts(uint64_t delivered, uint64_t unchanged, uint64_t refused, size_t states) {
  alerts_[0].fetch_add(delivered, std::memory_order_relaxed);
  alerts_[1].fetch_add(unchanged, std::memory_order_relaxed);
  alerts_[2].fetch_add(refused, std::memory_order_relaxed);
  alertStates_.store(states, std::memory_order_relaxed);
}

bool Metrics::Ready(std::string* why) const {
  if (!moduleStarted_.load(std::memory_order_relaxed)) {
    *why = "the module has not started";
    return false;
  }
  if (!tableLoaded_.load(std::memory_order_relaxed)) {
    *why = "no rule table is loaded";
    return false;
  }
  return true;
}

void Metrics::Message(const OutputRelay::Message& message) {
  int index = IdIndex(message.id);
  if (index < 0) return;
  messages_[index].fetch_add(1, std::memory_order_relaxed);
  letters_[index].store(message.id[7], std::memory_order_relaxed);
  switch (index) {
    case 40: {  // ACTION STARTED ... REQUESTID=n
      std::optional<uint64_t> request = NumberAfter(message.text, "REQUESTID=");
      if (!request) return;
      const Clock::time_point now = Clock::now();
      while (!inFlight_.empty() && (inFlight_.size() >= kInFlightMax ||
                                    now - inFlight_.begin()->second > kForgetAfter))
        inFlight_.erase(inFlight_.begin());
      inFlight_[*request] = now;
      return;
    }
    case 50: Outcome(kCompleted, message.text, false); return;  // one per row
    case 51: Outcome(kOffline, message.text, true); return;
    case 42: Outcome(kNoResponse, message.text, true); return;
    case 30:  // an error of the query service: no request id
    case 2:   // an action thread that could not start
      outcomes_[kError].fetch_add(1, std::memory_order_relaxed);
      return;
    case 93:  // ACTION ENVIRONMENT INITIALIZE: started, table loaded
      moduleStarted_.store(true, std::memory_order_relaxed);
      tableLoaded_.store(true, std::memory_order_relaxed);
      return;
    case 92:  // ACTIONS HAVE BEEN DISABLED: started, but no table
      moduleStarted_.store(true, std::memory_order_relaxed);
      tableLoaded_.store(false, std::memory_order_relaxed);
      return;
    case 90:  // QMTASITR REFRESHED.  STATUS=n
      tableLoaded_.store(NumberAfter(message.text, "STATUS=") == uint64_t{0},
                         std::memory_order_relaxed);
      return;
    default:
      return;
  }
}

// The outcome of the action named by the message's REQUESTID: timed from
// its QMTA040I when that is still in flight. A completion prints one
// message per row, so only the first of them counts (`always` false).
void Metrics::Outcome(int kind, std::string_view text, bool always) {
  std::optional<uint64_t> request = NumberAfter(text, "REQUESTID=");
  auto found = request ? inFlight_.find(*request) : inFlight_.end();
  if (found == inFlight_.end()) {
    if (always) outcomes_[kind].fetch_add(1, std::memory_order_relaxed);
    return;
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - found->second).count();
  inFlight_.erase(found);
  outcomes_[kind].fetch_add(1, std::memory_order_relaxed);
  size_t bucket = 0;
  while (bucket < kBounds.size() && seconds > kBounds[bucket]) ++bucket;
  buckets_[bucket].fetch_add(1, std::memory_order_relaxed);
  durationNanos_.fetch_add(static_cast<uint64_t>(seconds * 1e9), std::memory_order_relaxed);
}

std::string Metrics::Render(const Dispatcher& dispatcher, const OutputRelay& relay) const {
  auto load = [](const std::atomic<uint64_t>& value) {
    return static_cast<double>(value.load(std::memory_order_relaxed));
  };
  std::string out;
  out.reserve(8192);

  Head(&out, "qmta_events_taken_total", "counter",
       "Event lines taken at intake (queued for the module), by source.");
  for (int source = 0; source < kSources; ++source)
    if (source != static_cast<int>(SourceKind::kQueued))
      Sample(&out, "qmta_events_taken_total",
             "source=\"" + std::string(kSourceLabels[source]) + "\"", load(taken_[source]));
  Head(&out, "qmta_events_refused_total", "counter",
       "Lines refused at intake, by source and kind of reason.");
  for (int source = 0; source < kSources; ++source) {
    for (int kind = 0; kind < kKinds; ++kind) {
      double value = load(refused_[source * kKinds + kind]);
      if (value == 0) continue;
      Sample(&out, "qmta_events_refused_total",
             "source=\"" + std::string(kSourceLabels[source]) + "\",reason=\"" +
                 std::string(RefusalLabel(static_cast<RefusalKind>(kind))) + "\"",
             value);
    }
  }
  Head(&out, "qmta_events_delivered_total", "counter", "Events handed to the module's event exit.");
  Sample(&out, "qmta_events_delivered_total", "", load(dispatcher.counts().events));

  Head(&out, "qmta_alerts_total", "counter",
       "Alerts of Alertmanager notifications: delivered (a change of state), unchanged (a re-send), "
       "refused.");
  for (int result = 0; result < 3; ++result)
    Sample(&out, "qmta_alerts_total", "result=\"" + std::string(kAlertLabels[result]) + "\"",
           load(alerts_[result]));
  Head(&out, "qmta_alert_states", "gauge", "Alert fingerprints whose last state is kept.");
  Sample(&out, "qmta_alert_states", "", load(alertStates_));

  Head(&out, "qmta_actions_started_total", "counter", "Actions started (QMTA040I).");
  Sample(&out, "qmta_actions_started_total", "", load(messages_[40]));
  Head(&out, "qmta_action_outcomes_total", "counter",
       "Action outcomes: completed (QMTA050I), offline (QMTA051W), no response (QMTA042E), "
       "error (QMTA030E, QMTA002E).");
  for (int kind = kCompleted; kind <= kError; ++kind)
    Sample(&out, "qmta_action_outcomes_total",
           "outcome=\"" + std::string(kOutcomeLabels[kind]) + "\"", load(outcomes_[kind]));
  Head(&out, "qmta_action_duration_seconds", "histogram",
       "Time from an action's QMTA040I to its outcome (errors are not timed).");
  double cumulative = 0;
  for (size_t bucket = 0; bucket < buckets_.size(); ++bucket) {
    cumulative += load(buckets_[bucket]);
    std::string le = bucket < kBounds.size() ? Number(kBounds[bucket]) : "+Inf";
    Sample(&out, "qmta_action_duration_seconds_bucket", "le=\"" + le + "\"", cumulative);
  }
  Sample(&out, "qmta_action_duration_seconds_sum", "",
         load(durationNanos_) / 1e9);
  Sample(&out, "qmta_action_duration_seconds_count", "", cumulative);
  Head(&out, "qmta_actions_live", "gauge", "Action threads running now.");
  Sample(&out, "qmta_actions_live", "", static_cast<double>(host::LiveActions()));

  Head(&out, "qmta_actions_live_peak", "gauge", "The most action threads live at once so far.");
  Sample(&out, "qmta_actions_live_peak", "", static_cast<double>(host::PeakLiveActions()));

  const BackPressure pressure = DispatcherBackPressure(dispatcher);
  Head(&out, "qmta_backpressure_events_total", "counter",
       "Events the dispatcher held back because too many actions ran (--max-actions).");
  Sample(&out, "qmta_backpressure_events_total", "", static_cast<double>(pressure.events));
  Head(&out, "qmta_backpressure_wait_seconds_total", "counter",
       "Time the dispatcher has held events back, in all.");
  Sample(&out, "qmta_backpressure_wait_seconds_total", "", pressure.waitSeconds);
  Head(&out, "qmta_backpressure_held_seconds", "gauge",
       "How long the event now held back has waited (0: none is).");
  Sample(&out, "qmta_backpressure_held_seconds", "", pressure.heldForSeconds);

  const DispatchCounts& counts = dispatcher.counts();
  Head(&out, "qmta_reloads_total", "counter", "Reloads of the rule file, done and refused.");
  Sample(&out, "qmta_reloads_total", "result=\"done\"", load(counts.reloads));
  Sample(&out, "qmta_reloads_total", "result=\"refused\"", load(counts.reloadsRefused));
  int64_t rules = rules_.load(std::memory_order_relaxed);
  if (rules >= 0) {
    Head(&out, "qmta_rules_loaded", "gauge", "Rules in the table, as the last checked load counted them.");
    Sample(&out, "qmta_rules_loaded", "", static_cast<double>(rules));
  }

  Head(&out, "qmta_stack_requests", "gauge",
       "Prepared requests of each stack: busy (held by an action) and resting.");
  for (int stack = 0; stack < 3; ++stack) {
    host::PlanRequests requests = host::RequestsOfPlan(stack);
    std::string label = "stack=\"" + std::string(kStackLabels[stack]) + "\",state=";
    Sample(&out, "qmta_stack_requests", label + "\"busy\"", static_cast<double>(requests.busy));
    Sample(&out, "qmta_stack_requests", label + "\"resting\"",
           static_cast<double>(requests.resting));
  }

  Head(&out, "qmta_operator_messages_total", "counter", "Operator messages, by id.");
  for (int index = 0; index < kIds; ++index) {
    double value = load(messages_[index]);
    if (value == 0) continue;
    char id[16];
    char letter = letters_[index].load(std::memory_order_relaxed);
    if (index >= 1000)
      snprintf(id, sizeof id, "QMTAL%02d%c", index - 1000, letter);
    else
      snprintf(id, sizeof id, "QMTA%03d%c", index, letter);
    Sample(&out, "qmta_operator_messages_total", "id=\"" + std::string(id) + "\"", value);
  }
  Head(&out, "qmta_stdout_wait_seconds_total", "counter",
       "Time the output relay waited for standard output to take data.");
  Sample(&out, "qmta_stdout_wait_seconds_total", "", relay.waitSeconds());
  std::string why;
  Head(&out, "qmta_ready", "gauge", "1 when the module has started and its table is loaded.");
  Sample(&out, "qmta_ready", "", Ready(&why) ? 1 : 0);
  return out + JournalMetrics();
}

}  // namespace qmta::hostprog
