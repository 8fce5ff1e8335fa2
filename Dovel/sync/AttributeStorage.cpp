#include "Dovel/sync/AttributeStorage.h"

#include "Dovel/bundle/PeerSymbols.h"
#include "Dovel/sync/RemoteNode.h"

#include "Basalt/Trace.h"
#include "Tessel/Attribute.h"

#include <QRegExp>

#include <algorithm>

namespace Dovel {

AttributeStorage::AttributeStorage(RemoteNode& node, PeerSymbols& peerSymbols)
    : node(node), peerSymbols(peerSymbols) {}

AttributeStorage::~AttributeStorage() = default;

DovelSessionAttribute* AttributeStorage::findByLocalSymbol(uint32_t symbol) const {
    std::shared_lock<Basalt::RwLock> locker(lock);
    return at(byLocalSymbol.value(symbol));
}

DovelSessionAttribute* AttributeStorage::findByReadSymbol(uint32_t symbol) const {
    const uint32_t bound = peerSymbols.boundTo(symbol);
    return bound ? findByLocalSymbol(bound) : nullptr;
}

DovelSessionAttribute* AttributeStorage::findByPath(const QByteArray& path) const {
    const uint32_t symbol = node.symbolRegistry().lookup(path);
    return symbol ? findByLocalSymbol(symbol) : nullptr;
}

DovelSessionAttribute* AttributeStorage::createByPath(const QByteArray& path, uint32_t symbol) {
    std::unique_lock<Basalt::RwLock> locker(lock);
    return createLocked(path, symbol);
}

DovelSessionAttribute* AttributeStorage::bindReadSymbol(uint32_t readSymbol, const QByteArray& path,
                                                        uint32_t localSymbol, bool* boundNow) {
    std::unique_lock<Basalt::RwLock> locker(lock);
    if (const uint32_t symbol = peerSymbols.boundTo(readSymbol))
        if (DovelSessionAttribute* bound = at(byLocalSymbol.value(symbol))) {
            if (boundNow)
                *boundNow = false;
            return bound;
        }
    if (boundNow)
        *boundNow = true;
    DovelSessionAttribute* record = createLocked(path, localSymbol);
    peerSymbols.bind(readSymbol, record->localSymbol);
    return record;
}

DovelSessionAttribute* AttributeStorage::createLocked(const QByteArray& path, uint32_t symbol) {
    if (!symbol)
        symbol = node.symbolRegistry().lookupOrDefine(path);
    if (const uint32_t known = byLocalSymbol.value(symbol))
        return at(known);
    DovelSessionAttribute* record = &records.emplaceBack();
    const uint32_t held = uint32_t(records.size());
    record->localSymbol = symbol;
    // The registry's reach only for a session that holds records for a good part of it:
    // pages follow what the records hold, not every name this side ever had.
    if (!byLocalSymbol.inPagesWith(symbol, localSymbols))
        localSymbols = node.symbolRegistry().size();
    const int indexed = byLocalSymbol.size() + 1;
    byLocalSymbol.insert(symbol, held, indexed >= localSymbols / 8 ? localSymbols : indexed);
    return record;
}

void AttributeStorage::indexByReadSymbol(uint32_t readSymbol, DovelSessionAttribute* record) {
    std::unique_lock<Basalt::RwLock> locker(lock);
    const uint32_t symbol = peerSymbols.boundTo(readSymbol);
    DovelSessionAttribute* const bound = symbol ? at(byLocalSymbol.value(symbol)) : nullptr;
    if (bound && bound != record) {
        Basalt::Trace::error(
            "AttributeStorage::indexByReadSymbol # Symbol already points to some other "
            "session attribute");
        return;
    }
    if (record)
        peerSymbols.bind(readSymbol, record->localSymbol);
}

void AttributeStorage::debugDump() const {
    std::shared_lock<Basalt::RwLock> locker(lock);
    static const QRegExp lastComponent("([^/]+)$");
    for (size_t i = 0; i < records.size(); ++i) {
        const DovelSessionAttribute& record = records[i];
        const QByteArray path = node.symbolRegistry().lookup(record.localSymbol);
        Tessel::Attribute* attribute = node.attributeCache().find(record.localSymbol);
        const QByteArray value =
            attribute ? attribute->asString().toUtf8() : QByteArrayLiteral("<missing>");
        if (path.startsWith("schema/")) {
            QRegExp match(lastComponent);
            const QString name = match.indexIn(QString::fromUtf8(path)) >= 0
                                     ? match.cap(1)
                                     : QString::fromUtf8(path);
            Basalt::Trace::info("%-20s: %s\n", name.toUtf8().constData(), value.constData());
            continue;
        }
        QByteArray state = QByteArray(" [local ") + QByteArray::number(record.localSymbol) +
                           " type " + QByteArray::number(record.typeCode()) + "]";
        if (record.announcedByPeer)
            state += " announced";
        if (!record.localOrigin)
            state += " peer-created";
        if (record.removedByPeer)
            state += " removed-by-peer";
        if (record.removedLocally)
            state += " removed-locally";
        Basalt::Trace::info("%-70s %s%s\n", path.constData(), value.constData(), state.constData());
    }
}

int AttributeStorage::size() const {
    std::shared_lock<Basalt::RwLock> locker(lock);
    return int(records.size());
}

} // namespace Dovel
