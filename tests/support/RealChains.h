// The chains of the real backups of versions 9 and 10 that a mount must
// serve, by a name: each full backup alone (a striped one in reverse stripe
// order, one moved, each data set of a file of two), each full backup with
// its own differential, and a chain of logs to a stop.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "support/ServiceMount.h"

namespace zrtest {

struct RealChain {
    std::string strName;
    MountRequest request;  // paths relative to the test data folder
};

// gtest names a chain by its name.
void PrintTo(const RealChain& chain, std::ostream* pOut);

const std::vector<RealChain>& RealChains();

// The request with its paths in the test data folder, which must exist.
MountRequest InTestData(MountRequest request);

}  // namespace zrtest
