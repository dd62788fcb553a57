// Internals of the rule file reader shared by the tokenizer, the entry
// parser and the table load. Not part of the module's published surface.
#ifndef QMTAUTO1_RULEFILE_H_
#define QMTAUTO1_RULEFILE_H_

#include <stdint.h>

namespace qmta::rules {

// Tag numbers returned by getnexttag.
enum Tag : int32_t {
  kTagEnd = 0,  // ";"
  kTagSitname = 1,
  kTagOriginnode = 2,
  kTagState = 3,
  kTagDestnode = 4,
  kTagCalltype = 5,
  kTagScript = 6,
  kTagSubagent = 7,
  kTagArg1 = 8,  // ARG1= .. ARG9= are 8 .. 16
  kTagArg9 = 16,
  kTagCount = 17,
  kTagEof = 100,
  kTagSyntax = 101,
};

// Size of the tokenizer's line buffer and the read limit handed to fgets.
constexpr int kLineBufferSize = 516;
constexpr int kLineReadLimit = 514;

// Puts the tokenizer back to "no file started" (position null, nothing
// pending). A load calls this before it opens the rule file, so a load that
// stopped early (an allocation failure) cannot leave the next one reading
// the rest of an old line.
void restarttokenizer();
// The same for the entry parser: its value pointer goes back to an empty
// string and its line number to 0.
void restartparser();

}  // namespace qmta::rules

#endif  // QMTAUTO1_RULEFILE_H_
