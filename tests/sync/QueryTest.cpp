// The query module's server end against hand-written requests, its answers byte for
// byte: reads, lists, writes and removals, all or nothing, and hostile counts.
#include "bundle/BundleTestUtil.h"

#include "Dovel/bundle/BundleDispatcher.h"
#include "Dovel/bundle/ModuleNames.h"
#include "Dovel/bundle/PendingBundleSender.h"
#include "Dovel/sync/PathPattern.h"
#include "Dovel/sync/QueryReceiver.h"
#include "Dovel/sync/RemoteNode.h"
#include "Dovel/types/TypeRegistry.h"

#include "Tessel/AttributeT.h"
#include "Tessel/Node.h"

#include <gtest/gtest.h>

using BundleTest::Bytes;

namespace {

enum : uint32_t { Read = 1, List = 2, Write = 3, Remove = 4 };
enum : uint32_t {
    Ok = 0,
    NotFound = 1,
    Refused = 2,
    TypeMismatch = 3,
    PathClash = 4,
    Invalid = 6,
    TooLarge = 7,
    Unknown = 8
};
constexpr uint32_t FloatCode = 3;
constexpr uint32_t DoubleCode = 4;
const char OnePointFive[] = "0000c03f"; // 1.5f, little-endian
const char Two[] = "00000040";          // 2.0f

// An answer with no entries.
Bytes bare(uint32_t id, uint32_t status, uint32_t index = 0) {
    return Bytes().word(id).word(status).word(index).word(0);
}
// The start of a request or of an answer: id, operation or status, count or index.
Bytes head(uint32_t id, uint32_t word, uint32_t count) {
    return Bytes().word(id).word(word).word(count);
}
// A write entry (or an answer's entry): path, type code, value size, value.
Bytes& entry(Bytes& bytes, const char* path, uint32_t code, const char* hexValue) {
    return bytes.str(path).word(code).word(QByteArray::fromHex(hexValue).size()).hex(hexValue);
}
Bytes write2(uint32_t id, const char* a, const char* b) {
    Bytes out = head(id, Write, 2);
    entry(out, a, FloatCode, Two);
    return entry(out, b, FloatCode, Two);
}

} // namespace

TEST(Query, AnswersByteForByteAndChangesAllOrNothing) {
    Dovel::RemoteNode root(nullptr, "root");
    new Tessel::AttributeT<float>(new Tessel::Node(&root, "car"), "speed", 1.5f);
    new Tessel::AttributeT<float>(new Tessel::Node(&root, "new"), "id", 1.0f);
    root.processPendingAdditions();
    const Dovel::TypeRegistry types;
    Dovel::BundleDispatcher dispatcher;
    auto replies = std::make_shared<Dovel::PendingBundleSender>(Dovel::ModuleNames::QueryReply);
    dispatcher.addSender(replies);
    Dovel::QueryReceiver::Options options;
    options.mayRemove = true;
    Dovel::QueryReceiver receiver(root, types, *replies, options);

    Bytes doubleWrite = head(3, Write, 1), read1 = head(1, Ok, 0).word(2),
          read8 = head(8, Ok, 0).word(2);
    entry(read1, "car/speed", FloatCode, OnePointFive);
    entry(read1, "car/speed", FloatCode, OnePointFive);
    entry(doubleWrite, "car/speed", DoubleCode, "0000000000000040");
    entry(read8, "car/speed", FloatCode, Two);
    entry(read8, "new/x", FloatCode, Two);
    const auto listed = [](uint32_t id, uint32_t status, uint32_t index, const char* path) {
        return head(id, status, index).word(1).str(path).word(FloatCode).word(0);
    };
    const struct {
        const char* what;
        Bytes request;
        Bytes answer;
    } cases[] = {
        {"a read of an attribute, a node and a missing path",
         head(1, Read, 3).str("car/speed").str("car").str("nope"), read1},
        {"a list carries types, not values", Bytes().word(2).word(List).str("**"),
         listed(2, Ok, 0, "car/speed")},
        {"an empty pattern lists everything", Bytes().word(22).word(List).str(""),
         listed(22, Ok, 0, "car/speed")},
        {"a write of another type", doubleWrite, listed(3, TypeMismatch, 0, "car/speed")},
        {"a write through a value: nothing of the request is applied",
         write2(4, "car/speed", "car/speed/x"), listed(4, PathClash, 1, "car/speed")},
        {"a path twice in one request", write2(20, "car/speed", "car/speed"), bare(20, Invalid, 1)},
        {"a bool written as no bool is written",
         head(21, Write, 1).str("flag").word(1).word(4).hex("02000000"), bare(21, Invalid)},
        {"a value of the wrong size",
         head(5, Write, 1).str("fresh").word(FloatCode).word(2).hex("00000000"), bare(5, Invalid)},
        {"an attribute named id stays local",
         head(6, Write, 1).str("car/id").word(FloatCode).word(4).hex(Two), bare(6, Invalid)},
        {"a write and a creation", write2(7, "car/speed", "new/x"), bare(7, Ok)},
        {"read back", head(8, Read, 2).str("car/speed").str("new/x"), read8},
        {"one request creating a value and a path through it", write2(16, "n/a", "n/a/b"),
         listed(16, PathClash, 1, "n/a")},
        {"a truncated entry ends the bundle", head(17, Write, 1).str("n/a").word(FloatCode),
         bare(17, Invalid, 0xffffffff)},
        {"a local attribute is not there to remove", head(18, Remove, 1).str("new/id"),
         bare(18, NotFound)},
        {"a removal with a missing path removes nothing", head(9, Remove, 2).str("car").str("nope"),
         bare(9, NotFound, 1)},
        {"a malformed path", head(10, Remove, 1).str("car//speed"), bare(10, Invalid)},
        {"removals of a node and what it holds", head(11, Remove, 2).str("car").str("car/speed"),
         bare(11, Ok)},
        {"gone", head(12, Read, 1).str("car"), bare(12, Ok)},
        {"an unknown operation ends the bundle", head(13, 99, 14).word(Read), bare(13, Unknown)},
        {"a count over the limit ends the bundle", head(15, Read, 0x7fffffff).word(16).word(Read),
         bare(15, Invalid, 0xffffffff)},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.what);
        const Dovel::Bundle request(BundleTest::packet(7, 1, 0, one.request.data()));
        Dovel::BundleReader reader(request);
        receiver.handleBundle(reader);
        std::vector<Dovel::Bundle> out;
        dispatcher.writeUpdates(out);
        ASSERT_FALSE(out.empty());
        const QByteArray& answer = out.back().packet();
        EXPECT_EQ(answer.mid(16).toHex(), one.answer.data().toHex());
    }
    EXPECT_EQ(root.attribute("car"), nullptr);
    EXPECT_NE(Dovel::attributeAt(root, "new/x"), nullptr);
    EXPECT_EQ(root.attribute("n"), nullptr);

    // Matching is paid from the client's visits: a long pattern that keeps its states
    // live along long paths is too large (not minutes of the tree thread), and one that
    // keeps a state or two live costs next to nothing.
    Tessel::Node* deep = new Tessel::Node(&root, "deep");
    for (int i = 0; i < 100; ++i)
        deep = new Tessel::Node(deep, QByteArray(4000, 'x'));
    new Tessel::AttributeT<float>(deep, "y", 1.0f);
    root.processPendingAdditions();
    for (const auto& one :
         {std::make_pair(QByteArray("**y"), listed(23, Ok, 0, "")),
          std::make_pair(QByteArray("**") + QByteArray(4000, 'z'), bare(23, Ok)),
          std::make_pair(QByteArray("**") + QByteArray(4000, 'x'), bare(23, TooLarge))}) {
        SCOPED_TRACE(one.first.left(8).constData());
        const Dovel::Bundle request(
            BundleTest::packet(7, 1, 0, Bytes().word(23).word(List).str(one.first).data()));
        Dovel::BundleReader reader(request);
        receiver.handleBundle(reader);
        std::vector<Dovel::Bundle> out;
        dispatcher.writeUpdates(out);
        ASSERT_FALSE(out.empty());
        EXPECT_EQ(out.back().packet().mid(16, 16).toHex(), one.second.data().left(16).toHex());
    }

    // Removals are the server's to allow: off unless its tree is all its own.
    Dovel::QueryReceiver guarded(root, types, *replies, Dovel::QueryReceiver::Options());
    const Dovel::Bundle request(BundleTest::packet(7, 1, 0, head(19, Remove, 1).str("new").data()));
    Dovel::BundleReader reader(request);
    guarded.handleBundle(reader);
    std::vector<Dovel::Bundle> out;
    dispatcher.writeUpdates(out);
    ASSERT_FALSE(out.empty());
    EXPECT_EQ(out.back().packet().mid(16).toHex(), bare(19, Refused, 0xffffffff).data().toHex());
    EXPECT_NE(Dovel::attributeAt(root, "new/x"), nullptr);
}

// The list patterns, against the expressions the sync rules compile them to: the same
// verdict for every pair, including a pattern that makes an expression engine backtrack.
TEST(Query, PathPatternsMatchAsTheSyncRules) {
    const QByteArray deep = QByteArray("d/").repeated(60) + "x";
    const struct {
        QByteArray pattern;
        QByteArray path;
        bool matches;
    } cases[] = {
        {"**", "a", true},
        {"**", "a/b", true},
        {"*", "a/b", false},
        {"*", "", false},
        {"a/*", "a/b", true},
        {"a/*", "a/", false},
        {"a/*", "a/b/c", false},
        {"a/**", "a/b/c", true},
        {"a/**", "a", false},
        {"a/b*", "a/bc", true},
        {"a/b*", "a/b", false},
        {"***", "ab", true},
        {"***", "a", false},
        {"*/**/x", "a/b/c/x", true},
        {"*/**/x", "a/x", false},
        {"**/**/**/**/a", deep, false},
        {"**/**/**/**/x", deep, true},
        {"a.b", "a.b", true},
        {"a.b", "acb", false},
        {"[a]", "[a]", true},
        {"a/*/b", "a/x/b", true},
        {"a/*/b", "a/x/y/b", false},
        {"a/*/b", "a//b", false},
        {"a/**", "a/", false},
        {"a/**", "ba/x", false},
        {"x.y/*", "x.y/z/w", false},
        {"A(1)+", "A(1)+", true},
        {"a", "A", false},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE((one.pattern + " ~ " + one.path.left(40)).constData());
        EXPECT_EQ(Dovel::PathPattern(one.pattern).matches(one.path), one.matches);
        EXPECT_EQ(Dovel::RemoteNode::makeRegExp(QString::fromUtf8(one.pattern))
                      .exactMatch(QString::fromUtf8(one.path)),
                  one.matches);
    }
}
