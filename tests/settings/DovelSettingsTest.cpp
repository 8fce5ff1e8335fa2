// The settings file: one "dovel.ini" in the user data folder of "Brevant", shared by
// the two groups without either seeing the other's keys.
#include "Dovel/settings/DovelSettings.h"

#include "UserDataFolder.h"

#include <QFileInfo>
#include <QSettings>

#include <gtest/gtest.h>

namespace {

TEST(DovelSettings, BothGroupsShareOneFileWithoutSeeingEachOther) {
    UserDataFolder folder;
    ASSERT_TRUE(folder.isValid());
    const QString file = folder.path() + "/Brevant/dovel.ini";
    EXPECT_EQ(Dovel::DovelSettings::filePath(), file);
    {
        Dovel::DovelSettings pellux(true);
        Dovel::DovelSettings config(false);
        EXPECT_EQ(pellux.fileName(), file);
        EXPECT_EQ(pellux.format(), QSettings::IniFormat);
        EXPECT_EQ(pellux.group(), QStringLiteral("pellux"));
        EXPECT_EQ(config.group(), QStringLiteral("config"));
        pellux.setValue("port", 5001);
        pellux.setValue("shared", "from pellux");
        config.setValue("timeout", 12.5);
        config.setValue("shared", "from config");
        pellux.sync();
        config.sync();
        EXPECT_EQ(pellux.status(), QSettings::NoError);
        EXPECT_EQ(config.status(), QSettings::NoError);
    }
    ASSERT_TRUE(QFileInfo::exists(file));

    // The raw file holds both groups.
    QSettings raw(file, QSettings::IniFormat);
    EXPECT_EQ(raw.value("pellux/port").toInt(), 5001);
    EXPECT_EQ(raw.value("pellux/shared").toString(), QStringLiteral("from pellux"));
    EXPECT_EQ(raw.value("config/timeout").toDouble(), 12.5);
    EXPECT_EQ(raw.value("config/shared").toString(), QStringLiteral("from config"));
    EXPECT_EQ(raw.childGroups(), (QStringList{"config", "pellux"}));

    // Fresh objects read back their own group only.
    Dovel::DovelSettings pellux(true);
    Dovel::DovelSettings config(false);
    EXPECT_EQ(pellux.value("port").toInt(), 5001);
    EXPECT_FALSE(pellux.contains("timeout"));
    EXPECT_EQ(pellux.value("shared").toString(), QStringLiteral("from pellux"));
    EXPECT_EQ(config.value("timeout").toDouble(), 12.5);
    EXPECT_FALSE(config.contains("port"));
    EXPECT_EQ(config.value("shared").toString(), QStringLiteral("from config"));
    EXPECT_EQ(pellux.childKeys(), (QStringList{"port", "shared"}));
}

} // namespace
