// What a walk of the folder lists: regular files, hidden ones included, through links
// that stay inside; not temporary download files, dangling links, pipes, or a folder
// reached again through a link. And where a name may be read or written: only where it
// stays inside the folder once links are resolved.
#include "Dovel/files/AssetBase.h"

#include "FilesTestUtil.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace {

using FilesTest::patternBytes;
using FilesTest::writeFile;

TEST(FileList, ListsFilesOnlyAndEachFolderOnce) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString root = dir.path();
    ASSERT_TRUE(writeFile(root + "/a.bin", patternBytes(10, 1)));
    ASSERT_TRUE(writeFile(root + "/.hidden", patternBytes(11, 2)));
    ASSERT_TRUE(writeFile(root + "/sub/deep/b.bin", patternBytes(12, 3)));
    ASSERT_TRUE(writeFile(root + "/sub/c.bin.filesync.part", patternBytes(13, 4)));
    ASSERT_TRUE(QFile::link(root + "/a.bin", root + "/sub/to-a"));
    ASSERT_TRUE(QFile::link(root + "/gone", root + "/dangling"));
    ASSERT_TRUE(QFile::link(root + "/sub", root + "/sub/deep/loop"));
    ASSERT_EQ(::mkfifo(QFile::encodeName(root + "/pipe").constData(), 0644), 0);

    Dovel::AssetBase asset(root);
    const Dovel::AssetBase::FileList list = asset.buildFileList();
    EXPECT_EQ(list.keys(), (QStringList{"/.hidden", "/a.bin", "/sub/deep/b.bin", "/sub/to-a"}));
    EXPECT_EQ(list.value("/sub/to-a").md5, list.value("/a.bin").md5);
    EXPECT_EQ(list.value("/.hidden").size, 11);
    EXPECT_EQ(list.value("/sub/deep/b.bin").lastModified,
              QFileInfo(root + "/sub/deep/b.bin").lastModified().toUTC());
}

TEST(FileList, NamesResolveInsideTheFolderOnly) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString outside = dir.path() + "/outside";
    const QString root = QDir(dir.path()).canonicalPath() + "/root";
    ASSERT_TRUE(writeFile(outside + "/secret", "s"));
    ASSERT_TRUE(writeFile(root + "/sub/a.bin", "a"));
    ASSERT_TRUE(QFile::link(outside, root + "/out"));
    ASSERT_TRUE(QFile::link(root + "/sub", root + "/in"));
    ASSERT_TRUE(QFile::link(dir.path() + "/gone", root + "/dangling"));

    using Dovel::AssetBase;
    // Plain paths, existing or still to be made.
    EXPECT_EQ(AssetBase::resolveInside(root, "/sub/a.bin"), root + "/sub/a.bin");
    EXPECT_EQ(AssetBase::resolveInside(root, "/sub/new/b.bin"), root + "/sub/new/b.bin");
    EXPECT_EQ(AssetBase::linkFreeFile(root, "/sub/a.bin"), root + "/sub/a.bin");
    EXPECT_EQ(AssetBase::linkFreeFile(root, "/sub"), QString());
    EXPECT_EQ(AssetBase::linkFreeFile(root, "/sub/missing"), QString());
    // Through a link that stays inside: allowed, but not link-free.
    EXPECT_EQ(AssetBase::resolveInside(root, "/in/a.bin"), root + "/in/a.bin");
    EXPECT_EQ(AssetBase::linkFreeFile(root, "/in/a.bin"), QString());
    // Through a link that leads outside, or one that leads nowhere: refused.
    EXPECT_EQ(AssetBase::resolveInside(root, "/out/secret"), QString());
    EXPECT_EQ(AssetBase::resolveInside(root, "/out/new.bin"), QString());
    EXPECT_EQ(AssetBase::resolveInside(root, "/dangling"), QString());
    EXPECT_EQ(AssetBase::resolveInside(root, "/dangling/x"), QString());
    EXPECT_EQ(AssetBase::linkFreeFile(root, "/out/secret"), QString());
}

} // namespace
