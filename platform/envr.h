// Node-information service of the host framework.
#ifndef PLATFORM_ENVR_H_
#define PLATFORM_ENVR_H_

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ENVR_NodeInfo {
  char eyecatcher[4];   // "NODE"
  char serverName[10];  // the local server's name, at most 9 characters
  char nodeName[33];    // the local node's name, at most 32 characters
} ENVR_NodeInfo;

// Called with 0, the address of a pointer and 0. On success (0) stores a
// pointer to the host's node-information record, which lives as long as the
// process. Non-zero when the host has no node information.
int32_t ENVR_QueryInfo(int32_t request, const ENVR_NodeInfo** info,
                       int32_t flags);

#ifdef __cplusplus
}
#endif

#endif  // PLATFORM_ENVR_H_
