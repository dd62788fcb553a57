#include "host/programs/qmtahost/intake.h"

namespace qmta::hostprog {
namespace {

bool Control(unsigned char c) { return c < 0x20 || c == 0x7f; }

// Length of the UTF-8 sequence at the start of `text`, 0 when it is not a
// valid one (overlong forms, surrogates and values past U+10FFFF included).
size_t Utf8Length(std::string_view text) {
  auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  unsigned char lead = byte(0);
  if (lead < 0x80) return 1;
  size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : lead >= 0xc2 ? 2 : 0;
  if (length == 0 || lead > 0xf4 || text.size() < length) return 0;
  for (size_t i = 1; i < length; ++i)
    if ((byte(i) & 0xc0) != 0x80) return 0;
  if (lead == 0xe0 && byte(1) < 0xa0) return 0;   // overlong
  if (lead == 0xed && byte(1) >= 0xa0) return 0;  // surrogate
  if (lead == 0xf0 && byte(1) < 0x90) return 0;   // overlong
  if (lead == 0xf4 && byte(1) >= 0x90) return 0;  // past U+10FFFF
  return length;
}

// A name: no double quote, no control character, valid UTF-8. What is
// wrong with it, or null.
const char* NameProblem(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (c < 0x80) {  // the common case, one byte
      if (c == '"') return " holds a double quote";
      if (Control(c)) return " holds a control character";
      ++i;
      continue;
    }
    size_t length = Utf8Length(text.substr(i));
    if (length == 0) return " is not valid UTF-8";
    i += length;
  }
  return nullptr;
}

const char* ValueProblem(std::string_view text) {
  return HasControlCharacter(text) ? " holds a control character" : nullptr;
}

}  // namespace

bool HasControlCharacter(std::string_view text) {
  for (char c : text)
    if (c != '\t' && Control(static_cast<unsigned char>(c))) return true;
  return false;
}

std::string CheckEventText(const Event& event) {
  // The field's name is put together only when something is wrong.
  if (const char* problem = NameProblem(event.sitname)) return "\"sitname\"" + std::string(problem);
  if (const char* problem = NameProblem(event.originnode))
    return "\"originnode\"" + std::string(problem);
  if (event.timestamp)
    if (const char* problem = NameProblem(*event.timestamp))
      return "\"timestamp\"" + std::string(problem);
  if (event.threshold)
    if (const char* problem = ValueProblem(*event.threshold))
      return "\"threshold\"" + std::string(problem);
  for (size_t i = 0; i < event.attributes.size(); ++i) {
    auto field = [&] { return "attribute " + std::to_string(i + 1); };
    if (const char* problem = NameProblem(event.attributes[i].first))
      return field() + " name" + problem;
    if (const char* problem = ValueProblem(event.attributes[i].second))
      return field() + " value" + problem;
  }
  return {};
}

}  // namespace qmta::hostprog
