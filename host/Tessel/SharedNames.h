// Attribute names shared between attributes. A tree repeats the same few names in every
// node of a kind ("a", "pos", "name"): a per-thread cache of recent short names hands out
// one copy of each, so that an attribute does not hold bytes of its own for a name that
// its siblings' cousins already hold.
//
// Thread contract: any thread; each thread has its own cache (the bytes it hands out
// are shared as any QByteArray's, with atomic reference counts).
#pragma once

#include <QByteArray>

namespace Tessel {

// A byte array equal to `name`: the cached one when this thread's cache holds it, else
// `name` itself, which the cache then keeps. Names longer than 32 bytes are seldom
// shared and are returned as they are, and so is every name once the thread's cache
// has been destroyed (while the thread ends).
QByteArray sharedName(const QByteArray& name);
// The same for `size` bytes at `bytes`, copied only when not cached.
QByteArray sharedName(const char* bytes, int size);

} // namespace Tessel
