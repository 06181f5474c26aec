#include "layer/zovk_context_manager.h"

#include <mutex>

#include "app/zovk_processor_base.h"
#include "settings/zovk_settings.h"

namespace vulkan::zovk {

namespace {

template <typename Map>
typename Map::mapped_type* Find(Map& map, void* key) {
    const auto it = map.find(key);
    return it == map.end() ? nullptr : &it->second;
}

template <typename Map>
typename Map::mapped_type* FindLocked(ZoVkLookupLock& lock, Map& map, void* key) {
    std::shared_lock<ZoVkLookupLock> guard(lock);
    return Find(map, key);
}

template <typename Map>
typename Map::mapped_type& Emplace(ZoVkLookupLock& lock, Map& map, void* key) {
    std::unique_lock<ZoVkLookupLock> guard(lock);
    // An existing record for the same key is reused, not replaced.
    return map.try_emplace(key).first->second;
}

template <typename Map>
void Erase(ZoVkLookupLock& lock, Map& map, void* key) {
    typename Map::node_type node;
    {
        std::unique_lock<ZoVkLookupLock> guard(lock);
        node = map.extract(key);
    }
    // The record dies here, outside the lock: an instance record ends its processor,
    // whose modules may look records up again.
}

// The functions the layer calls by itself outside any hook are resolved while the object
// is being created. Later is too late on loaders (the Khronos one among them) whose
// bottom resolver answers from the loader's own dispatch table once creation is over:
// that table then holds the top of the chain, and the call would come back here.
void ResolveLifecycleFunctions(VkInstance instance, VkInstanceFunctionTable* table) {
    if (table->vkGetInstanceProcAddr == nullptr) {
        return;
    }
    const auto resolve = [&](const char* name) { return table->vkGetInstanceProcAddr(instance, name); };
    table->vkDestroyInstance = reinterpret_cast<PFN_vkDestroyInstance>(resolve("vkDestroyInstance"));
    table->vkCreateDevice = reinterpret_cast<PFN_vkCreateDevice>(resolve("vkCreateDevice"));
    table->vkEnumerateDeviceExtensionProperties =
        reinterpret_cast<PFN_vkEnumerateDeviceExtensionProperties>(resolve("vkEnumerateDeviceExtensionProperties"));
}

void ResolveLifecycleFunctions(VkDevice device, VkDeviceFunctionTable* table) {
    if (table->vkGetDeviceProcAddr == nullptr) {
        return;
    }
    table->vkDestroyDevice = reinterpret_cast<PFN_vkDestroyDevice>(table->vkGetDeviceProcAddr(device, "vkDestroyDevice"));
}

}  // namespace

ZoVkInstanceInfo::~ZoVkInstanceInfo() {
    if (processor) {
        processor->OnEnd();
    }
}

ZoVkNeverDestroyed<ZoVkContextManager> ZoVkContextManager::sInstance;

ZoVkContextManager::ZoVkContextManager() {
    deviceMap_.max_load_factor(1.0f);
    instanceMap_.max_load_factor(1.0f);
}

ZoVkInstanceInfo* ZoVkContextManager::GetInstanceInfoWithLock(void* key) {
    return FindLocked(instanceLock_, instanceMap_, key);
}

ZoVkDeviceInfo* ZoVkContextManager::GetDeviceInfoWithLock(void* key) {
    std::shared_lock<ZoVkLookupLock> guard(deviceLock_);
    return GetDeviceInfoWithoutLock(key);
}

ZoVkDeviceInfo* ZoVkContextManager::FindDeviceInMap(void* key) {
    return Find(deviceMap_, key);
}

ZoVkDeviceInfo* ZoVkContextManager::FindRecentDevice(void* key) const {
    for (const RecentDevice& recent : recentDevices_) {
        if (recent.key.load(std::memory_order_acquire) == key) {
            return recent.record.load(std::memory_order_relaxed);
        }
    }
    return nullptr;
}

void ZoVkContextManager::RememberRecentDevice(void* key, ZoVkDeviceInfo* record) {
    std::unique_lock<ZoVkLookupLock> guard(deviceLock_);
    RecentDevice* slot = nullptr;
    for (RecentDevice& recent : recentDevices_) {
        const void* held = recent.key.load(std::memory_order_relaxed);
        if (held == key || (held == kNoDevice && slot == nullptr)) {
            slot = &recent;
        }
    }
    if (slot == nullptr) {
        // All taken: the oldest gives way; its device is still found through the map.
        slot = &recentDevices_[nextRecentDevice_++ % kRecentDevices];
    }
    slot->key.store(kNoDevice, std::memory_order_relaxed);
    slot->record.store(record, std::memory_order_relaxed);
    slot->key.store(key, std::memory_order_release);
    UpdateUnlockedFirst();
}

void ZoVkContextManager::UpdateUnlockedFirst() {
    unlockedFirst_.key.store(kNoDevice, std::memory_order_relaxed);
    if (LockLookups()) {
        return;
    }
    for (const RecentDevice& recent : recentDevices_) {
        void* key = recent.key.load(std::memory_order_relaxed);
        if (key != kNoDevice) {
            unlockedFirst_.record.store(recent.record.load(std::memory_order_relaxed), std::memory_order_relaxed);
            unlockedFirst_.key.store(key, std::memory_order_release);
            return;
        }
    }
}

void ZoVkContextManager::SetLockLookups(bool lock) {
    std::unique_lock<ZoVkLookupLock> guard(deviceLock_);
    lockLookups_.store(lock, std::memory_order_relaxed);
    UpdateUnlockedFirst();
}

void ZoVkContextManager::ForgetRecentDevice(void* key) {
    std::unique_lock<ZoVkLookupLock> guard(deviceLock_);
    for (RecentDevice& recent : recentDevices_) {
        if (recent.key.load(std::memory_order_relaxed) == key) {
            recent.key.store(kNoDevice, std::memory_order_relaxed);
            recent.record.store(nullptr, std::memory_order_relaxed);
        }
    }
    UpdateUnlockedFirst();
}

void ZoVkContextManager::InitInstanceInfo(VkInstance instance, PFN_vkGetInstanceProcAddr nextGetInstanceProcAddr,
                                          uint64_t apiVersion, std::shared_ptr<app::ZoVkProcessorBase>&& processor,
                                          bool hooked) {
    SetLockLookups(ZoVkSettings::GetInstance()->UseLock());
    ZoVkInstanceInfo& record = Emplace(instanceLock_, instanceMap_, GetDispatchKey(instance));
    // Filling outside the lock is safe: no other thread holds the new handle yet.
    record.instance = instance;
    record.apiVersion = apiVersion;
    record.functions.vkGetInstanceProcAddr = nextGetInstanceProcAddr;
    ResolveLifecycleFunctions(instance, &record.functions);
    if (!hooked) {
        return;
    }
    record.hooked = true;
    InitVkInstanceFunctionMap(&record.functions, record.functionMap);
    record.processor = std::move(processor);
    FillInstanceCoreFunctions(instance, &record.functions, record.functionMap, apiVersion);
    if (record.processor) {
        record.processor->SetInstanceInfo(&record);
        record.processor->InitVkInstanceHooks();
    }
}

void ZoVkContextManager::InitDeviceInfo(VkPhysicalDevice physicalDevice, VkDevice device,
                                        PFN_vkGetDeviceProcAddr nextGetDeviceProcAddr, uint64_t apiVersion,
                                        const std::shared_ptr<app::ZoVkProcessorBase>& processor, bool hooked,
                                        PFN_vkSetDeviceLoaderData setDeviceLoaderData) {
    SetLockLookups(ZoVkSettings::GetInstance()->UseLock());
    ZoVkDeviceInfo& record = Emplace(deviceLock_, deviceMap_, GetDispatchKey(device));
    record.device = device;
    record.physicalDevice = physicalDevice;
    record.setDeviceLoaderData = setDeviceLoaderData;
    record.functions.vkGetDeviceProcAddr = nextGetDeviceProcAddr;
    ResolveLifecycleFunctions(device, &record.functions);
    if (!hooked) {
        return;
    }
    InitVkDeviceFunctionMap(&record.functions, record.functionMap);
    record.processor = processor;
    // Only the instance compares the raw value; for a device the variant bits are dropped.
    constexpr uint64_t kVariantBits = uint64_t{7} << 29;
    FillDeviceCoreFunctions(device, &record.functions, record.functionMap, apiVersion & ~kVariantBits);
    if (record.processor) {
        record.processor->SetDeviceInfo(&record);
        record.processor->InitVkDeviceHooks();
        // Only devices with a processor are looked up by trampolines.
        RememberRecentDevice(GetDispatchKey(device), &record);
    }
}

void ZoVkContextManager::EraseInstanceInfo(void* key) {
    Erase(instanceLock_, instanceMap_, key);
}

void ZoVkContextManager::EraseDeviceInfo(void* key) {
    ForgetRecentDevice(key);
    Erase(deviceLock_, deviceMap_, key);
}

}  // namespace vulkan::zovk
