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
//
// Version 2 adds, without changing these bodies (so that either side of
// version 1 still works with the other):
//   - the request header "Qmta-Time-Left: <ms>", the time the host still
//     waits for the answer when it sends the request (relative, since the
//     two machines' clocks may differ); without it an agent allows 60 s;
//   - the cancel message (host to agent), published on the node's cancel
//     subject "<node subject>.cancel" when the host stops waiting:
//       QMTA1 CANCEL <id> <reply subject of the request>
//   - the reply status kStatusQueueFull.
// Version 3 adds the program's output to the answer, for the host's action
// journal, again so that either side of an earlier version still works:
//   - the request header "Qmta-Output: <bytes>": the host takes up to that
//     much output (1 to kOutputMax) with the answer; an older host sends no
//     such header and gets the replies above;
//   - an agent of version 3 that got the header adds, after the reply line
//     and a line end, the detail of the program's end:
//       QMTA1 OUTPUT <exit status> <signal> <cut> <length>\n<output>
//     (exit status -1 when there is none, signal 0 when none ended it, cut
//     1 when the program printed more than the output holds); a reply
//     without it (an older agent) still decodes.
// A change that an older side could misread would change "QMTA1".
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
// The header of a request that carries its time left, in milliseconds
// (0 to kTimeLeftMax), and the time an agent allows a request without it:
// the module's own wait.
constexpr const char* kTimeLeftHeader = "Qmta-Time-Left";
constexpr int64_t kTimeLeftMax = 86400000;
constexpr int64_t kTimeLeftDefault = 60000;
// The reply status of an agent whose queue for the node is full.
constexpr int32_t kStatusQueueFull = 2021;
// Longest reply subject a cancel names.
constexpr size_t kReplySubjectMax = 255;
// The request header that asks for the program's output with the answer
// (version 3), and the most output a reply may carry.
constexpr const char* kOutputHeader = "Qmta-Output";
constexpr size_t kOutputMax = 64 * 1024;

std::string NodeSubject(std::string_view node);
// The subject of the node's cancel messages: its subject and ".cancel"
// (never a node's subject, which has no further dot).
std::string CancelSubject(std::string_view node);
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
  // Version 3: how the program ended, sent when the request asked for it.
  bool hasDetail = false;
  int32_t exitStatus = -1;
  int32_t signal = 0;
  bool outputCut = false;
  std::string output = {};  // at most kOutputMax bytes
};

struct Cancel {
  uint32_t id = 0;
  std::string reply;  // the reply subject of the request: no blank, no control byte
};

std::string EncodeRequest(const Request& request);
std::string EncodeReply(const Reply& reply);
std::string EncodeCancel(const Cancel& cancel);
// False, with `*error` set, for anything that is not exactly one message of
// the format above.
bool DecodeRequest(std::string_view data, Request* request, std::string* error);
bool DecodeReply(std::string_view data, Reply* reply, std::string* error);
bool DecodeCancel(std::string_view data, Cancel* cancel, std::string* error);
// The value of a kTimeLeftHeader header; false for anything but a number
// of milliseconds from 0 to kTimeLeftMax.
bool DecodeTimeLeft(std::string_view text, int64_t* milliseconds);
// The value of a kOutputHeader header; false for anything but a number of
// bytes from 1 to kOutputMax.
bool DecodeOutputWanted(std::string_view text, size_t* bytes);

}  // namespace qmta::host::wire

#endif  // HOST_DRIVERS_NATS_WIRE_H_
