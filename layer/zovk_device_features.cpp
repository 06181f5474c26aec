#include "layer/zovk_device_features.h"

#include <cstring>

#include "layer/zovk_chain.h"
#include "settings/zovk_log.h"

namespace vulkan::zovk {

namespace {

bool Names(const std::vector<const char*>& extensions, const char* name) {
    for (const char* extension : extensions) {
        if (extension != nullptr && std::strcmp(extension, name) == 0) {
            return true;
        }
    }
    return false;
}

// What the application enables that Vulkan forbids beside fragment shading rates; null if nothing.
const char* Conflict(const void* chain) {
    const auto* densityMap = FindInChain<VkPhysicalDeviceFragmentDensityMapFeaturesEXT>(
        chain, VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FRAGMENT_DENSITY_MAP_FEATURES_EXT);
    if (densityMap != nullptr && densityMap->fragmentDensityMap) {
        return "fragmentDensityMap";
    }
    const auto* rateImage = FindInChain<VkPhysicalDeviceShadingRateImageFeaturesNV>(
        chain, VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_SHADING_RATE_IMAGE_FEATURES_NV);
    return rateImage != nullptr && rateImage->shadingRateImage ? "shadingRateImage" : nullptr;
}

}  // namespace

bool ChainShadingRateFeatures(const ZoVkInstanceInfo& instance, VkPhysicalDevice physicalDevice,
                              const std::vector<const char*>& extensions, VkDeviceCreateInfo& createInfo,
                              VkPhysicalDeviceFragmentShadingRateFeaturesKHR& storage) {
    constexpr VkStructureType kType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FRAGMENT_SHADING_RATE_FEATURES_KHR;
    if (!Names(extensions, VK_KHR_FRAGMENT_SHADING_RATE_EXTENSION_NAME)) {
        return false;
    }
    if (const char* conflict = Conflict(createInfo.pNext)) {
        ZOVK_LOGW("the application enables %s: no fragment shading rate, so no VRS, on this device", conflict);
        return false;
    }
    PFN_vkGetPhysicalDeviceFeatures2 features2 = instance.functions.vkGetPhysicalDeviceFeatures2;
    if (features2 == nullptr) {
        features2 = instance.functions.vkGetPhysicalDeviceFeatures2KHR;
    }
    if (features2 == nullptr) {
        ZOVK_LOGW("no vkGetPhysicalDeviceFeatures2: fragment shading rate features left off, no VRS on this device");
        return false;
    }
    VkPhysicalDeviceFragmentShadingRateFeaturesKHR supported{};
    supported.sType = kType;
    VkPhysicalDeviceFeatures2 query{};
    query.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FEATURES_2;
    query.pNext = &supported;
    features2(physicalDevice, &query);
    if (!supported.pipelineFragmentShadingRate && !supported.attachmentFragmentShadingRate) {
        ZOVK_LOGW("the device supports no pipeline or attachment fragment shading rate: no VRS on this device");
        return false;
    }
    if (const auto* own = FindInChain<VkPhysicalDeviceFragmentShadingRateFeaturesKHR>(createInfo.pNext, kType)) {
        if ((supported.pipelineFragmentShadingRate && !own->pipelineFragmentShadingRate) ||
            (supported.attachmentFragmentShadingRate && !own->attachmentFragmentShadingRate)) {
            ZOVK_LOGW("the application's own fragment shading rate features leave rates off (pipeline %u, "
                      "attachment %u): no VRS on this device",
                      own->pipelineFragmentShadingRate, own->attachmentFragmentShadingRate);
            return false;
        }
        ZOVK_LOGD("the application chains its own fragment shading rate features");
        return true;
    }
    storage = {};
    storage.sType = kType;
    storage.pipelineFragmentShadingRate = supported.pipelineFragmentShadingRate;
    storage.attachmentFragmentShadingRate = supported.attachmentFragmentShadingRate;
    storage.pNext = const_cast<void*>(createInfo.pNext);
    createInfo.pNext = &storage;
    ZOVK_LOGD("fragment shading rate features enabled: pipeline %u, attachment %u", storage.pipelineFragmentShadingRate,
              storage.attachmentFragmentShadingRate);
    return true;
}

}  // namespace vulkan::zovk
