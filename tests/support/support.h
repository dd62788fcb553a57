// Helpers shared by the tests: those of harness.h (standard output
// capture, a scratch directory, the module loaded as a host loads it),
// threads started and joined together, programs run as child processes,
// and assertion failures copied to standard error.
#ifndef TESTS_SUPPORT_SUPPORT_H_
#define TESTS_SUPPORT_SUPPORT_H_

#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/harness.h"

namespace qmtatest {

// Runs body(0) .. body(count - 1) on threads of their own and joins them.
void OnThreads(int count, const std::function<void(int)>& body);

// The whole content of a file ("" when it cannot be read).
std::string ReadFile(const std::string& path);

// Polls `ready` every 10 ms until it holds or `limit` passes.
bool WaitUntil(const std::function<bool()>& ready, std::chrono::milliseconds limit);

// A program (a path, or a name looked up on PATH) run with standard output
// and error in files ("-": closed; "/dev/fd/N": the test's descriptor N),
// and standard input from a file or from a pipe that Send writes.
class Child {
 public:
  ~Child() { Kill(SIGKILL); }
  bool Spawn(std::vector<std::string> words, const std::string& out, const std::string& err,
             const std::string& in = "/dev/null", bool pipeInput = false);
  void Send(const std::string& text);
  // Waits up to `limit` for the exit: the exit status, or -1 when a signal
  // ended the program or it still runs (it is left running).
  int Wait(std::chrono::milliseconds limit);
  // Closes the input and waits (bounded) for the exit: the exit status, or
  // -1 when the program had to be killed or did not exit.
  int Finish(std::chrono::milliseconds limit = std::chrono::seconds(60));
  // Sends `signal`; SIGKILL also waits for the end.
  void Kill(int signal);
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  int input_ = -1;
};

}  // namespace qmtatest

#endif  // TESTS_SUPPORT_SUPPORT_H_
