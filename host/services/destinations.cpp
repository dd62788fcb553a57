// The destination directory: which driver serves which destination node.
#include "host/services/control.h"
#include "host/services/destinations.h"

#include <map>
#include <mutex>
#include <sstream>
#include <utility>

namespace qmta::host::internal {
namespace {

struct Line {
  std::string pattern;
  std::shared_ptr<Driver> driver;
  std::string driverName;
  int number = 0;  // in the text it was read from
};

// The directory is replaced as a whole; readers take a reference to the
// current one and route without holding the lock.
using Directory = std::vector<Line>;

// Guards the pointer `directory` (not the lines, which never change once
// published): taken by the program replacing the directory and by every
// open on the module's action threads, for the copy of the pointer only.
std::mutex directoryMutex;
std::shared_ptr<const Directory> directory = std::make_shared<Directory>();

// Guards the table of driver kinds: taken by programs registering a driver
// and by SetDestinations looking one up; a factory runs outside it.
std::mutex factoryMutex;
std::map<std::string, DriverFactory>& Factories() {
  static std::map<std::string, DriverFactory> factories;
  return factories;
}

DriverFactory FindFactory(const std::string& name) {
  std::lock_guard<std::mutex> hold(factoryMutex);
  auto found = Factories().find(name);
  return found == Factories().end() ? DriverFactory() : found->second;
}

// Builds one line; false with `*reason` when it is not valid.
bool ParseLine(const std::string& text, Line* line, bool* empty, std::string* reason) {
  std::istringstream words(text.substr(0, text.find('#')));
  std::string driverName;
  std::vector<std::string> options;
  *empty = !(words >> line->pattern);
  if (*empty) return true;
  if (!(words >> driverName)) {
    *reason = "no driver for \"" + line->pattern + "\"";
    return false;
  }
  for (std::string option; words >> option;) options.push_back(option);
  size_t star = line->pattern.find('*');
  if (star != std::string::npos && line->pattern.find('*', star + 1) != std::string::npos) {
    *reason = "more than one '*' in \"" + line->pattern + "\"";
    return false;
  }
  DriverFactory factory = FindFactory(driverName);
  if (!factory) {
    *reason = "unknown driver \"" + driverName + "\"";
    return false;
  }
  std::string error;
  std::unique_ptr<Driver> driver = factory(options, &error);
  if (!driver) {
    *reason = error.empty() ? "bad options for \"" + driverName + "\"" : error;
    return false;
  }
  line->driver = std::move(driver);
  line->driverName = std::move(driverName);
  return true;
}

}  // namespace

bool PatternMatches(const std::string& pattern, const std::string& node) {
  size_t star = pattern.find('*');
  if (star == std::string::npos) return pattern == node;
  size_t suffix = pattern.size() - star - 1;
  return node.size() >= star + suffix && node.compare(0, star, pattern, 0, star) == 0 &&
         node.compare(node.size() - suffix, suffix, pattern, star + 1, suffix) == 0;
}

std::shared_ptr<Driver> RouteDestination(const std::string& node, std::string* driverName,
                                         int* number) {
  std::shared_ptr<const Directory> current;
  {
    std::lock_guard<std::mutex> hold(directoryMutex);
    current = directory;
  }
  for (const Line& line : *current) {
    if (!PatternMatches(line.pattern, node)) continue;
    if (driverName) *driverName = line.driverName;
    if (number) *number = line.number;
    return line.driver;
  }
  return nullptr;
}

void ClearDestinations() {
  std::shared_ptr<const Directory> old;  // its drivers go outside the lock
  std::lock_guard<std::mutex> hold(directoryMutex);
  old = std::exchange(directory, std::make_shared<Directory>());
}

}  // namespace qmta::host::internal

namespace qmta::host {

void RegisterDriver(const std::string& name, DriverFactory factory) {
  std::lock_guard<std::mutex> hold(internal::factoryMutex);
  internal::Factories()[name] = std::move(factory);
}

bool SetDestinations(const std::string& text, std::string* error) {
  auto replacement = std::make_shared<internal::Directory>();
  std::istringstream lines(text);
  int number = 0;
  for (std::string text_line; std::getline(lines, text_line);) {
    ++number;
    internal::Line line;
    bool empty = false;
    std::string reason;
    if (!internal::ParseLine(text_line, &line, &empty, &reason)) {
      if (error) *error = "line " + std::to_string(number) + ": " + reason;
      return false;
    }
    line.number = number;
    if (!empty) replacement->push_back(std::move(line));
  }
  std::shared_ptr<const internal::Directory> old;
  {
    std::lock_guard<std::mutex> hold(internal::directoryMutex);
    old = std::exchange(internal::directory, std::move(replacement));
  }
  return true;
}

}  // namespace qmta::host

namespace qmta::host {

bool DestinationPatternMatches(const std::string& pattern, const std::string& node) {
  return internal::PatternMatches(pattern, node);
}

}  // namespace qmta::host
