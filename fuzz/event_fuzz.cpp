// Fuzz target: one situation event with arbitrary names, values, states
// and attributes against a fixed rule set that uses every substitution
// variable, attribute names, literals and each kind of pattern.
//
// The input is cut at NUL bytes into fields: situation name, origin node,
// previous state, current state (decimal texts), timestamp, threshold, then
// attribute name and value pairs (an odd last field is a name with an empty
// value). A field that is exactly 0x7f stands for a null pointer where the
// host may pass one (threshold, attribute names and values).
//
// Each event is matched and formatted twice: directly with searchiter and
// formatsql, whose records are checked, and through the module's event
// exit with thread creation made to fail, so that no action thread starts
// and autoexit's result can be compared with the direct walk.
#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "fuzz/fuzzsupport.h"
#include "qmtauto1/qmtafault.h"
#include "qmtauto1/qmtauto1.h"

namespace {

const char kRules[] =
    "* every variable, literals, attribute names and each kind of pattern\n"
    "SITNAME=* STATE=ANY DESTNODE=ALL;\n"
    "SITNAME=Disk* ORIGINNODE=*:NT STATE=TRUE DESTNODE=D1:MVS_ACTIONS CALLTYPE=3\n"
    "  SCRIPT=clean ARG1=SITNAME ARG2=NODE ARG3=Disk.Name ARG4=THRESHOLD\n"
    "  ARG5=\"literal; x\" ARG6=TIMESTAMP ARG7=PRESTATE ARG8=CURRSTATE ARG9=Disk.Free;\n"
    "SITNAME=*_Low ORIGINNODE=host* STATE=FALSE DESTNODE=D2 SCRIPT=\"q\"\n"
    "  ARG1=A ARG2=B ARG3=C ARG4=D ARG5=E ARG6=F ARG7=G ARG8=H ARG9=I;\n"
    "SITNAME=Mid*dle STATE=UNKNOWN DESTNODE=D3:SNMP_TRAP ARG1= ARG3=x;\n"
    "SITNAME=Exact STATE=* DESTNODE=D4 SUBAGENT=sub ARG1=sitname ARG2=\"%s%n\" ARG3=%n%s;\n"
    "SITNAME=a*a ORIGINNODE=b*b STATE=ANY DESTNODE=D5 ARG1=a ARG2=b ARG3=THRESHOLD;\n";

AutomationAnchor* table = nullptr;

const char* field(const std::vector<std::string>& fields, size_t index, bool nullable) {
  if (index >= fields.size()) return "";
  if (nullable && fields[index] == "\x7f") return nullptr;
  return fields[index].c_str();
}

int32_t state(const std::vector<std::string>& fields, size_t index) {
  if (index >= fields.size()) return 0;
  long long value = strtoll(fields[index].c_str(), nullptr, 10);
  return static_cast<int32_t>(static_cast<uint32_t>(value));
}

bool terminated(const char* text, size_t size) { return memchr(text, '\0', size) != nullptr; }

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  qmtafuzz::Setup();
  table = qmtafuzz::MakeAnchor();
  qmtafuzz::WriteRuleFile(reinterpret_cast<const uint8_t*>(kRules), sizeof kRules - 1);
  qmtafuzz::Check(loadtable() == 0, "the fixed rules load");
  int rules = 0;
  for (TableEntry* entry = table->entries; entry != nullptr; entry = entry->next) ++rules;
  qmtafuzz::Check(rules == 6, "all six fixed rules load");
  // The environment counts as initialised: the event exit goes straight to
  // the search. Every action thread fails to start, so none runs.
  initOnce = -1;
  automationFlag = 1;
  qmtatest_fault_arm(kFaultThreadCreate, 0, INT32_MAX, EAGAIN);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using qmtafuzz::Check;
  std::vector<std::string> fields;
  const char* text = reinterpret_cast<const char*>(data);
  for (size_t start = 0; start <= size;) {
    const void* nul = memchr(text + start, '\0', size - start);
    size_t end = nul ? static_cast<size_t>(static_cast<const char*>(nul) - text) : size;
    fields.emplace_back(text + start, end - start);
    start = end + 1;
  }
  std::vector<const char*> names, values;
  for (size_t i = 6; i < fields.size(); i += 2) {
    names.push_back(field(fields, i, true));
    values.push_back(field(fields, i + 1, true));
  }

  SitParms event;
  memset(&event, 0, sizeof event);
  memcpy(event.eyecatcher, "SITP", 4);
  event.sitnameS = field(fields, 0, false);
  event.originnodeS = field(fields, 1, false);
  event.prevstateL = state(fields, 2);
  event.currstateL = state(fields, 3);
  event.timestampS = field(fields, 4, false);
  const char* threshold = field(fields, 5, true);
  event.thresholdS = threshold ? threshold : "";
  event.attribL = static_cast<int32_t>(names.size());
  event.attribNames = names.data();
  event.attribValues = values.data();

  qmtafuzz::Trace(size % 4 == 3);
  int32_t expected = 0;  // what the event exit must report: the last rule's fate
  uint32_t nextId = table->requestId;
  for (TableEntry* entry = searchiter(&event, nullptr); entry != nullptr;
       entry = searchiter(&event, entry)) {
    Check(sitmatch(&event, entry) == 1, "searchiter returns matching rules");
    AutoSql* sql = formatsql(&event, entry);
    if (sql == nullptr) {  // a command over 600 characters
      expected = -1;
      continue;
    }
    expected = -2;  // formatted; its thread will fail to start
    Check(memcmp(sql->eyecatcher, "ASQL", 4) == 0, "eye-catcher");
    Check(sql->requestidUL == nextId, "request ids in sequence");
    nextId = sql->requestidUL + 1;
    Check(strlen(sql->cmdS) <= static_cast<size_t>(kCommandMax), "command fits 600");
    Check(strncmp(sql->cmdS, entry->script, strlen(entry->script)) == 0,
          "command begins with the script");
    Check(terminated(sql->originnode, sizeof sql->originnode) &&
              terminated(sql->sitnameS, sizeof sql->sitnameS) &&
              terminated(sql->destnodeS, sizeof sql->destnodeS),
          "names terminated within their fields");
    Check(strncmp(sql->sitnameS, event.sitnameS, kNameMax) == 0, "situation name copied");
    Check(sql->stateL == event.currstateL, "current state copied");
    free(sql->cmdS);
    free(sql);
  }

  DBQ1_Handle path{};
  int32_t result = autoexit(event.sitnameS, event.originnodeS, event.prevstateL,
                            event.currstateL, event.timestampS, event.attribL,
                            names.data(), values.data(), threshold, &path, 0);
  Check(result == expected, "the event exit reports the last matching rule's outcome");
  qmtafuzz::Trace(false);
  return 0;
}
