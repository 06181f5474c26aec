#pragma once

// A processor for the served creation path: it hooks one instance-level and one
// device-level name and notes its life-cycle calls in the fake next layer's log, so a
// test sees them in order with the next layer's own calls.

#include <memory>
#include <string>

#include "app/zovk_factory.h"
#include "app/zovk_processor_base.h"
#include "settings/zovk_settings.h"
#include "tests/support/fake_next_layer.h"

namespace zovk_test {

// Outlive every processor: the registry may end one at process exit.
struct TestProcessorStats {
    static inline int created = 0, onEnd = 0, gotInstanceInfo = 0, gotDeviceInfo = 0;
};

inline int gHookHits[2];
inline void VKAPI_CALL InstanceHook() { ++gHookHits[0]; }
inline void VKAPI_CALL DrawHook() { ++gHookHits[1]; }

class TestProcessor : public vulkan::zovk::app::ZoVkProcessorBase {
public:
    static constexpr const char* kInstanceHookName = "vkGetPhysicalDeviceFeatures2";
    static constexpr const char* kDeviceHookName = "vkCmdDraw";

    unsigned int GetProcessorId() override { return 77; }
    void RegisterVkInstanceHooks() override { SetInstanceHookFunction(kInstanceHookName, InstanceHook); }
    void RegisterVkDeviceHooks() override { SetDeviceHookFunction(kDeviceHookName, DrawHook); }
    void OnEnd() override {
        ++TestProcessorStats::onEnd;
        Note("OnEnd");
        ZoVkProcessorBase::OnEnd();
    }
    void PreCreateInstance(const VkInstanceCreateInfo*, const VkAllocationCallbacks*, VkInstance*) override {
        Note("PreCreateInstance");
    }
    void PostCreateInstance(const VkInstanceCreateInfo*, const VkAllocationCallbacks*, VkInstance*,
                            VkResult) override {
        Note("PostCreateInstance");
    }
    void PostCreateDevice(VkPhysicalDevice, const VkDeviceCreateInfo*, const VkAllocationCallbacks*, VkDevice*,
                          VkResult) override {
        Note("PostCreateDevice");
    }
    void PreDestroyDevice(VkDevice, const VkAllocationCallbacks*) override { Note("PreDestroyDevice"); }
    void PostDestroyDevice(VkDevice, const VkAllocationCallbacks*) override { Note("PostDestroyDevice"); }
    void PreDestroyInstance(VkInstance, const VkAllocationCallbacks*) override { Note("PreDestroyInstance"); }
    void PostDestroyInstance(VkInstance, const VkAllocationCallbacks*) override { Note("PostDestroyInstance"); }
    void OnGettingDeviceInfo() override { ++TestProcessorStats::gotDeviceInfo; }
    void OnGettingInstanceInfo() override { ++TestProcessorStats::gotInstanceInfo; }

private:
    static void Note(const std::string& text) {
        if (FakeNextLayer* fake = FakeNextLayer::Current()) {
            fake->Note(text);
        }
    }
};

// CreateVkProcessor() then hands out TestProcessors, and bit 1 says a module is
// configured, as an accepted configuration would.
inline void ServeWithTestProcessor() {
    vulkan::zovk::app::gCreateProcessorFunc = [] {
        ++TestProcessorStats::created;
        auto processor = std::make_shared<TestProcessor>();
        processor->OnBegin();
        return std::shared_ptr<vulkan::zovk::app::ZoVkProcessorBase>(processor);
    };
    vulkan::zovk::ZoVkSettings::GetInstance()->SetHookFlags(vulkan::zovk::kHookModulesConfigured);
}

}  // namespace zovk_test
