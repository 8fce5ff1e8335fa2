// The two codecs of a session record kept together: whatever bytes and boxes the two
// keep, each still writes and reads what it did alone, also in a copy that outlives
// the original and after the other one is replaced.
#include "TypesTestUtil.h"

#include "Dovel/types/CodecPair.h"

#include "Tessel/AttributeT.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

using namespace Dovel;
using namespace TypesTest;
using Tessel::Attribute;
using Tessel::AttributeT;

TEST(CodecPair, EachCodecBehavesAsItDidAlone) {
    TypeRegistry registry;
    AttributeT<float> source(nullptr, "source", 1.5f);
    AttributeT<float> target(nullptr, "target", 0.0f);
    AttributeT<float> other(nullptr, "other", 0.0f);
    uint32_t code = 0, size = 0;
    const Serializer write = registry.createSerializer(&source, code, size);
    const QByteArray onePointFive = Bytes().hex("0000c03f").data();
    const QByteArray twoPointFive = Bytes().hex("00002040").data();
    std::string tag = "boxed"; // a capture that cannot be kept in place
    int boxedReads = 0;
    const Deserializer boxed = [tag, &boxedReads](BundleReaderCore& reader) {
        reader.readUInt32();
        boxedReads += tag == "boxed";
    };
    struct Case {
        const char* name;
        Serializer serializer;
        Deserializer deserializer;
        Attribute* readInto; // null: the boxed reader, which counts
    };
    const Case cases[] = {
        {"both capture the same attribute", registry.createSerializer(&target, code, size),
         registry.createDeserializer(code, &target), &target},
        {"they capture different attributes", write, registry.createDeserializer(code, &other),
         &other},
        {"the deserializer is boxed", write, boxed, nullptr},
        // Made here, in the test's own binary: far from the library's calls.
        {"a call made in another binary",
         [at = &other](BundleWriterCore& w) { w.writeFloat(at->value()); },
         [at = &other](BundleReaderCore& r) { at->set(r.readFloat(), L2); }, &other},
        {"no serializer", Serializer(), registry.createDeserializer(code, &other), &other},
        {"no deserializer", write, Deserializer(), nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        // Set together, or one after the other in either order (the second may share the
        // first's bytes in place).
        for (int order = 0; order < 3; ++order) {
            auto original = std::make_unique<CodecPair>();
            if (order == 0) {
                original->assign(c.serializer, c.deserializer);
            } else if (order == 1) {
                original->setSerializer(c.serializer);
                original->setDeserializer(c.deserializer);
            } else {
                original->setDeserializer(c.deserializer);
                original->setSerializer(c.serializer);
            }
            const CodecPair pair = *original;
            original.reset();
            ASSERT_EQ(pair.hasSerializer(), bool(c.serializer));
            ASSERT_EQ(pair.hasDeserializer(), bool(c.deserializer));
            if (c.serializer) {
                const QByteArray expected = serialize(c.serializer);
                EXPECT_EQ(serialize(pair.serializer()).toHex(), expected.toHex());
                Bundle bundle;
                BundleWriterCore writer(bundle);
                pair.serialize(writer);
                EXPECT_EQ(bundle.packet().mid(int(BundleCore::HeaderSize)).toHex(),
                          expected.toHex());
            }
            if (!c.deserializer)
                continue;
            const int readsBefore = boxedReads;
            EXPECT_EQ(deserialize(pair.deserializer(), onePointFive), 4u);
            if (c.readInto) {
                EXPECT_EQ(c.readInto->asFloat(), 1.5f);
            }
            // The deserializer stays what it was when the serializer goes.
            CodecPair withoutWriter = pair;
            withoutWriter.setSerializer(Serializer());
            EXPECT_FALSE(withoutWriter.hasSerializer());
            const Bundle bundle(BundleTest::packet(5, 1, 0, twoPointFive));
            BundleReader reader(bundle);
            withoutWriter.deserialize(reader);
            EXPECT_EQ(reader.pos(), BundleCore::HeaderSize + 4);
            if (c.readInto) {
                EXPECT_EQ(c.readInto->asFloat(), 2.5f);
            } else {
                EXPECT_EQ(boxedReads, readsBefore + 2);
            }
        }
    }
}

// A deserializer may set off what replaces the pair's codecs while it runs (a listener
// that deletes the attribute); it runs on with what it holds, and reads its value whole.
TEST(CodecPair, ACodecMayReplaceThePairWhileItRuns) {
    CodecPair pair;
    int calls = 0;
    const Deserializer skipping = [](BundleReaderCore& reader) { reader.readUInt32(); };
    // Two pointers: kept in a box, which the pair keeps in a split of its own.
    pair.setDeserializer([&pair, &skipping, calls = &calls](BundleReaderCore& reader) {
        pair.assign(Serializer(), skipping);
        reader.readUInt32();
        ++*calls;
    });
    for (int round = 1; round <= 2; ++round) {
        const Bundle bundle(BundleTest::packet(5, 1, 0, Bytes().word(7).data()));
        BundleReader reader(bundle);
        pair.deserialize(reader);
        EXPECT_EQ(reader.pos(), BundleCore::HeaderSize + 4);
    }
    EXPECT_EQ(calls, 1); // the second round read past with the skipping one
}
