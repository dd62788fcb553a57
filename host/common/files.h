// Files and error numbers, as the host's programs and drivers report them.
#ifndef HOST_COMMON_FILES_H_
#define HOST_COMMON_FILES_H_

#include <string>

namespace qmta::host {

// Reads the whole of `path`, byte for byte, into `*text`. False when it
// cannot be opened or read; errno then says why.
bool ReadFile(const std::string& path, std::string* text);

// The text of an error number (errno, or an error a call returned).
std::string ErrorText(int error);

}  // namespace qmta::host

#endif  // HOST_COMMON_FILES_H_
