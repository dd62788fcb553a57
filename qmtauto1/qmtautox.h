// The module's published entries, as a host finds them by name with dlsym.
#ifndef QMTAUTO1_QMTAUTOX_H_
#define QMTAUTO1_QMTAUTOX_H_

#include <stdint.h>

#include "platform/dbq1.h"

#ifdef __cplusplus
extern "C" {
#endif

// "QMTAUTOX": the situation-event exit.
typedef int32_t (*QMTAUTOX_Entry)(const char* sitname, const char* originnode,
                                  int32_t prevstate, int32_t currstate,
                                  const char* timestamp, int32_t attribCount,
                                  const char* const* attribNames,
                                  const char* const* attribValues,
                                  const char* threshold,
                                  const DBQ1_Handle* pathHandle, int32_t onDS);

// "QMTAINIT": the start-up entry. Detaches the calling thread.
typedef void (*QMTAINIT_Entry)(void);

// Command text descriptor handed to "QMTASITR".
typedef struct QMTA_CommandText {
  const char* text;  // not terminated
  void* unused;      // not read
  uint32_t length;   // bytes of text
} QMTA_CommandText;

// "QMTASITR": the operator-command entry.
typedef int32_t (*QMTASITR_Entry)(void* context, const QMTA_CommandText* command,
                                  void* unused, int32_t* reason);

#ifdef __cplusplus
}
#endif

#endif  // QMTAUTO1_QMTAUTOX_H_
