#include "fuzz/fuzzsupport.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "host/services/control.h"
#include "platform/trc1.h"

namespace qmtafuzz {

void Setup() {
  static std::string directory = std::string(getenv("TMPDIR") && *getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp") +
                                 "/qmta-fuzz-XXXXXX";
  Check(mkdtemp(directory.data()) && chdir(directory.c_str()) == 0, "working directory");
  atexit([] { std::filesystem::remove_all(directory); });
  // The module's messages would drown libFuzzer's own report (on stderr).
  int null = open("/dev/null", O_WRONLY);
  Check(null >= 0 && dup2(null, 1) >= 0, "standard output to /dev/null");
  close(null);
  FILE* trace = fopen("/dev/null", "w");
  Check(trace != nullptr, "trace to /dev/null");
  qmta::host::SetTraceStream(trace);
}

AutomationAnchor* MakeAnchor() {
  auto* table = static_cast<AutomationAnchor*>(calloc(1, sizeof(AutomationAnchor)));
  memcpy(table->eyecatcher, "TABL", 4);
  Check(qmtalint(&table->tableLock) == 0 && pthread_mutex_init(&table->requestIdLock, nullptr) == 0, "anchor locks");
  table->requestId = 1;
  publishAnchor(table);
  return table;
}

void WriteRuleFile(const uint8_t* data, size_t size) {
  FILE* out = fopen("QMTASITR", "wb");
  Check(out && (size == 0 || fwrite(data, 1, size, out) == size) && fclose(out) == 0, "rule file written");
}

void Trace(bool on) { qmta::host::SetTraceLevel(on ? TRC1_DETAIL | TRC1_LOCK_DETAIL : 0); }

void Check(bool condition, const char* what) {
  if (condition) return;
  fprintf(stderr, "qmta fuzz: check failed: %s\n", what);
  abort();
}

}  // namespace qmtafuzz
