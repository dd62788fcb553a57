#include "fuzz/fuzzsupport.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>

#include "host/services/control.h"
#include "platform/trc1.h"

namespace qmtafuzz {
namespace {

std::string directory;

void removeDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(directory, ignored);
}

}  // namespace

void Setup() {
  const char* base = getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/qmta-fuzz-XXXXXX";
  std::string name = pattern;
  if (mkdtemp(name.data()) == nullptr || chdir(name.c_str()) != 0) {
    perror("qmta fuzz: working directory");
    abort();
  }
  directory = name;
  atexit(removeDirectory);
  // The module's messages would drown libFuzzer's own report (on stderr).
  int null = open("/dev/null", O_WRONLY);
  if (null < 0 || dup2(null, 1) < 0) abort();
  close(null);
  FILE* trace = fopen("/dev/null", "w");
  if (trace == nullptr) abort();
  qmta::host::SetTraceStream(trace);
}

AutomationAnchor* MakeAnchor() {
  auto* table = static_cast<AutomationAnchor*>(calloc(1, sizeof(AutomationAnchor)));
  memcpy(table->eyecatcher, "TABL", 4);
  Check(qmtalint(&table->tableLock) == 0, "table lock");
  Check(pthread_mutex_init(&table->requestIdLock, nullptr) == 0, "request-id lock");
  table->requestId = 1;
  publishAnchor(table);
  return table;
}

void WriteRuleFile(const uint8_t* data, size_t size) {
  FILE* out = fopen("QMTASITR", "wb");
  Check(out != nullptr, "rule file opened");
  Check(size == 0 || fwrite(data, 1, size, out) == size, "rule file written");
  Check(fclose(out) == 0, "rule file closed");
}

void Trace(bool on) {
  qmta::host::SetTraceLevel(on ? TRC1_DETAIL | TRC1_LOCK_DETAIL : 0);
}

void Check(bool condition, const char* what) {
  if (condition) return;
  fprintf(stderr, "qmta fuzz: check failed: %s\n", what);
  abort();
}

}  // namespace qmtafuzz
