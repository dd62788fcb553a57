#include "tests/support/httphost.h"

#include <regex>
#include <sstream>

namespace qmtatest {

using namespace std::chrono_literals;

int RunToEnd(const std::vector<std::string>& words, const std::string& out,
             const std::string& err, std::chrono::milliseconds limit) {
  Child child;
  EXPECT_TRUE(child.Spawn(words, out, err)) << words[0];
  return child.Finish(limit);
}

void HttpHost::TearDown() {
  if (host_.pid() > 0) {
    host_.Kill(SIGTERM);
    EXPECT_EQ(host_.Finish(30s), 0) << ReadFile("err");
  }
}

void HttpHost::Start(std::vector<std::string> extra) {
  std::vector<std::string> words = {QMTAHOST_PATH, "serve", "--control", dir_.path() + "/control",
                                    "--nodes", "nodes", "--listen", "127.0.0.1:0"};
  words.insert(words.end(), extra.begin(), extra.end());
  ASSERT_TRUE(host_.Spawn(words, "out", "err"));
  std::smatch found;
  auto listening = [&] {
    std::string said = ReadFile("err");
    if (!std::regex_search(said, found, std::regex("listening on (https?://127.0.0.1:[0-9]+)")))
      return false;
    base_ = found[1];
    return true;
  };
  ASSERT_TRUE(WaitUntil(listening, 10s)) << "the host never listened: " << ReadFile("err");
}

HttpReply HttpHost::Curl(const std::string& path, const std::string& body, bool post,
                         std::vector<std::string> extra) {
  std::vector<std::string> words = {"curl", "-s", "--max-time", "30", "-o", "body",
                                    "-w", "%{http_code}"};
  if (post || !body.empty()) {
    dir_.Write("request", body);
    words.insert(words.end(), {"--data-binary", "@request"});
  }
  words.insert(words.end(), extra.begin(), extra.end());
  words.push_back(base_ + path);
  EXPECT_EQ(RunToEnd(words, "code", "curl.err", 40s), 0) << ReadFile("curl.err");
  return {atoi(ReadFile("code").c_str()), ReadFile("body")};
}

double HttpHost::Metric(const std::string& metrics, const std::string& sample) {
  std::istringstream lines(metrics);
  for (std::string line; std::getline(lines, line);)
    if (line.starts_with(sample + " ")) return std::stod(line.substr(sample.size() + 1));
  return -1;
}

}  // namespace qmtatest
