// `qmtahost send`: publishes events to the JetStream stream that serving
// hosts take them from (see jetstream.h), each one acknowledged by the
// server, so that a monitoring system's event handler can feed the hosts
// with one command.
#ifndef HOST_PROGRAMS_QMTAHOST_SEND_H_
#define HOST_PROGRAMS_QMTAHOST_SEND_H_

namespace qmta::hostprog {

// argv[0] is "send". Exit status: 0 when the server acknowledged every
// event, 1 when one was refused (not an event) or not acknowledged (the
// others are still sent), 2 for a usage error.
int RunSend(int argc, char** argv);

}  // namespace qmta::hostprog

#endif  // HOST_PROGRAMS_QMTAHOST_SEND_H_
