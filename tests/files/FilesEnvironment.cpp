// Points the checksum cache (QSettings of "Brevant"/"Cache") and the user data folder
// at a temporary directory for the whole test executable, so that no test touches the
// user's real settings.
#include <QSettings>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

class FilesEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        ASSERT_TRUE(dir.isValid());
        QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, dir.path());
        QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, dir.path());
        qputenv("XDG_DATA_HOME", dir.path().toUtf8());
    }

private:
    QTemporaryDir dir;
};

const auto* const registered = ::testing::AddGlobalTestEnvironment(new FilesEnvironment);

} // namespace
