// The rule entry parser: reads the next good entry of the rule file into a
// rule entry record, checking every value and reporting every fault with
// the line it stands on. An entry with an error is discarded whole at its
// semicolon and the next one is read into the same record.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string_view>

#include "qmtauto1/qmtamsg.h"
#include "qmtauto1/qmtaport.h"
#include "qmtauto1/qmtauto1.h"
#include "qmtauto1/rulefile.h"

namespace qmta::rules {
namespace {

constexpr char kNoDestnode[] =
    "QMTA010E DESTNODE NOT SPECIFIED IN LINE %d NEAR \"%s\"\n";
constexpr char kNoSemicolon[] =
    "QMTA013E MISSING SEMICOLON IN LINE %d NEAR \"%s\"\n";
constexpr char kDuplicate[] =
    "QMTA014W MULTIPLE VALUES DETECTED FOR %s IN LINE %d NEW VALUE=%s OLD=%s "
    "CHECK SEMICOLONS\n";
constexpr char kBadLength[] =
    "QMTA020E INVALID LENGTH=%d FOR %s=\"%s\" IN LINE %d\n";
constexpr char kBadValue[] = "QMTA021E INVALID VALUE FOR %s=%s IN LINE %d\n";
constexpr char kBadSyntax[] = "QMTA022E INVALID SYNTAX: %s IN LINE %d\n";
constexpr char kNoMemory[] = "QMTA023E UNABLE TO ALLOCATE %s=%s\n";
constexpr char kWildcardHere[] =
    "QMTA025E WILDCARD NOT ALLOWED IN %s=%s IN LINE %d\n";
constexpr char kWildcards[] = "QMTA026E TOO MANY WILDCARDS IN %s=%s IN LINE %d\n";
constexpr char kTruncated[] =
    "QMTA027W LENGTH TRUNCATED TO %d CHARACTERS FOR %s=\"%s\" IN LINE %d\n";

// Names of the tags in messages, by tag number (arguments are named with
// their number when the message is made).
constexpr const char* kTagNames[kTagArg1] = {
    "", "SITNAME", "ORIGINNODE", "STATE", "DESTNODE", "CALLTYPE", "SCRIPT",
    "SUBAGENT"};

// Arguments that the file gave as empty, and the gaps below a given
// argument, point here. Never freed, never written.
char emptyArgument[1] = "";

// The value pointer and the line number handed to the tokenizer; both run
// on from entry to entry through the whole file.
char startValue[1] = "";
char* valueS = startValue;
int32_t lineNumber = 0;

// What one entry has gathered so far.
struct EntryState {
  TableEntry* entry;
  int32_t errors = 0;
  bool seen[kTagCount] = {};
};

// SITNAME, ORIGINNODE and DESTNODE are used without their quotes.
std::string_view unquoted(const char* value) {
  std::string_view text(value);
  if (text.size() >= 2 && text.front() == '"' && text.back() == '"')
    return text.substr(1, text.size() - 2);
  return text;
}

void copyName(char* field, std::string_view text) {
  memcpy(field, text.data(), text.size());
  field[text.size()] = '\0';
}

const char* stateText(uint32_t state) {
  switch (state) {
    case kStateUnknown: return "UNKNOWN";
    case kStateTrue: return "TRUE";
    case kStateFalse: return "FALSE";
    default: return "*";
  }
}

bool parseState(std::string_view text, uint32_t* state) {
  if (text == "TRUE") *state = kStateTrue;
  else if (text == "FALSE") *state = kStateFalse;
  else if (text == "UNKNOWN") *state = kStateUnknown;
  else if (text == "ANY" || text == "*") *state = kStateAny;
  else return false;
  return true;
}

void fail(EntryState& s) { ++s.errors; }

// SITNAME: 1 to 32 characters with at most one "*"; never truncated.
void takeSitname(EntryState& s, const char* value) {
  std::string_view text = unquoted(value);
  if (std::count(text.begin(), text.end(), '*') > 1) {
    qmtaMessage(kWildcards, "SITNAME", value, lineNumber);
    return fail(s);
  }
  if (text.empty() || text.size() > kNameMax) {
    qmtaMessage(kBadLength, kNameMax, "SITNAME", value, lineNumber);
    return fail(s);
  }
  copyName(s.entry->sitname, text);
  s.seen[kTagSitname] = true;
}

// ORIGINNODE: at least 1 character with at most one "*"; cut to 32.
void takeOriginnode(EntryState& s, const char* value) {
  std::string_view text = unquoted(value);
  if (std::count(text.begin(), text.end(), '*') > 1) {
    qmtaMessage(kWildcards, "ORIGINNODE", value, lineNumber);
    return fail(s);
  }
  if (text.empty()) {
    qmtaMessage(kBadLength, kNameMax, "ORIGINNODE", value, lineNumber);
    return fail(s);
  }
  if (text.size() > kNameMax) {
    qmtaMessage(kTruncated, kNameMax, "ORIGINNODE", value, lineNumber);
    text = text.substr(0, kNameMax);
  }
  copyName(s.entry->originnode, text);
  s.seen[kTagOriginnode] = true;
}

// DESTNODE: at least 1 character, cut to 32, no "*" anywhere in the value
// as written (the test comes after the truncation warning).
void takeDestnode(EntryState& s, const char* value) {
  std::string_view text = unquoted(value);
  if (text.empty()) {
    qmtaMessage(kBadLength, kNameMax, "DESTNODE", value, lineNumber);
    return fail(s);
  }
  std::string_view kept = text.substr(0, std::min<size_t>(text.size(), kNameMax));
  if (text.size() > kNameMax)
    qmtaMessage(kTruncated, kNameMax, "DESTNODE", value, lineNumber);
  if (text.find('*') != std::string_view::npos) {
    qmtaMessage(kWildcardHere, "DESTNODE", value, lineNumber);
    return fail(s);
  }
  copyName(s.entry->destnode, kept);
  s.seen[kTagDestnode] = true;
}

void takeState(EntryState& s, const char* value) {
  if (!parseState(value, &s.entry->state)) {
    qmtaMessage(kBadValue, "STATE", value, lineNumber);
    return fail(s);
  }
  s.seen[kTagState] = true;
}

// CALLTYPE: one or two decimal digits.
void takeCalltype(EntryState& s, const char* value) {
  std::string_view text(value);
  bool digits = std::all_of(text.begin(), text.end(),
                            [](char c) { return c >= '0' && c <= '9'; });
  if (text.empty() || text.size() > 2 || !digits) {
    qmtaMessage(kBadValue, "CALLTYPE", value, lineNumber);
    return fail(s);
  }
  int32_t number = 0;
  for (char c : text) number = number * 10 + (c - '0');
  s.entry->calltype = number;
  s.seen[kTagCalltype] = true;
}

// SCRIPT and SUBAGENT fill the same field and count as one tag.
void takeScript(EntryState& s, int32_t tag, const char* value) {
  size_t length = strlen(value);
  if (length == 0 || length > kScriptMax) {
    qmtaMessage(kBadLength, kScriptMax, kTagNames[tag], value, lineNumber);
    return fail(s);
  }
  memcpy(s.entry->script, value, length + 1);
  s.seen[kTagScript] = s.seen[kTagSubagent] = true;
}

// ARGn: any text. Slots below a given argument never stay null.
void takeArg(EntryState& s, int32_t tag, const char* name, const char* value) {
  int32_t index = tag - kTagArg1;
  char** args = s.entry->args;
  // A duplicate's old string goes before the new value is stored.
  if (args[index] != nullptr && args[index][0] != '\0') free(args[index]);
  args[index] = nullptr;

  if (value[0] == '\0') {
    args[index] = emptyArgument;
  } else {
    size_t size = strlen(value) + 1;
    char* copy = static_cast<char*>(qmta::port::Malloc(size));
    if (copy == nullptr) {
      qmtaMessage(kNoMemory, name, value);
      fail(s);
    } else {
      memcpy(copy, value, size);
      args[index] = copy;
    }
  }
  for (int32_t below = 0; below < index; ++below)
    if (args[below] == nullptr) args[below] = emptyArgument;
  s.seen[tag] = true;
}

// Prints the duplicate warning for `tag` with the value held so far.
void warnDuplicate(const EntryState& s, int32_t tag, const char* name,
                   const char* value) {
  const TableEntry* entry = s.entry;
  char number[12];  // the old CALLTYPE in decimal
  const char* old = "";
  switch (tag) {
    case kTagSitname: old = entry->sitname; break;
    case kTagOriginnode: old = entry->originnode; break;
    case kTagState: old = stateText(entry->state); break;
    case kTagDestnode: old = entry->destnode; break;
    case kTagCalltype:
      snprintf(number, sizeof number, "%d", static_cast<int>(entry->calltype));
      old = number;
      break;
    case kTagScript:
    case kTagSubagent: old = entry->script; break;
    default: {
      const char* arg = entry->args[tag - kTagArg1];
      old = arg != nullptr ? arg : "";
    }
  }
  qmtaMessage(kDuplicate, name, lineNumber, value, old);
}

void handleTag(EntryState& s, int32_t tag, const char* value) {
  if (tag < kTagSitname || tag > kTagArg9) {
    qmtaMessage(kBadSyntax, value, lineNumber);
    return fail(s);
  }
  // ARG1 to ARG9: one digit, written directly (this runs for every tag of
  // the file).
  char argName[5] = {'A', 'R', 'G', static_cast<char>('1' + (tag - kTagArg1)), '\0'};
  const char* name = tag >= kTagArg1 ? argName : kTagNames[tag];

  if (s.seen[tag]) warnDuplicate(s, tag, name, value);
  switch (tag) {
    case kTagSitname: return takeSitname(s, value);
    case kTagOriginnode: return takeOriginnode(s, value);
    case kTagState: return takeState(s, value);
    case kTagDestnode: return takeDestnode(s, value);
    case kTagCalltype: return takeCalltype(s, value);
    case kTagScript:
    case kTagSubagent: return takeScript(s, tag, value);
    default: return takeArg(s, tag, name, value);
  }
}

}  // namespace

void restartparser() {
  valueS = startValue;
  lineNumber = 0;
}

}  // namespace qmta::rules

using namespace qmta::rules;

int32_t readnextentry(FILE* file, TableEntry* entry) {
  TraceFlow flow(kUnitModule, "readnextentry");
  initentry(entry);
  int32_t tag = getnexttag(file, &valueS, &lineNumber);

  while (tag != kTagEof && entry->destnode[0] == '\0') {
    EntryState state{entry};
    while (tag != kTagEnd && tag != kTagEof) {
      handleTag(state, tag, valueS);
      tag = getnexttag(file, &valueS, &lineNumber);
    }
    if (tag == kTagEof) {
      qmtaMessage(kNoSemicolon, lineNumber, valueS);
      fail(state);
    } else if (entry->destnode[0] == '\0') {
      qmtaMessage(kNoDestnode, lineNumber, valueS);
      fail(state);
    }
    if (state.errors > 0) {
      freeentryargs(entry);
      initentry(entry);
      if (tag != kTagEof) tag = getnexttag(file, &valueS, &lineNumber);
    }
  }

  if (entry->destnode[0] == '\0') {
    freeentryargs(entry);
    initentry(entry);
    return flow.exit(-1);
  }
  return flow.exit(0);
}
