#pragma once

#include <vector>

#include <vulkan/vulkan_core.h>

#include "layer/zovk_records.h"

namespace vulkan::zovk {

// Whether a device created with `createInfo` has the fragment shading rate features the modules
// use: VK_KHR_fragment_shading_rate in `extensions` is not enough, its features must be on too.
// The layer switches on the pipeline and attachment rates the physical device supports by
// filling `storage` and linking it in front of createInfo's pNext chain (`storage` must outlive
// the creation call). Vulkan allows neither beside a fragment density map or an NV shading-rate
// image (VUID-VkDeviceCreateInfo-fragmentDensityMap-04481, -shadingRateImage-04478), and a
// structure of the application's own stands (its chain is const): then the answer is no, unless
// that structure already switches on every rate the device supports. A no says why in one warning.
bool ChainShadingRateFeatures(const ZoVkInstanceInfo& instance, VkPhysicalDevice physicalDevice,
                              const std::vector<const char*>& extensions, VkDeviceCreateInfo& createInfo,
                              VkPhysicalDeviceFragmentShadingRateFeaturesKHR& storage);

}  // namespace vulkan::zovk
