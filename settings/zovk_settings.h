#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include <binder/IBinder.h>
#include <utils/String8.h>

#include "app/zovk_processor_data_base.h"
#include "settings/zovk_application_type.h"
#include "settings/zovk_never_destroyed.h"

namespace vulkan::zovk {

// Bits of the hook-enable flags. Interception is active only while all three are set.
constexpr uint32_t kHookConfigAccepted = 1u << 0;     // the remote configuration was accepted
constexpr uint32_t kHookModulesConfigured = 1u << 1;  // at least one module is switched on
constexpr uint32_t kHookExtensionsReady = 1u << 2;    // the functions the hooks need are there
constexpr uint32_t kHookAll = kHookConfigAccepted | kHookModulesConfigured | kHookExtensionsReady;

// The 21-letter layer name, shared by the layer properties record, the settings and the
// build's layer manifest.
#define ZOVK_LAYER_NAME "zovkshadingrateengine"
inline constexpr char kZoVkLayerName[] = ZOVK_LAYER_NAME;
static_assert(sizeof(kZoVkLayerName) == 22, "the layer name has 21 letters");

// Process-wide settings: which application this is, its configuration data, the
// hook-enable flags and the logging switch.
class ZoVkSettings {
public:
    // On the path of every hooked call: kept inline. Never destroyed: modules, binder
    // threads and the game's own threads may read the settings while the process exits.
    static ZoVkSettings* GetInstance() {
        static ZoVkNeverDestroyed<ZoVkSettings> settings;
        return settings.Get();
    }

    // Reads the process name and identifies the application, on the first call only (from
    // createInstance): later calls change nothing, since live processors and modules point
    // into the configuration data.
    void InitDataInfo();
    // Identification from the raw contents of /proc/<pid>/cmdline; true when recognised.
    bool IdentifyApplication(const std::string& cmdline);

    // The configuration fetch from the game service: 0 read and handed over, 2 service
    // not found, 3 transaction failed, 4 exception in the reply, 5 empty reply.
    uint32_t InitZoVKPrefs();
    // Hands the document's "configs" to the configuration data; always 0.
    int ReadFromPavune(const std::string& json);
    void OnRemoteServiceDied();
    // The service found by the fetch; null before it and after its death.
    android::sp<android::IBinder> GetRemoteService() const;
    void SetRemoteService(const android::sp<android::IBinder>& service);

    app::ZoVkProcessorDataBase* GetProcessorData();
    bool CheckRenderThread() const { return processorData_ != nullptr && processorData_->checkRenderThread; }
    // Without configuration data nothing is known about the application's threads: lock.
    bool UseLock() const { return processorData_ == nullptr || processorData_->useLock; }

    // Process names of the recognised applications.
    static const std::unordered_map<std::string, ZoVkApplicationType>& PackageTable();

    static std::vector<std::string> Split(const std::string& text, const std::string& delimiters);
    // ASCII digits only; other text (but an empty one) is logged as an error.
    static bool IsIntChar(const std::string& text);
    // The one reading of a number in the configuration: digits only (IsIntChar: no sign,
    // space or point), at most `max`, no exceptions. Above `max` is left to the caller to
    // report, with its key and range.
    enum class Decimal { kOk, kNotDecimal, kTooLarge };
    static Decimal ParseDecimal(const std::string& text, uint64_t max, uint64_t* value);

    // Hook-enable flags. Written during start-up and instance creation, read on every
    // address query from any thread; relaxed atomics cost the same as plain accesses.
    uint32_t GetHookFlags() const { return hookFlags_.load(std::memory_order_relaxed); }
    bool HasHookFlags(uint32_t bits) const { return (GetHookFlags() & bits) == bits; }
    void SetHookFlags(uint32_t bits) { hookFlags_.fetch_or(bits, std::memory_order_relaxed); }
    void ClearHookFlags(uint32_t bits) { hookFlags_.fetch_and(~bits, std::memory_order_relaxed); }

    const std::string& GetLayerName() const { return layerName_; }
    bool IsDebuggable() const { return debuggable_; }
    bool IsLogDebug() const { return logDebug_; }
    // "vendor.zovk.vrs.conforming": the VRS modules reach their shading with valid Vulkan only.
    bool IsVrsConforming() const { return vrsConforming_; }
    int32_t GetPid() const { return pid_; }
    ZoVkApplicationType GetApplicationType() const { return applicationType_; }
    const android::String8& GetProcessName() const { return processName_; }

    // For programs that stand in for identification (tests, tools).
    void SetApplicationType(ZoVkApplicationType type) { applicationType_ = type; }
    // Takes ownership of the configuration data of a recognised application.
    void SetProcessorData(app::ZoVkProcessorDataBase* data);

    ZoVkSettings(const ZoVkSettings&) = delete;
    ZoVkSettings& operator=(const ZoVkSettings&) = delete;

private:
    friend class ZoVkNeverDestroyed<ZoVkSettings>;
    ZoVkSettings();
    ~ZoVkSettings() = delete;
    void InitDataInfoOnce();

    std::once_flag dataInfoOnce_;
    // Replaced by the fetch and cleared by a death notice on a binder thread.
    mutable std::mutex remoteLock_;
    android::sp<android::IBinder> remoteService_;
    std::atomic<uint32_t> hookFlags_{0};
    app::ZoVkProcessorDataBase* processorData_ = nullptr;
    int32_t pid_ = 0;
    ZoVkApplicationType applicationType_ = ZOVK_APPLICATION_NONE;
    android::String8 processName_;
    std::string layerName_;
    bool debuggable_ = false;
    bool logDebug_ = false;
    bool vrsConforming_ = false;
};

}  // namespace vulkan::zovk
