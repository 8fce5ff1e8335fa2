#include "Tessel/SharedNames.h"

#include "Basalt/NameCache.h"

namespace Tessel {

namespace {

// The thread's cache, reached through a pointer in initial-exec TLS: a load from the
// thread's block instead of a call to find a dynamic TLS block, for every name a tree
// shares. Null before the first use and once the thread's cache is gone (`ended`):
// then names are handed out unshared, and the holder's definition is not passed again
// (which, while the thread's other objects are destroyed, would be undefined).
thread_local Basalt::NameCache* current __attribute__((tls_model("initial-exec"))) = nullptr;
thread_local bool ended __attribute__((tls_model("initial-exec"))) = false;

struct Holder {
    Basalt::NameCache names;
    Holder() { current = &names; }
    ~Holder() {
        current = nullptr;
        ended = true;
    }
};

Basalt::NameCache* cache() {
    if (Basalt::NameCache* names = current)
        return names;
    if (ended)
        return nullptr;
    static thread_local Holder holder;
    return current;
}

} // namespace

QByteArray sharedName(const QByteArray& name) {
    Basalt::NameCache* const names = cache();
    return names ? names->share(name) : name;
}

QByteArray sharedName(const char* bytes, int size) {
    Basalt::NameCache* const names = cache();
    return names ? names->share(bytes, size) : QByteArray(bytes, size);
}

} // namespace Tessel
