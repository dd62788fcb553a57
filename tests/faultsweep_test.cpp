// Fault sweeps over the loaded module: for one fault at a time, a fresh
// module runs the same scenario (start-up, two events to the three stacks,
// REFRESH, DISPLAY) with the 1st, 2nd, 3rd ... call of that fault failing,
// until a run sees no injected failure. After each run: only the fault's own
// messages besides the normal ones, every started action reported once, no
// query-service object left behind, no lock left held, and the module works
// again once the fault is gone. Across the sweep every message of the fault
// must have been seen. LeakSanitizer checks the module's memory at exit.
#include <errno.h>

#include <regex>

#include "qmtauto1/qmtauto1.h"
#include "tests/support/eventfixture.h"

namespace {

using Lines = std::vector<std::string>;
using qmta::host::Op;

struct Sweep {
  const char* name;
  int32_t fault;  // a QmtaFault, or -1: the query-service operation `op`
  Op op;
  int32_t error;  // error number, or the operation's status
  Lines family;   // patterns of the lines the fault draws
};
void PrintTo(const Sweep& s, std::ostream* out) { *out << s.name; }

const std::string kNoResponse = "QMTA042E NO RESPONSE FROM DESTNODE=\\S+ FOR SITNAME=S ORIGINNODE=n STATE=1 ERRNO=";
const std::string kLock = "QMTAL01S UNABLE TO ACQUIRE MUTEX LOCK IN ";
const Sweep kSweeps[] = {
    {"Alloc", kFaultAlloc, {}, ENOMEM,
     {"QMTA005S UNABLE TO ALLOCATE QMTASITR TABLE", "QMTA000E ALLOCATION ERROR FOR SITUATION TRAP TABLE ENTRY",
      "QMTA023E UNABLE TO ALLOCATE ARG(1=NODE|1=x|2=y)", "QMTA000E ALLOCATION ERROR FOR ACTION SQL PARMS",
      "QMTA000E ALLOCATION ERROR FOR ACTION COMMAND", "QMTA000E ALLOCATION ERROR FOR REQUESTSTACKENTRY"}},
    {"MutexInit", kFaultMutexInit, {}, EAGAIN,
     {"QMTAL02E UNABLE INITIALIZE MUTEX LOCK ERRNO=11", "QMTA006S UNABLE TO INITIALIZE REQUESTIDLOCK ERRNO=11",
      "QMTA006S UNABLE TO INITIALIZE STACKLOCK ERRNO=11"}},
    {"CondInit", kFaultCondInit, {}, ENOMEM, {"QMTAL02E UNABLE INITIALIZE CONDITION ERRNO=12"}},
    {"MutexLock", kFaultMutexLock, {}, EDEADLK,
     {kLock + "getslock ERRNO=35", kLock + "releaseeslock ERRNO=35", kLock + "getelock ERRNO=35",
      kLock + "releaseelock ERRNO=35", "QMTA003E GET LOCK ERROR=35",
      "QMTA030E SQLCOMPLETE SQL ERROR ON ASYNC NOTIFY GETLOCK STATUS=35", kNoResponse + "0 REQUESTID=\\d+",
      "QMTA030E SELECT SQL ERROR ON FETCH STATUS=104"}},
    {"ThreadCreate", kFaultThreadCreate, {}, EAGAIN, {"QMTA002E THREAD CREATION ERROR=11"}},
    {"TimedWait", kFaultTimedWait, {}, EINVAL, {kNoResponse + "22 REQUESTID=\\d+"}},
    {"CreatePath", -1, Op::kCreatePath, 901, {"QMTA030E INITAUTOMATION SQL ERROR ON CREATEPATH STATUS=901"}},
    {"CreateAccessPlan", -1, Op::kCreateAccessPlan, 902, {"QMTA030E INITSTACK SQL ERROR ON CREATEACCESSPLAN STATUS=902"}},
    {"CreateRequest", -1, Op::kCreateRequest, 903, {"QMTA030E PULLSTACK SQL ERROR ON CREATEREQUEST STATUS=903"}},
    {"GetInputSQLDA", -1, Op::kGetInputSQLDA, 904, {"QMTA030E PULLSTACK SQL ERROR ON GetInputSQLDA STATUS=904"}},
    {"OpenRequest", -1, Op::kOpenRequest, 905, {"QMTA030E SELECT SQL ERROR ON OPENREQUEST STATUS=905"}},
    {"CloseRequest", -1, Op::kCloseRequest, 906, {}},  // the module ignores a failed close
    {"GetOutputSQLDA", -1, Op::kGetOutputSQLDA, 907, {"QMTA030E SELECT SQL ERROR ON GetOutputSQLDA STATUS=907"}},
    {"Fetch", -1, Op::kFetch, 908, {"QMTA030E SELECT SQL ERROR ON FETCH STATUS=908"}},
};

// Lines any run may print: the normal ones and what a disabled or empty
// table draws.
const std::regex kNormal(
    "QMTA0(4[01]I|51W|9[0-7]I) .*|QMTA100I .*|QMTA008W QMTASITR LOOKUP TABLE IS EMPTY|"
    "QMTA001W QMTASITR LOOKUP TABLE NOT LOADED|QMTA200E ACTION ENVIRONMENT NOT INITIALIZED DISPLAY COMMAND ENDED.");

class FaultSweep : public qmtatest::EventFixture, public testing::WithParamInterface<std::tuple<Sweep, bool>> {
 protected:
  int32_t Hits(const Sweep& s) {
    if (s.fault < 0) return qmta::host::FailuresInjected(s.op);
    return reinterpret_cast<int32_t (*)(int32_t)>(module_->Symbol("qmtatest_fault_hits"))(s.fault);
  }
  // Action threads the module has started since the last call.
  int64_t Started() {
    auto calls = reinterpret_cast<int32_t (*)(int32_t)>(module_->Symbol("qmtatest_fault_calls"));
    int64_t created = calls(kFaultThreadCreate) - reinterpret_cast<int32_t (*)(int32_t)>(module_->Symbol("qmtatest_fault_hits"))(kFaultThreadCreate);
    return created - std::exchange(created_, created);
  }
  int64_t created_ = 0;
};

const char kRules[] = "SITNAME=S DESTNODE=RM SCRIPT=a ARG1=NODE;\nSITNAME=S DESTNODE=X:MVS_ACTIONS;\n"
                      "SITNAME=S DESTNODE=Y:SNMP_TRAP ARG1=x ARG2=y;\n";

TEST_P(FaultSweep, EveryCallFailingInTurn) {
  const auto& [s, byEvent] = GetParam();
  if (byEvent && s.op == Op::kCreatePath && s.fault < 0) GTEST_SKIP() << "the host's path is used";
  qmta::host::SetActionSettle(std::chrono::milliseconds(1));
  std::vector<std::regex> family;
  for (const std::string& pattern : s.family) family.emplace_back(pattern);
  std::vector<bool> seen(family.size());
  Start(kRules, "* sim norows delay=2\n");
  // A completion that never comes ends the wait after half a second.
  qmta::host::SetClockShift(std::chrono::milliseconds(-59500));
  for (int call = 0;; ++call) {
    SCOPED_TRACE(std::string(s.name) + " failing call " + std::to_string(call + 1));
    fprintf(stderr, "sweep %s: call %d\n", s.name, call + 1);
    const int64_t objects = qmta::host::LiveObjects();
    module_ = std::make_unique<qmtatest::Module>();
    created_ = 0;
    drained_ = qmta::host::StartedActions();
    if (s.fault >= 0)
      Fault(s.fault, call, 1, s.error);
    else {
      Fault(kFaultAlloc, 0, 0, 0);  // arms the counters only
      qmta::host::FailOperation(s.op, s.error, 1, call);
    }
    // Started by QMTAINIT, on a path of the module's own, or by the first
    // event, on the host's. Calls made on one thread come in the same order in every run; those of
    // action threads running side by side do not, so an event that matches
    // nothing comes first, and the events that do come one at a time.
    if (!byEvent) module_->Init();
    Fire("nothing", "n", 1);
    Fire("S", "n", 1);
    Lines lines = Drain(Started());
    Fire("S", "n", 1);
    for (const std::string& line : Drain(Started())) lines.push_back(line);
    module_->Command("REFRESH");
    module_->Command("DISPLAY");
    for (const std::string& line : out_->TakeLines()) lines.push_back(line);
    const int32_t hits = Hits(s);

    int outcomes = 0, starts = 0;
    for (const std::string& line : lines) {
      starts += line.starts_with("QMTA040I");
      // An answer without rows, no response, or a failed step; a time-out
      // draws a second line, the fetch on the closed request.
      outcomes += line.starts_with("QMTA051W") || line.starts_with("QMTA042E") ||
                  line.starts_with("QMTA030E SELECT");
      outcomes -= line == "QMTA030E SELECT SQL ERROR ON FETCH STATUS=104";
      bool known = std::regex_match(line, kNormal);
      for (size_t i = 0; i < family.size(); ++i)
        if (std::regex_match(line, family[i])) known = seen[i] = true;
      EXPECT_TRUE(known) << line;
    }
    EXPECT_EQ(starts, outcomes);
    QmtaTestState state = State();
    auto* anchor = static_cast<AutomationAnchor*>(state.tableAnchor);
    int64_t resting = 0;
    if (anchor) {
      EXPECT_EQ(anchor->tableLock.seCounter, 0);
      std::vector<pthread_mutex_t*> mutexes = {&anchor->tableLock.seMutex, &anchor->requestIdLock};
      for (RSTK& stack : anchor->stacks) {
        mutexes.push_back(&stack.stackLock);
        resting += stack.freeCount;
        for (RSEN* entry = stack.top; entry; entry = entry->next) mutexes.push_back(&entry->done.doneLock);
      }
      for (pthread_mutex_t* mutex : mutexes) {
        EXPECT_EQ(pthread_mutex_trylock(mutex), 0);
        pthread_mutex_unlock(mutex);
      }
    }
    EXPECT_EQ(qmta::host::LiveObjects(), objects + (state.automationFlag ? 4 - byEvent + resting : 0));

    // Without the fault the module works again, or refuses work when its
    // start-up failed.
    reinterpret_cast<void (*)()>(module_->Symbol("qmtatest_fault_reset"))();
    qmta::host::FailOperation(s.op, 0, 0);
    if (state.automationFlag == 0) {
      EXPECT_EQ(Fire("S", "n", 1), -3);
    } else {
      module_->Command("REFRESH");
      EXPECT_EQ(Fire("S", "n", 1), 0);
      lines = Drain(3);
      EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](auto& l) { return l.starts_with("QMTA051W"); }), 3)
          << testing::PrintToString(lines);
    }
    out_->TakeLines();
    if (hits == 0 || HasFailure()) break;
  }
  for (size_t i = 0; i < family.size(); ++i) EXPECT_TRUE(seen[i]) << "never seen: " << s.family[i];
}

INSTANTIATE_TEST_SUITE_P(Module, FaultSweep, testing::Combine(testing::ValuesIn(kSweeps), testing::Bool()),
                         [](const auto& info) {
                           return std::string(std::get<0>(info.param).name) + (std::get<1>(info.param) ? "ByEvent" : "");
                         });

}  // namespace
