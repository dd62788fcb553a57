// The local driver's output relay (see internal.h): lines cut to length and
// held to the action's budget on their way to its Output.
#include "host/common/say.h"
#include "host/drivers/local/internal.h"

namespace qmta::host::local {
namespace {

// Longest line relayed whole; the rest of a longer line is dropped.
constexpr size_t kLineMax = 1024;
// Output relayed per action; later output is read and dropped.
constexpr size_t kOutputMax = 64 * 1024;

}  // namespace

void SayFor(uint32_t requestId, std::string_view text) {
  // Built piece by piece: GCC's optimiser reports a false overlap in
  // "[" + std::to_string(...).
  std::string who = "[";
  who += std::to_string(requestId);
  who += "] ";
  Say(who, text);
}

void Relay::Feed(Stream& stream, const char* data, size_t size) {
  for (size_t i = 0; i < size; ++i) {
    char c = data[i];
    if (c == '\n') {
      if (!stream.skipping) Line(stream.partial);
      stream.partial.clear();
      stream.skipping = false;
    } else if (!stream.skipping) {
      stream.partial += c;
      if (stream.partial.size() >= kLineMax) {
        Line(stream.partial + " [line cut]");
        stream.partial.clear();
        stream.skipping = true;
      }
    }
  }
}

void Relay::Finish(Stream& stream) {
  if (!stream.partial.empty() && !stream.skipping) Line(stream.partial);
  stream.partial.clear();
}

void Relay::Line(const std::string& text) {
  if (relayed_ >= kOutputMax) {
    if (!dropping_) output_.Note("[further output dropped]");
    dropping_ = true;
    return;
  }
  relayed_ += text.size() + 1;
  output_.Line(text);
}

}  // namespace qmta::host::local
