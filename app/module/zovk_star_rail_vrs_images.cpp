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

void ZoVkStarRailVRSModule::UploadTemplate(ShadingRateImageInfo& image, const TemplateBuffer& buffer) {
    if (image.image == VK_NULL_HANDLE) {
        return;
    }
    ZoVkFixedVRSRenderpass& builder = *renderpassBuilder;
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

void ZoVkStarRailVRSModule::DestroyTemplateBuffers(std::vector<TemplateBuffer>& buffers) {
    const ZoVkDeviceInfo* record = processor_->GetDeviceInfo();
    for (const TemplateBuffer& t : buffers) {
        if (t.buffer != VK_NULL_HANDLE) record->functions.vkDestroyBuffer(record->device, t.buffer, nullptr);
        if (t.memory != VK_NULL_HANDLE) record->functions.vkFreeMemory(record->device, t.memory, nullptr);
    }
    buffers.clear();
}

bool ZoVkStarRailVRSModule::initShadingRateImages() {
    const size_t count = moduleData->resolutions.size();
    for (std::vector<ShadingRateImageInfo>* images : {&mainPass.images, &lightPass.images}) {
        for (size_t i = count; i < images->size(); ++i) {
            renderpassBuilder->destroyShadingRateImage((*images)[i]);
        }
        images->resize(count);
    }
    for (size_t i = count; i < templateBuffers.size(); ++i) {
        DestroyTemplateBuffers(templateBuffers[i]);
    }
    templateBuffers.resize(count);
    for (size_t i = 0; i < count; ++i) {
        const MyVkExtent2D size = shadingRateImageSize(moduleData->resolutions[i], texelSize);
        if (size.width == 0 || size.height == 0) {
            ZOVK_LOGE("Star Rail VRS: resolution %ux%u is smaller than one %ux%u texel: no shading-rate images",
                      moduleData->resolutions[i].width, moduleData->resolutions[i].height, texelSize.width,
                      texelSize.height);
            return false;
        }
        for (ShadingRateImageInfo* image : {&mainPass.images[i], &lightPass.images[i]}) {
            const char* pass = image == &mainPass.images[i] ? "main" : "light";
            image->width = size.width;
            image->height = size.height;
            if (image->image == VK_NULL_HANDLE) {
                image->image = renderpassBuilder->createImage(
                    size.width, size.height, VK_FORMAT_R8_UINT, VK_IMAGE_TILING_OPTIMAL,
                    VK_IMAGE_USAGE_TRANSFER_DST_BIT | VK_IMAGE_USAGE_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR,
                    VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT, image->memory);
                image->layout = VK_IMAGE_LAYOUT_UNDEFINED;
                ZOVK_LOGD("Star Rail VRS: %s pass shading-rate image %llu, %ux%u (%u bytes), for %ux%u", pass,
                          HandleNumber(image->image), size.width, size.height, size.width * size.height,
                          moduleData->resolutions[i].width, moduleData->resolutions[i].height);
            }
        }
        if (!initShadingRateImageTemplates(static_cast<int32_t>(i), size.width, size.height)) {
            return false;
        }
        if (templateBuffers[i].size() < 3) {
            ZOVK_LOGW("Star Rail VRS: %zu template buffers for resolution %zu, 3 needed", templateBuffers[i].size(),
                      i);
            return false;
        }
        UploadTemplate(mainPass.images[i], templateBuffers[i][0]);
        UploadTemplate(lightPass.images[i], templateBuffers[i][2]);
    }
    return true;
}

bool ZoVkStarRailVRSModule::initShadingRateImageTemplates(int32_t resolutionIndex, uint32_t width, uint32_t height) {
    if (resolutionIndex < 0 || static_cast<size_t>(resolutionIndex) >= templateBuffers.size()) {
        return false;
    }
    const ZoVkDeviceInfo* record = processor_->GetDeviceInfo();
    std::vector<TemplateBuffer>& buffers = templateBuffers[resolutionIndex];
    // A retry makes the buffers again; the earlier ones go first.
    DestroyTemplateBuffers(buffers);
    int32_t levels = std::max(moduleData->templateLevelCount, 0);
    if (levels > kMaxTemplateLevels) {
        ZOVK_LOGW("Star Rail VRS: %d template levels configured, %d made", levels, kMaxTemplateLevels);
        levels = kMaxTemplateLevels;
    }
    buffers.assign(2 * static_cast<size_t>(levels), TemplateBuffer());
    const VkDeviceSize bytes = VkDeviceSize{width} * height;
    for (size_t k = 0; k < buffers.size(); ++k) {
        TemplateBuffer& t = buffers[k];
        t.buffer = renderpassBuilder->createBuffer(bytes, VK_BUFFER_USAGE_TRANSFER_SRC_BIT,
                                                   VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT |
                                                       VK_MEMORY_PROPERTY_HOST_COHERENT_BIT,
                                                   t.memory);
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

ZoVkPassed<VkResult> ZoVkStarRailVRSModule::PreVkQueuePresentKHR(
    VkQueue queue, const VkPresentInfoKHR* pPresentInfo,
    ZoVkNext<&VkDeviceFunctionTable::vkQueuePresentKHR> next) {
    ++frameCounter;
    const android::ZoVkAppInfoMonitor* monitor = android::ZoVkAppInfoMonitor::GetInstance();
    const int sceneId = monitor->GetSceneId();
    if (sceneId == kSceneGateId || sceneId > kSceneGateAbove) {
        SetFlags(kSceneOn);
    } else {
        ClearFlags(kSceneOn);
    }
    const int level = monitor->getVrsLevel();
    const uint32_t ready = kTexelSizeKnown | kImagesReady;
    if (level < 1) {
        ClearFlags(kLevelOn);
    } else if ((Flags() & ready) != ready || (level == templevel_ && appliedResIndex == curMainResIndex_)) {
        SetFlags(kLevelOn);
    } else {
        templevel_ = level;
        appliedResIndex = curMainResIndex_;
        if (level <= 2 && curMainResIndex_ >= 0 && static_cast<size_t>(curMainResIndex_) < mainPass.images.size() &&
            static_cast<size_t>(level + 1) < templateBuffers[curMainResIndex_].size()) {
            ZOVK_VRS_TRACE(debugLog, "PreVkQueuePresentKHR, updateImageDataFromBuffer, curMainResIndex_: %d, templevel_: %d",
                           curMainResIndex_, templevel_);
            // Both images have the same size; the main image's is used for both copies.
            ShadingRateImageInfo& main = mainPass.images[curMainResIndex_];
            ShadingRateImageInfo& light = lightPass.images[curMainResIndex_];
            const std::vector<TemplateBuffer>& buffers = templateBuffers[curMainResIndex_];
            const auto start = std::chrono::steady_clock::now();
            renderpassBuilder->updateImageDataFromBuffer(main.image, main.width, main.height,
                                                         buffers[level - 1].buffer);
            renderpassBuilder->updateImageDataFromBuffer(light.image, main.width, main.height,
                                                         buffers[level + 1].buffer);
            // Each upload waits for the queue: what that costs this present.
            ZOVK_VRS_TRACE(debugLog, "Star Rail VRS: level %d uploaded in %lld us", level,
                           static_cast<long long>(std::chrono::duration_cast<std::chrono::microseconds>(
                                                      std::chrono::steady_clock::now() - start)
                                                      .count()));
        }
        SetFlags(kLevelOn);
    }
    // What the frame that ends here recorded, for the run report.
    ZOVK_VRS_TRACE(debugLog, "Star Rail VRS present %llu: sceneId %d, level %d, vrsFlags 0x%x",
                   static_cast<unsigned long long>(frameCounter), sceneId, level, Flags());
    if (frameCounter % kReportEvery == 0) {
        const uint32_t flags = Flags();
        const uint32_t rates = kMainRateSet | kLightRateSet | kFullRateDrawSwitched;
        ZOVK_LOG(DEBUG, ZOVK_LOG_TAG, "VVflag, p1: %d, s: %d, l: %d",
                 (flags & rates) == rates ? 1 : 0, static_cast<int>(flags), level);
    }
    ClearFlags(kFrameBits);
    return next(queue, pPresentInfo);
}

}  // namespace vulkan::zovk::app::module
