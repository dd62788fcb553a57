// Fuzz target: the local driver's command splitter, the only thing that
// stands between event data in an action's command and the arguments of a
// program. A command splits when its double quotes pair up and it holds no
// NUL and no control character but tab; the words never hold a quote; and
// the words, each written back in quotes, split to the same words. A valid
// program name has no '/' and no leading '.'; the option reader takes any
// words.
#include <algorithm>
#include <string>
#include <vector>

#include "fuzz/fuzzsupport.h"
#include "host/drivers/local/local.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using qmtafuzz::Check;
  std::string_view command(reinterpret_cast<const char*>(data), size);
  std::vector<std::string> words, again;
  std::string error, quoted;
  bool clean = std::count(command.begin(), command.end(), '"') % 2 == 0 &&
               std::none_of(command.begin(), command.end(), [](char c) { return (c >= 0 && c < 0x20 && c != '\t') || c == 0x7f; });
  bool split = qmta::host::SplitCommand(command, &words, &error);
  Check(split == clean, "splits exactly when the quotes pair up and no control character is in it");
  Check(split || !error.empty(), "a refusal says why");
  for (const std::string& word : words) {
    Check(word.find('"') == std::string::npos, "no quote inside a word");
    quoted += (quoted.empty() ? "\"" : " \"") + word + '"';
  }
  Check(!split || (qmta::host::SplitCommand(quoted, &again, &error) && again == words), "words written back split the same");
  if (!words.empty() && qmta::host::ValidProgramName(words[0]))
    Check(words[0].find('/') == std::string::npos && words[0][0] != '.', "a program name has no '/' and no leading '.'");
  qmta::host::LocalSettings settings;
  qmta::host::ParseLocalOptions(words, &settings, &error);
  return 0;
}
