// The "nats" destination driver: sends each action to the qmtaagent that
// serves the destination node, through a NATS server, and completes the
// open with the agent's reply (see host/drivers/nats/wire.h for the subjects and the
// messages).
//
//   PATTERN nats url=nats://HOST:PORT[,nats://HOST:PORT...] [tls-ca=FILE]
//                [tls-cert=FILE tls-key=FILE] [user=NAME password-file=FILE]
//                [creds=FILE] [reconnect-wait=MS]
//
// Outcomes: the agent's return codes as rows, or its status; no agent
// serving the node ("no responders") completes at once with
// DBQ1_DEST_OFFLINE; losing the connection to the server completes every
// request then waiting with DBQ1_DEST_OFFLINE (whether the action ran is
// unknown); a reply the host cannot read completes with DBQ1_ACTION_FAILED.
// An agent that never answers leaves the open to the module's own time-out.
// A reply that comes after the module closed the request is dropped.
#ifndef HOST_DRIVERS_NATS_DRIVER_H_
#define HOST_DRIVERS_NATS_DRIVER_H_

#include "host/drivers/driver.h"

namespace qmta::host {

// The factory to register as "nats". Each destination line gets a
// connection of its own; a server that cannot be reached yet is retried in
// the background.
DriverFactory NatsDriverFactory();

}  // namespace qmta::host

#endif  // HOST_DRIVERS_NATS_DRIVER_H_
