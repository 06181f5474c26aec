#pragma once

#include <memory>
#include <shared_mutex>
#include <unordered_map>

#include "app/zovk_processor_data_base.h"
#include "layer/zovk_records.h"

namespace vulkan::zovk {

// The process-wide registry of instances and devices, and the layer's creation,
// destruction and address resolution on top of it.
class ZoVkContextManager {
public:
    static ZoVkContextManager* GetInstance();

    // Lookups by dispatch key. The plain variants lock only when the settings ask for it;
    // they are what the per-call hook code uses.
    ZoVkInstanceInfo* GetInstanceInfo(void* key);
    ZoVkInstanceInfo* GetInstanceInfoWithLock(void* key);
    ZoVkInstanceInfo* GetInstanceInfoWithoutLock(void* key);
    ZoVkDeviceInfo* GetDeviceInfo(void* key);
    ZoVkDeviceInfo* GetDeviceInfoWithLock(void* key);
    ZoVkDeviceInfo* GetDeviceInfoWithoutLock(void* key);

    // Kept empty on purpose: records go only in the destroy operations.
    void RemoveInstanceInfo(void*) {}
    void RemoveDeviceInfo(void*) {}

    void InitInstanceInfo(VkInstance instance, PFN_vkGetInstanceProcAddr nextGetInstanceProcAddr,
                          uint64_t apiVersion, std::shared_ptr<app::ZoVkProcessorBase>&& processor, bool hooked);
    void InitDeviceInfo(VkPhysicalDevice physicalDevice, VkDevice device, PFN_vkGetDeviceProcAddr nextGetDeviceProcAddr,
                        uint64_t apiVersion, const std::shared_ptr<app::ZoVkProcessorBase>& processor, bool hooked);

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
    ZoVkContextManager();
    ~ZoVkContextManager() = default;

    void EraseInstanceInfo(void* key);
    void EraseDeviceInfo(void* key);
    VkResult CreateInstanceUnhooked(PFN_vkCreateInstance nextCreateInstance, const VkInstanceCreateInfo* pCreateInfo,
                                    const VkAllocationCallbacks* pAllocator, VkInstance* pInstance,
                                    PFN_vkGetInstanceProcAddr nextGetInstanceProcAddr, uint64_t apiVersion);

    std::shared_mutex deviceLock_;
    std::shared_mutex instanceLock_;
    std::unordered_map<void*, ZoVkDeviceInfo> deviceMap_;
    std::unordered_map<void*, ZoVkInstanceInfo> instanceMap_;
};

}  // namespace vulkan::zovk
