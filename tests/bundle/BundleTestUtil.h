// Helpers for the bundle tests: an encoder of expected bytes that shares no code with
// the library (words assembled byte by byte), the text of a refused call, and small
// modules that record what they are given.
#pragma once

#include "Dovel/bundle/BundleDispatcher.h"
#include "Dovel/bundle/BundleReader.h"
#include "Dovel/bundle/BundleReceiver.h"
#include "Dovel/bundle/BundleSender.h"
#include "Dovel/bundle/BundleWriter.h"
#include "Dovel/bundle/ModuleNames.h"

#include <QByteArray>
#include <QMap>
#include <QString>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace BundleTest {

// Expected wire bytes, written out item by item.
class Bytes {
public:
    Bytes& word(uint32_t v) {
        for (int i = 0; i < 4; ++i)
            bytes.append(char((v >> (8 * i)) & 0xFF));
        return *this;
    }
    // u32 count, the bytes, zero padding to 4.
    Bytes& str(const QByteArray& s) {
        word(uint32_t(s.size()));
        bytes.append(s);
        while (bytes.size() % 4 != 0)
            bytes.append('\0');
        return *this;
    }
    Bytes& raw(const QByteArray& b) {
        bytes.append(b);
        return *this;
    }
    Bytes& hex(const char* h) { return raw(QByteArray::fromHex(h)); }
    const QByteArray& data() const { return bytes; }
    int size() const { return bytes.size(); }

private:
    QByteArray bytes;
};

// What a reader says when a bundle ends too early.
constexpr const char* pastEnd = "BundleReader::read # tried to read past the end";

// The message of the E that `f` throws, or a text saying what happened instead.
template <typename E, typename F> std::string failure(F&& f) {
    try {
        f();
    } catch (const E& e) {
        return e.what();
    } catch (const std::exception& e) {
        return std::string("wrong exception type: ") + e.what();
    }
    return "no exception";
}

// A whole packet: header words, then the payload.
// One output pass of a dispatcher: the bundles it writes.
inline std::vector<Dovel::Bundle> pass(Dovel::BundleDispatcher& d) {
    std::vector<Dovel::Bundle> out;
    d.writeUpdates(out);
    return out;
}

inline QByteArray packet(uint32_t type, uint32_t sequence, uint32_t acknowledged,
                         const QByteArray& payload) {
    return Bytes()
        .word(uint32_t(payload.size()))
        .word(type)
        .word(sequence)
        .word(acknowledged)
        .raw(payload)
        .data();
}

// A handshake reply command, its length word written by hand by the caller.
inline QByteArray reply(uint32_t length, const char* verb, const char* module,
                        const char* description) {
    return Bytes()
        .word(length)
        .str(verb)
        .str("load-module")
        .str(module)
        .word(1)
        .str("description")
        .str(description)
        .data();
}

// Records every bundle payload it is handed; throws when told to.
class RecordingReceiver : public Dovel::BundleReceiver {
public:
    explicit RecordingReceiver(const QByteArray& name) : BundleReceiver(name) {}
    void handleBundle(Dovel::BundleReader& reader) override {
        if (throwOnBundle)
            throw std::invalid_argument("RecordingReceiver::handleBundle # refused");
        const QByteArray& bytes = reader.bundle().packet();
        payloads.push_back(bytes.mid(int(reader.pos())));
        reader.read(uint32_t(bytes.size()) - reader.pos());
    }
    void moduleLoaded(const QMap<QString, QString>& params) override {
        loadedParams.push_back(params);
    }

    bool throwOnBundle = false;
    std::vector<QByteArray> payloads;
    std::vector<QMap<QString, QString>> loadedParams;
};

// A sender as the node change sender will be: it resolves the four attribute message
// types in initialize(), then emits queued symbols and queued update payloads.
class TestSender : public Dovel::BundleSender {
public:
    void initialize(Dovel::BundleDispatcher& dispatcher) override {
        newType = dispatcher.resolveMessageType(Dovel::ModuleNames::AttributeNew);
        updateType = dispatcher.resolveMessageType(Dovel::ModuleNames::AttributeUpdate);
        removeType = dispatcher.resolveMessageType(Dovel::ModuleNames::AttributeRemove);
        eventType = dispatcher.resolveMessageType(Dovel::ModuleNames::OneWayEvent);
    }
    void prepareUpdates() override { ++prepared; }
    void writeUpdates(Dovel::BundleOutput& output) override {
        Dovel::Bundle bundle;
        Dovel::BundleWriter writer(bundle);
        for (const auto& symbol : symbols) {
            writer.writeUInt32(symbol.first);
            writer.writeBytes(symbol.second);
        }
        symbols.clear();
        output.finish(bundle, symbolMessageType);
        for (const QByteArray& payload : updates) {
            writer.writeData(payload.constData(), uint32_t(payload.size()));
            output.finish(bundle, updateType);
        }
        updates.clear();
    }
    uint32_t symbolType() const { return symbolMessageType; }

    uint32_t newType = 0, updateType = 0, removeType = 0, eventType = 0;
    int prepared = 0;
    std::vector<std::pair<uint32_t, QByteArray>> symbols;
    std::vector<QByteArray> updates;
};

} // namespace BundleTest
