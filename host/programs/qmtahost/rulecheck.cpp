#include "host/programs/qmtahost/rulecheck.h"

#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "host/common/number.h"
#include "host/drivers/local/local.h"
#include "host/programs/qmtahost/options.h"
#include "host/programs/qmtahost/ruleload.h"
#include "qmtauto1/qmtauto1.h"

namespace qmta::hostprog {
namespace {

using Json = nlohmann::json;

constexpr char kCheckUsageText[] =
    "usage: qmtahost check [--strict] [--json] [--max-size BYTES] [--actions DIR]\n"
    "                      [--nodes FILE] [FILE]\n";

// Rule text is the operator's and may be any bytes: JSON shows what is not
// UTF-8 as U+FFFD.
std::string Dump(const Json& object) {
  return object.dump(-1, ' ', false, Json::error_handler_t::replace);
}

class Check {
 public:
  Check(bool json, std::string file) : json_(json), file_(std::move(file)) {}

  // A finding of the host's own: on standard error, or a JSON object.
  void Warn(const char* kind, int32_t line, const std::string& text) {
    ++warnings_;
    if (json_) {
      puts(Dump(Json{{"id", kind}, {"severity", "W"}, {"line", line}, {"text", text}}).c_str());
    } else {
      std::string where = line > 0 ? "line " + std::to_string(line) + ": " : "";
      fprintf(stderr, "qmtahost: check: %s: %s%s\n", file_.c_str(), where.c_str(), text.c_str());
    }
  }

  void Problem(const std::string& text) {
    if (json_)
      puts(Dump(Json{{"id", "bad-file"}, {"severity", "E"}, {"line", 0}, {"text", text}}).c_str());
    fprintf(stderr, "qmtahost: check: %s: %s\n", file_.c_str(), text.c_str());
  }

  void Message(const ModuleMessage& message) {
    if (DropsEntry(message)) ++dropping_;
    if (message.severity == 'W') ++warnings_;
    if (json_) {
      puts(Dump(Json{{"id", message.id}, {"severity", std::string(1, message.severity)},
                     {"line", message.line}, {"text", message.text}})
               .c_str());
    } else {
      puts(message.text.c_str());
    }
  }

  void Rule(const LoadedRule& rule) {
    if (!json_) return;
    const TableEntry& e = *rule.entry;
    Json args = Json::array();
    for (int i = 0; i < kArgCount && e.args[i] != nullptr; ++i) args.push_back(e.args[i]);
    puts(Dump(Json{{"rule",
                    {{"line", rule.line}, {"sitname", e.sitname}, {"originnode", e.originnode},
                     {"state", StateName(e.state)}, {"destnode", e.destnode},
                     {"calltype", e.calltype}, {"script", e.script}, {"args", args}}}})
             .c_str());
  }

  // Prints the summary and returns the exit status.
  int Finish(bool strict, const RuleLoad* load) {
    int rules = load ? static_cast<int>(load->rules.size()) : 0;
    int dropped = load ? std::max(0, load->entries - rules) : 0;
    int status = kCheckClean;
    if (!load || load->status != 0 || rules == 0 || dropping_ > 0 || dropped > 0)
      status = kCheckDropped;
    else if (strict && warnings_ > 0)
      status = kCheckWarnings;
    if (json_)
      puts(Dump(Json{{"summary",
                      {{"file", file_}, {"rules", rules}, {"dropped", dropped},
                       {"warnings", warnings_}, {"status", status}}}})
               .c_str());
    fflush(stdout);
    fprintf(stderr, "qmtahost: check: %s: %d rule%s loaded, %d entr%s dropped, %d warning%s\n",
            file_.c_str(), rules, rules == 1 ? "" : "s", dropped, dropped == 1 ? "y" : "ies",
            warnings_, warnings_ == 1 ? "" : "s");
    return status;
  }

 private:
  bool json_;
  std::string file_;
  int warnings_ = 0;
  int dropping_ = 0;
};

// Why the local driver would not run the program a rule's SCRIPT names
// from `dir`; empty when it would.
std::string ProgramProblem(const std::string& dir, const std::string& script) {
  std::vector<std::string> words;
  std::string error;
  if (!qmta::host::SplitCommand(script, &words, &error)) return "cannot be split: " + error;
  if (words.empty() || !qmta::host::ValidProgramName(words[0]))
    return "is not a name the local driver runs";
  std::string path = dir + "/" + words[0];
  struct stat status;
  if (stat(path.c_str(), &status) != 0) return "names no program of " + dir;
  if (!S_ISREG(status.st_mode) || access(path.c_str(), X_OK) != 0)
    return "names " + path + ", which is not an executable file";
  return "";
}

}  // namespace

bool LooksLiteral(std::string_view arg) {
  if (arg.empty() || arg.front() == '"') return false;
  if (arg.front() == '-' || arg.front() == '/') return true;
  for (char c : arg) {
    bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                 c == '.' || c == '_' || c == ':';
    if (!plain) return true;
  }
  return false;
}

int RunCheck(int argc, char* const* argv) {
  Words words(argc, argv);
  std::string error;
  int64_t limit = static_cast<int64_t>(kDefaultRuleFileLimit);
  if (words.Read({"--strict", "--json"}, {"--max-size", "--actions", "--nodes"}, &error) &&
      words.rest().size() > 1)
    error = "more than one rule file (\"" + words.rest()[1] + "\")";
  if (auto size = words.Value("--max-size");
      error.empty() && size && !host::ParseNumber(*size, &limit, int64_t{0}))
    error = "--max-size: bad size \"" + *size + "\"";
  if (!error.empty()) {
    fprintf(stderr, "qmtahost: check: %s\n%s", error.c_str(), kCheckUsageText);
    return kCheckUsage;
  }
  const std::string file = words.rest().empty() ? "QMTASITR" : words.rest()[0];
  const bool strict = words.Has("--strict");
  Check check(words.Has("--json"), file);

  std::vector<NodesLine> nodes;
  const std::optional<std::string> nodesFile = words.Value("--nodes");
  if (nodesFile && !ReadNodesFile(*nodesFile, &nodes, &error)) {
    fprintf(stderr, "qmtahost: check: %s\n", error.c_str());
    return kCheckUsage;
  }

  int fd = OpenRuleFile(file, static_cast<uint64_t>(limit), &error);
  if (fd < 0) {
    check.Problem(error);
    return check.Finish(strict, nullptr);
  }
  RuleLoad load;
  bool ran = load.Run(fd, &error);
  close(fd);
  if (!ran) {
    check.Problem(error);
    return check.Finish(strict, nullptr);
  }
  ReadMessages(load.messages(), [&](const ModuleMessage& message) { check.Message(message); });

  std::set<std::string> seenScripts, seenNodes;
  const std::optional<std::string> actions = words.Value("--actions");
  for (const LoadedRule& rule : load.rules) {
    const TableEntry& e = *rule.entry;
    check.Rule(rule);
    for (int i = 0; i < kArgCount && e.args[i] != nullptr; ++i) {
      if (!LooksLiteral(e.args[i])) continue;
      std::string tag = "ARG" + std::to_string(i + 1) + "=";
      check.Warn("literal-argument", rule.argLines[i] ? rule.argLines[i] : rule.line,
                 tag + e.args[i] + " is not quoted: an event attribute of that name would "
                 "replace it; write " + tag + "\"" + e.args[i] + "\" to pass it as written");
    }
    // Without --nodes every destination runs "local", as in qmtahost.
    const NodesLine* route = nodesFile ? RouteNode(nodes, e.destnode) : nullptr;
    bool runsLocal = !nodesFile || (route && route->driver == "local");
    if (actions && runsLocal && seenScripts.insert(e.script).second) {
      std::string problem = ProgramProblem(*actions, e.script);
      if (!problem.empty())
        check.Warn("missing-program", rule.line,
                   std::string("SCRIPT=") + e.script + " " + problem +
                       "; the local driver would answer RC=127");
    }
    if (nodesFile && !route && seenNodes.insert(e.destnode).second)
      check.Warn("unrouted-destination", rule.line,
                 std::string("DESTNODE=") + e.destnode + ": no line of " + *nodesFile +
                     " takes it; its actions would be reported offline");
  }
  return check.Finish(strict, &load);
}

}  // namespace qmta::hostprog
