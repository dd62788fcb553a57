// The automation module's shared records and its internal functions.
//
// Records are plain structs, zero-filled when allocated, each beginning with
// a four-character eye-catcher without terminator, joined by pointers. The
// comment on each says who allocates it, who frees it, and what guards it.
#ifndef QMTAUTO1_QMTAUTO1_H_
#define QMTAUTO1_QMTAUTO1_H_

#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <time.h>

#include <atomic>

#include "platform/dbq1.h"
#include "qmtaloc0/qmtaloc0.h"

// Longest node, situation and pattern names held in a record.
constexpr int kNameMax = 32;
// Longest script name.
constexpr int kScriptMax = 8;
// Arguments of a rule.
constexpr int kArgCount = 9;
// Command and argument-piece buffers: 600 characters and terminator.
constexpr int kCommandMax = 600;
// Request ids wrap back to 1 when the counter reaches this.
constexpr uint32_t kRequestIdWrap = 999999999u;

// Rule state codes.
constexpr uint32_t kStateUnknown = 0;
constexpr uint32_t kStateTrue = 1;
constexpr uint32_t kStateFalse = 2;
constexpr uint32_t kStateAny = 99;

// One situation state change. Built on the stack of autoexit for one call;
// read only by the functions it calls synchronously. Owns no text.
struct SitParms {
  char eyecatcher[4];  // "SITP"
  const char* sitnameS;
  const char* originnodeS;
  int32_t prevstateL;
  int32_t currstateL;
  const char* timestampS;
  int32_t attribL;  // entries in each of the next two arrays
  const char* const* attribNames;
  const char* const* attribValues;
  const char* thresholdS;  // never null: "" when the caller passed none
};

// One rule of the rule file. Allocated by loadentry, filled by
// readnextentry, freed by the next load. Read under the shared table lock.
struct TableEntry {
  char eyecatcher[4];  // "TBEN"
  uint32_t state;      // kState*; default kStateTrue
  int32_t calltype;    // 0 to 99
  char* args[kArgCount];  // heap copies, static "" for gaps, null above
  TableEntry* next;       // next rule in file order
  char sitname[kNameMax + 1];     // pattern, default "*"
  char originnode[kNameMax + 1];  // pattern, default "*"
  char destnode[kNameMax + 1];    // never empty once loaded
  char script[kScriptMax + 1];    // SCRIPT= or SUBAGENT=, default "*"
};

// One action. Allocated by formatsql, owned and freed by its action thread.
struct AutoSql {
  char eyecatcher[4];  // "ASQL"
  int32_t calltypeL;
  uint32_t requestidUL;
  char* cmdS;  // heap copy of the command text, owned
  char originnode[kNameMax + 1];
  char destnodeS[kNameMax + 1];
  char sitnameS[kNameMax + 1];
  int32_t stateL;  // the event's current state
};

// Completion block of a request: sqlcomplete is handed the address of
// doneCond and reaches the rest from it, so the four stay together, in
// this order, at the start of the block.
struct CompletionBlock {
  pthread_cond_t doneCond;
  pthread_mutex_t doneLock;  // guards doneStatus and doneFlag
  int32_t doneStatus;
  int32_t doneFlag;
};

// One prepared request. Created by pullstack, owned by its stack while on
// it and by one action thread while pulled; destroyed only by pushstack.
struct RSEN {
  char eyecatcher[4];  // "RSEN"
  RSEN* next;          // entry below this one while on the stack
  DBQ1_Handle* cursorHandleRef;  // &cursorHandle
  DBQ1_Handle cursorHandle;
  DBQ1_Sqlda* inputSqlda;
  DBQ1_Handle requestHandle;
  CompletionBlock done;
};

// One request stack, embedded in the anchor, never freed. stackLock guards
// top and both counters; DISPLAY reads the counters without it.
struct RSTK {
  char eyecatcher[4];  // "RSTK"
  pthread_mutex_t stackLock;
  RSEN* top;
  int32_t freeCount;
  int32_t totalCount;
  // Written without locks by autoexit while actions may read it.
  alignas(16) DBQ1_Handle pathHandle;
  DBQ1_Handle accessPlanHandle;
};

enum StackIndex { kVxStack = 0, kRmStack = 1, kSnmpStack = 2, kStackCount = 3 };

// The automation anchor: everything the action environment shares. Built
// once by initautomation, never freed after a successful start.
struct AutomationAnchor {
  char eyecatcher[4];             // "TABL"
  SeLock tableLock;               // guards entries
  pthread_mutex_t requestIdLock;  // guards requestId
  uint32_t requestId;             // next id to hand out
  TableEntry* entries;            // rule list in file order
  RSTK stacks[kStackCount];       // VX events, RM events, SNMP
};

// ---- Module-wide state ------------------------------------------------------
// Written without locks; always reached through the accessors below.
extern AutomationAnchor* tableAnchor;
extern int32_t automationFlag;  // 1 at load; 0 failed, 1 ready, 2 disabled
extern int32_t inDS;            // 1 at load
extern int32_t initOnce;        // once-control word, negative when done

template <typename T>
inline T relaxedLoad(T& value) {
  return std::atomic_ref<T>(value).load(std::memory_order_relaxed);
}
template <typename T>
inline void relaxedStore(T& value, T newValue) {
  std::atomic_ref<T>(value).store(newValue, std::memory_order_relaxed);
}
// The anchor pointer is published with release order so that whoever sees
// it also sees the zero-filled record behind it.
inline AutomationAnchor* anchor() {
  return std::atomic_ref<AutomationAnchor*>(tableAnchor)
      .load(std::memory_order_acquire);
}
inline void publishAnchor(AutomationAnchor* value) {
  std::atomic_ref<AutomationAnchor*>(tableAnchor)
      .store(value, std::memory_order_release);
}

// The two action statements (two blanks before the parenthesis).
extern const char kVxStatement[];
extern const char kRmStatement[];
extern const char kSnmpStatement[];

// ---- Situation event entry and matching -------------------------------------
int32_t autoexit(const char* sitnameS, const char* originnodeS,
                 int32_t prevstateL, int32_t currstateL,
                 const char* timestampS, int32_t attribL,
                 const char* const* attribNames,
                 const char* const* attribValues, const char* thresholdS,
                 const DBQ1_Handle* pathHandle, int32_t onDS);
int32_t searchtable(const SitParms* sitParms, const DBQ1_Handle* pathHandle);
TableEntry* searchiter(const SitParms* sitParms, TableEntry* previous);
int32_t sitmatch(const SitParms* sitParms, const TableEntry* entry);
int32_t match(const char* text, const char* pattern);

// ---- Action execution and formatting ----------------------------------------
void* processsql(void* autoSql);
AutoSql* formatsql(const SitParms* sitParms, const TableEntry* tableEntry);
int32_t formatarg(char* cmd, const SitParms* sitParms, const char* destnode,
                  const char* argS);
// Writes the 16-digit timestamp text (longer from the year 2900 on) into
// `buffer`, which holds at least kTimestampBuffer characters.
constexpr int kTimestampBuffer = 96;  // room for any int fields
char* gettimestamp(char* buffer, const struct tm* time);

// ---- Rule table --------------------------------------------------------------
void initentry(TableEntry* entry);   // defaults of a fresh record
void freeentryargs(TableEntry* entry);  // frees the heap argument strings
void freeentry(TableEntry* entry);   // strings, then the record
int32_t getnexttag(FILE* file, char** valueS, int32_t* line);
int32_t readnextentry(FILE* file, TableEntry* entry);
TableEntry* loadentry(FILE* file);
int32_t loadtable();

// ---- Request stacks ------------------------------------------------------------
int32_t initstack(RSTK* rStack, const char* sql);
RSEN* pullstack(RSTK* rStack);
int32_t pushstack(RSTK* rStack, RSEN* currRSEntry, int32_t forcedropI);
int32_t sqlcomplete(int32_t status, void* userArgument);

// ---- Module control ------------------------------------------------------------
void initautomation(void* pathHandle);
void qmtainit();
int32_t qmtautocmd(void* context, const void* command, void* unused,
                   int32_t* reason);

#endif  // QMTAUTO1_QMTAUTO1_H_
