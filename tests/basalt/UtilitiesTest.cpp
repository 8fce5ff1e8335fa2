#include "Basalt/FileWriter.h"
#include "Basalt/MemGrid8u.h"
#include "Basalt/PlatformUtils.h"
#include "Basalt/StringUtils.h"
#include "Basalt/TimeStamp.h"

#include "UserDataFolder.h"
#include "basalt/WaitUtil.h"

#include <gtest/gtest.h>

#include <QDateTime>
#include <QDir>
#include <QTemporaryDir>

#include <atomic>
#include <future>
#include <map>
#include <sstream>
#include <typeinfo>

using namespace Basalt;

TEST(TimeStamp, MicrosecondsSinceTheEpochAsDecimalText) {
    const int64_t wallUs = QDateTime::currentMSecsSinceEpoch() * 1000;
    const TimeStamp now = TimeStamp::currentTime();
    EXPECT_LT(std::llabs(now.value() - wallUs), 5 * 1000 * 1000);

    const TimeStamp past(now.value() - 2500000);
    EXPECT_GE(past.sinceSecondsD(), 2.5);
    EXPECT_LT(past.sinceSecondsD(), 60.0);
    EXPECT_LT(TimeStamp(now.value() + 10000000).sinceSecondsD(), 0.0);
    EXPECT_TRUE(past < now);

    std::ostringstream out;
    out << TimeStamp(1763855000123456);
    EXPECT_EQ(out.str(), "1763855000123456");
    std::istringstream in("1763855000123456 -42");
    TimeStamp a, b;
    in >> a >> b;
    EXPECT_EQ(a.value(), 1763855000123456);
    EXPECT_EQ(b.value(), -42);

    TimeStamp kept(7);
    std::istringstream bad("later");
    bad >> kept;
    EXPECT_TRUE(bad.fail());
    EXPECT_EQ(kept.value(), 7);
}

TEST(StringUtils, DemanglesTypeNames) {
    EXPECT_EQ(StringUtils::demangle(typeid(std::map<int, QString>).name()).left(13),
              QByteArray("std::map<int,"));
    EXPECT_EQ(StringUtils::demangle(typeid(Basalt::TimeStamp).name()),
              QByteArray("Basalt::TimeStamp"));
    EXPECT_EQ(StringUtils::demangle("not a mangled name"), QByteArray("not a mangled name"));
    EXPECT_EQ(StringUtils::demangle(nullptr), QByteArray());
}

TEST(PlatformUtils, UserDataFolderFollowsXdg) {
    UserDataFolder root;
    ASSERT_TRUE(root.isValid());
    const QString path = PlatformUtils::getModuleUserDataPath("Brevant", false);
    EXPECT_EQ(path, root.path() + "/Brevant");
    EXPECT_FALSE(QDir(path).exists());
    EXPECT_EQ(PlatformUtils::getModuleUserDataPath("Brevant", true), path);
    EXPECT_TRUE(QDir(path).exists());

    qunsetenv("XDG_DATA_HOME");
    EXPECT_EQ(PlatformUtils::getModuleUserDataPath("Brevant", false),
              QDir::homePath() + "/.local/share/Brevant");

    EXPECT_TRUE(PlatformUtils::openFirewallPortTCP(5000, "Dovel"));
}

TEST(FileWriter, SerialisesWritersOfOneFile) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString file = dir.filePath("a.bin");

    auto first = std::make_unique<FileWriter>(file);
    {
        FileWriter other(dir.filePath("b.bin")); // another file does not wait
    }
    std::atomic<pid_t> tid{0};
    std::atomic<bool> entered{false};
    // The same file under another spelling.
    auto second = std::async(std::launch::async, [&] {
        tid = BasaltTest::currentTid();
        FileWriter again(dir.path() + "/./sub/../a.bin");
        entered = true;
    });
    ASSERT_TRUE(BasaltTest::waitUntil([&] { return tid.load() != 0; }));
    ASSERT_TRUE(BasaltTest::waitUntilBlocked(tid));
    EXPECT_FALSE(entered.load());
    first.reset();
    ASSERT_EQ(second.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_TRUE(entered.load());
}

TEST(MemGrid8u, RowsWithoutPadding) {
    MemGrid8u grid(3, 2, 9);
    EXPECT_EQ(grid.width(), 3);
    EXPECT_EQ(grid.height(), 2);
    EXPECT_EQ(grid.byteCount(), 6u);
    EXPECT_EQ(grid.at(2, 1), 9);
    grid.setAt(1, 1, 4);
    EXPECT_EQ(grid.data()[1 * 3 + 1], 4);

    const uint8_t bytes[] = {1, 2, 3, 4, 5, 6};
    MemGrid8u copy;
    EXPECT_TRUE(copy.isEmpty());
    copy.set(bytes, 2, 3);
    EXPECT_EQ(copy.at(1, 2), 6);
    EXPECT_EQ(copy.at(0, 1), 3);
    EXPECT_NE(copy, grid);
    MemGrid8u same;
    same.set(bytes, 2, 3);
    EXPECT_EQ(copy, same);
    same.set(nullptr, 0, 0);
    EXPECT_TRUE(same.isEmpty());
    EXPECT_EQ(MemGrid8u(-1, 5).byteCount(), 0u);
}
