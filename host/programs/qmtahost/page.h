// The operator page of `qmtahost serve` (GET / on the HTTP server): its
// files, built into the program from host/programs/qmtahost/page/, and the
// browser sessions that let a person who knows the token look at it.
//
// A browser cannot send a bearer header when it navigates, so POST /login
// with the form field `token` starts a session: a random 256-bit id in a
// cookie (HttpOnly, SameSite=Strict, Secure under TLS) that GET requests
// carry. A session reads only: it never authorizes a POST. Sessions live
// in memory, 12 hours each, at most kMax at once (the oldest goes first);
// a restart ends them all.
//
// Threads: any HTTP connection thread; Sessions' map is guarded by mutex_.
#ifndef HOST_PROGRAMS_QMTAHOST_PAGE_H_
#define HOST_PROGRAMS_QMTAHOST_PAGE_H_

#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

namespace qmta::hostprog {

// A file of the page by its path ("/", "/page.js", "/page.css"), with its
// content type; false when there is none.
bool PageFile(std::string_view path, std::string_view* content, const char** type);

// The login form, with a fixed message (never text a request controls).
std::string LoginPage(std::string_view message);

// The value of field `name` of an application/x-www-form-urlencoded body,
// decoded; false when the body has no such field.
bool FormField(std::string_view body, std::string_view name, std::string* value);

class Sessions {
 public:
  static constexpr size_t kMax = 1000;
  static constexpr std::chrono::hours kLifetime{12};
  static constexpr const char* kCookie = "qmta_session";

  // A new session's id; "" when no random bytes could be had.
  std::string Start();
  bool Valid(std::string_view id);
  void End(std::string_view id);
  // The Set-Cookie header's value for `id` ("" ends the cookie).
  static std::string CookieHeader(const std::string& id, bool secure);

 private:
  using Clock = std::chrono::steady_clock;
  // Guards expiry_: taken by any connection thread that starts, checks or
  // ends a session.
  std::mutex mutex_;
  std::map<std::string, Clock::time_point, std::less<>> expiry_;  // id -> end
};

}  // namespace qmta::hostprog

#endif  // HOST_PROGRAMS_QMTAHOST_PAGE_H_
