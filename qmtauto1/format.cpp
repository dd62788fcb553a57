// Action request formatting: the action record with its request id and the
// command text expanded from the event's data; the timestamp text.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string_view>

#include "qmtauto1/qmtamsg.h"
#include "qmtauto1/qmtaport.h"
#include "qmtauto1/qmtauto1.h"

namespace {

// Longest value between the quotes of a piece.
constexpr size_t kValueMax = kCommandMax - 2;

// Default arguments of a rule without ARG1, in this order.
constexpr const char* kDefaultArgList[] = {"SITNAME",   "TIMESTAMP", "PRESTATE",
                                           "CURRSTATE", "NODE",      "THRESHOLD"};

// Writes `"value"` into piece, the value cut at kValueMax characters, with
// double quotes replaced by apostrophes when `apostrophes` is set.
void quoted(char* piece, const char* value, bool apostrophes) {
  size_t length = strnlen(value, kValueMax);
  piece[0] = '"';
  memcpy(piece + 1, value, length);
  if (apostrophes) {
    for (size_t i = 1; i <= length; ++i)
      if (piece[i] == '"') piece[i] = '\'';
  }
  piece[length + 1] = '"';
  piece[length + 2] = '\0';
}

// Copies at most `limit` characters of `from` into `to[limit + 1]`.
void copyName(char* to, const char* from, size_t limit) {
  size_t length = strnlen(from, limit);
  memcpy(to, from, length);
  to[length] = '\0';
}

}  // namespace

int32_t formatarg(char* cmd, const SitParms* sitParms, const char* destnode,
                  const char* argS) {
  TraceFlow flow(kUnitModule, "formatarg");
  (void)destnode;  // part of the interface; takes no part in the expansion
  char buffer[kCommandMax + 1];
  const char* piece = buffer;
  std::string_view arg(argS);

  if (arg.starts_with('"')) {
    piece = argS;  // a quoted literal, as written
  } else if (arg == "SITNAME") {
    quoted(buffer, sitParms->sitnameS, false);
  } else if (arg == "TIMESTAMP") {
    quoted(buffer, sitParms->timestampS, false);
  } else if (arg == "PRESTATE" || arg == "CURRSTATE") {
    long state = arg == "PRESTATE" ? sitParms->prevstateL : sitParms->currstateL;
    snprintf(buffer, sizeof buffer, "\"%ld\"", state);
  } else if (arg == "NODE") {
    quoted(buffer, sitParms->originnodeS, false);
  } else if (arg == "THRESHOLD") {
    quoted(buffer, sitParms->thresholdS, true);
  } else {
    const char* value = nullptr;
    for (int32_t i = 0; i < sitParms->attribL && value == nullptr; ++i) {
      const char* name = sitParms->attribNames[i];
      if (name != nullptr && arg == name)
        value = sitParms->attribValues[i] ? sitParms->attribValues[i] : "";
    }
    if (value != nullptr)
      quoted(buffer, value, true);
    else
      quoted(buffer, argS, false);  // an unknown name is passed on as a literal
  }

  // The separating blank is not counted, so a command may reach 600.
  size_t used = strlen(cmd);
  size_t length = strlen(piece);
  if (used + length >= static_cast<size_t>(kCommandMax)) {
    qmtaMessage("QMTA004E COMMAND BUFFER OVERFLOW SITUATION=%s DESTNODE=%s ARG=%s\n",
                sitParms->sitnameS, argS, "");
    return flow.exit(-5);
  }
  cmd[used] = ' ';
  memcpy(cmd + used + 1, piece, length + 1);
  return flow.exit(0);
}

AutoSql* formatsql(const SitParms* sitParms, const TableEntry* tableEntry) {
  TraceFlow flow(kUnitModule, "formatsql");
  auto* autoSql = static_cast<AutoSql*>(qmta::port::Calloc(1, sizeof(AutoSql)));
  if (autoSql == nullptr) {
    qmtaMessage("QMTA000E ALLOCATION ERROR FOR %s\n", "ACTION SQL PARMS");
    return flow.exit(static_cast<AutoSql*>(nullptr));
  }
  memcpy(autoSql->eyecatcher, "ASQL", 4);
  autoSql->cmdS = nullptr;

  // The command: the script name, then one blank and one piece per argument.
  char cmd[kCommandMax + 1];
  copyName(cmd, tableEntry->script, kScriptMax);
  int32_t status = 0;
  if (tableEntry->args[0] != nullptr) {
    for (int i = 0; i < kArgCount && tableEntry->args[i] != nullptr && status == 0; ++i)
      status = formatarg(cmd, sitParms, tableEntry->destnode, tableEntry->args[i]);
  } else {
    for (const char* name : kDefaultArgList) {
      status = formatarg(cmd, sitParms, tableEntry->destnode, name);
      if (status != 0) break;
    }
  }

  if (status == 0) {
    size_t length = strlen(cmd);
    autoSql->cmdS = static_cast<char*>(qmta::port::Malloc(length + 1));
    if (autoSql->cmdS == nullptr) {
      qmtaMessage("QMTA000E ALLOCATION ERROR FOR %s\n", "ACTION COMMAND");
      status = -1;
    } else {
      memcpy(autoSql->cmdS, cmd, length + 1);
    }
  }

  if (status == 0) {
    autoSql->calltypeL = tableEntry->calltype;
    copyName(autoSql->originnode, sitParms->originnodeS, kNameMax);
    copyName(autoSql->destnodeS, tableEntry->destnode, kNameMax);
    copyName(autoSql->sitnameS, sitParms->sitnameS, kNameMax);
    autoSql->stateL = sitParms->currstateL;

    AutomationAnchor* table = anchor();
    if (qmta::port::MutexLock(&table->requestIdLock) != 0) {
      qmtaMessage("QMTA003E GET LOCK ERROR=%d\n", errno);
      status = -1;
    } else {
      autoSql->requestidUL = table->requestId;
      table->requestId += 1;
      if (table->requestId >= kRequestIdWrap) table->requestId = 1;
      pthread_mutex_unlock(&table->requestIdLock);
    }
  }

  if (status != 0) {
    free(autoSql->cmdS);
    free(autoSql);
    return flow.exit(static_cast<AutoSql*>(nullptr));
  }
  return flow.exit(autoSql);
}

char* gettimestamp(char* buffer, const struct tm* time) {
  TraceFlow flow(kUnitModule, "gettimestamp");
  // "%01.1d%02.2d%02.2d%02.2d%02.2d%02.2d%02.2d000" without the zero flags,
  // which the precisions make redundant: the same text.
  snprintf(buffer, kTimestampBuffer, "%.1d%.2d%.2d%.2d%.2d%.2d%.2d000",
           time->tm_year / 100, time->tm_year % 100, time->tm_mon + 1, time->tm_mday,
           time->tm_hour, time->tm_min, time->tm_sec);
  return flow.exit(buffer);
}
