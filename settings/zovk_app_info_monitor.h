#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "settings/zovk_never_destroyed.h"

namespace android {

// Keeps the in-game state that the game service pushes (scene id, picture settings, the
// VRS switch) for the rendering modules. Started once a configuration with modules is
// accepted: a short-lived thread registers the layer's callback with the service.
class ZoVkAppInfoMonitor {
public:
    static ZoVkAppInfoMonitor* GetInstance();

    void Start();
    static void* ThreadProcess(void* arg);
    void NotifyMonitorStarted();
    int EventProcess();

    // One record from the service: "type package fields...".
    void UpdateAppInfo(const std::string& info);
    void ParseGameSceneId(const std::string& package, int sceneId);
    void ParseGamePictureInfo(const std::string& package, int key, int value);
    void ParseVkVrsSwitch(const std::string& package, int value);

    // Written by binder threads, read by render threads: each value on its own, without
    // a lock (relaxed atomics cost what plain accesses do).
    int GetImageQuality() const { return imageQuality_.load(std::memory_order_relaxed); }
    int GetSceneId() const { return sceneId_.load(std::memory_order_relaxed); }
    int GetMSAASwitch() const { return msaaSwitch_.load(std::memory_order_relaxed); }
    int getVrsLevel() const { return vrsLevel_.load(std::memory_order_relaxed); }
    bool IsVrsEnable() const { return vrsEnabled_.load(std::memory_order_relaxed); }
    bool IsStarted() const { return started_; }

    ZoVkAppInfoMonitor(const ZoVkAppInfoMonitor&) = delete;
    ZoVkAppInfoMonitor& operator=(const ZoVkAppInfoMonitor&) = delete;

private:
    // Never destroyed: binder threads may deliver a record while the process exits.
    friend class vulkan::zovk::ZoVkNeverDestroyed<ZoVkAppInfoMonitor>;
    ZoVkAppInfoMonitor();
    ~ZoVkAppInfoMonitor() = delete;

    // Stores when the record is for this process; traces otherwise.
    bool ForThisPackage(const std::string& package, const char* mismatchFormat) const;

    pthread_t thread_{};
    bool started_ = false;
    std::atomic<bool> vrsEnabled_{false};
    std::atomic<int32_t> vrsLevel_{0};
    std::atomic<int32_t> imageQuality_{0};
    std::atomic<int32_t> msaaSwitch_{0};
    std::atomic<int32_t> sceneId_{0};
    std::atomic<int32_t> pictureKey10_{-1};
    // Written by Start(), read by binder threads that may predate it.
    mutable std::mutex packageLock_;
    std::string packageName_;
};

}  // namespace android
