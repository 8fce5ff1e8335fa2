// Which names the file protocol carries, how many parts a size makes, and where a name
// may be read or written: only where it stays inside the folder once links are resolved,
// and a temporary file's name within the longest a file system takes.
#include "Dovel/files/PathPolicy.h"

#include "FilesTestUtil.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <climits>
#include <limits>

namespace {

using Dovel::PathPolicy::isCarriableName;
using Dovel::PathPolicy::partCount;
using FilesTest::writeFile;
namespace PathPolicy = Dovel::PathPolicy;

TEST(PathPolicy, CarriableNamesTemporaryNamesAndPartCounts) {
    EXPECT_EQ(partCount(16777217, 65536), 257);
    EXPECT_EQ(partCount(std::numeric_limits<int64_t>::max(), 65536),
              int64_t(1) << 47); // a peer's size near the top does not wrap
    EXPECT_EQ(partCount(65536, 65536), 1);

    EXPECT_TRUE(isCarriableName("/a/b c/d.e"));
    for (const char* bad : {"a", "/a/../b", "/a..b", "//a", "/a/", "/./a", "/a:b", "/a*", "/a?",
                            "/a\"", "/a<", "/a>", "/a\\b", "/a\nb"})
        EXPECT_FALSE(isCarriableName(bad)) << bad;

    // A temporary file stays in its file's folder, within the longest name there.
    EXPECT_EQ(PathPolicy::tempPathFor("/r/d/a.bin"), QString("/r/d/a.bin.filesync.part"));
    const QString longLeaf(NAME_MAX - 4, QLatin1Char('n'));
    const QString temp = PathPolicy::tempPathFor("/r/d/" + longLeaf);
    EXPECT_TRUE(temp.startsWith("/r/d/.")) << temp.toStdString();
    EXPECT_TRUE(temp.endsWith(PathPolicy::TempSuffix));
    EXPECT_LE(QFile::encodeName(temp.mid(5)).size(), NAME_MAX);
    EXPECT_EQ(PathPolicy::tempPathFor("/r/d/" + longLeaf), temp); // the same every time
}

TEST(PathPolicy, NamesResolveInsideTheFolderOnly) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString outside = dir.path() + "/outside";
    const QString root = QDir(dir.path()).canonicalPath() + "/root";
    ASSERT_TRUE(writeFile(outside + "/secret", "s"));
    ASSERT_TRUE(writeFile(root + "/sub/a.bin", "a"));
    ASSERT_TRUE(QFile::link(outside, root + "/out"));
    ASSERT_TRUE(QFile::link(root + "/sub", root + "/in"));
    ASSERT_TRUE(QFile::link(dir.path() + "/gone", root + "/dangling"));

    // Plain paths, existing or still to be made.
    EXPECT_EQ(PathPolicy::resolveInside(root, "/sub/a.bin"), root + "/sub/a.bin");
    EXPECT_EQ(PathPolicy::resolveInside(root, "/sub/new/b.bin"), root + "/sub/new/b.bin");
    EXPECT_EQ(PathPolicy::linkFreeFile(root, "/sub/a.bin"), root + "/sub/a.bin");
    EXPECT_EQ(PathPolicy::linkFreeFile(root, "/sub"), QString());
    EXPECT_EQ(PathPolicy::linkFreeFile(root, "/sub/missing"), QString());
    // Through a link that stays inside: allowed, but not link-free.
    EXPECT_EQ(PathPolicy::resolveInside(root, "/in/a.bin"), root + "/in/a.bin");
    EXPECT_EQ(PathPolicy::linkFreeFile(root, "/in/a.bin"), QString());
    // Through a link that leads outside, or one that leads nowhere: refused.
    EXPECT_EQ(PathPolicy::resolveInside(root, "/out/secret"), QString());
    EXPECT_EQ(PathPolicy::resolveInside(root, "/out/new.bin"), QString());
    EXPECT_EQ(PathPolicy::resolveInside(root, "/dangling"), QString());
    EXPECT_EQ(PathPolicy::resolveInside(root, "/dangling/x"), QString());
    EXPECT_EQ(PathPolicy::linkFreeFile(root, "/out/secret"), QString());
}

} // namespace
