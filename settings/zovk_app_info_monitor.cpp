#include "settings/zovk_app_info_monitor.h"

#include <cerrno>
#include <cstring>
#include <sstream>

#include <binder/IInterface.h>

#include "settings/zovk_game_info_update.h"
#include "settings/zovk_log.h"
#include "settings/zovk_pavune.h"
#include "settings/zovk_settings.h"

namespace android {

using vulkan::zovk::ZoVkSettings;
namespace pavune = vulkan::zovk::pavune;

namespace {

constexpr int kInfoSceneId = 1;
constexpr int kInfoPicture = 2;
constexpr int kInfoVrsSwitch = 6;
constexpr int kPictureImageQuality = 8;
constexpr int kPictureKey10 = 10;
constexpr int kPictureMsaa = 54;

}  // namespace

ZoVkAppInfoMonitor* ZoVkAppInfoMonitor::GetInstance() {
    static vulkan::zovk::ZoVkNeverDestroyed<ZoVkAppInfoMonitor> monitor;
    return monitor.Get();
}

ZoVkAppInfoMonitor::ZoVkAppInfoMonitor() {
    ZOVK_LOGI("ZoVk AppInfoMonitor construct");
}

void ZoVkAppInfoMonitor::Start() {
    if (started_) {
        return;
    }
    {
        std::lock_guard<std::mutex> guard(packageLock_);
        packageName_ = ZoVkSettings::GetInstance()->GetProcessName().c_str();
    }
    if (pthread_create(&thread_, nullptr, ThreadProcess, this) != 0) {
        ZOVK_LOGE("ZoVK create app info monitor thread failed");
        return;
    }
    pthread_setname_np(thread_, "AIM_thread");
    // The registration thread runs once and ends on its own; nobody waits for it.
    pthread_detach(thread_);
    started_ = true;
    NotifyMonitorStarted();
}

void* ZoVkAppInfoMonitor::ThreadProcess(void* arg) {
    if (arg != nullptr) {
        static_cast<ZoVkAppInfoMonitor*>(arg)->EventProcess();
    }
    return nullptr;
}

int ZoVkAppInfoMonitor::EventProcess() {
    sp<com::veltra::pavune::BnGameInfoUpdate> stub = new com::veltra::pavune::BnGameInfoUpdate();
    if (stub == nullptr) {
        ZOVK_LOGW("new BnGameInfoUpdate fail.");
        return 0;
    }
    const std::string name = std::string(ZoVkSettings::GetInstance()->GetProcessName().c_str()) + "_zovk";
    if (pavune::Client::RegisterCallback(name, IInterface::asBinder(stub)) == pavune::Outcome::kDone) {
        ZOVK_LOGD("ZoVK BnGameInfoUpdate register success");
    }
    // From here the stub lives as long as the service holds it.
    return 0;
}

void ZoVkAppInfoMonitor::NotifyMonitorStarted() {
    std::string package;
    {
        std::lock_guard<std::mutex> guard(packageLock_);
        package = packageName_;
    }
    pavune::Client::NotifyMonitorStarted(package);
}

void ZoVkAppInfoMonitor::UpdateAppInfo(const std::string& info) {
    ZOVK_LOGI("appInfo changed: %s", info.c_str());
    std::istringstream in(info);
    int type = 0;
    if (!(in >> type)) {
        ZOVK_LOGE("ZoVK parse app infoType error: %s", strerror(errno));
        return;
    }
    std::string package;
    int first = 0;
    int second = 0;
    switch (type) {
        case kInfoSceneId:
            if (!(in >> package >> first)) {
                ZOVK_LOGE("parse game sceneId error: %s", strerror(errno));
                return;
            }
            ParseGameSceneId(package, first);
            return;
        case kInfoPicture:
            if (!(in >> package >> first >> second)) {
                ZOVK_LOGE("parse game pictureInfo error: %s", strerror(errno));
                return;
            }
            ParseGamePictureInfo(package, first, second);
            return;
        case kInfoVrsSwitch:
            if (!(in >> package >> first)) {
                ZOVK_LOGE("parse vk vrs switch error: %s", strerror(errno));
                return;
            }
            ParseVkVrsSwitch(package, first);
            return;
        default:
            ZOVK_LOGE("unknown app info type: %d", type);
            return;
    }
}

bool ZoVkAppInfoMonitor::ForThisPackage(const std::string& package, const char* mismatchFormat) const {
    {
        std::lock_guard<std::mutex> guard(packageLock_);
        if (!packageName_.empty() && packageName_ == package) {
            return true;
        }
    }
    ZOVK_LOGI(mismatchFormat, package.c_str());
    return false;
}

void ZoVkAppInfoMonitor::ParseGameSceneId(const std::string& package, int sceneId) {
    ZOVK_LOGI("ParseGameSceneId: %d", sceneId);
    if (ForThisPackage(package, "s_er_p:%s")) {
        sceneId_.store(sceneId, std::memory_order_relaxed);
    }
}

void ZoVkAppInfoMonitor::ParseGamePictureInfo(const std::string& package, int key, int value) {
    ZOVK_LOGI("parseGamePictureInfo key: %d , value: %d", key, value);
    if (!ForThisPackage(package, "p_er_p:%s")) {
        return;
    }
    switch (key) {
        case kPictureMsaa:
            msaaSwitch_.store(value, std::memory_order_relaxed);
            break;
        case kPictureKey10:
            pictureKey10_.store(value, std::memory_order_relaxed);
            break;
        case kPictureImageQuality:
            imageQuality_.store(value, std::memory_order_relaxed);
            break;
        default:
            break;
    }
}

void ZoVkAppInfoMonitor::ParseVkVrsSwitch(const std::string& package, int value) {
    ZOVK_LOGI("parseVkVrsSwitch: %d", value);
    if (ForThisPackage(package, "v_er_p:%s")) {
        vrsLevel_.store(value, std::memory_order_relaxed);
        vrsEnabled_.store(value != 0, std::memory_order_relaxed);
    }
}

}  // namespace android
