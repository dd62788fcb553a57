// Loading the rule table from the rule file.
//
// The whole load runs under the exclusive table lock: searches never see a
// partly freed or partly built list, two loads never interleave, and the
// tokenizer's and parser's module-wide state is used by one load at a time.
// The old list is freed before the file is opened, so a load that fails
// leaves the table empty rather than stale.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "qmtauto1/qmtamsg.h"
#include "qmtauto1/qmtaport.h"
#include "qmtauto1/qmtauto1.h"
#include "qmtauto1/rulefile.h"

namespace {

constexpr char kRuleFileName[] = "QMTASITR";
constexpr char kNoMemory[] = "QMTA000E ALLOCATION ERROR FOR %s\n";
constexpr char kTableEmpty[] = "QMTA008W QMTASITR LOOKUP TABLE IS EMPTY\n";
constexpr char kNotOpened[] = "QMTA009W QMTASITR COULD NOT BE OPENED\n";

constexpr int32_t kNoAnchor = -7;
constexpr int32_t kNoEntries = -8;
constexpr int32_t kNoFile = -9;

void freeList(TableEntry* entry, const TraceFlow& flow) {
  while (entry != nullptr) {
    TableEntry* next = entry->next;
    if (flow.detail()) {
      TRC1_Printf(kUnitModule, __LINE__, "Freeing tableEntry=%x",
                  traceAddress(entry));
      qmtaFlush();
    }
    freeentry(entry);
    entry = next;
  }
}

// Opens the rule file for reading in text mode, or returns null. Anything
// but a regular file counts as a file that could not be opened: a FIFO
// would block the open (and every search waiting on the table lock) until
// a writer came, and a device such as /dev/zero would never end. The open
// itself never blocks; a regular file reads the same without the flag.
FILE* openRuleFile() {
  int fd = open(kRuleFileName, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) return nullptr;
  struct stat info;
  if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    close(fd);
    return nullptr;
  }
  FILE* file = fdopen(fd, "r");
  if (file == nullptr) close(fd);
  return file;
}

}  // namespace

TableEntry* loadentry(FILE* file) {
  TraceFlow flow(kUnitModule, "loadentry");
  auto* entry =
      static_cast<TableEntry*>(qmta::port::Calloc(1, sizeof(TableEntry)));
  if (entry == nullptr) {
    qmtaMessage(kNoMemory, "SITUATION TRAP TABLE ENTRY");
    return flow.exit<TableEntry*>(nullptr);
  }
  if (readnextentry(file, entry) != 0) {
    freeentry(entry);
    return flow.exit<TableEntry*>(nullptr);
  }
  return flow.exit(entry);
}

int32_t loadtable() {
  TraceFlow flow(kUnitModule, "loadtable");
  AutomationAnchor* table = anchor();
  if (table == nullptr) return flow.exit(kNoAnchor);

  int32_t status = qmtalgel(&table->tableLock);
  if (status != 0) return flow.exit(status);

  // The list head is also read by DISPLAY without the lock; it is written
  // as a whole word.
  TableEntry* old = relaxedLoad(table->entries);
  relaxedStore<TableEntry*>(table->entries, nullptr);
  if (old != nullptr && flow.detail()) {
    TRC1_Printf(kUnitModule, __LINE__, "Table reload in progress");
    qmtaFlush();
  }
  freeList(old, flow);

  qmta::rules::restarttokenizer();
  qmta::rules::restartparser();
  FILE* file = openRuleFile();
  if (file == nullptr) {
    qmtaMessage(kNotOpened);
    status = kNoFile;
  } else {
    // A null from loadentry ends the list: the end of the file, or a
    // record that could not be allocated (the rest of the file is then
    // not read and the records so far stay).
    TableEntry* head = loadentry(file);
    for (TableEntry* last = head; last != nullptr; last = last->next)
      last->next = loadentry(file);
    fclose(file);
    relaxedStore(table->entries, head);
    if (head == nullptr) {
      qmtaMessage(kTableEmpty);
      status = kNoEntries;
    }
  }

  qmtalrel(&table->tableLock);
  return flow.exit(status);
}
