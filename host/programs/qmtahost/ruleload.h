// The module's own rule-file reader run inside a host program (the static
// core linked in), on a file of the caller's choosing, with a table of its
// own: what `qmtahost check` and `qmtahost explain` build on. Never used
// in a process whose host has loaded the module, since the reader's state
// is module-wide.
#ifndef HOST_PROGRAMS_QMTAHOST_RULELOAD_H_
#define HOST_PROGRAMS_QMTAHOST_RULELOAD_H_

#include <stdint.h>
#include <stdio.h>

#include <array>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct TableEntry;

namespace qmta::hostprog {

// Largest rule file the tools read unless told otherwise.
inline constexpr uint64_t kDefaultRuleFileLimit = uint64_t{64} << 20;

// Opens `path` for reading without blocking (a FIFO without a writer does
// not stall the open) and refuses, with `*problem` set, what is missing,
// not a regular file, larger than `limit` bytes, or holds a NUL byte (the
// file is scanned in bounded pieces, after the size check). Returns the
// descriptor, or -1.
int OpenRuleFile(const std::string& path, uint64_t limit, std::string* problem);

// One operator message of the module. A message whose value held a line
// end spreads over several output lines; every line that does not begin
// with a message id belongs to the message before it.
struct ModuleMessage {
  std::string id;     // "QMTA021E", "QMTAL01S"
  char severity = 0;  // the id's last letter: I, W, E or S
  long line = 0;      // the rule-file line the message names; 0 when none
  std::string text;   // the whole message, its lines joined with '\n'
};

// True when `line` begins with a message id: QMTA, three digits and a
// letter, or QMTAL, two digits and a letter.
bool BeginsMessage(std::string_view line);

// Reads messages from `in` until its end, one call of `take` each.
void ReadMessages(FILE* in, const std::function<void(const ModuleMessage&)>& take);

// Messages of severity E or S: every one the reader prints while it loads
// drops the entry it stands in (or, QMTA000E and QMTAL01S, stops the load).
inline bool DropsEntry(const ModuleMessage& message) {
  return message.severity == 'E' || message.severity == 'S';
}

// One loaded rule and where the file wrote it.
struct LoadedRule {
  const TableEntry* entry = nullptr;
  int32_t line = 0;  // line of the entry's first tag; 0 when not found
  std::array<int32_t, 9> argLines{};  // line of each ARGn tag; 0 when none
};

// One load of a rule file by the module's reader.
class RuleLoad {
 public:
  RuleLoad() = default;
  ~RuleLoad();
  RuleLoad(const RuleLoad&) = delete;
  RuleLoad& operator=(const RuleLoad&) = delete;

  // Loads the open rule file `fd` as a REFRESH would (its messages are
  // kept, not printed), then cuts it into entries with the module's
  // tokenizer to count them and find each rule's lines. False, with
  // `*problem` set, when the load could not be run at all.
  bool Run(int fd, std::string* problem);

  int32_t status = 0;  // the table load's status: 0, -8, -9 or -1
  int entries = 0;     // entries the file holds, good or not
  std::vector<LoadedRule> rules;  // in file order
  // The messages the load printed, from their start.
  FILE* messages() const;

 private:
  FILE* output_ = nullptr;
};

// "TRUE", "FALSE", "UNKNOWN" or "ANY".
const char* StateName(uint32_t state);

// One line of a destination directory file.
struct NodesLine {
  int number = 0;
  std::string pattern;
  std::string driver;
  std::string text;  // the line as written
};

// Reads the destination directory file `path`; false with `*problem` set
// when it cannot be read or a line names no driver.
bool ReadNodesFile(const std::string& path, std::vector<NodesLine>* lines,
                   std::string* problem);
// The first line whose pattern takes `node`; null when none does.
const NodesLine* RouteNode(const std::vector<NodesLine>& lines, const std::string& node);

// Reads the words of a subcommand: flags (`--strict`), options with a
// value (`--max-size N` or `--max-size=N`) and the rest in order.
class Words {
 public:
  Words(int argc, char* const* argv) : words_(argv + 1, argv + argc) {}
  // False, with `*error` set, on an unknown option or a missing value.
  bool Read(const std::vector<std::string>& flags, const std::vector<std::string>& valued,
            std::string* error);
  bool Has(const std::string& flag) const;
  std::optional<std::string> Value(const std::string& option) const;
  const std::vector<std::string>& rest() const { return rest_; }

 private:
  std::vector<std::string> words_;
  std::vector<std::pair<std::string, std::string>> given_;
  std::vector<std::string> rest_;
};

}  // namespace qmta::hostprog

#endif  // HOST_PROGRAMS_QMTAHOST_RULELOAD_H_
