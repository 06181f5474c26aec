// A test module for libzovk_builder_test.so: the layer's own objects, plus a Star Rail module
// (id 4) that substitutes every render pass, framebuffer and dynamic-state graphics pipeline
// with the shading-rate builder's, and uses the substitutes while the application records.
// It sets only the full rate, so the pixels must stay those of a run without it.
//
// What each shading-rate image receives is fixed, so a test can check the uploaded bytes:
// FirstPattern through updateImageDataFromPtr, then SecondPattern through
// updateImageDataFromBuffer from a staging buffer the module keeps until the device goes.
// Primary command buffers only: secondaries that inherit a pass are left alone.
#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "app/module/zovk_fixed_vrs_renderpass.h"
#include "app/module/zovk_star_rail_processor.h"
#include "app/zovk_factory.h"
#include "app/zovk_hook_lists.h"
#include "app/zovk_module_base.h"
#include "app/zovk_processor_data_base.h"
#include "layer/zovk_records.h"
#include "settings/zovk_log.h"
#include "settings/zovk_settings.h"

namespace vulkan::zovk::app::module {

namespace {

using T = VkDeviceFunctionTable;

constexpr unsigned int kModuleId = 4;
// Rate codes 1x1, 1x2, 2x1 and 2x2: legal on every preset of the emulation.
constexpr uint8_t kRateCodes[4] = {0, 1, 4, 5};

uint8_t FirstPattern(uint32_t i) { return kRateCodes[(i * 7 + 3) % 6 % 4]; }
uint8_t SecondPattern(uint32_t x, uint32_t y) { return kRateCodes[(x / 2 + y) % 4]; }

// The module's one device-level extension call: listing it makes the layer enable
// VK_KHR_fragment_shading_rate on the device and fill its slot.
const ZoVkModuleFunctionTable kDeviceFunctions = {{kModuleId, {"vkCmdSetFragmentShadingRateKHR"}}, {0, {}}};

class BuilderTestModule;

// The Star Rail processor with what this module needs beyond its calls: the version-2 render
// pass calls, and the device's pre-destroy step, where the module frees what it made.
class BuilderTestProcessor : public ZoVkStarRailProcessor {
public:
    BuilderTestProcessor() {
        if (processorData != nullptr) {
            processorData->CollectDeviceExtensionFunctions(kDeviceFunctions);
        }
    }

    // vkCreateRenderPass2KHR lands on the core call's chains: at the served API version it is that call.
    void RegisterVkDeviceHooks() override {
        SetDeviceHook<BuilderTestProcessor, &T::vkCreateRenderPass2, &BuilderTestProcessor::VkCreateRenderPass2Hooked>(
            this, "vkCreateRenderPass2KHR");
    }
    void PreDestroyDevice(VkDevice device, const VkAllocationCallbacks* allocator) override;

    ZOVK_PROCESSOR_HOOKED_CALL(CreateRenderPass2, NextThenPost)
};

#define BUILDER_TEST_HOOKS(X)             \
    X(Post, CreateRenderPass, 0)          \
    X(Post, CreateRenderPass2, 0)         \
    X(Post, CreateFramebuffer, 0)         \
    X(Post, CreateGraphicsPipelines, 0)   \
    X(Post, CreateCommandPool, 0)         \
    X(Pre, CmdBeginRenderPass, 0)         \
    X(Post, CmdEndRenderPass, 0)          \
    X(Pre, CmdBindPipeline, 0)            \
    X(Pre, DestroyRenderPass, 0)          \
    X(Pre, DestroyFramebuffer, 0)         \
    X(Pre, DestroyPipeline, 0)

class BuilderTestModuleData : public ZoVkModuleDataBase {};

class BuilderTestModule : public ZoVkModuleBase {
public:
    explicit BuilderTestModule(ZoVkProcessorBase* processor)
        : ZoVkModuleBase(processor),
          processor_(dynamic_cast<BuilderTestProcessor*>(processor)),
          builder_(processor) {
        valid = processor_ != nullptr;
    }

    unsigned int GetModuleId() const override { return kModuleId; }

    // Everything still alive goes before the next layer destroys the device.
    void ReleaseDevice() {
        std::lock_guard<std::mutex> lock(mutex_);
        const ZoVkDeviceInfo* record = processor_->GetDeviceInfo();
        const VkDevice device = record->device;
        for (const auto& [original, pipeline] : pipelines_) {
            record->functions.vkDestroyPipeline(device, pipeline, nullptr);
        }
        for (const auto& [original, framebuffer] : framebuffers_) {
            record->functions.vkDestroyFramebuffer(device, framebuffer, nullptr);
        }
        for (const auto& [original, pass] : passes_) {
            record->functions.vkDestroyRenderPass(device, pass, nullptr);
        }
        for (auto& [size, image] : images_) {
            builder_.destroyShadingRateImage(image);
        }
        for (const auto& [buffer, memory] : buffers_) {
            record->functions.vkDestroyBuffer(device, buffer, nullptr);
            record->functions.vkFreeMemory(device, memory, nullptr);
        }
        pipelines_.clear();
        framebuffers_.clear();
        passes_.clear();
        attachmentCounts_.clear();
        images_.clear();
        buffers_.clear();
        inSubstitutedPass_.clear();
        texelSize_ = MyVkExtent2D();
        builder_.Release();
        ZOVK_LOGD("builder test: device objects released");
    }

private:
    const ZoVkDeviceInfo* Record() const { return processor_->GetDeviceInfo(); }

    // The emulation's (or the GPU's) largest attachment texel size, read once per device.
    MyVkExtent2D TexelSize() {
        if (texelSize_.width == 0) {
            VkPhysicalDeviceFragmentShadingRatePropertiesKHR rate{};
            rate.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FRAGMENT_SHADING_RATE_PROPERTIES_KHR;
            VkPhysicalDeviceProperties2 properties{};
            properties.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_PROPERTIES_2;
            properties.pNext = &rate;
            processor_->GetInstanceInfo()->functions.vkGetPhysicalDeviceProperties2(Record()->physicalDevice,
                                                                                     &properties);
            texelSize_ = rate.maxFragmentShadingRateAttachmentTexelSize;
            ZOVK_LOGD("builder test: texel size %ux%u", texelSize_.width, texelSize_.height);
        }
        return texelSize_;
    }

    template <typename Handle>
    void Keep(std::unordered_map<Handle, Handle>& map, Handle original, Handle substitute, const char* what) {
        if (substitute == VK_NULL_HANDLE) {
            ZOVK_LOGE("builder test: no substitute %s for %p", what, reinterpret_cast<void*>(original));
            return;
        }
        map[original] = substitute;
        ZOVK_LOGD("builder test: %s %p -> %p", what, reinterpret_cast<void*>(original),
                  reinterpret_cast<void*>(substitute));
    }

    // Destroys the substitute of `original`, if any, without an allocator (see Keep's callers).
    template <typename Handle, typename Destroy>
    void Forget(std::unordered_map<Handle, Handle>& map, Handle original, Destroy destroy) {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto it = map.find(original);
        if (it != map.end()) {
            destroy(Record()->device, it->second, nullptr);
            map.erase(it);
        }
    }

    uint32_t CountAttachments(VkRenderPass renderPass) const {
        const auto it = attachmentCounts_.find(renderPass);
        return it == attachmentCounts_.end() ? 0 : it->second;
    }

    // One image per framebuffer size, made and filled on first need. Integer division: a
    // partial tile at the right or bottom edge gets no texel of its own.
    ShadingRateImageInfo* ImageFor(uint32_t width, uint32_t height) {
        const MyVkExtent2D texel = TexelSize();
        if (texel.width == 0 || texel.height == 0) {
            return nullptr;
        }
        const std::pair<uint32_t, uint32_t> key{width, height};
        const auto found = images_.find(key);
        if (found != images_.end()) {
            return &found->second;
        }
        ShadingRateImageInfo info;
        info.width = width / texel.width;
        info.height = height / texel.height;
        info.image = builder_.createImage(
            info.width, info.height, VK_FORMAT_R8_UINT, VK_IMAGE_TILING_OPTIMAL,
            VK_IMAGE_USAGE_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR | VK_IMAGE_USAGE_TRANSFER_DST_BIT,
            VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT, info.memory);
        if (info.image == VK_NULL_HANDLE) {
            return nullptr;
        }
        Fill(info);
        ZOVK_LOGD("builder test: shading-rate image %ux%u for %ux%u", info.width, info.height, width, height);
        return &images_.emplace(key, std::move(info)).first->second;
    }

    // Both uploads happen while the image is in the transfer layout, the way the helper names it.
    void Fill(const ShadingRateImageInfo& info) {
        const uint32_t size = info.width * info.height;
        builder_.transitionImageLayout(info.image, VK_FORMAT_R8_UINT, VK_IMAGE_LAYOUT_UNDEFINED,
                                       VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL);
        std::vector<unsigned char> first(size);
        for (uint32_t i = 0; i < size; ++i) {
            first[i] = FirstPattern(i);
        }
        builder_.updateImageDataFromPtr(info.image, info.width, info.height, first.data());

        VkDeviceMemory memory = VK_NULL_HANDLE;
        const VkBuffer buffer =
            builder_.createBuffer(size, VK_BUFFER_USAGE_TRANSFER_SRC_BIT,
                                  VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT | VK_MEMORY_PROPERTY_HOST_COHERENT_BIT, memory);
        void* mapped = nullptr;
        if (buffer != VK_NULL_HANDLE && memory != VK_NULL_HANDLE &&
            Record()->functions.vkMapMemory(Record()->device, memory, 0, size, 0, &mapped) == VK_SUCCESS) {
            auto* bytes = static_cast<unsigned char*>(mapped);
            for (uint32_t y = 0; y < info.height; ++y) {
                for (uint32_t x = 0; x < info.width; ++x) {
                    bytes[y * info.width + x] = SecondPattern(x, y);
                }
            }
            Record()->functions.vkUnmapMemory(Record()->device, memory);
            builder_.updateImageDataFromBuffer(info.image, info.width, info.height, buffer);
        }
        if (buffer != VK_NULL_HANDLE || memory != VK_NULL_HANDLE) {
            buffers_.emplace_back(buffer, memory);
        }
        builder_.transitionImageLayout(info.image, VK_FORMAT_R8_UINT, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL,
                                       VK_IMAGE_LAYOUT_FRAGMENT_SHADING_RATE_ATTACHMENT_OPTIMAL_KHR);
    }

    BuilderTestProcessor* processor_;
    ZoVkFixedVRSRenderpass builder_;
    std::mutex mutex_;
    MyVkExtent2D texelSize_;
    // Keyed by the application's handles, valued by the module's substitutes.
    std::unordered_map<VkRenderPass, VkRenderPass> passes_;
    std::unordered_map<VkFramebuffer, VkFramebuffer> framebuffers_;
    std::unordered_map<VkPipeline, VkPipeline> pipelines_;
    std::unordered_map<VkRenderPass, uint32_t> attachmentCounts_;
    std::map<std::pair<uint32_t, uint32_t>, ShadingRateImageInfo> images_;
    std::vector<std::pair<VkBuffer, VkDeviceMemory>> buffers_;
    std::unordered_map<VkCommandBuffer, bool> inSubstitutedPass_;

    ZOVK_MODULE_HOOKS(BuilderTestModule, BuilderTestProcessor, BUILDER_TEST_HOOKS)
};

void BuilderTestModule::PostVkCreateRenderPass(VkDevice, const VkRenderPassCreateInfo* pCreateInfo, const VkAllocationCallbacks*,
                 VkRenderPass* pRenderPass, VkResult result) {
    if (result != VK_SUCCESS) {
        return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    attachmentCounts_[*pRenderPass] = pCreateInfo->attachmentCount;
    Keep(passes_, *pRenderPass, builder_.createShadingRateRenderpass(*pCreateInfo, TexelSize()), "render pass");
}

void BuilderTestModule::PostVkCreateRenderPass2(VkDevice, const VkRenderPassCreateInfo2* pCreateInfo, const VkAllocationCallbacks*,
                  VkRenderPass* pRenderPass, VkResult result) {
    if (result != VK_SUCCESS) {
        return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    attachmentCounts_[*pRenderPass] = pCreateInfo->attachmentCount;
    Keep(passes_, *pRenderPass, builder_.createShadingRateRenderpass2(*pCreateInfo, TexelSize()),
         "render pass (2)");
}

void BuilderTestModule::PostVkCreateFramebuffer(VkDevice, const VkFramebufferCreateInfo* pCreateInfo, const VkAllocationCallbacks*,
                        VkFramebuffer* pFramebuffer, VkResult result) {
    if (result != VK_SUCCESS) {
        return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    const auto pass = passes_.find(pCreateInfo->renderPass);
    if (pass == passes_.end()) {
        return;
    }
    ShadingRateImageInfo* image = ImageFor(pCreateInfo->width, pCreateInfo->height);
    if (image == nullptr) {
        return;
    }
    Keep(framebuffers_, *pFramebuffer, builder_.createVRSFramebuffer(pass->second, *pCreateInfo, *image),
         "framebuffer");
}

void BuilderTestModule::PostVkCreateGraphicsPipelines(VkDevice, VkPipelineCache cache, uint32_t count,
                      const VkGraphicsPipelineCreateInfo* pCreateInfos, const VkAllocationCallbacks*,
                      VkPipeline* pPipelines, VkResult result) {
    if (result != VK_SUCCESS) {
        return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    for (uint32_t i = 0; i < count; ++i) {
        const auto pass = passes_.find(pCreateInfos[i].renderPass);
        // The builder extends the application's dynamic-state block; pipelines without one stay.
        if (pPipelines[i] == VK_NULL_HANDLE || pCreateInfos[i].pDynamicState == nullptr || pass == passes_.end()) {
            continue;
        }
        // No allocator: the substitute is the module's, destroyed by it without one.
        Keep(pipelines_, pPipelines[i],
             builder_.createVRSPipelineCreateInfo(cache, nullptr, pCreateInfos[i], pass->second), "pipeline");
    }
}

void BuilderTestModule::PostVkCreateCommandPool(VkDevice, const VkCommandPoolCreateInfo*, const VkAllocationCallbacks*, VkCommandPool* pPool,
                 VkResult result) {
    if (result == VK_SUCCESS) {
        builder_.SetCommandPool(*pPool);
    }
}

ZoVkPassed<void> BuilderTestModule::PreVkCmdBeginRenderPass(VkCommandBuffer commandBuffer, const VkRenderPassBeginInfo* pBegin,
                                         VkSubpassContents contents, ZoVkNext<&T::vkCmdBeginRenderPass> next) {
    VkRenderPassBeginInfo begin = *pBegin;
    std::vector<VkClearValue> clears;
    bool setRate = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto pass = passes_.find(pBegin->renderPass);
        const auto framebuffer = framebuffers_.find(pBegin->framebuffer);
        const bool substitute = pass != passes_.end() && framebuffer != framebuffers_.end();
        inSubstitutedPass_[commandBuffer] = substitute;
        if (substitute) {
            // The application's structure is const: the substitutes go into a copy. The rate
            // attachment is loaded, but every attachment index needs a clear value slot.
            begin.renderPass = pass->second;
            begin.framebuffer = framebuffer->second;
            clears.assign(pBegin->pClearValues, pBegin->pClearValues + pBegin->clearValueCount);
            clears.resize(std::max<size_t>(clears.size(), CountAttachments(pBegin->renderPass) + 1));
            begin.clearValueCount = static_cast<uint32_t>(clears.size());
            begin.pClearValues = clears.data();
            // Every substitute pipeline has the rate dynamic: it must be set before they draw.
            setRate = !pipelines_.empty() && Record()->functions.vkCmdSetFragmentShadingRateKHR != nullptr;
        }
    }
    const ZoVkPassed<void> passed = next(commandBuffer, &begin, contents);
    if (setRate) {
        // The substitute pipelines leave the rate dynamic: full rate, the attachment ignored.
        const VkExtent2D size{1, 1};
        const VkFragmentShadingRateCombinerOpKHR keep[2] = {VK_FRAGMENT_SHADING_RATE_COMBINER_OP_KEEP_KHR,
                                                            VK_FRAGMENT_SHADING_RATE_COMBINER_OP_KEEP_KHR};
        next.NextLayer().vkCmdSetFragmentShadingRateKHR(commandBuffer, &size, keep);
    }
    return passed;
}

void BuilderTestModule::PostVkCmdEndRenderPass(VkCommandBuffer commandBuffer) {
    std::lock_guard<std::mutex> lock(mutex_);
    inSubstitutedPass_.erase(commandBuffer);
}

ZoVkPassed<void> BuilderTestModule::PreVkCmdBindPipeline(VkCommandBuffer commandBuffer, VkPipelineBindPoint bindPoint,
                                      VkPipeline pipeline, ZoVkNext<&T::vkCmdBindPipeline> next) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto inPass = inSubstitutedPass_.find(commandBuffer);
        const auto substitute = pipelines_.find(pipeline);
        // A substitute only fits a substitute pass.
        if (bindPoint == VK_PIPELINE_BIND_POINT_GRAPHICS && inPass != inSubstitutedPass_.end() &&
            inPass->second && substitute != pipelines_.end()) {
            pipeline = substitute->second;
        }
    }
    return next(commandBuffer, bindPoint, pipeline);
}

ZoVkPassed<void> BuilderTestModule::PreVkDestroyRenderPass(VkDevice device, VkRenderPass renderPass,
                                        const VkAllocationCallbacks* pAllocator,
                                        ZoVkNext<&T::vkDestroyRenderPass> next) {
    Forget(passes_, renderPass, next.NextLayer().vkDestroyRenderPass);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        attachmentCounts_.erase(renderPass);
    }
    return next(device, renderPass, pAllocator);
}

ZoVkPassed<void> BuilderTestModule::PreVkDestroyFramebuffer(VkDevice device, VkFramebuffer framebuffer,
                                         const VkAllocationCallbacks* pAllocator,
                                         ZoVkNext<&T::vkDestroyFramebuffer> next) {
    Forget(framebuffers_, framebuffer, next.NextLayer().vkDestroyFramebuffer);
    return next(device, framebuffer, pAllocator);
}

ZoVkPassed<void> BuilderTestModule::PreVkDestroyPipeline(VkDevice device, VkPipeline pipeline, const VkAllocationCallbacks* pAllocator,
                                      ZoVkNext<&T::vkDestroyPipeline> next) {
    Forget(pipelines_, pipeline, next.NextLayer().vkDestroyPipeline);
    return next(device, pipeline, pAllocator);
}

void BuilderTestProcessor::PreDestroyDevice(VkDevice, const VkAllocationCallbacks*) {
    if (ZoVkModuleBase* module = GetVkModule(kModuleId)) {
        static_cast<BuilderTestModule*>(module)->ReleaseDevice();
    }
}

// Runs at library load, after the layer's own registries were constructed: this object is
// linked after the layer's objects, and initialisers run in link order.
const bool kRegistered = [] {
    gCreateModuleMap[kModuleId] = [](ZoVkProcessorBase* processor) { return new BuilderTestModule(processor); };
    gCreateModuleDataMap[kModuleId] = [](const Json::Value&) -> ZoVkModuleDataBase* {
        if (ZoVkSettings::GetInstance()->GetApplicationType() != ZOVK_APPLICATION_STAR_RAIL) {
            return nullptr;
        }
        // The configuration has just chosen the Star Rail processor; serve with the one that
        // also tells the module when the device goes.
        gCreateProcessorFunc = [] {
            auto processor = std::make_shared<BuilderTestProcessor>();
            processor->OnBegin();
            return std::shared_ptr<ZoVkProcessorBase>(processor);
        };
        return new BuilderTestModuleData();
    };
    return true;
}();

}  // namespace

}  // namespace vulkan::zovk::app::module
