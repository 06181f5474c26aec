// Star Rail VRS shading-rate images: one main-pass and one light-pass image per configured
// resolution, the template buffers that hold each intensity level's patterns, and the step at
// every present that follows the game's scene and VRS level.
#include <algorithm>
#include <chrono>

#include "app/module/zovk_star_rail_vrs_module.h"
#include "app/module/zovk_star_rail_vrs_patterns.h"
#include "app/module/zovk_star_rail_vrs_trace.h"
#include "layer/zovk_records.h"
#include "settings/zovk_app_info_monitor.h"

namespace vulkan::zovk::app::module {

namespace {

constexpr int kSceneGateId = 1058;
constexpr int kSceneGateAbove = 1000000;
constexpr uint64_t kReportEvery = 180;
// Only levels 1 and 2 have patterns; a configuration asking for far more levels would only
// make unused buffers.
constexpr int32_t kMaxTemplateLevels = 8;

}  // namespace

int32_t ZoVkStarRailVRSModule::ResolutionIndex(uint32_t width, uint32_t height) const {
    const uint32_t index = moduleData->mainPassResContains(width, height);
    return index == ZoVkStarRailVRSModuleData::kNoResolution ? -1 : static_cast<int32_t>(index);
}

void ZoVkStarRailVRSModule::UploadTemplate(DeviceState& state, ShadingRateImageInfo& image,
                                           const TemplateBuffer& buffer) {
    if (image.image == VK_NULL_HANDLE) {
        return;
    }
    ZoVkFixedVRSRenderpass& builder = state.renderpassBuilder;
    const bool fresh = image.layout != VK_IMAGE_LAYOUT_FRAGMENT_SHADING_RATE_ATTACHMENT_OPTIMAL_KHR;
    if (fresh) {
        builder.transitionImageLayout(image.image, VK_FORMAT_R8_UINT, VK_IMAGE_LAYOUT_UNDEFINED,
                                      VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL);
    }
    builder.updateImageDataFromBuffer(image.image, image.width, image.height, buffer.buffer);
    if (fresh) {
        builder.transitionImageLayout(image.image, VK_FORMAT_R8_UINT, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL,
                                      VK_IMAGE_LAYOUT_FRAGMENT_SHADING_RATE_ATTACHMENT_OPTIMAL_KHR);
        image.layout = VK_IMAGE_LAYOUT_FRAGMENT_SHADING_RATE_ATTACHMENT_OPTIMAL_KHR;
    }
}

void ZoVkStarRailVRSModule::UploadConforming(
    DeviceState& state, std::initializer_list<std::pair<ShadingRateImageInfo*, const TemplateBuffer*>> uploads) {
    ZoVkFixedVRSRenderpass& builder = state.renderpassBuilder;
    const VkCommandBuffer commandBuffer = builder.beginSingleTimeCommands();
    if (commandBuffer == VK_NULL_HANDLE) {
        return;
    }
    for (const auto& [image, buffer] : uploads) {
        builder.recordShadingRateUpload(commandBuffer, *image, buffer->buffer);
    }
    builder.submitSingleTimeCommands(commandBuffer);
}

void ZoVkStarRailVRSModule::DestroyTemplateBuffers(DeviceState& state, std::vector<TemplateBuffer>& buffers) {
    const ZoVkDeviceInfo* record = ZoVkContextManager::GetInstance()->GetDeviceInfo(GetDispatchKey(state.device));
    for (const TemplateBuffer& t : buffers) {
        if (record == nullptr) break;
        if (t.buffer != VK_NULL_HANDLE) record->functions.vkDestroyBuffer(record->device, t.buffer, nullptr);
        if (t.memory != VK_NULL_HANDLE) record->functions.vkFreeMemory(record->device, t.memory, nullptr);
    }
    buffers.clear();
}

bool ZoVkStarRailVRSModule::initShadingRateImages(DeviceState& state) {
    const size_t count = moduleData->resolutions.size();
    for (PassState* pass : {&state.mainPass, &state.lightPass}) {
        for (size_t i = count; i < pass->images.size(); ++i) {
            state.renderpassBuilder.destroyShadingRateImage(pass->images[i]);
        }
        pass->images.resize(count);
    }
    for (size_t i = count; i < state.templateBuffers.size(); ++i) {
        DestroyTemplateBuffers(state, state.templateBuffers[i]);
    }
    state.templateBuffers.resize(count);
    bool made = false;
    for (size_t i = 0; i < count; ++i) {
        const MyVkExtent2D size = shadingRateImageSize(moduleData->resolutions[i], state.texelSize, conforming_);
        if (size.width == 0 || size.height == 0) {
            // Only this resolution goes without: the others still get their images.
            if (state.tooSmallLogged) continue;
            state.tooSmallLogged = true;
            ZOVK_LOGW("Star Rail VRS: resolution %ux%u is smaller than one %ux%u texel: no shading-rate images for it",
                      moduleData->resolutions[i].width, moduleData->resolutions[i].height, state.texelSize.width,
                      state.texelSize.height);
            continue;
        }
        bool imagesMade = true;
        for (ShadingRateImageInfo* image : {&state.mainPass.images[i], &state.lightPass.images[i]}) {
            const char* pass = image == &state.mainPass.images[i] ? "main" : "light";
            image->width = size.width;
            image->height = size.height;
            if (image->image == VK_NULL_HANDLE) {
                image->image = state.renderpassBuilder.createImage(
                    size.width, size.height, VK_FORMAT_R8_UINT, VK_IMAGE_TILING_OPTIMAL,
                    VK_IMAGE_USAGE_TRANSFER_DST_BIT | VK_IMAGE_USAGE_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR,
                    VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT, image->memory);
                image->layout = VK_IMAGE_LAYOUT_UNDEFINED;
                ZOVK_LOGD("Star Rail VRS: %s pass shading-rate image %llu, %ux%u (%u bytes), for %ux%u", pass,
                          HandleNumber(image->image), size.width, size.height, size.width * size.height,
                          moduleData->resolutions[i].width, moduleData->resolutions[i].height);
            }
            imagesMade = imagesMade && image->image != VK_NULL_HANDLE;
        }
        if (!imagesMade || !initShadingRateImageTemplates(state, static_cast<int32_t>(i), size.width, size.height)) {
            return false;
        }
        if (state.templateBuffers[i].size() < 3) {
            ZOVK_LOGW("Star Rail VRS: %zu template buffers for resolution %zu, 3 needed",
                      state.templateBuffers[i].size(), i);
            return false;
        }
        made = true;
    }
    return made;
}

bool ZoVkStarRailVRSModule::initShadingRateImageTemplates(DeviceState& state, int32_t resolutionIndex,
                                                         uint32_t width, uint32_t height) {
    if (resolutionIndex < 0 || static_cast<size_t>(resolutionIndex) >= state.templateBuffers.size()) {
        return false;
    }
    const ZoVkDeviceInfo* record = ZoVkContextManager::GetInstance()->GetDeviceInfo(GetDispatchKey(state.device));
    std::vector<TemplateBuffer>& buffers = state.templateBuffers[resolutionIndex];
    // A retry makes the buffers again; the earlier ones go first.
    DestroyTemplateBuffers(state, buffers);
    int32_t levels = std::max(moduleData->templateLevelCount, 0);
    if (levels > kMaxTemplateLevels) {
        ZOVK_LOGW("Star Rail VRS: %d template levels configured, %d made", levels, kMaxTemplateLevels);
        levels = kMaxTemplateLevels;
    }
    buffers.assign(2 * static_cast<size_t>(levels), TemplateBuffer());
    const VkDeviceSize bytes = VkDeviceSize{width} * height;
    for (size_t k = 0; k < buffers.size(); ++k) {
        TemplateBuffer& t = buffers[k];
        t.buffer = state.renderpassBuilder.createBuffer(
            bytes, VK_BUFFER_USAGE_TRANSFER_SRC_BIT,
            VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT | VK_MEMORY_PROPERTY_HOST_COHERENT_BIT, t.memory);
        if (t.buffer == VK_NULL_HANDLE) {
            ZOVK_LOGE("Star Rail VRS: template buffer %zu of %ux%u texels not made", k, width, height);
            return false;
        }
        void* texels = nullptr;
        if (t.memory != VK_NULL_HANDLE &&
            record->functions.vkMapMemory(record->device, t.memory, 0, bytes, 0, &texels) == VK_SUCCESS &&
            texels != nullptr) {
            // Buffers from the fifth on have no pattern of their own and stay as they are.
            fillShadingRateTemplate(static_cast<uint32_t>(k), texels, width, height);
            record->functions.vkUnmapMemory(record->device, t.memory);
        }
    }
    return true;
}

void ZoVkStarRailVRSModule::UploadFirstTemplates(DeviceState& state) {
    for (size_t i = 0; i < state.templateBuffers.size(); ++i) {
        const std::vector<TemplateBuffer>& buffers = state.templateBuffers[i];
        if (buffers.size() < 3) {
            continue;
        }
        if (conforming_) {
            UploadConforming(state, {{&state.mainPass.images[i], &buffers[0]}, {&state.lightPass.images[i], &buffers[2]}});
        } else {
            UploadTemplate(state, state.mainPass.images[i], buffers[0]);
            UploadTemplate(state, state.lightPass.images[i], buffers[2]);
        }
    }
    SetFlags(state, kImagesReady);
}

void ZoVkStarRailVRSModule::UploadLevel(DeviceState& state, int level) {
    const int32_t index = state.curMainResIndex_;
    if (level > 2 || index < 0 || static_cast<size_t>(index) >= state.mainPass.images.size() ||
        static_cast<size_t>(level + 1) >= state.templateBuffers[index].size()) {
        return;
    }
    ZOVK_VRS_TRACE(debugLog, "PreVkQueuePresentKHR, updateImageDataFromBuffer, curMainResIndex_: %d, templevel_: %d",
                   index, state.templevel_);
    // Both images have the same size; the main image's is used for both copies.
    ShadingRateImageInfo& main = state.mainPass.images[index];
    ShadingRateImageInfo& light = state.lightPass.images[index];
    const std::vector<TemplateBuffer>& buffers = state.templateBuffers[index];
    const auto start = std::chrono::steady_clock::now();
    if (conforming_) {
        UploadConforming(state, {{&main, &buffers[level - 1]}, {&light, &buffers[level + 1]}});
    } else {
        state.renderpassBuilder.updateImageDataFromBuffer(main.image, main.width, main.height,
                                                          buffers[level - 1].buffer);
        state.renderpassBuilder.updateImageDataFromBuffer(light.image, main.width, main.height,
                                                          buffers[level + 1].buffer);
    }
    // What the uploads cost this present (each waits for the queue unless conforming).
    ZOVK_VRS_TRACE(debugLog, "Star Rail VRS: level %d uploaded in %lld us", level,
                   static_cast<long long>(
                       std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start)
                           .count()));
}

ZoVkPassed<VkResult> ZoVkStarRailVRSModule::PreVkQueuePresentKHR(
    VkQueue queue, const VkPresentInfoKHR* pPresentInfo,
    ZoVkNext<&VkDeviceFunctionTable::vkQueuePresentKHR> next) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (DeviceState* state = State(next.Record().device, false)) {
            Present(*state, queue);
        }
    }
    return next(queue, pPresentInfo);
}

void ZoVkStarRailVRSModule::Present(DeviceState& state, VkQueue queue) {
    ++state.frameCounter;
    // The game holds this queue while it presents: the one moment the layer may submit to it.
    // Its pool is of the first graphics family, so only that family's first queue will do.
    const bool canSubmit = queue == state.renderpassBuilder.GraphicsQueue();
    if (!canSubmit && !state.queueLogged && state.imagesMade) {
        ZOVK_LOGW("Star Rail VRS: presents on a queue other than the first graphics queue: no uploads");
        state.queueLogged = true;
    }
    state.renderpassBuilder.SetSubmitQueue(queue);
    if (canSubmit && state.imagesMade && (state.vrsFlags & kImagesReady) == 0) {
        UploadFirstTemplates(state);
    }
    const android::ZoVkAppInfoMonitor* monitor = android::ZoVkAppInfoMonitor::GetInstance();
    const int sceneId = monitor->GetSceneId();
    if (sceneId == kSceneGateId || sceneId > kSceneGateAbove) {
        SetFlags(state, kSceneOn);
    } else {
        ClearFlags(state, kSceneOn);
    }
    const int level = monitor->getVrsLevel();
    const uint32_t ready = kTexelSizeKnown | kImagesReady;
    if (level < 1) {
        ClearFlags(state, kLevelOn);
    } else if ((state.vrsFlags & ready) != ready ||
               (level == state.templevel_ && state.appliedResIndex == state.curMainResIndex_)) {
        SetFlags(state, kLevelOn);
    } else {
        state.templevel_ = level;
        state.appliedResIndex = state.curMainResIndex_;
        UploadLevel(state, level);
        SetFlags(state, kLevelOn);
    }
    state.renderpassBuilder.SetSubmitQueue(VK_NULL_HANDLE);
    // What the frame that ends here recorded, for the run report.
    ZOVK_VRS_TRACE(debugLog, "Star Rail VRS present %llu: sceneId %d, level %d, vrsFlags 0x%x",
                   static_cast<unsigned long long>(state.frameCounter), sceneId, level, state.vrsFlags);
    if (state.frameCounter % kReportEvery == 0) {
        const uint32_t flags = state.vrsFlags;
        const uint32_t rates = kMainRateSet | kLightRateSet | kFullRateDrawSwitched;
        ZOVK_LOG(DEBUG, ZOVK_LOG_TAG, "VVflag, p1: %d, s: %d, l: %d", (flags & rates) == rates ? 1 : 0,
                 static_cast<int>(flags), level);
    }
    ClearFlags(state, kFrameBits);
}

}  // namespace vulkan::zovk::app::module
