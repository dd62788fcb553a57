#include "host/programs/qmtahost/outputrelay.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <random>

namespace qmta::hostprog {
namespace {

// A mark is a line of its own: this lead-in, a token drawn at start (so
// that no text written by anyone else can pass for one), the number.
constexpr char kMarkLead = '\x1e';
constexpr char kTagLead = '\x1d';

bool Digit(char c) { return c >= '0' && c <= '9'; }
bool Severity(char c) { return c == 'I' || c == 'W' || c == 'E' || c == 'S'; }

int64_t NowNanos() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

std::string MarkToken() {
  std::random_device random;
  return std::to_string(random()) + std::to_string(random());
}

const std::string& Token() {
  static const std::string token = MarkToken();
  return token;
}

}  // namespace

std::string_view MessageId(std::string_view line) {
  if (!line.starts_with("QMTA") || line.size() < 8) return {};
  if (line[4] == 'L') {
    if (Digit(line[5]) && Digit(line[6]) && Severity(line[7])) return line.substr(0, 8);
    return {};
  }
  if (Digit(line[4]) && Digit(line[5]) && Digit(line[6]) && Severity(line[7]))
    return line.substr(0, 8);
  return {};
}

OutputRelay::~OutputRelay() {
  if (relay_.joinable()) Stop();
}

void OutputRelay::AddListener(Listener listener) { listeners_.push_back(std::move(listener)); }

bool OutputRelay::Start(std::string* error) {
  if (fcntl(1, F_GETFD) == -1) {
    *error = "standard output is closed";
    return false;
  }
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    *error = std::string("cannot make the output pipe: ") + strerror(errno);
    return false;
  }
  realOut_ = fcntl(1, F_DUPFD_CLOEXEC, 3);
  if (realOut_ < 0 || dup2(ends[1], 1) < 0) {
    *error = std::string("cannot take over standard output: ") + strerror(errno);
    if (realOut_ >= 0) close(realOut_);
    close(ends[0]);
    close(ends[1]);
    return false;
  }
  close(ends[1]);
  readEnd_ = ends[0];
  relay_ = std::thread([this] { RunRelay(); });
  return true;
}

void OutputRelay::Mark(uint64_t number) {
  std::string line = std::string(1, kMarkLead) + Token() + " " + std::to_string(number) + "\n";
  flockfile(stdout);
  fflush(stdout);
  fputs(line.c_str(), stdout);
  fflush(stdout);
  funlockfile(stdout);
  std::unique_lock<std::mutex> hold(markMutex_);
  markChanged_.wait(hold, [&] { return markSeen_ >= number || !relay_.joinable(); });
}

void OutputRelay::Tag(uint64_t number) {
  std::string line = std::string(1, kTagLead) + Token() + " " + std::to_string(number) + "\n";
  flockfile(stdout);
  fflush(stdout);
  fputs(line.c_str(), stdout);
  fflush(stdout);
  funlockfile(stdout);
}

void OutputRelay::Stop() {
  if (!relay_.joinable()) return;
  fflush(stdout);
  // Descriptor 1 goes back to the real output; the pipe's last write end
  // closes with it, so the relay reads the rest and then the end.
  dup2(realOut_, 1);
  relay_.join();
  close(readEnd_);
  close(realOut_);
  readEnd_ = realOut_ = -1;
  std::lock_guard<std::mutex> hold(markMutex_);
  markChanged_.notify_all();
}

void OutputRelay::RunRelay() {
  char buffer[1 << 16];
  for (;;) {
    struct pollfd in = {readEnd_, POLLIN, 0};
    // A message is complete when the next one begins; a quiet pipe also
    // ends it, so that listeners see the last message promptly.
    if (!message_.empty() && poll(&in, 1, 20) == 0) Emit();
    ssize_t got = read(readEnd_, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    Deliver(std::string_view(buffer, static_cast<size_t>(got)));
  }
  if (!partial_.empty()) {  // a last line without its line end
    partial_ += '\n';
    Deliver({});
  }
  Emit();
}

// Cuts `chunk` (after what was left of the last one) into lines, hands
// them on, and writes them to the real output in one go.
void OutputRelay::Deliver(std::string_view chunk) {
  partial_.append(chunk);
  std::string out;
  out.reserve(partial_.size());
  uint64_t commands = 0;  // action commands (QMTA041I) in `out`
  size_t start = 0;
  for (size_t end; (end = partial_.find('\n', start)) != std::string::npos; start = end + 1) {
    std::string_view line(partial_.data() + start, end - start);
    if (!line.empty() && line.front() == kMarkLead && line.substr(1).starts_with(Token())) {
      Emit();
      uint64_t number = std::strtoull(line.data() + 1 + Token().size(), nullptr, 10);
      Write(out);
      out.clear();
      commandsWritten_.fetch_add(commands, std::memory_order_release);
      commands = 0;
      for (const Listener& listener : listeners_)
        if (listener.mark) listener.mark(number);
      std::lock_guard<std::mutex> hold(markMutex_);
      markSeen_ = number;
      markChanged_.notify_all();
      continue;
    }
    if (!line.empty() && line.front() == kTagLead && line.substr(1).starts_with(Token())) {
      Emit();
      uint64_t number = std::strtoull(line.data() + 1 + Token().size(), nullptr, 10);
      for (const Listener& listener : listeners_)
        if (listener.tag) listener.tag(number);
      continue;
    }
    std::string_view id = MessageId(line);
    commands += id == "QMTA041I";
    if (!id.empty() || message_.empty()) {
      Emit();
      message_.assign(line);
      messageIdLength_ = id.size();
    } else {
      message_ += '\n';
      message_.append(line);
    }
    out.append(line);
    out += '\n';
  }
  partial_.erase(0, start);
  Write(out);
  commandsWritten_.fetch_add(commands, std::memory_order_release);
}

void OutputRelay::Emit() {
  if (message_.empty()) return;
  messages_.fetch_add(1, std::memory_order_relaxed);
  Message message{std::string_view(message_).substr(0, messageIdLength_), message_};
  for (const Listener& listener : listeners_)
    if (listener.message) listener.message(message);
  message_.clear();
  messageIdLength_ = 0;
}

void OutputRelay::Write(std::string_view text) {
  if (writeError_.load(std::memory_order_relaxed) != 0) return;  // dropped after an error
  while (!text.empty()) {
    struct pollfd out = {realOut_, POLLOUT, 0};
    if (poll(&out, 1, 0) == 0) {  // the output is not taking data: wait, and count it
      int64_t start = NowNanos();
      poll(&out, 1, -1);
      waitNanos_.fetch_add(NowNanos() - start, std::memory_order_relaxed);
    }
    ssize_t put = write(realOut_, text.data(), text.size());
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) {
      int error = put < 0 ? errno : EIO;
      writeError_.store(error, std::memory_order_relaxed);
      if (onWriteError) onWriteError(error);
      return;
    }
    text.remove_prefix(static_cast<size_t>(put));
  }
}

}  // namespace qmta::hostprog
