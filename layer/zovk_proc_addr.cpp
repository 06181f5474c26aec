// Function address resolution: the next layer's functions through the records' tables,
// or the processor's trampolines for hooked names.
#include <string>

#include "app/zovk_processor_base.h"
#include "layer/zovk_context_manager.h"

namespace vulkan::zovk {

namespace {

// Slots are filled lazily from any thread; two racing resolutions store the same value,
// so relaxed atomic accesses are all that is needed.
PFN_vkVoidFunction LoadSlot(PFN_vkVoidFunction* slot) {
    return __atomic_load_n(slot, __ATOMIC_RELAXED);
}

void StoreSlot(PFN_vkVoidFunction* slot, PFN_vkVoidFunction fn) {
    __atomic_store_n(slot, fn, __ATOMIC_RELAXED);
}

template <typename Handle, typename Record, typename Resolver>
PFN_vkVoidFunction ResolveNext(Record* record, Handle handle, const char* pName, Resolver resolve) {
    const auto it = record->functionMap.find(std::string(pName));
    if (it == record->functionMap.end()) {
        // No slot for this name (or an unhooked record without a map): ask the next
        // layer each time, keep nothing.
        return resolve != nullptr ? resolve(handle, pName) : nullptr;
    }
    if (const PFN_vkVoidFunction fn = LoadSlot(it->second); fn != nullptr) {
        return fn;
    }
    if (resolve == nullptr) {
        return nullptr;
    }
    StoreSlot(it->second, resolve(handle, pName));
    return LoadSlot(it->second);
}

// The processor's trampoline when it hooks the name, else the next layer's function.
template <typename Handle, typename Record, typename Resolver>
PFN_vkVoidFunction ResolveHooked(Record* record, Handle handle, const char* pName, Resolver resolve,
                                 app::ZoVkHookFunction (app::ZoVkProcessorBase::*hookFor)(const std::string&) const) {
    if (record->processor) {
        if (const app::ZoVkHookFunction hook = (record->processor.get()->*hookFor)(pName)) {
            return hook;
        }
    }
    return ResolveNext(record, handle, pName, resolve);
}

}  // namespace

PFN_vkVoidFunction ZoVkContextManager::GetNextInstanceProcAddr(VkInstance instance, const char* pName) {
    ZoVkInstanceInfo* record = GetInstanceInfoWithLock(GetDispatchKey(instance));
    return record == nullptr ? nullptr
                             : ResolveNext(record, instance, pName, record->functions.vkGetInstanceProcAddr);
}

PFN_vkVoidFunction ZoVkContextManager::GetHookedInstanceProcAddr(VkInstance instance, const char* pName) {
    ZoVkInstanceInfo* record = GetInstanceInfoWithLock(GetDispatchKey(instance));
    return record == nullptr ? nullptr
                             : ResolveHooked(record, instance, pName, record->functions.vkGetInstanceProcAddr,
                                             &app::ZoVkProcessorBase::GetInstanceHookFunction);
}

PFN_vkVoidFunction ZoVkContextManager::GetNextDeviceProcAddr(VkDevice device, const char* pName) {
    ZoVkDeviceInfo* record = GetDeviceInfoWithLock(GetDispatchKey(device));
    return record == nullptr ? nullptr : ResolveNext(record, device, pName, record->functions.vkGetDeviceProcAddr);
}

PFN_vkVoidFunction ZoVkContextManager::GetHookedDeviceProcAddr(VkDevice device, const char* pName) {
    ZoVkDeviceInfo* record = GetDeviceInfoWithLock(GetDispatchKey(device));
    return record == nullptr ? nullptr
                             : ResolveHooked(record, device, pName, record->functions.vkGetDeviceProcAddr,
                                             &app::ZoVkProcessorBase::GetDeviceHookFunction);
}

VkResult ZoVkContextManager::GetNextDeviceExtensionProperties(VkPhysicalDevice physicalDevice, const char* pLayerName,
                                                              uint32_t* pCount, VkExtensionProperties* pProperties,
                                                              bool& found) {
    ZoVkInstanceInfo* record = GetInstanceInfoWithLock(GetDispatchKey(physicalDevice));
    if (record == nullptr || record->functions.vkGetInstanceProcAddr == nullptr) {
        return VK_SUCCESS;
    }
    // Resolved when the instance was created (see ResolveLifecycleFunctions).
    const PFN_vkEnumerateDeviceExtensionProperties enumerate = record->functions.vkEnumerateDeviceExtensionProperties;
    if (enumerate == nullptr) {
        return VK_SUCCESS;
    }
    found = true;
    return enumerate(physicalDevice, pLayerName, pCount, pProperties);
}

}  // namespace vulkan::zovk
