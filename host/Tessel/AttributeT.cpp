// The typed attributes that travel between processes are instantiated once here, so
// that every library shares one copy of their code and type information.
#include "Tessel/AttributeT.h"
#include "Tessel/AttributeContainer.h"

namespace Tessel {

// A tree's usual values, with malloc's 8 bytes, in heap blocks that come in steps of
// 16: a float or a string in 56 bytes (a 64-byte block), a vector in 64 (80).
static_assert(sizeof(void*) != 8 ||
                  (sizeof(AttributeT<float>) <= 56 && sizeof(AttributeT<QString>) <= 56 &&
                   sizeof(AttributeT<Quant::Vector3f>) <= 64),
              "a float or string attribute should stay in 56 bytes, a vector in 64");

#define TESSEL_INSTANTIATE(T)                                                                      \
    template class AttributeBaseT<T>;                                                              \
    template class AttributeT<T>;

TESSEL_INSTANTIATE(bool)
TESSEL_INSTANTIATE(int32_t)
TESSEL_INSTANTIATE(uint32_t)
TESSEL_INSTANTIATE(int64_t)
TESSEL_INSTANTIATE(uint64_t)
TESSEL_INSTANTIATE(float)
TESSEL_INSTANTIATE(double)
TESSEL_INSTANTIATE(Basalt::Color)
TESSEL_INSTANTIATE(Basalt::ColorPMA)
TESSEL_INSTANTIATE(Quant::Vector2i)
TESSEL_INSTANTIATE(Quant::Vector2f)
TESSEL_INSTANTIATE(Quant::Vector3i)
TESSEL_INSTANTIATE(Quant::Vector3f)
TESSEL_INSTANTIATE(Quant::Vector4i)
TESSEL_INSTANTIATE(Quant::Vector4f)
TESSEL_INSTANTIATE(Quant::Recti)
TESSEL_INSTANTIATE(Quant::Rectf)
TESSEL_INSTANTIATE(Quant::Rectd)
TESSEL_INSTANTIATE(Quant::Matrix2f)
TESSEL_INSTANTIATE(Quant::Matrix3f)
TESSEL_INSTANTIATE(Quant::Matrix4f)
TESSEL_INSTANTIATE(Basalt::TimeStamp)
TESSEL_INSTANTIATE(QString)
TESSEL_INSTANTIATE(QStringList)

#undef TESSEL_INSTANTIATE

template class AttributeContainer<std::vector<int32_t>>;
template class AttributeContainer<std::vector<uint32_t>>;
template class AttributeContainer<std::vector<float>>;
template class AttributeContainer<std::vector<Quant::Vector2f>>;
template class AttributeContainer<std::vector<QString>>;

} // namespace Tessel
