// The source of `initial`: holds the whole tree of TreeContent as three typed maps from
// path to value, which a replica receives in full when it is acquired.
// Main thread only.
#pragma once

#include "rep_bench_source.h"

namespace QtroBench {

class TreeSource : public TreeStoreSimpleSource {
    Q_OBJECT
public:
    // Builds the first `attributes` attributes of TreeContent.
    explicit TreeSource(int attributes);
};

} // namespace QtroBench
