// Fuzz target: the local driver's command splitter, the only thing that
// stands between event data in an action's command and the arguments of a
// program. A command splits when its double quotes pair up and it holds no
// control character but the tab; the words never hold a quote; and the
// words, each written back in quotes, split to the same words. The first
// word's check as a program name and the driver's option reader see the
// same words.
#include <stdint.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/fuzzsupport.h"
#include "host/drivers/local/local.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using qmtafuzz::Check;
  std::string_view command(reinterpret_cast<const char*>(data), size);
  std::vector<std::string> words;
  std::string error;
  bool split = qmta::host::SplitCommand(command, &words, &error);
  bool paired = std::count(command.begin(), command.end(), '"') % 2 == 0;
  bool control = std::any_of(command.begin(), command.end(), [](char c) {
    return (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7f;
  });
  Check(split == (paired && !control),
        "splits exactly when the quotes pair up and no control character but the tab");
  if (!split) {
    Check(!error.empty(), "a refusal says why");
    return 0;
  }
  std::string quoted;
  for (const std::string& word : words) {
    Check(word.find('"') == std::string::npos, "no quote inside a word");
    if (!quoted.empty()) quoted += ' ';
    quoted += '"' + word + '"';
  }
  std::vector<std::string> again;
  Check(qmta::host::SplitCommand(quoted, &again, &error) && again == words,
        "words written back in quotes split the same");
  if (!words.empty()) {
    bool valid = qmta::host::ValidProgramName(words[0]);
    Check(!valid || (words[0].find('/') == std::string::npos && words[0][0] != '.'),
          "a program name has no '/' and no leading '.'");
  }
  qmta::host::LocalSettings settings;
  qmta::host::ParseLocalOptions(words, &settings, &error);
  return 0;
}
