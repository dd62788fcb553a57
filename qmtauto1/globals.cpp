// Module-wide state and the action statements.
#include "qmtauto1/qmtauto1.h"

AutomationAnchor* tableAnchor = nullptr;
int32_t automationFlag = 1;
int32_t inDS = 1;
int32_t initOnce = 0;

const char kVxStatement[] =
    "SELECT RESULTS FROM QVX.VXEVENTS WHERE REQUESTID=? OR  (COMMAND=? AND "
    "CALLTYPE=? AND ORIGINNODE=?)";
const char kRmStatement[] =
    "SELECT RESULTS FROM QMT.RMEVENTS WHERE REQUESTID=? OR  (COMMAND=? AND "
    "CALLTYPE=? AND ORIGINNODE=?)";
// The same text as the RM events statement, held as a copy of its own.
const char kSnmpStatement[] =
    "SELECT RESULTS FROM QMT.RMEVENTS WHERE REQUESTID=? OR  (COMMAND=? AND "
    "CALLTYPE=? AND ORIGINNODE=?)";
