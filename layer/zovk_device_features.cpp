#include "layer/zovk_device_features.h"

#include <cstring>

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

bool ChainHas(const void* next, VkStructureType type) {
    for (auto* s = static_cast<const VkBaseInStructure*>(next); s != nullptr; s = s->pNext) {
        if (s->sType == type) {
            return true;
        }
    }
    return false;
}

}  // namespace

bool ChainShadingRateFeatures(const ZoVkInstanceInfo& instance, VkPhysicalDevice physicalDevice,
                              const std::vector<const char*>& extensions, VkDeviceCreateInfo& createInfo,
                              VkPhysicalDeviceFragmentShadingRateFeaturesKHR& storage) {
    constexpr VkStructureType kType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FRAGMENT_SHADING_RATE_FEATURES_KHR;
    if (!Names(extensions, VK_KHR_FRAGMENT_SHADING_RATE_EXTENSION_NAME)) {
        return false;
    }
    // The application's own choice stands: its structure is const and may already say what it needs.
    if (ChainHas(createInfo.pNext, kType)) {
        ZOVK_LOGD("the application chains its own fragment shading rate features");
        return false;
    }
    PFN_vkGetPhysicalDeviceFeatures2 features2 = instance.functions.vkGetPhysicalDeviceFeatures2;
    if (features2 == nullptr) {
        features2 = instance.functions.vkGetPhysicalDeviceFeatures2KHR;
    }
    if (features2 == nullptr) {
        ZOVK_LOGW("no vkGetPhysicalDeviceFeatures2: fragment shading rate features left off");
        return false;
    }
    VkPhysicalDeviceFragmentShadingRateFeaturesKHR supported{};
    supported.sType = kType;
    VkPhysicalDeviceFeatures2 query{};
    query.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FEATURES_2;
    query.pNext = &supported;
    features2(physicalDevice, &query);
    if (!supported.pipelineFragmentShadingRate && !supported.attachmentFragmentShadingRate) {
        ZOVK_LOGW("the device supports no pipeline or attachment fragment shading rate");
        return false;
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
