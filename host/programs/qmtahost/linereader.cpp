#include "host/programs/qmtahost/linereader.h"

#include <errno.h>
#include <string.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>

namespace qmta::hostprog {

bool LineReader::Next(std::string* line, bool* tooLong) {
  line->clear();
  *tooLong = false;
  bool any = false;
  bool ended = false;
  while (!ended) {
    if (next_ == end_ && !Fill()) break;
    any = true;
    const char* newline = static_cast<const char*>(memchr(next_, '\n', end_ - next_));
    const char* stop = newline ? newline : end_;
    size_t length = static_cast<size_t>(stop - next_);
    size_t room = kLineMax - line->size();
    if (length > room) *tooLong = true;
    line->append(next_, std::min(length, room));
    next_ = newline ? newline + 1 : end_;
    ended = newline != nullptr;
  }
  if (ended && !line->empty() && line->back() == '\r') line->pop_back();
  return any;
}

bool LineReader::Fill() {
  if (wake_ >= 0) {
    struct pollfd fds[2] = {{fd_, POLLIN, 0}, {wake_, POLLIN, 0}};
    while (poll(fds, 2, -1) < 0 && errno == EINTR) {
    }
    if (fds[1].revents != 0) return false;
  }
  ssize_t got;
  do {
    got = read(fd_, buffer_, sizeof buffer_);
  } while (got < 0 && errno == EINTR);
  if (got < 0) error_ = errno;
  next_ = buffer_;
  end_ = buffer_ + (got > 0 ? got : 0);
  return got > 0;
}

}  // namespace qmta::hostprog
