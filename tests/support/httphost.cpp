#include "tests/support/httphost.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

extern char** environ;

namespace qmtatest {

using namespace std::chrono_literals;

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

pid_t Spawn(const std::vector<std::string>& words, const std::string& out, const std::string& err) {
  std::vector<char*> argv;
  for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&files, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&files, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  pid_t pid = -1;
  EXPECT_EQ(0, posix_spawnp(&pid, argv[0], &files, nullptr, argv.data(), environ)) << words[0];
  posix_spawn_file_actions_destroy(&files);
  return pid;
}

int Finish(pid_t pid, std::chrono::milliseconds limit) {
  auto end = std::chrono::steady_clock::now() + limit;
  int status = 0;
  while (waitpid(pid, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > end) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      return -1;
    }
    std::this_thread::sleep_for(5ms);
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void HttpHost::TearDown() {
  if (host_ > 0) {
    kill(host_, SIGTERM);
    EXPECT_EQ(Finish(host_, 30s), 0) << ReadFile("err");
  }
}

void HttpHost::Start(std::vector<std::string> extra) {
  std::vector<std::string> words = {QMTAHOST_PATH, "serve", "--control", dir_.path() + "/control",
                                    "--nodes", "nodes", "--listen", "127.0.0.1:0"};
  words.insert(words.end(), extra.begin(), extra.end());
  host_ = Spawn(words, "out", "err");
  std::smatch found;
  for (int i = 0; i < 1000; ++i) {
    std::string said = ReadFile("err");
    if (std::regex_search(said, found, std::regex("listening on (https?://127.0.0.1:[0-9]+)"))) {
      base_ = found[1];
      return;
    }
    std::this_thread::sleep_for(10ms);
  }
  FAIL() << "the host never listened: " << ReadFile("err");
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
  EXPECT_EQ(Finish(Spawn(words, "code", "curl.err"), 40s), 0) << ReadFile("curl.err");
  return {atoi(ReadFile("code").c_str()), ReadFile("body")};
}

double HttpHost::Metric(const std::string& metrics, const std::string& sample) {
  std::istringstream lines(metrics);
  for (std::string line; std::getline(lines, line);)
    if (line.starts_with(sample + " ")) return std::stod(line.substr(sample.size() + 1));
  return -1;
}

}  // namespace qmtatest
