// Node information (platform/envr.h): the server and node name the module
// asks for.
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>

#include "host/services/control.h"
#include "host/services/export.h"
#include "host/services/testhooks.h"
#include "platform/envr.h"

namespace {

// Guards nodeInfo and nodeInfoSet: taken by the program setting the name
// (SetServerName) and by every reader (ENVR_QueryInfo on the module's
// threads, ServerName on the query service's callers).
std::mutex nodeMutex;
ENVR_NodeInfo nodeInfo;
bool nodeInfoSet = false;
std::atomic<bool> nodeInfoFails{false};

// Both require nodeMutex.
void setName(const std::string& name) {
  memset(&nodeInfo, 0, sizeof nodeInfo);
  memcpy(nodeInfo.eyecatcher, "NODE", 4);
  strncpy(nodeInfo.serverName, name.c_str(), sizeof nodeInfo.serverName - 1);
  strncpy(nodeInfo.nodeName, name.c_str(), sizeof nodeInfo.nodeName - 1);
  nodeInfoSet = true;
}

void ensureName() {
  if (nodeInfoSet) return;
  char host[256] = {};
  if (gethostname(host, sizeof host - 1) != 0 || host[0] == '\0')
    strcpy(host, "localhost");
  setName(host);
}

}  // namespace

namespace qmta::host {

void SetServerName(const std::string& name) {
  std::lock_guard<std::mutex> hold(nodeMutex);
  setName(name);
}

std::string ServerName() {
  std::lock_guard<std::mutex> hold(nodeMutex);
  ensureName();
  return nodeInfo.serverName;
}

void SetNodeInfoFails(bool fails) { nodeInfoFails.store(fails); }

}  // namespace qmta::host

extern "C" QMTA_HOSTSVC_API int32_t ENVR_QueryInfo(int32_t /*request*/,
                                                   const ENVR_NodeInfo** info,
                                                   int32_t /*flags*/) {
  if (nodeInfoFails.load()) return 8;
  if (!info) return 4;
  std::lock_guard<std::mutex> hold(nodeMutex);
  ensureName();
  *info = &nodeInfo;
  return 0;
}
