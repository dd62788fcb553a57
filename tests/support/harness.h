// What the tests and the benchmarks share: standard output capture, a
// scratch directory that is the current directory while it lives, and the
// module loaded with dlopen as a host loads it. No GoogleTest here, so that
// the benchmarks link it too.
#ifndef TESTS_SUPPORT_HARNESS_H_
#define TESTS_SUPPORT_HARNESS_H_

#include <stdint.h>

#include <string>
#include <vector>

#include "qmtauto1/qmtautox.h"

namespace qmtatest {

// Sends standard output (or the descriptor `fd`) to a file while it lives.
class StdoutCapture {
 public:
  explicit StdoutCapture(int fd = 1);
  ~StdoutCapture();
  StdoutCapture(const StdoutCapture&) = delete;
  StdoutCapture& operator=(const StdoutCapture&) = delete;
  // Everything written since the capture started (or since the last Take).
  std::string Take();
  // The same, split into lines without their line ends.
  std::vector<std::string> TakeLines();

 private:
  int fd_ = 1;
  int saved_ = -1;
  int file_ = -1;
  long offset_ = 0;
};

// A fresh directory under TMPDIR that is the current directory while the
// object lives; removed with its contents afterwards.
class ScratchDir {
 public:
  ScratchDir();
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  const std::string& path() const { return path_; }
  // Writes `content` to `name` in the directory, byte for byte.
  void Write(const std::string& name, const std::string& content) const;
  void Remove(const std::string& name) const;

 private:
  std::string path_;
  std::string previous_;
};

// Splits text into lines without their line ends.
std::vector<std::string> SplitLines(const std::string& text);

// The module loaded with dlopen from a private copy of its file, so that
// every instance starts with fresh module-wide state. The copy is also
// registered as load module "QMTAUTOX" for TESTSIT.
class Module {
 public:
  Module();
  ~Module();  // never unloads: action threads may still be inside it
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;

  QMTAUTOX_Entry autoexit = nullptr;
  QMTAINIT_Entry init = nullptr;
  QMTASITR_Entry command = nullptr;

  // Runs QMTAINIT on a thread of its own and returns when it has finished.
  void Init() const;
  // Sends one operator command; returns the entry's result.
  int32_t Command(const std::string& text, int32_t* reason = nullptr) const;
  // A named symbol of the module (test hooks), null when absent.
  void* Symbol(const char* name) const;
  const std::string& path() const { return path_; }

 private:
  void* handle_ = nullptr;
  std::string path_;
};

// A free TCP port on 127.0.0.1 (free when asked; another program may take
// it before the caller binds it).
int FreePort();

// The path of program `name` (nats-server, openssl) in the folders that
// Debian installs programs in, then the PATH; empty when it is in none.
std::string ProgramIn(const std::string& name);

}  // namespace qmtatest

#endif  // TESTS_SUPPORT_HARNESS_H_
