// The rule file tokenizer: cuts the open rule file into tags and values.
//
// One set of state for the whole module: the line buffer, the position in
// it and the count of semicolons that were swallowed as value delimiters and
// are still to be reported. Only one file is read at a time; the table load
// runs under the exclusive table lock, which serialises this.
//
// Lines are read with fgets into the fixed buffer, line end included. A
// line's text ends at its first NUL (a NUL byte in the file ends the line's
// text early), so no token, value or message ever reaches past the text of
// the line that is being read. Plain values stop at the line end (it is a
// delimiter); a quoted value whose closing quote never comes is the keyword
// and the rest of the line, line end and all, so the message that names it
// runs over two lines of standard output.
#include <stdio.h>
#include <string.h>

#include <string_view>

#include "qmtauto1/qmtamsg.h"
#include "qmtauto1/qmtauto1.h"
#include "qmtauto1/rulefile.h"

namespace qmta::rules {
namespace {

constexpr char kQuoteNotFound[] =
    "QMTA024E ENDING QUOTE FOR TAG VALUE NOT FOUND IN LINE %d\n";

constexpr char kBlanks[] = "\n\t\r\f\v ";
constexpr char kDelimiters[] = "\n\t\r\f\v ;";

// Keywords in the order they are tried; the index is the tag number.
constexpr std::string_view kKeywords[kTagCount] = {
    ";",     "SITNAME=", "ORIGINNODE=", "STATE=", "DESTNODE=", "CALLTYPE=",
    "SCRIPT=", "SUBAGENT=", "ARG1=",   "ARG2=",  "ARG3=",     "ARG4=",
    "ARG5=", "ARG6=",    "ARG7=",      "ARG8=",  "ARG9=",
};

char lineBuffer[kLineBufferSize];
// End of the current line's text (its terminating NUL) in lineBuffer.
char* lineEnd = lineBuffer;
// Current position; null when no file is started (also after end of file).
char* tokenS = nullptr;
int32_t pendingEnds = 0;
// Where the position points when a file is started.
char startText[1] = "";
// Holds the previous value while a new line is read over it, so that a
// caller that keeps its value pointer across an end-of-entry tag still
// sees that value's text, not whatever the new line put there.
char carriedValue[kLineBufferSize];

bool inLineBuffer(const char* text) {
  return text >= lineBuffer && text < lineBuffer + kLineBufferSize;
}

void carryValue(char** valueS) {
  if (*valueS == nullptr || !inLineBuffer(*valueS)) return;
  size_t room = static_cast<size_t>(lineBuffer + kLineBufferSize - *valueS);
  size_t length = strnlen(*valueS, room);
  if (length >= sizeof carriedValue) length = sizeof carriedValue - 1;
  memcpy(carriedValue, *valueS, length);
  carriedValue[length] = '\0';
  *valueS = carriedValue;
}

// Reads the next line, with its line end, into the buffer; false at end of
// file or on a read error.
bool readLine(FILE* file) {
  if (fgets(lineBuffer, kLineReadLimit, file) == nullptr) return false;
  lineEnd = lineBuffer + strlen(lineBuffer);
  return true;
}

// Cuts a plain value at its first delimiter; a swallowed ";" is remembered
// so that the next call reports the end of the entry.
void cutAtDelimiter(char* text) {
  char* stop = text + strcspn(text, kDelimiters);
  if (*stop == ';') ++pendingEnds;
  *stop = '\0';
}

int32_t finish(const TraceFlow& flow, int32_t tag, char* const* valueS) {
  if (flow.detail()) {
    TRC1_Printf(kUnitModule, __LINE__,
                "getnexttag exit. tokenS=%x tagEnum=%d valueS=%s",
                traceAddress(tokenS), tag, *valueS ? *valueS : "");
    qmtaFlush();
  }
  return tag;
}

}  // namespace

void restarttokenizer() {
  tokenS = nullptr;
  pendingEnds = 0;
  lineBuffer[0] = '\0';
  lineEnd = lineBuffer;
}

}  // namespace qmta::rules

using namespace qmta::rules;

int32_t getnexttag(FILE* file, char** valueS, int32_t* line) {
  TraceFlow flow(kUnitModule, "getnexttag");

  // A semicolon that ended the last value is reported now, in place.
  if (pendingEnds >= 1) {
    *valueS = tokenS;
    --pendingEnds;
    return flow.exit(finish(flow, kTagEnd, valueS));
  }

  if (tokenS == nullptr) {
    tokenS = startText;
    *line = 0;
    memset(lineBuffer, 0, sizeof lineBuffer);
    lineEnd = lineBuffer;
  } else {
    // Step past the current token and the terminator written after it. A
    // token that ran to the end of the line's text has no terminator of its
    // own: the line is then used up.
    char* end = tokenS + strlen(tokenS);
    tokenS = end < lineEnd ? end + 1 : lineEnd;
    tokenS += strspn(tokenS, kBlanks);
  }

  while (tokenS != nullptr && *tokenS == '\0') {
    carryValue(valueS);
    if (!readLine(file)) {
      tokenS = nullptr;
      break;
    }
    ++*line;
    if (lineBuffer[0] == '*') {  // a comment, "*" in column one
      tokenS = lineEnd;
      continue;
    }
    if (flow.detail()) {
      TRC1_Printf(kUnitModule, __LINE__, "New line=\"%s\"", lineBuffer);
      qmtaFlush();
    }
    tokenS = lineBuffer + strspn(lineBuffer, kBlanks);
  }

  if (tokenS == nullptr) {
    lineBuffer[0] = '\0';
    lineEnd = lineBuffer;
    *valueS = lineBuffer;
    return flow.exit(finish(flow, kTagEof, valueS));
  }

  std::string_view rest(tokenS, static_cast<size_t>(lineEnd - tokenS));
  // Keywords are tried in order; the first character rules out most of them
  // before a full comparison (no keyword begins another, so the first that
  // matches is the only one).
  int32_t tag = 0;
  const char first = *tokenS;
  while (tag < kTagCount &&
         (kKeywords[tag].front() != first || !rest.starts_with(kKeywords[tag])))
    ++tag;

  if (tag == kTagCount) {  // no keyword: the token itself is the value
    *valueS = tokenS;
    cutAtDelimiter(tokenS);
    return flow.exit(finish(flow, kTagSyntax, valueS));
  }
  if (tag == kTagEnd) {  // the value pointer stays as it was
    *tokenS = '\0';
    return flow.exit(finish(flow, kTagEnd, valueS));
  }

  char* value = tokenS + kKeywords[tag].size();
  if (*value != '"') {
    *valueS = value;
    cutAtDelimiter(value);
    return flow.exit(finish(flow, tag, valueS));
  }
  // A quoted value keeps both quotes and ends at the next quote on this
  // line; the character after the closing quote is given up for the
  // terminator.
  char* closing = strchr(value + 1, '"');
  if (closing == nullptr) {
    qmtaMessage(kQuoteNotFound, *line);
    *valueS = tokenS;
    return flow.exit(finish(flow, kTagSyntax, valueS));
  }
  *valueS = value;
  char* after = closing + 1;
  if (*after == ';') ++pendingEnds;
  *after = '\0';
  return flow.exit(finish(flow, tag, valueS));
}
