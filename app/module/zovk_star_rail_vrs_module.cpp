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

void Prepare(ZoVkStarRailVRSModule::PassState& pass) {
    pass.passMap.max_load_factor(1.0f);
    pass.framebufferPassMap.max_load_factor(1.0f);
    pass.framebufferMap.max_load_factor(1.0f);
    pass.pipelineMap.max_load_factor(1.0f);
    pass.passCommandBuffers.max_load_factor(1.0f);
    pass.secondaryCommandBuffers.max_load_factor(1.0f);
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
    Prepare(mainPass);
    Prepare(lightPass);

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
    for (PassState* pass : {&mainPass, &lightPass}) {
        DestroySubstitutes(f != nullptr ? f->vkDestroyPipeline : nullptr, device, pass->pipelineMap);
        DestroySubstitutes(f != nullptr ? f->vkDestroyFramebuffer : nullptr, device, pass->framebufferMap);
        DestroySubstitutes(f != nullptr ? f->vkDestroyRenderPass : nullptr, device, pass->passMap,
                           pass->framebufferPassMap);
        for (ShadingRateImageInfo& image : pass->images) {
            if (record != nullptr) renderpassBuilder->destroyShadingRateImage(image);
        }
        pass->images.clear();
        pass->passCommandBuffers.clear();
        pass->secondaryCommandBuffers.clear();
    }
    if (record != nullptr) {
        for (std::vector<TemplateBuffer>& buffers : templateBuffers) {
            DestroyTemplateBuffers(buffers);
        }
        renderpassBuilder->Release();
    }
    lightPassSubstitute = VK_NULL_HANDLE;
    templateBuffers.clear();
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
