// The operator page in a real browser: headless Chromium, driven over its
// DevTools pipe, logs in to a `qmtahost serve` of the test's own on
// 127.0.0.1, sees actions run, fail and be running, opens a failed one's
// output, and leaves a screenshot in the build's artifacts directory.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <thread>

#include <gtest/gtest.h>

#include "tests/support/support.h"

extern char** environ;

namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;

std::string Base64Decode(const std::string& text) {
  static const std::string kDigits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string bytes;
  unsigned bits = 0, count = 0;
  for (char c : text) {
    size_t value = kDigits.find(c);
    if (value == std::string::npos) continue;  // '=' and line ends
    bits = (bits << 6) | static_cast<unsigned>(value);
    if ((count += 6) >= 8) bytes += static_cast<char>((bits >> (count -= 8)) & 0xff);
  }
  return bytes;
}

// Chromium with its DevTools protocol on descriptors 3 (commands in) and 4
// (answers and events out), messages ended by NUL; nothing leaves loopback.
class Browser {
 public:
  ~Browser() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    for (int fd : {in_, out_})
      if (fd >= 0) close(fd);
  }
  bool Start(const std::string& profile) {
    int commands[2], answers[2];
    if (pipe2(commands, O_CLOEXEC) != 0 || pipe2(answers, O_CLOEXEC) != 0) return false;
    std::vector<std::string> words = {
        "/usr/bin/chromium", "--headless=new", "--remote-debugging-pipe", "--user-data-dir=" + profile,
        "--no-first-run", "--no-default-browser-check", "--disable-gpu", "--disable-extensions",
        "--disable-background-networking", "--disable-component-update", "--disable-sync",
        "--disable-domain-reliability", "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1",
        "--window-size=1200,900", "about:blank"};
    if (geteuid() == 0) words.push_back("--no-sandbox");  // CI runs as root
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&files, 1, (profile + ".out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&files, 2, (profile + ".err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&files, commands[0], 3);
    posix_spawn_file_actions_adddup2(&files, answers[1], 4);
    bool started = posix_spawn(&pid_, argv[0], &files, nullptr, argv.data(), environ) == 0;
    posix_spawn_file_actions_destroy(&files);
    close(commands[0]);
    close(answers[1]);
    in_ = commands[1];
    out_ = answers[0];
    if (!started) return false;
    Json target = Call("Target.createTarget", {{"url", "about:blank"}});
    Json attached = Call("Target.attachToTarget", {{"targetId", target["targetId"]}, {"flatten", true}});
    session_ = attached.value("sessionId", "");
    return !session_.empty();
  }
  // Sends a command (to the page once attached) and waits for its answer.
  Json Call(const std::string& method, const Json& params = Json::object()) {
    Json message = {{"id", ++id_}, {"method", method}, {"params", params}};
    if (!session_.empty()) message["sessionId"] = session_;
    std::string text = message.dump() + '\0';
    if (write(in_, text.data(), text.size()) != static_cast<ssize_t>(text.size())) return {};
    const auto end = std::chrono::steady_clock::now() + 20s;
    while (std::chrono::steady_clock::now() < end) {
      size_t nul;
      while ((nul = buffer_.find('\0')) != std::string::npos) {
        Json answer = Json::parse(buffer_.substr(0, nul), nullptr, false);
        buffer_.erase(0, nul + 1);
        if (answer.is_object() && answer.value("id", 0) == id_) return answer.value("result", Json::object());
      }
      pollfd ready = {out_, POLLIN, 0};
      char chunk[65536];
      ssize_t got = poll(&ready, 1, 1000) == 1 ? read(out_, chunk, sizeof chunk) : 0;
      if (got < 0) break;
      buffer_.append(chunk, static_cast<size_t>(std::max<ssize_t>(got, 0)));
    }
    ADD_FAILURE() << "no answer to " << method;
    return Json::object();
  }
  // The value of a script run in the page.
  Json Eval(const std::string& script) {
    Json result = Call("Runtime.evaluate", {{"expression", script}, {"returnByValue", true}});
    return result["result"].value("value", Json());
  }
  // Waits until the script's value is true.
  bool WaitFor(const std::string& script, std::chrono::milliseconds limit = 20s) {
    return qmtatest::WaitUntil([&] { return Eval("Boolean(" + script + ")") == true; }, limit);
  }

 private:
  pid_t pid_ = -1;
  int in_ = -1, out_ = -1, id_ = 0;
  std::string session_, buffer_;
};

TEST(Page, OperatorsLogInAndSeeRulesActionsFailuresAndOutput) {
  if (access("/usr/bin/chromium", X_OK) != 0) GTEST_SKIP() << "chromium is not installed (tools/setup)";
  qmtatest::ScratchDir dir;
  std::filesystem::create_directories(dir.path() + "/actions");
  dir.Write("QMTASITR", "SITNAME=Good DESTNODE=here SCRIPT=ok ARG1=NODE;\n"
                        "SITNAME=Bad* DESTNODE=here SCRIPT=bad;\n"
                        "SITNAME=Slow DESTNODE=here SCRIPT=slow;\n");
  dir.Write("actions/ok", "#!/bin/sh\necho \"fine on $1\"\n");
  dir.Write("actions/bad", "#!/bin/sh\necho 'it broke <img src=x onerror=\"document.title=1\">' >&2\nexit 3\n");
  dir.Write("actions/slow", "#!/bin/sh\nsleep 6\n");
  for (const char* name : {"ok", "bad", "slow"}) chmod((dir.path() + "/actions/" + name).c_str(), 0755);
  dir.Write("nodes", "here local timeout=30\n");
  dir.Write("token", "page-token\n");
  chmod((dir.path() + "/token").c_str(), 0600);
  qmtatest::Child host;
  ASSERT_TRUE(host.Spawn({QMTAHOST_PATH, "serve", "--control", dir.path() + "/control", "--nodes", "nodes",
                          "--listen", "127.0.0.1:0", "--token-file", "token", "--journal", "journal.db"},
                         "out", "err"));
  std::smatch found;
  std::string said;
  ASSERT_TRUE(qmtatest::WaitUntil([&] {
    said = qmtatest::ReadFile(dir.path() + "/err");
    return std::regex_search(said, found, std::regex("listening on (http://127.0.0.1:[0-9]+)"));
  }, 20s)) << said;
  const std::string base = found[1];

  Browser browser;
  ASSERT_TRUE(browser.Start(dir.path() + "/profile")) << qmtatest::ReadFile(dir.path() + "/profile.err");
  browser.Call("Page.navigate", {{"url", base + "/"}});
  ASSERT_TRUE(browser.WaitFor("document.getElementById('login')"));
  browser.Eval("document.getElementById('token').value = 'wrong'; document.getElementById('login').submit()");
  EXPECT_TRUE(browser.WaitFor("document.getElementById('login-message')?.textContent.includes('not the token')"));
  browser.Eval("document.getElementById('token').value = 'page-token'; document.getElementById('login').submit()");
  ASSERT_TRUE(browser.WaitFor("document.getElementById('latest')"));

  qmtatest::Child curl;
  ASSERT_TRUE(curl.Spawn({"curl", "-s", "-H", "Authorization: Bearer page-token", "--data-binary",
                          R"({"sitname": "Good", "originnode": "n1", "currstate": 1})" "\n"
                          R"({"sitname": "Bad<b>x</b>", "originnode": "n1", "currstate": 1})" "\n"
                          R"({"sitname": "Slow", "originnode": "n1", "currstate": 1})",
                          base + "/v1/events"},
                         "curl.out", "curl.err"));
  EXPECT_EQ(curl.Finish(20s), 0);
  // What a person sees: the latest outcomes, the failure marked, the
  // running action, the figures and the rules.
  EXPECT_TRUE(browser.WaitFor("[...document.querySelectorAll('#latest tbody tr')].some(r => "
                              "r.textContent.includes('Good') && r.textContent.includes('completed RC=0'))"));
  EXPECT_TRUE(browser.WaitFor("[...document.querySelectorAll('#latest tr.failed')].some(r => "
                              "r.textContent.includes('FAILED') && r.textContent.includes('Bad<b>x</b>'))"));
  EXPECT_TRUE(browser.WaitFor("document.querySelector('#live tbody')?.textContent.includes('Slow')"));
  EXPECT_TRUE(browser.WaitFor("Number(document.getElementById('failures').textContent) >= 1"));
  EXPECT_TRUE(browser.WaitFor("document.getElementById('rules').textContent.includes("
                              "'QMTA095I IF SITNAME=Good AND ORIGINNODE=* AND STATE=TRUE THEN')"));
  // One click to the failed action's command and output, shown as text.
  browser.Eval("document.querySelector('#latest tr.failed a').click()");
  EXPECT_TRUE(browser.WaitFor("document.getElementById('detail-output').textContent.includes("
                              "'it broke <img src=x onerror=\"document.title=1\">')"));
  EXPECT_EQ(browser.Eval("document.getElementById('detail-fields').textContent.includes('exit status3')"), true);
  EXPECT_EQ(browser.Eval("document.querySelectorAll('img, b').length"), 0);
  EXPECT_EQ(browser.Eval("document.title"), "qmtahost");

  Json shot = browser.Call("Page.captureScreenshot", {{"format", "png"}});
  std::filesystem::create_directories(QMTA_ARTIFACT_DIR);
  std::ofstream(std::string(QMTA_ARTIFACT_DIR) + "/page.png", std::ios::binary)
      << Base64Decode(shot.value("data", ""));
  EXPECT_GT(std::filesystem::file_size(std::string(QMTA_ARTIFACT_DIR) + "/page.png"), 1000u);

  host.Kill(SIGTERM);
  EXPECT_EQ(host.Finish(40s), 0) << qmtatest::ReadFile(dir.path() + "/err");
}

}  // namespace
