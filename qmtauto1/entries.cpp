// The module's published entries and its test hooks: the only names it
// exports.
#include "qmtauto1/qmtafault.h"
#include "qmtauto1/qmtauto1.h"
#include "qmtauto1/qmtautox.h"

#define QMTA_EXPORT __attribute__((visibility("default")))

extern "C" {

QMTA_EXPORT int32_t QMTAUTOX(const char* sitname, const char* originnode,
                             int32_t prevstate, int32_t currstate,
                             const char* timestamp, int32_t attribCount,
                             const char* const* attribNames,
                             const char* const* attribValues, const char* threshold,
                             const DBQ1_Handle* pathHandle, int32_t onDS) {
  return autoexit(sitname, originnode, prevstate, currstate, timestamp, attribCount,
                  attribNames, attribValues, threshold, pathHandle, onDS);
}

QMTA_EXPORT void QMTAINIT(void) { qmtainit(); }

QMTA_EXPORT int32_t QMTASITR(void* context, const QMTA_CommandText* command,
                             void* unused, int32_t* reason) {
  return qmtautocmd(context, command, unused, reason);
}

QMTA_EXPORT void qmtatest_state(QmtaTestState* state) {
  state->automationFlag = relaxedLoad(automationFlag);
  state->inDS = relaxedLoad(inDS);
  state->initOnce = std::atomic_ref<int32_t>(initOnce).load(std::memory_order_acquire);
  state->tableAnchor = anchor();
}

}  // extern "C"

// Keeps the published entries' types and the module's in step.
static_assert(sizeof(&QMTAUTOX) == sizeof(QMTAUTOX_Entry));
