// Fuzz target: what a remote agent and the host read from the network,
// the request and reply messages and the node subjects. A message that
// decodes encodes to one that decodes the same; a subject that names a
// node is exactly that node's subject, and every node's subject names it.
#include <stdint.h>

#include <string>
#include <string_view>

#include "fuzz/fuzzsupport.h"
#include "host/drivers/nats/wire.h"

namespace wire = qmta::host::wire;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using qmtafuzz::Check;
  std::string_view text(reinterpret_cast<const char*>(data), size);
  std::string error;

  wire::Request request;
  if (wire::DecodeRequest(text, &request, &error)) {
    Check(request.node.size() <= wire::kNodeMax && request.command.size() <= wire::kCommandMax,
          "request strings within their limits");
    wire::Request again;
    Check(wire::DecodeRequest(wire::EncodeRequest(request), &again, &error) &&
              again.id == request.id && again.callType == request.callType &&
              again.node == request.node && again.command == request.command,
          "a request encoded again decodes the same");
  }

  wire::Reply reply;
  if (wire::DecodeReply(text, &reply, &error)) {
    Check(reply.codes.size() <= wire::kCodesMax, "codes within their limit");
    wire::Reply again;
    Check(wire::DecodeReply(wire::EncodeReply(reply), &again, &error) && again.id == reply.id &&
              again.failed == reply.failed && again.status == reply.status &&
              again.codes == reply.codes,
          "a reply encoded again decodes the same");
  }

  std::string node;
  if (wire::SubjectNode(text, &node))
    Check(wire::NodeSubject(node) == text, "a node has exactly one subject");
  std::string subject = wire::NodeSubject(text);
  Check(wire::SubjectNode(subject, &node) && node == text, "every node's subject names it");
  return 0;
}
