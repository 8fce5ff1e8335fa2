#include "Dovel/types/VariantCodecs.h"

#include <stdexcept>
#include <string>

namespace Dovel {
namespace Detail {

void throwNotConvertible(const char* typeName) {
    throw std::invalid_argument(std::string("Given QVariant can't be converted to ") +
                                (typeName ? typeName : "?"));
}

} // namespace Detail
} // namespace Dovel
