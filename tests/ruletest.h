// Helpers for the rule table tests: an anchor of their own, and records
// rendered as text so that whole tables compare in one assertion.
#ifndef TESTS_RULETEST_H_
#define TESTS_RULETEST_H_

#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "qmtauto1/qmtauto1.h"

namespace ruletest {

// "DEST|SIT|ORIG|state|calltype|script|args": each argument slot up to the
// last non-null one as [text], a null slot below it as ~.
inline std::string Render(const TableEntry& e) {
  std::string text = std::string(e.destnode) + "|" + e.sitname + "|" +
                     e.originnode + "|" + std::to_string(e.state) + "|" +
                     std::to_string(e.calltype) + "|" + e.script + "|";
  int last = kArgCount;
  while (last > 0 && e.args[last - 1] == nullptr) --last;
  for (int i = 0; i < last; ++i)
    text += e.args[i] ? "[" + std::string(e.args[i]) + "]" : std::string("~");
  return text;
}

inline std::vector<std::string> RenderList(const TableEntry* head) {
  std::vector<std::string> out;
  for (; head != nullptr; head = head->next) {
    EXPECT_EQ(0, memcmp(head->eyecatcher, "TBEN", 4));
    out.push_back(Render(*head));
  }
  return out;
}

// A zero-filled anchor with its table lock, published in tableAnchor.
inline AutomationAnchor* MakeAnchor() {
  auto* a = static_cast<AutomationAnchor*>(calloc(1, sizeof(AutomationAnchor)));
  memcpy(a->eyecatcher, "TABL", 4);
  EXPECT_EQ(0, qmtalint(&a->tableLock));
  publishAnchor(a);
  return a;
}

inline void DropAnchor(AutomationAnchor* a) {
  publishAnchor(nullptr);
  for (TableEntry* e = a->entries; e != nullptr;) {
    TableEntry* next = e->next;
    freeentry(e);
    e = next;
  }
  free(a);
}

}  // namespace ruletest

#endif  // TESTS_RULETEST_H_
