// What the host and its remote agents say to each other over NATS.
//
// Subjects. Each destination node has one subject, "qmta.node." followed by
// the node name with every byte outside [A-Za-z0-9-] written as '_' and two
// upper-case hex digits ("web1:LZ" is "qmta.node.web1_3ALZ"); the empty
// name is "qmta.node._". The mapping is one to one, so two nodes never share
// a subject, and the result holds only characters that every NATS subject
// token may hold.
//
// Request (host to agent), a header line and two byte strings:
//   QMTA1 REQ <id> <calltype> <node length> <command length>\n<node><command>
// Reply (agent to host), one line without a line end:
//   QMTA1 RC <id> [<code> ...]     one result row per return code
//   QMTA1 STATUS <id> <status>     the open failed with a query status
// Numbers are decimal; <id> is the request id (0 to 4294967295), codes,
// call types and statuses are signed 32-bit. The strings are bytes, taken
// as they are (no escaping, any byte but NUL allowed).
#ifndef HOST_DRIVERS_NATS_WIRE_H_
#define HOST_DRIVERS_NATS_WIRE_H_

#include <stdint.h>

#include <string>
#include <string_view>
#include <vector>

namespace qmta::host::wire {

constexpr std::string_view kSubjectPrefix = "qmta.node.";
// Longest node name and command carried.
constexpr size_t kNodeMax = 1024;
constexpr size_t kCommandMax = 32767;
// Most return codes in one reply.
constexpr size_t kCodesMax = 4096;

std::string NodeSubject(std::string_view node);
// The node of a subject made by NodeSubject; false for any other text.
bool SubjectNode(std::string_view subject, std::string* node);

struct Request {
  uint32_t id = 0;
  int32_t callType = 0;
  std::string node;
  std::string command;
};

struct Reply {
  uint32_t id = 0;
  bool failed = false;  // true: `status`; false: `codes`
  int32_t status = 0;
  std::vector<int32_t> codes;
};

std::string EncodeRequest(const Request& request);
std::string EncodeReply(const Reply& reply);
// False, with `*error` set, for anything that is not exactly one message of
// the format above.
bool DecodeRequest(std::string_view data, Request* request, std::string* error);
bool DecodeReply(std::string_view data, Reply* reply, std::string* error);

}  // namespace qmta::host::wire

#endif  // HOST_DRIVERS_NATS_WIRE_H_
