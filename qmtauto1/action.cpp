// The action thread: runs one action on its destination node through a
// prepared request, waits at most 60 seconds for its completion, reports
// every step, and gives the request back to its stack.
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "platform/svc1.h"
#include "platform/zbl.h"
#include "qmtauto1/qmtamsg.h"
#include "qmtauto1/qmtaport.h"
#include "qmtauto1/qmtauto1.h"

namespace {

constexpr int64_t kWaitSeconds = 60;
constexpr int32_t kStatusOffline = DBQ1_DEST_OFFLINE;
constexpr int32_t kStatusNoMoreRows = DBQ1_NO_MORE_ROWS;

// Fills a character parameter with blanks for its declared length and
// copies as much of `text` as fits; no terminator.
void bindCharacters(DBQ1_SqlVar& parameter, const char* text) {
  size_t declared = parameter.length > 0 ? static_cast<size_t>(parameter.length) : 0;
  memset(parameter.data, ' ', declared);
  size_t length = strlen(text);
  memcpy(parameter.data, text, length < declared ? length : declared);
}

// The offline message, for a first-stack 2020 and for an answer without rows.
void reportOffline(const AutoSql* autoSql) {
  qmtaMessage("QMTA051W DESTNODE=%s OFFLINE FOR SITNAME=%s ORIGINNODE=%s STATE=%d "
              "REQUESTID=%lu\n",
              autoSql->destnodeS, autoSql->sitnameS, autoSql->originnode,
              autoSql->stateL, static_cast<unsigned long>(autoSql->requestidUL));
}

void reportSqlError(const char* step, int32_t status) {
  qmtaMessage("QMTA030E %s SQL ERROR ON %s STATUS=%d\n", "SELECT", step, status);
}

}  // namespace

void* processsql(void* argument) {
  auto* autoSql = static_cast<AutoSql*>(argument);
  TraceFlow flow(kUnitModule, "processsql");
  int32_t status = 0;
  int32_t waitResult = 0;
  int32_t forceDrop = 0;
  int32_t rowCount = 0;
  if (flow.detail()) {
    TRC1_Printf(kUnitModule, __LINE__, "processsql called");
    TRC1_Printf(kUnitModule, __LINE__, " autoSql=%x", traceAddress(autoSql));
    TRC1_Printf(kUnitModule, __LINE__, " requestidUL=%ld",
                static_cast<long>(autoSql->requestidUL));
    TRC1_Printf(kUnitModule, __LINE__, " cmdS=%s", autoSql->cmdS);
    TRC1_Printf(kUnitModule, __LINE__, " calltypeL=%d", autoSql->calltypeL);
    TRC1_Printf(kUnitModule, __LINE__, " destnodeS=%s", autoSql->destnodeS);
    TRC1_Printf(kUnitModule, __LINE__, " sitnameS=%s", autoSql->sitnameS);
    qmtaFlush();
  }
  zblercm();

  // The destination's text chooses the stack, not the call type.
  AutomationAnchor* table = anchor();
  RSTK* stack = &table->stacks[kRmStack];
  if (strstr(autoSql->destnodeS, ":MVS_ACTIONS") != nullptr)
    stack = &table->stacks[kVxStack];
  else if (strstr(autoSql->destnodeS, ":SNMP_TRAP") != nullptr)
    stack = &table->stacks[kSnmpStack];
  const bool firstStack = stack == &table->stacks[kVxStack];

  RSEN* entry = pullstack(stack);
  if (entry == nullptr) {
    status = -1;
  } else {
    do {
      // REQUESTID, COMMAND, CALLTYPE, ORIGINNODE (given the destination).
      DBQ1_SqlVar* parameters = entry->inputSqlda->var;
      memcpy(parameters[0].data, &autoSql->requestidUL, 4);
      bindCharacters(parameters[1], autoSql->cmdS);
      memcpy(parameters[2].data, &autoSql->calltypeL, 4);
      bindCharacters(parameters[3], autoSql->destnodeS);

      flockfile(stdout);
      qmtaMessageNoFlush("QMTA040I ACTION STARTED FOR SITNAME=%s DESTNODE=%s STATE=%d "
                         "REQUESTID=%lu\n",
                         autoSql->sitnameS, autoSql->destnodeS, autoSql->stateL,
                         static_cast<unsigned long>(autoSql->requestidUL));
      qmtaMessageNoFlush("QMTA041I CMD=%s\n", autoSql->cmdS);
      qmtaFlush();
      funlockfile(stdout);

      status = DBQ1_OpenRequest(entry->requestHandle, entry->inputSqlda);
      if (flow.detail()) {
        TRC1_Printf(kUnitModule, __LINE__, "DBQ1_OpenRequest status=%d", status);
        qmtaFlush();
      }
      if (status != 0) {
        reportSqlError("OPENREQUEST", status);
        forceDrop = 1;
        break;  // no close: the open did not happen
      }

      // One timed wait, not repeated: a completion that came first is
      // taken at once.
      SVC1_Time now;
      SVC1_GetTime(&now);
      struct timespec deadline;
      deadline.tv_sec = static_cast<time_t>(now.seconds + kWaitSeconds);
      deadline.tv_nsec = now.nanoseconds;
      CompletionBlock& done = entry->done;
      pthread_mutex_lock(&done.doneLock);
      if (done.doneFlag == 0) {
        waitResult = qmta::port::CondTimedWait(&done.doneCond, &done.doneLock, &deadline);
        if (flow.detail())
          TRC1_Printf(kUnitModule, __LINE__, "pthread_cond_timedwait status=%d", waitResult);
      }
      // A time-out returns its error number, not -1, so the status is then
      // the one the last completion left, normally 0.
      status = waitResult == -1 ? errno : done.doneStatus;
      done.doneFlag = 0;
      done.doneStatus = 0;
      pthread_mutex_unlock(&done.doneLock);
      if (flow.detail()) {
        TRC1_Printf(kUnitModule, __LINE__, "Async open completed statusI=%d", status);
        qmtaFlush();
      }

      if (waitResult != 0) {
        qmtaMessage("QMTA042E NO RESPONSE FROM DESTNODE=%s FOR SITNAME=%s ORIGINNODE=%s "
                    "STATE=%d ERRNO=%d REQUESTID=%lu\n",
                    autoSql->destnodeS, autoSql->sitnameS, autoSql->originnode,
                    autoSql->stateL, status,
                    static_cast<unsigned long>(autoSql->requestidUL));
        forceDrop = 1;
        DBQ1_CloseRequest(entry->requestHandle);
        if (status != 0) break;
        // With status 0 the output step is still tried on the closed request.
      } else if (status == kStatusOffline && firstStack) {
        reportOffline(autoSql);
        DBQ1_CloseRequest(entry->requestHandle);
        break;  // the request is fit for reuse
      } else if (status != 0) {
        reportSqlError("ASYNCH OPEN COMPLETE", status);
        DBQ1_CloseRequest(entry->requestHandle);
        forceDrop = 1;
        break;
      }

      DBQ1_Sqlda* outputSqlda = nullptr;
      status = DBQ1_GetOutputSQLDA(entry->cursorHandle, &outputSqlda);
      if (flow.detail()) {
        TRC1_Printf(kUnitModule, __LINE__, "DBQ1_GetOutputSQLDA status=%d", status);
        qmtaFlush();
      }
      if (status != 0) {
        reportSqlError("GetOutputSQLDA", status);
        DBQ1_CloseRequest(entry->requestHandle);
        forceDrop = 1;
        break;
      }

      while (status == 0) {
        status = DBQ1_Fetch(entry->cursorHandle, outputSqlda);
        if (flow.detail()) {
          TRC1_Printf(kUnitModule, __LINE__, "DBQ1_Fetch status=%d", status);
          qmtaFlush();
        }
        if (status == 0) {
          rowCount += 1;
          int32_t rc = 0;
          memcpy(&rc, outputSqlda->var[0].data, 4);
          qmtaMessage("QMTA050I ACTION COMPLETED FOR SITNAME=%s DESTNODE=%s STATE=%d "
                      "RC=%d REQUESTID=%lu\n",
                      autoSql->sitnameS, autoSql->destnodeS, autoSql->stateL, rc,
                      static_cast<unsigned long>(autoSql->requestidUL));
        } else if (status != kStatusNoMoreRows) {
          reportSqlError("FETCH", status);
          forceDrop = 1;
        }
      }
      if (status == kStatusNoMoreRows) {
        status = 0;
        if (rowCount == 0) reportOffline(autoSql);  // an answer without rows
      }
      DBQ1_CloseRequest(entry->requestHandle);
    } while (false);
    pushstack(stack, entry, forceDrop);
  }

  if (autoSql->cmdS != nullptr) free(autoSql->cmdS);
  free(autoSql);
  pthread_detach(pthread_self());
  zblerdm();
  if (flow.detail()) TRC1_Printf(kUnitModule, __LINE__, "processsql exiting. statusI=%d", status);
  flow.exit(0);
  return nullptr;
}
