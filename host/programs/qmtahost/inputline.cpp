#include "host/programs/qmtahost/inputline.h"

#include <stdio.h>

#include <nlohmann/json.hpp>

namespace qmta::hostprog {
namespace {

using Json = nlohmann::json;

// Thrown for a field that is missing or of the wrong kind.
struct BadField {
  std::string reason;
};

std::string Quoted(const std::string& name) { return "\"" + name + "\""; }

std::string Text(const Json& value, const std::string& name) {
  if (!value.is_string()) throw BadField{Quoted(name) + " must be a string"};
  const std::string& text = value.get_ref<const std::string&>();
  if (text.find('\0') != std::string::npos)
    throw BadField{Quoted(name) + " holds a NUL character"};
  return text;
}

int32_t Integer(const Json& value, const std::string& name) {
  if (!value.is_number_integer()) throw BadField{Quoted(name) + " must be an integer"};
  if (value.is_number_unsigned()) {
    if (value.get<uint64_t>() > static_cast<uint64_t>(INT32_MAX))
      throw BadField{Quoted(name) + " is out of 32-bit range"};
  } else {
    int64_t number = value.get<int64_t>();
    if (number < INT32_MIN || number > INT32_MAX)
      throw BadField{Quoted(name) + " is out of 32-bit range"};
  }
  return static_cast<int32_t>(value.get<int64_t>());
}

Event ReadEvent(const Json& object) {
  Event event;
  bool haveSitname = false, haveOriginnode = false, haveCurrstate = false;
  for (const auto& [name, value] : object.items()) {
    if (name == "sitname") {
      event.sitname = Text(value, name);
      haveSitname = true;
    } else if (name == "originnode") {
      event.originnode = Text(value, name);
      haveOriginnode = true;
    } else if (name == "currstate") {
      event.currstate = Integer(value, name);
      haveCurrstate = true;
    } else if (name == "prevstate") {
      event.prevstate = Integer(value, name);
    } else if (name == "timestamp") {
      event.timestamp = Text(value, name);
    } else if (name == "attributes") {
      static const std::string kShape = "\"attributes\" must be a list of [name, value] strings";
      if (!value.is_array()) throw BadField{kShape};
      for (const Json& pair : value) {
        if (!pair.is_array() || pair.size() != 2) throw BadField{kShape};
        event.attributes.emplace_back(Text(pair[0], "attributes"), Text(pair[1], "attributes"));
      }
    } else if (name == "threshold") {
      if (!value.is_null()) event.threshold = Text(value, name);
    } else if (name == "pathhandle") {
      if (!value.is_boolean()) throw BadField{"\"pathhandle\" must be true or false"};
      event.pathHandle = value.get<bool>();
    } else if (name == "onds") {
      event.onDS = Integer(value, name);
    } else {
      throw BadField{"unknown field " + Quoted(name)};
    }
  }
  if (!haveSitname) throw BadField{"missing \"sitname\""};
  if (!haveOriginnode) throw BadField{"missing \"originnode\""};
  if (!haveCurrstate) throw BadField{"missing \"currstate\""};
  return event;
}

InputLine Error(std::string reason) {
  InputLine line;
  line.kind = InputLine::Kind::kError;
  line.text = std::move(reason);
  return line;
}

}  // namespace

InputLine ParseInputLine(std::string_view text) {
  InputLine line;
  if (text.empty() || text.front() == '#') return line;
  if (text.find('\0') != std::string_view::npos) return Error("NUL character in the line");
  size_t first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos || text[first] != '{') {
    line.kind = InputLine::Kind::kCommand;
    line.text = std::string(text);
    return line;
  }

  Json object;
  try {
    object = Json::parse(text);
  } catch (const Json::exception& error) {
    // A syntax error, or a number beyond a double's range (out_of_range
    // 406), which the parser reports with an exception of another kind.
    // "[json.exception.parse_error.101] parse error at ..." without its tag.
    std::string what = error.what();
    size_t tag = what.find("] ");
    return Error("bad JSON: " + (tag == std::string::npos ? what : what.substr(tag + 2)));
  }
  try {
    if (object.contains("drain")) {
      if (object.size() != 1) return Error("\"drain\" takes no other field");
      if (object["drain"] != true) return Error("\"drain\" must be true");
      line.kind = InputLine::Kind::kDrain;
      return line;
    }
    if (object.contains("reload")) {
      if (object["reload"] != true) return Error("\"reload\" must be true");
      for (const auto& [name, value] : object.items()) {
        if (name == "force" && !value.is_boolean()) return Error("\"force\" must be true or false");
        if (name != "force" && name != "reload") return Error("\"reload\" takes no field " + Quoted(name));
      }
      line.force = object.value("force", false);
      line.kind = InputLine::Kind::kReload;
      return line;
    }
    line.event = ReadEvent(object);
  } catch (const BadField& bad) {
    return Error(bad.reason);
  }
  line.kind = InputLine::Kind::kEvent;
  return line;
}

std::string Timestamp(const struct tm& local) {
  char text[32];
  snprintf(text, sizeof text, "%d%02d%02d%02d%02d%02d%02d000",
           (local.tm_year / 100) % 10, local.tm_year % 100, local.tm_mon + 1, local.tm_mday,
           local.tm_hour, local.tm_min, local.tm_sec);
  return text;
}

}  // namespace qmta::hostprog
