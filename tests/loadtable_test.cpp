// Loading the rule table: file order, bad and missing files, reloads,
// allocation and lock failures, loads racing searches, hostile files.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <utility>
#include <chrono>
#include <random>
#include <thread>

#include "host/services/control.h"
#include "platform/trc1.h"
#include "qmtauto1/qmtafault.h"
#include "tests/ruletest.h"
#include "tests/support/support.h"

using namespace std::chrono_literals;

namespace {

const std::string kEmpty = "QMTA008W QMTASITR LOOKUP TABLE IS EMPTY";

struct LoadTable : testing::Test {
  void SetUp() override {
    memcpy(anchor->eyecatcher, "TABL", 4);
    ASSERT_EQ(0, qmtalint(&anchor->tableLock));
    publishAnchor(anchor);
  }
  void TearDown() override {
    qmtatest_fault_reset();
    publishAnchor(nullptr);
    for (TableEntry* e = anchor->entries; e;) freeentry(std::exchange(e, e->next));
    free(anchor);
  }
  // Loads `file` as the rule file; its messages go to `messages`.
  int32_t Load(const std::string& file) {
    dir.Write("QMTASITR", file);
    int32_t status = loadtable();
    messages = out.TakeLines();
    return status;
  }
  Lines Table() {
    Lines rows;
    for (TableEntry* e = anchor->entries; e; e = e->next) rows.push_back(ruletest::Render(*e));
    return rows;
  }
  qmtatest::ScratchDir dir;
  qmtatest::StdoutCapture out;
  AutomationAnchor* anchor = static_cast<AutomationAnchor*>(calloc(1, sizeof(AutomationAnchor)));
  Lines messages;
};

TEST_F(LoadTable, FileOrderBadEntriesSkippedFailedReloadsEmptyTheTable) {
  EXPECT_EQ(0, Load("DESTNODE=E1 ARG2=a;\nDESTNODE=E2 STATE=maybe;\nDESTNODE=E3;\n"));
  EXPECT_EQ((Lines{"E1|*|*|1|0|*|[][a]", "E3|*|*|1|0|*|"}), Table());
  EXPECT_EQ(Lines{"QMTA021E INVALID VALUE FOR STATE=maybe IN LINE 2"}, messages);
  dir.Remove("QMTASITR");
  EXPECT_EQ(-9, loadtable());
  EXPECT_EQ(Lines{"QMTA009W QMTASITR COULD NOT BE OPENED"}, out.TakeLines());
  EXPECT_EQ(nullptr, anchor->entries);
  for (const char* file : {"", "* only a comment\n\n", "STATE=TRUE;"}) {
    ASSERT_EQ(0, Load("DESTNODE=C1;"));
    EXPECT_EQ(-8, Load(file)) << file;
    EXPECT_EQ(kEmpty, messages.back());
    EXPECT_EQ(nullptr, anchor->entries);
  }
  publishAnchor(nullptr);
  EXPECT_EQ(-7, Load("DESTNODE=N;"));
  EXPECT_TRUE(messages.empty());
  publishAnchor(anchor);
}

TEST_F(LoadTable, AllocationAndLockFailures) {
  const std::string file = "DESTNODE=N1; DESTNODE=N2 ARG1=x ARG2=y;\nDESTNODE=N3;\n";
  const std::string noRecord = "QMTA000E ALLOCATION ERROR FOR SITUATION TRAP TABLE ENTRY";
  qmtatest_fault_arm(kFaultAlloc, 1, 1, ENOMEM);  // the second record
  EXPECT_EQ(0, Load(file));
  EXPECT_EQ((Lines{"N1|*|*|1|0|*|"}), Table());
  EXPECT_EQ(Lines{noRecord}, messages);
  qmtatest_fault_arm(kFaultAlloc, 0, 1, ENOMEM);  // the first record
  EXPECT_EQ(-8, Load(file));
  EXPECT_EQ((Lines{noRecord, kEmpty}), messages);
  // Record, record, ARG1, ARG2: only that entry goes. This load also shows
  // that one after a stopped load starts the file afresh.
  qmtatest_fault_arm(kFaultAlloc, 3, 1, ENOMEM);
  EXPECT_EQ(0, Load(file));
  EXPECT_EQ((Lines{"N1|*|*|1|0|*|", "N3|*|*|1|0|*|"}), Table());
  EXPECT_EQ(Lines{"QMTA023E UNABLE TO ALLOCATE ARG2=y"}, messages);
  qmtatest_fault_arm(kFaultMutexLock, 0, 1, EINVAL);
  EXPECT_EQ(-1, Load("DESTNODE=N9;"));
  EXPECT_EQ(Lines{"QMTAL01S UNABLE TO ACQUIRE MUTEX LOCK IN getelock ERRNO=" + std::to_string(EINVAL)}, messages);
  EXPECT_EQ(2u, Table().size());
}

TEST_F(LoadTable, ReloadWaitsForSharedHolders) {
  ASSERT_EQ(0, Load("DESTNODE=OLD;"));
  dir.Write("QMTASITR", "DESTNODE=NEW;");
  ASSERT_EQ(0, qmtalgsl(&anchor->tableLock));
  TableEntry* held = anchor->entries;
  std::atomic<bool> done{false};
  std::thread reload([&] { EXPECT_EQ(0, loadtable()); done = true; });
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(done);
  EXPECT_STREQ("OLD", held->destnode);  // still there while held
  ASSERT_EQ(0, qmtalrsl(&anchor->tableLock));
  reload.join();
  EXPECT_EQ((Lines{"NEW|*|*|1|0|*|"}), Table());
}

// A trace stream whose writes wait while the gate is shut: a load with
// detail trace on stops at its first trace line, table lock held.
struct TraceGate {
  std::mutex mutex;
  std::condition_variable changed;
  bool shut = true, reached = false;
  FILE* Stream() {
    cookie_io_functions_t io{};
    io.write = [](void* self, const char*, size_t size) -> ssize_t {
      auto* gate = static_cast<TraceGate*>(self);
      std::unique_lock<std::mutex> hold(gate->mutex);
      gate->reached = true;
      gate->changed.notify_all();
      gate->changed.wait(hold, [&] { return !gate->shut; });
      return static_cast<ssize_t>(size);
    };
    return fopencookie(this, "w", io);
  }
  void WaitReached() {
    std::unique_lock<std::mutex> hold(mutex);
    changed.wait(hold, [&] { return reached; });
  }
  void Release() {
    std::lock_guard<std::mutex> hold(mutex);
    shut = false;
    changed.notify_all();
  }
};

TEST_F(LoadTable, SearchArrivingDuringALoadWaitsForIt) {
  dir.Write("QMTASITR", "DESTNODE=N1;\nDESTNODE=N2;");
  TraceGate gate;
  FILE* trace = gate.Stream();
  qmta::host::SetTraceStream(trace);
  qmta::host::SetTraceLevel(TRC1_DETAIL);
  std::thread load([&] { EXPECT_EQ(0, loadtable()); });
  gate.WaitReached();
  std::atomic<bool> searched{false};
  Lines seen;
  std::thread search([&] {
    ASSERT_EQ(0, qmtalgsl(&anchor->tableLock));
    seen = Table();
    searched = true;
    ASSERT_EQ(0, qmtalrsl(&anchor->tableLock));
  });
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(searched);
  gate.Release();
  load.join();
  search.join();
  qmta::host::SetTraceLevel(0);
  qmta::host::SetTraceStream(nullptr);
  fclose(trace);
  EXPECT_EQ((Lines{"N1|*|*|1|0|*|", "N2|*|*|1|0|*|"}), seen);
}

// Anything but a regular file is a file that could not be opened, at once:
// a named pipe with no writer, a device that never ends, a directory.
TEST_F(LoadTable, OnlyARegularFileIsRead) {
  const Lines notOpened{"QMTA009W QMTASITR COULD NOT BE OPENED"};
  ASSERT_EQ(0, mkfifo("QMTASITR", 0600));
  EXPECT_EQ(-9, loadtable());
  EXPECT_EQ(notOpened, out.TakeLines());
  dir.Remove("QMTASITR");
  ASSERT_EQ(0, symlink("/dev/zero", "QMTASITR"));
  EXPECT_EQ(-9, loadtable());
  EXPECT_EQ(notOpened, out.TakeLines());
  dir.Remove("QMTASITR");
  ASSERT_EQ(0, mkdir("QMTASITR", 0700));
  EXPECT_EQ(-9, loadtable());
  EXPECT_EQ(notOpened, out.TakeLines());
  ASSERT_EQ(0, rmdir("QMTASITR"));
  dir.Write("rules", "DESTNODE=LINKED;");
  ASSERT_EQ(0, symlink("rules", "QMTASITR"));
  EXPECT_EQ(0, loadtable());
  EXPECT_EQ((Lines{"LINKED|*|*|1|0|*|"}), Table());
}

// Files no editor should produce load what they can without reading outside
// the line buffer (the sanitizer builds check that), with all trace on.
TEST_F(LoadTable, HostileFiles) {
  FILE* trace = tmpfile();
  qmta::host::SetTraceStream(trace);
  qmta::host::SetTraceLevel(TRC1_DETAIL | TRC1_LOCK_DETAIL | TRC1_FLOW);
  const std::string good = "\n;\nDESTNODE=GOOD;";
  EXPECT_EQ(0, Load(std::string("SITNAME=S1\r\n\tDESTNODE=N1\0;\r\n;\nSTATE=\0\n;", 39) + good));
  EXPECT_EQ((Lines{"N1|S1|*|1|0|*|", "GOOD|*|*|1|0|*|"}), Table());
  // 100007 characters: 195 pieces, a QMTA022E for each after the first.
  EXPECT_EQ(0, Load("ARG1=" + std::string(100000, 'x') + ";\nDESTNODE=GOOD;"));
  EXPECT_EQ((Lines{"GOOD|*|*|1|0|*|"}), Table());
  ASSERT_EQ(195u, messages.size());
  EXPECT_EQ("QMTA010E DESTNODE NOT SPECIFIED IN LINE 195 NEAR \"" + std::string(483, 'x') + "\"", messages.back());
  const char letters[] = "SITNAME=DESTNODE=ARG1=\"\";;**  \t\r\n\n\0\xff";
  for (unsigned salt = 1; salt <= 20; ++salt) {
    std::mt19937 random(salt);
    std::string junk(3000, '\0');
    for (char& c : junk) c = random() % 4 ? letters[random() % (sizeof letters - 1)] : char(random());
    Load(junk + good);
    ASSERT_FALSE(Table().empty()) << salt;
    EXPECT_EQ("GOOD|*|*|1|0|*|", Table().back()) << salt;
  }
  qmta::host::SetTraceLevel(0);
  qmta::host::SetTraceStream(nullptr);
  EXPECT_GT(ftell(trace), 0);
  fclose(trace);
}

}  // namespace
