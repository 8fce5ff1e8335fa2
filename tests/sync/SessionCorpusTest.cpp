// Seeds for the session fuzz target, made by a real session: a mode byte, then the
// packets one side sends over a few periods (the first announcement of a tree of every
// type, updates, removals, events, a sliced event). They are written only when
// DOVEL_WRITE_CORPUS names a folder (fuzz/corpus/session is the one kept in the tree):
//   DOVEL_WRITE_CORPUS=fuzz/corpus/session build/bin/test_sync --gtest_filter='SessionCorpus.*'
// Otherwise the test checks that each stream applies cleanly to a fresh session.
#include "SessionPair.h"
#include "TypeSamples.h"

#include "Basalt/Trace.h"
#include "Tessel/AttributeT.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

using Dovel::Bundle;
using Dovel::RemoteNode;
using SyncTest::Session;
using Tessel::Attribute;
using Tessel::AttributeT;

namespace {

using TypeSamples::allCodes;

void append(QByteArray& stream, const std::vector<Bundle>& bundles) {
    for (const Bundle& bundle : bundles)
        stream.append(bundle.packet());
}

// What a peer with this tree sends over four periods.
QByteArray peerStream(bool withEvents) {
    RemoteNode node(nullptr, "peer");
    Dovel::TypeRegistry types;
    for (uint32_t code : allCodes)
        node.addDeepAttribute("t/" + QByteArray::number(code), types.createAttribute(code));
    auto* count = new AttributeT<int>(nullptr, "", 1);
    auto* text = new AttributeT<QString>(nullptr, "", "one");
    node.addDeepAttribute("obj/count", count);
    node.addDeepAttribute("obj/text", text);
    Session session(node, false, true);
    QByteArray stream;
    append(stream, session.output());
    count->set(2, Attribute::LayerRemote);
    text->set(QStringLiteral("two"), Attribute::LayerRemote);
    append(stream, session.output());
    delete count;
    node.addDeepAttribute("obj/extra", new AttributeT<float>(nullptr, "", 0.25f));
    append(stream, session.output());
    if (withEvents) {
        Basalt::BinaryData small = Basalt::BinaryData::fromByteArray("hello");
        node.eventProcess("note", small);
        Basalt::BinaryData big = Basalt::BinaryData::fromByteArray(QByteArray(300, 'x'));
        node.eventProcessSlice("bulk", big, 128);
        append(stream, session.output());
    }
    return stream;
}

} // namespace

TEST(SessionCorpus, SeedsApplyCleanlyAndAreWrittenOnRequest) {
    const std::vector<std::pair<const char*, QByteArray>> seeds = {
        {"mirror_create.bin", QByteArray(1, char(2)) + peerStream(true)},
        {"master_existing.bin", QByteArray(1, char(1)) + peerStream(false)},
    };
    for (const auto& seed : seeds) {
        SCOPED_TRACE(seed.first);
        RemoteNode node(nullptr, "receiver");
        Session session(node, (seed.second[0] & 1) != 0, (seed.second[0] & 2) != 0);
        Basalt::TraceCapture log;
        int at = 1;
        std::vector<Bundle> bundles;
        while (at + 16 <= seed.second.size()) {
            uint32_t payload;
            std::memcpy(&payload, seed.second.constData() + at, 4);
            bundles.emplace_back(seed.second.mid(at, int(payload) + 16));
            at += int(payload) + 16;
        }
        EXPECT_EQ(at, seed.second.size());
        session.input(bundles);
        EXPECT_EQ(log.count("", Basalt::Trace::Warning), 0) << log.dump().toStdString();
        // Without creation the removal of an attribute never made here is reported.
        if (seed.second[0] & 2) {
            EXPECT_EQ(log.count("", Basalt::Trace::Error), 0) << log.dump().toStdString();
        }
    }

    const QByteArray folder = qgetenv("DOVEL_WRITE_CORPUS");
    if (folder.isEmpty())
        return;
    QDir().mkpath(QString::fromLocal8Bit(folder));
    for (const auto& seed : seeds) {
        QFile file(QString::fromLocal8Bit(folder) + "/" + seed.first);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(seed.second);
    }
}
