// The lines that qmtahost reads: events and drains written as JSON objects,
// operator commands as plain text.
#ifndef HOST_PROGRAMS_QMTAHOST_INPUTLINE_H_
#define HOST_PROGRAMS_QMTAHOST_INPUTLINE_H_

#include <stdint.h>
#include <time.h>

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qmta::hostprog {

// One situation event, as the module's event exit takes it.
struct Event {
  std::string sitname;
  std::string originnode;
  int32_t currstate = 0;
  int32_t prevstate = 0;
  std::optional<std::string> timestamp;  // none: the current local time
  std::vector<std::pair<std::string, std::string>> attributes;  // in order
  std::optional<std::string> threshold;  // none: no threshold is passed
  bool pathHandle = true;                // pass the host's own path
  int32_t onDS = 1;
  std::string source;  // where it came from, as the dispatcher names it
};

struct InputLine {
  enum class Kind {
    kSkip,     // empty line or comment
    kEvent,    // `event` holds it
    kDrain,    // wait until every action started so far has finished
    kReload,   // check the rule file, then REFRESH (`force`: REFRESH unchecked)
    kCommand,  // `text` is the operator command
    kError     // `text` is the reason
  };
  Kind kind = Kind::kSkip;
  Event event;
  std::string text;
  bool force = false;
};

// Classifies and parses one line, given without its line end.
InputLine ParseInputLine(std::string_view line);

// `local` in the module's 16-digit timestamp form: century digit (0 for
// 19xx, 1 for 20xx), yy mm dd hh mm ss, then "000".
std::string Timestamp(const struct tm& local);

}  // namespace qmta::hostprog

#endif  // HOST_PROGRAMS_QMTAHOST_INPUTLINE_H_
