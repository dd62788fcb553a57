// The module as a host loads it: start-up in every state the rule file and
// the host can leave it, failure of each initialisation step, the operator
// commands, and reloads while events flow.
#include <errno.h>
#include <stdio.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <regex>
#include <thread>

#include "tests/support/eventfixture.h"

namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

class ModuleControl : public qmtatest::EventFixture {
 protected:
  void TearDown() override {
    qmta::host::SetTraceLevel(0);
    qmta::host::SetNodeInfoFails(false);
    EventFixture::TearDown();
  }
  Lines Command(const std::string& text, int32_t* result = nullptr) {
    int32_t rc = module_->Command(text);
    if (result) *result = rc;
    return out_->TakeLines();
  }
  // QMTAINIT and the lines it printed.
  Lines Init() {
    module_->Init();
    return out_->TakeLines();
  }
};

const char kGoodRules[] =
    "* rules of the test\n"
    "SITNAME=Disk* ORIGINNODE=host* STATE=TRUE DESTNODE=D1 CALLTYPE=7 SCRIPT=job ARG1=NODE;\n";

TEST_F(ModuleControl, StartUpOrFirstEventWithAGoodAMissingAndAnEmptyRuleFile) {
  Start(kGoodRules, "* sim rc=0\n");
  EXPECT_EQ(Init(), Lines{"QMTA093I ACTION ENVIRONMENT INITIALIZE"});
  EXPECT_EQ(State().automationFlag, 1);
  EXPECT_NE(State().tableAnchor, nullptr);
  EXPECT_LT(State().initOnce, 0);
  EXPECT_EQ(Init(), Lines{});  // a second call does nothing

  module_ = std::make_unique<qmtatest::Module>();  // the old one is never unloaded
  dir_->Remove("QMTASITR");
  // Without a start-up call the first event initialises, and is refused.
  EXPECT_EQ(Fire("Disk1", "host1", 1), -3);
  EXPECT_EQ(out_->TakeLines(), (Lines{"QMTA009W QMTASITR COULD NOT BE OPENED",
                                      "QMTA092I ACTIONS HAVE BEEN DISABLED",
                                      "QMTA001W QMTASITR LOOKUP TABLE NOT LOADED"}));
  EXPECT_EQ(State().automationFlag, 2);
  EXPECT_NE(State().tableAnchor, nullptr);
  EXPECT_EQ(Fire("Disk1", "host1", 1), -3);  // from now on without a message
  EXPECT_EQ(Init(), Lines{});

  module_ = std::make_unique<qmtatest::Module>();
  dir_->Write("QMTASITR", "* nothing but comments\n*\n");
  EXPECT_EQ(Init(), (Lines{"QMTA008W QMTASITR LOOKUP TABLE IS EMPTY",
                           "QMTA092I ACTIONS HAVE BEEN DISABLED"}));
  // A good reload enables actions again.
  dir_->Write("QMTASITR", kGoodRules);
  EXPECT_EQ(Command("REFRESH"), (Lines{"QMTA090I QMTASITR REFRESHED.  STATUS=0",
                                       "QMTA093I ACTION ENVIRONMENT INITIALIZE"}));
  EXPECT_EQ(State().automationFlag, 1);
  EXPECT_EQ(Fire("Disk1", "host1", 1), 0);
  Lines lines = Drain(1);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[1], "QMTA041I CMD=job \"host1\"");
  // A failed reload keeps actions enabled but empties the table.
  dir_->Remove("QMTASITR");
  EXPECT_EQ(Command("REFRESH"), (Lines{"QMTA009W QMTASITR COULD NOT BE OPENED",
                                       "QMTA090I QMTASITR REFRESHED.  STATUS=-9"}));
  EXPECT_EQ(State().automationFlag, 1);
  EXPECT_EQ(Fire("Disk1", "host1", 1), 0);
  EXPECT_EQ(Drain(), Lines{});
}

TEST_F(ModuleControl, StartUpAndFirstEventsRacingInitialiseOnce) {
  Start("SITNAME=S DESTNODE=D;\n", "* sim rc=0\n");
  std::atomic<int> ready{0}, results{0};
  // Four events and three start-up calls, let go together.
  qmtatest::OnThreads(7, [&](int i) {
    for (++ready; ready.load() < 7;) std::this_thread::yield();
    if (i < 4)
      results += Fire("S", "n", 1) == 0;
    else
      module_->Init();  // on a thread of its own, which QMTAINIT detaches
  });
  Lines lines = Drain(4);
  EXPECT_EQ(results.load(), 4);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "QMTA093I ACTION ENVIRONMENT INITIALIZE"), 1);
  EXPECT_EQ(lines.front(), "QMTA093I ACTION ENVIRONMENT INITIALIZE");
  EXPECT_EQ(lines.size(), 1u + 4 * 3);
}

TEST_F(ModuleControl, EachFailingStartUpStepLeavesTheStateItShould) {
  struct Case {
    const char* name;
    std::function<void(ModuleControl&)> arm;
    Lines expected;
    bool anchorKept;
  };
  const std::string again = std::to_string(EAGAIN);
  const Case cases[] = {
      {"path", [](ModuleControl&) { qmta::host::FailOperation(qmta::host::Op::kCreatePath, 101); },
       {"QMTA030E INITAUTOMATION SQL ERROR ON CREATEPATH STATUS=101"}, false},
      {"anchor", [](ModuleControl& t) { t.Fault(kFaultAlloc, 0, 1, ENOMEM); },
       {"QMTA005S UNABLE TO ALLOCATE QMTASITR TABLE"}, false},
      {"table lock", [](ModuleControl& t) { t.Fault(kFaultMutexInit, 0, 1, EAGAIN); },
       {"QMTAL02E UNABLE INITIALIZE MUTEX LOCK ERRNO=" + again}, true},
      {"request-id lock", [](ModuleControl& t) { t.Fault(kFaultMutexInit, 1, 1, EAGAIN); },
       {"QMTA006S UNABLE TO INITIALIZE REQUESTIDLOCK ERRNO=" + again}, false},
      {"VX stack lock", [](ModuleControl& t) { t.Fault(kFaultMutexInit, 2, 1, EAGAIN); },
       {"QMTA006S UNABLE TO INITIALIZE STACKLOCK ERRNO=" + again}, false},
      {"RM plan",
       [](ModuleControl&) { qmta::host::FailOperation(qmta::host::Op::kCreateAccessPlan, 3, 1, 1); },
       {"QMTA030E INITSTACK SQL ERROR ON CREATEACCESSPLAN STATUS=3"}, false},
  };
  Start("SITNAME=S DESTNODE=D;\n", "* sim rc=0\n");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    module_ = std::make_unique<qmtatest::Module>();
    c.arm(*this);
    EXPECT_EQ(Init(), c.expected);
    QmtaTestState state = State();
    EXPECT_EQ(state.automationFlag, 0);
    EXPECT_EQ(state.tableAnchor != nullptr, c.anchorKept);
    // Every entry refuses work from now on.
    EXPECT_EQ(Fire("S", "n", 1), -3);
    const Lines display =
        c.anchorKept ? Lines{"QMTA094I QMTASITR LOOKUP TABLE:",
                             "QMTA100I STACK SIZES:  VX=0/0 RM=0/0 SNMP=0/0"}
                     : Lines{"QMTA200E ACTION ENVIRONMENT NOT INITIALIZED DISPLAY COMMAND ENDED."};
    EXPECT_EQ(Command("DISPLAY"), display);
    reinterpret_cast<void (*)()>(module_->Symbol("qmtatest_fault_reset"))();
  }
}

TEST_F(ModuleControl, AFailedStackReleasesWhatWasPreparedBeforeIt) {
  Start("SITNAME=S DESTNODE=D;\n", "* sim rc=0\n");
  const int64_t before = qmta::host::LiveObjects();
  // The SNMP stack's plan fails: the RM and VX plans and the module's own
  // path are released again.
  qmta::host::FailOperation(qmta::host::Op::kCreateAccessPlan, 3, 1, 2);
  EXPECT_EQ(Init(), Lines{"QMTA030E INITSTACK SQL ERROR ON CREATEACCESSPLAN STATUS=3"});
  EXPECT_EQ(qmta::host::LiveObjects(), before);
  EXPECT_EQ(State().tableAnchor, nullptr);
}

TEST_F(ModuleControl, WithoutNodeInformationThePathGoesToTheDefaultServer) {
  Start("SITNAME=S DESTNODE=D;\n", "* sim rc=0\n");
  qmta::host::SetNodeInfoFails(true);
  qmta::host::SetServerName("SRVR01");
  qmta::host::SetUnitTraceLevel("qmtauto1", 1);  // the warning comes with tracing only
  Lines lines = Init();
  qmta::host::SetUnitTraceLevel("qmtauto1", 0);
  EXPECT_EQ(lines, (Lines{"QMTA028W ENVR_QueryInfo failed, defaulting to SRVR01",
                          "QMTA029I DBQ1_CreatePath status=0",
                          "QMTA093I ACTION ENVIRONMENT INITIALIZE"}));
  // Without tracing, the same start-up says only what it did.
  module_ = std::make_unique<qmtatest::Module>();
  EXPECT_EQ(Init(), Lines{"QMTA093I ACTION ENVIRONMENT INITIALIZE"});
}

TEST_F(ModuleControl, DisplayListsEveryKindOfField) {
  Start("SITNAME=Disk* ORIGINNODE=\"host 1\" STATE=FALSE DESTNODE=SYS:MVS_ACTIONS CALLTYPE=12 "
        "SUBAGENT=sub ARG1=NODE ARG2=\"a b\" ARG3=%s%n;\n"
        "DESTNODE=D2 STATE=ANY;\n"
        "DESTNODE=D3 STATE=UNKNOWN ARG1=x ARG3=z;\n"
        "DESTNODE=D4 STATE=TRUE ARG2=;\n",
        "* sim rc=0\n");
  EXPECT_EQ(Command("DISPLAY"),
            Lines{"QMTA200E ACTION ENVIRONMENT NOT INITIALIZED DISPLAY COMMAND ENDED."});
  Init();
  EXPECT_EQ(Command("DISPLAY"),
            (Lines{"QMTA094I QMTASITR LOOKUP TABLE:",
                   "QMTA095I IF SITNAME=Disk* AND ORIGINNODE=host 1 AND STATE=FALSE THEN",
                   "QMTA096I    DESTNODE=SYS:MVS_ACTIONS CALLTYPE=12 SCRIPT=sub",
                   "QMTA097I       ARG1=NODE",
                   "QMTA097I       ARG2=\"a b\"",
                   "QMTA097I       ARG3=%s%n",
                   "QMTA095I IF SITNAME=* AND ORIGINNODE=* AND STATE=ANY THEN",
                   "QMTA096I    DESTNODE=D2 CALLTYPE=0 SCRIPT=*",
                   "QMTA095I IF SITNAME=* AND ORIGINNODE=* AND STATE=UNKNOWN THEN",
                   "QMTA096I    DESTNODE=D3 CALLTYPE=0 SCRIPT=*",
                   "QMTA097I       ARG1=x",
                   "QMTA097I       ARG2=",
                   "QMTA097I       ARG3=z",
                   "QMTA095I IF SITNAME=* AND ORIGINNODE=* AND STATE=TRUE THEN",
                   "QMTA096I    DESTNODE=D4 CALLTYPE=0 SCRIPT=*",
                   "QMTA097I       ARG1=",
                   "QMTA097I       ARG2=",
                   "QMTA100I STACK SIZES:  VX=0/0 RM=0/0 SNMP=0/0"}));
}

TEST_F(ModuleControl, CommandsAreRecognisedByTheirFirstSevenCharacters) {
  Start(kGoodRules, "* sim rc=0\n");
  EXPECT_EQ(Command("REFRESH"), Lines{"QMTA090I QMTASITR REFRESHED.  STATUS=-7"});
  Init();
  EXPECT_EQ(Command(" \t\v\f\r\nREFRESH\n"), Lines{"QMTA090I QMTASITR REFRESHED.  STATUS=0"});
  EXPECT_EQ(Command("REFRESHING now"), Lines{"QMTA090I QMTASITR REFRESHED.  STATUS=0"});
  EXPECT_EQ(Command("DISPLAYxyz").size(), 5u);
  int32_t result = -1;
  // The text is shown from its first non-separator to its end, line end
  // included.
  EXPECT_EQ(Command("  refresh \n", &result),
            (Lines{"QMTA011E INVALID QMTASITR PARM=refresh ", ""}));
  EXPECT_EQ(result, 0);
  EXPECT_EQ(out_->Take(), "");
  module_->Command("\tREFRES\n");
  EXPECT_EQ(out_->Take(), "QMTA011E INVALID QMTASITR PARM=REFRES\n\n");
  // Percent signs are printed as they are, never interpreted.
  EXPECT_EQ(Command("%s%n%d%%"), Lines{"QMTA011E INVALID QMTASITR PARM=%s%n%d%%"});
  // A long command is cut to its first 512 characters.
  std::string longText(600, 'x');
  EXPECT_EQ(Command(longText), Lines{"QMTA011E INVALID QMTASITR PARM=" + std::string(512, 'x')});
  EXPECT_EQ(Command(std::string(512, 'y')),
            Lines{"QMTA011E INVALID QMTASITR PARM=" + std::string(512, 'y')});
  EXPECT_EQ(Command(""), Lines{"QMTA011E INVALID QMTASITR PARM="});
}

TEST_F(ModuleControl, TestSituationReportsALoaderFailureOrRunsThroughTheExitTwice) {
  Start("SITNAME=TestSituation ORIGINNODE=TESTNODE:TEST DESTNODE=TDEST SCRIPT=echo;\n",
        "TDEST sim rc=0\n");
  // A loader failure is reported, with the reference to the reason word
  // shown as a number, and initialises nothing.
  qmta::host::RegisterLoadModule("QMTAUTOX", "/nonexistent/module.so");
  int32_t reason = -1;
  EXPECT_EQ(module_->Command("TESTSIT", &reason), 8);
  EXPECT_EQ(reason, 8);
  EXPECT_EQ(out_->TakeLines(),
            Lines{"QMTA015E UNABLE TO LOAD MODULE QMTAUTOX STATUS=8 REASON=" +
                  std::to_string(static_cast<int>(reinterpret_cast<intptr_t>(&reason)))});
  EXPECT_EQ(State().tableAnchor, nullptr);
  qmta::host::RegisterLoadModule("QMTAUTOX", module_->path());
  Init();
  std::regex started("QMTA040I ACTION STARTED FOR SITNAME=TestSituation DESTNODE=TDEST "
                     "STATE=1 REQUESTID=([12])");
  std::regex command("QMTA041I CMD=echo \"TestSituation\" \"1[0-9]{15}\" \"0\" \"1\" "
                     "\"TESTNODE:TEST\" \"Test_Object.Test_Attrib1>80 "
                     "Test_Object.Test_Attrib2<100\"");
  for (int round = 1; round <= 2; ++round) {
    SCOPED_TRACE(round);
    module_->Command("TESTSIT", nullptr);
    Lines lines = Drain(1);  // the test event's action
    ASSERT_EQ(lines.size(), 4u);
    std::sort(lines.begin(), lines.end());
    EXPECT_TRUE(std::regex_match(lines[0], started)) << lines[0];
    EXPECT_TRUE(std::regex_match(lines[1], command)) << lines[1];
    EXPECT_EQ(lines[2], "QMTA050I ACTION COMPLETED FOR SITNAME=TestSituation DESTNODE=TDEST "
                        "STATE=1 RC=0 REQUESTID=" + std::to_string(round));
    EXPECT_EQ(lines[3], "QMTA091I TESTSIT INVOKED.  STATUS=0");
    // The exit found once is kept: the loader is not asked again.
    qmta::host::RegisterLoadModule("QMTAUTOX", "/nonexistent/module.so");
  }
}

TEST_F(ModuleControl, ReloadsWhileEventsFlowLoseNothing) {
  // Two rule sets that both send every event to one destination, each
  // with its own: every event starts exactly one action whichever is loaded.
  const std::string a = "SITNAME=Flow* DESTNODE=DA;\n";
  const std::string b = "* the other set\nSITNAME=Flow* DESTNODE=DB SCRIPT=b;\n";
  Start(a, "DA sim rc=0\nDB sim rc=1\n");
  Init();
  std::atomic<bool> stop{false};
  std::atomic<int> fired{0}, failed{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t)
    threads.emplace_back([&, t] {
      for (int e = 0; !stop.load() || e < 20; ++e) {
        if (Fire("Flow" + std::to_string(t), "n", 1) != 0) ++failed;
        ++fired;
        // Searches are preferred to reloads: back-to-back events on every
        // thread would keep a reload waiting for ever, by design.
        std::this_thread::sleep_for(200us);
      }
    });
  for (int reload = 0; reload < 40; ++reload) {
    // Replaced whole, so a load never reads half a file.
    dir_->Write("QMTASITR.new", reload % 2 ? a : b);
    std::filesystem::rename(dir_->path() + "/QMTASITR.new", dir_->path() + "/QMTASITR");
    EXPECT_EQ(module_->Command("REFRESH"), 0);
    if (reload % 10 == 0) module_->Command("DISPLAY");
  }
  stop.store(true);
  for (auto& t : threads) t.join();
  Lines lines = Drain(fired.load());
  EXPECT_EQ(failed.load(), 0);
  int starts = 0, completions = 0, refreshed = 0;
  for (const std::string& line : lines) {
    starts += line.rfind("QMTA040I", 0) == 0;
    completions += line.rfind("QMTA050I", 0) == 0;
    refreshed += line == "QMTA090I QMTASITR REFRESHED.  STATUS=0";
  }
  EXPECT_EQ(starts, fired.load());
  EXPECT_EQ(completions, fired.load());
  EXPECT_EQ(refreshed, 40);
}

}  // namespace
