// --stop of zirlane statements: the clause as a person types it, and a
// warning when its point lies outside the chain.
#pragma once

#include <string>

#include "mount/ZR_StopInfo.h"

class ZR_Database;

// The clause in the words of RESTORE, with quotes put round values typed
// without them (STOPAT=2017-06-01 13:00:00). A clause that still does not
// read is a usage error that shows the forms. *pClause receives what the
// library is given.
ZR_StopInfo ZirlaneParseStop(const std::string& typed, std::string* pClause);

// Tells on stderr when a stop time or LSN lies before the end of the full
// backup, which RESTORE refuses, or after the end of the chain's last
// backup, where RESTORE stops at the end and leaves the database restoring.
// Marks by name cannot be placed and pass without a word.
void ZirlaneWarnStopOutsideChain(const ZR_StopInfo& stop, ZR_Database& db);
