// Fuzz target: one input line of qmtahost (an event or drain written as
// JSON, an operator command, a comment). The parser must classify every
// line without throwing; a command keeps its text exactly; and an event,
// written back as JSON with every field it holds, reads back the same.
#include <stdint.h>

#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "fuzz/fuzzsupport.h"
#include "host/programs/qmtahost/inputline.h"

using qmta::hostprog::Event;
using qmta::hostprog::InputLine;
using qmta::hostprog::ParseInputLine;

namespace {

nlohmann::json Written(const Event& event) {
  nlohmann::json object = {{"sitname", event.sitname},
                           {"originnode", event.originnode},
                           {"currstate", event.currstate},
                           {"prevstate", event.prevstate},
                           {"pathhandle", event.pathHandle},
                           {"onds", event.onDS}};
  if (event.timestamp) object["timestamp"] = *event.timestamp;
  if (event.threshold) object["threshold"] = *event.threshold;
  object["attributes"] = nlohmann::json::array();
  for (const auto& [name, value] : event.attributes)
    object["attributes"].push_back({name, value});
  return object;
}

bool NoNul(const std::string& text) { return text.find('\0') == std::string::npos; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using qmtafuzz::Check;
  std::string_view text(reinterpret_cast<const char*>(data), size);
  InputLine line = ParseInputLine(text);
  switch (line.kind) {
    case InputLine::Kind::kSkip:
      Check(text.empty() || text.front() == '#', "only empty lines and comments are skipped");
      break;
    case InputLine::Kind::kCommand: {
      Check(line.text == text, "a command keeps its text");
      size_t first = text.find_first_not_of(" \t");
      Check(first == std::string_view::npos || text[first] != '{', "a JSON line is no command");
      Check(NoNul(line.text), "no NUL in a command");
      break;
    }
    case InputLine::Kind::kError:
      Check(!line.text.empty(), "an error says why");
      break;
    case InputLine::Kind::kDrain:
    case InputLine::Kind::kReload:
      break;
    case InputLine::Kind::kEvent: {
      const Event& event = line.event;
      bool clean = NoNul(event.sitname) && NoNul(event.originnode) &&
                   (!event.timestamp || NoNul(*event.timestamp)) &&
                   (!event.threshold || NoNul(*event.threshold));
      for (const auto& [name, value] : event.attributes) clean = clean && NoNul(name) && NoNul(value);
      Check(clean, "no NUL in an event's texts");
      InputLine again = ParseInputLine(Written(event).dump());
      Check(again.kind == InputLine::Kind::kEvent, "an event written back is an event");
      const Event& copy = again.event;
      Check(copy.sitname == event.sitname && copy.originnode == event.originnode &&
                copy.currstate == event.currstate && copy.prevstate == event.prevstate &&
                copy.timestamp == event.timestamp && copy.threshold == event.threshold &&
                copy.attributes == event.attributes && copy.pathHandle == event.pathHandle &&
                copy.onDS == event.onDS,
            "an event written back reads back the same");
      break;
    }
  }
  return 0;
}
