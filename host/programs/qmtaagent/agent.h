// qmtaagent's agent: one connection to the NATS server, a subscription per
// served node, and the local driver that runs each request's program. The
// client library's callbacks refer to it, so it lives as long as the
// connection: until Close, or to the end of the process.
//
// Threads: the client library delivers the requests of each node on a
// thread of its own (Handle); the local driver runs every program on its
// runner threads and answers from there (Publish); the client library's
// callbacks report on the connection. The main thread connects, serves,
// and at the end stops and closes.
#ifndef HOST_PROGRAMS_QMTAAGENT_AGENT_H_
#define HOST_PROGRAMS_QMTAAGENT_AGENT_H_

#include <nats/nats.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "host/drivers/driver.h"
#include "host/drivers/nats/connect.h"

namespace qmta::agent {

class Request;

class Agent {
 public:
  // Runs the programs with `driver` (a local driver).
  explicit Agent(std::unique_ptr<host::Driver> driver);
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  // Connects (or keeps trying in the background when the server cannot be
  // reached yet). 0, or the exit status after saying why.
  int Connect(const host::natsconn::Settings& settings);
  // Takes the requests of `node` from now on. False after saying why.
  bool Serve(const std::string& node);
  // Takes no request from now on and reports no loss of the connection;
  // the requests still running are answered offline and their programs
  // ended. The answers are flushed.
  void Stop();
  // After Stop: waits for the programs' runners, then closes and frees the
  // connection and the client library.
  void Close();

  // For the client library's threads: one request of `node`, and the
  // answer to one.
  void Handle(const std::string& node, const std::string& subject, natsMsg* message);
  void Publish(const std::string& subject, const std::string& data,
               const std::shared_ptr<Request>& request);
  bool stopping() const { return stopping_.load(); }

  // One served node; its address is its subscription's closure.
  struct Served;

 private:
  natsConnection* connection_ = nullptr;
  std::unique_ptr<host::Driver> driver_;
  std::vector<std::unique_ptr<Served>> served_;  // main thread only

  // Guards open_, and the move of stopping_ to true: taken by the client
  // library's threads taking a request (Handle), by the runner threads
  // publishing an answer (Publish) and by the main thread stopping (Stop),
  // so that every request is either refused or among those Stop ends.
  std::mutex mutex_;
  std::atomic<bool> stopping_{false};
  std::set<std::shared_ptr<Request>> open_;
};

}  // namespace qmta::agent

#endif  // HOST_PROGRAMS_QMTAAGENT_AGENT_H_
