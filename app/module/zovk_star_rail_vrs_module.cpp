// The Star Rail VRS module's life: construction from the configuration, the state of each
// device, and the release of everything it made there before the device goes.
#include "app/module/zovk_star_rail_vrs_module.h"

#include <cutils/properties.h>

#include "app/zovk_processor_data_base.h"
#include "layer/zovk_records.h"
#include "settings/zovk_log.h"
#include "settings/zovk_settings.h"

namespace vulkan::zovk::app::module {

namespace {

using M = ZoVkStarRailVRSModule;

void Prepare(M::PassState& pass) {
    pass.passMap.max_load_factor(1.0f);
    pass.framebufferPassMap.max_load_factor(1.0f);
    pass.framebufferMap.max_load_factor(1.0f);
    pass.pipelineMap.max_load_factor(1.0f);
    pass.passCommandBuffers.max_load_factor(1.0f);
    pass.secondaryCommandBuffers.max_load_factor(1.0f);
}

// Destroys every substitute the maps hold and empties them.
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

ZoVkStarRailVRSModule::DeviceState::DeviceState(ZoVkProcessorBase* processor, VkDevice handle)
    : device(handle), renderpassBuilder(processor, handle) {
    Prepare(mainPass);
    Prepare(lightPass);
}

ZoVkStarRailVRSModule::ZoVkStarRailVRSModule(ZoVkProcessorBase* processor)
    : ZoVkModuleBase(processor),
      conforming_(ZoVkSettings::GetInstance()->IsVrsConforming()),
      processor_(static_cast<ZoVkStarRailProcessor*>(processor)) {
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
    if (conforming_ && valid) {
        ZOVK_LOGI("Star Rail VRS: conforming mode");
    }
}

ZoVkStarRailVRSModule::DeviceState* ZoVkStarRailVRSModule::State(VkDevice device, bool make) {
    // A game draws on one device: the last one found answers without a hash lookup.
    if (device == lastState_.first && device != VK_NULL_HANDLE) {
        return lastState_.second;
    }
    auto it = devices_.find(device);
    if (it == devices_.end()) {
        if (!make || device == VK_NULL_HANDLE) {
            return nullptr;
        }
        it = devices_.emplace(device, std::make_unique<DeviceState>(processor_, device)).first;
    }
    lastState_ = {device, it->second.get()};
    return it->second.get();
}

void ZoVkStarRailVRSModule::SetFlags(DeviceState& state, uint32_t bits) {
    state.vrsFlags |= bits;
    CountActive(state);
}

void ZoVkStarRailVRSModule::ClearFlags(DeviceState& state, uint32_t bits) {
    state.vrsFlags &= ~bits;
    CountActive(state);
}

void ZoVkStarRailVRSModule::CountActive(DeviceState& state) {
    if (Active(state) != state.countedActive) {
        state.countedActive = Active(state);
        if (state.countedActive) {
            activeDevices_.fetch_add(1, std::memory_order_relaxed);
        } else {
            activeDevices_.fetch_sub(1, std::memory_order_relaxed);
        }
    }
}

void ZoVkStarRailVRSModule::Track(std::unordered_set<VkCommandBuffer>& set, VkCommandBuffer commandBuffer) {
    if (set.insert(commandBuffer).second) {
        trackedCommandBuffers_.fetch_add(1, std::memory_order_relaxed);
    }
}

bool ZoVkStarRailVRSModule::Untrack(std::unordered_set<VkCommandBuffer>& set, VkCommandBuffer commandBuffer) {
    if (set.erase(commandBuffer) == 0) {
        return false;
    }
    trackedCommandBuffers_.fetch_sub(1, std::memory_order_relaxed);
    return true;
}

void ZoVkStarRailVRSModule::StartLightRecording(DeviceState& state, VkCommandBuffer commandBuffer) {
    const auto [entry, made] = state.lightRecordings.insert_or_assign(commandBuffer, DeviceState::LightRecording{});
    // In the conforming mode the secondary's own begin set the attachment rate.
    entry->second.coarse = conforming_ || state.coarseRateActive;
    if (made) {
        lightRecordings_.fetch_add(1, std::memory_order_relaxed);
    }
}

void ZoVkStarRailVRSModule::StopLightRecording(DeviceState& state, VkCommandBuffer commandBuffer) {
    if (state.lightRecordings.erase(commandBuffer) != 0) {
        lightRecordings_.fetch_sub(1, std::memory_order_relaxed);
    }
}

void ZoVkStarRailVRSModule::ForgetCommandBuffer(DeviceState& state, VkCommandBuffer commandBuffer) {
    for (PassState* pass : {&state.mainPass, &state.lightPass}) {
        Untrack(pass->passCommandBuffers, commandBuffer);
        Untrack(pass->secondaryCommandBuffers, commandBuffer);
    }
    // A light secondary being recorded that will never reach its end.
    StopLightRecording(state, commandBuffer);
}

void ZoVkStarRailVRSModule::OnDeviceDestroy(VkDevice device) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = devices_.find(device);
    if (it == devices_.end()) {
        return;
    }
    ReleaseDeviceObjects(*it->second);
    devices_.erase(it);
    lastState_ = {};
}

void ZoVkStarRailVRSModule::ReleaseDeviceObjects(DeviceState& state) {
    // The counters the hooked calls read first forget the device whatever happens below.
    for (PassState* pass : {&state.mainPass, &state.lightPass}) {
        for (auto* set : {&pass->passCommandBuffers, &pass->secondaryCommandBuffers}) {
            trackedCommandBuffers_.fetch_sub(static_cast<uint32_t>(set->size()), std::memory_order_relaxed);
            set->clear();
        }
    }
    lightRecordings_.fetch_sub(static_cast<uint32_t>(state.lightRecordings.size()), std::memory_order_relaxed);
    state.lightRecordings.clear();
    ClearFlags(state, ~0u);
    const ZoVkDeviceInfo* record = ZoVkContextManager::GetInstance()->GetDeviceInfo(GetDispatchKey(state.device));
    if (record == nullptr) {
        ZOVK_LOGE("Star Rail VRS: the objects of a device without a record cannot be released");
        return;
    }
    const VkDeviceFunctionTable& f = record->functions;
    for (PassState* pass : {&state.mainPass, &state.lightPass}) {
        DestroySubstitutes(f.vkDestroyPipeline, state.device, pass->pipelineMap);
        DestroySubstitutes(f.vkDestroyFramebuffer, state.device, pass->framebufferMap);
        DestroySubstitutes(f.vkDestroyRenderPass, state.device, pass->passMap, pass->framebufferPassMap);
        for (ShadingRateImageInfo& image : pass->images) {
            state.renderpassBuilder.destroyShadingRateImage(image);
        }
    }
    for (std::vector<TemplateBuffer>& buffers : state.templateBuffers) {
        DestroyTemplateBuffers(state, buffers);
    }
    state.renderpassBuilder.Release();
}

}  // namespace vulkan::zovk::app::module
