// Settings: the string and number readers of every configuration parser, identification by
// process name, the host property stand-in, and the layer's side of the game service (the
// configuration fetch, the callback interface, the monitor of in-game state, the scene
// report) against an in-process service.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <tuple>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include <android-base/file.h>
#include <android/log.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/Status.h>
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <utils/String8.h>

#include "app/zovk_factory.h"
#include "app/zovk_processor_data_base.h"
#include "layer/zovk_entry.h"
#include "settings/zovk_app_info_monitor.h"
#include "settings/zovk_game_info_update.h"
#include "settings/zovk_log_switch.h"
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
using com::veltra::pavune::BnGameInfoUpdate;
using com::veltra::pavune::BpGameInfoUpdate;
using com::veltra::pavune::IGameInfoUpdate;
using vulkan::zovk::ZoVkSettings;
using Strings = std::vector<std::string>;
using Decimal = ZoVkSettings::Decimal;

constexpr char kStarRail[] = "com.miHoYo.hkrpg";

ZoVkSettings* Settings() {
    return ZoVkSettings::GetInstance();
}

android::ZoVkAppInfoMonitor* Monitor() {
    return android::ZoVkAppInfoMonitor::GetInstance();
}

// --- readers -----------------------------------------------------------------------------------

// Split's runs between delimiters are read through the configuration tables that use them.
TEST(ParseDecimal, DigitsOnlyUpToTheBoundAndOneLineForText) {
    struct Case {
        const char* text;
        uint64_t max;
        Decimal result;
        uint64_t value;  // when kOk
        bool logged;     // the "isIntChar is not int" line
    };
    const uint64_t all = ~0ull;
    const Case cases[] = {
        {"", all, Decimal::kNotDecimal, 0, false},
        {"007", all, Decimal::kOk, 7, false},
        {"4294967296", all, Decimal::kOk, 4294967296ull, false},
        {"18446744073709551615", all, Decimal::kOk, all, false},
        {"18446744073709551616", all, Decimal::kTooLarge, 0, false},
        {"2147483647", 2147483647, Decimal::kOk, 2147483647, false},
        {"2147483648", 2147483647, Decimal::kTooLarge, 0, false},
        {"0000000000000000000000000", 0, Decimal::kOk, 0, false},
        {"5", 0, Decimal::kTooLarge, 0, false},
        {"12a", all, Decimal::kNotDecimal, 0, true},
        {"-1", all, Decimal::kNotDecimal, 0, true},
        {"+1", all, Decimal::kNotDecimal, 0, true},
        {" 1", all, Decimal::kNotDecimal, 0, true},
        {"1.5", all, Decimal::kNotDecimal, 0, true},
        {"\xd9\xa3", all, Decimal::kNotDecimal, 0, true},  // an Arabic-Indic digit
    };
    for (const Case& c : cases) {
        uint64_t value = 12345;
        testing::internal::CaptureStderr();
        EXPECT_EQ(ZoVkSettings::ParseDecimal(c.text, c.max, &value), c.result) << c.text;
        const std::string log = testing::internal::GetCapturedStderr();
        EXPECT_EQ(value, c.result == Decimal::kOk ? c.value : 12345u) << c.text;
        const std::string line = std::string("isIntChar is not int: ") + c.text;
        EXPECT_EQ(log.find(line) != std::string::npos, c.logged) << c.text << ": " << log;
        EXPECT_EQ(log.find("isIntChar", log.find("isIntChar") + 1), std::string::npos) << "one line only: " << log;
    }
}

// --- identification and switches ---------------------------------------------------------------

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

TEST(Switches, DefaultsWithoutConfigurationDataAreConservative) {
    EXPECT_TRUE(Settings()->UseLock());
    EXPECT_FALSE(Settings()->CheckRenderThread());
    EXPECT_FALSE(Settings()->IsDebuggable());
    vulkan::zovk::app::ZoVkProcessorDataBase* shared = Settings()->GetProcessorData();
    ASSERT_NE(shared, nullptr);
    EXPECT_EQ(Settings()->GetProcessorData(), shared);
}

// The host stand-in for system properties, and the one switch the layer reads from them.
TEST(Properties, BooleansAsLibcutilsSpellsThemTheLastWinsAndTheLogSwitchIsReadOnce) {
    char path[] = "/tmp/zovk_properties_XXXXXX";
    close(mkstemp(path));
    setenv("ZOVK_PROPERTIES", path, 1);
    std::ofstream(path) << "t1=1\nt2=y\nt3=yes\nt4=on\n  t5  =  true  \nf1=0\nf2=n\nf3=no\nf4=off\nf5=false\n"
                           "# c=1\nmaybe=maybe\nupper=TRUE\nempty=\nlast=0\nlast=1\nno equals sign\n"
                           "vendor.zovk.log.debug=true\n";
    for (const char* key : {"t1", "t2", "t3", "t4", "t5", "last"}) {
        EXPECT_EQ(property_get_bool(key, 0), 1) << key;
    }
    for (const char* key : {"f1", "f2", "f3", "f4", "f5"}) {
        EXPECT_EQ(property_get_bool(key, 1), 0) << key;
    }
    for (const char* key : {"maybe", "upper", "empty", "unset", "# c"}) {
        EXPECT_EQ(property_get_bool(key, 0), 0) << key;
        EXPECT_EQ(property_get_bool(key, 1), 1) << key;
    }
    EXPECT_TRUE(vulkan::zovk::IsLogDebug());
    std::ofstream(path) << "vendor.zovk.log.debug=false\n";
    EXPECT_TRUE(Settings()->IsLogDebug()) << "read once per process";
    testing::internal::CaptureStderr();
    Monitor()->UpdateAppInfo("1 other.package 5");  // an info line: written only with the switch on
    EXPECT_NE(testing::internal::GetCapturedStderr().find("s_er_p:other.package"), std::string::npos);
    std::remove(path);
    EXPECT_EQ(property_get_bool("t1", 0), 0) << "a missing file is an unset property";
    unsetenv("ZOVK_PROPERTIES");
    EXPECT_EQ(property_get_bool("t1", 0), 0);
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

TEST_F(GameServiceTest, FetchResultCodesAndWhatTheServiceIsAsked) {
    EXPECT_EQ(Settings()->InitZoVKPrefs(), 2u);
    EXPECT_EQ(Settings()->GetRemoteService(), nullptr);

    sp<FakePavune> service = StartService();
    // 3: the call failed, 4: an exception, 5: an empty document, 0: an unusable one.
    const std::tuple<android::status_t, int32_t, const char*, uint32_t> fetches[] = {
        {android::UNKNOWN_TRANSACTION, 0, "", 3u}, {OK, Status::EX_ILLEGAL_STATE, "", 4u}, {OK, 0, "", 5u},
        {OK, 0, "{}", 0u}, {OK, 0, "{\"configs\":", 0u}, {OK, 0, "[1,2]", 0u},
        {OK, 0, "{\"configs\":{\"xrender_BaseInfo\":\"0\"}}", 0u}};
    for (const auto& [status, exception, document, code] : fetches) {
        service->fetchStatus = status;
        service->fetchException = exception;
        service->document = document;
        EXPECT_EQ(Settings()->InitZoVKPrefs(), code) << document;
        EXPECT_EQ(Settings()->GetHookFlags(), 0u) << document;
    }
    EXPECT_EQ(service->Requests(30), std::vector<Strings>(7, Strings{"30", kStarRail}));
    EXPECT_NE(Settings()->GetRemoteService(), nullptr);
    Settings()->OnRemoteServiceDied();
    EXPECT_EQ(Settings()->GetRemoteService(), nullptr);
    Monitor()->NotifyMonitorStarted();  // a death leaves nobody to tell
    EXPECT_TRUE(service->Requests(29).empty());
}

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

// The stub's answers over its transaction, and what reaches the monitor; a proxy whose peer knows
// no transaction falls back to the default implementation.
TEST_F(GameServiceTest, IncomingCallsReachTheMonitorOnlyWhenWellFormed) {
    Monitor()->Start();
    const sp<BnGameInfoUpdate> stub = new BnGameInfoUpdate();
    EXPECT_EQ(IGameInfoUpdate::asInterface(stub).get(), stub.get());
    struct Case {
        const char* token;
        uint32_t code;
        const char16_t* record;  // null: a null string
        android::status_t result;
        int32_t exception;
        int sceneId;
    };
    const char* pavune = vulkan::zovk::pavune::kInterfaceToken;
    const char* update = "com.veltra.pavune.IGameInfoUpdate";
    const Case cases[] = {
        {pavune, 1, u"1 com.miHoYo.hkrpg 12", android::BAD_TYPE, 0, 0},
        {update, 2, u"1 com.miHoYo.hkrpg 13", android::UNKNOWN_TRANSACTION, 0, 0},
        {update, 1, nullptr, OK, Status::EX_NULL_POINTER, 0},
        {update, 1, u"1 com.miHoYo.hkrpg 12", OK, 0, 12},
    };
    for (const Case& c : cases) {
        Parcel data;
        Parcel reply;
        data.writeInterfaceToken(String16(c.token));
        data.writeString16(c.record, c.record != nullptr ? std::char_traits<char16_t>::length(c.record) : 0);
        EXPECT_EQ(stub->transact(c.code, data, &reply), c.result) << c.token << " " << c.code;
        if (c.result == OK) {
            Status status;
            EXPECT_EQ(status.readFromParcel(reply), OK);
            EXPECT_EQ(status.exceptionCode(), c.exception);
        }
        EXPECT_EQ(Monitor()->GetSceneId(), c.sceneId);
    }
    const sp<BpGameInfoUpdate> proxy = new BpGameInfoUpdate(new android::BBinder());  // knows no transaction
    EXPECT_EQ(proxy->sendToZoGL(String16("1 com.miHoYo.hkrpg 14")).transactionError(), android::UNKNOWN_TRANSACTION);
    EXPECT_FALSE(IGameInfoUpdate::setDefaultImpl(nullptr));
    ASSERT_TRUE(IGameInfoUpdate::setDefaultImpl(stub));
    EXPECT_TRUE(proxy->sendToZoGL(String16("1 com.miHoYo.hkrpg 14")).isOk());
    EXPECT_EQ(Monitor()->GetSceneId(), 14);
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
