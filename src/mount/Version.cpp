#include "mount/Version.h"

const char* ZR_LibraryVersion() { return ZR_VERSION_TEXT; }

// The real backups of the test data prove versions 9 and 10; 7 and 8 are
// read by the same code with their own record layouts, proved on synthetic
// backups only.
const char* ZR_ServedBackups() {
    return "Serves native backups of SQL Server 2005 and 2008 (versions 9 and 10).\n"
           "Knows the layouts of SQL Server 7 and 2000 (versions 7 and 8), untested on real backups.\n"
           "Does not serve compressed backups yet.\n";
}
