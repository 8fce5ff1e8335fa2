#include "Dovel/bundle/BundleOutput.h"

#include "Dovel/Limits.h"

#include <algorithm>
#include <utility>

namespace Dovel {

bool BundleOutput::finish(Bundle& bundle, uint32_t messageType) {
    const uint32_t size = bundle.size();
    if (size <= BundleCore::HeaderSize)
        return false; // the sender goes on in it
    finishWritten(std::move(bundle), messageType);
    // The output holds the finished bytes; the sender goes on in a packet of its own.
    // One that filled a large bundle is likely to fill another: its room is taken at
    // once, instead of doubling up from the header and copying at each step.
    bundle = Bundle();
    // (Not beyond what a sender fills before it starts another: a bundle made large by
    // one big value says nothing of the next.)
    if (size >= LargeBundleBytes)
        bundle.mutablePacket().reserve(
            int(std::min<uint32_t>(size, BundleCore::HeaderSize + Limits::SentBundleBytes)));
    return true;
}

bool BundleOutput::finishWritten(Bundle bundle, uint32_t messageType) {
    const uint32_t size = bundle.size();
    if (size <= BundleCore::HeaderSize)
        return false;
    bundle.setHeader(size - BundleCore::HeaderSize, messageType, sequence(), acknowledged());
    add(bundle);
    return true;
}

} // namespace Dovel
