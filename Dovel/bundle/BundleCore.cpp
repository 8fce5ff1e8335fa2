#include "Dovel/bundle/BundleCore.h"

namespace Dovel {

void BundleCore::setHeader(uint32_t payloadSize, uint32_t messageType, uint32_t sequenceNumber,
                           uint32_t acknowledged) {
    setHeaderWord(PayloadSizeWord, payloadSize);
    setHeaderWord(MessageTypeWord, messageType);
    setHeaderWord(SequenceNumberWord, sequenceNumber);
    setHeaderWord(AcknowledgedWord, acknowledged);
}

} // namespace Dovel
