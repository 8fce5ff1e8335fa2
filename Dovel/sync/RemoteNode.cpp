#include "Dovel/sync/RemoteNode.h"

#include "Dovel/Limits.h"

#include "Basalt/Trace.h"
#include "Tessel/AttributeAlias.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstring>

namespace Dovel {

using Tessel::Attribute;
using Tessel::AttributeAlias;
using Tessel::Node;

namespace {

// Ids of sliced events, shared by every remote node: any thread may slice.
std::atomic<uint32_t> sliceCounter{0};

// The rule every remote node starts with: attributes named "id" stay local.
const char IdRule[] = "(^|/)id$";

bool isIdRule(const QRegExp& expression) {
    return expression.patternSyntax() == QRegExp::RegExp &&
           expression.caseSensitivity() == Qt::CaseSensitive &&
           expression.pattern() == QLatin1String(IdRule);
}

bool matches(const QRegExp& expression, const QByteArray& path) {
    // With its size: a name may hold zero bytes, where the plain conversion would stop.
    return expression.indexIn(QString::fromUtf8(path.constData(), path.size()), 0) >= 0;
}

} // namespace

RemoteNode::RemoteNode(Node* host, const QByteArray& name)
    : Node(host, name), registry(std::make_unique<Basalt::SymbolRegistry>()),
      cache(std::make_unique<AttributeCache>()), flags(std::make_unique<SyncFlags>()) {
    eventAddOut("initialized");
    eventAddOut("destroyed");
    // Each side keeps its own ids.
    setSyncFlags(QRegExp(QLatin1String(IdRule), Qt::CaseSensitive, QRegExp::RegExp),
                 SyncFlags::Local);
    nodeWatcher = std::make_unique<NodeWatcher>(*registry, *cache);
    nodeWatcher->addListener([this](const NodeWatcher::Event& event) { onWatcherEvent(event); });
    nodeWatcher->startWatching(*this, true);
}

RemoteNode::~RemoteNode() {
    eventSend("destroyed");
    // The watcher goes first so that the children's removal below reports nothing; they
    // are deleted here, while this object is still whole.
    nodeWatcher.reset();
    aboutToBeDestroyed();
}

void RemoteNode::onWatcherEvent(const NodeWatcher::Event& event) {
    switch (event.type) {
    case NodeWatcher::AttributeAdded:
        if (!pendingListeners.empty() || !syncFlagRules.empty()) {
            checkForPendingListeners(event.symbol);
            checkForSyncFlags(event.symbol);
        }
        queueChanged(event.symbol);
        break;
    case NodeWatcher::AttributeChanged:
        queueChanged(event.symbol);
        break;
    case NodeWatcher::AttributeRemoved: {
        // A later change queues it again.
        std::lock_guard<std::mutex> locker(changedMutex);
        changedSet.remove(event.symbol);
        break;
    }
    default:
        break;
    }
}

void RemoteNode::queueChanged(unsigned int symbol) {
    if (!anySymbolListener.load(std::memory_order_acquire))
        return; // update() would drop it unread
    std::lock_guard<std::mutex> locker(changedMutex);
    if (changedSet.contains(symbol))
        return;
    // Listed first: what the set holds must be in the list, which empties it.
    changedList.push_back(symbol);
    changedSet.insert(symbol);
}

void RemoteNode::checkForPendingListeners(unsigned int symbol) {
    if (pendingListeners.empty())
        return;
    const QByteArray path = registry->lookup(symbol);
    for (int i = 0; i < int(pendingListeners.size()); ++i) {
        if (matches(pendingListeners[i].first, path))
            listenTo(symbol, i, pendingListeners[i].second);
    }
}

void RemoteNode::checkForSyncFlags(unsigned int symbol) {
    if (syncFlagRules.empty())
        return;
    // Rules are matched against every attribute added to the tree: the id rule reads the
    // leaf alone (the name of the attribute whose addition is being reported, else the
    // registry's), without the path, the conversion to text and the expression engine;
    // the path is built only for a rule that needs it.
    static const QByteArray Id = QByteArrayLiteral("id");
    const Attribute* const added = nodeWatcher->reportedAddition(symbol);
    QByteArray path;
    for (const SyncFlagRule& rule : syncFlagRules) {
        if (!rule.isIdRule && path.isNull())
            path = registry->lookup(symbol);
        const bool hit = !rule.isIdRule ? matches(rule.pattern, path)
                         : added        ? added->name() == Id
                                        : registry->hasLeaf(symbol, Id);
        if (hit)
            flags->setFlags(symbol, rule.flag);
    }
}

void RemoteNode::setSyncFlags(const QRegExp& pattern, SyncFlags::Flag flag) {
    updateSyncFlags(pattern, flag);
    syncFlagRules.push_back({pattern, flag, isIdRule(pattern)});
}

void RemoteNode::updateSyncFlags(const QRegExp& pattern, SyncFlags::Flag flag) {
    walkAttributesWithPath(*this, [&](Attribute&, const QByteArray& path) {
        if (!matches(pattern, path))
            return;
        if (const unsigned int symbol = registry->lookup(path))
            flags->setFlags(symbol, flag);
    });
}

QRegExp RemoteNode::makeRegExp(const QString& pattern) {
    QString expression = QRegExp::escape(pattern);
    expression.replace(QLatin1String("\\*\\*"), QLatin1String(".+"));
    expression.replace(QLatin1String("\\*"), QLatin1String("[^/]+"));
    return QRegExp(QLatin1Char('^') + expression + QLatin1Char('$'), Qt::CaseSensitive,
                   QRegExp::RegExp);
}

void RemoteNode::onChangeImpl(const QRegExp& expression, std::function<void(Attribute*)> callback) {
    const int index = int(pendingListeners.size());
    pendingListeners.emplace_back(expression, callback);
    std::vector<unsigned int> found;
    walkAttributesWithPath(*this, [&](Attribute&, const QByteArray& path) {
        if (!matches(expression, path))
            return;
        if (const unsigned int symbol = registry->lookup(path))
            found.push_back(symbol);
    });
    for (unsigned int symbol : found) {
        listenTo(symbol, index, callback);
        queueChanged(symbol);
    }
}

void RemoteNode::listenTo(unsigned int symbol, int index,
                          const std::function<void(Attribute*)>& callback) {
    symbolListeners[symbol].emplace(index, callback);
    anySymbolListener.store(true, std::memory_order_release);
}

void RemoteNode::processPendingAdditions() {
    nodeWatcher->update();
}

void RemoteNode::update() {
    nodeWatcher->update();
    std::vector<unsigned int>& changed = changedTaken;
    {
        std::lock_guard<std::mutex> locker(changedMutex);
        changed.swap(changedList);
        for (unsigned int symbol : changed)
            changedSet.remove(symbol);
    }
    if (symbolListeners.isEmpty()) {
        // Kept with its capacity for the next swap, unless a burst left far more.
        clearAndTrim(changed, changed.size());
        return;
    }
    // A callback may call update() again; it then works on a list of its own.
    std::vector<unsigned int> working;
    working.swap(changed);
    for (unsigned int symbol : working) {
        auto it = symbolListeners.constFind(symbol);
        if (it == symbolListeners.constEnd())
            continue;
        // A copy: a callback may register further pattern callbacks.
        const auto callbacks = it.value();
        Attribute* attribute = cache->find(symbol);
        for (const auto& entry : callbacks)
            entry.second(attribute);
    }
    working.clear();
    if (changedTaken.capacity() < working.capacity())
        changedTaken.swap(working);
}

bool RemoteNode::addNode(const QByteArray& path, Node* node) {
    return addDeepAttribute(path, node);
}

bool RemoteNode::addDeepAttribute(const QByteArray& fullName, Attribute* attribute) {
    if (fullName.startsWith('/')) {
        Basalt::Trace::error("RemoteNode::addDeepAttribute # full name shouldn't start with "
                             "'/': %s",
                             fullName.constData());
        return false;
    }
    if (!attribute) {
        Basalt::Trace::error("RemoteNode::addDeepAttribute # got a null attribute. Ignoring");
        return false;
    }
    const QList<QByteArray> parts = fullName.split('/');
    Node* current = this;
    for (int i = 0; i + 1 < parts.size(); ++i) {
        if (Attribute* existing = current->attribute(parts[i])) {
            auto* node = Tessel::asNode(AttributeAlias::resolve(existing));
            if (!node) {
                Basalt::Trace::error("RemoteNode::addDeepAttribute # Failed to add attribute. An "
                                     "attribute already exists on the path where a node is "
                                     "expected.");
                return false;
            }
            current = node;
        } else {
            current = new Node(current, parts[i]); // owned by its host
        }
    }
    return current->addAttribute(parts.last(), attribute);
}

long RemoteNode::addAttributeChangeListener(const ChangeListener& callback) {
    return nodeWatcher->addListener(callback);
}

void RemoteNode::removeAttributeChangeListener(long id) {
    nodeWatcher->removeListener(id);
}

long RemoteNode::addEventListener(const EventListener& callback) {
    return eventListeners.add(callback);
}

void RemoteNode::removeEventLIstener(long id) {
    eventListeners.remove(id);
}

bool RemoteNode::handlingRemoteEvent(const QByteArray& name, const Basalt::BinaryData& data) const {
    return remoteEventName == &name && remoteEventData == &data;
}

void RemoteNode::eventProcess(const QByteArray& name, Basalt::BinaryData& data) {
    if (handlingRemoteEvent(name, data)) {
        Node::eventProcess(name, data);
        return;
    }
    insertEvent(name, data);
}

void RemoteNode::insertEvent(const QByteArray& name, const Basalt::BinaryData& data) {
    Event event;
    event.data = data;
    event.data.rewind();
    event.symbol = registry->lookupOrDefine(name);
    eventListeners.call(event);
}

void RemoteNode::dispatchRemoteEvent(const QByteArray& name, Basalt::BinaryData& data) {
    // Saved and restored, not cleared: a listener may raise an event of its own while
    // another received event is being delivered.
    const QByteArray* savedName = remoteEventName.load();
    const Basalt::BinaryData* savedData = remoteEventData.load();
    remoteEventName = &name;
    remoteEventData = &data;
    eventProcess(name, data);
    remoteEventName = savedName;
    remoteEventData = savedData;
}

void RemoteNode::eventProcessSlice(const QByteArray& name, Basalt::BinaryData& data,
                                   std::size_t sliceSize) {
    if (sliceSize == 0) {
        Basalt::Trace::error("RemoteNode::eventProcessSlice # slice size 0 for '%s'",
                             name.constData());
        return;
    }
    const int total = data.size();
    // A slice larger than the data is the data in one slice.
    const int slice = int(std::min<std::size_t>(sliceSize, std::size_t(std::max(total, 1))));
    const int count = (total + slice - 1) / slice;
    if (count == 0) {
        eventProcess(name, data);
        return;
    }
    const int32_t id = int32_t(sliceCounter.fetch_add(1));
    const QByteArray beginName("event-slice-begin");
    Basalt::BinaryData begin;
    begin.writeInt32(id);
    begin.write(name);
    begin.writeInt32(slice);
    begin.writeInt64(total);
    eventProcess(beginName, begin);

    const QByteArray sliceName("event-slice");
    Basalt::BinaryData part;
    for (int i = 0; i < count; ++i) {
        part.clear();
        const int offset = i * slice;
        part.writeInt32(id);
        part.writeInt32(i);
        part.writeBlob(data.constData() + offset, std::min(slice, total - offset));
        eventProcess(sliceName, part);
    }
}

void RemoteNode::handleRemoteEvent(const QByteArray& name, Basalt::BinaryData& data,
                                   long senderKey) {
    if (name == "event-slice-begin")
        slices.begin(data, senderKey);
    else if (name == "event-slice")
        slices.add(senderKey, data, [this](const QByteArray& event, Basalt::BinaryData& payload) {
            dispatchRemoteEvent(event, payload);
        });
    else if (name == "initialized")
        eventSend("initialized");
    else
        dispatchRemoteEvent(name, data);
}

QByteArray childPath(const QByteArray& parent, const QByteArray& name) {
    if (parent.isEmpty())
        return name;
    QByteArray path(parent.size() + 1 + name.size(), Qt::Uninitialized);
    char* out = path.data();
    std::memcpy(out, parent.constData(), size_t(parent.size()));
    out[parent.size()] = '/';
    std::memcpy(out + parent.size() + 1, name.constData(), size_t(name.size()));
    return path;
}

bool isChildPath(const QByteArray& full, const QByteArray& parent, const QByteArray& name) {
    if (parent.isEmpty())
        return full == name;
    return full.size() == parent.size() + 1 + name.size() && full.startsWith(parent) &&
           full.at(parent.size()) == '/' && full.endsWith(name);
}

Node* findOrCreateNode(QList<QByteArray> parts, Node* parent, QMap<QByteArray, Node*>* created,
                       QByteArray prefix) {
    if (parts.isEmpty())
        return parent;
    const QByteArray part = parts.takeFirst();
    const QByteArray path = childPath(prefix, part);
    Node* node = nullptr;
    if (Attribute* existing = parent->attribute(part)) {
        node = Tessel::asNode(AttributeAlias::resolve(existing));
        if (!node) {
            Basalt::Trace::error("findOrCreateNode # '%s'' is not a node!", path.constData());
            return nullptr;
        }
    } else {
        node = new Node(parent, part); // owned by its host
    }
    if (created)
        created->insert(path, node);
    return findOrCreateNode(parts, node, created, path);
}

void walkAttributes(Node& node, const std::function<void(Attribute&)>& visit,
                    const std::function<bool(Attribute&)>& skip) {
    for (Attribute* child : node.children()) {
        Attribute* resolved = AttributeAlias::resolve(child);
        if (!resolved || (skip && skip(*resolved)))
            continue;
        if (auto* sub = Tessel::asNode(resolved))
            walkAttributes(*sub, visit, skip);
        else
            visit(*resolved);
    }
}

Tessel::Attribute* attributeAt(Node& root, const QByteArray& path) {
    Tessel::Attribute* at = &root;
    for (const QByteArray& name : path.split('/'))
        if (!(at = at->attribute(name)))
            return nullptr;
    return at;
}

void walkAttributesWithPath(Node& node,
                            const std::function<void(Attribute&, const QByteArray&)>& visit) {
    walkAttributesUnder(node, [&](Attribute& found, Attribute& resolved, const QByteArray& parent,
                                  bool) { visit(resolved, childPath(parent, found.name())); });
}

} // namespace Dovel
