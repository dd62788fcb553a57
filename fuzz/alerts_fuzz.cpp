// Fuzz target: Alertmanager's webhook body as POST /v1/alertmanager takes
// it. Whatever the body, nothing throws; a refused body takes no alert; a
// delivered alert is an event that passes the intake check, with a state
// of 1 or 2 that differs from the previous one and a 16-digit timestamp;
// a refused alert says why; the table of states stays within its bound;
// and the same notification sent again delivers nothing new when each
// fingerprint appears once in it.
#include <set>
#include <string>
#include <vector>

#include "fuzz/fuzzsupport.h"
#include "host/programs/qmtahost/alertmanager.h"
#include "host/programs/qmtahost/intake.h"

using qmta::hostprog::Alert;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using qmtafuzz::Check;
  std::string_view body(reinterpret_cast<const char*>(data), size);
  qmta::hostprog::AlertSettings settings;
  settings.stateMax = 8;
  settings.thresholdAnnotation = "threshold";
  qmta::hostprog::AlertIntake intake(settings, false);
  size_t queued = 0;
  auto submit = [&](std::vector<Alert*>& delivered) {
    queued = delivered.size();
    return true;
  };
  const auto now = qmta::hostprog::AlertIntake::Clock::now();
  qmta::hostprog::AlertBatch batch = intake.Take(body, submit, now);
  Check(batch.error.empty() || batch.alerts.empty(), "a refused body takes no alert");
  size_t delivered = 0;
  std::set<std::string> fingerprints;
  bool once = true;
  for (const Alert& alert : batch.alerts) {
    once = fingerprints.insert(alert.fingerprint).second && once;
    if (alert.outcome == Alert::Outcome::kRefused) {
      Check(!alert.reason.empty(), "a refused alert says why");
      continue;
    }
    if (alert.outcome != Alert::Outcome::kDelivered) continue;
    ++delivered;
    const qmta::hostprog::Event& event = alert.event;
    Check(qmta::hostprog::CheckEventText(event).empty(), "a delivered alert passes the intake check");
    Check((event.currstate == 1 || event.currstate == 2) && event.prevstate != event.currstate &&
              event.prevstate >= 0 && event.prevstate <= 2,
          "a delivered alert changes its state to firing or resolved");
    Check(event.timestamp && event.timestamp->size() == 16 &&
              event.timestamp->find_first_not_of("0123456789") == std::string::npos,
          "a delivered alert has a 16-digit timestamp");
  }
  Check(delivered == queued, "what is delivered is what was queued");
  Check(intake.states() <= settings.stateMax, "the table of states stays within its bound");
  if (once && delivered > 0 && fingerprints.size() <= settings.stateMax) {
    qmta::hostprog::AlertBatch again = intake.Take(body, submit, now);
    for (const Alert& alert : again.alerts)
      Check(alert.outcome != Alert::Outcome::kDelivered, "a notification sent again delivers nothing");
  }
  return 0;
}
