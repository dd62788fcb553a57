// Fuzz target: what a remote agent and the host read from the network,
// the request, reply and cancel messages and the node subjects. A message
// that decodes encodes to one that decodes the same; a subject that names a
// node is exactly that node's subject, and every node's subject names it.
#include <string>
#include <tuple>

#include "fuzz/fuzzsupport.h"
#include "host/drivers/nats/wire.h"

namespace wire = qmta::host::wire;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using qmtafuzz::Check;
  std::string_view text(reinterpret_cast<const char*>(data), size);
  std::string error, node;
  wire::Request request, requestAgain;
  if (wire::DecodeRequest(text, &request, &error))
    Check(request.node.size() <= wire::kNodeMax && request.command.size() <= wire::kCommandMax &&
              wire::DecodeRequest(wire::EncodeRequest(request), &requestAgain, &error) &&
              std::tie(requestAgain.id, requestAgain.callType, requestAgain.node, requestAgain.command) ==
                  std::tie(request.id, request.callType, request.node, request.command),
          "a request within its limits, encoded again, decodes the same");
  wire::Reply reply, replyAgain;
  if (wire::DecodeReply(text, &reply, &error))
    Check(reply.codes.size() <= wire::kCodesMax && wire::DecodeReply(wire::EncodeReply(reply), &replyAgain, &error) &&
              std::tie(replyAgain.id, replyAgain.failed, replyAgain.status, replyAgain.codes) ==
                  std::tie(reply.id, reply.failed, reply.status, reply.codes),
          "a reply within its limits, encoded again, decodes the same");
  wire::Cancel cancel, cancelAgain;
  if (wire::DecodeCancel(text, &cancel, &error))
    Check(wire::DecodeCancel(wire::EncodeCancel(cancel), &cancelAgain, &error) &&
              std::tie(cancelAgain.id, cancelAgain.reply) == std::tie(cancel.id, cancel.reply),
          "a cancel encoded again decodes the same");
  if (wire::SubjectNode(text, &node)) Check(wire::NodeSubject(node) == text, "a node has exactly one subject");
  Check(wire::SubjectNode(wire::NodeSubject(text), &node) && node == text, "every node's subject names it");
  return 0;
}
