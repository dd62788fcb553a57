// Rule entry records rendered as text, so whole tables compare at once.
#ifndef TESTS_RULETEST_H_
#define TESTS_RULETEST_H_

#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "qmtauto1/qmtauto1.h"

using Lines = std::vector<std::string>;

namespace ruletest {

// "DEST|SIT|ORIG|state|calltype|script|" then each argument slot up to the
// last non-null one as [text], or ~ for a null slot below it.
inline std::string Render(const TableEntry& e) {
  EXPECT_EQ(0, memcmp(e.eyecatcher, "TBEN", 4));
  std::string text = std::string(e.destnode) + "|" + e.sitname + "|" + e.originnode + "|" +
                     std::to_string(e.state) + "|" + std::to_string(e.calltype) + "|" +
                     e.script + "|";
  int last = kArgCount;
  while (last > 0 && !e.args[last - 1]) --last;
  for (int i = 0; i < last; ++i) text += e.args[i] ? "[" + std::string(e.args[i]) + "]" : "~";
  return text;
}

}  // namespace ruletest

#endif  // TESTS_RULETEST_H_
