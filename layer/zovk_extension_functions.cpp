// Checking, before an object exists, that the functions the layer and its modules
// need can be had, and filling their slots once it exists.
#include <mutex>

#include "layer/zovk_context_manager.h"
#include "layer/zovk_extension_catalog.h"
#include "settings/zovk_settings.h"

namespace vulkan::zovk {

namespace {

const std::vector<std::string>& InstanceCheckList() {
    static const std::vector<std::string> names = {"vkGetPhysicalDeviceFeatures2KHR"};
    return names;
}

const std::vector<std::string>& InstanceFillList() {
    static const std::vector<std::string> names = {"vkGetPhysicalDeviceFeatures2KHR",
                                                   "vkGetPhysicalDeviceProperties2KHR"};
    return names;
}

const std::vector<std::string>& DeviceCheckList() {
    static const std::vector<std::string> names = {"vkQueuePresentKHR"};
    return names;
}

const std::vector<std::string>& DeviceFillList() {
    static const std::vector<std::string> names = {"vkQueuePresentKHR"};
    return names;
}

// A missing function of the layer's own list switches interception off (bit 2);
// otherwise the modules that need a missing function are switched off.
template <typename ModuleCheck>
void CheckFunctions(const std::vector<std::string>& layerList, const app::ZoVkFunctionTest& isMissing,
                    ModuleCheck moduleCheck) {
    ZoVkSettings* settings = ZoVkSettings::GetInstance();
    for (const std::string& name : layerList) {
        if (isMissing(name)) {
            settings->ClearHookFlags(kHookExtensionsReady);
            return;
        }
    }
    (settings->GetProcessorData()->*moduleCheck)(isMissing);
}

template <typename Handle, typename Record, typename FillOne, typename ModuleFill>
void FillFunctions(ZoVkLookupLock& lock, Record* (ZoVkContextManager::*find)(void*), ZoVkContextManager* manager,
                   Handle handle, const std::vector<std::string>& layerList, bool instanceLevel, FillOne fillOne,
                   ModuleFill moduleFill) {
    ZoVkSettings* settings = ZoVkSettings::GetInstance();
    std::unique_lock<ZoVkLookupLock> guard(lock);
    Record* record = (manager->*find)(GetDispatchKey(handle));
    if (record == nullptr) {
        settings->ClearHookFlags(kHookExtensionsReady);
        return;
    }
    for (const std::string& name : layerList) {
        if (!fillOne(handle, &record->functions, record->functionMap, name, GetExtensionFunctionInfo(name))) {
            settings->ClearHookFlags(kHookExtensionsReady);
            return;
        }
    }
    (settings->GetProcessorData()->*moduleFill)([&](const std::string& name) {
        const VkExtensionFunctionInfo& info = GetExtensionFunctionInfo(name);
        // Functions of the other level are filled with the other object.
        if ((info.instanceLevel != 0) != instanceLevel) {
            return true;
        }
        return fillOne(handle, &record->functions, record->functionMap, name, info);
    });
}

}  // namespace

void ZoVkContextManager::CheckInstanceExtensionFunctions(const app::ZoVkFunctionTest& isMissing) {
    CheckFunctions(InstanceCheckList(), isMissing, &app::ZoVkProcessorDataBase::CheckInstanceExtensionFunctions);
}

void ZoVkContextManager::CheckDeviceExtensionFunctions(const app::ZoVkFunctionTest& isMissing) {
    CheckFunctions(DeviceCheckList(), isMissing, &app::ZoVkProcessorDataBase::CheckDeviceExtensionFunctions);
}

void ZoVkContextManager::InitInstanceExtensionFunctions(VkInstance instance) {
    FillFunctions(instanceLock_, &ZoVkContextManager::GetInstanceInfoWithoutLock, this, instance, InstanceFillList(),
                  true, InitInstanceExtensionFunctionWithoutLock,
                  &app::ZoVkProcessorDataBase::InitInstanceExtensionFunctions);
}

void ZoVkContextManager::InitDeviceExtensionFunctions(VkDevice device) {
    FillFunctions(deviceLock_, &ZoVkContextManager::GetDeviceInfoWithoutLock, this, device, DeviceFillList(), false,
                  InitDeviceExtensionFunctionWithoutLock, &app::ZoVkProcessorDataBase::InitDeviceExtensionFunctions);
}

}  // namespace vulkan::zovk
