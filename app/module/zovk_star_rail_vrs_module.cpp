// The Star Rail VRS module's life: construction from the configuration, hook and functor
// registration, and the release of everything it made before its device goes.
#include "app/module/zovk_star_rail_vrs_module.h"

#include <cutils/properties.h>

#include "app/zovk_processor_data_base.h"
#include "layer/zovk_records.h"
#include "settings/zovk_log.h"
#include "settings/zovk_settings.h"

namespace vulkan::zovk::app::module {

namespace {

using P = ZoVkStarRailProcessor;
using T = VkDeviceFunctionTable;
using M = ZoVkStarRailVRSModule;

template <typename Map>
void Prepare(Map& map) {
    map.max_load_factor(1.0f);
}

// Destroys every substitute the maps hold (unless `destroy` is null: the device is out of
// reach) and empties them.
template <typename Destroy, typename... Maps>
void DestroySubstitutes(Destroy destroy, VkDevice device, Maps&... maps) {
    auto release = [&](auto& map) {
        for (const auto& entry : map) {
            if (destroy != nullptr && entry.second != VK_NULL_HANDLE) destroy(device, entry.second, nullptr);
        }
        map.clear();
    };
    (release(maps), ...);
}

}  // namespace

ZoVkStarRailVRSModule::ZoVkStarRailVRSModule(ZoVkProcessorBase* processor)
    : ZoVkModuleBase(processor),
      renderpassBuilder(std::make_unique<ZoVkFixedVRSRenderpass>(processor)),
      processor_(static_cast<P*>(processor)) {
    Prepare(mainPassMap);
    Prepare(mainFramebufferPassMap);
    Prepare(mainFramebufferMap);
    Prepare(mainPipelineMap);
    Prepare(lightPassMap);
    Prepare(lightFramebufferPassMap);
    Prepare(lightFramebufferMap);
    Prepare(lightPipelineMap);
    Prepare(mainPassCommandBuffers);
    Prepare(mainSecondaryCommandBuffers);
    Prepare(lightPassCommandBuffers);
    Prepare(lightSecondaryCommandBuffers);

    ZoVkProcessorDataBase* data = ZoVkSettings::GetInstance()->GetProcessorData();
    // The factory builds this id's configuration as ZoVkStarRailVRSModuleData, nothing else.
    moduleData = static_cast<ZoVkStarRailVRSModuleData*>(
        data != nullptr ? data->GetProcessorModuleData(PROCESSOR_MODULE_TYPE) : nullptr);
    if (moduleData == nullptr) {
        valid = false;
    } else if (!moduleData->valid) {
        ZOVK_LOGW("vrs_Params is malformed: Star Rail VRS stays off");
        moduleData = nullptr;
        valid = false;
    }
    debugLog = property_get_bool("vendor.zogl.hkrpg.vrs.debug", false) != 0;
}

ZoVkStarRailVRSModule::~ZoVkStarRailVRSModule() {
    // Normally empty by now: the device's pre-destroy step released everything.
    ReleaseDeviceObjects();
}

void ZoVkStarRailVRSModule::RegisterModuleVkDeviceHooks() {
    SetDeviceHook<P, &T::vkQueuePresentKHR, &P::VkQueuePresentKHRHooked>(processor_, "vkQueuePresentKHR");
    SetDeviceHook<P, &T::vkCreateGraphicsPipelines, &P::VkCreateGraphicsPipelinesHooked>(processor_,
                                                                                         "vkCreateGraphicsPipelines");
    SetDeviceHook<P, &T::vkCmdBeginRenderPass, &P::VkCmdBeginRenderPassHooked>(processor_, "vkCmdBeginRenderPass");
    SetDeviceHook<P, &T::vkCmdEndRenderPass, &P::VkCmdEndRenderPassHooked>(processor_, "vkCmdEndRenderPass");
    SetDeviceHook<P, &T::vkCreateRenderPass, &P::VkCreateRenderPassHooked>(processor_, "vkCreateRenderPass");
    SetDeviceHook<P, &T::vkCreateFramebuffer, &P::VkCreateFramebufferHooked>(processor_, "vkCreateFramebuffer");
    SetDeviceHook<P, &T::vkCmdBindPipeline, &P::VkCmdBindPipelineHooked>(processor_, "vkCmdBindPipeline");
    SetDeviceHook<P, &T::vkCreateCommandPool, &P::VkCreateCommandPoolHooked>(processor_, "vkCreateCommandPool");
    SetDeviceHook<P, &T::vkCmdDrawIndexed, &P::VkCmdDrawIndexedHooked>(processor_, "vkCmdDrawIndexed");
    SetDeviceHook<P, &T::vkDestroyPipeline, &P::VkDestroyPipelineHooked>(processor_, "vkDestroyPipeline");
    SetDeviceHook<P, &T::vkDestroyRenderPass, &P::VkDestroyRenderPassHooked>(processor_, "vkDestroyRenderPass");
    SetDeviceHook<P, &T::vkDestroyFramebuffer, &P::VkDestroyFramebufferHooked>(processor_, "vkDestroyFramebuffer");
    SetDeviceHook<P, &T::vkCmdExecuteCommands, &P::VkCmdExecuteCommandsHooked>(processor_, "vkCmdExecuteCommands");
    SetDeviceHook<P, &T::vkBeginCommandBuffer, &P::VkBeginCommandBufferHooked>(processor_, "vkBeginCommandBuffer");
    SetDeviceHook<P, &T::vkEndCommandBuffer, &P::VkEndCommandBufferHooked>(processor_, "vkEndCommandBuffer");
}

void ZoVkStarRailVRSModule::RegisterModuleDeviceFunctors() {
    P& p = *processor_;
    JoinFunctor(p.queuePresent, presentNode_, this, &decltype(presentNode_)::Hooked<M, &M::PreVkQueuePresentKHR>, 0);
    JoinFunctor(p.postCreateGraphicsPipelines, createPipelinesNode_, this,
                &decltype(createPipelinesNode_)::Hooked<M, &M::PostVkCreateGraphicsPipelines>, 0);
    JoinFunctor(p.cmdBeginRenderPass, beginRenderPassNode_, this,
                &decltype(beginRenderPassNode_)::Hooked<M, &M::PreVkCmdBeginRenderPass>, 0);
    JoinFunctor(p.cmdEndRenderPass, endRenderPassNode_, this,
                &decltype(endRenderPassNode_)::Hooked<M, &M::PostVkCmdEndRenderPass>, 0);
    JoinFunctor(p.postCreateRenderPass, createRenderPassNode_, this,
                &decltype(createRenderPassNode_)::Hooked<M, &M::PostVkCreateRenderPass>, 0);
    JoinFunctor(p.postCreateFramebuffer, createFramebufferNode_, this,
                &decltype(createFramebufferNode_)::Hooked<M, &M::PostVkCreateFramebuffer>, 0);
    JoinFunctor(p.cmdBindPipeline, bindPipelineNode_, this,
                &decltype(bindPipelineNode_)::Hooked<M, &M::PreVkCmdBindPipeline>, 0);
    JoinFunctor(p.postCreateCommandPool, createCommandPoolNode_, this,
                &decltype(createCommandPoolNode_)::Hooked<M, &M::PostVkCreateCommandPool>, 0);
    JoinFunctor(p.cmdDrawIndexed, drawIndexedNode_, this,
                &decltype(drawIndexedNode_)::Hooked<M, &M::PreVkCmdDrawIndexed>, 0);
    JoinFunctor(p.destroyPipeline, destroyPipelineNode_, this,
                &decltype(destroyPipelineNode_)::Hooked<M, &M::PreVkDestroyPipeline>, 0);
    JoinFunctor(p.destroyRenderPass, destroyRenderPassNode_, this,
                &decltype(destroyRenderPassNode_)::Hooked<M, &M::PreVkDestroyRenderPass>, 0);
    JoinFunctor(p.destroyFramebuffer, destroyFramebufferNode_, this,
                &decltype(destroyFramebufferNode_)::Hooked<M, &M::PreVkDestroyFramebuffer>, 0);
    JoinFunctor(p.cmdExecuteCommands, executeCommandsNode_, this,
                &decltype(executeCommandsNode_)::Hooked<M, &M::PreVkCmdExecuteCommands>, 0);
    JoinFunctor(p.beginCommandBuffer, beginCommandBufferNode_, this,
                &decltype(beginCommandBufferNode_)::Hooked<M, &M::PreVkBeginCommandBuffer>, 0);
    JoinFunctor(p.endCommandBuffer, endCommandBufferNode_, this,
                &decltype(endCommandBufferNode_)::Hooked<M, &M::PreVkEndCommandBuffer>, 0);
}

void ZoVkStarRailVRSModule::UnregisterModuleDeviceFunctors() {
    P& p = *processor_;
    p.queuePresent.Remove(&presentNode_);
    p.postCreateGraphicsPipelines.Remove(&createPipelinesNode_);
    p.cmdBeginRenderPass.Remove(&beginRenderPassNode_);
    p.cmdEndRenderPass.Remove(&endRenderPassNode_);
    p.postCreateRenderPass.Remove(&createRenderPassNode_);
    p.postCreateFramebuffer.Remove(&createFramebufferNode_);
    p.cmdBindPipeline.Remove(&bindPipelineNode_);
    p.postCreateCommandPool.Remove(&createCommandPoolNode_);
    p.cmdDrawIndexed.Remove(&drawIndexedNode_);
    p.destroyPipeline.Remove(&destroyPipelineNode_);
    p.destroyRenderPass.Remove(&destroyRenderPassNode_);
    p.destroyFramebuffer.Remove(&destroyFramebufferNode_);
    p.cmdExecuteCommands.Remove(&executeCommandsNode_);
    p.beginCommandBuffer.Remove(&beginCommandBufferNode_);
    p.endCommandBuffer.Remove(&endCommandBufferNode_);
}

void ZoVkStarRailVRSModule::OnDeviceDestroy(VkDevice device) {
    if (device_ == VK_NULL_HANDLE || device != device_) {
        return;
    }
    ReleaseDeviceObjects();
}

void ZoVkStarRailVRSModule::ReleaseDeviceObjects() {
    // Nothing is made before the module knows its device (see ReadTexelSize).
    const ZoVkDeviceInfo* record = nullptr;
    if (device_ != VK_NULL_HANDLE) {
        record = processor_->GetDeviceInfo();
        if (record == nullptr || record->device != device_) {
            // The processor moved on to another device; this one's functions are out of reach.
            ZOVK_LOGE("Star Rail VRS: objects of an earlier device cannot be released");
            record = nullptr;
        }
    }
    const VkDevice device = record != nullptr ? record->device : VK_NULL_HANDLE;
    const VkDeviceFunctionTable* f = record != nullptr ? &record->functions : nullptr;
    DestroySubstitutes(f != nullptr ? f->vkDestroyPipeline : nullptr, device, mainPipelineMap, lightPipelineMap);
    DestroySubstitutes(f != nullptr ? f->vkDestroyFramebuffer : nullptr, device, mainFramebufferMap,
                       lightFramebufferMap);
    DestroySubstitutes(f != nullptr ? f->vkDestroyRenderPass : nullptr, device, mainPassMap, mainFramebufferPassMap,
                       lightPassMap, lightFramebufferPassMap);
    if (record != nullptr) {
        for (std::vector<ShadingRateImageInfo>* images : {&mainPassImages, &lightPassImages}) {
            for (ShadingRateImageInfo& image : *images) {
                renderpassBuilder->destroyShadingRateImage(image);
            }
        }
        for (std::vector<TemplateBuffer>& buffers : templateBuffers) {
            DestroyTemplateBuffers(buffers);
        }
        renderpassBuilder->Release();
    }
    lightPassSubstitute = VK_NULL_HANDLE;
    mainPassImages.clear();
    lightPassImages.clear();
    templateBuffers.clear();
    for (auto* set : {&mainPassCommandBuffers, &mainSecondaryCommandBuffers, &lightPassCommandBuffers,
                      &lightSecondaryCommandBuffers}) {
        set->clear();
    }
    lightSecondaryRecording = false;
    coarseRateActive = false;
    lightDrawCounter = 0;
    curMainResIndex_ = -1;
    // A later device starts again from its own texel size and images.
    texelSize = MyVkExtent2D();
    vrsFlags.store(0, std::memory_order_relaxed);
    device_ = VK_NULL_HANDLE;
}

}  // namespace vulkan::zovk::app::module
