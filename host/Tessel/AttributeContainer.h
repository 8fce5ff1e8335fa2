// An attribute whose value is a whole container, without layers:
// AttributeContainer<std::vector<E>>, used for E = int32_t, uint32_t, float,
// Quant::Vector2f and QString. Lives on the tree thread.
//
// Replacing the content in place goes through data() followed by one emitChange();
// setValue() does both, and fires only when the new content differs.
#pragma once

#include "Tessel/Attribute.h"

#include "Quant/Vector.h"

#include <QString>

#include <cstdint>
#include <vector>

namespace Tessel {

template <typename Container> class AttributeContainer;

template <typename E> class AttributeContainer<std::vector<E>> : public Attribute {
public:
    using ValueType = std::vector<E>;
    using ElementType = E;

    AttributeContainer() = default;
    AttributeContainer(Node* host, const QByteArray& name) : Attribute(host, name) {}
    AttributeContainer(Node* host, const QByteArray& name, const ValueType& initial)
        : Attribute(host, name), content(initial), defaults(initial) {}
    ~AttributeContainer() override { aboutToBeDestroyed(); }

    QByteArray type() const override { return "AttributeContainerT"; }

    const ValueType& value() const { return content; }
    // In-place access; call emitChange() once done.
    ValueType& data() { return content; }
    void setValue(const ValueType& value) {
        if (value == content)
            return;
        content = value;
        emitChange();
    }

    // Changed means: differs from the content recorded by setAsDefaults (or the
    // initial content).
    bool isChanged() const override { return content != defaults; }
    bool isValueDefinedOnLayer(Layer) const override { return true; }
    void setAsDefaults() override { defaults = content; }

private:
    ValueType content;
    ValueType defaults;
};

// Instantiated once in the library (AttributeT.cpp).
extern template class AttributeContainer<std::vector<int32_t>>;
extern template class AttributeContainer<std::vector<uint32_t>>;
extern template class AttributeContainer<std::vector<float>>;
extern template class AttributeContainer<std::vector<Quant::Vector2f>>;
extern template class AttributeContainer<std::vector<QString>>;

} // namespace Tessel
