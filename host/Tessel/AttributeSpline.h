// An attribute holding a spline as its control points, without layers. Lives on the
// tree thread.
#pragma once

#include "Tessel/Attribute.h"

#include "Quant/Vector.h"

#include <vector>

namespace Tessel {

class AttributeSpline : public Attribute {
public:
    AttributeSpline();
    AttributeSpline(Node* host, const QByteArray& name);
    ~AttributeSpline() override;

    QByteArray type() const override;

    const std::vector<Quant::Vector2f>& points() const { return controlPoints; }
    // Stores a copy of the points and fires one change.
    void setPoints(const std::vector<Quant::Vector2f>& points);

    // Changed means: differs from the points recorded by setAsDefaults.
    bool isChanged() const override;
    bool isValueDefinedOnLayer(Layer) const override { return true; }
    void setAsDefaults() override;

private:
    std::vector<Quant::Vector2f> controlPoints;
    std::vector<Quant::Vector2f> defaults;
};

} // namespace Tessel
