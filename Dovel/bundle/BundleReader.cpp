#include "Dovel/bundle/BundleReader.h"

#include <stdexcept>

namespace Dovel {

void BundleReaderCore::throwPastEnd() {
    throw std::out_of_range("BundleReader::read # tried to read past the end");
}

void BundleReaderCore::readBinary(QByteArray& out, uint32_t maxSize) {
    const uint32_t n = readUInt32();
    if (n > maxSize)
        throw std::invalid_argument("BundleReaderCore::readBinary # too many characters");
    // The bytes are bounds-checked before `out` is resized for them.
    const char* at = read(n);
    out.resize(int(n));
    if (n != 0)
        std::memcpy(out.data(), at, n);
}

void BundleReaderCore::readString(QByteArray& out, uint32_t maxSize) {
    const uint32_t n = readUInt32();
    if (n > maxSize)
        throw std::invalid_argument("BundleReaderCore::readString # too many characters");
    const char* at = read(n);
    if (n != 0 && std::memchr(at, 0, n) != nullptr)
        throw std::invalid_argument("BundleReaderCore::readString # size mismatch");
    out.resize(int(n));
    if (n != 0)
        std::memcpy(out.data(), at, n);
}

void BundleReaderCore::readString(QString& out, uint32_t maxSize) {
    QByteArray bytes;
    readString(bytes, maxSize);
    out = QString::fromUtf8(bytes);
}

} // namespace Dovel
