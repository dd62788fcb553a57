#include "host/programs/qmtahost/alertmanager.h"

#include <time.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "host/programs/qmtahost/intake.h"

namespace qmta::hostprog {
namespace {

using Json = nlohmann::json;

// Thrown for the alert being read: why it is refused.
struct Refusal {
  std::string reason;
};

std::string Quoted(std::string_view name) { return "\"" + std::string(name) + "\""; }

// Line ends become blanks; in a name, double quotes become apostrophes.
std::string Clean(std::string text, bool name) {
  for (char& c : text) {
    if (c == '\n' || c == '\r') c = ' ';
    else if (name && c == '"') c = '\'';
  }
  return text;
}

const std::string& Text(const Json& alert, const char* field) {
  auto found = alert.find(field);
  if (found == alert.end()) throw Refusal{"missing " + Quoted(field)};
  if (!found->is_string()) throw Refusal{Quoted(field) + " must be a string"};
  return found->get_ref<const std::string&>();
}

// The labels or the annotations of an alert: an object of strings (the
// annotations may be missing).
const Json& Strings(const Json& alert, const char* field, bool required) {
  static const Json kNone = Json::object();
  auto found = alert.find(field);
  if (found == alert.end() || (!required && found->is_null())) {
    if (required) throw Refusal{"missing " + Quoted(field)};
    return kNone;
  }
  bool strings = found->is_object();
  for (const Json& value : *found) strings = strings && value.is_string();
  if (!strings) throw Refusal{Quoted(field) + " must be an object of strings"};
  return *found;
}

// The event of one alert, without its prevstate.
Event ReadAlert(const Json& alert, const AlertSettings& settings) {
  Event event;
  const std::string& status = Text(alert, "status");
  if (status != "firing" && status != "resolved")
    throw Refusal{"\"status\" must be \"firing\" or \"resolved\""};
  event.currstate = status == "firing" ? 1 : 2;
  // A firing alert has no end yet (Alertmanager sends year 1, or a time
  // to come); a resolved one ended at its end.
  const char* when = event.currstate == 1 ? "startsAt" : "endsAt";
  time_t seconds;
  struct tm local;
  if (!ParseAlertTime(Text(alert, when), &seconds) || localtime_r(&seconds, &local) == nullptr ||
      local.tm_year < 0 || local.tm_year > 999)
    throw Refusal{Quoted(when) + " must be an RFC 3339 time between the years 1900 and 2899"};
  event.timestamp = Timestamp(local);

  const Json& labels = Strings(alert, "labels", true);
  const Json& annotations = Strings(alert, "annotations", false);
  auto name = labels.find(settings.nameLabel);
  if (name == labels.end() || name->get_ref<const std::string&>().empty())
    throw Refusal{"missing label " + Quoted(settings.nameLabel)};
  event.sitname = Clean(name->get<std::string>(), true);
  auto node = labels.find(settings.nodeLabel);
  if (node != labels.end()) event.originnode = Clean(node->get<std::string>(), true);
  for (const auto& [label, value] : labels.items())
    event.attributes.emplace_back(Clean(label, true), Clean(value.get<std::string>(), false));
  for (const auto& [annotation, value] : annotations.items())
    event.attributes.emplace_back(Clean("annotation." + annotation, true),
                                  Clean(value.get<std::string>(), false));
  auto threshold = annotations.find(settings.thresholdAnnotation);
  if (!settings.thresholdAnnotation.empty() && threshold != annotations.end())
    event.threshold = Clean(threshold->get<std::string>(), false);
  return event;
}

// Whether a text of the event holds a NUL (JSON may write one as \u0000),
// which no input lets through.
bool HoldsNul(const Event& event) {
  auto nul = [](const std::string& text) { return text.find('\0') != std::string::npos; };
  bool found = nul(event.sitname) || nul(event.originnode) ||
               (event.threshold && nul(*event.threshold));
  for (const auto& [name, value] : event.attributes) found = found || nul(name) || nul(value);
  return found;
}

}  // namespace

bool ParseAlertTime(std::string_view text, time_t* seconds) {
  // YYYY-MM-DDTHH:MM:SS[.fraction](Z|+hh:mm|-hh:mm)
  auto number = [&](size_t at, size_t digits, int* value) {
    if (at + digits > text.size()) return false;
    *value = 0;
    for (size_t i = at; i < at + digits; ++i) {
      if (text[i] < '0' || text[i] > '9') return false;
      *value = *value * 10 + (text[i] - '0');
    }
    return true;
  };
  int year, month, day, hour, minute, second;
  if (!number(0, 4, &year) || !number(5, 2, &month) || !number(8, 2, &day) ||
      !number(11, 2, &hour) || !number(14, 2, &minute) || !number(17, 2, &second) ||
      text[4] != '-' || text[7] != '-' || (text[10] != 'T' && text[10] != 't') ||
      text[13] != ':' || text[16] != ':')
    return false;
  size_t at = 19;
  if (at < text.size() && text[at] == '.') {
    size_t digits = ++at;
    while (at < text.size() && text[at] >= '0' && text[at] <= '9') ++at;
    if (at == digits) return false;
  }
  long offset = 0;
  if (at < text.size() && (text[at] == 'Z' || text[at] == 'z')) {
    ++at;
  } else if (at < text.size() && (text[at] == '+' || text[at] == '-')) {
    int hours, minutes;
    if (!number(at + 1, 2, &hours) || !number(at + 4, 2, &minutes) || text[at + 3] != ':' ||
        hours > 23 || minutes > 59)
      return false;
    offset = (hours * 60L + minutes) * 60 * (text[at] == '-' ? -1 : 1);
    at += 6;
  } else {
    return false;
  }
  if (at != text.size() || month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 ||
      minute > 59 || second > 60)
    return false;
  struct tm time {};
  time.tm_year = year - 1900;
  time.tm_mon = month - 1;
  time.tm_mday = day;
  time.tm_hour = hour;
  time.tm_min = minute;
  time.tm_sec = second;
  *seconds = timegm(&time) - offset;
  return true;
}

AlertBatch AlertIntake::Take(std::string_view body, const Submit& submit, Clock::time_point now) {
  AlertBatch batch;
  Json notification;
  try {
    notification = Json::parse(body);
  } catch (const Json::exception& error) {
    // "[json.exception.parse_error.101] parse error at ..." without its tag.
    std::string what = error.what();
    size_t tag = what.find("] ");
    batch.error = "bad JSON: " + (tag == std::string::npos ? what : what.substr(tag + 2));
    return batch;
  }
  if (!notification.is_object()) {
    batch.error = "the body must be a JSON object (an Alertmanager notification)";
    return batch;
  }
  auto version = notification.find("version");
  auto alerts = notification.find("alerts");
  if (version != notification.end() && *version != "4") {
    batch.error = "\"version\" must be \"4\"";
    return batch;
  }
  if (alerts == notification.end() || !alerts->is_array()) {
    batch.error = "\"alerts\" must be a list";
    return batch;
  }
  batch.alerts.resize(alerts->size());
  for (size_t i = 0; i < alerts->size(); ++i) {
    Alert& alert = batch.alerts[i];
    alert.number = i + 1;
    try {
      const Json& given = (*alerts)[i];
      if (!given.is_object()) throw Refusal{"an alert must be an object"};
      alert.fingerprint = Text(given, "fingerprint");
      if (alert.fingerprint.empty()) throw Refusal{"missing \"fingerprint\""};
      alert.event = ReadAlert(given, settings_);
      if (HoldsNul(alert.event)) throw Refusal{"a label or annotation holds a NUL character"};
      std::string problem = allowAnyText_ ? "" : CheckEventText(alert.event);
      if (!problem.empty()) throw Refusal{problem};
      alert.outcome = Alert::Outcome::kDelivered;  // unless Decide finds it unchanged
    } catch (const Refusal& refusal) {
      alert.reason = refusal.reason;
    }
  }

  std::lock_guard<std::mutex> hold(mutex_);
  // A notification that waited for the lock keeps the table in the order
  // of the times seen.
  if (!order_.empty()) now = std::max(now, order_.back().seen);
  Forget(now);
  std::vector<Alert*> delivered;
  for (Alert& alert : batch.alerts) {
    if (alert.outcome == Alert::Outcome::kRefused) continue;
    Decide(&alert, now);
    if (alert.outcome == Alert::Outcome::kDelivered) delivered.push_back(&alert);
  }
  // Refused only when the host stops, which forgets the table anyway: the
  // states are not taken back.
  if (!delivered.empty() && !submit(delivered)) batch.stopping = true;
  return batch;
}

size_t AlertIntake::states() const {
  std::lock_guard<std::mutex> hold(mutex_);
  return order_.size();
}

void AlertIntake::Forget(Clock::time_point now) {
  while (!order_.empty() && now - order_.front().seen >= settings_.stateExpiry) {
    index_.erase(order_.front().fingerprint);
    order_.pop_front();
  }
}

void AlertIntake::Decide(Alert* alert, Clock::time_point now) {
  const int32_t state = alert->event.currstate;
  int32_t last = 0;
  auto found = index_.find(alert->fingerprint);
  if (found != index_.end()) {
    last = found->second->state;
    found->second->state = state;
    found->second->seen = now;
    order_.splice(order_.end(), order_, found->second);
  } else {
    order_.push_back({alert->fingerprint, state, now});
    index_.emplace(alert->fingerprint, std::prev(order_.end()));
    while (order_.size() > settings_.stateMax) {  // never the entry just added
      index_.erase(order_.front().fingerprint);
      order_.pop_front();
    }
  }
  alert->event.prevstate = last;
  alert->outcome = last == state ? Alert::Outcome::kUnchanged : Alert::Outcome::kDelivered;
}

}  // namespace qmta::hostprog
