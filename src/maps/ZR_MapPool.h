// ZR_MapPool: each map of a backup exists once in the process. Maps are found
// by the identity of their backup (type, media family, media date and write
// date; or type and backup set GUID for compressed backups), counted by
// their users, and built by one creator while other threads wait.
//
// The list's own recursive lock guards the list, the reference counts and
// every call below. A waiter drops that lock while it waits, so the creator
// can reach SetCreateSuccess or SetCreateFailure. m_csPool is held by a
// backup around the pair of lookups for its extent and backup maps.
#pragma once

#include "foundation/AP.h"
#include "maps/X_MapFile.h"

class ZR_MapPool : public AP<X_MapFile> {
public:
    ZR_MapPool();
    ~ZR_MapPool();

    // A new map of type 1 (content), 2 (extent) or 3 (backup) with one
    // reference, in the list; null for another type.
    X_MapFile* Create(int iType);
    X_MapFile* Retrieve(int iType, uint32_t iFamilyId, const MTF_DATE_TIME& mediaDate,
                        const MTF_DATE_TIME& mediaWriteDate);
    X_MapFile* Retrieve(int iType, const GUID& guid);
    // Finds the map and adds a reference, or creates it. A caller that gets
    // a map whose GetIsCreated() is false is its creator and must end with
    // SetCreateSuccess or SetCreateFailure. Null when the creator failed.
    X_MapFile* RetrieveOrCreate(int iType, uint32_t iFamilyId, const MTF_DATE_TIME& mediaDate,
                                const MTF_DATE_TIME& mediaWriteDate);
    X_MapFile* RetrieveOrCreate(int iType, const GUID& guid);
    // Called with the list's lock held exactly once (RetrieveOrCreate does).
    void CreateOrWait(int iType, X_MapFile** ppMap);
    // Takes one reference; the last one removes the map and deletes it.
    void Release(X_MapFile* pMap);
    void SetCreateSuccess(X_MapFile* pMap);
    void SetCreateFailure(X_MapFile* pMap);
    // Takes a map that was found damaged out of every later lookup by key;
    // it stays listed until its last Release, since holders may still read
    // it. True for the call that retired it.
    bool Retire(X_MapFile* pMap);
    // Index of the map whose file has this name (any case), or -1.
    int Find(const wchar_t* wszName);

    CRITICAL_SECTION m_csPool;

private:
    int IndexOf(const X_MapFile* pMap);
    template <class Match>
    X_MapFile* RetrieveWhere(int iType, Match match);
};

extern ZR_MapPool g_MapPool;
