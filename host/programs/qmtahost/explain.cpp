#include "host/programs/qmtahost/explain.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "host/programs/qmtahost/inputline.h"
#include "host/programs/qmtahost/intake.h"
#include "host/programs/qmtahost/ruleload.h"
#include "qmtauto1/qmtauto1.h"

namespace qmta::hostprog {
namespace {

constexpr char kExplainUsage[] =
    "usage: qmtahost explain [--dir DIR] [--nodes FILE] [--allow-any-text] EVENT...\n";

// Where the action of `rule` would go.
std::string Route(const TableEntry& rule, const std::vector<NodesLine>* nodes) {
  std::string text = std::string("to ") + rule.destnode + " CALLTYPE=" +
                     std::to_string(rule.calltype) + ": ";
  if (nodes == nullptr) return text + "driver local (no --nodes: every destination runs local)";
  const NodesLine* line = RouteNode(*nodes, rule.destnode);
  if (line == nullptr) return text + "no nodes line takes it: reported offline";
  return text + "nodes line " + std::to_string(line->number) + " \"" + line->text +
         "\", driver " + line->driver;
}

void Explain(long number, const Event& event, const RuleLoad& load,
             const std::vector<NodesLine>* nodes) {
  std::vector<const char*> names, values;
  for (const auto& [name, value] : event.attributes) {
    names.push_back(name.c_str());
    values.push_back(value.c_str());
  }
  std::string timestamp;
  if (event.timestamp) {
    timestamp = *event.timestamp;
  } else {
    time_t now = time(nullptr);
    struct tm local = {};
    localtime_r(&now, &local);
    timestamp = Timestamp(local);
  }
  // The event as the module's event exit packs it.
  SitParms parms = {{'S', 'I', 'T', 'P'}, event.sitname.c_str(), event.originnode.c_str(),
                    event.prevstate, event.currstate, timestamp.c_str(),
                    static_cast<int32_t>(names.size()), names.data(), values.data(),
                    event.threshold ? event.threshold->c_str() : ""};
  printf("event %ld: SITNAME=%s ORIGINNODE=%s STATE=%d\n", number, parms.sitnameS,
         parms.originnodeS, static_cast<int>(parms.currstateL));
  size_t at = 0;
  int matched = 0;
  for (TableEntry* rule = searchiter(&parms, nullptr); rule != nullptr;
       rule = searchiter(&parms, rule)) {
    ++matched;
    while (at < load.rules.size() && load.rules[at].entry != rule) ++at;
    int32_t line = at < load.rules.size() ? load.rules[at].line : 0;
    printf("  rule at line %d: SITNAME=%s ORIGINNODE=%s STATE=%s\n", static_cast<int>(line),
           rule->sitname, rule->originnode, StateName(rule->state));
    fflush(stdout);
    AutoSql* request = formatsql(&parms, rule);  // the module prints why it made none
    if (request == nullptr) {
      puts("    no command: the module makes none (see the message above)");
    } else {
      printf("    command: %s\n", request->cmdS);
      free(request->cmdS);
      free(request);
    }
    printf("    %s\n", Route(*rule, nodes).c_str());
  }
  if (matched == 0) puts("  no rule matches");
}

}  // namespace

int RunExplain(int argc, char* const* argv) {
  Words words(argc, argv);
  std::string error;
  if (words.Read({"--help", "--allow-any-text"}, {"--dir", "--nodes"}, &error) && words.Has("--help")) {
    fputs(kExplainUsage, stdout);
    fputs("For each EVENT (a JSON event line; \"-\" reads them from standard input), the\n"
          "rules of DIR/QMTASITR that match, the command each would send and the nodes\n"
          "line and driver that would take it. Nothing runs (docs/qmtahost.md).\n"
          "An event that qmtahost would refuse at intake (a quote or control character\n"
          "in its names) is said to be refused, unless --allow-any-text is given, as it\n"
          "would be to qmtahost.\n", stdout);
    return 0;
  }
  if (error.empty() && words.rest().empty())
    error = "no event given";
  if (!error.empty()) {
    fprintf(stderr, "qmtahost: explain: %s\n%s", error.c_str(), kExplainUsage);
    return 2;
  }
  std::vector<NodesLine> nodes;
  const std::optional<std::string> nodesFile = words.Value("--nodes");
  if (nodesFile && !ReadNodesFile(*nodesFile, &nodes, &error)) {
    fprintf(stderr, "qmtahost: explain: %s\n", error.c_str());
    return 2;
  }

  const std::string file = words.Value("--dir").value_or(".") + "/QMTASITR";
  int fd = OpenRuleFile(file, kDefaultRuleFileLimit, &error);
  RuleLoad load;
  if (fd < 0 || !load.Run(fd, &error)) {
    fprintf(stderr, "qmtahost: explain: %s: %s\n", file.c_str(), error.c_str());
    if (fd >= 0) close(fd);
    return 1;
  }
  close(fd);
  // What a REFRESH of the file would print, on standard error.
  ReadMessages(load.messages(),
               [](const ModuleMessage& message) { fprintf(stderr, "%s\n", message.text.c_str()); });
  fprintf(stderr, "qmtahost: explain: %s: %zu rules loaded\n", file.c_str(), load.rules.size());

  const bool anyText = words.Has("--allow-any-text");
  int status = 0;
  long number = 0;
  auto take = [&](std::string_view text) {
    InputLine line = ParseInputLine(text);
    if (line.kind == InputLine::Kind::kSkip) return;
    ++number;
    if (line.kind == InputLine::Kind::kEvent) {
      // Refused at intake, the event would never reach the module.
      std::string refused = anyText ? "" : CheckEventText(line.event);
      if (refused.empty()) {
        Explain(number, line.event, load, nodesFile ? &nodes : nullptr);
      } else {
        printf("event %ld: refused at intake: %s; nothing would run\n", number, refused.c_str());
        status = 1;
      }
      return;
    }
    fprintf(stderr, "qmtahost: explain: event %ld: %s\n", number,
            line.kind == InputLine::Kind::kError ? line.text.c_str() : "not an event");
    status = 1;
  };
  for (const std::string& word : words.rest()) {
    if (word != "-") {
      take(word);
      continue;
    }
    char* buffer = nullptr;
    size_t size = 0;
    for (ssize_t got; (got = getline(&buffer, &size, stdin)) > 0;) {
      std::string_view text(buffer, static_cast<size_t>(got));
      while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.remove_suffix(1);
      take(text);
    }
    free(buffer);
  }
  fflush(stdout);
  return status;
}

}  // namespace qmta::hostprog
