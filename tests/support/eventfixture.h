// A fixture that runs whole events through a freshly loaded module and the
// host's query service, with its messages captured.
#ifndef TESTS_SUPPORT_EVENTFIXTURE_H_
#define TESTS_SUPPORT_EVENTFIXTURE_H_

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "host/drivers/driver.h"
#include "host/services/control.h"
#include "host/services/testhooks.h"
#include "qmtauto1/qmtafault.h"
#include "tests/support/support.h"

namespace qmtatest {

class EventFixture : public ::testing::Test {
 public:
  void SetUp() override;
  void TearDown() override;

  // Writes the rule file and the destination directory, loads the module.
  void Start(const std::string& rules, const std::string& nodes);
  // Delivers one event with the host's path, as the data server would not
  // (onDS 0): the handle is copied into the stacks.
  int32_t Fire(const std::string& sitname, const std::string& node, int32_t currstate);
  // An operator command, and QMTAINIT; the lines each printed.
  std::vector<std::string> Command(const std::string& text);
  std::vector<std::string> Init();
  // Waits until every action has finished and returns the lines printed.
  // With `actions`, first waits until that many action threads have started
  // since the last drain: a thread is seen only once it runs, which under
  // load can be later than any settle time.
  std::vector<std::string> Drain(int64_t actions = -1);
  // The module's fault and state hooks.
  void Fault(int32_t fault, int32_t skip, int32_t count, int32_t error);
  QmtaTestState State();

  std::unique_ptr<ScratchDir> dir_;
  std::unique_ptr<StdoutCapture> out_;
  std::unique_ptr<Module> module_;
  DBQ1_Handle path_{};
  int64_t drained_ = 0;  // action threads started up to the last drain
};

}  // namespace qmtatest

#endif  // TESTS_SUPPORT_EVENTFIXTURE_H_
