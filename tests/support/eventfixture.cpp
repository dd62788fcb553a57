#include "tests/support/eventfixture.h"

#include <chrono>
#include <thread>

#include "host/drivers/sim.h"

namespace qmtatest {

void EventFixture::SetUp() {
  qmta::host::ResetQueryService();
  qmta::host::RegisterStandardDrivers();
  qmta::host::SetClockShift(std::chrono::nanoseconds(0));
  qmta::host::SetNodeInfoFails(false);
  dir_ = std::make_unique<ScratchDir>();
}

void EventFixture::TearDown() {
  EXPECT_TRUE(qmta::host::WaitForActions(std::chrono::seconds(30)));
  if (module_) {
    auto reset = reinterpret_cast<void (*)()>(module_->Symbol("qmtatest_fault_reset"));
    reset();
  }
  out_.reset();
  dir_.reset();
}

void EventFixture::Start(const std::string& rules, const std::string& nodes) {
  dir_->Write("QMTASITR", rules);
  std::string error;
  ASSERT_TRUE(qmta::host::SetDestinations(nodes, &error)) << error;
  out_.reset();  // a capture restores standard output when it ends
  out_ = std::make_unique<StdoutCapture>();
  module_ = std::make_unique<Module>();
  path_ = qmta::host::OwnPath();
  drained_ = qmta::host::StartedActions();
}

int32_t EventFixture::Fire(const std::string& sitname, const std::string& node, int32_t currstate) {
  return module_->autoexit(sitname.c_str(), node.c_str(), 0, currstate, "1261116000509000", 0, nullptr, nullptr,
                           nullptr, &path_, 0);
}

std::vector<std::string> EventFixture::Command(const std::string& text) {
  module_->Command(text);
  return out_->TakeLines();
}

std::vector<std::string> EventFixture::Init() {
  module_->Init();
  return out_->TakeLines();
}

std::vector<std::string> EventFixture::Drain(int64_t actions) {
  if (actions >= 0) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (qmta::host::StartedActions() < drained_ + actions &&
           std::chrono::steady_clock::now() < limit)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_GE(qmta::host::StartedActions(), drained_ + actions);
  }
  EXPECT_TRUE(qmta::host::WaitForActions(std::chrono::seconds(30)));
  drained_ = qmta::host::StartedActions();
  return out_->TakeLines();
}

void EventFixture::Fault(int32_t fault, int32_t skip, int32_t count, int32_t error) {
  auto arm = reinterpret_cast<void (*)(int32_t, int32_t, int32_t, int32_t)>(
      module_->Symbol("qmtatest_fault_arm"));
  arm(fault, skip, count, error);
}

QmtaTestState EventFixture::State() {
  auto get = reinterpret_cast<void (*)(QmtaTestState*)>(module_->Symbol("qmtatest_state"));
  QmtaTestState state{};
  get(&state);
  return state;
}

}  // namespace qmtatest
