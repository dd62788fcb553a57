#include "host/common/say.h"

#include <stdio.h>

#include <string>

#include "host/common/text.h"

namespace qmta::host {

void Say(std::string_view who, std::string_view text) {
  std::string line;
  line.reserve(who.size() + text.size() + 1);
  line += who;
  for (char c : text) line += IsControlCharacter(c) ? '?' : c;
  line += '\n';
  flockfile(stderr);
  fwrite(line.data(), 1, line.size(), stderr);
  fflush(stderr);
  funlockfile(stderr);
}

void SayUsageError(std::string_view program, std::string_view error, std::string_view usage) {
  Say(std::string(program) + ": ", error);
  std::string rest(usage);
  rest += "Try '";
  rest += program;
  rest += " --help' for more.\n";
  fputs(rest.c_str(), stderr);
}

}  // namespace qmta::host
