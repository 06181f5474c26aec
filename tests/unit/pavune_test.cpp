// The layer's side of the game service: the configuration fetch, the callback interface,
// the monitor of in-game state and the scene report, against an in-process service.
#include <gtest/gtest.h>

#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include <binder/Binder.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/Status.h>
#include <utils/String16.h>
#include <utils/String8.h>

#include "app/zovk_app_data.h"
#include "app/zovk_factory.h"
#include "settings/zovk_app_info_monitor.h"
#include "settings/zovk_game_info_update.h"
#include "settings/zovk_scene_recognizer.h"
#include "settings/zovk_settings.h"
#include "tests/unit/binder/binder_test_support.h"

using namespace vulkan::zovk;
using android::OK;
using android::Parcel;
using android::sp;
using android::status_t;
using android::String16;
using android::binder::Status;
using Bytes = std::vector<uint8_t>;

namespace {

// Parcel bytes written out by hand, as libbinder lays them out.
void Int32(Bytes& out, int32_t value) {
    for (int i = 0; i < 4; ++i) {
        out.push_back(static_cast<uint8_t>(static_cast<uint32_t>(value) >> (8 * i)));
    }
}
void Text16(Bytes& out, const std::string& ascii) {
    Int32(out, static_cast<int32_t>(ascii.size()));
    for (const char c : ascii) {
        out.push_back(static_cast<uint8_t>(c));
        out.push_back(0);
    }
    out.push_back(0);
    out.push_back(0);
    while (out.size() % 4 != 0) {
        out.push_back(0);
    }
}
Bytes Token(const std::string& descriptor) {
    Bytes out;
    Int32(out, static_cast<int32_t>(0x80000000u));  // strict-mode policy: gather
    Int32(out, -1);                                  // work source: unset
    Int32(out, 0x53595354);                          // 'SYST'
    Text16(out, descriptor);
    return out;
}
const std::string kPavuneToken = "com.veltra.pavune.IPavuneInterface";

struct Received {
    uint32_t code;
    Bytes bytes;
    bool hasBinder;
};

// The game service, as far as the layer can tell: it records every request and answers
// the fetch as the test says.
class FakePavune : public android::BBinder {
public:
    enum class Fetch { kDocument, kFail, kException };

    const String16& getInterfaceDescriptor() const override {
        static const String16 descriptor(kPavuneToken.c_str());
        return descriptor;
    }

    std::vector<Received> Requests(uint32_t code) {
        std::lock_guard<std::mutex> guard(lock_);
        std::vector<Received> matching;
        for (const Received& r : received_) {
            if (r.code == code) {
                matching.push_back(r);
            }
        }
        return matching;
    }

    Fetch fetch = Fetch::kDocument;
    std::string document;

protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        Received r{code, Bytes(data.data(), data.data() + data.dataSize()), false};
        if (code == 35) {
            data.setDataPosition(0);
            data.enforceInterface(getInterfaceDescriptor());
            data.readString16();
            r.hasBinder = data.readStrongBinder() != nullptr;
        }
        {
            std::lock_guard<std::mutex> guard(lock_);
            received_.push_back(r);
        }
        if (code != 30) {
            return code == 3 || code == 29 || code == 35 ? OK : android::BBinder::onTransact(code, data, reply, flags);
        }
        switch (fetch) {
            case Fetch::kFail:
                return android::UNKNOWN_TRANSACTION;
            case Fetch::kException:
                return Status::fromExceptionCode(Status::EX_ILLEGAL_STATE, "no").writeToParcel(reply);
            case Fetch::kDocument:
                reply->writeNoException();
                return reply->writeString16(String16(document.c_str()));
        }
        return OK;
    }

private:
    std::mutex lock_;
    std::vector<Received> received_;
};

class PavuneTest : public ::testing::Test {
protected:
    void SetUp() override {
        ZoVkSettings* settings = ZoVkSettings::GetInstance();
        ASSERT_TRUE(settings->IdentifyApplication(std::string("com.miHoYo.hkrpg\0--flag", 23)));
        settings->SetProcessorData(app::CreateProcessorData());
    }

    sp<FakePavune> StartService() {
        sp<FakePavune> service = new FakePavune();
        EXPECT_EQ(android::defaultServiceManager()->addService(String16("veltra.pavune"), service), OK);
        return service;
    }

    zovk_test::BinderDir dir_;
};

TEST_F(PavuneTest, FetchWithoutServiceLeavesTheLayerPassive) {
    EXPECT_EQ(ZoVkSettings::GetInstance()->InitZoVKPrefs(), 2u);
    EXPECT_EQ(ZoVkSettings::GetInstance()->GetHookFlags(), 0u);
    EXPECT_EQ(ZoVkSettings::GetInstance()->GetRemoteService(), nullptr);
}

TEST_F(PavuneTest, FetchResultCodes) {
    sp<FakePavune> service = StartService();
    service->fetch = FakePavune::Fetch::kFail;
    EXPECT_EQ(ZoVkSettings::GetInstance()->InitZoVKPrefs(), 3u);
    service->fetch = FakePavune::Fetch::kException;
    EXPECT_EQ(ZoVkSettings::GetInstance()->InitZoVKPrefs(), 4u);
    service->fetch = FakePavune::Fetch::kDocument;
    service->document = "";
    EXPECT_EQ(ZoVkSettings::GetInstance()->InitZoVKPrefs(), 5u);
    for (const char* unusable : {"{}", "{\"configs\":", "[1,2]", "{\"configs\":{\"xrender_BaseInfo\":\"0\"}}"}) {
        service->document = unusable;
        EXPECT_EQ(ZoVkSettings::GetInstance()->InitZoVKPrefs(), 0u) << unusable;
        EXPECT_FALSE(ZoVkSettings::GetInstance()->HasHookFlags(kHookConfigAccepted)) << unusable;
    }

    // Every fetch asked by process name, laid out as libbinder does.
    Bytes expected = Token(kPavuneToken);
    Text16(expected, "com.miHoYo.hkrpg");
    const std::vector<Received> fetches = service->Requests(30);
    ASSERT_EQ(fetches.size(), 7u);
    EXPECT_EQ(fetches[0].bytes, expected);
}

TEST_F(PavuneTest, AcceptedConfigurationEnablesAndRegistersTheCallback) {
    sp<FakePavune> service = StartService();
    service->document = R"({"configs":{"xrender_BaseInfo":"1"}})";
    ASSERT_EQ(ZoVkSettings::GetInstance()->InitZoVKPrefs(), 0u);
    EXPECT_TRUE(ZoVkSettings::GetInstance()->HasHookFlags(kHookConfigAccepted | kHookModulesConfigured));
    EXPECT_NE(ZoVkSettings::GetInstance()->GetRemoteService(), nullptr);

    // The monitor told the service it started, and its thread registered the callback.
    Bytes started = Token(kPavuneToken);
    Text16(started, "com.miHoYo.hkrpg");
    ASSERT_EQ(service->Requests(29).size(), 1u);
    EXPECT_EQ(service->Requests(29)[0].bytes, started);
    ASSERT_TRUE(zovk_test::Eventually([&] { return !service->Requests(35).empty(); }));
    const Received registration = service->Requests(35)[0];
    EXPECT_TRUE(registration.hasBinder);
    Bytes named = Token(kPavuneToken);
    Text16(named, "com.miHoYo.hkrpg_zovk");
    ASSERT_GT(registration.bytes.size(), named.size());
    EXPECT_EQ(Bytes(registration.bytes.begin(), registration.bytes.begin() + named.size()), named);
}

TEST_F(PavuneTest, DeathOfTheServiceDropsTheReference) {
    sp<FakePavune> service = StartService();
    service->document = "{}";
    ZoVkSettings::GetInstance()->InitZoVKPrefs();
    ASSERT_NE(ZoVkSettings::GetInstance()->GetRemoteService(), nullptr);
    ZoVkSettings::GetInstance()->OnRemoteServiceDied();
    EXPECT_EQ(ZoVkSettings::GetInstance()->GetRemoteService(), nullptr);
    // The start notification then finds nothing to tell.
    android::ZoVkAppInfoMonitor::GetInstance()->NotifyMonitorStarted();
    EXPECT_TRUE(service->Requests(29).empty());
}

Status Transact(const sp<android::IBinder>& binder, uint32_t code, const Parcel& data, status_t* result) {
    Parcel reply;
    *result = binder->transact(code, data, &reply);
    Status status;
    if (*result == OK) {
        status.readFromParcel(reply);
    }
    return status;
}

TEST_F(PavuneTest, IncomingCallsReachTheMonitorOnlyWhenWellFormed) {
    android::ZoVkAppInfoMonitor* monitor = android::ZoVkAppInfoMonitor::GetInstance();
    monitor->Start();
    sp<com::veltra::pavune::BnGameInfoUpdate> stub = new com::veltra::pavune::BnGameInfoUpdate();
    status_t result = OK;

    Parcel wrongToken;
    wrongToken.writeInterfaceToken(String16(kPavuneToken.c_str()));
    wrongToken.writeString16(String16("1 com.miHoYo.hkrpg 12"));
    Transact(stub, 1, wrongToken, &result);
    EXPECT_EQ(result, android::BAD_TYPE);

    Parcel otherCode;
    otherCode.writeInterfaceToken(com::veltra::pavune::IGameInfoUpdate::descriptor);
    otherCode.writeString16(String16("1 com.miHoYo.hkrpg 13"));
    Transact(stub, 2, otherCode, &result);
    EXPECT_EQ(result, android::UNKNOWN_TRANSACTION);
    EXPECT_EQ(monitor->GetSceneId(), 0);

    Parcel nullText;
    nullText.writeInterfaceToken(com::veltra::pavune::IGameInfoUpdate::descriptor);
    nullText.writeString16(nullptr, 0);
    Status status = Transact(stub, 1, nullText, &result);
    EXPECT_EQ(result, OK);
    EXPECT_EQ(status.exceptionCode(), Status::EX_NULL_POINTER);

    Parcel good;
    good.writeInterfaceToken(com::veltra::pavune::IGameInfoUpdate::descriptor);
    good.writeString16(String16("1 com.miHoYo.hkrpg 12"));
    status = Transact(stub, 1, good, &result);
    EXPECT_EQ(result, OK);
    EXPECT_TRUE(status.isOk());
    EXPECT_EQ(monitor->GetSceneId(), 12);
    EXPECT_EQ(com::veltra::pavune::IGameInfoUpdate::asInterface(stub).get(), stub.get());
}

// A binder that knows no transaction of the callback interface, and records what came.
class Deaf : public android::BBinder {
public:
    Bytes last;

protected:
    status_t onTransact(uint32_t, const Parcel& data, Parcel*, uint32_t) override {
        last.assign(data.data(), data.data() + data.dataSize());
        return android::UNKNOWN_TRANSACTION;
    }
};

class DefaultImpl : public com::veltra::pavune::BnGameInfoUpdate {
public:
    Status sendToZoGL(const String16& info) override {
        seen = android::String8(info).c_str();
        return Status::ok();
    }
    std::string seen;
};

TEST(GameInfoUpdateProxyTest, UnknownTransactionFallsBackToTheDefaultImplementation) {
    sp<Deaf> deaf = new Deaf();
    // Reference-counted objects live in sp<>: on the stack RefBase never frees its counts.
    const sp<com::veltra::pavune::BpGameInfoUpdate> proxy = new com::veltra::pavune::BpGameInfoUpdate(deaf);
    Status status = proxy->sendToZoGL(String16("6 com.miHoYo.hkrpg 2"));
    EXPECT_EQ(status.transactionError(), android::UNKNOWN_TRANSACTION);

    Bytes expected = Token("com.veltra.pavune.IGameInfoUpdate");
    Text16(expected, "6 com.miHoYo.hkrpg 2");
    EXPECT_EQ(deaf->last, expected);

    EXPECT_FALSE(com::veltra::pavune::IGameInfoUpdate::setDefaultImpl(nullptr));
    sp<DefaultImpl> fallback = new DefaultImpl();
    ASSERT_TRUE(com::veltra::pavune::IGameInfoUpdate::setDefaultImpl(fallback));
    EXPECT_TRUE(proxy->sendToZoGL(String16("6 com.miHoYo.hkrpg 2")).isOk());
    EXPECT_EQ(fallback->seen, "6 com.miHoYo.hkrpg 2");
}

TEST(MonitorTest, RecordsBeforeStartAreIgnored) {
    ZoVkSettings::GetInstance()->IdentifyApplication("com.miHoYo.hkrpg");
    android::ZoVkAppInfoMonitor* monitor = android::ZoVkAppInfoMonitor::GetInstance();
    monitor->UpdateAppInfo("1 com.miHoYo.hkrpg 12");
    monitor->UpdateAppInfo("6 com.miHoYo.hkrpg 3");
    EXPECT_EQ(monitor->GetSceneId(), 0);
    EXPECT_FALSE(monitor->IsVrsEnable());
}

TEST(MonitorTest, EveryRecordShape) {
    zovk_test::BinderDir dir;  // no service: registration and notification just give up
    ZoVkSettings::GetInstance()->IdentifyApplication("com.miHoYo.hkrpg");
    android::ZoVkAppInfoMonitor* monitor = android::ZoVkAppInfoMonitor::GetInstance();
    monitor->Start();

    monitor->UpdateAppInfo("1 com.miHoYo.hkrpg 12 trailing fields ignored");
    EXPECT_EQ(monitor->GetSceneId(), 12);
    monitor->UpdateAppInfo("1 com.other.game 99");
    EXPECT_EQ(monitor->GetSceneId(), 12);

    monitor->UpdateAppInfo("2 com.miHoYo.hkrpg 54 1");
    monitor->UpdateAppInfo("2 com.miHoYo.hkrpg 8 3");
    monitor->UpdateAppInfo("2 com.miHoYo.hkrpg 9 7");
    EXPECT_EQ(monitor->GetMSAASwitch(), 1);
    EXPECT_EQ(monitor->GetImageQuality(), 3);

    monitor->UpdateAppInfo("6 com.miHoYo.hkrpg 3");
    EXPECT_TRUE(monitor->IsVrsEnable());
    EXPECT_EQ(monitor->getVrsLevel(), 3);
    monitor->UpdateAppInfo("6 com.miHoYo.hkrpg 0");
    EXPECT_FALSE(monitor->IsVrsEnable());
    EXPECT_EQ(monitor->getVrsLevel(), 0);

    // Malformed records change nothing.
    for (const char* bad : {"1 com.miHoYo.hkrpg", "1 com.miHoYo.hkrpg x", "hello", "", "7 com.miHoYo.hkrpg 1",
                            "2 com.miHoYo.hkrpg 54", "6 com.miHoYo.hkrpg", "6 com.miHoYo.hkrpg 99999999999"}) {
        monitor->UpdateAppInfo(bad);
    }
    EXPECT_EQ(monitor->GetSceneId(), 12);
    EXPECT_EQ(monitor->GetMSAASwitch(), 1);
    EXPECT_EQ(monitor->getVrsLevel(), 0);
}

TEST(SceneRecognizerTest, TheVulkanModeIsReportedOnceWhateverTheFirstSendGave) {
    zovk_test::BinderDir dir;
    StarRailSceneRecognizer early;
    early.notifyVkMode();  // no service yet: code 2, and never again

    sp<FakePavune> service = new FakePavune();
    ASSERT_EQ(android::defaultServiceManager()->addService(String16("veltra.pavune"), service), OK);
    early.notifyVkMode();
    EXPECT_TRUE(service->Requests(3).empty());

    StarRailSceneRecognizer recognizer;
    EXPECT_EQ(recognizer.sendSceneIdToPavune(-7), StarRailSceneRecognizer::kSent);
    recognizer.notifyVkMode();
    recognizer.notifyVkMode();
    const std::vector<Received> reports = service->Requests(3);
    ASSERT_EQ(reports.size(), 2u);
    Bytes negative = Token(kPavuneToken);
    Int32(negative, 1);
    Text16(negative, "{\"sceneId\":-7}");
    EXPECT_EQ(reports[0].bytes, negative);
    Bytes vulkanMode = Token(kPavuneToken);
    Int32(vulkanMode, 1);
    Text16(vulkanMode, "{\"sceneId\":10005}");
    EXPECT_EQ(reports[1].bytes, vulkanMode);
}

}  // namespace
