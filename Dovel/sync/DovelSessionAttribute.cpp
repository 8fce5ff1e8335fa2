#include "Dovel/sync/DovelSessionAttribute.h"

namespace Dovel {

Deserializer skippingDeserializer(uint32_t fixedSize) {
    return [fixedSize](BundleReaderCore& reader) {
        reader.read(fixedSize != 0 ? fixedSize : reader.readUInt32());
    };
}

} // namespace Dovel
