// Rule matching and dispatch: one walk over the rule list per event, under
// the shared table lock, with one action thread started per matching rule.
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "platform/svc1.h"
#include "qmtauto1/qmtamsg.h"
#include "qmtauto1/qmtaport.h"
#include "qmtauto1/qmtauto1.h"

int32_t searchtable(const SitParms* sitParms, const DBQ1_Handle* pathHandle) {
  TraceFlow flow(kUnitModule, "searchtable");
  if (flow.detail()) {
    TRC1_Printf(kUnitModule, __LINE__, " sitParms=%x", traceAddress(sitParms));
    qmtaFlush();
  }

  // The first event (or QMTAINIT) sets up the action environment.
  if (std::atomic_ref<int32_t>(initOnce).load(std::memory_order_acquire) >= 0)
    SVC1_InitializeOnce(&initOnce, initautomation,
                        const_cast<DBQ1_Handle*>(pathHandle), "qmtauto1", 406);

  if (relaxedLoad(automationFlag) != 1) {
    qmtaMessage("QMTA001W QMTASITR LOOKUP TABLE NOT LOADED\n");
    return flow.exit(-3);
  }

  AutomationAnchor* table = anchor();
  int32_t result = qmtalgsl(&table->tableLock);
  if (result != 0) return flow.exit(result);

  // The result is that of the last matching rule: a later success
  // overwrites an earlier failure.
  for (TableEntry* entry = searchiter(sitParms, nullptr); entry != nullptr;
       entry = searchiter(sitParms, entry)) {
    AutoSql* request = formatsql(sitParms, entry);
    if (request == nullptr) {
      result = -1;
      continue;
    }
    pthread_t thread;  // the action thread detaches itself
    if (qmta::port::ThreadCreate(&thread, processsql, request) != 0) {
      qmtaMessage("QMTA002E THREAD CREATION ERROR=%d\n", errno);
      // Nothing else would ever free the record of an action that could
      // not start.
      free(request->cmdS);
      free(request);
      result = -2;
    } else {
      result = 0;
    }
  }
  qmtalrsl(&table->tableLock);
  return flow.exit(result);
}

// The walk: sitmatch and match are inlined here (flatten), each still asking
// for its trace level and tracing its own entry and exit as a call would.
[[gnu::flatten]] TableEntry* searchiter(const SitParms* sitParms, TableEntry* previous) {
  TraceFlow flow(kUnitModule, "searchiter");
  TableEntry* entry = previous ? previous->next : anchor()->entries;
  while (entry != nullptr && sitmatch(sitParms, entry) == 0) entry = entry->next;
  return flow.exit(entry);
}

int32_t sitmatch(const SitParms* sitParms, const TableEntry* entry) {
  TraceFlow flow(kUnitModule, "sitmatch");
  if (entry->state != kStateAny &&
      entry->state != static_cast<uint32_t>(sitParms->currstateL))
    return flow.exit(0);
  return flow.exit(match(sitParms->sitnameS, entry->sitname) == 1 &&
                           match(sitParms->originnodeS, entry->originnode) == 1
                       ? 1
                       : 0);
}

int32_t match(const char* text, const char* pattern) {
  TraceFlow flow(kUnitModule, "match");
  if (pattern[0] == '*' && pattern[1] == '\0') return flow.exit(1);
  if (strcmp(text, pattern) == 0) return flow.exit(1);
  const char* star = strchr(pattern, '*');
  if (star == nullptr) return flow.exit(0);
  size_t prefix = static_cast<size_t>(star - pattern);
  if (strncmp(text, pattern, prefix) != 0) return flow.exit(0);
  // Prefix and suffix may overlap in the text; a text shorter than the
  // suffix does not match.
  const char* suffix = star + 1;
  size_t suffixLength = strlen(suffix);
  size_t textLength = strlen(text);
  if (textLength < suffixLength) return flow.exit(0);
  return flow.exit(memcmp(text + textLength - suffixLength, suffix, suffixLength) == 0
                       ? 1
                       : 0);
}
