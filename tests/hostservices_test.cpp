// The host's other services as the module relies on them: trace levels,
// run-once under many threads, the shifted clock, node information, the
// loader's failure statuses and the action counter.
#include <dlfcn.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "host/services/control.h"
#include "host/services/testhooks.h"
#include "platform/dbq1.h"
#include "platform/envr.h"
#include "platform/ldr1.h"
#include "platform/svc1.h"
#include "platform/trc1.h"
#include "platform/zbl.h"
#include "tests/support/support.h"

namespace {

using namespace std::chrono_literals;

TEST(HostServicesTest, TraceLevelIsCommonUntilAUnitHasOneOfItsOwn) {
  qmta::host::SetTraceLevel(TRC1_FLOW | TRC1_DETAIL);
  EXPECT_EQ(TRC1_Sync("qmtauto1"), TRC1_FLOW | TRC1_DETAIL);
  EXPECT_EQ(TRC1_Sync("qmtaloc0"), TRC1_FLOW | TRC1_DETAIL);

  // A unit's own level wins, also when it is 0; the others keep following
  // the common level.
  qmta::host::SetUnitTraceLevel("qmtaloc0", TRC1_LOCK_DETAIL);
  qmta::host::SetUnitTraceLevel("qmtauto1", 0);
  EXPECT_EQ(TRC1_Sync("qmtaloc0"), TRC1_LOCK_DETAIL);
  EXPECT_EQ(TRC1_Sync("qmtauto1"), 0);
  EXPECT_EQ(TRC1_Sync("other"), TRC1_FLOW | TRC1_DETAIL);
  qmta::host::SetTraceLevel(TRC1_FLOW);
  EXPECT_EQ(TRC1_Sync("other"), TRC1_FLOW);
  EXPECT_EQ(TRC1_Sync("qmtaloc0"), TRC1_LOCK_DETAIL);
  qmta::host::SetUnitTraceLevel("qmtaloc0", 0);
  EXPECT_EQ(TRC1_Sync("qmtaloc0"), 0);
  // Units are told apart by their names, not by the address of the text.
  std::string name = "qmtaloc0";
  EXPECT_EQ(TRC1_Sync(name.c_str()), 0);
}

TEST(HostServicesTest, RunOnceRunsOnceAndHoldsEveryCallerUntilDone) {
  static std::atomic<int> runs{0};
  static std::atomic<bool> finished{false};
  auto routine = [](void*) {
    runs++;
    std::this_thread::sleep_for(50ms);
    finished = true;
  };
  int32_t word = 0;
  std::atomic<int> ranHere{0}, returnedEarly{0};
  qmtatest::OnThreads(8, [&](int) {
    ranHere += SVC1_InitializeOnce(&word, routine, nullptr, "test", __LINE__) == 0;
    returnedEarly += !finished.load();
  });
  EXPECT_EQ(1, ranHere.load());
  EXPECT_EQ(0, returnedEarly.load());
  EXPECT_LT(word, 0);
  EXPECT_EQ(1, SVC1_InitializeOnce(&word, routine, nullptr, "test", __LINE__));
  EXPECT_EQ(1, runs.load());
}

TEST(HostServicesTest, ClockShiftMovesTheServiceTimeBothWays) {
  for (int64_t shiftMs : {3600000LL, -90500LL}) {
    qmta::host::SetClockShift(std::chrono::milliseconds(shiftMs));
    SVC1_Time now;
    SVC1_GetTime(&now);
    struct timespec real;
    clock_gettime(CLOCK_REALTIME, &real);
    EXPECT_NEAR(shiftMs, (now.seconds - real.tv_sec) * 1000 + (now.nanoseconds - real.tv_nsec) / 1000000,
                1000);
    EXPECT_TRUE(now.nanoseconds >= 0 && now.nanoseconds < 1000000000) << now.nanoseconds;
  }
  qmta::host::SetClockShift(0ns);
}

TEST(HostServicesTest, NodeInformationFollowsTheServerName) {
  qmta::host::SetServerName("ABCDEFGHIJKLMN");
  const ENVR_NodeInfo* info = nullptr;
  ASSERT_EQ(0, ENVR_QueryInfo(0, &info, 0));
  EXPECT_EQ("NODE", std::string(info->eyecatcher, 4));
  EXPECT_STREQ("ABCDEFGHI", info->serverName);
  EXPECT_STREQ("ABCDEFGHIJKLMN", info->nodeName);
  // The query service knows the server by that name only.
  DBQ1_Handle path{};
  EXPECT_EQ(DBQ1_OK, DBQ1_CreatePath("ABCDEFGHI", DBQ1_LocalInterface(), &path));
  EXPECT_EQ(DBQ1_UNKNOWN_SERVER, DBQ1_CreatePath("ABCDEFGHIJ", DBQ1_LocalInterface(), &path));
}

TEST(HostServicesTest, LoaderReportsEachFailureAsStatusAndReason) {
  // The host's own service library stands in for a load module.
  Dl_info self{};
  ASSERT_NE(0, dladdr(reinterpret_cast<void*>(&DBQ1_Fetch), &self));
  qmtatest::ScratchDir scratch;
  scratch.Write("notalibrary.so", "plain text\n");
  qmta::host::RegisterLoadModule("HOSTSVC", self.dli_fname);
  qmta::host::RegisterLoadModule("BROKEN", scratch.path() + "/notalibrary.so");
  struct {
    const char* module;
    const char* entry;
    int32_t status;
  } cases[] = {{"NOSUCH", "DBQ1_Fetch", LDR1_UNKNOWN_MODULE},
               {"BROKEN", "DBQ1_Fetch", LDR1_LOAD_FAILED},
               {"HOSTSVC", "NO_SUCH_ENTRY", LDR1_NO_ENTRY},
               {"HOSTSVC", "DBQ1_Fetch", LDR1_OK}};
  for (const auto& c : cases) {
    void* entry = &scratch;
    int32_t reason = -1;
    EXPECT_EQ(c.status, LDR1_FindEntry(c.module, c.entry, &entry, &reason)) << c.module;
    if (c.status == LDR1_OK) {
      EXPECT_EQ(reinterpret_cast<void*>(&DBQ1_Fetch), entry);
    } else {
      EXPECT_EQ(c.status, reason);
      EXPECT_EQ(static_cast<void*>(&scratch), entry);  // untouched on failure
    }
  }
}

TEST(HostServicesTest, ActionCounterTracksLiveThreadsAndWaitsForThem) {
  int64_t started = qmta::host::StartedActions();
  zblercm();
  zblercm();
  EXPECT_EQ(2, qmta::host::LiveActions());
  EXPECT_EQ(started + 2, qmta::host::StartedActions());
  zblerdm();
  EXPECT_FALSE(qmta::host::WaitForActions(20ms));
  std::thread last([] {
    std::this_thread::sleep_for(50ms);
    zblerdm();
  });
  EXPECT_TRUE(qmta::host::WaitForActions(3s));
  EXPECT_EQ(0, qmta::host::LiveActions());
  last.join();
}

}  // namespace
