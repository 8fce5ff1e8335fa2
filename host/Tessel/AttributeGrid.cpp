#include "Tessel/AttributeGrid.h"

namespace Tessel {

AttributeGrid<uint8_t>::AttributeGrid() = default;

AttributeGrid<uint8_t>::AttributeGrid(Node* host, const QByteArray& name) : Attribute(host, name) {}

AttributeGrid<uint8_t>::~AttributeGrid() {
    aboutToBeDestroyed();
}

QByteArray AttributeGrid<uint8_t>::type() const {
    return "grid";
}

void AttributeGrid<uint8_t>::setGrid(const uint8_t* data, int width, int height) {
    if (width < 0 || height < 0)
        width = height = 0;
    cells.set(data, width, height);
    emitChange();
}

} // namespace Tessel
