// Control characters in text from outside: what the host's logger makes
// visible, and what the drivers that hand an action's command on (the
// local driver to a program, the nats driver to an agent) refuse.
#ifndef HOST_COMMON_TEXT_H_
#define HOST_COMMON_TEXT_H_

#include <string_view>

namespace qmta::host {

// A C0 control character other than tab (NUL and line ends included), or DEL.
inline bool IsControlCharacter(char c) {
  return (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7f;
}

// True when `text` holds one. The host's intake keeps them out of events;
// with that check off (--allow-any-text) the drivers still refuse such a
// command.
inline bool HoldsControlCharacter(std::string_view text) {
  for (char c : text)
    if (IsControlCharacter(c)) return true;
  return false;
}

}  // namespace qmta::host

#endif  // HOST_COMMON_TEXT_H_
