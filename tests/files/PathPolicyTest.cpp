// Which names the file protocol carries, how many parts a size makes, and where a name
// may be read or written: only where it stays inside the folder once links are resolved.
#include "Dovel/files/PathPolicy.h"

#include "FilesTestUtil.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <limits>

namespace {

using FilesTest::writeFile;
namespace PathPolicy = Dovel::PathPolicy;

TEST(PathPolicy, CarriableNamesAndPartCounts) {
    EXPECT_EQ(PathPolicy::partCount(16777217, 65536), 257);
    EXPECT_EQ(PathPolicy::partCount(std::numeric_limits<int64_t>::max(), 65536),
              int64_t(1) << 47); // a peer's size near the top does not wrap
    EXPECT_EQ(PathPolicy::partCount(65536, 65536), 1);

    EXPECT_TRUE(PathPolicy::isCarriableName("/a/b c/d.e"));
    for (const char* bad : {"a", "/a/../b", "/a..b", "//a", "/a/", "/./a", "/a:b", "/a*", "/a?",
                            "/a\"", "/a<", "/a>", "/a\\b", "/a\nb"})
        EXPECT_FALSE(PathPolicy::isCarriableName(bad)) << bad;
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
