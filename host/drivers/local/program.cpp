// The local driver's commands: how a command splits into words, which
// names a program may have, and the program of the actions directory that
// a command names (see local.h and internal.h).
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include "host/common/files.h"
#include "host/common/text.h"
#include "host/drivers/local/internal.h"

namespace qmta::host {
namespace {

constexpr std::string_view kBlanks = " \t\n\r\f\v";

}  // namespace

bool SplitCommand(std::string_view command, std::vector<std::string>* words,
                  std::string* error) {
  words->clear();
  if (command.find('\0') != std::string_view::npos) {
    *error = "the command holds a NUL character";
    return false;
  }
  // Never handed to a program, whatever the intake let through.
  if (HoldsControlCharacter(command)) {
    *error = "the command holds a control character";
    return false;
  }
  bool inWord = false, quoted = false;
  for (char c : command) {
    if (c == '"') {
      quoted = !quoted;
      if (!inWord) words->emplace_back();  // "" is an empty word
      inWord = true;
    } else if (!quoted && kBlanks.find(c) != std::string_view::npos) {
      inWord = false;
    } else {
      if (!inWord) words->emplace_back();
      inWord = true;
      words->back() += c;
    }
  }
  if (quoted) {
    *error = "a double quote is not closed";
    return false;
  }
  return true;
}

bool ValidProgramName(std::string_view name) {
  return !name.empty() && name.size() <= 255 && name.front() != '.' &&
         name.find('/') == std::string_view::npos;
}

namespace local {

bool ResolveProgram(const std::string& actionsDir, const Action& action, Program* program,
                    Output& output) {
  std::string error;
  if (!SplitCommand(action.command, &program->words, &error)) {
    output.Note("refused: " + error);
    return false;
  }
  if (program->words.empty()) {
    output.Note("refused: the command names no program");
    return false;
  }
  const std::string& name = program->words[0];
  if (!ValidProgramName(name)) {
    output.Note("refused program name \"" + name + "\": only plain names of " + actionsDir +
                " are run");
    return false;
  }
  program->path = actionsDir + "/" + name;
  struct stat status;
  if (stat(program->path.c_str(), &status) != 0) {
    const int failure = errno;
    output.Note("no action program \"" + name + "\" in " + actionsDir + ": " +
                ErrorText(failure));
    return false;
  }
  if (!S_ISREG(status.st_mode) || access(program->path.c_str(), X_OK) != 0) {
    output.Note("refused \"" + name + "\": not an executable file");
    return false;
  }
  return true;
}

}  // namespace local
}  // namespace qmta::host
