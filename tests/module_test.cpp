// The module as a host loads it: start-up in every state the rule file can
// leave it, the operator commands, every answer a destination gives and the
// stack it uses, what reaches the destination. Failures of each step:
// faultsweep_test; hostile events and rule files: the fuzz targets.
#include <errno.h>

#include <map>
#include <mutex>
#include <regex>
#include <thread>

#include "tests/support/eventfixture.h"

namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

class ModuleTest : public qmtatest::EventFixture {
 protected:
  // One rule to `dest` and one event: the lines after the start messages,
  // then DISPLAY's stack sizes.
  Lines Outcome(const std::string& dest, const std::string& nodes) {
    Start("SITNAME=Disk* DESTNODE=" + dest + " SCRIPT=job ARG1=SITNAME;\n", nodes);
    EXPECT_EQ(Fire("Disk1", "node1", 1), 0);
    Lines lines = Drain(1);
    lines.push_back(Command("DISPLAY").back());
    EXPECT_EQ(Lines(lines.begin(), lines.begin() + 3),
              (Lines{"QMTA093I ACTION ENVIRONMENT INITIALIZE",
                     "QMTA040I ACTION STARTED FOR SITNAME=Disk1 DESTNODE=" + dest + " STATE=1 REQUESTID=1",
                     "QMTA041I CMD=job \"Disk1\""}));
    return Lines(lines.begin() + 3, lines.end());
  }
};

const char kGoodRules[] = "* rules\nSITNAME=Disk* ORIGINNODE=host* DESTNODE=D1 SCRIPT=job ARG1=NODE;\n";

TEST_F(ModuleTest, StartUpWithAGoodAMissingAndAnEmptyRuleFile) {
  Start(kGoodRules, "* sim rc=0\n");
  EXPECT_EQ(Init(), Lines{"QMTA093I ACTION ENVIRONMENT INITIALIZE"});
  EXPECT_EQ(State().automationFlag, 1);
  EXPECT_LT(State().initOnce, 0);
  EXPECT_EQ(Init(), Lines{});  // a second call does nothing

  module_ = std::make_unique<qmtatest::Module>();  // the old one is never unloaded
  dir_->Remove("QMTASITR");
  // Without a start-up call the first event initialises, and is refused.
  EXPECT_EQ(Fire("Disk1", "host1", 1), -3);
  EXPECT_EQ(out_->TakeLines(), (Lines{"QMTA009W QMTASITR COULD NOT BE OPENED", "QMTA092I ACTIONS HAVE BEEN DISABLED",
                                      "QMTA001W QMTASITR LOOKUP TABLE NOT LOADED"}));
  EXPECT_EQ(State().automationFlag, 2);
  EXPECT_EQ(Fire("Disk1", "host1", 1), -3);  // from now on without a message
  EXPECT_EQ(Init(), Lines{});

  module_ = std::make_unique<qmtatest::Module>();
  dir_->Write("QMTASITR", "* nothing but comments\n*\n");
  EXPECT_EQ(Init(), (Lines{"QMTA008W QMTASITR LOOKUP TABLE IS EMPTY", "QMTA092I ACTIONS HAVE BEEN DISABLED"}));
  // A good reload enables actions again; a failed one empties the table
  // and leaves them enabled.
  dir_->Write("QMTASITR", kGoodRules);
  EXPECT_EQ(Command("REFRESH"),
            (Lines{"QMTA090I QMTASITR REFRESHED.  STATUS=0", "QMTA093I ACTION ENVIRONMENT INITIALIZE"}));
  EXPECT_EQ(Fire("Disk1", "host1", 1), 0);
  EXPECT_EQ(Drain(1).at(1), "QMTA041I CMD=job \"host1\"");
  dir_->Remove("QMTASITR");
  EXPECT_EQ(Command("REFRESH"),
            (Lines{"QMTA009W QMTASITR COULD NOT BE OPENED", "QMTA090I QMTASITR REFRESHED.  STATUS=-9"}));
  EXPECT_EQ(State().automationFlag, 1);
  EXPECT_EQ(Fire("Disk1", "host1", 1), 0);
  EXPECT_EQ(Drain(), Lines{});
}

TEST_F(ModuleTest, CommandsDisplayAndRecognition) {
  Start("SITNAME=Disk* ORIGINNODE=\"host 1\" STATE=FALSE DESTNODE=SYS:MVS_ACTIONS CALLTYPE=12 "
        "SUBAGENT=sub ARG1=NODE ARG2=\"a b\" ARG3=%s%n;\nDESTNODE=D2 STATE=ANY;\n"
        "DESTNODE=D3 STATE=UNKNOWN ARG1=x ARG3=z;\nDESTNODE=D4 STATE=TRUE ARG2=;\n",
        "* sim rc=0\n");
  EXPECT_EQ(Command("REFRESH"), Lines{"QMTA090I QMTASITR REFRESHED.  STATUS=-7"});
  EXPECT_EQ(Command("DISPLAY"), Lines{"QMTA200E ACTION ENVIRONMENT NOT INITIALIZED DISPLAY COMMAND ENDED."});
  Init();
  const std::string rule = "QMTA095I IF SITNAME=", to = "QMTA096I    DESTNODE=", arg = "QMTA097I       ARG";
  const Lines display{
      "QMTA094I QMTASITR LOOKUP TABLE:", rule + "Disk* AND ORIGINNODE=host 1 AND STATE=FALSE THEN",
      to + "SYS:MVS_ACTIONS CALLTYPE=12 SCRIPT=sub", arg + "1=NODE", arg + "2=\"a b\"", arg + "3=%s%n",
      rule + "* AND ORIGINNODE=* AND STATE=ANY THEN", to + "D2 CALLTYPE=0 SCRIPT=*",
      rule + "* AND ORIGINNODE=* AND STATE=UNKNOWN THEN", to + "D3 CALLTYPE=0 SCRIPT=*", arg + "1=x", arg + "2=", arg + "3=z",
      rule + "* AND ORIGINNODE=* AND STATE=TRUE THEN", to + "D4 CALLTYPE=0 SCRIPT=*", arg + "1=", arg + "2=",
      "QMTA100I STACK SIZES:  VX=0/0 RM=0/0 SNMP=0/0"};
  EXPECT_EQ(Command("DISPLAY%n"), display);
  // The first seven characters after any separators decide; the text of
  // an invalid command is shown from there to its end, line end included,
  // cut at 512 characters, its percent signs printed as they are.
  const std::string refreshed = "QMTA090I QMTASITR REFRESHED.  STATUS=0", invalid = "QMTA011E INVALID QMTASITR PARM=";
  const std::pair<std::string, Lines> cases[] = {
      {" \t\v\f\r\nREFRESH\n", {refreshed}}, {"REFRESHING %n%s", {refreshed}},
      {"  refresh \n", {invalid + "refresh ", ""}}, {"\tREFRES\n", {invalid + "REFRES", ""}},
      {"%nREFRESH", {invalid + "%nREFRESH"}}, {"\t%n %s %x %p", {invalid + "%n %s %x %p"}},
      {std::string(600, '%'), {invalid + std::string(512, '%')}},
      {std::string(512, 'y'), {invalid + std::string(512, 'y')}}, {"", {invalid}}};
  for (const auto& [text, expected] : cases) EXPECT_EQ(Command(text), expected) << text;
  EXPECT_EQ(Command("DISPLAYxyz"), display);
}

TEST_F(ModuleTest, TestSituationReportsALoaderFailureOrRunsThroughTheExit) {
  Start("SITNAME=TestSituation ORIGINNODE=TESTNODE:TEST DESTNODE=TDEST SCRIPT=echo;\n", "TDEST sim rc=0\n");
  // A loader failure is reported, the reason shown as the address of the
  // reason word, and initialises nothing.
  qmta::host::RegisterLoadModule("QMTAUTOX", "/nonexistent/module.so");
  int32_t reason = -1;
  EXPECT_EQ(module_->Command("TESTSIT", &reason), 8);
  EXPECT_EQ(reason, 8);
  EXPECT_EQ(out_->TakeLines(), Lines{"QMTA015E UNABLE TO LOAD MODULE QMTAUTOX STATUS=8 REASON=" +
                                     std::to_string(static_cast<int>(reinterpret_cast<intptr_t>(&reason)))});
  EXPECT_EQ(State().tableAnchor, nullptr);
  qmta::host::RegisterLoadModule("QMTAUTOX", module_->path());
  Init();
  for (int round = 1; round <= 2; ++round) {
    EXPECT_EQ(module_->Command("TESTSIT %n"), 0);
    Lines lines = Drain(1);
    std::sort(lines.begin(), lines.end());
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0], "QMTA040I ACTION STARTED FOR SITNAME=TestSituation DESTNODE=TDEST STATE=1 REQUESTID=" +
                            std::to_string(round));
    EXPECT_TRUE(std::regex_match(lines[1], std::regex("QMTA041I CMD=echo \"TestSituation\" \"1[0-9]{15}\" \"0\" \"1\" "
                                                      "\"TESTNODE:TEST\" \"Test_Object.Test_Attrib1>80 "
                                                      "Test_Object.Test_Attrib2<100\"")))
        << lines[1];
    EXPECT_EQ(lines[3], "QMTA091I TESTSIT INVOKED.  STATUS=0");
    // The exit found once is kept: the loader is not asked again.
    qmta::host::RegisterLoadModule("QMTAUTOX", "/nonexistent/module.so");
  }
}

// Every answer a destination can give, the messages it draws, and whether
// the request went back to the stack the destination's name chose.
TEST_F(ModuleTest, EachAnswerOfTheDestinationHasItsMessages) {
  // The deadline is read from the host's clock: set back by 59.7 seconds it
  // lies 0.3 seconds ahead.
  qmta::host::SetClockShift(-59700ms);
  const std::string rows = "QMTA050I ACTION COMPLETED FOR SITNAME=Disk1 DESTNODE=",
                    offline = " OFFLINE FOR SITNAME=Disk1 ORIGINNODE=node1 STATE=1 REQUESTID=1",
                    failed = "QMTA030E SELECT SQL ERROR ON ASYNCH OPEN COMPLETE STATUS=",
                    none = "QMTA100I STACK SIZES:  VX=0/0 RM=0/0 SNMP=0/0";
  const struct {
    std::string dest, nodes;
    Lines expected;
    bool fetchFails = false;
  } cases[] = {
      {"HOST1", "HOST* sim rc=0,4\n",
       {rows + "HOST1 STATE=1 RC=0 REQUESTID=1", rows + "HOST1 STATE=1 RC=4 REQUESTID=1",
        "QMTA100I STACK SIZES:  VX=0/0 RM=1/1 SNMP=0/0"}},
      // No rows is "offline" on any stack.
      {"H:SNMP_TRAP", "* sim norows\n",
       {"QMTA051W DESTNODE=H:SNMP_TRAP" + offline, "QMTA100I STACK SIZES:  VX=0/0 RM=0/0 SNMP=1/1"}},
      // Status 2020 is "offline" on the first stack only, and keeps the request.
      {"SYS1:MVS_ACTIONS", "*:MVS_ACTIONS sim offline\n",
       {"QMTA051W DESTNODE=SYS1:MVS_ACTIONS" + offline, "QMTA100I STACK SIZES:  VX=1/1 RM=0/0 SNMP=0/0"}},
      {"HOST:SNMP_TRAP:MVS_ACTIONS", "* offline\n",
       {"QMTA051W DESTNODE=HOST:SNMP_TRAP:MVS_ACTIONS" + offline, "QMTA100I STACK SIZES:  VX=1/1 RM=0/0 SNMP=0/0"}},
      // Elsewhere it is an error, and the request is dropped.
      {"HOST:SNMP_TRAP", "* offline\n", {failed + "2020", none}},
      {"host:snmp_trap", "* offline\n", {failed + "2020", none}},  // stack names are case-sensitive
      {"NOWHERE", "OTHER sim rc=0\n", {failed + "2020", none}},     // no line names it
      {"HOST1", "HOST1 sim status=7 delay=20\n", {failed + "7", none}},
      {"HOST1", "HOST1 sim rc=0\n", {"QMTA030E SELECT SQL ERROR ON FETCH STATUS=77", none}, true},
      // ERRNO is the status the last completion left, 0; the output step is
      // still tried on the closed request, and its cursor is not open.
      {"HOST1", "HOST1 sim silent\n",
       {"QMTA042E NO RESPONSE FROM DESTNODE=HOST1 FOR SITNAME=Disk1 ORIGINNODE=node1 STATE=1 ERRNO=0 REQUESTID=1",
        "QMTA030E SELECT SQL ERROR ON FETCH STATUS=" + std::to_string(DBQ1_CURSOR_NOT_OPEN), none}},
  };
  for (const auto& c : cases) {
    qmta::host::FailOperation(qmta::host::Op::kFetch, 77, c.fetchFails);
    EXPECT_EQ(Outcome(c.dest, c.nodes), c.expected) << c.dest << " " << c.nodes;
  }
}

TEST_F(ModuleTest, TheLastMatchingRuleDecidesTheResult) {
  Start("SITNAME=S DESTNODE=D1;\nSITNAME=S DESTNODE=D2;\n", "* sim rc=0\n");
  Init();
  Fault(kFaultThreadCreate, 0, 1, EAGAIN);  // the first rule's thread
  EXPECT_EQ(Fire("S", "n", 1), 0);
  EXPECT_EQ(Drain(1).at(0), "QMTA002E THREAD CREATION ERROR=" + std::to_string(EAGAIN));
  Fault(kFaultThreadCreate, 1, 1, EAGAIN);  // the second rule's
  EXPECT_EQ(Fire("S", "n", 1), -2);
  Drain(1);
  Fault(kFaultAlloc, 2, 1, ENOMEM);  // the second rule's action record
  EXPECT_EQ(Fire("S", "n", 1), -1);
  Drain(1);
  EXPECT_EQ(Fire("nothing", "n", 1), 0);
}

// A driver that records what reached the destination and answers with one
// row from a thread of its own, before the action thread can wait.
std::mutex recordedMutex;
std::map<std::string, qmta::host::Action> recorded;

class RecordingDriver : public qmta::host::Driver {
 public:
  void Start(const qmta::host::Action& action, std::shared_ptr<qmta::host::Completion> done) override {
    {
      std::lock_guard<std::mutex> hold(recordedMutex);
      recorded[action.destination] = action;
    }
    std::thread([done] { done->Rows({5}); }).join();
    std::this_thread::sleep_for(100ms);
  }
};

TEST_F(ModuleTest, ParametersReachTheDestinationCutToTheirDeclaredLength) {
  qmta::host::RegisterDriver("record", [](const std::vector<std::string>&, std::string*) {
    return std::make_unique<RecordingDriver>();
  });
  qmta::host::SetCommandLength(12);
  Start("SITNAME=S DESTNODE=A:MVS_ACTIONS CALLTYPE=42 SCRIPT=job ARG1=SITNAME ARG2=x;\nSITNAME=S DESTNODE=B;\n",
        "A:* record\nB record\n");
  Init();
  Fault(kFaultTimedWait, 1000000, 0, 0);  // counts the waits, fails none
  Fire("S", "n", 1);
  Lines lines = Drain(2);
  auto calls = reinterpret_cast<int32_t (*)(int32_t)>(module_->Symbol("qmtatest_fault_calls"));
  EXPECT_EQ(calls(kFaultTimedWait), 0);  // the completion came first: taken without waiting
  std::lock_guard<std::mutex> hold(recordedMutex);
  const qmta::host::Action &vx = recorded.at("A:MVS_ACTIONS"), &rm = recorded.at("B");
  EXPECT_EQ(vx.command, "job \"S\" \"x\"");  // 11 characters: not cut
  EXPECT_EQ(vx.callType, 42);
  EXPECT_EQ(vx.table, qmta::host::EventTable::kVxEvents);
  EXPECT_EQ(rm.command, "* \"S\" \"12611");  // the default list, cut at 12
  EXPECT_EQ(rm.table, qmta::host::EventTable::kRmEvents);
  EXPECT_EQ(vx.requestId + rm.requestId, 3u);
  std::sort(lines.begin(), lines.end());
  EXPECT_EQ(lines.at(4), "QMTA050I ACTION COMPLETED FOR SITNAME=S DESTNODE=A:MVS_ACTIONS STATE=1 RC=5 REQUESTID=" +
                             std::to_string(vx.requestId));
}

TEST_F(ModuleTest, EventEntryChecksThePathAndTheFlag) {
  Start("SITNAME=S DESTNODE=D;\n", "* sim rc=0\n");
  EXPECT_EQ(module_->autoexit("S", "n", 0, 1, "t", 0, nullptr, nullptr, nullptr, nullptr, 0), -7);
  EXPECT_EQ(out_->TakeLines(), Lines{"QMTA007E THE PATH HANDLE IS INVALID"});
  EXPECT_EQ(State().inDS, 1);  // untouched by the refused call
  EXPECT_EQ(State().tableAnchor, nullptr);
  // The first accepted call decides inDS and initialises.
  EXPECT_EQ(Fire("S", "n", 1), 0);
  EXPECT_EQ(State().inDS, 0);
  Drain(1);
  // A null handle with onDS set is accepted later and copies nothing.
  EXPECT_EQ(module_->autoexit("S", "n", 0, 1, "t", 0, nullptr, nullptr, nullptr, nullptr, 1), 0);
  EXPECT_EQ(State().inDS, 0);
  EXPECT_EQ(Drain(1).at(1), "QMTA041I CMD=* \"S\" \"t\" \"0\" \"1\" \"n\" \"\"");
}

}  // namespace
