// Lifecycle of a rule entry record.
#include <stdlib.h>
#include <string.h>

#include "qmtauto1/qmtauto1.h"

void initentry(TableEntry* entry) {
  memset(entry, 0, sizeof *entry);
  memcpy(entry->eyecatcher, "TBEN", sizeof entry->eyecatcher);
  entry->state = kStateTrue;
  entry->sitname[0] = '*';
  entry->originnode[0] = '*';
  entry->script[0] = '*';
}

// Only heap copies are freed: an empty argument is always one of the
// parser's static empty strings, never a heap block.
void freeentryargs(TableEntry* entry) {
  for (char*& arg : entry->args) {
    if (arg != nullptr && arg[0] != '\0') free(arg);
    arg = nullptr;
  }
}

void freeentry(TableEntry* entry) {
  if (entry == nullptr) return;
  freeentryargs(entry);
  free(entry);
}
