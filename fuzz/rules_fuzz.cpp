// Fuzz target: the rule file through the real reading path. Each input is
// written as QMTASITR and loaded with loadtable (tokenizer, parser, load
// under the exclusive lock); every loaded rule must then satisfy what the
// reader promises, match an event made from its own patterns, format a
// command that fits, and show in DISPLAY. Inputs whose size leaves 3 when
// divided by 4 are read with detail trace on.
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>

#include "fuzz/fuzzsupport.h"
#include "qmtauto1/qmtautox.h"

namespace {

using qmtafuzz::Check;

// 1 to `limit` characters with at most `stars` '*'.
bool isName(const char* text, size_t limit, int stars) {
  size_t length = strnlen(text, limit + 1);
  return length > 0 && length <= limit && std::count(text, text + length, '*') <= stars;
}

std::string withoutStar(const char* pattern) {
  std::string text(pattern);
  if (size_t star = text.find('*'); star != std::string::npos) text.erase(star, 1);
  return text;
}

void checkEntry(const TableEntry* entry) {
  Check(memcmp(entry->eyecatcher, "TBEN", 4) == 0 && isName(entry->destnode, kNameMax, 0) &&
            isName(entry->sitname, kNameMax, 1) && isName(entry->originnode, kNameMax, 1) &&
            isName(entry->script, kScriptMax, kScriptMax),
        "eye-catcher; destination, patterns and script within their limits");
  Check(entry->state == kStateUnknown || entry->state == kStateTrue || entry->state == kStateFalse ||
            entry->state == kStateAny,
        "state code");
  Check(entry->calltype >= 0 && entry->calltype <= 99, "call type");
  for (int i = 1; i < kArgCount; ++i) Check(!entry->args[i] || entry->args[i - 1], "no argument gap");
  // A rule matches the event made of its own patterns without the '*'.
  std::string sitname = withoutStar(entry->sitname), node = withoutStar(entry->originnode);
  const char* names[] = {"Attr.A", "Attr.B"};
  const char* values[] = {"value \"a\"", ""};
  SitParms event{};
  memcpy(event.eyecatcher, "SITP", 4);
  event.sitnameS = sitname.c_str(), event.originnodeS = node.c_str(), event.timestampS = "1261116000509000";
  event.prevstateL = 2, event.currstateL = entry->state == kStateAny ? 7 : static_cast<int32_t>(entry->state);
  event.attribL = 2, event.attribNames = names, event.attribValues = values, event.thresholdS = "Attr.A>\"1\"";
  Check(sitmatch(&event, entry) == 1, "a rule matches its own patterns");
  AutoSql* sql = formatsql(&event, entry);
  if (sql == nullptr) return;  // a command over 600 characters is refused
  Check(strlen(sql->cmdS) <= static_cast<size_t>(kCommandMax) && strncmp(sql->cmdS, entry->script, strlen(entry->script)) == 0 &&
            strcmp(sql->destnodeS, entry->destnode) == 0,
        "the command fits 600 and begins with the script; the destination copied");
  free(sql->cmdS);
  free(sql);
}

AutomationAnchor* table = nullptr;

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
  Check(status == 0 ? head != nullptr : status == -8 && head == nullptr, "status 0 with rules, -8 without");
  for (const TableEntry* entry = head; entry != nullptr; entry = entry->next) checkEntry(entry);
  QMTA_CommandText command{"DISPLAY", nullptr, 7};
  int32_t reason = 0;
  qmtautocmd(nullptr, &command, nullptr, &reason);
  qmtafuzz::Trace(false);
  return 0;
}
