// Small text helpers. Thread-safe.
#pragma once

#include <QByteArray>

namespace Basalt {
namespace StringUtils {

// A readable type name from a compiler (Itanium ABI) type name; the input itself when
// it cannot be demangled.
QByteArray demangle(const char* mangled);

} // namespace StringUtils
} // namespace Basalt
