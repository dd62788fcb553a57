// The HTTP endpoint of `qmtahost serve` (--listen ADDR:PORT), on
// libmicrohttpd:
//
//   POST /v1/events    one event line, or several as JSON lines: checked
//                      whole, then queued for the dispatcher (202), or
//                      refused whole (400) naming each refused line
//   POST /v1/alertmanager  Alertmanager's webhook: each alert whose state
//                      changed becomes an event (alertmanager.h); 200
//                      naming the alerts delivered, unchanged and refused
//   POST /v1/commands  one line as the control socket takes it (a module
//                      command, a drain, a reload), answered as there
//   GET  /v1/actions   the action journal, filtered as `qmtahost history`
//                      filters (history.h), as JSON
//   GET  /metrics      Prometheus text format (metrics.h)
//   GET  /healthz      200 while the process runs
//   GET  /readyz       200 once the module has started with a table loaded
//   GET  /v1/actions   the action journal, filtered (history.h)
//   GET  /v1/rules     the rules loaded, as the module's DISPLAY lists them
//   GET  /             the operator page (page.h), with /page.js, /page.css
//   POST /login        form field `token`: a browser session; /logout ends it
//
// Every path but /healthz, /page.css and /login needs `Authorization:
// Bearer TOKEN` when a token file is given (a GET may carry a browser
// session's cookie instead); without one the server listens on loopback
// addresses only. Bodies, headers, connections and idle time are bounded.
//
// Threads: libmicrohttpd runs a listening thread and one thread per
// connection (at most `connections`); a connection's thread parses and
// checks its request, queues it and, for a command, waits for the
// dispatcher's answer. Start and Stop run on the main thread.
#ifndef HOST_PROGRAMS_QMTAHOST_HTTP_H_
#define HOST_PROGRAMS_QMTAHOST_HTTP_H_

#include <netinet/in.h>
#include <stddef.h>
#include <sys/socket.h>

#include <memory>
#include <string>

#include "host/programs/qmtahost/alertmanager.h"
#include "host/programs/qmtahost/dispatcher.h"
#include "host/programs/qmtahost/metrics.h"
#include "host/programs/qmtahost/outputrelay.h"
#include "host/programs/qmtahost/page.h"

struct MHD_Daemon;
struct MHD_Connection;

namespace qmta::hostprog {

// The command line's HTTP options, file names absolute.
struct HttpOptions {
  std::string listen;  // ADDR:PORT; empty: no HTTP server
  std::string tokenFile;
  std::string tlsCert;
  std::string tlsKey;
  size_t bodyMax = 1 << 20;
  unsigned connections = 64;
  unsigned timeoutSeconds = 30;
  // 503 for events while back-pressure has held events back this long.
  unsigned busyAfterSeconds = 10;
};

// What the server runs with: the address, the secrets read, the limits.
struct HttpConfig {
  bool enabled = false;
  sockaddr_storage address{};
  std::string addressText;  // as given
  std::string token;        // empty: none required
  std::string cert, key;    // PEM; empty: plain HTTP
  size_t bodyMax = 1 << 20;
  unsigned connections = 64;
  unsigned timeoutSeconds = 30;
  unsigned busyAfterSeconds = 10;
  bool allowAnyText = false;
  AlertSettings alerts;  // POST /v1/alertmanager
};

// Reads `ADDR:PORT` (an IPv4 address, or an IPv6 one in brackets:
// `[::1]:8080`; port 0 picks a free one). False with `*error` set.
bool ParseListenAddress(const std::string& text, sockaddr_storage* address, std::string* error);
bool IsLoopback(const sockaddr_storage& address);

// Checks the address and reads the token file and the certificate and key.
// Refuses an address other than loopback without a token. Warns (on
// standard error) about a token file that others may read. False with
// `*error` set.
bool PrepareHttp(const HttpOptions& options, HttpConfig* config, std::string* error);

// Compares a secret in time that depends only on `expected`'s length.
bool SameSecret(std::string_view given, std::string_view expected);

class HttpServer {
 public:
  HttpServer(Dispatcher* dispatcher, Metrics* metrics, const OutputRelay* relay)
      : dispatcher_(dispatcher), metrics_(metrics), relay_(relay) {}
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;
  ~HttpServer() { Stop(); }

  // Listens; says on standard error where. False with `*error` set.
  bool Start(const HttpConfig& config, std::string* error);
  // Closes every connection and joins the server's threads.
  void Stop();

 private:
  friend struct HttpCallbacks;  // the library's callbacks (http.cpp)
  struct Request;
  struct Answer;
  Answer Route(MHD_Connection* connection, Request* request, std::string_view method,
               std::string_view path);
  Answer Respond(const Request& request);  // once the whole request is in
  Answer Events(const std::string& body);
  Answer Command(const std::string& body);
  Answer Alerts(const std::string& body);
  Answer Rules();

  Dispatcher* dispatcher_;
  Metrics* metrics_;
  const OutputRelay* relay_;
  HttpConfig config_;
  Sessions sessions_;
  MHD_Daemon* daemon_ = nullptr;
  std::unique_ptr<AlertIntake> alerts_;  // made by Start
};

}  // namespace qmta::hostprog

#endif  // HOST_PROGRAMS_QMTAHOST_HTTP_H_
