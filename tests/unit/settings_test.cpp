// Settings: the parsers' string helpers, identification by process name, the defaults
// without configuration data, and the host stand-in for system properties.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include <unistd.h>

#include <cutils/properties.h>
#include <gtest/gtest.h>

#include "app/zovk_processor_data_base.h"
#include "settings/zovk_settings.h"

namespace zovk_test {
namespace {

using vulkan::zovk::ZoVkSettings;
using Tokens = std::vector<std::string>;

TEST(Split, ReturnsTheMaximalRunsBetweenDelimiters) {
    EXPECT_EQ(ZoVkSettings::Split(",a,,b,", ","), (Tokens{"a", "b"}));
    EXPECT_EQ(ZoVkSettings::Split("a b;c", " ;"), (Tokens{"a", "b", "c"}));
    EXPECT_EQ(ZoVkSettings::Split("1920x1080", "x"), (Tokens{"1920", "1080"}));
    EXPECT_EQ(ZoVkSettings::Split("abc", ""), (Tokens{"abc"}));
    EXPECT_EQ(ZoVkSettings::Split("", ","), Tokens{});
    EXPECT_EQ(ZoVkSettings::Split(",;,", ",;"), Tokens{});
}

TEST(IsIntChar, AcceptsOnlyAsciiDigitsAndLogsTheRest) {
    testing::internal::CaptureStderr();
    EXPECT_FALSE(ZoVkSettings::IsIntChar(""));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");  // an empty text is not logged

    EXPECT_TRUE(ZoVkSettings::IsIntChar("007"));
    EXPECT_TRUE(ZoVkSettings::IsIntChar("4294967296"));
    for (const char* text : {"-1", "+1", " 1", "1.5", "\xd9\xa3"}) {  // the last: an Arabic-Indic digit
        EXPECT_FALSE(ZoVkSettings::IsIntChar(text)) << text;
    }

    testing::internal::CaptureStderr();
    EXPECT_FALSE(ZoVkSettings::IsIntChar("12a"));
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("isIntChar is not int: 12a"), std::string::npos) << log;
    EXPECT_EQ(log.find("isIntChar", log.find("isIntChar") + 1), std::string::npos) << "one line only: " << log;
}

// --- identification ----------------------------------------------------------------------

TEST(IdentifyApplication, TheTableMatchesExactlyAndCaseSensitively) {
    ZoVkSettings* settings = ZoVkSettings::GetInstance();
    for (const char* name : {"com.antutu.benchmark.full", "com.antutu.benchmark.full:ue2", "com.mihoyo.hkrpg",
                             "com.miHoYo.hkrpg:remote", "xcom.miHoYo.hkrpg", "", "com.HoYoverse.hkrpg"}) {
        EXPECT_FALSE(settings->IdentifyApplication(name)) << name;
    }
    EXPECT_EQ(settings->GetApplicationType(), vulkan::ZOVK_APPLICATION_NONE);
    EXPECT_EQ(settings->GetProcessName().size(), 0u);

    EXPECT_TRUE(settings->IdentifyApplication("com.antutu.benchmark.full:ue"));
    EXPECT_EQ(settings->GetApplicationType(), vulkan::ZOVK_APPLICATION_ANTUTU);
    EXPECT_TRUE(settings->IdentifyApplication("com.HoYoverse.hkrpgoversea"));
    EXPECT_EQ(settings->GetApplicationType(), vulkan::ZOVK_APPLICATION_STAR_RAIL);
    EXPECT_EQ(ZoVkSettings::PackageTable().size(), 3u);
}

TEST(IdentifyApplication, OnlyTheFirstCommandLineArgumentCounts) {
    ZoVkSettings* settings = ZoVkSettings::GetInstance();
    const std::string cmdline("com.miHoYo.hkrpg\0--mode\0fast\0", 29);
    EXPECT_TRUE(settings->IdentifyApplication(cmdline));
    EXPECT_EQ(settings->GetApplicationType(), vulkan::ZOVK_APPLICATION_STAR_RAIL);
    EXPECT_STREQ(settings->GetProcessName().c_str(), "com.miHoYo.hkrpg");

    // A recognised name in a later argument does not count.
    EXPECT_FALSE(settings->IdentifyApplication(std::string("app_process\0com.miHoYo.hkrpg\0", 29)));
}

// --- switches ------------------------------------------------------------------------------

TEST(Switches, DefaultsWithoutConfigurationDataAreConservative) {
    ZoVkSettings* settings = ZoVkSettings::GetInstance();
    EXPECT_TRUE(settings->UseLock());
    EXPECT_FALSE(settings->CheckRenderThread());
    vulkan::zovk::app::ZoVkProcessorDataBase* shared = settings->GetProcessorData();
    ASSERT_NE(shared, nullptr);
    EXPECT_EQ(settings->GetProcessorData(), shared);
    EXPECT_FALSE(settings->IsDebuggable());

    auto* data = new vulkan::zovk::app::ZoVkProcessorDataBase;
    data->useLock = false;
    data->checkRenderThread = true;
    settings->SetProcessorData(data);
    EXPECT_EQ(settings->GetProcessorData(), data);
    EXPECT_FALSE(settings->UseLock());
    EXPECT_TRUE(settings->CheckRenderThread());
}

// --- the host property stand-in --------------------------------------------------------------

class PropertiesTest : public ::testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/zovk_properties_XXXXXX";
        const int fd = mkstemp(name);
        ASSERT_GE(fd, 0);
        close(fd);
        path_ = name;
        setenv("ZOVK_PROPERTIES", path_.c_str(), 1);
    }
    void TearDown() override {
        std::remove(path_.c_str());
        unsetenv("ZOVK_PROPERTIES");
    }
    void Write(const std::string& text) { std::ofstream(path_) << text; }

    std::string path_;
};

TEST_F(PropertiesTest, BooleansAsLibcutilsSpellsThemAnythingElseKeepsTheDefault) {
    Write("t1=1\nt2=y\nt3=yes\nt4=on\n  t5  =  true  \nf1=0\nf2=n\nf3=no\nf4=off\nf5=false\n"
          "# c=1\nmaybe=maybe\nupper=TRUE\nempty=\nlast=0\nlast=1\nno equals sign\n");
    for (const char* key : {"t1", "t2", "t3", "t4", "t5", "last"}) {  // the last assignment wins
        EXPECT_EQ(property_get_bool(key, 0), 1) << key;
    }
    for (const char* key : {"f1", "f2", "f3", "f4", "f5"}) {
        EXPECT_EQ(property_get_bool(key, 1), 0) << key;
    }
    for (const char* key : {"maybe", "upper", "empty", "unset", "# c"}) {
        EXPECT_EQ(property_get_bool(key, 0), 0) << key;
        EXPECT_EQ(property_get_bool(key, 1), 1) << key;
    }
    // A missing file or variable is an unset property.
    setenv("ZOVK_PROPERTIES", (path_ + ".missing").c_str(), 1);
    EXPECT_EQ(property_get_bool("t1", 0), 0);
    unsetenv("ZOVK_PROPERTIES");
    EXPECT_EQ(property_get_bool("t1", 0), 0);
}

TEST_F(PropertiesTest, TheLogDebugSwitchIsReadOncePerProcess) {
    // Nothing in this process has asked for the settings yet.
    Write("vendor.zovk.log.debug=true\n");
    EXPECT_TRUE(ZoVkSettings::GetInstance()->IsLogDebug());
    Write("vendor.zovk.log.debug=false\n");
    EXPECT_TRUE(ZoVkSettings::GetInstance()->IsLogDebug());
}

}  // namespace
}  // namespace zovk_test
