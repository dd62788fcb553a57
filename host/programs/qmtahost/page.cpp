#include "host/programs/qmtahost/page.h"

#include <stdarg.h>
#include <stdint.h>
#include <sys/random.h>
#include <sys/socket.h>

#include <microhttpd.h>

#include <algorithm>

#include "generated/pagefiles.h"

namespace qmta::hostprog {

bool PageFile(std::string_view path, std::string_view* content, const char** type) {
  if (path == "/") {
    *content = pagefiles::kIndexHtml;
    *type = "text/html; charset=utf-8";
  } else if (path == "/page.js") {
    *content = pagefiles::kPageJs;
    *type = "text/javascript; charset=utf-8";
  } else if (path == "/page.css") {
    *content = pagefiles::kPageCss;
    *type = "text/css; charset=utf-8";
  } else {
    return false;
  }
  return true;
}

std::string LoginPage(std::string_view message) {
  std::string page(pagefiles::kLoginHtml);
  const std::string_view mark = "<!--MESSAGE-->";
  size_t at = page.find(mark);
  if (at != std::string::npos) page.replace(at, mark.size(), message);
  return page;
}

bool FormField(std::string_view body, std::string_view name, std::string* value) {
  while (!body.empty()) {
    size_t end = body.find('&');
    std::string_view pair = body.substr(0, end);
    body.remove_prefix(end == std::string_view::npos ? body.size() : end + 1);
    size_t equals = pair.find('=');
    if (pair.substr(0, equals) != name) continue;
    std::string_view encoded = equals == std::string_view::npos ? "" : pair.substr(equals + 1);
    // The library decodes %XX; '+' stands for a blank in a form.
    value->assign(encoded);
    std::replace(value->begin(), value->end(), '+', ' ');
    value->resize(MHD_http_unescape(value->data()));
    return true;
  }
  return false;
}

std::string Sessions::Start() {
  unsigned char bytes[32];
  size_t got = 0;
  while (got < sizeof bytes) {
    ssize_t n = getrandom(bytes + got, sizeof bytes - got, 0);
    if (n <= 0) return "";
    got += static_cast<size_t>(n);
  }
  static const char kHex[] = "0123456789abcdef";
  std::string id;
  for (unsigned char byte : bytes) {
    id += kHex[byte >> 4];
    id += kHex[byte & 15];
  }
  const auto now = Clock::now();
  std::lock_guard<std::mutex> lock(mutex_);
  std::erase_if(expiry_, [now](const auto& one) { return one.second <= now; });
  if (expiry_.size() >= kMax) {
    auto oldest = std::min_element(expiry_.begin(), expiry_.end(),
                                   [](const auto& a, const auto& b) { return a.second < b.second; });
    expiry_.erase(oldest);
  }
  expiry_.emplace(id, now + kLifetime);
  return id;
}

bool Sessions::Valid(std::string_view id) {
  if (id.empty()) return false;
  std::lock_guard<std::mutex> lock(mutex_);
  auto found = expiry_.find(id);
  if (found == expiry_.end()) return false;
  if (found->second > Clock::now()) return true;
  expiry_.erase(found);
  return false;
}

void Sessions::End(std::string_view id) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto found = expiry_.find(id);
  if (found != expiry_.end()) expiry_.erase(found);
}

std::string Sessions::CookieHeader(const std::string& id, bool secure) {
  std::string header = std::string(kCookie) + "=" + id + "; Path=/; HttpOnly; SameSite=Strict";
  header += id.empty() ? "; Max-Age=0" : "; Max-Age=" + std::to_string(
                                                 std::chrono::seconds(kLifetime).count());
  if (secure) header += "; Secure";
  return header;
}

}  // namespace qmta::hostprog
