#include "host/common/options.h"

#include <getopt.h>

namespace qmta::host {

std::string OptionError(int answer, char* const* argv) {
  std::string word = optopt > 0 && optopt < 256 ? std::string("-") + static_cast<char>(optopt)
                                               : std::string(argv[optind - 1]);
  return answer == ':' ? word + ": needs a value" : "unknown option \"" + word + "\"";
}

}  // namespace qmta::host
