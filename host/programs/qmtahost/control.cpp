#include "host/programs/qmtahost/control.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>

namespace qmta::hostprog {
namespace {

using Json = nlohmann::json;

// Longest request line; a longer one ends the connection.
constexpr size_t kLineMax = 1 << 20;
constexpr size_t kConnectionsMax = 32;

bool Address(const std::string& path, sockaddr_un* address, std::string* error) {
  memset(address, 0, sizeof *address);
  address->sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address->sun_path) {
    *error = "control socket path \"" + path + "\" is empty or too long";
    return false;
  }
  memcpy(address->sun_path, path.data(), path.size());
  return true;
}

// A connected socket to `path`, or -1 with errno set.
int Connect(const std::string& path) {
  sockaddr_un address;
  std::string ignored;
  if (!Address(path, &address, &ignored)) {
    errno = ENAMETOOLONG;
    return -1;
  }
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    int saved = errno;
    close(fd);
    errno = saved;
    return -1;
  }
  return fd;
}

bool WriteAll(int fd, std::string_view text) {
  while (!text.empty()) {
    ssize_t put = send(fd, text.data(), text.size(), MSG_NOSIGNAL);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return false;
    text.remove_prefix(static_cast<size_t>(put));
  }
  return true;
}

// Reads one line (without its line end) from `fd` into `*line`, keeping
// what follows it in `*pending`. False at the end or on an error.
bool ReadLine(int fd, std::string* pending, std::string* line) {
  for (;;) {
    size_t end = pending->find('\n');
    if (end != std::string::npos) {
      line->assign(*pending, 0, end);
      pending->erase(0, end + 1);
      if (!line->empty() && line->back() == '\r') line->pop_back();
      return true;
    }
    if (pending->size() > kLineMax) return false;
    char buffer[4096];
    ssize_t got = recv(fd, buffer, sizeof buffer, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    pending->append(buffer, static_cast<size_t>(got));
  }
}

}  // namespace

std::string DefaultControlPath() {
  const char* runtime = getenv("RUNTIME_DIRECTORY");
  if (runtime != nullptr && *runtime != '\0') {
    // systemd may list several directories, separated by colons.
    std::string first(runtime);
    first = first.substr(0, first.find(':'));
    return first + "/control";
  }
  return "/run/qmtahost/control";
}

bool ControlServer::Start(const std::string& path, Handler handler, std::string* error) {
  sockaddr_un address;
  if (!Address(path, &address, error)) return false;
  int running = Connect(path);
  if (running >= 0) {
    close(running);
    *error = "another host answers on " + path;
    return false;
  }
  std::error_code ignored;
  std::filesystem::path parent = std::filesystem::path(path).parent_path();
  if (!parent.empty()) std::filesystem::create_directories(parent, ignored);
  struct stat info;
  if (lstat(path.c_str(), &info) == 0) {
    if (!S_ISSOCK(info.st_mode)) {
      *error = path + " exists and is not a socket";
      return false;
    }
    unlink(path.c_str());  // left by a host that is gone
  }
  listen_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listen_ < 0 || pipe2(wake_, O_CLOEXEC) != 0) {
    *error = std::string("cannot make the control socket: ") + strerror(errno);
    Stop();
    return false;
  }
  // Made with no permission for others, then opened to the group.
  mode_t old = umask(0177);
  int bound = bind(listen_, reinterpret_cast<sockaddr*>(&address), sizeof address);
  int saved = errno;
  umask(old);
  if (bound != 0 || chmod(path.c_str(), 0660) != 0 || listen(listen_, 16) != 0) {
    *error = "cannot listen on " + path + ": " + strerror(bound != 0 ? saved : errno);
    Stop();
    return false;
  }
  path_ = path;
  handler_ = std::move(handler);
  acceptor_ = std::thread([this] { Accept(); });
  return true;
}

void ControlServer::Stop() {
  if (wake_[1] >= 0) {
    char byte = 0;
    (void)!write(wake_[1], &byte, 1);
  }
  if (acceptor_.joinable()) acceptor_.join();
  {
    std::lock_guard<std::mutex> hold(mutex_);
    for (Connection& connection : connections_) shutdown(connection.fd, SHUT_RDWR);
  }
  // Connection threads take the mutex to say they are done: join unlocked.
  for (Connection& connection : connections_)
    if (connection.thread.joinable()) connection.thread.join();
  for (Connection& connection : connections_) close(connection.fd);
  connections_.clear();
  if (!path_.empty()) unlink(path_.c_str());
  path_.clear();
  for (int* fd : {&listen_, &wake_[0], &wake_[1]}) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
  }
}

void ControlServer::Accept() {
  for (;;) {
    struct pollfd fds[2] = {{listen_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
    if (poll(fds, 2, -1) < 0 && errno != EINTR) return;
    if (fds[1].revents != 0) return;
    if ((fds[0].revents & POLLIN) == 0) continue;
    int fd = accept4(listen_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    std::lock_guard<std::mutex> hold(mutex_);
    // Finished connections are reaped here, on the accept thread.
    for (auto it = connections_.begin(); it != connections_.end();) {
      if (!it->done) {
        ++it;
        continue;
      }
      it->thread.join();
      close(it->fd);
      it = connections_.erase(it);
    }
    if (connections_.size() >= kConnectionsMax) {
      WriteAll(fd, "{\"ok\": false, \"output\": [], \"error\": \"too many control connections\"}\n");
      close(fd);
      continue;
    }
    Connection& connection = connections_.emplace_back();
    connection.fd = fd;
    connection.thread = std::thread([this, &connection] { Serve(&connection); });
  }
}

void ControlServer::Serve(Connection* connection) {
  std::string pending, line;
  while (ReadLine(connection->fd, &pending, &line)) {
    ControlReply reply = handler_(line);
    Json answer = {{"ok", reply.ok}, {"output", reply.output}, {"error", reply.error}};
    // Text from the module or an event may be any bytes: never fail on it.
    std::string text = answer.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
    if (!WriteAll(connection->fd, text)) break;
  }
  std::lock_guard<std::mutex> hold(mutex_);
  connection->done = true;
}

int RunControlClient(const std::string& path, const std::vector<std::string>& lines) {
  int fd = Connect(path);
  if (fd < 0) {
    fprintf(stderr, "qmtahost ctl: no host answers at %s: %s\n", path.c_str(), strerror(errno));
    return 2;
  }
  int status = 0;
  std::string pending, answer;
  for (const std::string& line : lines) {
    if (line.find('\n') != std::string::npos) {
      fprintf(stderr, "qmtahost ctl: a line may not hold a line end\n");
      status = 1;
      continue;
    }
    if (!WriteAll(fd, line + "\n") || !ReadLine(fd, &pending, &answer)) {
      fprintf(stderr, "qmtahost ctl: the host at %s closed the connection\n", path.c_str());
      close(fd);
      return 2;
    }
    Json reply = Json::parse(answer, nullptr, false);
    if (reply.is_discarded() || !reply.is_object()) {
      fprintf(stderr, "qmtahost ctl: unreadable answer from %s\n", path.c_str());
      status = 1;
      continue;
    }
    for (const Json& text : reply.value("output", Json::array()))
      if (text.is_string()) printf("%s\n", text.get_ref<const std::string&>().c_str());
    if (!reply.value("ok", false)) {
      fprintf(stderr, "qmtahost ctl: refused: %s\n", reply.value("error", std::string()).c_str());
      status = 1;
    }
  }
  fflush(stdout);
  close(fd);
  return status;
}

}  // namespace qmta::hostprog
