// The request stacks: prepared query requests kept for reuse, last in first
// out, with the completion routine of their asynchronous opens.
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "qmtauto1/qmtamsg.h"
#include "qmtauto1/qmtaport.h"
#include "qmtauto1/qmtauto1.h"

int32_t initstack(RSTK* rStack, const char* sql) {
  TraceFlow flow(kUnitModule, "initstack");
  if (flow.detail()) {
    TRC1_Printf(kUnitModule, __LINE__, " rStack=%x", traceAddress(rStack));
    TRC1_Printf(kUnitModule, __LINE__, " sql=\"%s\"", sql);
    qmtaFlush();
  }
  memcpy(rStack->eyecatcher, "RSTK", 4);
  if (qmta::port::MutexInit(&rStack->stackLock) != 0) {
    qmtaMessage("QMTA006S UNABLE TO INITIALIZE %s ERRNO=%d\n", "STACKLOCK", errno);
    return flow.exit(-6);
  }
  int32_t status = DBQ1_CreateAccessPlan(relaxedLoad(rStack->pathHandle), sql,
                                         &rStack->accessPlanHandle);
  if (flow.detail()) {
    TRC1_Printf(kUnitModule, __LINE__, "DBQ1_CreateAccessPlan status=%d", status);
    qmtaFlush();
  }
  if (status != 0) {
    qmtaMessage("QMTA030E %s SQL ERROR ON %s STATUS=%d\n", "INITSTACK",
                "CREATEACCESSPLAN", status);
    return flow.exit(-3);
  }
  return flow.exit(0);
}

RSEN* pullstack(RSTK* rStack) {
  TraceFlow flow(kUnitModule, "pullstack");
  if (flow.detail()) {
    TRC1_Printf(kUnitModule, __LINE__, " rStack=%x", traceAddress(rStack));
    qmtaFlush();
  }
  if (qmta::port::MutexLock(&rStack->stackLock) != 0) {
    qmtaMessage("QMTA003E GET LOCK ERROR=%d\n", errno);
    return flow.exit(static_cast<RSEN*>(nullptr));
  }

  RSEN* entry = nullptr;
  if (rStack->freeCount > 0) {
    entry = rStack->top;
    rStack->top = entry->next;
    relaxedStore(rStack->freeCount, rStack->freeCount - 1);
  } else {
    // A new request, created under the stack's lock: creations on one
    // stack are serialised.
    entry = static_cast<RSEN*>(qmta::port::Calloc(1, sizeof(RSEN)));
    if (entry == nullptr) {
      qmtaMessage("QMTA000E ALLOCATION ERROR FOR %s\n", "REQUESTSTACKENTRY");
    } else {
      memcpy(entry->eyecatcher, "RSEN", 4);
      entry->cursorHandleRef = &entry->cursorHandle;
      DBQ1_AsyncNotify notify = {DBQ1_NOTIFY_ROUTINE, sqlcomplete, &entry->done.doneCond};
      int32_t status =
          DBQ1_CreateRequest(relaxedLoad(rStack->pathHandle), rStack->accessPlanHandle,
                             &notify, &entry->requestHandle, entry->cursorHandleRef);
      if (flow.detail()) {
        TRC1_Printf(kUnitModule, __LINE__, "DBQ1_CreateRequest status=%d", status);
        qmtaFlush();
      }
      if (status != 0) {
        qmtaMessage("QMTA030E %s SQL ERROR ON %s STATUS=%d\n", "PULLSTACK",
                    "CREATEREQUEST", status);
        free(entry);
        entry = nullptr;
      } else {
        status = DBQ1_GetInputSQLDA(entry->requestHandle, &entry->inputSqlda);
        if (flow.detail()) {
          TRC1_Printf(kUnitModule, __LINE__, "DBQ1_GetInputSQLDA status=%d", status);
          qmtaFlush();
        }
        if (status != 0) {
          qmtaMessage("QMTA030E %s SQL ERROR ON %s STATUS=%d\n", "PULLSTACK",
                      "GetInputSQLDA", status);
          DBQ1_DropHandle(entry->requestHandle);
          free(entry);
          entry = nullptr;
        } else {
          relaxedStore(rStack->totalCount, rStack->totalCount + 1);
          entry->done.doneFlag = 0;
          entry->done.doneStatus = 0;
          // A failure here is not reported; the entry is used all the same.
          if (qmta::port::CondInit(&entry->done.doneCond) == 0)
            qmta::port::MutexInit(&entry->done.doneLock);
        }
      }
    }
  }
  pthread_mutex_unlock(&rStack->stackLock);
  return flow.exit(entry);
}

int32_t sqlcomplete(int32_t status, void* userArgument) {
  TraceFlow flow(kUnitModule, "sqlcomplete");
  // The user argument is the address of doneCond, the first member of the
  // completion block.
  auto* done = reinterpret_cast<CompletionBlock*>(userArgument);
  if (qmta::port::MutexLock(&done->doneLock) != 0) {
    qmtaMessage("QMTA030E %s SQL ERROR ON %s STATUS=%d\n", "SQLCOMPLETE",
                "ASYNC NOTIFY GETLOCK", errno);
    return flow.exit(status);
  }
  done->doneStatus = status;
  done->doneFlag = 1;
  pthread_cond_signal(&done->doneCond);
  pthread_mutex_unlock(&done->doneLock);
  return flow.exit(status);
}

namespace {

// Drops an entry's request and frees the entry.
void destroyentry(RSEN* entry) {
  pthread_mutex_lock(&entry->done.doneLock);
  DBQ1_DropHandle(entry->requestHandle);
  pthread_mutex_unlock(&entry->done.doneLock);
  pthread_cond_destroy(&entry->done.doneCond);
  pthread_mutex_destroy(&entry->done.doneLock);
  free(entry);
}

}  // namespace

int32_t pushstack(RSTK* rStack, RSEN* currRSEntry, int32_t forcedropI) {
  TraceFlow flow(kUnitModule, "pushstack");
  if (flow.detail()) {
    TRC1_Printf(kUnitModule, __LINE__, " rStack=%x", traceAddress(rStack));
    TRC1_Printf(kUnitModule, __LINE__, " currRSEntry=%x", traceAddress(currRSEntry));
    TRC1_Printf(kUnitModule, __LINE__, " forcedropI=%d", forcedropI);
    qmtaFlush();
  }
  if (qmta::port::MutexLock(&rStack->stackLock) != 0) {
    // Deleted rather than lost; the stack still counts it among its total.
    qmtaMessage("QMTA003E GET LOCK ERROR=%d\n", errno);
    destroyentry(currRSEntry);
    return flow.exit(-1);
  }
  // Keep at most 80 per cent of the requests ever created, rounded half up.
  int32_t limit = static_cast<int32_t>(rStack->totalCount * 0.8 + 0.5);
  if (forcedropI != 0 || rStack->freeCount >= limit) {
    if (flow.detail()) {
      TRC1_Printf(kUnitModule, __LINE__, " stack full, deleting entry");
      qmtaFlush();
    }
    destroyentry(currRSEntry);
    if (forcedropI != 0) relaxedStore(rStack->totalCount, rStack->totalCount - 1);
  } else {
    if (flow.detail()) {
      TRC1_Printf(kUnitModule, __LINE__, " placing entry on stack");
      qmtaFlush();
    }
    currRSEntry->next = rStack->top;
    rStack->top = currRSEntry;
    relaxedStore(rStack->freeCount, rStack->freeCount + 1);
  }
  pthread_mutex_unlock(&rStack->stackLock);
  return flow.exit(0);
}
