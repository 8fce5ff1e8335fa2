#include "Dovel/bundle/BundleDispatcher.h"

#include "Dovel/Limits.h"
#include "Dovel/bundle/BundleOutput.h"
#include "Dovel/bundle/HandshakeReceiver.h"
#include "Dovel/bundle/HandshakeSender.h"
#include "Dovel/bundle/ModuleNames.h"

#include "Basalt/Trace.h"

#include <algorithm>

namespace Dovel {

namespace {

const QString loadModuleCommand = QStringLiteral("load-module");

} // namespace

BundleDispatcher::BundleDispatcher()
    : handshakeSender(std::make_shared<HandshakeSender>()),
      handshakeReceiver(std::make_shared<HandshakeReceiver>(this)) {
    messageTypes[QByteArray(ModuleNames::Handshake)] = 0;
    receivers[0] = handshakeReceiver;
    senders.push_back(handshakeSender);
}

BundleDispatcher::~BundleDispatcher() = default;

void BundleDispatcher::addModule(std::shared_ptr<BundleReceiver> module) {
    modules.push_back(std::move(module));
}

void BundleDispatcher::addSender(std::shared_ptr<BundleSender> sender) {
    senders.push_back(sender);
    sender->symbolMessageType = resolveMessageType(QByteArray(ModuleNames::SymbolRegistry));
    sender->initialize(*this);
}

uint32_t BundleDispatcher::resolveMessageType(const QByteArray& name) {
    const auto it = messageTypes.find(name);
    if (it != messageTypes.end())
        return it->second;
    const uint32_t number = handshakeSender->requestModule(QString::fromUtf8(name));
    messageTypes[name] = number;
    return number;
}

void BundleDispatcher::dispatchBundle(BundleReader& reader) {
    const BundleCore& bundle = reader.bundle();
    const uint32_t type = bundle.messageType();
    auto it = receivers.find(type);
    if (it == receivers.end()) {
        // Past the limit, a peer naming ever new types would grow the table without end:
        // their bundles are dropped unremembered, and unlogged as after the first.
        if (unknownTypes >= Limits::MaxUnknownBundleTypes) {
            lastReceived = bundle.sequenceNumber();
            return;
        }
        Basalt::Trace::warning("BundleDispatcher::dispatchBundle # Unknown bundle type %u", type);
        // Later bundles of this type are dropped without a message.
        it = receivers.emplace(type, nullptr).first;
        ++unknownTypes;
    }
    // Hold the receiver: a handshake bundle may bind modules while it runs.
    if (const std::shared_ptr<BundleReceiver> receiver = it->second)
        receiver->handleBundle(reader);
    lastReceived = bundle.sequenceNumber();
}

void BundleDispatcher::loadModule(uint32_t type, const QString& name,
                                  const QMap<QString, QString>& params) {
    const QByteArray key = name.toUtf8();
    for (const auto& entry : receivers) {
        if (!entry.second || entry.second->name() != key)
            continue;
        if (entry.first == type) {
            entry.second->moduleLoaded(params);
            handshakeSender->replyOk(loadModuleCommand, name,
                                     QStringLiteral("Module reloaded successfully"));
        } else {
            handshakeSender->replyError(
                loadModuleCommand, name,
                QStringLiteral("Tried to reload module with different message type"));
        }
        return;
    }
    if (type == 0) {
        handshakeSender->replyError(loadModuleCommand, name, QStringLiteral("Not implemented"));
        return;
    }
    const auto bound = receivers.find(type);
    if (bound != receivers.end() && bound->second) {
        handshakeSender->replyError(loadModuleCommand, name,
                                    QStringLiteral("Message type already in use"));
        return;
    }
    const auto offered =
        std::find_if(modules.begin(), modules.end(),
                     [&](const std::shared_ptr<BundleReceiver>& m) { return m->name() == key; });
    if (offered == modules.end()) {
        handshakeSender->replyError(loadModuleCommand, name, QStringLiteral("Module not found"));
        return;
    }
    const std::shared_ptr<BundleReceiver> module = *offered;
    receivers[type] = module;
    module->moduleLoaded(params);
    handshakeSender->replyOk(loadModuleCommand, name, QStringLiteral("Module loaded successfully"));
    modules.erase(std::find(modules.begin(), modules.end(), module));
}

void BundleDispatcher::writeUpdates(std::vector<Bundle>& out) {
    // Index loops: a sender may add senders or resolve types while it runs.
    for (size_t i = 0; i < senders.size(); ++i)
        senders[i]->prepareUpdates();
    out.clear();
    BundleOutput output(&out, &sequence, lastReceived);
    for (size_t i = 0; i < senders.size(); ++i)
        senders[i]->writeUpdates(output);
}

} // namespace Dovel
