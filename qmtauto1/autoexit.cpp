// The situation-event exit: checks the caller's path handle, keeps the
// request stacks on the caller's current path, packs the event and hands it
// to the rule search.
#include <string.h>

#include <initializer_list>

#include "qmtauto1/qmtamsg.h"
#include "qmtauto1/qmtauto1.h"

namespace {
// Threshold of events that come without one.
const char kNoThreshold[] = "";
}  // namespace

int32_t autoexit(const char* sitnameS, const char* originnodeS,
                 int32_t prevstateL, int32_t currstateL,
                 const char* timestampS, int32_t attribL,
                 const char* const* attribNames,
                 const char* const* attribValues, const char* thresholdS,
                 const DBQ1_Handle* pathHandle, int32_t onDS) {
  TraceFlow flow(kUnitModule, "autoexit");
  if (flow.detail()) {
    TRC1_Printf(kUnitModule, __LINE__,
                " sitnameS=%s, originnodeS=%s, prevstateL=%ld,currstateL=%ld, "
                "timestampS=%s, attribL=%d, pathHandle=%p,onDS=%d",
                sitnameS, originnodeS, static_cast<long>(prevstateL),
                static_cast<long>(currstateL), timestampS, attribL,
                static_cast<const void*>(pathHandle), onDS);
    for (int32_t i = 0; i < attribL; ++i)
      TRC1_Printf(kUnitModule, __LINE__, " attribute[%d]: name=%s value=%s", i,
                  attribNames[i], attribValues[i]);
    if (thresholdS) TRC1_Printf(kUnitModule, __LINE__, " thresholdS=%s", thresholdS);
    qmtaFlush();
  }

  if (pathHandle == nullptr && onDS == 0) {
    qmtaMessage("QMTA007E THE PATH HANDLE IS INVALID\n");
    return flow.exit(-7);
  }

  // Path bookkeeping: before the environment exists the callers decide
  // whether the module runs inside the data server; afterwards, outside it,
  // every event's path is copied into the three stacks.
  AutomationAnchor* current = anchor();
  if (current == nullptr) {
    relaxedStore(inDS, onDS);
  } else if (relaxedLoad(inDS) == 0 && pathHandle != nullptr) {
    DBQ1_Handle path;
    memcpy(&path, pathHandle, sizeof path);
    for (int stack : {kVxStack, kRmStack, kSnmpStack}) {
      // A stack that holds this path already is left alone: a store would
      // make every event thread write the anchor's shared lines, each time
      // with a fence, for no change.
      DBQ1_Handle held = relaxedLoad(current->stacks[stack].pathHandle);
      if (held.check != path.check || held.object != path.object)
        relaxedStore(current->stacks[stack].pathHandle, path);
    }
  }

  if (relaxedLoad(automationFlag) != 1) return flow.exit(-3);

  SitParms sitParms;
  memset(&sitParms, 0, sizeof sitParms);
  memcpy(sitParms.eyecatcher, "SITP", strlen("SITP"));
  sitParms.sitnameS = sitnameS;
  sitParms.originnodeS = originnodeS;
  sitParms.prevstateL = prevstateL;
  sitParms.currstateL = currstateL;
  sitParms.timestampS = timestampS;
  sitParms.attribL = attribL;
  sitParms.attribNames = attribNames;
  sitParms.attribValues = attribValues;
  sitParms.thresholdS = thresholdS ? thresholdS : kNoThreshold;

  return flow.exit(searchtable(&sitParms, pathHandle));
}
