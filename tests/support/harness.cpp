#include "tests/support/harness.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <netinet/in.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "host/services/control.h"

namespace qmtatest {

StdoutCapture::StdoutCapture(int fd) : fd_(fd) {
  fflush(stdout);
  char name[] = "/tmp/qmta-stdout-XXXXXX";
  file_ = mkstemp(name);
  if (file_ < 0) throw std::runtime_error("mkstemp failed");
  unlink(name);
  saved_ = dup(fd_);
  dup2(file_, fd_);
}

StdoutCapture::~StdoutCapture() {
  fflush(stdout);
  dup2(saved_, fd_);
  close(saved_);
  close(file_);
}

std::string StdoutCapture::Take() {
  fflush(stdout);
  std::string text;
  char buffer[4096];
  for (ssize_t got; (got = pread(file_, buffer, sizeof buffer, offset_)) > 0; offset_ += got) text.append(buffer, got);
  return text;
}

std::vector<std::string> StdoutCapture::TakeLines() { return SplitLines(Take()); }

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

ScratchDir::ScratchDir() {
  const char* base = getenv("TMPDIR");
  std::string name = std::string(base && *base ? base : "/tmp") + "/qmta-test-XXXXXX";
  if (!mkdtemp(name.data())) throw std::runtime_error("mkdtemp failed");
  path_ = name;
  previous_ = std::filesystem::current_path().string();
  std::filesystem::current_path(path_);
}

ScratchDir::~ScratchDir() {
  std::error_code ignored;
  std::filesystem::current_path(previous_, ignored);
  std::filesystem::remove_all(path_, ignored);
}

void ScratchDir::Write(const std::string& name, const std::string& content) const {
  std::ofstream out(path_ + "/" + name, std::ios::binary | std::ios::trunc);
  if (!out.write(content.data(), static_cast<std::streamsize>(content.size()))) throw std::runtime_error("cannot write " + name);
}

void ScratchDir::Remove(const std::string& name) const {
  std::error_code ignored;
  std::filesystem::remove(path_ + "/" + name, ignored);
}

Module::Module() {
  static std::atomic<int> serial{0};
  path_ = "/tmp/qmta-module-" + std::to_string(getpid()) + "-" + std::to_string(serial++) + ".so";
  std::filesystem::copy_file(QMTA_MODULE_PATH, path_, std::filesystem::copy_options::overwrite_existing);
  handle_ = dlopen(path_.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle_) throw std::runtime_error(std::string("dlopen: ") + dlerror());
  autoexit = reinterpret_cast<QMTAUTOX_Entry>(dlsym(handle_, "QMTAUTOX"));
  init = reinterpret_cast<QMTAINIT_Entry>(dlsym(handle_, "QMTAINIT"));
  command = reinterpret_cast<QMTASITR_Entry>(dlsym(handle_, "QMTASITR"));
  if (!autoexit || !init || !command) throw std::runtime_error("entry missing");
  qmta::host::RegisterLoadModule("QMTAUTOX", path_);
}

Module::~Module() { unlink(path_.c_str()); }

void Module::Init() const {
  // QMTAINIT detaches its calling thread, so that thread is never joined:
  // it reports through a flag instead.
  struct Start {
    QMTAINIT_Entry init;
    std::atomic<bool> done{false};
  } start{init};
  pthread_t thread;
  auto body = [](void* argument) -> void* {
    auto* s = static_cast<Start*>(argument);
    s->init();
    s->done.store(true);
    return nullptr;
  };
  if (pthread_create(&thread, nullptr, body, &start) != 0) throw std::runtime_error("pthread_create failed");
  while (!start.done.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

int32_t Module::Command(const std::string& text, int32_t* reason) const {
  QMTA_CommandText descriptor{text.data(), nullptr, static_cast<uint32_t>(text.size())};
  int32_t ignored = 0;
  return command(nullptr, &descriptor, nullptr, reason ? reason : &ignored);
}

void* Module::Symbol(const char* name) const { return dlsym(handle_, name); }

int FreePort() {
  int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address);
  getsockname(probe, reinterpret_cast<sockaddr*>(&address), &size);
  close(probe);
  return ntohs(address.sin_port);
}

std::string ProgramIn(const std::string& name) {
  std::string dirs = "/usr/sbin:/usr/bin:/usr/local/bin";
  if (const char* path = getenv("PATH")) dirs += std::string(":") + path;
  for (size_t start = 0; start <= dirs.size();) {
    size_t end = dirs.find(':', start);
    if (end == std::string::npos) end = dirs.size();
    std::string candidate = dirs.substr(start, end - start) + "/" + name;
    if (end > start && access(candidate.c_str(), X_OK) == 0) return candidate;
    start = end + 1;
  }
  return "";
}

}  // namespace qmtatest
