#include "Dovel/types/ValueEncodings.h"

#include <stdexcept>

namespace Dovel {

void GridEncoding::write(BundleWriterCore& writer, const Basalt::MemGrid8u& grid) {
    const uint32_t cellBytes = uint32_t(grid.byteCount());
    writer.writeUInt32(cellBytes + 4);
    writer.writeUInt32(uint32_t(grid.width()));
    writer.writeData(grid.data(), cellBytes);
}

Basalt::MemGrid8u GridEncoding::read(BundleReaderCore& reader) {
    Basalt::MemGrid8u grid;
    read(reader,
         [&grid](const uint8_t* cells, int width, int height) { grid.set(cells, width, height); });
    return grid;
}

void GridEncoding::throwNotEnoughData() {
    throw std::out_of_range("AttributeGrid deserialize # not enough data");
}

} // namespace Dovel
