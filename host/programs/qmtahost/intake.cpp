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

// A name: no double quote, no control character, valid UTF-8.
std::string CheckName(std::string_view text, const std::string& field) {
  for (size_t i = 0; i < text.size();) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == '"') return field + " holds a double quote";
    if (Control(c)) return field + " holds a control character";
    size_t length = Utf8Length(text.substr(i));
    if (length == 0) return field + " is not valid UTF-8";
    i += length;
  }
  return {};
}

std::string CheckValue(std::string_view text, const std::string& field) {
  return HasControlCharacter(text) ? field + " holds a control character" : std::string();
}

}  // namespace

bool HasControlCharacter(std::string_view text) {
  for (char c : text)
    if (c != '\t' && Control(static_cast<unsigned char>(c))) return true;
  return false;
}

std::string CheckEventText(const Event& event) {
  std::string reason = CheckName(event.sitname, "\"sitname\"");
  if (reason.empty()) reason = CheckName(event.originnode, "\"originnode\"");
  if (reason.empty() && event.timestamp) reason = CheckName(*event.timestamp, "\"timestamp\"");
  if (reason.empty() && event.threshold) reason = CheckValue(*event.threshold, "\"threshold\"");
  for (size_t i = 0; reason.empty() && i < event.attributes.size(); ++i) {
    const std::string field = "attribute " + std::to_string(i + 1);
    reason = CheckName(event.attributes[i].first, field + " name");
    if (reason.empty()) reason = CheckValue(event.attributes[i].second, field + " value");
  }
  return reason;
}

}  // namespace qmta::hostprog
