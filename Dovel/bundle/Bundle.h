// A bundle as it travels: a BundleCore that, when built from received bytes, has been
// checked to hold a whole header whose payload size matches the bytes. Value type;
// same thread contract as BundleCore.
#pragma once

#include "Dovel/bundle/BundleCore.h"

namespace Dovel {

class Bundle : public BundleCore {
public:
    // A 16-byte packet whose header words are all 0: an empty bundle ready to fill.
    Bundle();
    // Shares `packet` after checking it. Throws std::invalid_argument when it is shorter
    // than the header or when header word 0 + 16 differs from its size.
    explicit Bundle(const QByteArray& packet);

    // The first header word. The packet buffer is at least 8-byte aligned; prefer
    // headerWord() where a copy will do.
    const uint32_t* header() const {
        return reinterpret_cast<const uint32_t*>(packet().constData());
    }

    // n rounded up to a multiple of 4, in 32-bit arithmetic.
    static uint32_t align4(uint32_t n) { return (n + 3u) & ~3u; }
};

} // namespace Dovel
