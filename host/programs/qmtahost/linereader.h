// qmtahost's input, read a block at a time and handed out line by line: one
// memchr per line instead of a call per character, which made reading the
// lines cost as much as parsing them. It reads the descriptor directly, so
// a line that arrives on a pipe is handed out as soon as it is there. Used
// by one thread at a time.
#ifndef HOST_PROGRAMS_QMTAHOST_LINEREADER_H_
#define HOST_PROGRAMS_QMTAHOST_LINEREADER_H_

#include <stddef.h>

#include <string>

namespace qmta::hostprog {

class LineReader {
 public:
  // Longest line read; the rest of a longer one is skipped.
  static constexpr size_t kLineMax = 1 << 20;

  // `wake`: a descriptor whose readiness ends the input early (a stop),
  // or -1.
  explicit LineReader(int fd, int wake = -1) : fd_(fd), wake_(wake) {}

  // Reads one line without its line end ("\n" or "\r\n"); false at the end
  // of the input or after a read error. A line longer than kLineMax is cut
  // and `*tooLong` set.
  bool Next(std::string* line, bool* tooLong);

  // The error number of a failed read, 0 when none failed.
  int error() const { return error_; }

 private:
  bool Fill();

  int fd_;
  int wake_;
  int error_ = 0;
  char buffer_[1 << 16];
  const char* next_ = buffer_;
  const char* end_ = buffer_;
};

}  // namespace qmta::hostprog

#endif  // HOST_PROGRAMS_QMTAHOST_LINEREADER_H_
