// An attribute holding a two-dimensional grid of cells, without layers; only
// AttributeGrid<uint8_t> (a Basalt::MemGrid8u) exists. Lives on the tree thread.
#pragma once

#include "Tessel/Attribute.h"

#include "Basalt/MemGrid8u.h"

#include <cstdint>

namespace Tessel {

template <typename Cell> class AttributeGrid;

template <> class AttributeGrid<uint8_t> : public Attribute {
public:
    AttributeGrid();
    AttributeGrid(Node* host, const QByteArray& name);
    ~AttributeGrid() override;

    QByteArray type() const override;

    const Basalt::MemGrid8u& grid() const { return cells; }
    // Copies width x height bytes (data may be null when that is 0) and fires one
    // change, whether or not the cells differ.
    void setGrid(const uint8_t* data, int width, int height);

    // Changed means: differs from the grid recorded by setAsDefaults.
    bool isChanged() const override { return cells != defaults; }
    bool isValueDefinedOnLayer(Layer) const override { return true; }
    void setAsDefaults() override { defaults = cells; }

private:
    Basalt::MemGrid8u cells;
    Basalt::MemGrid8u defaults;
};

} // namespace Tessel
