#include "settings/zovk_scene_recognizer.h"

#include <string>

#include <android/log.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <utils/String16.h>

#include "settings/zovk_pavune.h"

namespace {
constexpr char kTag[] = "libZoVK_HSRE";
}

namespace pavune = vulkan::zovk::pavune;

StarRailSceneRecognizer* StarRailSceneRecognizer::getInstance() {
    static StarRailSceneRecognizer recognizer;
    return &recognizer;
}

uint32_t StarRailSceneRecognizer::sendSceneIdToPavune(int sceneId) {
    __android_log_print(ANDROID_LOG_DEBUG, kTag, "sendSceneIdToPavune, sceneId: %d", sceneId);
    const android::sp<android::IBinder> service =
        android::defaultServiceManager()->checkService(android::String16(pavune::kServiceName));
    if (service == nullptr) {
        __android_log_print(ANDROID_LOG_WARN, kTag, "remote service not exist.");
        return kServiceMissing;
    }
    android::Parcel data;
    android::Parcel reply;
    data.writeInterfaceToken(android::String16(pavune::kInterfaceToken));
    data.writeInt32(1);
    const std::string json = "{\"sceneId\":" + std::to_string(sceneId) + "}";
    data.writeString16(android::String16(json.c_str()));
    if (service->transact(pavune::kTransactionSceneId, data, &reply, 0) != android::OK) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "call remote service failed.");
        return kSendFailed;
    }
    return kSent;
}

void StarRailSceneRecognizer::notifyVkMode() {
    if (notified_) {
        return;
    }
    notified_ = true;
    sendSceneIdToPavune(kVulkanModeSceneId);
}
