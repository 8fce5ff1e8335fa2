#include "Dovel/bundle/BundleWriter.h"

#include <stdexcept>

namespace Dovel {

void BundleWriterCore::writeDataAt(uint32_t pos, const void* data, uint32_t n) {
    // 64-bit sum, as for reads: a position near 2^32 must not wrap past the test.
    if (uint64_t(pos) + n > uint64_t(target->size()))
        throw std::out_of_range("BundleWriterCore::writeDataAt # tried to write past the end");
    if (n != 0)
        std::memcpy(target->mutablePacket().data() + pos, data, n);
}

} // namespace Dovel
