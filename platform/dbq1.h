// Query service of the host framework: paths to a server, access plans built
// from SQL text, prepared requests with descriptor areas (SQLDA), asynchronous
// opens completed through a routine of the caller's, result rows.
//
// A handle is copied by value. Every operation first compares the handle's
// check number with its object's own and returns DBQ1_STALE_HANDLE without
// acting when they differ; a released object never matches again.
#ifndef PLATFORM_DBQ1_H_
#define PLATFORM_DBQ1_H_

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct DBQ1_Handle {
  int16_t check;  // check number; 0 never belongs to a live object
  void* object;   // the service's object
} DBQ1_Handle;

// Statuses.
enum {
  DBQ1_OK = 0,
  DBQ1_STALE_HANDLE = 2,        // check number does not match the object
  DBQ1_BAD_ARGUMENT = 4,        // null pointer, wrong kind of handle
  DBQ1_NO_MEMORY = 8,           // the service could not allocate
  DBQ1_UNKNOWN_SERVER = 101,    // CreatePath to a server that is not ours
  DBQ1_UNKNOWN_STATEMENT = 102, // CreateAccessPlan with unrecognised SQL
  DBQ1_ALREADY_OPEN = 103,      // OpenRequest while an open is running
  DBQ1_CURSOR_NOT_OPEN = 104,   // Fetch without a completed open
  DBQ1_BAD_PARAMETER = 105,     // an input parameter does not fit
  DBQ1_ACTION_FAILED = 106,     // the destination could not run the action
  DBQ1_NO_MORE_ROWS = 514,      // Fetch found no further row
  DBQ1_DEST_OFFLINE = 2020      // the destination node is offline
};

// SQLDA column and parameter types.
enum {
  DBQ1_TYPE_CHAR = 452,    // characters, blank padded, no terminator
  DBQ1_TYPE_INTEGER = 496  // 4-byte signed integer in host byte order
};

typedef struct DBQ1_SqlVar {
  int16_t type;    // DBQ1_TYPE_*
  int16_t length;  // declared length in bytes
  void* data;      // `length` bytes owned by the service
  char name[33];   // column or parameter name
} DBQ1_SqlVar;

typedef struct DBQ1_Sqlda {
  char eyecatcher[4];  // "SQDA"
  int16_t count;       // number of entries in var
  DBQ1_SqlVar var[4];  // input: REQUESTID, COMMAND, CALLTYPE, ORIGINNODE;
                       // output: RESULTS (first 4 bytes: return code)
} DBQ1_Sqlda;

// Completion routine of asynchronous opens; runs on a query-service thread
// with the open's status and the user argument of the notification block.
typedef int32_t (*DBQ1_CompletionRoutine)(int32_t status, void* userArgument);

enum { DBQ1_NOTIFY_ROUTINE = 2 };

typedef struct DBQ1_AsyncNotify {
  int32_t kind;                    // DBQ1_NOTIFY_ROUTINE
  DBQ1_CompletionRoutine routine;  // called once per open
  void* userArgument;
} DBQ1_AsyncNotify;

// The local interface of the service, for DBQ1_CreatePath.
void* DBQ1_LocalInterface(void);

// Opens a path to `serverName`; only the host's own server is known.
int32_t DBQ1_CreatePath(const char* serverName, void* localInterface,
                        DBQ1_Handle* path);

// Builds an access plan from SQL text. Only the two action statements are
// recognised, exactly as written.
int32_t DBQ1_CreateAccessPlan(DBQ1_Handle path, const char* sql,
                              DBQ1_Handle* plan);

// Prepares a request on `plan`; opens of it complete through `notify`.
// Writes the request handle and, through `cursor`, its cursor handle.
int32_t DBQ1_CreateRequest(DBQ1_Handle path, DBQ1_Handle plan,
                           const DBQ1_AsyncNotify* notify,
                           DBQ1_Handle* request, DBQ1_Handle* cursor);

// The request's input SQLDA; it lives as long as the request.
int32_t DBQ1_GetInputSQLDA(DBQ1_Handle request, DBQ1_Sqlda** input);

// Releases a path, plan or request handle (a request's open is closed
// first, and its cursor goes with it). The handle never matches again.
int32_t DBQ1_DropHandle(DBQ1_Handle handle);

// Starts an asynchronous open with the bound parameters; the ORIGINNODE
// parameter names the destination node that runs the action. 0 means the
// open was started and its completion routine will be called once.
int32_t DBQ1_OpenRequest(DBQ1_Handle request, DBQ1_Sqlda* input);

// Ends the request's current open: work still running for it is stopped,
// no completion is delivered after this returns, and the rows are gone.
// Waits for a completion routine that is running at that moment, so it must
// not be called while holding a lock that the routine takes.
int32_t DBQ1_CloseRequest(DBQ1_Handle request);

// The cursor's output SQLDA (one column, RESULTS).
int32_t DBQ1_GetOutputSQLDA(DBQ1_Handle cursor, DBQ1_Sqlda** output);

// Moves the next result row into `output`: 0 with a row,
// DBQ1_NO_MORE_ROWS at the end, DBQ1_CURSOR_NOT_OPEN without a completed
// open.
int32_t DBQ1_Fetch(DBQ1_Handle cursor, DBQ1_Sqlda* output);

#ifdef __cplusplus
}
#endif

#endif  // PLATFORM_DBQ1_H_
