#pragma once

#include <cstdint>
#include <memory>

#include <vulkan/vk_layer.h>

#include "layer/zovk_dispatch_table.h"

namespace vulkan::zovk {

namespace app {
class ZoVkProcessorBase;
}

// The loader's dispatch pointer, stored in the first word of every dispatchable handle.
// Instances share it with their physical devices; devices with their queues and
// command buffers.
inline void* GetDispatchKey(const void* handle) {
    return *static_cast<void* const*>(handle);
}

// What the layer keeps of one instance.
struct ZoVkInstanceInfo {
    ZoVkInstanceInfo() = default;
    // Ends the processor (its modules are released) before dropping this share of it.
    ~ZoVkInstanceInfo();
    ZoVkInstanceInfo(const ZoVkInstanceInfo&) = delete;
    ZoVkInstanceInfo& operator=(const ZoVkInstanceInfo&) = delete;

    bool hooked = false;
    VkInstance instance = VK_NULL_HANDLE;
    uint64_t apiVersion = 0;
    // VK_KHR_surface is enabled: only then may its devices have VK_KHR_swapchain.
    bool surfaceEnabled = false;
    VkInstanceFunctionTable functions{};
    ZoVkFunctionMap functionMap;
    std::shared_ptr<app::ZoVkProcessorBase> processor;
};

// What the layer keeps of one device.
struct ZoVkDeviceInfo {
    ZoVkDeviceInfo() = default;
    ZoVkDeviceInfo(const ZoVkDeviceInfo&) = delete;
    ZoVkDeviceInfo& operator=(const ZoVkDeviceInfo&) = delete;

    VkDevice device = VK_NULL_HANDLE;
    VkPhysicalDevice physicalDevice = VK_NULL_HANDLE;
    // The loader's callback that makes a dispatchable object the layer obtained by itself
    // (a queue, a command buffer) usable by the layers below; null when the loader gave none.
    PFN_vkSetDeviceLoaderData setDeviceLoaderData = nullptr;
    // Set at creation when the device lacks the fragment shading rate features the modules use
    // (see ChainShadingRateFeatures): they leave such a device alone.
    bool shadingRateOff = false;
    VkDeviceFunctionTable functions{};
    ZoVkFunctionMap functionMap;
    std::shared_ptr<app::ZoVkProcessorBase> processor;
};

}  // namespace vulkan::zovk
