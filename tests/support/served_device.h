#pragma once

// The fake's instance and device recorded with a processor, as the layer's served creation
// records them, so that calls resolved through ZoVkGetDeviceProcAddr run the processor's
// trampolines and chains down to the fake. Destroyed through the layer's own exports.

#include <memory>

#include "app/zovk_processor_base.h"
#include "layer/zovk_context_manager.h"
#include "layer/zovk_entry.h"
#include "tests/support/fake_next_layer.h"

namespace zovk_test {

class ServedDevice {
public:
    ServedDevice(FakeNextLayer& fake, const std::shared_ptr<vulkan::zovk::app::ZoVkProcessorBase>& processor)
        : fake_(fake) {
        auto* manager = vulkan::zovk::ZoVkContextManager::GetInstance();
        manager->InitInstanceInfo(fake.Instance(), FakeNextLayer::GetInstanceProcAddr, VK_API_VERSION_1_2,
                                  std::shared_ptr<vulkan::zovk::app::ZoVkProcessorBase>(processor), true);
        manager->InitInstanceExtensionFunctions(fake.Instance());
        manager->InitDeviceInfo(fake.PhysicalDevice(), fake.Device(), FakeNextLayer::GetDeviceProcAddr,
                                VK_API_VERSION_1_2, processor, true, SetLoaderData);
        manager->InitDeviceExtensionFunctions(fake.Device());
    }
    ~ServedDevice() {
        DestroyDevice();
        ::ZoVkDestroyInstance(fake_.Instance(), nullptr);
    }
    ServedDevice(const ServedDevice&) = delete;
    ServedDevice& operator=(const ServedDevice&) = delete;

    void DestroyDevice() { ::ZoVkDestroyDevice(fake_.Device(), nullptr); }
    // What the application gets for `name` on the device.
    template <typename Pfn>
    Pfn Call(const char* name) const {
        return reinterpret_cast<Pfn>(::ZoVkGetDeviceProcAddr(fake_.Device(), name));
    }

private:
    static VkResult VKAPI_CALL SetLoaderData(VkDevice, void*) { return VK_SUCCESS; }
    FakeNextLayer& fake_;
};

}  // namespace zovk_test
