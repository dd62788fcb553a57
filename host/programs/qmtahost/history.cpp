// Reading the action journal (see history.h). Every value that comes from
// the user is bound as an SQL parameter; the statement's text is made only
// of the fixed pieces below.
#include "host/programs/qmtahost/history.h"

#include <sqlite3.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <chrono>
#include <cmath>
#include <vector>

#include "host/common/number.h"
#include "host/common/say.h"
#include "host/common/text.h"
#include "host/programs/qmtahost/journal.h"

namespace qmta::hostprog {
namespace {

using Json = nlohmann::json;

constexpr char kUsage[] =
    "usage: qmtahost history [--journal FILE] [--since DURATION|TIME] [--sitname PATTERN]\n"
    "                        [--node PATTERN] [--failed] [--request ID|RUN:ID] [--limit N]\n"
    "                        [--json]\n";
constexpr char kHelp[] =
    "Shows the actions of the host's journal, newest first; with --request, one\n"
    "action in full with its output. Read-only: works while the host runs.\n"
    "  --journal FILE      the journal (default $STATE_DIRECTORY/journal.db)\n"
    "  --since D|TIME      actions started in the last D (90s, 15m, 12h, 7d) or since\n"
    "                      TIME (UTC: YYYY-MM-DD[THH:MM[:SS]])\n"
    "  --sitname PATTERN   the situation's name; '*' matches any text\n"
    "  --node PATTERN      the destination node; '*' matches any text\n"
    "  --failed            only actions that did not complete with RC 0\n"
    "  --request ID        one action: ID of the newest run, or RUN:ID\n"
    "  --limit N           at most N actions (default 100)\n"
    "  --json              JSON instead of a table\n";

// A rule-file pattern as a GLOB pattern: '*' stays, '?' and '[' are taken
// literally.
std::string Glob(const std::string& pattern) {
  std::string glob;
  for (char c : pattern) {
    if (c == '?') glob += "[?]";
    else if (c == '[') glob += "[[]";
    else glob += c;
  }
  return glob;
}

bool ParseTime(const std::string& text, double* seconds) {
  struct tm utc = {};
  const char* at = text.c_str();
  const char* end = strptime(at, "%Y-%m-%d", &utc);
  if (end == nullptr) return false;
  if (*end == 'T' || *end == ' ') {
    const char* more = strptime(end + 1, "%H:%M:%S", &utc);
    if (more == nullptr) more = strptime(end + 1, "%H:%M", &utc);
    if (more == nullptr) return false;
    end = more;
  }
  if (*end == 'Z') ++end;
  if (end != at + text.size()) return false;  // nothing may follow
  *seconds = static_cast<double>(timegm(&utc));
  return true;
}

std::string TimeText(double seconds, bool iso) {
  if (seconds <= 0) return "";
  time_t whole = static_cast<time_t>(seconds);
  struct tm utc;
  gmtime_r(&whole, &utc);
  char text[40];
  strftime(text, sizeof text, iso ? "%Y-%m-%dT%H:%M:%S" : "%Y-%m-%d %H:%M:%S", &utc);
  std::string result = text;
  if (iso) {
    char millis[8];
    snprintf(millis, sizeof millis, ".%03d",
             static_cast<int>(std::fmod(seconds, 1.0) * 1000) % 1000);
    result += millis;
  }
  return result + "Z";
}

// Control characters other than tab and line ends shown as '?', so that
// what a program printed cannot drive the operator's terminal.
std::string Printable(std::string text) {
  for (char& c : text)
    if (host::IsControlCharacter(c) && c != '\n') c = '?';
  return text;
}

// The read-only connection; closed when it goes.
struct Reader {
  sqlite3* db = nullptr;
  ~Reader() { sqlite3_close(db); }
  bool Open(const std::string& path, std::string* error) {
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
      *error = path + ": " + (db ? sqlite3_errmsg(db) : "cannot open");
      return false;
    }
    sqlite3_busy_timeout(db, 2000);
    return true;
  }
};

const char kColumns[] =
    "SELECT run, request_id, event_id, sitname, destination, state, command, call_type, driver, "
    "nodes_line, started, ended, outcome, status, rcs, exit_status, exit_signal, output, "
    "output_cut, failed FROM actions";

Json Row(sqlite3_stmt* row, bool output) {
  auto text = [&](int column) -> Json {
    const unsigned char* value = sqlite3_column_text(row, column);
    if (value == nullptr) return nullptr;
    return std::string(reinterpret_cast<const char*>(value),
                       static_cast<size_t>(sqlite3_column_bytes(row, column)));
  };
  auto number = [&](int column) -> Json {
    if (sqlite3_column_type(row, column) == SQLITE_NULL) return nullptr;
    return sqlite3_column_int64(row, column);
  };
  auto when = [&](int column) -> Json {
    if (sqlite3_column_type(row, column) == SQLITE_NULL) return nullptr;
    return TimeText(sqlite3_column_double(row, column), true);
  };
  Json action = {{"run", text(0)},          {"request_id", number(1)}, {"event_id", number(2)},
                 {"sitname", text(3)},      {"destination", text(4)}, {"state", number(5)},
                 {"command", text(6)},      {"call_type", number(7)}, {"driver", text(8)},
                 {"nodes_line", number(9)}, {"started", when(10)},    {"ended", when(11)},
                 {"outcome", text(12)},     {"status", number(13)},   {"rcs", text(14)},
                 {"exit_status", number(15)}, {"signal", number(16)},
                 {"failed", sqlite3_column_int(row, 19) != 0}};
  if (sqlite3_column_type(row, 10) != SQLITE_NULL && sqlite3_column_type(row, 11) != SQLITE_NULL)
    action["seconds"] =
        std::round((sqlite3_column_double(row, 11) - sqlite3_column_double(row, 10)) * 1000) / 1000;
  if (output) {
    action["output"] = text(17);
    action["output_cut"] = sqlite3_column_int(row, 18) != 0;
  }
  return action;
}

std::string Str(const Json& value) {
  if (value.is_null()) return "-";
  if (value.is_string()) return value.get<std::string>();
  return value.dump();
}

std::string Fit(std::string text, size_t width) {
  if (text.size() > width) text = text.substr(0, width - 1) + "~";
  return text + std::string(width - text.size() + 1, ' ');
}

void PrintTable(const Json& actions) {
  std::string out = Fit("STARTED", 20) + Fit("ACTION", 26) + Fit("SITNAME", 20) +
                    Fit("DESTINATION", 16) + Fit("STATE", 5) + Fit("OUTCOME", 11) +
                    Fit("RC", 6) + "COMMAND\n";
  for (const Json& action : actions) {
    std::string started = action["started"].is_null() ? "-" : action["started"].get<std::string>();
    if (started.size() >= 19) started = started.substr(0, 10) + " " + started.substr(11, 8);
    std::string rc = action["rcs"].is_null() ? Str(action["status"]) : Str(action["rcs"]);
    out += Fit(started, 20) + Fit(Str(action["run"]) + ":" + Str(action["request_id"]), 26) +
           Fit(Str(action["sitname"]), 20) + Fit(Str(action["destination"]), 16) +
           Fit(Str(action["state"]), 5) + Fit(Str(action["outcome"]), 11) + Fit(rc, 6) +
           Str(action["command"]) + "\n";
  }
  fputs(Printable(out).c_str(), stdout);
}

void PrintOne(const Json& action) {
  std::string out;
  for (const char* key : {"run", "request_id", "event_id", "sitname", "destination", "state",
                          "command", "call_type", "driver", "nodes_line", "started", "ended",
                          "seconds", "outcome", "status", "rcs", "exit_status", "signal"})
    if (action.contains(key)) out += std::string(key) + ": " + Str(action[key]) + "\n";
  out += "output:\n";
  if (action["output"].is_string()) out += action["output"].get<std::string>();
  if (action["output_cut"].get<bool>()) out += "[output cut]\n";
  fputs(Printable(out).c_str(), stdout);
}

}  // namespace

bool SetFilter(const std::string& name, const std::string& value, HistoryFilter* filter,
               std::string* error) {
  if (name == "since") {
    std::chrono::seconds back;
    double at;
    if (ParseDuration(value, &back)) {
      filter->since = std::chrono::duration<double>(
                          std::chrono::system_clock::now().time_since_epoch())
                          .count() - static_cast<double>(back.count());
    } else if (ParseTime(value, &at)) {
      filter->since = at;
    } else {
      *error = "since: \"" + value + "\" is neither a duration (90s, 15m, 12h, 7d) nor a time "
               "(YYYY-MM-DD[THH:MM[:SS]], UTC)";
      return false;
    }
  } else if (name == "sitname") {
    filter->sitname = value;
  } else if (name == "node") {
    filter->node = value;
  } else if (name == "failed") {
    filter->failed = value != "0" && value != "false";
  } else if (name == "request") {
    size_t colon = value.rfind(':');
    std::string id = colon == std::string::npos ? value : value.substr(colon + 1);
    filter->run = colon == std::string::npos ? "" : value.substr(0, colon);
    int64_t number;
    if (!host::ParseNumber(id, &number, 0, UINT32_MAX, host::Radix::kDecimal)) {
      *error = "request: \"" + value + "\" is not ID or RUN:ID";
      return false;
    }
    filter->request = number;
  } else if (name == "limit") {
    if (!host::ParseNumber(value, &filter->limit, 1, 100000, host::Radix::kDecimal)) {
      *error = "limit: \"" + value + "\" is not a number from 1 to 100000";
      return false;
    }
  } else {
    *error = "unknown filter \"" + name + "\"";
    return false;
  }
  return true;
}

bool QueryActions(const std::string& path, const HistoryFilter& filter, Json* actions,
                  std::string* error) {
  Reader reader;
  if (!reader.Open(path, error)) return false;
  std::string sql = kColumns;
  if (filter.request) {
    sql += filter.run.empty()
               ? " WHERE run = (SELECT run FROM runs ORDER BY started DESC LIMIT 1)"
                 " AND request_id = ?1"
               : " WHERE run = ?2 AND request_id = ?1";
  } else {
    sql += " WHERE (?1 IS NULL OR started >= ?1) AND (?2 = '' OR sitname GLOB ?2)"
           " AND (?3 = '' OR destination GLOB ?3) AND (?4 = 0 OR failed = 1)"
           " ORDER BY started DESC, request_id DESC LIMIT ?5";
  }
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(reader.db, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
    *error = path + ": " + sqlite3_errmsg(reader.db);
    return false;
  }
  if (filter.request) {
    sqlite3_bind_int64(statement, 1, *filter.request);
    if (!filter.run.empty())
      sqlite3_bind_text(statement, 2, filter.run.c_str(), -1, SQLITE_TRANSIENT);
  } else {
    if (filter.since) sqlite3_bind_double(statement, 1, *filter.since);
    sqlite3_bind_text(statement, 2, Glob(filter.sitname).c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(statement, 3, Glob(filter.node).c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_int(statement, 4, filter.failed);
    sqlite3_bind_int64(statement, 5, filter.limit);
  }
  *actions = Json::array();
  int stepped;
  while ((stepped = sqlite3_step(statement)) == SQLITE_ROW)
    actions->push_back(Row(statement, filter.request.has_value()));
  sqlite3_finalize(statement);
  if (stepped != SQLITE_DONE) {
    *error = path + ": " + sqlite3_errmsg(reader.db);
    return false;
  }
  return true;
}

unsigned ActionsAnswer(const std::map<std::string, std::string>& parameters, std::string* body) {
  auto answer = [&](unsigned status, const Json& json) {
    *body = json.dump(-1, ' ', false, Json::error_handler_t::replace);
    return status;
  };
  auto journal = ActiveJournal();
  if (!journal) return answer(404, Json{{"error", "the journal is off"}});
  HistoryFilter filter;
  std::string error;
  for (const auto& [name, value] : parameters)
    if (!SetFilter(name, value, &filter, &error)) return answer(400, Json{{"error", error}});
  Json actions;
  if (!QueryActions(journal->path(), filter, &actions, &error))
    return answer(500, Json{{"error", error}});
  return answer(200, Json{{"run", journal->run()}, {"actions", actions}});
}

std::string StateJournalPath() {
  const char* state = getenv("STATE_DIRECTORY");
  if (state == nullptr || *state == '\0') return {};
  std::string first = state;
  first = first.substr(0, first.find(':'));  // systemd lists several with ':'
  return first + "/journal.db";
}

int RunHistory(int argc, char** argv) {
  HistoryFilter filter;
  std::string path = StateJournalPath(), error;
  bool json = false;
  for (int i = 1; i < argc; ++i) {
    std::string word = argv[i], value;
    if (word == "-h" || word == "--help") {
      fputs(kUsage, stdout);
      fputs(kHelp, stdout);
      return 0;
    }
    if (word == "--json") {
      json = true;
      continue;
    }
    if (word == "--failed") {
      filter.failed = true;
      continue;
    }
    size_t equals = word.find('=');
    if (word.starts_with("--") && equals != std::string::npos) {
      value = word.substr(equals + 1);
      word = word.substr(0, equals);
    } else if (word.starts_with("--") && i + 1 < argc) {
      value = argv[++i];
    } else {
      host::SayUsageError("qmtahost history", "unexpected \"" + word + "\"", kUsage);
      return 2;
    }
    if (word == "--journal") {
      path = value;
    } else if (!word.starts_with("--") || !SetFilter(word.substr(2), value, &filter, &error)) {
      host::SayUsageError("qmtahost history",
                          error.empty() ? "unknown option \"" + word + "\"" : error, kUsage);
      return 2;
    }
  }
  if (path.empty()) {
    host::SayUsageError("qmtahost history", "no journal: give --journal FILE", kUsage);
    return 2;
  }
  Json actions;
  if (!QueryActions(path, filter, &actions, &error)) {
    host::Say("qmtahost history: ", error);
    return 1;
  }
  if (filter.request && actions.empty()) {
    host::Say("qmtahost history: ", "no such action");
    return 1;
  }
  if (json) {
    Json one = filter.request ? actions[0] : actions;
    fputs((one.dump(2, ' ', false, Json::error_handler_t::replace) + "\n").c_str(), stdout);
  } else if (filter.request) {
    PrintOne(actions[0]);
  } else {
    PrintTable(actions);
  }
  return 0;
}

}  // namespace qmta::hostprog
