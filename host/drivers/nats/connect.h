// How the nats driver and qmtaagent reach the NATS server: URL, TLS and
// credentials, shared by both so that they accept the same settings.
#ifndef HOST_DRIVERS_NATS_CONNECT_H_
#define HOST_DRIVERS_NATS_CONNECT_H_

#include <nats/nats.h>

#include <string>
#include <string_view>

namespace qmta::host::natsconn {

struct Settings {
  std::string url;           // nats://HOST:PORT or tls://HOST:PORT, comma-separated for a cluster
  std::string tlsCa;         // PEM file of the CAs that sign the server's certificate
  std::string tlsCert;       // client certificate (PEM) ...
  std::string tlsKey;        // ... and its key, for servers that verify clients
  std::string user;          // user name, with the password read from passwordFile
  std::string passwordFile;
  std::string creds;         // credentials file (JWT and NKey private key)
  int reconnectWaitMs = 1000;
  bool insecure = false;     // connecting without client credentials is allowed
  std::string name;          // connection name shown by the server
};

// Sets one setting by its key ("url", "tls-ca", "tls-cert", "tls-key",
// "user", "password-file", "creds", "reconnect-wait"). False
// with `*error` set for an unknown key, a repeated key or a bad value.
bool Set(std::string_view key, std::string_view value, Settings* settings, std::string* error);

// Checks that the settings go together (a URL, certificate with key, user
// with password file, at most one kind of credentials) and that they hold
// client credentials unless `insecure` is set: server-side TLS alone still
// lets any client of the server answer for any node. The refusal names
// `insecure`, the caller's spelling of the option that allows it, and says
// what a connection without them would allow (`risk`).
bool Check(const Settings& settings, std::string* error, std::string_view insecure,
           std::string_view risk = "any client of the server can answer for any node");

// What the client library calls back on its own threads about one
// connection, each with `closure`.
struct Callbacks {
  natsConnectionHandler connected = nullptr;  // the first connection, made late
  natsConnectionHandler disconnected = nullptr;
  natsConnectionHandler reconnected = nullptr;
  natsConnectionHandler closed = nullptr;
  natsErrHandler error = nullptr;
  void* closure = nullptr;
};

// Client options for `settings`: TLS files loaded, credentials set, endless
// reconnection, a first connection retried in the background, and
// `callbacks`. Null, with `*error` set, when a file cannot be used. The
// caller destroys the options.
natsOptions* MakeOptions(const Settings& settings, const Callbacks& callbacks,
                         std::string* error);

// The text of a client status, for messages.
std::string StatusText(natsStatus status);

}  // namespace qmta::host::natsconn

#endif  // HOST_DRIVERS_NATS_CONNECT_H_
