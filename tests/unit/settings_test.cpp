// Settings: identification by process name and the layer's side of the game service (the
// configuration bounds, a second createInstance, the scene report, the monitor of in-game
// state) against an in-process service.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <mutex>
#include <string>
#include <vector>

#include <android-base/file.h>
#include <android/log.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/Status.h>
#include <gtest/gtest.h>
#include <utils/String8.h>

#include "app/zovk_factory.h"
#include "app/zovk_processor_data_base.h"
#include "layer/zovk_entry.h"
#include "settings/zovk_app_info_monitor.h"
#include "settings/zovk_pavune.h"
#include "settings/zovk_scene_recognizer.h"
#include "settings/zovk_settings.h"
#include "tests/unit/binder/binder_test_support.h"

namespace zovk_test {
namespace {

using android::OK;
using android::Parcel;
using android::sp;
using android::String16;
using android::binder::Status;
using vulkan::zovk::ZoVkSettings;
using Strings = std::vector<std::string>;

constexpr char kStarRail[] = "com.miHoYo.hkrpg";

ZoVkSettings* Settings() {
    return ZoVkSettings::GetInstance();
}

android::ZoVkAppInfoMonitor* Monitor() {
    return android::ZoVkAppInfoMonitor::GetInstance();
}

// --- identification ----------------------------------------------------------------------------

// The integration run covers the recognised names and a case change; these are the near misses.
TEST(IdentifyApplication, OnlyTheExactFirstCommandLineArgumentCounts) {
    for (const std::string& name : {std::string("com.antutu.benchmark.full:ue2"), std::string("com.miHoYo.hkrpg:remote"),
                                    std::string("xcom.miHoYo.hkrpg"), std::string("com.HoYoverse.hkrpg"), std::string(),
                                    std::string("app_process\0com.miHoYo.hkrpg\0", 29)}) {
        EXPECT_FALSE(Settings()->IdentifyApplication(name)) << name;
    }
    EXPECT_EQ(Settings()->GetApplicationType(), vulkan::ZOVK_APPLICATION_NONE);
    EXPECT_EQ(Settings()->GetProcessName().size(), 0u);
    EXPECT_TRUE(Settings()->IdentifyApplication(std::string("com.miHoYo.hkrpg\0--mode\0fast\0", 29)));
    EXPECT_EQ(Settings()->GetApplicationType(), vulkan::ZOVK_APPLICATION_STAR_RAIL);
    EXPECT_STREQ(Settings()->GetProcessName().c_str(), kStarRail);
}

// --- the game service ----------------------------------------------------------------------------

// The game service as far as the layer can tell: it decodes every request (its code, then the
// arguments behind a correct interface token) and answers the fetch as the test says.
class FakePavune : public android::BBinder {
public:
    android::status_t fetchStatus = OK;
    int32_t fetchException = 0;
    std::string document;

    std::vector<Strings> Requests(uint32_t code) {
        std::lock_guard<std::mutex> guard(lock_);
        std::vector<Strings> matching;
        std::copy_if(received_.begin(), received_.end(), std::back_inserter(matching),
                     [&](const Strings& r) { return r[0] == std::to_string(code); });
        return matching;
    }

protected:
    android::status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t) override {
        Strings r{std::to_string(code)};
        if (!data.enforceInterface(String16(vulkan::zovk::pavune::kInterfaceToken))) {
            r.push_back("bad token");
        }
        if (code == 3) {
            r.push_back(std::to_string(data.readInt32()));
        }
        r.push_back(android::String8(data.readString16()).c_str());
        if (code == 35) {
            r.push_back(data.readStrongBinder() != nullptr ? "binder" : "no binder");
        }
        if (data.dataAvail() != 0) {
            r.push_back("trailing bytes");
        }
        {
            std::lock_guard<std::mutex> guard(lock_);
            received_.push_back(r);
        }
        if (code != 30 || fetchStatus != OK) {
            return code != 30 ? OK : fetchStatus;
        }
        Status::fromExceptionCode(fetchException).writeToParcel(reply);
        return reply->writeString16(String16(document.c_str()));
    }

private:
    std::mutex lock_;
    std::vector<Strings> received_;
};

class GameServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        __android_log_set_minimum_priority(ANDROID_LOG_DEBUG);  // as the library sets it when loaded
        ASSERT_TRUE(Settings()->IdentifyApplication(std::string("com.miHoYo.hkrpg\0--flag", 23)));
        Settings()->SetProcessorData(vulkan::zovk::app::CreateProcessorData());
    }
    sp<FakePavune> StartService() {
        sp<FakePavune> service = new FakePavune();
        EXPECT_EQ(android::defaultServiceManager()->addService(String16("veltra.pavune"), service), OK);
        return service;
    }
    BinderDir dir_;
};

// Bounded before the JSON reader sees the text: it recurses per level and throws past its own
// limit, an abort where jsoncpp is built without exceptions.
TEST_F(GameServiceTest, DocumentsBeyondTheBoundsArePassedOverWithAWarning) {
    const auto config = [](const std::string& value) {
        return R"({"configs":{"xrender_BaseInfo":"1","x":)" + value + "}}";
    };
    const auto nested = [](size_t levels) { return std::string(levels, '[') + std::string(levels, ']'); };
    std::string members = "[0";
    for (int i = 1; i < 1024; ++i) {
        members += ",0";
    }
    struct Case {
        std::string document;
        const char* refused;  // null: accepted
    };
    const Case cases[] = {
        {config(nested(30)), nullptr},  // 32 levels with the document's own two
        {config(nested(31)), "nested deeper than 32 levels"},
        {config(nested(20000)), "nested deeper than 32 levels"},
        {config('"' + std::string(4096, 'a') + '"'), nullptr},
        {config('"' + std::string(4097, 'a') + '"'), "a string longer than 4096 bytes"},
        {config(members + "]"), nullptr},
        {config(members + ",0]"), "more than 1024 members in one object or array"},
        {config("0" + std::string(65000, ' ')), nullptr},
        {config("0" + std::string(66000, ' ')), "larger than 65536 bytes"},
        // Brackets in strings and comments are text; a quote in a comment opens no string.
        {config(R"("\")" + std::string(40, '[') + '"'), nullptr},
        {config("/* \"" + nested(40) + " */ 0"), nullptr},
        {config("// \"\n" + nested(2000)), "nested deeper than 32 levels"},
        {config("// \"\r" + nested(2000)), "nested deeper than 32 levels"},
    };
    for (const Case& c : cases) {
        Settings()->ClearHookFlags(vulkan::zovk::kHookAll);
        Settings()->SetProcessorData(vulkan::zovk::app::CreateProcessorData());
        testing::internal::CaptureStderr();
        EXPECT_EQ(Settings()->ReadFromPavune(c.document), 0);
        const std::string log = testing::internal::GetCapturedStderr();
        const std::string shown = c.document.substr(0, 60) + "... (" + std::to_string(c.document.size()) + ")";
        EXPECT_EQ(Settings()->HasHookFlags(vulkan::zovk::kHookConfigAccepted), c.refused == nullptr) << shown;
        if (c.refused != nullptr) {
            EXPECT_NE(log.find(std::string("configuration from the game service ignored: ") + c.refused),
                      std::string::npos)
                << shown << log.substr(0, 300);
        }
    }
}

// The platform may call createInstance again (a second loader, the library opened twice): live
// processors keep the configuration data they point to, and the service is not asked again.
TEST_F(GameServiceTest, ALaterCreateInstanceChangesNothing) {
    // /proc/self/cmdline reads the process's own argument memory: the game's name goes there.
    const std::string game = kStarRail;
    if (std::strlen(program_invocation_name) >= game.size()) {
        std::memcpy(program_invocation_name, game.c_str(), game.size() + 1);
    }
    std::string cmdline;
    android::base::ReadFileToString("/proc/self/cmdline", &cmdline);
    if (cmdline.c_str() != game) {
        GTEST_SKIP() << "this process's name cannot be changed (an emulator?)";
    }
    sp<FakePavune> service = StartService();
    service->document = R"({"configs":{"xrender_BaseInfo":"1"}})";
    EXPECT_EQ(createInstance(), &impl);
    vulkan::zovk::app::ZoVkProcessorDataBase* data = Settings()->GetProcessorData();
    const uint32_t flags = Settings()->GetHookFlags();
    ASSERT_TRUE(Settings()->HasHookFlags(vulkan::zovk::kHookConfigAccepted));
    service->document = R"({"configs":{"xrender_BaseInfo":"3"}})";
    EXPECT_EQ(createInstance(), &impl);
    ASSERT_EQ(Settings()->GetProcessorData(), data);
    EXPECT_EQ(data->moduleIds, std::vector<unsigned int>{1});
    EXPECT_EQ(Settings()->GetHookFlags(), flags);
    EXPECT_EQ(service->Requests(30).size(), 1u);
}

TEST_F(GameServiceTest, TheSceneReportIsSentOnceWhateverTheFirstSendGave) {
    StarRailSceneRecognizer early;
    EXPECT_EQ(early.sendSceneIdToPavune(1), StarRailSceneRecognizer::kServiceMissing);
    early.notifyVkMode();  // no service yet, and never again
    sp<FakePavune> service = StartService();
    early.notifyVkMode();
    // What a report sends; one per process with several pipelines is game_service.py's scene_report_once.
    EXPECT_EQ(StarRailSceneRecognizer().sendSceneIdToPavune(-7), StarRailSceneRecognizer::kSent);
    EXPECT_EQ(service->Requests(3), (std::vector<Strings>{{"3", "1", "{\"sceneId\":-7}"}}));
}

// --- the monitor's records -----------------------------------------------------------------------

// Before the start records are ignored, and without the debug switch leave no trace.
TEST(Monitor, EveryRecordShapeStoresItsFieldOrNothingOnceStarted) {
    BinderDir dir;  // no service: registration and notification just give up
    Settings()->IdentifyApplication(kStarRail);
    using Values = std::array<int, 5>;  // scene, MSAA, quality, VRS level, VRS on
    const auto values = [] {
        return Values{Monitor()->GetSceneId(), Monitor()->GetMSAASwitch(), Monitor()->GetImageQuality(),
                      Monitor()->getVrsLevel(), Monitor()->IsVrsEnable()};
    };
    testing::internal::CaptureStderr();
    Monitor()->UpdateAppInfo("1 com.miHoYo.hkrpg 12");
    Monitor()->UpdateAppInfo("6 com.miHoYo.hkrpg 3");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(values(), Values{});
    Monitor()->Start();
    const std::pair<const char*, Values> steps[] = {
        {"1 com.miHoYo.hkrpg 12 trailing fields ignored", {12, 0, 0, 0, 0}},
        {"1 com.other.game 99", {12, 0, 0, 0, 0}},
        {"2 com.miHoYo.hkrpg 54 1", {12, 1, 0, 0, 0}},
        {"2 com.miHoYo.hkrpg 8 3", {12, 1, 3, 0, 0}},
        {"2 com.miHoYo.hkrpg 9 7", {12, 1, 3, 0, 0}},
        {"6 com.miHoYo.hkrpg 3", {12, 1, 3, 3, 1}},
        {"6 com.miHoYo.hkrpg 0", {12, 1, 3, 0, 0}},
        {"6 com.miHoYo.hkrpg 2", {12, 1, 3, 2, 1}},
    };
    for (const auto& [record, expected] : steps) {
        Monitor()->UpdateAppInfo(record);
        EXPECT_EQ(values(), expected) << record;
    }
    // Malformed records change nothing.
    for (const char* bad : {"1 com.miHoYo.hkrpg", "1 com.miHoYo.hkrpg x", "hello", "", "7 com.miHoYo.hkrpg 1",
                            "2 com.miHoYo.hkrpg 54", "6 com.miHoYo.hkrpg", "6 com.miHoYo.hkrpg 99999999999"}) {
        Monitor()->UpdateAppInfo(bad);
        EXPECT_EQ(values(), (Values{12, 1, 3, 2, 1})) << bad;
    }
}

}  // namespace
}  // namespace zovk_test
