// `qmtahost serve --listen` for a test: started in the test's scratch
// directory on a free loopback port, driven with curl, stopped with
// SIGTERM at the end (and expected to exit with status 0). Also the
// child-process helpers it is built on.
#ifndef TESTS_SUPPORT_HTTPHOST_H_
#define TESTS_SUPPORT_HTTPHOST_H_

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/harness.h"

namespace qmtatest {

// A file's bytes; empty when it cannot be read.
std::string ReadFile(const std::string& path);
// Starts `words` (found on PATH) with standard input /dev/null and standard
// output and error to files.
pid_t Spawn(const std::vector<std::string>& words, const std::string& out, const std::string& err);
// The exit status, or -1 when it did not end within `limit` (then it is
// killed) or a signal ended it.
int Finish(pid_t pid, std::chrono::milliseconds limit);

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
  pid_t host_ = -1;
  std::string base_;  // http://127.0.0.1:PORT
};

}  // namespace qmtatest

#endif  // TESTS_SUPPORT_HTTPHOST_H_
