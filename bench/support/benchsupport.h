// Helpers shared by the benchmark programs: generated rule files and the
// common main, beside what they share with the tests (harness.h).
//
// Every program measures a figure of the system ("ours") and its floor, the
// least work that does the same job, in the same run on the same data, so
// that a noisy machine moves both alike and their ratio stays meaningful.
#ifndef BENCH_SUPPORT_BENCHSUPPORT_H_
#define BENCH_SUPPORT_BENCHSUPPORT_H_

#include <stdint.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "qmtauto1/qmtautox.h"
#include "tests/support/harness.h"

namespace qmtabench {

// True when the program was started with --tiny: small sizes, one short
// repetition, only to prove that every benchmark still runs.
bool Tiny();

// Runs the registered benchmarks. Strips --tiny, then calls `registerAll`
// (which may look at Tiny()) and runs with Google Benchmark's own flags.
// The console report goes to standard error; standard output is sent to
// /dev/null for the whole run, since the module prints its messages there.
int Main(int argc, char** argv, const std::function<void()>& registerAll);

// The scratch directory and the module loaded as a host loads it, from a
// private copy of its file so that every instance has module-wide state
// of its own: the same as the tests use (tests/support/harness.h).
using qmtatest::Module;
using qmtatest::ScratchDir;

// Runs `body` with standard output (fd 1) sent to a temporary file and
// returns what was written there.
std::string CaptureStdout(const std::function<void()>& body);

// Rules listed by the module's DISPLAY command (QMTA095I lines).
int DisplayedRules(const Module& module);

// Runs `argv` (argv[0] is the program's path) with standard input from
// /dev/null and standard output and error to the files named, and waits for
// it; returns its wait status, or -1 when it could not be started.
int RunProgram(const std::vector<std::string>& argv, const std::string& out,
               const std::string& err);

// Polls `done` every `interval` until it is true; false after `limit`.
bool WaitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit,
               std::chrono::microseconds interval = std::chrono::microseconds(50));

// `count` JSON event lines, one per line, of situations that no rule of
// RealisticRules names, from many nodes, each with a timestamp and two
// attributes, as a data server reports them (the host ingest figures).
std::string IngestEventLines(int count);

// ---- Rules -------------------------------------------------------------------

// One rule as the generators make it; `Text` writes it in rule-file form.
struct Rule {
  std::string comment;  // written as a "*" line before the rule, when set
  std::string sitname;
  std::string originnode;
  std::string state;  // TRUE, FALSE, UNKNOWN, ANY
  std::string destnode;
  int calltype = 1;
  std::string script;
  std::vector<std::string> args;  // ARG1, ARG2, ...
};
std::string Text(const Rule& rule);
std::string Text(const std::vector<Rule>& rules);

// The event that the matching rules are tested against.
inline constexpr char kMissSitname[] = "NT_Disk_Space_Low";
inline constexpr char kMissOrigin[] = "Primary:WEB00042:NT";

// `count` rules whose state fits a TRUE event of kMissSitname from
// kMissOrigin and whose situation pattern matches it, but whose origin
// pattern does not: every rule costs both pattern tests and none fires.
std::vector<Rule> MissRules(int count);

// `count` rules of the kinds an operator writes: several situations and
// node patterns, all states, the three kinds of destination, zero to six
// arguments with variables, literals and quoted text, and comments.
std::vector<Rule> RealisticRules(int count);

}  // namespace qmtabench

#endif  // BENCH_SUPPORT_BENCHSUPPORT_H_
