#include "host/common/files.h"

#include <fstream>
#include <sstream>
#include <system_error>

namespace qmta::host {

bool ReadFile(const std::string& path, std::string* text) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream content;
  content << in.rdbuf();
  *text = content.str();
  return !in.bad();
}

std::string ErrorText(int error) { return std::generic_category().message(error); }

}  // namespace qmta::host
