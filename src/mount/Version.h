// What this build of the library is and which backups it serves, for the
// tools that tell their users (zirlane --version).
#pragma once

// The library's version, that of the project it was built from ("0.1.0").
const char* ZR_LibraryVersion();

// The SQL Server backups that this build serves, in lines of text that end
// with a line feed.
const char* ZR_ServedBackups();
