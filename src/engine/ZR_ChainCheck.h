// The chain of a mount as the backups themselves tell it, checked before a
// mount succeeds: SQL Server would refuse a broken chain only when it ran
// the statements, after the caller had been told that all was well.
//
// A chain holds together when every backup is of the database of the full
// backup (the same family and binding ids), the differential was taken over
// the full backup (its base LSN is the full backup's checkpoint), the first
// log covers the last LSN of the backup in front of it (the differential,
// or the full backup when there is none), and each further log begins where
// the one before it ended. A stop clause does not change which logs must
// connect: it only ends the last restore early.
//
// The backups must have their content (ZR_Backup::PrepareContent). Runs on
// the thread that prepares them; reads the configuration of the content
// maps and nothing else.
#pragma once

class ZR_Backup;
class ZR_Database;

// The chain in mount order: apBackups[0] the full backup, [1] the
// differential or null, then the logs (a null entry is passed over). False
// when two backups do not fit, with a message under wszKey that names both
// files and what does not fit.
bool ZR_CheckChain(ZR_Backup* const* apBackups, int iCount, const wchar_t* wszKey);

// The chain of a mounted database, under its mount key.
bool ZR_CheckChain(ZR_Database& db);
