#pragma once

#include <vector>

#include <vulkan/vulkan_core.h>

#include "layer/zovk_records.h"

namespace vulkan::zovk {

// Adding VK_KHR_fragment_shading_rate to a device is not enough for the modules' shading-rate
// attachments and rate commands: the extension's features must be switched on as well. When
// the device's final extension list names the extension and the application chained no
// features structure of its own, `storage` is filled with the pipeline and attachment rates
// the physical device supports and linked in front of createInfo's pNext chain. `storage` must
// outlive the device creation call. Returns whether it was linked.
bool ChainShadingRateFeatures(const ZoVkInstanceInfo& instance, VkPhysicalDevice physicalDevice,
                              const std::vector<const char*>& extensions, VkDeviceCreateInfo& createInfo,
                              VkPhysicalDeviceFragmentShadingRateFeaturesKHR& storage);

}  // namespace vulkan::zovk
