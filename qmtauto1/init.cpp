// One-time set-up of the action environment: the query-service path, the
// automation anchor with its lock, request-id mutex and three request
// stacks, and the first load of the rule table.
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "platform/envr.h"
#include "platform/svc1.h"
#include "qmtauto1/qmtamsg.h"
#include "qmtauto1/qmtaport.h"
#include "qmtauto1/qmtauto1.h"

namespace {
const char kDefaultServer[] = "SRVR01";
constexpr int kServerMax = 9;
}  // namespace

void initautomation(void* pathHandle) {
  TraceFlow flow(kUnitModule, "initautomation");
  int32_t rc = 0;
  DBQ1_Handle path;
  memset(&path, 0, sizeof path);

  if (pathHandle != nullptr) {
    memcpy(&path, pathHandle, sizeof path);  // the host's own path
  } else {
    char serverName[kServerMax + 1] = {};
    const ENVR_NodeInfo* info = nullptr;
    if (ENVR_QueryInfo(0, &info, 0) == 0 && info != nullptr) {
      memcpy(serverName, info->serverName, strnlen(info->serverName, kServerMax));
    } else {
      strcpy(serverName, kDefaultServer);
      if (flow.detail())
        qmtaMessage("QMTA028W ENVR_QueryInfo failed, defaulting to %s\n", serverName);
    }
    int32_t status = DBQ1_CreatePath(serverName, DBQ1_LocalInterface(), &path);
    if (flow.detail()) qmtaMessage("QMTA029I DBQ1_CreatePath status=%d\n", status);
    if (status != 0) {
      qmtaMessage("QMTA030E %s SQL ERROR ON %s STATUS=%d\n", "INITAUTOMATION",
                  "CREATEPATH", status);
      rc = -30;
    }
  }

  AutomationAnchor* table = nullptr;
  if (rc == 0) {
    table = static_cast<AutomationAnchor*>(qmta::port::Calloc(1, sizeof(AutomationAnchor)));
    if (table == nullptr) {
      qmtaMessage("QMTA005S UNABLE TO ALLOCATE QMTASITR TABLE\n");
      rc = -5;
    } else {
      memcpy(table->eyecatcher, "TABL", 4);
      publishAnchor(table);  // before the members are ready
    }
  }

  // A failed table lock leaves the anchor allocated and published.
  if (rc == 0) rc = qmtalint(&table->tableLock);

  if (rc == 0) {
    if (qmta::port::MutexInit(&table->requestIdLock) != 0) {
      qmtaMessage("QMTA006S UNABLE TO INITIALIZE %s ERRNO=%d\n", "REQUESTIDLOCK", errno);
      publishAnchor(nullptr);
      free(table);
      rc = -6;
    } else {
      table->requestId = 1;
      table->entries = nullptr;
    }
  }

  if (rc == 0) {
    const char* statements[kStackCount] = {kVxStatement, kRmStatement, kSnmpStatement};
    for (int stack = kVxStack; stack < kStackCount && rc == 0; ++stack) {
      relaxedStore(table->stacks[stack].pathHandle, path);
      rc = initstack(&table->stacks[stack], statements[stack]);
      if (rc != 0) {
        // Release the access plans made so far, latest first, then the path.
        for (int made = stack - 1; made >= kVxStack; --made)
          DBQ1_DropHandle(table->stacks[made].accessPlanHandle);
        publishAnchor(nullptr);
        free(table);
      }
    }
  }

  // A path of the module's own goes with a failed start-up; the caller's
  // path stays the caller's.
  if (rc != 0 && rc != -30 && pathHandle == nullptr) DBQ1_DropHandle(path);

  if (rc == 0) {
    if (loadtable() != 0) {
      qmtaMessage("QMTA092I ACTIONS HAVE BEEN DISABLED\n");
      relaxedStore(automationFlag, 2);
    } else {
      qmtaMessage("QMTA093I ACTION ENVIRONMENT INITIALIZE\n");
      relaxedStore(automationFlag, 1);
    }
  } else {
    relaxedStore(automationFlag, 0);
  }
  if (flow.detail()) {
    TRC1_Printf(kUnitModule, __LINE__, "initautomation exit. automationFlag=%d",
                relaxedLoad(automationFlag));
    qmtaFlush();
  }
}

void qmtainit() {
  TraceFlow flow(kUnitModule, "qmtainit");
  if (std::atomic_ref<int32_t>(initOnce).load(std::memory_order_acquire) >= 0)
    SVC1_InitializeOnce(&initOnce, initautomation, nullptr, "qmtauto1", __LINE__);
  // The host's thread needs no join.
  pthread_detach(pthread_self());
}
