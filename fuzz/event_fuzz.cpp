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
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "fuzz/fuzzsupport.h"
#include "qmtauto1/qmtafault.h"

namespace {

const char kRules[] =
    "SITNAME=* STATE=ANY DESTNODE=ALL;\n"
    "SITNAME=Disk* ORIGINNODE=*:NT STATE=TRUE DESTNODE=D1:MVS_ACTIONS CALLTYPE=3 SCRIPT=clean ARG1=SITNAME\n"
    "  ARG2=NODE ARG3=Disk.Name ARG4=THRESHOLD ARG5=\"literal; x\" ARG6=TIMESTAMP ARG7=PRESTATE ARG8=CURRSTATE ARG9=Disk.Free;\n"
    "SITNAME=*_Low ORIGINNODE=host* STATE=FALSE DESTNODE=D2 SCRIPT=\"q\" ARG1=A ARG2=B ARG3=C ARG4=D ARG5=E ARG6=F\n"
    "  ARG7=G ARG8=H ARG9=I;\nSITNAME=Mid*dle STATE=UNKNOWN DESTNODE=D3:SNMP_TRAP ARG1= ARG3=x;\n"
    "SITNAME=Exact STATE=* DESTNODE=D4 SUBAGENT=sub ARG1=sitname ARG2=\"%s%n\" ARG3=%n%s;\n"
    "SITNAME=a*a ORIGINNODE=b*b STATE=ANY DESTNODE=D5 ARG1=a ARG2=b ARG3=THRESHOLD;\n";

AutomationAnchor* table = nullptr;

bool terminated(const char* text, size_t size) { return memchr(text, '\0', size) != nullptr; }

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  qmtafuzz::Setup();
  table = qmtafuzz::MakeAnchor();
  qmtafuzz::WriteRuleFile(reinterpret_cast<const uint8_t*>(kRules), sizeof kRules - 1);
  int rules = loadtable() == 0 ? 0 : -100;
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
  for (size_t start = 0, end; start <= size; start = end + 1) {
    const void* nul = memchr(text + start, '\0', size - start);
    end = nul ? static_cast<size_t>(static_cast<const char*>(nul) - text) : size;
    fields.emplace_back(text + start, end - start);
  }
  fields.resize(std::max<size_t>(fields.size(), 6));
  auto field = [&](size_t i) { return i < fields.size() && fields[i] != "\x7f" ? fields[i].c_str() : nullptr; };
  std::vector<const char*> names, values;
  for (size_t i = 6; i < fields.size(); i += 2) names.push_back(field(i)), values.push_back(i + 1 < fields.size() ? field(i + 1) : "");
  SitParms event{};
  memcpy(event.eyecatcher, "SITP", 4);
  event.sitnameS = fields[0].c_str(), event.originnodeS = fields[1].c_str(), event.timestampS = fields[4].c_str();
  event.prevstateL = static_cast<int32_t>(strtoll(fields[2].c_str(), nullptr, 10));
  event.currstateL = static_cast<int32_t>(strtoll(fields[3].c_str(), nullptr, 10));
  event.thresholdS = field(5) ? field(5) : "";
  event.attribL = static_cast<int32_t>(names.size()), event.attribNames = names.data(), event.attribValues = values.data();

  qmtafuzz::Trace(size % 4 == 3);
  int32_t expected = 0;  // what the event exit must report: the last rule's fate
  uint32_t nextId = table->requestId;
  for (TableEntry* entry = searchiter(&event, nullptr); entry; entry = searchiter(&event, entry)) {
    Check(sitmatch(&event, entry) == 1, "searchiter returns matching rules");
    AutoSql* sql = formatsql(&event, entry);
    expected = sql ? -2 : -1;  // formatted, and its thread will fail; or over 600 characters
    if (!sql) continue;
    Check(memcmp(sql->eyecatcher, "ASQL", 4) == 0 && sql->requestidUL == nextId++ && sql->stateL == event.currstateL,
          "eye-catcher, request ids in sequence, current state");
    Check(strlen(sql->cmdS) <= static_cast<size_t>(kCommandMax) && strncmp(sql->cmdS, entry->script, strlen(entry->script)) == 0,
          "the command fits 600 and begins with the script");
    Check(terminated(sql->originnode, sizeof sql->originnode) && terminated(sql->sitnameS, sizeof sql->sitnameS) &&
              terminated(sql->destnodeS, sizeof sql->destnodeS) && strncmp(sql->sitnameS, event.sitnameS, kNameMax) == 0,
          "names copied, terminated within their fields");
    free(sql->cmdS);
    free(sql);
  }
  DBQ1_Handle path{};
  Check(autoexit(event.sitnameS, event.originnodeS, event.prevstateL, event.currstateL, event.timestampS, event.attribL,
                 names.data(), values.data(), field(5), &path, 0) == expected,
        "the event exit reports the last matching rule's outcome");
  qmtafuzz::Trace(false);
  return 0;
}
