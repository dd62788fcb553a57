// Loading the rule table: file order, bad and missing files, reloads,
// allocation and lock failures, loads racing searches, hostile files.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "host/hostsvc.h"
#include "platform/trc1.h"
#include "qmtauto1/qmtafault.h"
#include "qmtauto1/qmtauto1.h"
#include "tests/ruletest.h"
#include "tests/support/support.h"

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

namespace {

constexpr char kEmpty[] = "QMTA008W QMTASITR LOOKUP TABLE IS EMPTY";

class LoadTable : public testing::Test {
 protected:
  void SetUp() override { anchor_ = ruletest::MakeAnchor(); }
  void TearDown() override {
    qmtatest_fault_reset();
    ruletest::DropAnchor(anchor_);
  }
  // Writes the rule file and loads it; the messages go to `messages`.
  int32_t Load(const std::string& file) {
    dir_.Write("QMTASITR", file);
    int32_t status = loadtable();
    messages = out_.TakeLines();
    return status;
  }
  Lines Table() { return ruletest::RenderList(anchor_->entries); }
  Lines Destinations() {
    Lines names;
    for (TableEntry* e = anchor_->entries; e; e = e->next) names.push_back(e->destnode);
    return names;
  }

  qmtatest::ScratchDir dir_;
  qmtatest::StdoutCapture out_;
  AutomationAnchor* anchor_ = nullptr;
  Lines messages;
};

TEST_F(LoadTable, GoodEntriesInFileOrderBadOnesSkipped) {
  EXPECT_EQ(0, Load("DESTNODE=E1 ARG2=a;\nDESTNODE=E2 STATE=maybe;\nDESTNODE=E3;\n"));
  EXPECT_EQ((Lines{"E1|*|*|1|0|*|[][a]", "E3|*|*|1|0|*|"}), Table());
  EXPECT_EQ(Lines{"QMTA021E INVALID VALUE FOR STATE=maybe IN LINE 2"}, messages);
}

TEST_F(LoadTable, FailedReloadsLeaveTheTableEmpty) {
  ASSERT_EQ(0, Load("DESTNODE=A1;DESTNODE=A2;"));
  ASSERT_EQ(0, Load("DESTNODE=B1;"));
  EXPECT_EQ(Lines{"B1"}, Destinations());
  dir_.Remove("QMTASITR");
  EXPECT_EQ(-9, loadtable());
  EXPECT_EQ(Lines{"QMTA009W QMTASITR COULD NOT BE OPENED"}, out_.TakeLines());
  EXPECT_EQ(nullptr, anchor_->entries);
  for (const char* file : {"", "* only a comment\n\n", "STATE=TRUE;"}) {
    ASSERT_EQ(0, Load("DESTNODE=C1;"));
    EXPECT_EQ(-8, Load(file)) << file;
    EXPECT_EQ(kEmpty, messages.back());
    EXPECT_EQ(nullptr, anchor_->entries);
  }
}

TEST_F(LoadTable, WithoutAnchorNothingHappens) {
  publishAnchor(nullptr);
  EXPECT_EQ(-7, Load("DESTNODE=N;"));
  EXPECT_TRUE(messages.empty());
  publishAnchor(anchor_);
}

TEST_F(LoadTable, AllocationFailures) {
  const std::string file = "DESTNODE=N1; DESTNODE=N2 ARG1=x ARG2=y;\nDESTNODE=N3;\n";
  const std::string noRecord = "QMTA000E ALLOCATION ERROR FOR SITUATION TRAP TABLE ENTRY";
  // The second record: the load stops there and keeps the first.
  qmtatest_fault_arm(kFaultAlloc, 1, 1, ENOMEM);
  EXPECT_EQ(0, Load(file));
  EXPECT_EQ(Lines{"N1"}, Destinations());
  EXPECT_EQ(Lines{noRecord}, messages);
  // The first record: an empty table.
  qmtatest_fault_arm(kFaultAlloc, 0, 1, ENOMEM);
  EXPECT_EQ(-8, Load(file));
  EXPECT_EQ((Lines{noRecord, kEmpty}), messages);
  // An argument string (record 1, record 2, ARG1, ARG2): only its entry goes,
  // and a load after a stopped one starts the file afresh.
  qmtatest_fault_arm(kFaultAlloc, 3, 1, ENOMEM);
  EXPECT_EQ(0, Load(file));
  EXPECT_EQ((Lines{"N1", "N3"}), Destinations());
  EXPECT_EQ(Lines{"QMTA023E UNABLE TO ALLOCATE ARG2=y"}, messages);
}

TEST_F(LoadTable, LockFailureChangesNothing) {
  ASSERT_EQ(0, Load("DESTNODE=N1;"));
  qmtatest_fault_arm(kFaultMutexLock, 0, 1, EINVAL);
  EXPECT_EQ(-1, Load("DESTNODE=N2;"));
  EXPECT_EQ(Lines{"QMTAL01S UNABLE TO ACQUIRE MUTEX LOCK IN getelock ERRNO=" +
                  std::to_string(EINVAL)},
            messages);
  EXPECT_EQ(Lines{"N1"}, Destinations());
}

TEST_F(LoadTable, ReloadWaitsForSharedHolders) {
  ASSERT_EQ(0, Load("DESTNODE=OLD;"));
  dir_.Write("QMTASITR", "DESTNODE=NEW;");
  ASSERT_EQ(0, qmtalgsl(&anchor_->tableLock));
  TableEntry* held = anchor_->entries;
  std::atomic<bool> done{false};
  std::thread reload([&] {
    EXPECT_EQ(0, loadtable());
    done = true;
  });
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(done);
  EXPECT_STREQ("OLD", held->destnode);  // still ours to read
  ASSERT_EQ(0, qmtalrsl(&anchor_->tableLock));
  reload.join();
  EXPECT_EQ(Lines{"NEW"}, Destinations());
}

TEST_F(LoadTable, SearchArrivingDuringALoadWaitsForIt) {
  ASSERT_EQ(0, mkfifo("QMTASITR", 0600));
  std::thread load([&] { EXPECT_EQ(0, loadtable()); });
  int fifo = open("QMTASITR", O_WRONLY);  // once the load has the file open
  ASSERT_GE(fifo, 0);
  ASSERT_EQ(13, write(fifo, "DESTNODE=N1;\n", 13));
  std::atomic<bool> searched{false};
  Lines seen;
  std::thread search([&] {
    ASSERT_EQ(0, qmtalgsl(&anchor_->tableLock));
    seen = Destinations();
    searched = true;
    ASSERT_EQ(0, qmtalrsl(&anchor_->tableLock));
  });
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(searched);
  ASSERT_EQ(26, write(fifo, "DESTNODE=N2;\nDESTNODE=N3;\n", 26));
  close(fifo);
  load.join();
  search.join();
  EXPECT_EQ((Lines{"N1", "N2", "N3"}), seen);
}

// Files that no editor should produce load what they can, without reading
// outside the line buffer (the sanitizer builds check that). Trace is on
// throughout, so its lines are built from the same text.
TEST_F(LoadTable, HostileFiles) {
  FILE* trace = tmpfile();
  qmta::host::SetTraceStream(trace);
  qmta::host::SetTraceLevel(TRC1_DETAIL | TRC1_LOCK_DETAIL | TRC1_FLOW);
  const std::string good = "\n;\nDESTNODE=GOOD;";
  EXPECT_EQ(0, Load("SITNAME=S1\r\n\tDESTNODE=N1\t;\r\nDESTNODE=N2"
                    "\r\nSTATE=ANY;"));
  EXPECT_EQ((Lines{"N1|S1|*|1|0|*|", "N2|*|*|99|0|*|"}), Table());
  EXPECT_TRUE(messages.empty());

  const char nuls[] = "DESTNODE=N1\0SITNAME=X;\n;\nSTATE=\0\n;";
  EXPECT_EQ(0, Load(std::string(nuls, sizeof nuls - 1) + good));
  EXPECT_EQ((Lines{"N1|*|*|1|0|*|", "GOOD|*|*|1|0|*|"}), Table());

  for (size_t length : {600u, 100000u}) {
    std::string line = "ARG1=" + std::string(length, 'x') + ";\n";
    EXPECT_EQ(0, Load(line + "DESTNODE=GOOD;"));
    EXPECT_EQ(Lines{"GOOD"}, Destinations());
    size_t pieces = (line.size() + 512) / 513;
    EXPECT_EQ(pieces, messages.size());  // one per piece after the first, then one
    EXPECT_EQ("QMTA010E DESTNODE NOT SPECIFIED IN LINE " + std::to_string(pieces) +
                  " NEAR \"" + std::string((line.size() - 2) % 513, 'x') + "\"",
              messages.back());
  }

  const char letters[] = "SITNAME=DESTNODE=ARG1=STATE=\"\";;**  \t\r\n\n\0\xff\x80\x01";
  const std::string alphabet(letters, sizeof letters - 1);
  for (unsigned seed = 1; seed <= 20; ++seed) {
    std::mt19937 random(seed);
    std::string junk(3000, '\0');
    for (char& c : junk)
      c = random() % 4 ? alphabet[random() % alphabet.size()] : char(random());
    Load(junk + good);
    ASSERT_FALSE(Destinations().empty()) << seed;
    EXPECT_EQ("GOOD", Destinations().back()) << seed;
  }
  qmta::host::SetTraceLevel(0);
  qmta::host::SetTraceStream(nullptr);
  EXPECT_GT(ftell(trace), 0);
  fclose(trace);
}

}  // namespace
