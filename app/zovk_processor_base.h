#pragma once

#include <string>
#include <unordered_map>
#include <vector>

#include <vulkan/vulkan_core.h>

namespace vulkan::zovk {
struct ZoVkInstanceInfo;
struct ZoVkDeviceInfo;
}  // namespace vulkan::zovk

namespace vulkan::zovk::app {

namespace module {
class ZoVkModuleBase;
}

using ZoVkHookFunction = void (*)();

// Base of the per-application processor: owns the modules and the tables of hook
// functions that address resolution hands out instead of the next layer's.
class ZoVkProcessorBase {
public:
    ZoVkProcessorBase();
    // Does not release the modules: that happens only through OnEnd / UnRegister*.
    virtual ~ZoVkProcessorBase() = default;

    virtual unsigned int GetProcessorId() = 0;
    virtual void RegisterVkInstanceHooks() {}
    virtual void RegisterVkDeviceHooks() {}
    virtual void OnBegin();
    virtual void OnEnd();
    virtual void PreCreateInstance(const VkInstanceCreateInfo*, const VkAllocationCallbacks*, VkInstance*) {}
    virtual void PostCreateInstance(const VkInstanceCreateInfo*, const VkAllocationCallbacks*, VkInstance*, VkResult) {}
    virtual void PreCreateDevice(VkPhysicalDevice, const VkDeviceCreateInfo*, const VkAllocationCallbacks*, VkDevice*) {}
    virtual void PostCreateDevice(VkPhysicalDevice, const VkDeviceCreateInfo*, const VkAllocationCallbacks*, VkDevice*,
                                  VkResult) {}
    // Lets every module destroy what it made on the device before the device goes.
    virtual void PreDestroyDevice(VkDevice device, const VkAllocationCallbacks* pAllocator);
    virtual void PostDestroyDevice(VkDevice, const VkAllocationCallbacks*) {}
    virtual void PreDestroyInstance(VkInstance, const VkAllocationCallbacks*) {}
    virtual void PostDestroyInstance(VkInstance, const VkAllocationCallbacks*) {}
    virtual void OnGettingDeviceInfo() = 0;
    virtual void OnGettingInstanceInfo() = 0;

    void RegisterModule(module::ZoVkModuleBase* module);
    void UnRegisterModule(module::ZoVkModuleBase* module);
    void UnRegisterModules();
    module::ZoVkModuleBase* GetVkModule(unsigned int id) const;
    const std::vector<module::ZoVkModuleBase*>& GetVkModules() const { return modules_; }

    void SetInstanceHookFunction(const std::string& name, ZoVkHookFunction fn);
    void SetDeviceHookFunction(const std::string& name, ZoVkHookFunction fn);
    ZoVkHookFunction GetInstanceHookFunction(const std::string& name) const;
    ZoVkHookFunction GetDeviceHookFunction(const std::string& name) const;

    void InitVkInstanceHooks();
    void InitVkDeviceHooks();

    void SetInstanceInfo(ZoVkInstanceInfo* info);
    void SetDeviceInfo(ZoVkDeviceInfo* info);
    ZoVkInstanceInfo* GetInstanceInfo() const { return instanceInfo_; }
    ZoVkDeviceInfo* GetDeviceInfo() const { return deviceInfo_; }

    ZoVkProcessorBase(const ZoVkProcessorBase&) = delete;
    ZoVkProcessorBase& operator=(const ZoVkProcessorBase&) = delete;

private:
    void InitModuleHooks(void (module::ZoVkModuleBase::*hooks)(), void (module::ZoVkModuleBase::*functors)());

    std::unordered_map<std::string, ZoVkHookFunction> instanceHooks_;
    std::unordered_map<std::string, ZoVkHookFunction> deviceHooks_;
    ZoVkInstanceInfo* instanceInfo_ = nullptr;
    ZoVkDeviceInfo* deviceInfo_ = nullptr;
    std::vector<module::ZoVkModuleBase*> modules_;
};

}  // namespace vulkan::zovk::app
