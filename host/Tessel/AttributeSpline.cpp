#include "Tessel/AttributeSpline.h"

namespace Tessel {

AttributeSpline::AttributeSpline() = default;

AttributeSpline::AttributeSpline(Node* host, const QByteArray& name) : Attribute(host, name) {}

AttributeSpline::~AttributeSpline() {
    aboutToBeDestroyed();
}

QByteArray AttributeSpline::type() const {
    return "spline";
}

void AttributeSpline::setPoints(const std::vector<Quant::Vector2f>& points) {
    controlPoints = points;
    emitChange();
}

bool AttributeSpline::isChanged() const {
    return controlPoints != defaults;
}

void AttributeSpline::setAsDefaults() {
    defaults = controlPoints;
}

} // namespace Tessel
