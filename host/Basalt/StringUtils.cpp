#include "Basalt/StringUtils.h"

#include <cxxabi.h>

#include <cstdlib>

namespace Basalt {
namespace StringUtils {

QByteArray demangle(const char* mangled) {
    if (mangled == nullptr)
        return QByteArray();
    int status = 0;
    char* readable = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
    if (status != 0 || readable == nullptr) {
        std::free(readable);
        return QByteArray(mangled);
    }
    QByteArray result(readable);
    std::free(readable);
    return result;
}

} // namespace StringUtils
} // namespace Basalt
