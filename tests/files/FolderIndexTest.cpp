// What a walk of the folder lists: regular files, hidden ones included, through links
// that stay inside; not temporary download files, dangling links, pipes, or a folder
// reached again through a link.
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

TEST(FolderIndex, ListsFilesOnlyAndEachFolderOnce) {
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
    const Dovel::FileList list = asset.index().build();
    EXPECT_EQ(list.keys(), (QStringList{"/.hidden", "/a.bin", "/sub/deep/b.bin", "/sub/to-a"}));
    EXPECT_EQ(list.value("/sub/to-a").md5, list.value("/a.bin").md5);
    EXPECT_EQ(list.value("/.hidden").size, 11);
    EXPECT_EQ(list.value("/sub/deep/b.bin").lastModified,
              QFileInfo(root + "/sub/deep/b.bin").lastModified().toUTC());
}

} // namespace
