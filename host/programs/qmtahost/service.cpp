#include "host/programs/qmtahost/service.h"

#include <fcntl.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "host/common/files.h"
#include "host/common/say.h"
#include "host/drivers/local/local.h"
#include "host/programs/qmtahost/control.h"
#include "host/programs/qmtahost/dispatcher.h"
#include "host/programs/qmtahost/journal.h"
#include "host/programs/qmtahost/linereader.h"
#include "host/programs/qmtahost/metrics.h"
#include "host/programs/qmtahost/outputrelay.h"
#include "host/programs/qmtahost/reload.h"
#include "host/programs/qmtahost/signals.h"
#include "host/services/actiontap.h"
#include "host/services/control.h"

namespace qmta::hostprog {
namespace {

using namespace std::chrono_literals;

void Say(const std::string& text) { host::Say("qmtahost: ", text); }

// Operator messages by id. Written by the relay thread, read by anyone.
class MessageCounts {
 public:
  void Add(std::string_view id) {
    int index = Index(id);
    if (index >= 0) counts_[index].fetch_add(1, std::memory_order_relaxed);
  }
  uint64_t operator[](std::string_view id) const {
    int index = Index(id);
    return index < 0 ? 0 : counts_[index].load(std::memory_order_relaxed);
  }

 private:
  // "QMTAnnnX" → nnn, "QMTALnnX" → 1000 + nn; -1 for anything else.
  static int Index(std::string_view id) {
    if (id.size() != 8) return -1;
    if (id[4] == 'L') return 1000 + (id[5] - '0') * 10 + (id[6] - '0');
    return (id[4] - '0') * 100 + (id[5] - '0') * 10 + (id[6] - '0');
  }
  std::array<std::atomic<uint64_t>, 1100> counts_{};
};

// Why and when the host stops. Any thread may ask; the main thread waits.
class Stop {
 public:
  // A stop asked for (a signal, a write error): exit with `status`.
  void Request(int status) {
    std::lock_guard<std::mutex> hold(mutex_);
    requested_ = true;
    status_ = std::max(status_, status);
    changed_.notify_all();
  }
  void InputEnded() {
    std::lock_guard<std::mutex> hold(mutex_);
    inputEnded_ = true;
    changed_.notify_all();
  }
  // Waits for either; true when the stop was asked for.
  bool Wait() {
    std::unique_lock<std::mutex> hold(mutex_);
    changed_.wait(hold, [&] { return requested_ || inputEnded_; });
    return requested_;
  }
  int status() {
    std::lock_guard<std::mutex> hold(mutex_);
    return status_;
  }

 private:
  std::mutex mutex_;  // guards the three below
  std::condition_variable changed_;
  bool requested_ = false, inputEnded_ = false;
  int status_ = 0;
};

ControlReply Reload(const Entries& entries, bool force, Metrics* metrics) {
  sd_notify(0, "RELOADING=1");
  ReloadOutcome outcome = ReloadFromInput(force, [&] { SendCommand(entries, "REFRESH"); });
  sd_notify(0, "READY=1");
  if (metrics != nullptr && outcome.refreshed)  // a forced reload counts nothing
    metrics->SetRules(force ? std::nullopt : std::optional<int64_t>(outcome.rules));
  ControlReply reply;
  reply.ok = outcome.refreshed;
  if (!reply.ok) reply.error = outcome.reason;
  return reply;
}

// The HTTP endpoint, once the rules the module loaded at start are counted
// (by the check a reload runs). False after saying why it cannot listen.
bool StartHttp(const HttpConfig& config, Metrics* metrics, HttpServer* server) {
  ReloadOutcome counted = CheckedReload(false, [] {});
  if (counted.rules >= 0) metrics->SetRules(counted.rules);
  std::string error;
  if (server->Start(config, &error)) return true;
  Say("http: " + error);
  return false;
}

// File mode: the lines of `input`, in order, until its end or a stop
// (`wake` readable, `stopping` set). Runs on a thread of its own.
void ReadInput(FILE* input, int wake, const std::atomic<bool>* stopping, Dispatcher* dispatcher,
               Stop* stop) {
  LineReader reader(fileno(input), wake);
  std::string text;
  bool tooLong;
  // The lines already read go on together, raw (the dispatcher parses
  // them); a line still to come from a pipe never waits for its batch.
  std::string batch;
  std::vector<long> cut;
  long first = 1;
  for (long number = 1; reader.Next(&text, &tooLong); ++number) {
    // A line cut short by the stop is not handed on.
    if (stopping->load()) return;
    if (batch.empty()) first = number;
    if (tooLong) cut.push_back(number);
    batch.append(text);
    batch += '\n';
    if (batch.size() >= (1 << 16) || !reader.buffered()) {
      dispatcher->SubmitText(std::move(batch), first, std::move(cut));
      batch.clear();
      cut.clear();
    }
  }
  if (!batch.empty()) dispatcher->SubmitText(std::move(batch), first, std::move(cut));
  if (reader.error() != 0) Say("error reading the input: " + host::ErrorText(reader.error()));
  stop->InputEnded();
}

std::string Summary(const DispatchCounts& dispatched, const MessageCounts& messages) {
  auto n = [](uint64_t value) { return std::to_string(value); };
  auto seconds = [](int64_t nanos) {
    char text[32];
    snprintf(text, sizeof text, "%.1f", static_cast<double>(nanos) / 1e9);
    return std::string(text);
  };
  return "stopped: " + n(dispatched.events.load()) + " events, " + n(messages["QMTA040I"]) +
         " actions (" + n(messages["QMTA050I"]) + " completed, " + n(messages["QMTA051W"]) +
         " offline, " + n(messages["QMTA042E"]) + " no response, " +
         n(messages["QMTA030E"] + messages["QMTA002E"]) + " errors), " +
         n(dispatched.refused.load()) + " lines refused, " + n(dispatched.heldBack.load()) +
         " events held back for " + seconds(dispatched.heldBackNanos.load()) + " s, peak " +
         n(host::PeakLiveActions()) + " live actions";
}

}  // namespace

int RunService(const Entries& entries, const ServiceSettings& settings) {
  if (settings.stdoutClosed) {
    Say("standard output is closed");
    return 1;
  }
  Stop stop;
  MessageCounts messages;
  OutputRelay relay;
  relay.AddListener({[&](const OutputRelay::Message& message) { messages.Add(message.id); }, {}});
  // What the HTTP endpoint reports, counted only when there is one.
  const bool http = settings.serve && settings.http.enabled;
  Metrics metrics;
  if (http) relay.AddListener(metrics.RelayListener());
  relay.onWriteError = [&](int error) {
    Say("standard output: " + host::ErrorText(error) + "; stopping");
    stop.Request(1);
  };
  // The journal, when there is one: a journal that cannot be opened is
  // said and the host runs without it.
  std::shared_ptr<Journal> journal;
  if (!settings.journal.empty()) {
    JournalSettings given;
    given.path = settings.journal;
    given.keep = settings.journalKeep;
    std::string reason;
    journal = Journal::Open(given, &reason);
    if (!journal) Say("journal off: " + reason);
  }
  if (journal) {
    journal->AttachRelay(&relay);
    host::SetActionObserver(journal);
    SetActiveJournal(journal);
  }
  ModuleCalls calls;
  calls.event = [&](const Event& event) {
    if (!journal) return (void)SendEvent(entries, event);
    uint64_t id = journal->EventBegin(event);
    journal->EventEnd(id, event, SendEvent(entries, event));
  };
  calls.command = [&](const std::string& text) { SendCommand(entries, text); };
  calls.drain = [] { Drain(); };
  calls.reload = [&](bool force) { return Reload(entries, force, http ? &metrics : nullptr); };
  calls.startedActions = [] { return host::StartedActions(); };
  calls.liveActions = [] { return host::LiveActions(); };
  calls.waitActionsBelow = [](int64_t limit, std::chrono::milliseconds timeout) {
    return host::WaitForActionsBelow(limit, timeout);
  };
  Dispatcher dispatcher(std::move(calls), &relay);
  dispatcher.AllowAnyText(settings.allowAnyText);
  dispatcher.SetMaxActions(settings.maxActions);
  if (http) dispatcher.SetIntakeListener(metrics.IntakeListener());

  std::string error;
  if (!relay.Start(&error)) {
    Say(error);
    return 1;
  }
  if (settings.init) Initialise(entries.init);
  std::thread dispatch([&] { dispatcher.Run(); });

  // Read by the input thread: readable once the stop has begun.
  int wake[2] = {-1, -1};
  if (pipe2(wake, O_CLOEXEC) != 0) wake[0] = wake[1] = -1;
  SignalThread signals({
      [&] { dispatcher.Submit("{\"reload\": true}", "SIGHUP", false); },
      [&] { stop.Request(0); },
      [&] {
        Say("stopping at once: ending " + std::to_string(host::EndAllPrograms()) +
            " action programs");
        _exit(1);
      },
  });

  ControlServer control;
  JetStreamIntake intake;
  ActionProgress progress{[] { return host::StartedActions(); },
                          [&] { return relay.commandsWritten(); }};
  if (settings.events.enabled() &&
      !intake.Start(settings.events, &dispatcher, std::move(progress), &error)) {
    Say(error);
    stop.Request(1);
  }
  HttpServer httpServer(&dispatcher, &metrics, &relay);
  std::thread reader;
  std::atomic<bool> stopping{false};
  if (settings.serve) {
    if (!control.Start(settings.controlPath,
                       [&](const std::string& line) {
                         return dispatcher.Submit(line, "control", true).get();
                       },
                       &error)) {
      Say(error);
      stop.Request(1);
    } else if (http && !StartHttp(settings.http, &metrics, &httpServer)) {
      stop.Request(1);
    } else {
      sd_notify(0, "READY=1");
    }
  } else {
    reader = std::thread(ReadInput, settings.input, wake[0], &stopping, &dispatcher, &stop);
  }

  const bool asked = stop.Wait();
  sd_notify(0, "STOPPING=1");
  // Asked to stop: what is queued is not started. At the end of the input
  // it all runs first. The input reader, if it still reads, stops at its
  // next line (or at once, when it waits for input or for queue room).
  stopping = true;
  if (wake[1] >= 0) (void)!write(wake[1], "", 1);
  intake.StopFetching();
  if (size_t dropped = dispatcher.Close(asked))
    Say(std::to_string(dropped) + " queued lines not run: the host is stopping");
  if (reader.joinable()) reader.join();
  dispatch.join();
  // Handled events acknowledged, dropped ones given back for another host.
  intake.Finish();
  control.Stop();
  httpServer.Stop();

  if (!host::WaitForActions(settings.outcomeLimit))
    Say("actions still without an outcome after " +
        std::to_string(settings.outcomeLimit.count()) + " s");
  // A given-up action's program is ended by its driver (TERM, then KILL a
  // second later); whatever still runs after that is ended here.
  if (!host::WaitForLocalRunners(3s)) {
    Say("ending " + std::to_string(host::EndAllPrograms()) + " action programs still running");
    host::WaitForLocalRunners(5s);
  }
  relay.Stop();
  if (journal) {  // what is queued is committed before the summary
    host::SetActionObserver(nullptr);
    SetActiveJournal(nullptr);
    journal.reset();
  }
  Say(Summary(dispatcher.counts(), messages));
  for (int fd : wake)
    if (fd >= 0) close(fd);
  return stop.status();
}

}  // namespace qmta::hostprog
