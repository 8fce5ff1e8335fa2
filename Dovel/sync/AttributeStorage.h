// The session attributes of one session, found by path, by local symbol and by the
// peer's symbol. Records live as long as the storage, also after removals, so that a
// re-added attribute keeps its symbols. They are kept side by side in blocks (never
// moved) and found through the local symbol of their path, which the remote node's
// registry holds: no path is kept here, and no allocation is made per record.
//
// The peer's symbols are bound to records in the session's PeerSymbols, by the local
// symbol of the record's path: one map serves the names and the records.
//
// Thread contract: look-ups take the read lock, creation and indexing the write lock;
// the records themselves are changed only on the tree thread, and so is everything
// about the peer's symbols (findByReadSymbol, bindReadSymbol, indexByReadSymbol).
#pragma once

#include "Dovel/sync/DovelSessionAttribute.h"

#include "Basalt/RwLock.h"
#include "Basalt/StableArray.h"
#include "Basalt/SymbolMap.h"

#include <QByteArray>

#include <cstdint>
#include <mutex>
#include <shared_mutex>
#include <vector>

namespace Dovel {

class PeerSymbols;
class RemoteNode;

class AttributeStorage {
public:
    // `peerSymbols` is the session's, and outlives the storage.
    AttributeStorage(RemoteNode& node, PeerSymbols& peerSymbols);
    ~AttributeStorage();
    AttributeStorage(const AttributeStorage&) = delete;
    AttributeStorage& operator=(const AttributeStorage&) = delete;

    // Null when there is no such record.
    DovelSessionAttribute* findByLocalSymbol(uint32_t symbol) const;
    DovelSessionAttribute* findByReadSymbol(uint32_t symbol) const;
    DovelSessionAttribute* findByPath(const QByteArray& path) const;
    // A batch of findByLocalSymbol under one read lock: out[i] is the record of
    // symbolAt(i) or null.
    template <typename SymbolAt>
    void findByLocalSymbols(size_t count, SymbolAt symbolAt,
                            std::vector<DovelSessionAttribute*>& out) const {
        std::shared_lock<Basalt::RwLock> locker(lock);
        out.resize(count);
        for (size_t i = 0; i < count; ++i)
            out[i] = at(byLocalSymbol.value(symbolAt(i)));
    }
    // A new record for the path, with the path's local symbol (defined when new; or
    // `symbol`, when the caller knows it already). An existing record of the path is
    // returned as it is.
    DovelSessionAttribute* createByPath(const QByteArray& path, uint32_t symbol = 0);
    // For each symbolAt(i): its record, else a new one when mayCreate(symbol), else null
    // (out[i]); what findByLocalSymbol and createByPath do, under one write lock.
    template <typename SymbolAt, typename MayCreate>
    void findOrCreateByLocalSymbols(size_t count, SymbolAt symbolAt, MayCreate mayCreate,
                                    std::vector<DovelSessionAttribute*>& out) {
        std::unique_lock<Basalt::RwLock> locker(lock);
        out.resize(count);
        for (size_t i = 0; i < count; ++i) {
            const uint32_t symbol = symbolAt(i);
            DovelSessionAttribute* record = at(byLocalSymbol.value(symbol));
            out[i] = record || !mayCreate(symbol) ? record : createLocked(QByteArray(), symbol);
        }
    }
    // Binds the peer's symbol to `record`; a symbol already bound to another record keeps
    // its binding (logged). A name of the symbol that waits (PeerSymbols) waits on.
    void indexByReadSymbol(uint32_t readSymbol, DovelSessionAttribute* record);
    // The record bound to the peer's `readSymbol`; when there is none, the record of
    // `path` (made as createByPath makes it), bound to it. What findByReadSymbol,
    // createByPath and indexByReadSymbol do in turn, under one write lock.
    // `localSymbol`, when not 0, is the path's local symbol, which the caller knows.
    // `*boundNow`, when given, tells whether the symbol was bound by this call (the record
    // is then the path's; one bound earlier may be another path's, once the peer has
    // bound the symbol anew). The caller settles the symbol's name (PeerSymbols::settle).
    DovelSessionAttribute* bindReadSymbol(uint32_t readSymbol, const QByteArray& path,
                                          uint32_t localSymbol = 0, bool* boundNow = nullptr);

    // Logs every record with its attribute's current value.
    void debugDump() const;
    int size() const;

private:
    // createByPath with the write lock held.
    DovelSessionAttribute* createLocked(const QByteArray& path, uint32_t symbol);
    // The record a map holds as `held` (its index in `records` plus one); null for 0.
    DovelSessionAttribute* at(uint32_t held) const {
        return held ? const_cast<DovelSessionAttribute*>(&records[held - 1]) : nullptr;
    }

    RemoteNode& node;
    PeerSymbols& peerSymbols;
    mutable Basalt::RwLock lock;
    // Owns the records, which never move, in blocks of 2048 (64 KiB).
    Basalt::StableArray<DovelSessionAttribute, 11> records;
    // Local symbols are dense. The map holds a record as its index in `records` plus
    // one: four bytes a slot where a pointer took eight, for a million slots.
    Basalt::SymbolMap<uint32_t> byLocalSymbol;
    // The size of the local registry when last asked: local symbols stay below it, so
    // once the records are an eighth of it, those made in another order than their
    // symbols (a first pass walks the tree in its own order) are kept in pages up to it
    // rather than hashed first.
    int localSymbols = 0;
};

} // namespace Dovel
