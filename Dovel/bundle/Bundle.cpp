#include "Dovel/bundle/Bundle.h"

#include <stdexcept>

namespace Dovel {

Bundle::Bundle() : BundleCore(QByteArray(int(HeaderSize), '\0')) {}

Bundle::Bundle(const QByteArray& packet) : BundleCore(packet) {
    if (packet.size() < int(HeaderSize))
        throw std::invalid_argument("Bundle::Bundle # Corrupted packet, header is missing");
    if (uint32_t(headerWord(PayloadSizeWord) + HeaderSize) != uint32_t(packet.size()))
        throw std::invalid_argument("Bundle::Bundle # Corrupted packet");
}

} // namespace Dovel
