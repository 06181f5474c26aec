#pragma once

#include <atomic>
#include <memory>
#include <shared_mutex>

#include "layer/zovk_lookup_lock.h"
#include <unordered_map>

#include "app/zovk_processor_data_base.h"
#include "layer/zovk_records.h"
#include "settings/zovk_never_destroyed.h"
#include "settings/zovk_settings.h"

namespace vulkan::zovk {

// The process-wide registry of instances and devices, and the layer's creation,
// destruction and address resolution on top of it.
class ZoVkContextManager {
public:
    static ZoVkContextManager* GetInstance() { return sInstance.Get(); }

    // Lookups by dispatch key. The plain variants lock only when the settings ask for it;
    // they are what the per-call hook code uses.
    ZoVkInstanceInfo* GetInstanceInfo(void* key) {
        return LockLookups() ? GetInstanceInfoWithLock(key) : GetInstanceInfoWithoutLock(key);
    }
    ZoVkInstanceInfo* GetInstanceInfoWithLock(void* key);
    ZoVkInstanceInfo* GetInstanceInfoWithoutLock(void* key) {
        const auto it = instanceMap_.find(key);
        return it == instanceMap_.end() ? nullptr : &it->second;
    }
    ZoVkDeviceInfo* GetDeviceInfo(void* key) {
        return LockLookups() ? GetDeviceInfoWithLock(key) : GetDeviceInfoWithoutLock(key);
    }
    // The settings' UseLock(), as it stood when the last record was made. The
    // configuration that decides it is fixed before any instance exists; keeping it here
    // spares every hooked call the settings' initialisation guard.
    bool LockLookups() const { return lockLookups_.load(std::memory_order_relaxed); }
    ZoVkDeviceInfo* GetDeviceInfoWithLock(void* key);
    ZoVkDeviceInfo* GetDeviceInfoWithoutLock(void* key) {
        ZoVkDeviceInfo* record = FindRecentDevice(key);
        return record != nullptr ? record : FindDeviceInMap(key);
    }
    // Lookups start among the few most recently made devices that have a processor; a game
    // keeps one or two. While lookups take no lock, trampolines compare the first of them
    // inline: a handful of instructions against a hash lookup's forty, and no read of a map
    // that a create may be changing. Null when the key is not that one.
    ZoVkDeviceInfo* FindFirstRecentDevice(void* key) const {
        return unlockedFirst_.key.load(std::memory_order_acquire) == key
                   ? unlockedFirst_.record.load(std::memory_order_relaxed)
                   : nullptr;
    }
    ZoVkDeviceInfo* FindRecentDevice(void* key) const;

    // Kept empty on purpose: records go only in the destroy operations.
    void RemoveInstanceInfo(void*) {}
    void RemoveDeviceInfo(void*) {}

    void InitInstanceInfo(VkInstance instance, PFN_vkGetInstanceProcAddr nextGetInstanceProcAddr,
                          uint64_t apiVersion, std::shared_ptr<app::ZoVkProcessorBase>&& processor, bool hooked);
    void InitDeviceInfo(VkPhysicalDevice physicalDevice, VkDevice device, PFN_vkGetDeviceProcAddr nextGetDeviceProcAddr,
                        uint64_t apiVersion, const std::shared_ptr<app::ZoVkProcessorBase>& processor, bool hooked,
                        PFN_vkSetDeviceLoaderData setDeviceLoaderData = nullptr);

    VkResult CreateInstanceHooked(const VkInstanceCreateInfo* pCreateInfo, const VkAllocationCallbacks* pAllocator,
                                  VkInstance* pInstance);
    VkResult CreateDeviceHooked(VkPhysicalDevice physicalDevice, const VkDeviceCreateInfo* pCreateInfo,
                                const VkAllocationCallbacks* pAllocator, VkDevice* pDevice);
    void DestroyInstanceHooked(VkInstance instance, const VkAllocationCallbacks* pAllocator);
    void DestroyDeviceHooked(VkDevice device, const VkAllocationCallbacks* pAllocator);

    PFN_vkVoidFunction GetNextInstanceProcAddr(VkInstance instance, const char* pName);
    PFN_vkVoidFunction GetHookedInstanceProcAddr(VkInstance instance, const char* pName);
    PFN_vkVoidFunction GetNextDeviceProcAddr(VkDevice device, const char* pName);
    PFN_vkVoidFunction GetHookedDeviceProcAddr(VkDevice device, const char* pName);
    VkResult GetNextDeviceExtensionProperties(VkPhysicalDevice physicalDevice, const char* pLayerName,
                                              uint32_t* pCount, VkExtensionProperties* pProperties, bool& found);

    // Clear hook-enable bit 2 when a function the layer or its modules need is missing.
    void CheckInstanceExtensionFunctions(const app::ZoVkFunctionTest& isMissing);
    void CheckDeviceExtensionFunctions(const app::ZoVkFunctionTest& isMissing);
    // Fill the extension slots of a new record.
    void InitInstanceExtensionFunctions(VkInstance instance);
    void InitDeviceExtensionFunctions(VkDevice device);

    ZoVkContextManager(const ZoVkContextManager&) = delete;
    ZoVkContextManager& operator=(const ZoVkContextManager&) = delete;

private:
    friend class ZoVkNeverDestroyed<ZoVkContextManager>;
    ZoVkContextManager();
    ~ZoVkContextManager() = delete;

    // Built when the library is loaded, so the accessor on every hooked call needs no
    // initialisation guard; never destroyed, so exit() ends no processor: one would run
    // modules on settings already gone and call the next layer from a static destructor.
    static ZoVkNeverDestroyed<ZoVkContextManager> sInstance;

    void EraseInstanceInfo(void* key);
    void EraseDeviceInfo(void* key);
    VkResult CreateInstanceUnhooked(PFN_vkCreateInstance nextCreateInstance, const VkInstanceCreateInfo* pCreateInfo,
                                    const VkAllocationCallbacks* pAllocator, VkInstance* pInstance,
                                    PFN_vkGetInstanceProcAddr nextGetInstanceProcAddr, uint64_t apiVersion);

    ZoVkLookupLock deviceLock_;
    ZoVkLookupLock instanceLock_;
    std::unordered_map<void*, ZoVkDeviceInfo> deviceMap_;
    std::unordered_map<void*, ZoVkInstanceInfo> instanceMap_;
    std::atomic<bool> lockLookups_{true};

    static inline char sNoDeviceTag;  // its address only
    static inline void* const kNoDevice = &sNoDeviceTag;
    // Written under deviceLock_ when a device record is made or erased; read without it.
    // A free entry's key is kNoDevice, which no dispatch key equals (not even a null one).
    struct RecentDevice {
        std::atomic<void*> key{kNoDevice};
        std::atomic<ZoVkDeviceInfo*> record{nullptr};
    };
    static constexpr size_t kRecentDevices = 4;
    ZoVkDeviceInfo* FindDeviceInMap(void* key);
    void RememberRecentDevice(void* key, ZoVkDeviceInfo* record);
    void ForgetRecentDevice(void* key);
    void SetLockLookups(bool lock);
    RecentDevice recentDevices_[kRecentDevices];
    RecentDevice unlockedFirst_;  // the first recent device while lookups take no lock
    void UpdateUnlockedFirst();
    size_t nextRecentDevice_ = 0;
};

}  // namespace vulkan::zovk
