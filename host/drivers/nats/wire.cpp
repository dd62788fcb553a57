#include "host/drivers/nats/wire.h"

#include "host/common/number.h"

namespace qmta::host::wire {
namespace {

constexpr char kHex[] = "0123456789ABCDEF";

bool Plain(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-';
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Splits `line` at single blanks; an empty field (two blanks, or a blank at
// either end) makes it invalid.
bool Fields(std::string_view line, std::vector<std::string_view>* fields) {
  fields->clear();
  size_t start = 0;
  for (;;) {
    size_t blank = line.find(' ', start);
    std::string_view field = line.substr(start, blank == std::string_view::npos ? blank : blank - start);
    if (field.empty()) return false;
    fields->push_back(field);
    if (blank == std::string_view::npos) return true;
    start = blank + 1;
  }
}

}  // namespace

std::string NodeSubject(std::string_view node) {
  std::string subject(kSubjectPrefix);
  if (node.empty()) return subject + "_";
  for (char c : node) {
    auto byte = static_cast<unsigned char>(c);
    if (Plain(byte)) {
      subject += c;
    } else {
      subject += '_';
      subject += kHex[byte >> 4];
      subject += kHex[byte & 15];
    }
  }
  return subject;
}

std::string CancelSubject(std::string_view node) { return NodeSubject(node) + ".cancel"; }

bool SubjectNode(std::string_view subject, std::string* node) {
  if (!subject.starts_with(kSubjectPrefix)) return false;
  subject.remove_prefix(kSubjectPrefix.size());
  node->clear();
  if (subject == "_") return true;
  if (subject.empty()) return false;
  for (size_t i = 0; i < subject.size(); ++i) {
    auto byte = static_cast<unsigned char>(subject[i]);
    if (Plain(byte)) {
      *node += subject[i];
      continue;
    }
    if (subject[i] != '_' || i + 2 >= subject.size())
      return false;
    int high = HexValue(subject[i + 1]), low = HexValue(subject[i + 2]);
    if (high < 0 || low < 0) return false;
    unsigned char decoded = static_cast<unsigned char>(high * 16 + low);
    if (Plain(decoded)) return false;  // never written escaped
    *node += static_cast<char>(decoded);
    i += 2;
  }
  return true;
}

std::string EncodeRequest(const Request& request) {
  std::string data = "QMTA1 REQ " + std::to_string(request.id) + " " +
                     std::to_string(request.callType) + " " + std::to_string(request.node.size()) +
                     " " + std::to_string(request.command.size()) + "\n";
  data += request.node;
  data += request.command;
  return data;
}

std::string EncodeReply(const Reply& reply) {
  std::string data(reply.failed ? "QMTA1 STATUS " : "QMTA1 RC ");
  data += std::to_string(reply.id);
  if (reply.failed) {
    data += ' ';
    data += std::to_string(reply.status);
  }
  for (int32_t code : reply.codes) {
    if (reply.failed) break;
    data += ' ';
    data += std::to_string(code);
  }
  if (reply.hasDetail) {
    std::string_view output(reply.output);
    output = output.substr(0, kOutputMax);
    data += "\nQMTA1 OUTPUT " + std::to_string(reply.exitStatus) + " " +
            std::to_string(reply.signal) + " " +
            (reply.outputCut || output.size() < reply.output.size() ? "1" : "0") + " " +
            std::to_string(output.size()) + "\n";
    data += output;
  }
  return data;
}

std::string EncodeCancel(const Cancel& cancel) {
  return "QMTA1 CANCEL " + std::to_string(cancel.id) + " " + cancel.reply;
}

bool DecodeRequest(std::string_view data, Request* request, std::string* error) {
  size_t end = data.find('\n');
  std::vector<std::string_view> fields;
  size_t nodeSize = 0, commandSize = 0;
  if (end == std::string_view::npos || !Fields(data.substr(0, end), &fields) ||
      fields.size() != 6 || fields[0] != "QMTA1" || fields[1] != "REQ" ||
      !ParseNumber(fields[2], &request->id) || !ParseNumber(fields[3], &request->callType) ||
      !ParseNumber(fields[4], &nodeSize) || !ParseNumber(fields[5], &commandSize)) {
    *error = "not a request";
    return false;
  }
  std::string_view rest = data.substr(end + 1);
  if (nodeSize > kNodeMax || commandSize > kCommandMax) {
    *error = "node or command too long";
    return false;
  }
  if (rest.size() != nodeSize + commandSize) {
    *error = "request length does not match its header";
    return false;
  }
  if (rest.find('\0') != std::string_view::npos) {
    *error = "request holds a NUL byte";
    return false;
  }
  request->node.assign(rest.substr(0, nodeSize));
  request->command.assign(rest.substr(nodeSize));
  return true;
}

// The detail after a reply's line (version 3).
bool DecodeDetail(std::string_view data, Reply* reply, std::string* error) {
  size_t end = data.find('\n');
  std::vector<std::string_view> fields;
  int32_t cut = 0;
  size_t length = 0;
  if (end == std::string_view::npos || !Fields(data.substr(0, end), &fields) ||
      fields.size() != 6 || fields[0] != "QMTA1" || fields[1] != "OUTPUT" ||
      !ParseNumber(fields[2], &reply->exitStatus) || !ParseNumber(fields[3], &reply->signal) ||
      !ParseNumber(fields[4], &cut, 0, 1) || !ParseNumber(fields[5], &length) ||
      length > kOutputMax || data.size() - end - 1 != length) {
    *error = "bad output in a reply";
    return false;
  }
  reply->hasDetail = true;
  reply->outputCut = cut == 1;
  reply->output.assign(data.substr(end + 1));
  return true;
}

bool DecodeReply(std::string_view data, Reply* reply, std::string* error) {
  std::vector<std::string_view> fields;
  *reply = Reply();
  size_t lineEnd = data.find('\n');
  if (lineEnd != std::string_view::npos) {
    if (!DecodeDetail(data.substr(lineEnd + 1), reply, error)) return false;
    data = data.substr(0, lineEnd);
  }
  if (!Fields(data, &fields) || fields.size() < 3 || fields[0] != "QMTA1" ||
      !ParseNumber(fields[2], &reply->id)) {
    *error = "not a reply";
    return false;
  }
  if (fields[1] == "STATUS") {
    reply->failed = true;
    if (fields.size() == 4 && ParseNumber(fields[3], &reply->status)) return true;
    *error = "bad status reply";
    return false;
  }
  if (fields[1] != "RC" || fields.size() - 3 > kCodesMax) {
    *error = "not a reply";
    return false;
  }
  for (size_t i = 3; i < fields.size(); ++i) {
    int32_t code;
    if (!ParseNumber(fields[i], &code)) {
      *error = "bad return code";
      return false;
    }
    reply->codes.push_back(code);
  }
  return true;
}

bool DecodeCancel(std::string_view data, Cancel* cancel, std::string* error) {
  std::vector<std::string_view> fields;
  if (!Fields(data, &fields) || fields.size() != 4 || fields[0] != "QMTA1" ||
      fields[1] != "CANCEL" || !ParseNumber(fields[2], &cancel->id) ||
      fields[3].size() > kReplySubjectMax) {
    *error = "not a cancel";
    return false;
  }
  for (char c : fields[3]) {
    if (static_cast<unsigned char>(c) <= ' ' || c == 127) {
      *error = "bad reply subject in a cancel";
      return false;
    }
  }
  cancel->reply.assign(fields[3]);
  return true;
}

bool DecodeTimeLeft(std::string_view text, int64_t* milliseconds) {
  return ParseNumber(text, milliseconds, int64_t{0}, kTimeLeftMax);
}

bool DecodeOutputWanted(std::string_view text, size_t* bytes) {
  return ParseNumber(text, bytes, size_t{1}, kOutputMax);
}

}  // namespace qmta::host::wire
