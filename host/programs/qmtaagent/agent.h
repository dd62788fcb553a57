// qmtaagent's agent: one connection to the NATS server, two subscriptions
// per served node (its requests, in the agents' queue group, and its
// cancels), a bounded queue per node, and the local driver that runs each
// request's program. The client library's callbacks refer to it, so it
// lives as long as the connection: until Close, or to the end of the
// process.
//
// A request is started when its node runs fewer than `maxRunning`
// programs, else it waits in the node's queue of at most `queue`
// requests; beyond that it is answered at once with
// wire::kStatusQueueFull. A request is never started once its time left
// has run out: it is then dropped, logged and not answered (the host has
// stopped waiting). A cancel from the host ends its program, or takes it
// out of the queue, and nothing is answered.
//
// Threads: the client library delivers the requests and cancels of each
// node on a thread of its own (Handle, HandleCancel); the local driver runs
// every program on its runner threads and reports its end there (Request,
// Finished), which also starts the next waiting request of the node; the
// client library's callbacks report on the connection. The main thread
// connects, serves, and at the end stops and closes.
#ifndef HOST_PROGRAMS_QMTAAGENT_AGENT_H_
#define HOST_PROGRAMS_QMTAAGENT_AGENT_H_

#include <nats/nats.h>

#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host/drivers/driver.h"
#include "host/drivers/nats/connect.h"

namespace qmta::agent {

class Request;

class Agent {
 public:
  // Runs the programs with `driver` (a local driver), at most `maxRunning`
  // at once per node, with at most `queue` more waiting per node.
  Agent(std::unique_ptr<host::Driver> driver, int maxRunning, int queue);
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  // Connects. With `retry`, keeps trying in the background when the
  // server cannot be reached yet; without, that is a failure. 0, or the
  // exit status after saying why.
  int Connect(const host::natsconn::Settings& settings, bool retry);
  // Subscribes to the requests and cancels of `node`. False after saying
  // why.
  bool Serve(const std::string& node);
  // After Serve: when connected, has the server confirm the subscriptions
  // (a round trip), then says what the agent serves; `check` words it as a
  // check's result. 0, or the exit status after saying why: 3 when the
  // server refused a subscription (its permissions), 1 when it did not
  // answer. From then on a refusal (after a reconnection) stops the agent
  // with status 3.
  int Confirm(bool check);
  // Takes no request from now on and reports no loss of the connection;
  // the requests still running or waiting are answered offline and their
  // programs ended. The answers are flushed.
  void Stop();
  // After Stop: waits for the programs' runners, then closes and frees the
  // connection and the client library.
  void Close();

  // One served node; its address is its subscriptions' closure.
  struct Served;

  // For the client library's threads: one request or cancel of `served`;
  // a server error that refuses a subscription.
  void Handle(Served& served, natsMsg* message);
  void HandleCancel(Served& served, natsMsg* message);
  void Refused();
  // For Request: publishes an answer; a started request's program is over
  // (its place goes to the next waiting request).
  void Publish(const std::string& subject, const std::string& data);
  void Finished(const std::shared_ptr<Request>& request);
  bool stopping() const { return stopping_.load(); }

 private:
  natsConnection* connection_ = nullptr;
  std::unique_ptr<host::Driver> driver_;
  const int maxRunning_;
  const size_t queue_;
  std::vector<std::unique_ptr<Served>> served_;  // main thread only

  // Guards open_, confirmed_, each Served's queue and counts, and the move
  // of stopping_ to true: taken by the client library's threads taking a
  // request or a cancel, by the runner threads reporting a program's end
  // (Finished) and by the main thread confirming and stopping, so that
  // every request is either refused or among those Stop answers.
  std::mutex mutex_;
  std::atomic<bool> stopping_{false};
  bool confirmed_ = false;
  // Requests started or waiting, by their reply subject (each request of
  // the host has its own).
  std::map<std::string, std::shared_ptr<Request>> open_;
};

}  // namespace qmta::agent

#endif  // HOST_PROGRAMS_QMTAAGENT_AGENT_H_
