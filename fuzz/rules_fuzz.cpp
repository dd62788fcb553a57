// Fuzz target: the rule file through the real reading path. Each input is
// written as QMTASITR and loaded with loadtable (tokenizer, parser, load
// under the exclusive lock); every loaded rule must then satisfy what the
// reader promises, match an event made from its own patterns, format a
// command that fits, and show in DISPLAY.
//
// Inputs whose size leaves 3 when divided by 4 are read with detail trace
// on, so the trace lines that print file text see fuzzed text too.
#include <stdlib.h>
#include <string.h>

#include <string>

#include "fuzz/fuzzsupport.h"
#include "qmtauto1/qmtauto1.h"
#include "qmtauto1/qmtautox.h"

namespace {

AutomationAnchor* table = nullptr;

bool isName(const char* text, size_t limit, int maxStars) {
  size_t length = strnlen(text, limit + 1);
  if (length == 0 || length > limit) return false;
  int stars = 0;
  for (size_t i = 0; i < length; ++i) stars += text[i] == '*';
  return stars <= maxStars;
}

std::string withoutStar(const char* pattern) {
  std::string text(pattern);
  size_t star = text.find('*');
  if (star != std::string::npos) text.erase(star, 1);
  return text;
}

void checkEntry(const TableEntry* entry) {
  using qmtafuzz::Check;
  Check(memcmp(entry->eyecatcher, "TBEN", 4) == 0, "eye-catcher");
  Check(isName(entry->destnode, kNameMax, 0), "destination: 1 to 32, no '*'");
  Check(isName(entry->sitname, kNameMax, 1), "situation pattern: 1 to 32, one '*'");
  Check(isName(entry->originnode, kNameMax, 1), "origin pattern: 1 to 32, one '*'");
  Check(isName(entry->script, kScriptMax, kScriptMax), "script: 1 to 8");
  Check(entry->state == kStateUnknown || entry->state == kStateTrue ||
            entry->state == kStateFalse || entry->state == kStateAny,
        "state code");
  Check(entry->calltype >= 0 && entry->calltype <= 99, "call type");
  for (int i = 1; i < kArgCount; ++i)
    if (entry->args[i] != nullptr) Check(entry->args[i - 1] != nullptr, "argument gap");

  // A rule matches the event made of its own patterns without the '*'.
  std::string sitname = withoutStar(entry->sitname);
  std::string node = withoutStar(entry->originnode);
  const char* names[] = {"Attr.A", "Attr.B"};
  const char* values[] = {"value \"a\"", ""};
  SitParms event;
  memset(&event, 0, sizeof event);
  memcpy(event.eyecatcher, "SITP", 4);
  event.sitnameS = sitname.c_str();
  event.originnodeS = node.c_str();
  event.prevstateL = 2;
  event.currstateL = entry->state == kStateAny ? 7 : static_cast<int32_t>(entry->state);
  event.timestampS = "1261116000509000";
  event.attribL = 2;
  event.attribNames = names;
  event.attribValues = values;
  event.thresholdS = "Attr.A>\"1\"";
  Check(sitmatch(&event, entry) == 1, "a rule matches its own patterns");

  AutoSql* sql = formatsql(&event, entry);
  if (sql == nullptr) return;  // a command over 600 characters is refused
  size_t length = strlen(sql->cmdS);
  Check(length <= static_cast<size_t>(kCommandMax), "command fits 600");
  Check(strncmp(sql->cmdS, entry->script, strlen(entry->script)) == 0,
        "command begins with the script");
  Check(strcmp(sql->destnodeS, entry->destnode) == 0, "destination copied");
  free(sql->cmdS);
  free(sql);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  qmtafuzz::Setup();
  table = qmtafuzz::MakeAnchor();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qmtafuzz::Trace(size % 4 == 3);
  qmtafuzz::WriteRuleFile(data, size);
  int32_t status = loadtable();
  const TableEntry* head = relaxedLoad(table->entries);
  qmtafuzz::Check(status == 0 ? head != nullptr : status == -8 && head == nullptr,
                  "status 0 with rules, -8 without");
  for (const TableEntry* entry = head; entry != nullptr; entry = entry->next)
    checkEntry(entry);
  const char display[] = "DISPLAY";
  QMTA_CommandText command{display, nullptr, sizeof display - 1};
  int32_t reason = 0;
  qmtautocmd(nullptr, &command, nullptr, &reason);
  qmtafuzz::Trace(false);
  return 0;
}
