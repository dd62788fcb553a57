// Whole events through the loaded module and the host's query service: the
// messages of every action outcome, the stack each destination uses, the
// time-out, failures of every step, and many events at once.
#include <errno.h>

#include <chrono>
#include <map>
#include <mutex>
#include <regex>
#include <set>
#include <thread>

#include "tests/support/eventfixture.h"

namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

class Actions : public qmtatest::EventFixture {
 protected:
  // One rule to `dest`, one event, and the lines after the start messages,
  // followed by the stack-size line of DISPLAY.
  Lines Outcome(const std::string& dest, const std::string& nodes) {
    Start("SITNAME=Disk* DESTNODE=" + dest + " SCRIPT=job ARG1=SITNAME;\n", nodes);
    EXPECT_EQ(Fire("Disk1", "node1", 1), 0);
    Lines lines = Drain();
    module_->Command("DISPLAY");
    Lines display = out_->TakeLines();
    if (lines.size() < 3) {
      std::string all;
      for (const std::string& line : lines) all += line + "\n";
      ADD_FAILURE() << "too few lines:\n" << all;
      return lines;
    }
    EXPECT_EQ(lines[0], "QMTA093I ACTION ENVIRONMENT INITIALIZE");
    EXPECT_EQ(lines[1], "QMTA040I ACTION STARTED FOR SITNAME=Disk1 DESTNODE=" + dest +
                            " STATE=1 REQUESTID=1");
    EXPECT_EQ(lines[2], "QMTA041I CMD=job \"Disk1\"");
    Lines tail(lines.begin() + 3, lines.end());
    if (!display.empty()) tail.push_back(display.back());
    return tail;
  }
};

const std::string kRows = "QMTA050I ACTION COMPLETED FOR SITNAME=Disk1 DESTNODE=";
const std::string kOffline = " OFFLINE FOR SITNAME=Disk1 ORIGINNODE=node1 STATE=1 REQUESTID=1";
const std::string kAsynch = "QMTA030E SELECT SQL ERROR ON ASYNCH OPEN COMPLETE STATUS=";

// Every answer a destination can give, the messages it draws, and whether
// the request went back to the stack the destination's name chose.
TEST_F(Actions, EachAnswerOfTheDestinationHasItsMessages) {
  const struct {
    std::string dest, nodes;
    Lines expected;
  } cases[] = {
      {"HOST1", "HOST* sim rc=0,4\n",
       {kRows + "HOST1 STATE=1 RC=0 REQUESTID=1", kRows + "HOST1 STATE=1 RC=4 REQUESTID=1",
        "QMTA100I STACK SIZES:  VX=0/0 RM=1/1 SNMP=0/0"}},
      // No rows is "offline" on any stack.
      {"H:SNMP_TRAP", "* sim norows\n",
       {"QMTA051W DESTNODE=H:SNMP_TRAP" + kOffline,
        "QMTA100I STACK SIZES:  VX=0/0 RM=0/0 SNMP=1/1"}},
      // Status 2020 is "offline" on the first stack only, and keeps the request.
      {"SYS1:MVS_ACTIONS", "*:MVS_ACTIONS sim offline\n",
       {"QMTA051W DESTNODE=SYS1:MVS_ACTIONS" + kOffline,
        "QMTA100I STACK SIZES:  VX=1/1 RM=0/0 SNMP=0/0"}},
      {"HOST:SNMP_TRAP:MVS_ACTIONS", "* offline\n",
       {"QMTA051W DESTNODE=HOST:SNMP_TRAP:MVS_ACTIONS" + kOffline,
        "QMTA100I STACK SIZES:  VX=1/1 RM=0/0 SNMP=0/0"}},
      // Elsewhere it is an error, and the request is dropped.
      {"HOST:SNMP_TRAP", "* offline\n",
       {kAsynch + "2020", "QMTA100I STACK SIZES:  VX=0/0 RM=0/0 SNMP=0/0"}},
      {"host:snmp_trap", "* offline\n",  // the stack names are case-sensitive
       {kAsynch + "2020", "QMTA100I STACK SIZES:  VX=0/0 RM=0/0 SNMP=0/0"}},
      {"NOWHERE", "OTHER sim rc=0\n",  // no line names it
       {kAsynch + "2020", "QMTA100I STACK SIZES:  VX=0/0 RM=0/0 SNMP=0/0"}},
      {"HOST1", "HOST1 sim status=7 delay=20\n",
       {kAsynch + "7", "QMTA100I STACK SIZES:  VX=0/0 RM=0/0 SNMP=0/0"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.dest + " " + c.nodes);
    EXPECT_EQ(Outcome(c.dest, c.nodes), c.expected);
  }
}

TEST_F(Actions, ASilentDestinationTimesOutAfterSixtySeconds) {
  // The deadline is read from the host's clock: set back by 59.7 seconds it
  // lies 0.3 seconds ahead of the real one.
  qmta::host::SetClockShift(-59700ms);
  auto begin = std::chrono::steady_clock::now();
  Lines tail = Outcome("HOST1", "HOST1 sim silent\n");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 20s);
  // ERRNO is the status the last completion left, 0; the output step is
  // still tried on the closed request, and its cursor is not open.
  EXPECT_EQ(tail, (Lines{"QMTA042E NO RESPONSE FROM DESTNODE=HOST1 FOR SITNAME=Disk1 "
                         "ORIGINNODE=node1 STATE=1 ERRNO=0 REQUESTID=1",
                         "QMTA030E SELECT SQL ERROR ON FETCH STATUS=" +
                             std::to_string(DBQ1_CURSOR_NOT_OPEN),
                         "QMTA100I STACK SIZES:  VX=0/0 RM=0/0 SNMP=0/0"}));
}

// Request ids move on with each event, so each failing step gets an event
// of its own with a known id.
TEST_F(Actions, FailingStepsEachWithTheirMessage) {
  Start("SITNAME=Disk* DESTNODE=HOST1 SCRIPT=job;\n", "HOST1 sim rc=3,5\n");
  Fire("Disk0", "node1", 1);
  ASSERT_EQ(Drain().size(), 5u);  // 093I, 040I, 041I, two 050I; id 1
  struct Case {
    qmta::host::Op op;
    int32_t skip;
    Lines expected;
  };
  const Case cases[] = {
      {qmta::host::Op::kOpenRequest, 0, {"QMTA030E SELECT SQL ERROR ON OPENREQUEST STATUS=2"}},
      {qmta::host::Op::kGetOutputSQLDA, 0,
       {"QMTA030E SELECT SQL ERROR ON GetOutputSQLDA STATUS=2"}},
      {qmta::host::Op::kFetch, 1,
       {kRows + "HOST1 STATE=1 RC=3 REQUESTID=4", "QMTA030E SELECT SQL ERROR ON FETCH STATUS=2"}},
      // A wait that fails reports its error number (the close that follows
      // fails too, which changes nothing).
      {qmta::host::Op::kCloseRequest, 0,
       {"QMTA042E NO RESPONSE FROM DESTNODE=HOST1 FOR SITNAME=Disk1 ORIGINNODE=node1 STATE=1 "
        "ERRNO=" + std::to_string(EINVAL) + " REQUESTID=5"}},
  };
  uint32_t id = 2;
  for (const Case& c : cases) {
    qmta::host::FailOperation(c.op, DBQ1_STALE_HANDLE, 1, c.skip);
    if (c.op == qmta::host::Op::kCloseRequest) {
      // The answer must come after the wait has begun for the wait to fail.
      std::string error;
      ASSERT_TRUE(qmta::host::SetDestinations("HOST1 sim rc=3,5 delay=300\n", &error));
      Fault(kFaultTimedWait, 0, 1, EINVAL);
    }
    Fire("Disk1", "node1", 1);
    Lines lines = Drain();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0], "QMTA040I ACTION STARTED FOR SITNAME=Disk1 DESTNODE=HOST1 STATE=1 "
                        "REQUESTID=" + std::to_string(id));
    EXPECT_EQ(Lines(lines.begin() + 2, lines.end()), c.expected);
    module_->Command("DISPLAY");
    EXPECT_EQ(out_->TakeLines().back(), "QMTA100I STACK SIZES:  VX=0/0 RM=0/0 SNMP=0/0");
    ++id;
  }
}

TEST_F(Actions, ARequestThatCannotBePreparedStartsNoAction) {
  Start("SITNAME=A DESTNODE=HOST1;\nSITNAME=B DESTNODE=X:MVS_ACTIONS;\n"
        "SITNAME=C DESTNODE=X:SNMP_TRAP;\n",
        "* sim rc=0\n");
  Fire("A", "n", 1);
  Drain();
  qmta::host::FailOperation(qmta::host::Op::kCreateRequest, 8);
  Fire("B", "n", 1);
  EXPECT_EQ(Drain(), Lines{"QMTA030E PULLSTACK SQL ERROR ON CREATEREQUEST STATUS=8"});
  qmta::host::FailOperation(qmta::host::Op::kGetInputSQLDA, 9);
  Fire("B", "n", 1);
  EXPECT_EQ(Drain(), Lines{"QMTA030E PULLSTACK SQL ERROR ON GetInputSQLDA STATUS=9"});
  // The allocations of the event: the action record, its command, then the
  // new request entry.
  Fault(kFaultAlloc, 2, 1, ENOMEM);
  Fire("C", "n", 1);
  EXPECT_EQ(Drain(), Lines{"QMTA000E ALLOCATION ERROR FOR REQUESTSTACKENTRY"});
  Fault(kFaultMutexLock, 1, 1, EDEADLK);  // the table lock's mutex, then the request-id lock
  Fire("C", "n", 1);
  EXPECT_EQ(Drain(), Lines{"QMTA003E GET LOCK ERROR=" + std::to_string(EDEADLK)});
  module_->Command("DISPLAY");
  EXPECT_EQ(out_->TakeLines().back(), "QMTA100I STACK SIZES:  VX=0/0 RM=1/1 SNMP=0/0");
}

TEST_F(Actions, TheLastMatchingRuleDecidesTheResult) {
  Start("SITNAME=S DESTNODE=D1;\nSITNAME=S DESTNODE=D2;\nSITNAME=T DESTNODE=D1;\n",
        "* sim rc=0\n");
  Fire("T", "n", 1);
  Drain();
  Fault(kFaultThreadCreate, 0, 1, EAGAIN);  // first rule's thread fails
  EXPECT_EQ(Fire("S", "n", 1), 0);
  Lines lines = Drain();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0], "QMTA002E THREAD CREATION ERROR=" + std::to_string(EAGAIN));
  EXPECT_EQ(lines[1].substr(0, 52), "QMTA040I ACTION STARTED FOR SITNAME=S DESTNODE=D2 ST");
  Fault(kFaultThreadCreate, 1, 1, EAGAIN);  // second rule's thread fails
  EXPECT_EQ(Fire("S", "n", 1), -2);
  EXPECT_EQ(Drain().size(), 4u);
  Fault(kFaultAlloc, 2, 1, ENOMEM);  // second rule's action record
  EXPECT_EQ(Fire("S", "n", 1), -1);
  lines = Drain();
  EXPECT_EQ(std::count(lines.begin(), lines.end(),
                       "QMTA000E ALLOCATION ERROR FOR ACTION SQL PARMS"), 1);
  EXPECT_EQ(Fire("nothing", "n", 1), 0);
  EXPECT_EQ(Drain(), Lines{});
}

// A driver that records what reached the destination and answers with one
// row, from a thread of its own.
struct Recorded {
  std::mutex mutex;
  std::vector<qmta::host::Action> actions;
} recorded;

class RecordingDriver : public qmta::host::Driver {
 public:
  explicit RecordingDriver(bool eager) : eager_(eager) {}
  void Start(const qmta::host::Action& action,
             std::shared_ptr<qmta::host::Completion> done) override {
    {
      std::lock_guard<std::mutex> hold(recorded.mutex);
      recorded.actions.push_back(action);
    }
    std::thread answer([done] { done->Rows({5}); });
    if (eager_) {
      // The completion is delivered before the action thread can wait.
      answer.join();
      std::this_thread::sleep_for(100ms);
    } else {
      answer.detach();
    }
  }

 private:
  bool eager_;
};

TEST_F(Actions, ParametersReachTheDestinationCutToTheirDeclaredLength) {
  qmta::host::RegisterDriver("record", [](const std::vector<std::string>& options,
                                          std::string*) {
    return std::make_unique<RecordingDriver>(!options.empty() && options[0] == "eager");
  });
  qmta::host::SetCommandLength(12);
  Start("SITNAME=S DESTNODE=A:MVS_ACTIONS CALLTYPE=42 SCRIPT=job ARG1=SITNAME ARG2=x;\n"
        "SITNAME=S DESTNODE=B;\n",
        "A:* record\nB record eager\n");
  Fire("S", "n", 1);
  Fault(kFaultTimedWait, 1000000, 0, 0);  // counts the waits, fails none
  Lines lines = Drain();
  qmta::host::SetCommandLength(600);
  std::lock_guard<std::mutex> hold(recorded.mutex);
  ASSERT_EQ(recorded.actions.size(), 2u);
  std::map<std::string, qmta::host::Action> byDest;
  for (const auto& action : recorded.actions) byDest[action.destination] = action;
  const qmta::host::Action& vx = byDest.at("A:MVS_ACTIONS");
  EXPECT_EQ(vx.command, "job \"S\" \"x\"");  // 11 characters: not cut
  EXPECT_EQ(vx.callType, 42);
  EXPECT_EQ(vx.table, qmta::host::EventTable::kVxEvents);
  const qmta::host::Action& rm = byDest.at("B");
  EXPECT_EQ(rm.command, "* \"S\" \"12611");  // the default list, cut at 12
  EXPECT_EQ(rm.table, qmta::host::EventTable::kRmEvents);
  EXPECT_EQ(std::set<uint32_t>({vx.requestId, rm.requestId}), (std::set<uint32_t>{1, 2}));
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                          [](const std::string& l) { return l.find("RC=5") != std::string::npos; }),
            2);
}

TEST_F(Actions, ACompletionBeforeTheWaitIsTakenWithoutWaiting) {
  qmta::host::RegisterDriver("record", [](const std::vector<std::string>&, std::string*) {
    return std::make_unique<RecordingDriver>(true);
  });
  Start("SITNAME=S DESTNODE=B;\n", "B record\n");
  Fire("T", "n", 1);  // initialises without an action
  Drain();
  Fault(kFaultTimedWait, 1000000, 0, 0);
  Fire("S", "n", 1);
  Lines lines = Drain();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[2], "QMTA050I ACTION COMPLETED FOR SITNAME=S DESTNODE=B STATE=1 RC=5 REQUESTID=1");
  auto calls = reinterpret_cast<int32_t (*)(int32_t)>(module_->Symbol("qmtatest_fault_calls"));
  EXPECT_EQ(calls(kFaultTimedWait), 0);
}

TEST_F(Actions, ManyEventsOnManyThreadsReportEveryActionOnce) {
  Start("SITNAME=Load* DESTNODE=FAST;\nSITNAME=Load* DESTNODE=SYS:MVS_ACTIONS SCRIPT=vx;\n"
        "SITNAME=Load* DESTNODE=EMPTY:SNMP_TRAP;\n",
        "FAST sim rc=0\nSYS:* sim rc=1 delay=1\nEMPTY* sim norows\n");
  constexpr int kThreads = 4, kEvents = 250;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([this, t] {
      for (int e = 0; e < kEvents; ++e)
        EXPECT_EQ(Fire("Load" + std::to_string(t), "n" + std::to_string(e), 1), 0);
    });
  for (auto& thread : threads) thread.join();
  Lines lines = Drain();
  std::regex started("QMTA040I .* REQUESTID=([0-9]+)");
  std::regex ended("QMTA05[01][IW] .* REQUESTID=([0-9]+)");
  std::map<uint32_t, int> starts, ends;
  for (const std::string& line : lines) {
    std::smatch m;
    if (std::regex_match(line, m, started))
      starts[std::stoul(m[1])]++;
    else if (std::regex_match(line, m, ended))
      ends[std::stoul(m[1])]++;
    else if (line.rfind("QMTA041I", 0) != 0 && line.rfind("QMTA093I", 0) != 0)
      ADD_FAILURE() << line;
  }
  const size_t actions = 3 * kThreads * kEvents;
  EXPECT_EQ(starts.size(), actions);
  EXPECT_EQ(ends.size(), actions);
  for (const auto& [id, count] : starts) EXPECT_EQ(count, 1) << id;
  for (const auto& [id, count] : ends) EXPECT_EQ(count, 1) << id;
  EXPECT_EQ(starts.begin()->first, 1u);
  EXPECT_EQ(starts.rbegin()->first, actions);
}

TEST_F(Actions, EventEntryChecksThePathAndTheFlag) {
  Start("SITNAME=S DESTNODE=D;\n", "* sim rc=0\n");
  EXPECT_EQ(module_->autoexit("S", "n", 0, 1, "t", 0, nullptr, nullptr, nullptr, nullptr, 0), -7);
  EXPECT_EQ(out_->TakeLines(), Lines{"QMTA007E THE PATH HANDLE IS INVALID"});
  EXPECT_EQ(State().inDS, 1);  // untouched by the refused call
  EXPECT_EQ(State().tableAnchor, nullptr);
  // The first accepted call decides inDS and initialises.
  EXPECT_EQ(Fire("S", "n", 1), 0);
  EXPECT_EQ(State().inDS, 0);
  Drain();
  // A null handle with onDS set is accepted later and copies nothing.
  EXPECT_EQ(module_->autoexit("S", "n", 0, 1, "t", 0, nullptr, nullptr, nullptr, nullptr, 1), 0);
  EXPECT_EQ(State().inDS, 0);
  Lines lines = Drain();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[1], "QMTA041I CMD=* \"S\" \"t\" \"0\" \"1\" \"n\" \"\"");
}

}  // namespace
