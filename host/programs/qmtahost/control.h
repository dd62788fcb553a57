// The control socket of `qmtahost serve` and its client, `qmtahost ctl`.
//
// A Unix stream socket. A client writes lines (events, drains, reloads,
// module commands: what an input file holds); for each line the host
// answers one JSON line: {"ok": BOOL, "output": [LINE...], "error": TEXT}.
// `output` is what the line's handling printed on the dispatcher thread
// (a DISPLAY listing, a REFRESH status, rule-file messages) or, for an
// event, how many actions it started; `error` says why a line was refused.
//
// Threads: the server's accept thread owns the listening socket; each
// connection has a thread of its own that calls the handler, one line at a
// time. The handler must be safe to call from several connection threads.
#ifndef HOST_PROGRAMS_QMTAHOST_CONTROL_H_
#define HOST_PROGRAMS_QMTAHOST_CONTROL_H_

#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace qmta::hostprog {

struct ControlReply {
  bool ok = true;
  std::vector<std::string> output;
  std::string error;
};

// The default socket: $RUNTIME_DIRECTORY/control, else /run/qmtahost/control.
std::string DefaultControlPath();

class ControlServer {
 public:
  using Handler = std::function<ControlReply(const std::string& line)>;
  ControlServer() = default;
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;
  ~ControlServer() { Stop(); }

  // Listens on `path` (mode 0660). A socket file left by a host that is
  // gone is replaced; one that a host still answers on is not. False, with
  // `*error` set, when it cannot listen.
  bool Start(const std::string& path, Handler handler, std::string* error);
  // Stops taking connections, ends the open ones, removes the socket file
  // and joins every thread. Calls in progress finish first.
  void Stop();

 private:
  struct Connection {
    int fd = -1;
    std::thread thread;
    bool done = false;  // guarded by mutex_
  };
  void Accept();
  void Serve(Connection* connection);

  std::string path_;
  Handler handler_;
  int listen_ = -1;
  int wake_[2] = {-1, -1};  // written to by Stop, read by the accept thread
  std::thread acceptor_;
  std::mutex mutex_;  // guards connections_ (accept thread, Stop, connection threads)
  std::list<Connection> connections_;
};

// Sends each line of `lines` to the host at `path` and prints each answer:
// output on standard output, the reason of a refusal on standard error.
// Returns 0 when every line was taken, 1 when one was refused, 2 when no
// host answers at `path`.
int RunControlClient(const std::string& path, const std::vector<std::string>& lines);

}  // namespace qmta::hostprog

#endif  // HOST_PROGRAMS_QMTAHOST_CONTROL_H_
