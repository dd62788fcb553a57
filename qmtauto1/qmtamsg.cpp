// Operator message output.
#include "qmtauto1/qmtamsg.h"

#include <stdarg.h>
#include <stdio.h>

void qmtaMessage(const char* format, ...) {
  va_list values;
  va_start(values, format);
  flockfile(stdout);
  vfprintf(stdout, format, values);
  fflush(stdout);
  funlockfile(stdout);
  va_end(values);
}

void qmtaMessageNoFlush(const char* format, ...) {
  va_list values;
  va_start(values, format);
  vfprintf(stdout, format, values);
  va_end(values);
}

void qmtaFlush() { fflush(stdout); }
