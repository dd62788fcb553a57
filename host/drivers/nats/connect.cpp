#include "host/drivers/nats/connect.h"

#include <openssl/crypto.h>

#include "host/common/files.h"
#include "host/common/number.h"

#include <sstream>
#include <vector>

namespace qmta::host::natsconn {
namespace {

bool ReadSecret(const std::string& path, std::string* text, std::string* error) {
  if (!ReadFile(path, text)) {
    *error = "cannot read " + path;
    return false;
  }
  while (!text->empty() && (text->back() == '\n' || text->back() == '\r')) text->pop_back();
  if (text->empty()) {
    *error = path + " is empty";
    return false;
  }
  return true;
}

}  // namespace

bool Set(std::string_view key, std::string_view value, Settings* settings, std::string* error) {
  std::string* field = nullptr;
  if (key == "url") field = &settings->url;
  else if (key == "tls-ca") field = &settings->tlsCa;
  else if (key == "tls-cert") field = &settings->tlsCert;
  else if (key == "tls-key") field = &settings->tlsKey;
  else if (key == "user") field = &settings->user;
  else if (key == "password-file") field = &settings->passwordFile;
  else if (key == "creds") field = &settings->creds;
  if (field) {
    if (!field->empty()) {
      *error = std::string(key) + " given twice";
      return false;
    }
    if (value.empty() || value.find('\0') != std::string_view::npos) {
      *error = std::string(key) + " needs a value";
      return false;
    }
    field->assign(value);
    return true;
  }
  if (key == "reconnect-wait") {
    int ms = 0;
    if (!ParseNumber(value, &ms, 10, 60000)) {
      *error = "bad reconnect-wait \"" + std::string(value) + "\" (10 to 60000 ms)";
      return false;
    }
    settings->reconnectWaitMs = ms;
    return true;
  }
  *error = "unknown setting \"" + std::string(key) + "\"";
  return false;
}

bool Check(const Settings& settings, std::string* error, std::string_view insecure,
           std::string_view risk) {
  if (settings.url.empty()) {
    *error = "no url";
    return false;
  }
  if (settings.url.find("://") == std::string::npos) {
    *error = "url must look like nats://HOST:PORT or tls://HOST:PORT";
    return false;
  }
  if (settings.tlsCert.empty() != settings.tlsKey.empty()) {
    *error = "tls-cert and tls-key go together";
    return false;
  }
  if (settings.user.empty() != settings.passwordFile.empty()) {
    *error = "user and password-file go together";
    return false;
  }
  if (!settings.user.empty() && !settings.creds.empty()) {
    *error = "give either user/password-file or creds";
    return false;
  }
  if (settings.user.empty() && settings.creds.empty() && settings.tlsCert.empty() &&
      !settings.insecure) {
    *error = "no client credentials (user and password-file, creds, or tls-cert and tls-key): "
             "without them " + std::string(risk) + "; " + std::string(insecure) + " connects without";
    return false;
  }
  return true;
}

namespace {

// Each of these sets part of `options` and returns what went wrong, or
// nothing.

std::string SetServers(natsOptions* options, const Settings& settings) {
  // A comma-separated list names the servers of a cluster.
  std::vector<std::string> urls;
  std::stringstream list(settings.url);
  for (std::string url; std::getline(list, url, ',');)
    if (!url.empty()) urls.push_back(url);
  std::vector<const char*> pointers;
  for (auto& url : urls) pointers.push_back(url.c_str());
  natsStatus s =
      natsOptions_SetServers(options, pointers.data(), static_cast<int>(pointers.size()));
  return s == NATS_OK ? "" : "bad url \"" + settings.url + "\": " + StatusText(s);
}

// Endless reconnection at a steady pace, pings that notice a dead server
// within about 15 seconds, no shuffling of a cluster's servers.
void SetBehaviour(natsOptions* options, const Settings& settings) {
  if (!settings.name.empty()) natsOptions_SetName(options, settings.name.c_str());
  natsOptions_SetNoRandomize(options, true);
  natsOptions_SetAllowReconnect(options, true);
  natsOptions_SetMaxReconnect(options, -1);
  natsOptions_SetReconnectWait(options, settings.reconnectWaitMs);
  natsOptions_SetReconnectJitter(options, 0, 0);
  natsOptions_SetTimeout(options, 2000);
  natsOptions_SetPingInterval(options, 5000);
  natsOptions_SetMaxPingsOut(options, 2);
}

std::string SetTls(natsOptions* options, const Settings& settings) {
  bool tls = settings.url.find("tls://") != std::string::npos || !settings.tlsCa.empty() ||
             !settings.tlsCert.empty();
  if (!tls) return "";
  natsStatus s = natsOptions_SetSecure(options, true);
  if (s != NATS_OK) return "TLS is not available: " + StatusText(s);
  if (!settings.tlsCa.empty() &&
      (s = natsOptions_LoadCATrustedCertificates(options, settings.tlsCa.c_str())) != NATS_OK)
    return "cannot load " + settings.tlsCa + ": " + StatusText(s);
  if (!settings.tlsCert.empty() &&
      (s = natsOptions_LoadCertificatesChain(options, settings.tlsCert.c_str(),
                                             settings.tlsKey.c_str())) != NATS_OK)
    return "cannot load " + settings.tlsCert + " and " + settings.tlsKey + ": " + StatusText(s);
  return "";
}

std::string SetCredentials(natsOptions* options, const Settings& settings) {
  natsStatus s;
  if (!settings.user.empty()) {
    std::string password, error;
    if (!ReadSecret(settings.passwordFile, &password, &error)) return error;
    s = natsOptions_SetUserInfo(options, settings.user.c_str(), password.c_str());
    if (s != NATS_OK) return "bad user: " + StatusText(s);
  }
  if (!settings.creds.empty() &&
      (s = natsOptions_SetUserCredentialsFromFiles(options, settings.creds.c_str(), nullptr)) !=
          NATS_OK)
    return "cannot use " + settings.creds + ": " + StatusText(s);
  return "";
}

void SetCallbacks(natsOptions* options, const Callbacks& callbacks) {
  natsOptions_SetDisconnectedCB(options, callbacks.disconnected, callbacks.closure);
  natsOptions_SetReconnectedCB(options, callbacks.reconnected, callbacks.closure);
  natsOptions_SetClosedCB(options, callbacks.closed, callbacks.closure);
  natsOptions_SetErrorHandler(options, callbacks.error, callbacks.closure);
  natsOptions_SetRetryOnFailedConnect(options, true, callbacks.connected, callbacks.closure);
}

}  // namespace

natsOptions* MakeOptions(const Settings& settings, const Callbacks& callbacks,
                         std::string* error) {
  // OpenSSL, started by the client library, would otherwise free its state
  // from an exit handler, before static objects holding connections are
  // destroyed: a TLS connection still reading then crashes the process.
  // This first initialisation (options come before any connection) keeps
  // that state until the process is gone.
  static const bool kept = OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr) == 1;
  (void)kept;
  natsOptions* options = nullptr;
  if (natsOptions_Create(&options) != NATS_OK) {
    *error = "cannot create client options";
    return nullptr;
  }
  std::string failure = SetServers(options, settings);
  if (failure.empty()) {
    SetBehaviour(options, settings);
    failure = SetTls(options, settings);
  }
  if (failure.empty()) failure = SetCredentials(options, settings);
  if (!failure.empty()) {
    *error = failure;
    natsOptions_Destroy(options);
    return nullptr;
  }
  SetCallbacks(options, callbacks);
  return options;
}

std::string StatusText(natsStatus status) {
  const char* text = natsStatus_GetText(status);
  return text ? text : "status " + std::to_string(static_cast<int>(status));
}

}  // namespace qmta::host::natsconn
