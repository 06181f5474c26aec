#pragma once

#include <vulkan/vulkan_core.h>

namespace vulkan::zovk::app {
class ZoVkProcessorBase;
}

namespace vulkan::zovk::app::module {

// Base of every module: one rendering feature that hangs its functors into the
// processor's chains. A module that cannot work clears `valid`; its processor then
// releases it instead of registering it.
class ZoVkModuleBase {
public:
    explicit ZoVkModuleBase(ZoVkProcessorBase* /*processor*/) {}
    virtual ~ZoVkModuleBase() = default;

    virtual unsigned int GetModuleId() const = 0;
    virtual void RegisterModuleInstanceFunctors() {}
    virtual void UnregisterModuleInstanceFunctors() {}
    virtual void RegisterModuleDeviceFunctors() {}
    virtual void UnregisterModuleDeviceFunctors() {}
    virtual void RegisterModuleVkInstanceHooks() {}
    virtual void RegisterModuleVkDeviceHooks() {}
    virtual void OnBegin() {}
    virtual void OnEnd() {}
    // The device is about to go: everything the module made on it must be destroyed now,
    // while the next layer's device still exists.
    virtual void OnDeviceDestroy(VkDevice) {}

    bool valid = true;
};

// Base of a module's configuration object, built from the remote configuration.
class ZoVkModuleDataBase {
public:
    virtual ~ZoVkModuleDataBase() = default;

    bool valid = true;
};

}  // namespace vulkan::zovk::app::module
