#pragma once

// The fake's instance and device recorded with a processor, as the layer's served creation
// records them, so that calls resolved through ZoVkGetDeviceProcAddr run the processor's
// trampolines and chains down to the fake. Destroyed through the layer's own exports.

#include <memory>
#include <utility>
#include <vector>

#include <json/value.h>

#include "app/zovk_factory.h"
#include "app/zovk_processor_base.h"
#include "app/zovk_processor_data_base.h"
#include "layer/zovk_context_manager.h"
#include "layer/zovk_entry.h"
#include "settings/zovk_settings.h"
#include "tests/support/fake_next_layer.h"

namespace zovk_test {

class ServedDevice {
public:
    // The process recognised as `package`, its configuration accepted into `data`, and the
    // processor the factory makes for it; null when the configuration is refused.
    static std::shared_ptr<vulkan::zovk::app::ZoVkProcessorBase> ServeApplication(
        const char* package, vulkan::zovk::app::ZoVkProcessorDataBase* data, const Json::Value& config) {
        vulkan::zovk::ZoVkSettings* settings = vulkan::zovk::ZoVkSettings::GetInstance();
        settings->IdentifyApplication(package);
        settings->SetProcessorData(data);
        if (!data->InitProcessorConfigData(config)) {  // also starts the monitor
            return nullptr;
        }
        settings->SetHookFlags(vulkan::zovk::kHookAll);
        return vulkan::zovk::app::CreateVkProcessor();
    }

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
    // A render pass of these attachment formats and load operations, created as the game would;
    // the next layer's result.
    using Attachments = std::vector<std::pair<VkFormat, VkAttachmentLoadOp>>;
    VkResult CreatePass(const Attachments& attachments, VkRenderPass* pass) const {
        std::vector<VkAttachmentDescription> descriptions(attachments.size());
        for (size_t i = 0; i < attachments.size(); ++i) {
            descriptions[i].format = attachments[i].first;
            descriptions[i].samples = VK_SAMPLE_COUNT_1_BIT;
            descriptions[i].loadOp = attachments[i].second;
            descriptions[i].finalLayout = VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL;
        }
        VkRenderPassCreateInfo info{};
        info.sType = VK_STRUCTURE_TYPE_RENDER_PASS_CREATE_INFO;
        info.attachmentCount = static_cast<uint32_t>(descriptions.size());
        info.pAttachments = descriptions.empty() ? nullptr : descriptions.data();
        return Call<PFN_vkCreateRenderPass>("vkCreateRenderPass")(fake_.Device(), &info, nullptr, pass);
    }
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
