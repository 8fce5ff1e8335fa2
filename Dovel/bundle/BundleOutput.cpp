#include "Dovel/bundle/BundleOutput.h"

namespace Dovel {

bool BundleOutput::finish(Bundle& bundle, uint32_t messageType) {
    const uint32_t size = bundle.size();
    if (size <= BundleCore::HeaderSize)
        return false;
    bundle.setHeader(size - BundleCore::HeaderSize, messageType, sequence(), acknowledged());
    add(bundle);
    bundle.mutablePacket().resize(int(BundleCore::HeaderSize));
    return true;
}

} // namespace Dovel
