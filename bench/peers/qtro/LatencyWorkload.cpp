#include "Workloads.h"
namespace QtroBench {
int runLatency(const BenchOptions&, BenchReport&) {
    return 1;
}
} // namespace QtroBench
