// `qmtahost serve --listen` for a test: started in the test's scratch
// directory on a free loopback port, driven with curl, stopped with
// SIGTERM at the end (and expected to exit with status 0).
#ifndef TESTS_SUPPORT_HTTPHOST_H_
#define TESTS_SUPPORT_HTTPHOST_H_

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/support.h"

namespace qmtatest {

// Runs `words` (a program on PATH or a path) to its end: its exit status,
// or -1 when a signal ended it or it was killed after `limit`.
int RunToEnd(const std::vector<std::string>& words, const std::string& out,
             const std::string& err, std::chrono::milliseconds limit);

struct HttpReply {
  int code = 0;
  std::string body;
};

class HttpHost : public ::testing::Test {
 protected:
  void TearDown() override;
  // Starts `qmtahost serve --nodes nodes --listen 127.0.0.1:0 EXTRA...`
  // (standard output to "out", error to "err") and reads its address from
  // what it says.
  void Start(std::vector<std::string> extra = {});
  // A GET, or a POST of `body` when it is not empty or `post` is set.
  HttpReply Curl(const std::string& path, const std::string& body = "", bool post = false,
                 std::vector<std::string> extra = {});
  // The value of one sample of the metrics, -1 when it is missing.
  static double Metric(const std::string& metrics, const std::string& sample);

  ScratchDir dir_;
  Child host_;
  std::string base_;  // http://127.0.0.1:PORT
};

}  // namespace qmtatest

#endif  // TESTS_SUPPORT_HTTPHOST_H_
