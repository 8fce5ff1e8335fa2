#include "Workloads.h"
namespace QtroBench {
int runInitial(const BenchOptions&, BenchReport&) {
    return 1;
}
} // namespace QtroBench
