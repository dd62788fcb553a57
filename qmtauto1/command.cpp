// The operator commands: REFRESH, DISPLAY and TESTSIT.
#include <stdint.h>
#include <string.h>
#include <time.h>

#include <string_view>

#include "platform/ldr1.h"
#include "platform/zbl.h"
#include "qmtauto1/qmtamsg.h"
#include "qmtauto1/qmtautox.h"
#include "qmtauto1/qmtauto1.h"

namespace {

constexpr size_t kCommandCopy = 512;
constexpr std::string_view kSeparators = "\n\t\r\f\v ";

// The module's own event exit, as the loader found it; kept once found.
QMTAUTOX_Entry testExit = nullptr;

const int8_t testAttribCount = 2;
const char* const testAttribNames[] = {"Test_Object.Test_Attrib1",
                                       "Test_Object.Test_Attrib2"};
const char* const testAttribValues[] = {"Test_Value1", "Test_Value2"};

const char* stateText(uint32_t state) {
  switch (state) {
    case kStateUnknown: return "UNKNOWN";
    case kStateTrue: return "TRUE";
    case kStateFalse: return "FALSE";
    default: return "ANY";
  }
}

void refresh() {
  int32_t status = loadtable();
  qmtaMessage("QMTA090I QMTASITR REFRESHED.  STATUS=%d\n", status);
  if (status == 0 && relaxedLoad(automationFlag) == 2) {
    qmtaMessage("QMTA093I ACTION ENVIRONMENT INITIALIZE\n");
    relaxedStore(automationFlag, 1);
  }
}

// A snapshot taken without locks: the host delivers commands one at a time,
// so no reload runs while the list is walked.
void display() {
  AutomationAnchor* table = anchor();
  if (table == nullptr) {
    qmtaMessage("QMTA200E ACTION ENVIRONMENT NOT INITIALIZED DISPLAY COMMAND ENDED.\n");
    return;
  }
  qmtaMessage("QMTA094I QMTASITR LOOKUP TABLE:\n");
  for (const TableEntry* entry = relaxedLoad(table->entries); entry != nullptr;
       entry = entry->next) {
    qmtaMessage("QMTA095I IF SITNAME=%s AND ORIGINNODE=%s AND STATE=%s THEN\n",
                entry->sitname, entry->originnode, stateText(entry->state));
    qmtaMessage("QMTA096I    DESTNODE=%s CALLTYPE=%d SCRIPT=%s\n", entry->destnode,
                entry->calltype, entry->script);
    for (int i = 0; i < kArgCount && entry->args[i] != nullptr; ++i)
      qmtaMessage("QMTA097I       ARG%d=%s\n", i + 1, entry->args[i]);
  }
  RSTK* stacks = table->stacks;
  qmtaMessage("QMTA100I %s VX=%d/%d RM=%d/%d SNMP=%d/%d\n", "STACK SIZES: ",
              relaxedLoad(stacks[kVxStack].freeCount), relaxedLoad(stacks[kVxStack].totalCount),
              relaxedLoad(stacks[kRmStack].freeCount), relaxedLoad(stacks[kRmStack].totalCount),
              relaxedLoad(stacks[kSnmpStack].freeCount),
              relaxedLoad(stacks[kSnmpStack].totalCount));
}

int32_t testsit(int32_t* reason) {
  QMTAUTOX_Entry exit = relaxedLoad(testExit);
  if (exit == nullptr) {
    void* found = nullptr;
    int32_t status = LDR1_FindEntry("QMTAUTOX", "QMTAUTOX", &found, reason);
    if (status != 0) {
      relaxedStore(testExit, static_cast<QMTAUTOX_Entry>(nullptr));
      // REASON shows the reference to the reason word, not its content.
      qmtaMessage("QMTA015E UNABLE TO LOAD %s STATUS=%d REASON=%d\n", "MODULE QMTAUTOX",
                  status, static_cast<int>(reinterpret_cast<intptr_t>(reason)));
      return status;
    }
    exit = reinterpret_cast<QMTAUTOX_Entry>(found);
    relaxedStore(testExit, exit);
  }

  time_t now = time(nullptr);
  struct tm broken = {};
  if (const struct tm* local = zblreltm(&now)) broken = *local;
  char timestamp[kTimestampBuffer];
  gettimestamp(timestamp, &broken);

  int32_t result = exit("TestSituation", "TESTNODE:TEST", 0, 1, timestamp, testAttribCount,
                        testAttribNames, testAttribValues,
                        "Test_Object.Test_Attrib1>80 Test_Object.Test_Attrib2<100", nullptr, 1);
  qmtaMessage("QMTA091I TESTSIT INVOKED.  STATUS=%d\n", result);
  return 0;
}

}  // namespace

int32_t qmtautocmd(void* /*context*/, const void* command, void* /*unused*/,
                   int32_t* reason) {
  TraceFlow flow(kUnitModule, "qmtautocmd");
  int32_t zero = 0;
  if (reason == nullptr) reason = &zero;
  *reason = 0;

  const auto* descriptor = static_cast<const QMTA_CommandText*>(command);
  char copy[kCommandCopy + 1];
  size_t length = descriptor->length >= kCommandCopy + 1 ? kCommandCopy : descriptor->length;
  if (length > 0) memcpy(copy, descriptor->text, length);
  copy[length] = '\0';

  std::string_view text(copy);  // a NUL in the command ends it
  size_t start = text.find_first_not_of(kSeparators);
  text.remove_prefix(start == std::string_view::npos ? text.size() : start);

  int32_t result = 0;
  if (text.starts_with("REFRESH")) {
    refresh();
  } else if (text.starts_with("DISPLAY")) {
    display();
  } else if (text.starts_with("TESTSIT")) {
    result = testsit(reason);
  } else {
    // Printed whole, as a value: the command text is never a format.
    qmtaMessage("QMTA011E INVALID QMTASITR PARM=%s\n", text.data());
  }
  return flow.exit(result);
}
