// The configuration fetch: the game service answers a recognised process with a JSON
// document whose "configs" object decides which modules run.
#include <json/reader.h>

#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <utils/String16.h>
#include <utils/String8.h>

#include "settings/zovk_log.h"
#include "settings/zovk_pavune.h"
#include "settings/zovk_settings.h"

namespace vulkan::zovk {

namespace {

// Told when the game service dies; held only for the duration of the fetch, so the
// registration lapses with it.
class RemoteDeath : public android::IBinder::DeathRecipient {
public:
    explicit RemoteDeath(ZoVkSettings* settings) : settings_(settings) {}
    void binderDied(const android::wp<android::IBinder>&) override { settings_->OnRemoteServiceDied(); }

private:
    ZoVkSettings* settings_;
};

}  // namespace

android::sp<android::IBinder> ZoVkSettings::GetRemoteService() const {
    std::lock_guard<std::mutex> guard(remoteLock_);
    return remoteService_;
}

uint32_t ZoVkSettings::InitZoVKPrefs() {
    android::Parcel data;
    android::Parcel reply;
    const android::sp<android::IBinder> service =
        android::defaultServiceManager()->checkService(android::String16(pavune::kServiceName));
    {
        std::lock_guard<std::mutex> guard(remoteLock_);
        remoteService_ = service;
    }
    if (service == nullptr) {
        ZOVK_LOGW("remote service not exist.");
        return 2;
    }
    const android::sp<RemoteDeath> recipient = new RemoteDeath(this);
    service->linkToDeath(recipient, nullptr, 0);

    data.writeInterfaceToken(android::String16(pavune::kInterfaceToken));
    data.writeString16(android::String16(processName_));
    if (service->transact(pavune::kTransactionFetchConfig, data, &reply, 0) != android::OK) {
        ZOVK_LOGE("vxxk:call remote service failed.");
        return 3;
    }
    if (reply.readExceptionCode() != 0) {
        return 4;
    }
    const android::String8 utf8(reply.readString16());
    const std::string json(utf8.c_str());  // up to the first NUL
    __android_log_print(ANDROID_LOG_DEBUG, ZOVK_LOG_TAG, "vxxk v: %s, n: %s", pavune::kBuildTag,
                        processName_.c_str());
    if (json.empty()) {
        return 5;
    }
    ReadFromPavune(json);
    return 0;
}

int ZoVkSettings::ReadFromPavune(const std::string& json) {
    Json::Value root;
    Json::Reader reader;
    if (!reader.parse(json, root, true)) {
        ZOVK_LOGW("configuration from the game service is not JSON: %s",
                  reader.getFormattedErrorMessages().c_str());
        return 0;
    }
    // A document that is not an object has no "configs".
    const Json::Value configs = root.isObject() ? root["configs"] : Json::Value();
    if (processorData_ != nullptr && processorData_->InitProcessorConfigData(configs)) {
        SetHookFlags(kHookConfigAccepted);
        ZOVK_LOGD("vxxk enf: %d", static_cast<int>(GetHookFlags()));
    }
    return 0;
}

void ZoVkSettings::OnRemoteServiceDied() {
    ZOVK_LOGE("ZoVK:remote service died.");
    std::lock_guard<std::mutex> guard(remoteLock_);
    remoteService_ = nullptr;
}

}  // namespace vulkan::zovk
