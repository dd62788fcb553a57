#include "host/programs/qmtahost/ruleload.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <system_error>

#include "host/services/control.h"
#include "qmtauto1/qmtauto1.h"
#include "qmtauto1/rulefile.h"

namespace qmta::hostprog {
namespace {

std::string ErrnoText(int error) { return std::generic_category().message(error); }

const char* Kind(mode_t mode) {
  if (S_ISDIR(mode)) return "a directory";
  if (S_ISFIFO(mode)) return "a FIFO";
  if (S_ISCHR(mode)) return "a character device";
  if (S_ISBLK(mode)) return "a block device";
  if (S_ISSOCK(mode)) return "a socket";
  return "something else";
}

// The automation anchor of this process: the table lock and the request
// ids that the reader and the formatter use. Made once, never freed.
AutomationAnchor* ScratchAnchor() {
  static AutomationAnchor* table = [] {
    auto* made = static_cast<AutomationAnchor*>(calloc(1, sizeof(AutomationAnchor)));
    memcpy(made->eyecatcher, "TABL", 4);
    qmtalint(&made->tableLock);
    pthread_mutex_init(&made->requestIdLock, nullptr);
    made->requestId = 1;
    publishAnchor(made);
    return made;
  }();
  return table;
}

// Sends standard output to `fd` while it lives (the module prints its
// messages there).
class Redirect {
 public:
  explicit Redirect(int fd) {
    fflush(stdout);
    saved_ = fcntl(1, F_DUPFD_CLOEXEC, 3);
    if (saved_ >= 0) dup2(fd, 1);
  }
  ~Redirect() {
    fflush(stdout);
    if (saved_ < 0) return;
    dup2(saved_, 1);
    close(saved_);
  }
  Redirect(const Redirect&) = delete;
  Redirect& operator=(const Redirect&) = delete;
  bool ok() const { return saved_ >= 0; }

 private:
  int saved_ = -1;
};

// One entry of the file as the tokenizer cut it: its first line and the
// last DESTNODE, SCRIPT/SUBAGENT and ARGn values it gave. Reused from entry
// to entry, so its strings keep their room.
struct FileEntry {
  int32_t line = 0;
  std::string destnode;
  bool hasScript = false;
  std::string script;
  uint32_t args = 0;  // bit i: ARG(i+1) given
  std::array<std::string, kArgCount> arg;
  std::array<int32_t, kArgCount> argLines{};

  void Start(int32_t first) {
    line = first;
    destnode.clear();
    hasScript = false;
    args = 0;
    argLines.fill(0);
  }
};

// Cuts the file into entries the way the entry reader walks it: every ";"
// ends one (a lone ";" too), and so does the end of the file after a tag.
// `take` sees each entry; returns how many there were.
int CutEntries(FILE* file, const std::function<void(const FileEntry&)>& take) {
  using namespace qmta::rules;
  restarttokenizer();
  char start[1] = "";
  char* value = start;
  int32_t line = 0;
  int count = 0;
  bool open = false;
  FileEntry entry;
  for (;;) {
    int32_t tag = getnexttag(file, &value, &line);
    if (tag == kTagEof) break;
    if (!open) entry.Start(line);
    open = tag != kTagEnd;
    if (tag == kTagDestnode) entry.destnode = value;
    if (tag == kTagScript || tag == kTagSubagent) {
      entry.script = value;
      entry.hasScript = true;
    }
    if (tag >= kTagArg1 && tag <= kTagArg9) {
      entry.args |= 1u << (tag - kTagArg1);
      entry.arg[tag - kTagArg1] = value;
      entry.argLines[tag - kTagArg1] = line;
    }
    if (!open) {
      ++count;
      take(entry);
    }
  }
  if (open) {
    ++count;
    take(entry);
  }
  restarttokenizer();
  return count;
}

// Whether the loaded `rule` is what `entry` wrote (the fields the reader
// keeps as written, and the destination as it keeps it).
bool Wrote(const FileEntry& entry, const TableEntry& rule) {
  std::string_view dest = entry.destnode;
  if (dest.size() >= 2 && dest.front() == '"' && dest.back() == '"')
    dest = dest.substr(1, dest.size() - 2);
  if (dest.substr(0, kNameMax) != rule.destnode) return false;
  if ((entry.hasScript ? std::string_view(entry.script) : "*") != rule.script) return false;
  int given = kArgCount;
  while (given > 0 && !(entry.args & (1u << (given - 1)))) --given;
  for (int i = 0; i < kArgCount; ++i) {
    if ((rule.args[i] != nullptr) != (i < given)) return false;
    if (i < given) {
      std::string_view text = entry.args & (1u << i) ? std::string_view(entry.arg[i]) : "";
      if (text != rule.args[i]) return false;
    }
  }
  return true;
}

bool MessageIdAt(std::string_view line, size_t digits) {
  if (line.size() < digits + 1) return false;
  for (size_t i = 0; i < digits; ++i)
    if (line[i] < '0' || line[i] > '9') return false;
  char letter = line[digits];
  return letter >= 'A' && letter <= 'Z' && (line.size() == digits + 1 || line[digits + 1] == ' ');
}

// The line number a message names. QMTA010E, 013E and 014W name it before
// the values they show; every other message names it last.
long NamedLine(const ModuleMessage& message) {
  static const std::string kIn = " IN LINE ";
  bool first = message.id == "QMTA010E" || message.id == "QMTA013E" || message.id == "QMTA014W";
  size_t at = first ? message.text.find(kIn) : message.text.rfind(kIn);
  if (at == std::string::npos) return 0;
  const char* digits = message.text.c_str() + at + kIn.size();
  if (*digits < '0' || *digits > '9') return 0;
  return strtol(digits, nullptr, 10);
}

}  // namespace

int OpenRuleFile(const std::string& path, uint64_t limit, std::string* problem) {
  int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) {
    *problem = "cannot open it: " + ErrnoText(errno);
    return -1;
  }
  struct stat status;
  if (fstat(fd, &status) != 0) {
    *problem = "cannot read it: " + ErrnoText(errno);
  } else if (!S_ISREG(status.st_mode)) {
    *problem = std::string(Kind(status.st_mode)) + ", not a regular file";
  } else if (static_cast<uint64_t>(status.st_size) > limit) {
    *problem = std::to_string(status.st_size) + " bytes, more than the limit of " +
               std::to_string(limit) + " (--max-size)";
  } else {
    char piece[1 << 16];
    off_t at = 0;
    for (ssize_t got; problem->empty() && at < status.st_size; at += got) {
      got = pread(fd, piece, sizeof piece, at);
      if (got <= 0) {
        if (got < 0 && errno == EINTR) got = 0;
        else break;
      }
      if (const void* nul = memchr(piece, '\0', static_cast<size_t>(got)))
        *problem = "a NUL byte at offset " +
                   std::to_string(at + (static_cast<const char*>(nul) - piece)) +
                   ": not a rule file";
    }
  }
  if (problem->empty()) return fd;
  close(fd);
  return -1;
}

bool BeginsMessage(std::string_view line) {
  if (!line.starts_with("QMTA")) return false;
  line.remove_prefix(4);
  return MessageIdAt(line, 3) || (line.starts_with('L') && MessageIdAt(line.substr(1), 2));
}

void ReadMessages(FILE* in, const std::function<void(const ModuleMessage&)>& take) {
  ModuleMessage message;
  auto finish = [&] {
    if (message.text.empty()) return;
    message.line = NamedLine(message);
    take(message);
    message = ModuleMessage();
  };
  char* buffer = nullptr;
  size_t size = 0;
  for (ssize_t got; (got = getline(&buffer, &size, in)) > 0;) {
    std::string_view line(buffer, static_cast<size_t>(got));
    if (line.back() == '\n') line.remove_suffix(1);
    if (BeginsMessage(line)) {
      finish();
      message.id = std::string(line.substr(0, line.find(' ')));
      message.severity = message.id.back();
      message.text = std::string(line);
    } else {
      message.text += '\n';
      message.text += line;
    }
  }
  free(buffer);
  finish();
}

RuleLoad::~RuleLoad() {
  if (output_ != nullptr) fclose(output_);
}

FILE* RuleLoad::messages() const {
  rewind(output_);
  return output_;
}

bool RuleLoad::Run(int fd, std::string* problem) {
  AutomationAnchor* table = ScratchAnchor();
  const std::string self = "/proc/self/fd/" + std::to_string(fd);
  const char* tmp = getenv("TMPDIR");
  std::string dir = std::string(tmp && *tmp ? tmp : "/tmp") + "/qmtacheck.XXXXXX";
  if (mkdtemp(dir.data()) == nullptr) {
    *problem = "cannot make a scratch directory: " + ErrnoText(errno);
    return false;
  }
  // The reader reads ./QMTASITR: in the scratch directory, a link to the
  // descriptor that was checked.
  const std::string link = dir + "/QMTASITR";
  int here = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (output_ == nullptr) output_ = tmpfile();
  bool ran = false;
  if (here < 0 || output_ == nullptr || symlink(self.c_str(), link.c_str()) != 0) {
    *problem = "cannot prepare the load: " + ErrnoText(errno);
  } else {
    Redirect capture(fileno(output_));
    if (!capture.ok() || chdir(dir.c_str()) != 0) {
      *problem = "cannot prepare the load: " + ErrnoText(errno);
    } else {
      status = loadtable();
      ran = fchdir(here) == 0;
      if (!ran) *problem = "cannot return to the working directory: " + ErrnoText(errno);
    }
  }
  unlink(link.c_str());
  rmdir(dir.c_str());
  if (here >= 0) close(here);
  if (!ran) return false;

  // The tokenizer's own messages were printed by the load already. The
  // loaded rules are the file's good entries in order: each rule takes the
  // next entry that wrote it.
  rules.clear();
  const TableEntry* next = table->entries;
  auto take = [&](const FileEntry& entry) {
    if (next == nullptr || !Wrote(entry, *next)) return;
    LoadedRule loaded;
    loaded.entry = next;
    loaded.line = entry.line;
    loaded.argLines = entry.argLines;
    rules.push_back(loaded);
    next = next->next;
  };
  entries = 0;
  if (FILE* again = fopen(self.c_str(), "re")) {
    int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    {
      Redirect quiet(null);
      entries = CutEntries(again, take);
    }
    close(null);
    fclose(again);
  }
  // Rules that no entry was found for (none, unless the file changed
  // under the check) keep line 0.
  for (; next != nullptr; next = next->next) rules.push_back(LoadedRule{next});
  return true;
}

const char* StateName(uint32_t state) {
  switch (state) {
    case kStateUnknown: return "UNKNOWN";
    case kStateTrue: return "TRUE";
    case kStateFalse: return "FALSE";
    default: return "ANY";
  }
}

bool ReadNodesFile(const std::string& path, std::vector<NodesLine>* lines,
                   std::string* problem) {
  std::ifstream in(path);
  if (!in) {
    *problem = "cannot read " + path + ": " + ErrnoText(errno);
    return false;
  }
  std::string text;
  for (int number = 1; std::getline(in, text); ++number) {
    NodesLine line{number, "", "", text};
    std::istringstream words(text.substr(0, text.find('#')));
    if (!(words >> line.pattern)) continue;
    if (!(words >> line.driver)) {
      *problem = path + ": line " + std::to_string(number) + ": no driver";
      return false;
    }
    lines->push_back(std::move(line));
  }
  return true;
}

const NodesLine* RouteNode(const std::vector<NodesLine>& lines, const std::string& node) {
  for (const NodesLine& line : lines)
    if (qmta::host::DestinationPatternMatches(line.pattern, node)) return &line;
  return nullptr;
}

bool Words::Read(const std::vector<std::string>& flags, const std::vector<std::string>& valued,
                 std::string* error) {
  auto known = [](const std::vector<std::string>& names, const std::string& word) {
    return std::find(names.begin(), names.end(), word) != names.end();
  };
  for (size_t i = 0; i < words_.size(); ++i) {
    const std::string& word = words_[i];
    size_t equals = word.find('=');
    std::string name = word.substr(0, equals);
    if (word == "--") {
      rest_.insert(rest_.end(), words_.begin() + i + 1, words_.end());
      break;
    }
    if (word == "-h" && known(flags, "--help")) {
      given_.emplace_back("--help", "");
    } else if (!word.starts_with("-") || word == "-") {
      rest_.push_back(word);  // "-": standard input
    } else if (!word.starts_with("--")) {
      *error = "unknown option \"" + word + "\" (a name that begins with \"-\" goes after \"--\")";
      return false;
    } else if (equals == std::string::npos && known(flags, word)) {
      given_.emplace_back(word, "");
    } else if (known(valued, name)) {
      if (equals == std::string::npos && i + 1 == words_.size()) {
        *error = name + ": needs a value";
        return false;
      }
      given_.emplace_back(name, equals == std::string::npos ? words_[++i] : word.substr(equals + 1));
    } else {
      *error = "unknown option \"" + word + "\"";
      return false;
    }
  }
  return true;
}

bool Words::Has(const std::string& flag) const { return Value(flag).has_value(); }

std::optional<std::string> Words::Value(const std::string& option) const {
  std::optional<std::string> found;
  for (const auto& [name, value] : given_)
    if (name == option) found = value;
  return found;
}

}  // namespace qmta::hostprog
