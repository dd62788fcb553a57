// Text checks shared by the drivers that hand an action's command on:
// the local driver (to a program) and the nats driver (to an agent).
#ifndef HOST_COMMON_TEXT_H_
#define HOST_COMMON_TEXT_H_

#include <string_view>

namespace qmta::host {

// True when `text` holds a control character other than tab (C0, NUL
// included, or DEL). The host's intake keeps them out of events; with that
// check off (--allow-any-text) the drivers still refuse such a command.
inline bool HoldsControlCharacter(std::string_view text) {
  for (char c : text)
    if ((static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7f) return true;
  return false;
}

}  // namespace qmta::host

#endif  // HOST_COMMON_TEXT_H_
