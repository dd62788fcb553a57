// Reading the action journal: `qmtahost history` and GET /v1/actions.
// Read-only connections; WAL lets them read while the host writes.
#ifndef HOST_PROGRAMS_QMTAHOST_HISTORY_H_
#define HOST_PROGRAMS_QMTAHOST_HISTORY_H_

#include <stdint.h>

#include <map>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace qmta::hostprog {

// What to show. Patterns take '*' for any text, as the rule file does.
struct HistoryFilter {
  std::optional<double> since;  // Unix seconds
  std::string sitname, node;    // patterns; empty: any
  bool failed = false;          // only actions that failed
  std::string run;              // with `request`: empty for the newest run
  std::optional<int64_t> request;
  int64_t limit = 100;
};

// Reads one filter from its text form (option or query parameter) into
// `filter`: since (a duration back from now, or a UTC time
// YYYY-MM-DD[THH:MM[:SS]]), sitname, node, failed, request (ID or RUN:ID),
// limit. False with `*error` set.
bool SetFilter(const std::string& name, const std::string& value, HistoryFilter* filter,
               std::string* error);

// The actions the filter selects, newest first, as a JSON array (with
// output only for one request). False with `*error` set.
bool QueryActions(const std::string& path, const HistoryFilter& filter, nlohmann::json* actions,
                  std::string* error);

// GET /v1/actions: the query parameters in, the status and JSON body out.
unsigned ActionsAnswer(const std::map<std::string, std::string>& parameters, std::string* body);

// `qmtahost history [OPTIONS]`; the exit status.
int RunHistory(int argc, char** argv);

// $STATE_DIRECTORY/journal.db (its first folder) when the variable is
// set; empty otherwise.
std::string StateJournalPath();

}  // namespace qmta::hostprog

#endif  // HOST_PROGRAMS_QMTAHOST_HISTORY_H_
