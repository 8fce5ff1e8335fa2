#include "ChangePrinter.h"

#include "Dovel/sync/RemoteNode.h"

#include "Tessel/Node.h"

namespace DovelTool {

ChangePrinter::ChangePrinter(Dovel::RemoteNode& node, Output output)
    : node(node), output(std::move(output)) {
    listenerId = node.addAttributeChangeListener(
        [this](const Dovel::NodeWatcher::Event& event) { handle(event); });
}

ChangePrinter::~ChangePrinter() {
    node.removeAttributeChangeListener(listenerId);
}

int ChangePrinter::start() {
    seen.clear();
    Dovel::walkAttributesWithPath(node,
                                  [this](Tessel::Attribute& attribute, const QByteArray& path) {
                                      QByteArray text;
                                      if (valueText(attribute, text))
                                          seen.insert(path, text);
                                  });
    started = true;
    return seen.size();
}

QByteArray ChangePrinter::changedLine(const QByteArray& path, const QByteArray& valueText) {
    return path + " = " + valueText + '\n';
}

QByteArray ChangePrinter::addedLine(const QByteArray& path, const QByteArray& valueText) {
    return "+ " + path + " = " + valueText + '\n';
}

QByteArray ChangePrinter::removedLine(const QByteArray& path) {
    return "- " + path + '\n';
}

Tessel::Attribute* ChangePrinter::find(const QByteArray& path) const {
    Tessel::Attribute* at = &node;
    for (const QByteArray& name : path.split('/')) {
        at = at ? at->attribute(name) : nullptr;
        if (!at)
            return nullptr;
    }
    return at;
}

bool ChangePrinter::valueText(Tessel::Attribute& attribute, QByteArray& out) const {
    if (Tessel::asNode(&attribute))
        return false;
    QJsonValue value;
    if (!json.toJson(attribute, value))
        return false;
    out = TreeJson::valueText(value);
    return true;
}

void ChangePrinter::forget(const QByteArray& path) {
    // A removed node takes its attributes along; whichever of its events comes first
    // prints them, the later ones find nothing left.
    const QByteArray prefix = path + '/';
    for (auto it = seen.begin(); it != seen.end();) {
        if (it.key() == path || it.key().startsWith(prefix)) {
            if (started)
                output(removedLine(it.key()));
            it = seen.erase(it);
        } else {
            ++it;
        }
    }
}

void ChangePrinter::handle(const Dovel::NodeWatcher::Event& event) {
    const QByteArray path = node.symbolRegistry().lookup(uint32_t(event.symbol));
    if (path.isEmpty())
        return;
    switch (event.type) {
    case Dovel::NodeWatcher::AttributeRemoved:
    case Dovel::NodeWatcher::NodeRemoved:
        forget(path);
        return;
    case Dovel::NodeWatcher::NodeAdded:
        return;
    case Dovel::NodeWatcher::AttributeAdded:
    case Dovel::NodeWatcher::AttributeChanged:
        break;
    }
    Tessel::Attribute* attribute = find(path);
    QByteArray text;
    if (!attribute || !valueText(*attribute, text))
        return;
    auto known = seen.find(path);
    const bool isNew = known == seen.end();
    if (!isNew && known.value() == text)
        return;
    seen.insert(path, text);
    if (!started)
        return;
    output(isNew && event.type == Dovel::NodeWatcher::AttributeAdded ? addedLine(path, text)
                                                                     : changedLine(path, text));
}

} // namespace DovelTool
