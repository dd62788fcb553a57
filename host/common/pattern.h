// The patterns of destination lines: at most one '*', which stands for any
// text (also none). Shared by the destination directory and the operator
// tools that read a nodes file, so both route a node the same way.
#ifndef HOST_COMMON_PATTERN_H_
#define HOST_COMMON_PATTERN_H_

#include <string>

namespace qmta::host {

// True when `pattern` (at most one '*') matches the whole of `node`.
inline bool PatternMatches(const std::string& pattern, const std::string& node) {
  size_t star = pattern.find('*');
  if (star == std::string::npos) return pattern == node;
  size_t suffix = pattern.size() - star - 1;
  return node.size() >= star + suffix && node.compare(0, star, pattern, 0, star) == 0 &&
         node.compare(node.size() - suffix, suffix, pattern, star + 1, suffix) == 0;
}

}  // namespace qmta::host

#endif  // HOST_COMMON_PATTERN_H_
