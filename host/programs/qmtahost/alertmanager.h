// Alertmanager's webhook (`POST /v1/alertmanager` of `qmtahost serve
// --listen`): each alert of a notification (webhook version 4) becomes an
// event, and only a change of an alert's state reaches the module.
//
// An alert maps to an event as follows (docs/qmtahost.md):
//   sitname     the `alertname` label (--alert-name-label)
//   originnode  the `instance` label (--alert-node-label); empty without it
//   currstate   1 firing, 2 resolved
//   prevstate   the state last delivered for the alert's fingerprint, 0 none
//   timestamp   `startsAt` (firing) or `endsAt` (resolved), in local time
//   attributes  the labels as they are named, then the annotations as
//               `annotation.NAME` (a label name never holds a dot)
//   threshold   the annotation named by --alert-threshold-annotation
// Line ends in any text become blanks, double quotes in names (situation,
// node, attribute names) apostrophes; an alert that the intake check
// (intake.h) still refuses, or that lacks a field, is refused alone.
//
// Alertmanager sends a group's firing alerts again every group_interval
// when the group changes and every repeat_interval anyway: the table of
// states (fingerprint -> state last delivered) drops those re-sends. It is
// bounded (--alert-state-max, the least recently seen entry goes first)
// and an entry not seen for --alert-state-expiry seconds is forgotten. It
// lives in memory only: after a restart the next re-send of a firing alert
// is delivered once more, with prevstate 0.
//
// Threads: the HTTP server owns the intake; Take runs on libmicrohttpd's
// connection threads, several at once. mutex_ guards the table and is held
// from the decision until the events are queued on the dispatcher, so that
// the dispatcher gets an alert's changes in the order the table saw them.
#ifndef HOST_PROGRAMS_QMTAHOST_ALERTMANAGER_H_
#define HOST_PROGRAMS_QMTAHOST_ALERTMANAGER_H_

#include <stddef.h>

#include <chrono>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "host/programs/qmtahost/inputline.h"

namespace qmta::hostprog {

struct AlertSettings {
  std::string nameLabel = "alertname";  // the label that names the situation
  std::string nodeLabel = "instance";   // the label that names the origin node
  std::string thresholdAnnotation;      // empty: no threshold
  size_t stateMax = 10000;              // fingerprints kept
  std::chrono::seconds stateExpiry{86400};
};

// One alert of a notification and what became of it.
struct Alert {
  enum class Outcome { kDelivered, kUnchanged, kRefused };
  Outcome outcome = Outcome::kRefused;
  size_t number = 0;        // its place in `alerts`, from 1
  std::string fingerprint;  // as sent (may be empty when refused)
  Event event;              // kDelivered: as queued, prevstate included
  std::string reason;       // kRefused: why
};

struct AlertBatch {
  std::string error;       // not empty: the body is not a notification; nothing taken
  bool stopping = false;   // the events could not be queued (the host stops)
  std::vector<Alert> alerts;  // in the order of the body
};

class AlertIntake {
 public:
  using Clock = std::chrono::steady_clock;
  // Queues the events in order; false when none was queued.
  using Submit = std::function<bool(std::vector<Alert*>& delivered)>;

  AlertIntake(AlertSettings settings, bool allowAnyText)
      : settings_(std::move(settings)), allowAnyText_(allowAnyText) {}

  // Reads a webhook body, decides each alert and hands those to deliver
  // to `submit`.
  AlertBatch Take(std::string_view body, const Submit& submit,
                  Clock::time_point now = Clock::now());
  size_t states() const;

 private:
  struct Entry {
    std::string fingerprint;
    int32_t state;
    Clock::time_point seen;
  };
  void Forget(Clock::time_point now);
  void Decide(Alert* alert, Clock::time_point now);

  const AlertSettings settings_;
  const bool allowAnyText_;
  mutable std::mutex mutex_;  // guards order_ and index_
  std::list<Entry> order_;    // least recently seen first
  std::unordered_map<std::string, std::list<Entry>::iterator> index_;
};

// `text` (RFC 3339, as Alertmanager writes times: 2026-11-23T10:53:12.46Z
// or with an offset) as seconds since the epoch; false when it is not one.
bool ParseAlertTime(std::string_view text, time_t* seconds);

}  // namespace qmta::hostprog

#endif  // HOST_PROGRAMS_QMTAHOST_ALERTMANAGER_H_
