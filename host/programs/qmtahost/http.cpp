#include "host/programs/qmtahost/http.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <stdarg.h>
#include <stdio.h>
#include <strings.h>
#include <sys/stat.h>

#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "host/common/files.h"
#include "host/common/number.h"
#include "host/common/say.h"
#include "host/programs/qmtahost/history.h"
#include "host/programs/qmtahost/intake.h"
#include "host/programs/qmtahost/linereader.h"
#include "host/programs/qmtahost/page.h"

namespace qmta::hostprog {
namespace {

using Json = nlohmann::json;

// Bytes of a request's line and headers (and libmicrohttpd's own
// bookkeeping): a request whose headers do not fit is answered 431.
constexpr size_t kConnectionMemory = 32 * 1024;
// Refused lines named in a 400 answer; the count says how many there were.
constexpr size_t kRefusedListed = 1000;
// Refused lines of one body said on standard error.
constexpr size_t kRefusedSaid = 10;
constexpr const char* kRetryAfter = "5";
constexpr const char* kJsonType = "application/json";
constexpr const char* kTextType = "text/plain; charset=utf-8";

void Say(const std::string& text) { host::Say("qmtahost: http: ", text); }

std::string Dump(const Json& value) {
  // Reasons may quote an event's bytes: never fail on them.
  return value.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

// libmicrohttpd's own messages (its format, its values): the first line of
// each (some carry the error page they answered with). Say makes control
// characters that a client may have sent visible.
void Log(void*, const char* format, va_list values) {
  char text[512];
  vsnprintf(text, sizeof text, format, values);
  std::string_view message(text);
  Say(std::string(message.substr(0, message.find_first_of("\r\n"))));
}

std::string AddressText(const sockaddr_storage& address, uint16_t port) {
  char text[INET6_ADDRSTRLEN] = "";
  if (address.ss_family == AF_INET6) {
    inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6&>(address).sin6_addr, text,
              sizeof text);
    return "[" + std::string(text) + "]:" + std::to_string(port);
  }
  inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in&>(address).sin_addr, text, sizeof text);
  return std::string(text) + ":" + std::to_string(port);
}

const char* Header(MHD_Connection* connection, const char* name) {
  return MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
}

}  // namespace

// One request being read: the endpoint that answers it, and its body.
struct HttpServer::Request {
  enum class Endpoint {
    kHealth, kReady, kMetrics, kEvents, kCommands, kAlerts, kActions, kRules, kLogin, kLogout,
    kFile
  } endpoint;
  std::string_view file;  // kFile: a file of the page, built into the program
  const char* fileType = nullptr;
  std::string body;
  std::string session;  // the session cookie's value, for a logout
  std::map<std::string, std::string> query;  // GET /v1/actions' parameters
};

// What to send back.
struct HttpServer::Answer {
  unsigned status = 0;  // 0: none yet, read the body
  std::string body;
  const char* type = kJsonType;
  std::vector<std::pair<const char*, std::string>> headers;

  static Answer Text(unsigned status, std::string text) {
    Answer answer;
    answer.status = status;
    answer.body = std::move(text);
    answer.type = kTextType;
    return answer;
  }
  static Answer Error(unsigned status, const std::string& error) {
    Answer answer;
    answer.status = status;
    answer.body = Dump(Json{{"error", error}});
    return answer;
  }
  // A page or one of its files, with the headers that keep it to itself:
  // nothing from elsewhere, no framing, nothing cached.
  static Answer Page(unsigned status, std::string content, const char* type) {
    Answer answer;
    answer.status = status;
    answer.body = std::move(content);
    answer.type = type;
    answer.headers = {
        {"Content-Security-Policy",
         "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; "
         "img-src 'self'; form-action 'self'; frame-ancestors 'none'; base-uri 'none'"},
        {"X-Content-Type-Options", "nosniff"},
        {"X-Frame-Options", "DENY"},
        {"Referrer-Policy", "no-referrer"},
        {MHD_HTTP_HEADER_CACHE_CONTROL, "no-store"}};
    return answer;
  }
  static Answer SeeOther(const std::string& cookie) {
    Answer answer = Text(303, "");
    answer.headers = {{MHD_HTTP_HEADER_LOCATION, "/"}, {MHD_HTTP_HEADER_CACHE_CONTROL, "no-store"}};
    if (!cookie.empty()) answer.headers.emplace_back(MHD_HTTP_HEADER_SET_COOKIE, cookie);
    return answer;
  }
};

bool ParseListenAddress(const std::string& text, sockaddr_storage* address, std::string* error) {
  *address = sockaddr_storage{};
  std::string host, port;
  if (text.starts_with("[")) {
    size_t close = text.find("]:");
    if (close == std::string::npos) {
      *error = "--listen " + text + ": an IPv6 address is written [ADDRESS]:PORT";
      return false;
    }
    host = text.substr(1, close - 1);
    port = text.substr(close + 2);
  } else {
    size_t colon = text.rfind(':');
    if (colon == std::string::npos) {
      *error = "--listen " + text + ": ADDRESS:PORT expected";
      return false;
    }
    host = text.substr(0, colon);
    port = text.substr(colon + 1);
  }
  int64_t number;
  if (!host::ParseNumber(port.c_str(), &number, 0, 65535, host::Radix::kDecimal)) {
    *error = "--listen " + text + ": bad port \"" + port + "\" (0 to 65535)";
    return false;
  }
  auto* v4 = reinterpret_cast<sockaddr_in*>(address);
  auto* v6 = reinterpret_cast<sockaddr_in6*>(address);
  if (inet_pton(AF_INET, host.c_str(), &v4->sin_addr) == 1 && !text.starts_with("[")) {
    v4->sin_family = AF_INET;
    v4->sin_port = htons(static_cast<uint16_t>(number));
    return true;
  }
  if (inet_pton(AF_INET6, host.c_str(), &v6->sin6_addr) == 1 && text.starts_with("[")) {
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons(static_cast<uint16_t>(number));
    return true;
  }
  *error = "--listen " + text + ": \"" + host +
           "\" is not an IPv4 address or a bracketed IPv6 address";
  return false;
}

bool IsLoopback(const sockaddr_storage& address) {
  if (address.ss_family == AF_INET) {
    uint32_t ip = ntohl(reinterpret_cast<const sockaddr_in&>(address).sin_addr.s_addr);
    return (ip >> 24) == 127;
  }
  if (address.ss_family == AF_INET6) {
    const in6_addr& ip = reinterpret_cast<const sockaddr_in6&>(address).sin6_addr;
    if (IN6_IS_ADDR_LOOPBACK(&ip)) return true;
    return IN6_IS_ADDR_V4MAPPED(&ip) && ip.s6_addr[12] == 127;
  }
  return false;
}

bool SameSecret(std::string_view given, std::string_view expected) {
  unsigned char differ = given.size() != expected.size();
  for (size_t i = 0; i < expected.size(); ++i) {
    unsigned char mine = i < given.size() ? static_cast<unsigned char>(given[i]) : 0;
    differ |= mine ^ static_cast<unsigned char>(expected[i]);
  }
  return differ == 0;
}

bool PrepareHttp(const HttpOptions& options, HttpConfig* config, std::string* error) {
  if (!ParseListenAddress(options.listen, &config->address, error)) return false;
  config->addressText = options.listen;
  if (!options.tokenFile.empty()) {
    std::string& token = config->token;
    if (!host::ReadFile(options.tokenFile, &token)) {
      *error = "--token-file " + options.tokenFile + ": " + host::ErrorText(errno);
      return false;
    }
    if (token.ends_with("\n")) token.pop_back();
    if (token.ends_with("\r")) token.pop_back();
    bool printable = !token.empty();
    for (char c : token) printable &= c > ' ' && c < 0x7f;
    if (!printable) {
      *error = "--token-file " + options.tokenFile +
               ": the token must be one line of printable characters without blanks";
      return false;
    }
    struct stat info;
    if (stat(options.tokenFile.c_str(), &info) == 0 && (info.st_mode & S_IROTH) != 0)
      host::Say("qmtahost: ", "warning: the token file " + options.tokenFile +
                                  " is readable by others");
  } else if (!IsLoopback(config->address)) {
    *error = "--listen " + options.listen +
             " is not a loopback address: without --token-file the HTTP server listens on "
             "loopback only";
    return false;
  }
  if (!options.tlsCert.empty()) {
    if (MHD_is_feature_supported(MHD_FEATURE_TLS) != MHD_YES) {
      *error = "--tls-cert: this libmicrohttpd was built without TLS";
      return false;
    }
    for (auto [name, path, text] : {std::tuple{"--tls-cert", &options.tlsCert, &config->cert},
                                    std::tuple{"--tls-key", &options.tlsKey, &config->key}}) {
      if (!host::ReadFile(*path, text)) {
        *error = std::string(name) + " " + *path + ": " + host::ErrorText(errno);
        return false;
      }
      if (text->empty()) {
        *error = std::string(name) + " " + *path + ": the file is empty";
        return false;
      }
    }
  }
  config->bodyMax = options.bodyMax;
  config->connections = options.connections;
  config->timeoutSeconds = options.timeoutSeconds;
  config->busyAfterSeconds = options.busyAfterSeconds;
  config->enabled = true;
  return true;
}

// libmicrohttpd's callbacks.
struct HttpCallbacks {
  using Request = HttpServer::Request;
  using Answer = HttpServer::Answer;
  static void Completed(void*, MHD_Connection*, void** state, MHD_RequestTerminationCode);
  static MHD_Result Access(void* self, MHD_Connection* connection, const char* url,
                           const char* method, const char*, const char* upload,
                           size_t* uploadSize, void** state);
};

bool HttpServer::Start(const HttpConfig& config, std::string* error) {
  config_ = config;
  alerts_ = std::make_unique<AlertIntake>(config_.alerts, config_.allowAnyText);
  unsigned flags = MHD_USE_AUTO_INTERNAL_THREAD | MHD_USE_THREAD_PER_CONNECTION | MHD_USE_ERROR_LOG;
  if (config_.address.ss_family == AF_INET6) flags |= MHD_USE_IPv6;
  if (!config_.cert.empty()) flags |= MHD_USE_TLS;
  std::vector<MHD_OptionItem> options = {
      {MHD_OPTION_EXTERNAL_LOGGER, reinterpret_cast<intptr_t>(&Log), nullptr},
      {MHD_OPTION_SOCK_ADDR, 0, &config_.address},
      {MHD_OPTION_CONNECTION_LIMIT, static_cast<intptr_t>(config_.connections), nullptr},
      {MHD_OPTION_CONNECTION_TIMEOUT, static_cast<intptr_t>(config_.timeoutSeconds), nullptr},
      {MHD_OPTION_CONNECTION_MEMORY_LIMIT, static_cast<intptr_t>(kConnectionMemory), nullptr},
      {MHD_OPTION_NOTIFY_COMPLETED, reinterpret_cast<intptr_t>(&HttpCallbacks::Completed), this},
  };
  if (!config_.cert.empty()) {
    options.push_back({MHD_OPTION_HTTPS_MEM_CERT, 0, config_.cert.data()});
    options.push_back({MHD_OPTION_HTTPS_MEM_KEY, 0, config_.key.data()});
  }
  options.push_back({MHD_OPTION_END, 0, nullptr});
  daemon_ = MHD_start_daemon(flags, 0, nullptr, nullptr,
                             &HttpCallbacks::Access, this,
                             MHD_OPTION_ARRAY, options.data(), MHD_OPTION_END);
  if (daemon_ == nullptr) {
    *error = "cannot listen on " + config_.addressText +
             (config_.cert.empty() ? "" : " (or the certificate and key are not usable)");
    return false;
  }
  const MHD_DaemonInfo* bound = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_BIND_PORT);
  uint16_t port = bound != nullptr ? bound->port : 0;
  Say(std::string("listening on ") + (config_.cert.empty() ? "http://" : "https://") +
      AddressText(config_.address, port));
  return true;
}

void HttpServer::Stop() {
  if (daemon_ != nullptr) MHD_stop_daemon(daemon_);
  daemon_ = nullptr;
}

void HttpCallbacks::Completed(void*, MHD_Connection*, void** state, MHD_RequestTerminationCode) {
  delete static_cast<Request*>(*state);
  *state = nullptr;
}

// Called when a request's headers are in (no state yet), for each piece of
// its body, and once more at its end. Nothing is thrown back into the
// library: a failure (out of memory) closes the connection.
MHD_Result HttpCallbacks::Access(void* self, MHD_Connection* connection, const char* url,
                                 const char* method, const char*, const char* upload,
                                 size_t* uploadSize, void** state) try {
  auto* server = static_cast<HttpServer*>(self);
  auto* request = static_cast<Request*>(*state);
  Answer answer;
  if (request == nullptr) {  // the headers are in
    auto made = std::make_unique<Request>();
    answer = server->Route(connection, made.get(), method == nullptr ? "" : method,
                           url == nullptr ? "" : url);
    if (answer.status == 0) {
      *state = made.release();  // Completed deletes it
      return MHD_YES;
    }
  } else if (*uploadSize > 0) {
    // A body sent in chunks, without a length, that goes past the limit:
    // the connection is closed (an answer can only go before or after it).
    if (request->body.size() + *uploadSize > server->config_.bodyMax) return MHD_NO;
    request->body.append(upload, *uploadSize);
    *uploadSize = 0;
    return MHD_YES;
  } else {
    answer = server->Respond(*request);
  }
  MHD_Response* response = MHD_create_response_from_buffer(
      answer.body.size(), answer.body.data(), MHD_RESPMEM_MUST_COPY);
  if (response == nullptr) return MHD_NO;
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, answer.type);
  for (const auto& [name, value] : answer.headers)
    MHD_add_response_header(response, name, value.c_str());
  MHD_Result queued = MHD_queue_response(connection, answer.status, response);
  MHD_destroy_response(response);
  return queued;
} catch (...) {
  return MHD_NO;
}

HttpServer::Answer HttpServer::Route(MHD_Connection* connection, Request* request,
                                     std::string_view method, std::string_view path) {
  using Endpoint = Request::Endpoint;
  const bool get = method == "GET" || method == "HEAD";
  const bool post = method == "POST";
  auto only = [](const char* allowed) {
    Answer answer = Answer::Error(405, std::string(allowed) + " only");
    answer.headers.emplace_back(MHD_HTTP_HEADER_ALLOW,
                                std::string_view(allowed) == "GET" ? "GET, HEAD" : allowed);
    return answer;
  };
  // Open to all: liveness, the login form's style, and the login itself.
  if (path == "/healthz" || path == "/page.css") {
    if (!get) return only("GET");
    request->endpoint = Endpoint::kHealth;
    if (PageFile(path, &request->file, &request->fileType)) request->endpoint = Endpoint::kFile;
    return {};
  }
  const bool login = path == "/login" || path == "/logout";
  if (login) {
    if (!post) return only("POST");
    request->endpoint = path == "/login" ? Endpoint::kLogin : Endpoint::kLogout;
    const char* cookie = MHD_lookup_connection_value(connection, MHD_COOKIE_KIND, Sessions::kCookie);
    request->session = cookie == nullptr ? "" : cookie;
  } else if (!config_.token.empty()) {
    // A bearer token, or for a GET a browser session (page.h).
    const char* given = Header(connection, MHD_HTTP_HEADER_AUTHORIZATION);
    std::string_view credentials = given == nullptr ? "" : given;
    bool bearer = credentials.size() > 7 && strncasecmp(credentials.data(), "Bearer ", 7) == 0;
    const char* cookie = MHD_lookup_connection_value(connection, MHD_COOKIE_KIND, Sessions::kCookie);
    bool session = get && cookie != nullptr && sessions_.Valid(cookie);
    if (!session && (!bearer || !SameSecret(credentials.substr(7), config_.token))) {
      if (path == "/" && get) return Answer::Page(401, LoginPage(""), "text/html; charset=utf-8");
      Answer answer = Answer::Error(401, "a bearer token is required");
      answer.headers.emplace_back(MHD_HTTP_HEADER_WWW_AUTHENTICATE, "Bearer realm=\"qmtahost\"");
      return answer;
    }
  }
  if (path == "/" || path == "/page.js") {
    if (!get) return only("GET");
    PageFile(path, &request->file, &request->fileType);
    request->endpoint = Endpoint::kFile;
    return {};
  }
  const bool events = path == "/v1/events", commands = path == "/v1/commands";
  const bool actions = path == "/v1/actions", rules = path == "/v1/rules";
  const bool alerts = path == "/v1/alertmanager";
  if (path != "/readyz" && path != "/metrics" && !events && !commands && !actions && !rules &&
      !login && !alerts)
    return Answer::Error(404, "no such path");
  if (events || commands || alerts) {
    if (!post) return only("POST");
  } else if (!get && !login) {
    return only("GET");
  }
  if (rules) {
    request->endpoint = Endpoint::kRules;
    return {};
  }
  // Answered once the request is in (answered now, a keep-alive connection
  // would close after it).
  if (path == "/readyz" || path == "/metrics") {
    request->endpoint = path == "/readyz" ? Endpoint::kReady : Endpoint::kMetrics;
    return {};
  }
  if (actions) {
    request->endpoint = Endpoint::kActions;
    MHD_get_connection_values(
        connection, MHD_GET_ARGUMENT_KIND,
        [](void* into, MHD_ValueKind, const char* key, const char* value) {
          (*static_cast<std::map<std::string, std::string>*>(into))[key] = value ? value : "";
          return MHD_YES;
        },
        &request->query);
    return {};
  }
  // A body: refused at once when it says it is too large.
  int64_t length;
  const char* declared = Header(connection, MHD_HTTP_HEADER_CONTENT_LENGTH);
  if (declared != nullptr &&
      (!host::ParseNumber(declared, &length, 0, INT64_MAX, host::Radix::kDecimal) ||
       static_cast<uint64_t>(length) > config_.bodyMax))
    return Answer::Error(413, "the body may hold at most " + std::to_string(config_.bodyMax) +
                                  " bytes");
  // Alertmanager sends a notification again after a 5xx answer.
  if (events || alerts) {
    if (DispatcherBackPressure(*dispatcher_).heldForSeconds > config_.busyAfterSeconds) {
      Answer answer = Answer::Error(503, "events are held back: too many actions run");
      answer.headers.emplace_back(MHD_HTTP_HEADER_RETRY_AFTER, kRetryAfter);
      return answer;
    }
  }
  if (!login)
    request->endpoint = events ? Endpoint::kEvents : alerts ? Endpoint::kAlerts : Endpoint::kCommands;
  return {};
}

HttpServer::Answer HttpServer::Respond(const Request& request) {
  switch (request.endpoint) {
    case Request::Endpoint::kHealth:
      return Answer::Text(200, "ok\n");
    case Request::Endpoint::kReady: {
      std::string why;
      return metrics_->Ready(&why) ? Answer::Text(200, "ready\n")
                                   : Answer::Text(503, "not ready: " + why + "\n");
    }
    case Request::Endpoint::kMetrics: {
      Answer answer = Answer::Text(200, metrics_->Render(*dispatcher_, *relay_));
      answer.type = "text/plain; version=0.0.4; charset=utf-8";
      return answer;
    }
    case Request::Endpoint::kEvents:
      return Events(request.body);
    case Request::Endpoint::kCommands:
      return Command(request.body);
    case Request::Endpoint::kAlerts:
      return Alerts(request.body);
    case Request::Endpoint::kRules:
      return Rules();
    case Request::Endpoint::kFile:
      return Answer::Page(200, std::string(request.file), request.fileType);
    case Request::Endpoint::kLogin: {
      std::string token;
      if (config_.token.empty()) return Answer::SeeOther("");  // nothing to log in to
      if (!FormField(request.body, "token", &token) || !SameSecret(token, config_.token))
        return Answer::Page(401, LoginPage("That is not the token."), "text/html; charset=utf-8");
      std::string id = sessions_.Start();
      if (id.empty()) return Answer::Error(500, "no random bytes for a session");
      return Answer::SeeOther(Sessions::CookieHeader(id, !config_.cert.empty()));
    }
    case Request::Endpoint::kLogout:
      sessions_.End(request.session);
      return Answer::SeeOther(Sessions::CookieHeader("", !config_.cert.empty()));
    case Request::Endpoint::kActions: {
      Answer answer;
      answer.status = ActionsAnswer(request.query, &answer.body);
      return answer;
    }
  }
  return Answer::Error(500, "no endpoint");
}

HttpServer::Answer HttpServer::Events(const std::string& body) {
  std::vector<Dispatcher::Line> lines;
  Json refused = Json::array();
  size_t refusals = 0, number = 0;
  std::string_view rest(body);
  while (!rest.empty()) {
    size_t end = rest.find('\n');
    std::string_view text = rest.substr(0, end);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    ++number;
    if (text.ends_with('\r')) text.remove_suffix(1);
    // Longer lines are refused from an input file too.
    InputLine line = text.size() <= LineReader::kLineMax
                         ? ParseInputLine(text)
                         : InputLine{InputLine::Kind::kError, {}, "line too long", false};
    std::string reason;
    RefusalKind kind = RefusalKind::kOther;
    switch (line.kind) {
      case InputLine::Kind::kSkip:
        continue;
      case InputLine::Kind::kError:
        reason = line.text;
        kind = KindOfRefusal(reason);
        break;
      case InputLine::Kind::kEvent:
        if (!config_.allowAnyText) reason = CheckEventText(line.event);
        kind = RefusalKind::kText;
        break;
      default:
        reason = "not an event (commands, drains and reloads go to POST /v1/commands)";
        kind = RefusalKind::kNotEvent;
        break;
    }
    if (reason.empty()) {
      lines.push_back({std::move(line), static_cast<long>(number), {}});
      continue;
    }
    metrics_->Refused(SourceKind::kHttp, kind, 1);
    // As refusals from the other sources are, the first few of a body are
    // said on standard error too ("http 3: ..."); the answer lists more.
    if (refusals < kRefusedSaid) host::Say("qmtahost: ", "http " + std::to_string(number) + ": " + reason);
    if (++refusals <= kRefusedListed) refused.push_back({{"line", number}, {"reason", reason}});
  }
  if (refusals > 0) {
    metrics_->Refused(SourceKind::kHttp, RefusalKind::kWithBody, lines.size());
    dispatcher_->CountRefused(refusals + lines.size());
    if (refusals > kRefusedSaid)
      Say(std::to_string(refusals - kRefusedSaid) + " more refused line(s) in the same body");
    if (!lines.empty())
      Say(std::to_string(lines.size()) + " good line(s) of the same body refused with it");
    Answer answer;
    answer.status = 400;
    answer.body = Dump({{"error", std::to_string(refusals) + " of " +
                                      std::to_string(refusals + lines.size()) +
                                      " lines refused; nothing was taken"},
                        {"refused", std::move(refused)}});
    return answer;
  }
  if (lines.empty()) return Answer::Error(400, "no event in the body");
  const size_t count = lines.size();
  size_t taken = dispatcher_->SubmitLines(std::move(lines), "http");
  if (taken != count) return Answer::Error(503, "the host is stopping");
  Answer answer;
  answer.status = 202;
  answer.body = Dump({{"taken", taken}});
  return answer;
}

// The rules loaded, as the module's DISPLAY lists them (which also goes to
// standard output, as every command's answer does).
HttpServer::Answer HttpServer::Rules() {
  ControlReply reply = dispatcher_->Submit("DISPLAY", "http", true).get();
  if (!reply.ok) return Answer::Error(503, reply.error);
  Answer answer;
  answer.status = 200;
  answer.body = Dump(Json{{"lines", reply.output}});
  return answer;
}

HttpServer::Answer HttpServer::Command(const std::string& body) {
  std::string_view text(body);
  if (text.ends_with('\n')) text.remove_suffix(1);
  if (text.ends_with('\r')) text.remove_suffix(1);
  if (text.find('\n') != std::string_view::npos)
    return Answer::Error(400, "one line per request");
  InputLine line = ParseInputLine(text);
  if (line.kind == InputLine::Kind::kSkip) return Answer::Error(400, "no command in the body");
  if (line.kind == InputLine::Kind::kError) return Answer::Error(400, line.text);
  if (line.kind == InputLine::Kind::kEvent)
    return Answer::Error(400, "an event goes to POST /v1/events");
  ControlReply reply = dispatcher_->Submit(std::move(line), "http", true).get();
  Answer answer;
  answer.status = reply.ok ? 200 : reply.error == "the host is stopping" ? 503 : 409;
  answer.body = Dump({{"ok", reply.ok}, {"output", reply.output}, {"error", reply.error}});
  return answer;
}

// Each alert is answered for: delivered (queued as an event), unchanged (a
// re-send of the state last delivered) or refused (and why). 200 unless the
// body is not a notification (400) or the host stops (503): Alertmanager
// sends the notification again only after a 5xx answer.
HttpServer::Answer HttpServer::Alerts(const std::string& body) {
  auto submit = [&](std::vector<Alert*>& delivered) {
    std::vector<Dispatcher::Line> lines;
    lines.reserve(delivered.size());
    for (Alert* alert : delivered) {
      InputLine line;
      line.kind = InputLine::Kind::kEvent;
      line.event = alert->event;
      lines.push_back({std::move(line), static_cast<long>(alert->number), {}});
    }
    return dispatcher_->SubmitLines(std::move(lines), "alertmanager") == delivered.size();
  };
  AlertBatch batch = alerts_->Take(body, submit);
  if (!batch.error.empty()) {
    metrics_->Refused(SourceKind::kAlertmanager, KindOfRefusal(batch.error), 1);
    Say("alertmanager: notification refused: " + batch.error);
    return Answer::Error(400, batch.error);
  }
  Json delivered = Json::array(), unchanged = Json::array(), refused = Json::array();
  for (const Alert& alert : batch.alerts) {
    switch (alert.outcome) {
      case Alert::Outcome::kDelivered:
        delivered.push_back({{"fingerprint", alert.fingerprint},
                             {"sitname", alert.event.sitname},
                             {"currstate", alert.event.currstate},
                             {"prevstate", alert.event.prevstate}});
        break;
      case Alert::Outcome::kUnchanged:
        unchanged.push_back(alert.fingerprint);
        break;
      case Alert::Outcome::kRefused:
        metrics_->Refused(SourceKind::kAlertmanager, KindOfRefusal(alert.reason), 1);
        Say("alertmanager: alert " + std::to_string(alert.number) + " (fingerprint \"" +
            alert.fingerprint + "\") refused: " + alert.reason);
        refused.push_back({{"alert", alert.number},
                           {"fingerprint", alert.fingerprint},
                           {"reason", alert.reason}});
        break;
    }
  }
  metrics_->Alerts(batch.stopping ? 0 : delivered.size(), unchanged.size(), refused.size(),
                   alerts_->states());
  if (batch.stopping) return Answer::Error(503, "the host is stopping");
  Answer answer;
  answer.status = 200;
  answer.body = Dump({{"delivered", std::move(delivered)},
                      {"unchanged", std::move(unchanged)},
                      {"refused", std::move(refused)}});
  return answer;
}

}  // namespace qmta::hostprog
