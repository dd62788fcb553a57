// The destination directory and the table of driver kinds (internal to the
// host's query service).
#ifndef HOST_SERVICES_DESTINATIONS_H_
#define HOST_SERVICES_DESTINATIONS_H_

#include <memory>
#include <string>
#include <vector>

#include "host/drivers/driver.h"

namespace qmta::host::internal {

// The driver of the first directory line that matches `node`; null when no
// line does. The caller's reference keeps the driver alive after the
// directory has been replaced. With `driverName` and `line`, also that
// line's driver name and number (1 for the file's first line).
std::shared_ptr<Driver> RouteDestination(const std::string& node,
                                         std::string* driverName = nullptr,
                                         int* line = nullptr);

// Empties the directory: every destination is offline.
void ClearDestinations();

// True when `pattern` (at most one '*') matches the whole of `node`.
bool PatternMatches(const std::string& pattern, const std::string& node);

}  // namespace qmta::host::internal

#endif  // HOST_SERVICES_DESTINATIONS_H_
