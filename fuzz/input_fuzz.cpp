// Fuzz target: one input line of qmtahost (an event, drain or reload
// written as JSON, an operator command, a comment). The parser must
// classify every line without throwing; a command keeps its text exactly;
// and an event, written back as JSON with every field it holds, reads back
// the same.
#include <string>
#include <tuple>

#include <nlohmann/json.hpp>

#include "fuzz/fuzzsupport.h"
#include "host/programs/qmtahost/inputline.h"

using qmta::hostprog::InputLine;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using qmtafuzz::Check;
  std::string_view text(reinterpret_cast<const char*>(data), size);
  InputLine line = qmta::hostprog::ParseInputLine(text);
  const qmta::hostprog::Event& e = line.event;
  auto clean = [](const std::string& s) { return s.find('\0') == std::string::npos; };
  size_t first = text.find_first_not_of(" \t");
  switch (line.kind) {
    case InputLine::Kind::kSkip:
      Check(text.empty() || text.front() == '#', "only empty lines and comments are skipped");
      break;
    case InputLine::Kind::kCommand:
      Check(line.text == text && clean(line.text) && (first == std::string_view::npos || text[first] != '{'),
            "a command keeps its text, holds no NUL and is no JSON line");
      break;
    case InputLine::Kind::kError:
      Check(!line.text.empty(), "an error says why");
      break;
    case InputLine::Kind::kEvent: {
      nlohmann::json object = {{"sitname", e.sitname}, {"originnode", e.originnode}, {"currstate", e.currstate},
                               {"prevstate", e.prevstate}, {"pathhandle", e.pathHandle}, {"onds", e.onDS},
                               {"attributes", nlohmann::json::array()}};
      bool noNul = clean(e.sitname) && clean(e.originnode);
      if (e.timestamp) object["timestamp"] = *e.timestamp, noNul = noNul && clean(*e.timestamp);
      if (e.threshold) object["threshold"] = *e.threshold, noNul = noNul && clean(*e.threshold);
      for (const auto& [name, value] : e.attributes) object["attributes"].push_back({name, value}), noNul = noNul && clean(name) && clean(value);
      Check(noNul, "no NUL in an event's texts");
      InputLine again = qmta::hostprog::ParseInputLine(object.dump());
      const qmta::hostprog::Event& c = again.event;
      Check(again.kind == InputLine::Kind::kEvent &&
                std::tie(c.sitname, c.originnode, c.currstate, c.prevstate, c.timestamp, c.threshold, c.attributes,
                         c.pathHandle, c.onDS) == std::tie(e.sitname, e.originnode, e.currstate, e.prevstate, e.timestamp,
                                                           e.threshold, e.attributes, e.pathHandle, e.onDS),
            "an event written back reads back the same");
      break;
    }
    default:  // drain, reload
      break;
  }
  return 0;
}
