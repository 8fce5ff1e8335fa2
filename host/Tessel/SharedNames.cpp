#include "Tessel/SharedNames.h"

#include "Basalt/NameCache.h"

namespace Tessel {

namespace {

Basalt::NameCache& cache() {
    static thread_local Basalt::NameCache names;
    return names;
}

} // namespace

QByteArray sharedName(const QByteArray& name) {
    return cache().share(name);
}

QByteArray sharedName(const char* bytes, int size) {
    return cache().share(bytes, size);
}

} // namespace Tessel
