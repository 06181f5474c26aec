#pragma once

// The fake's instance and device recorded with a processor, as the layer's served creation
// records them, so that calls resolved through ZoVkGetDeviceProcAddr run the processor's
// trampolines and chains down to the fake. Destroyed through the layer's own exports.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
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

// System properties for this process while it lives: the settings read them once, when first
// made, so it must be made before anything touches them (each test has a process of its own).
class ScopedProperties {
public:
    explicit ScopedProperties(const std::string& lines)
        : path_("/tmp/zovk-test-properties-" + std::to_string(getpid())) {
        std::ofstream(path_) << lines;
        setenv("ZOVK_PROPERTIES", path_.c_str(), 1);
    }
    ~ScopedProperties() {
        unsetenv("ZOVK_PROPERTIES");
        std::remove(path_.c_str());
    }
    ScopedProperties(const ScopedProperties&) = delete;
    ScopedProperties& operator=(const ScopedProperties&) = delete;

private:
    std::string path_;
};

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

    // A framebuffer of `attachments` placeholder views on `pass`, created as the game would.
    VkFramebuffer CreateFramebuffer(VkRenderPass pass, uint32_t attachments, uint32_t width, uint32_t height) const {
        const std::vector<VkImageView> views(attachments, reinterpret_cast<VkImageView>(uintptr_t{0x77}));
        VkFramebufferCreateInfo info{};
        info.sType = VK_STRUCTURE_TYPE_FRAMEBUFFER_CREATE_INFO;
        info.renderPass = pass;
        info.attachmentCount = attachments;
        info.pAttachments = views.data();
        info.width = width;
        info.height = height;
        info.layers = 1;
        VkFramebuffer framebuffer = VK_NULL_HANDLE;
        Call<PFN_vkCreateFramebuffer>("vkCreateFramebuffer")(fake_.Device(), &info, nullptr, &framebuffer);
        return framebuffer;
    }
    // Begins a pass, or a secondary continuing one, as the game would; false when the layer
    // wrote into the game's own structure.
    bool BeginPass(VkCommandBuffer cb, VkRenderPass pass, VkFramebuffer framebuffer, VkExtent2D area) const {
        VkRenderPassBeginInfo begin{};
        begin.sType = VK_STRUCTURE_TYPE_RENDER_PASS_BEGIN_INFO;
        begin.renderPass = pass;
        begin.framebuffer = framebuffer;
        begin.renderArea.extent = area;
        Call<PFN_vkCmdBeginRenderPass>("vkCmdBeginRenderPass")(cb, &begin, VK_SUBPASS_CONTENTS_SECONDARY_COMMAND_BUFFERS);
        return begin.renderPass == pass && begin.framebuffer == framebuffer;
    }
    bool BeginSecondary(VkCommandBuffer cb, VkRenderPass pass, VkFramebuffer framebuffer) const {
        VkCommandBufferInheritanceInfo inheritance{};
        inheritance.sType = VK_STRUCTURE_TYPE_COMMAND_BUFFER_INHERITANCE_INFO;
        inheritance.renderPass = pass;
        inheritance.framebuffer = framebuffer;
        VkCommandBufferBeginInfo begin{};
        begin.sType = VK_STRUCTURE_TYPE_COMMAND_BUFFER_BEGIN_INFO;
        begin.pInheritanceInfo = &inheritance;
        Call<PFN_vkBeginCommandBuffer>("vkBeginCommandBuffer")(cb, &begin);
        return inheritance.renderPass == pass && inheritance.framebuffer == framebuffer;
    }

private:
    static VkResult VKAPI_CALL SetLoaderData(VkDevice, void*) { return VK_SUCCESS; }
    FakeNextLayer& fake_;
};

}  // namespace zovk_test
