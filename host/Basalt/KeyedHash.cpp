#include "Basalt/KeyedHash.h"

#include <QRandomGenerator>

namespace Basalt {

const uint64_t* processHashKey() {
    static const uint64_t key[2] = {QRandomGenerator::system()->generate64(),
                                    QRandomGenerator::system()->generate64()};
    return key;
}

} // namespace Basalt
