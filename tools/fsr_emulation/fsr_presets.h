// What the emulated device reports for VK_KHR_fragment_shading_rate, by preset.
#pragma once

#include <vulkan/vulkan.h>

#include <string>
#include <vector>

namespace fsr {

struct Preset {
    const char* name;
    VkExtent2D texelSize;        // minimum and maximum shading-rate attachment texel size
    VkExtent2D maxFragmentSize;
};

// The preset named by `name` (ZOVK_FSR_PRESET); null or empty selects the default, an unknown name gives null.
const Preset* FindPreset(const char* name);
// Names of all presets, blank-separated, for messages.
std::string PresetNames();

// Fills the properties structure (its sType and pNext are kept). `sampleCounts` are the sample
// counts the device supports for framebuffers.
void FillProperties(const Preset& preset, VkSampleCountFlags sampleCounts,
                    VkPhysicalDeviceFragmentShadingRatePropertiesKHR* props);

// The rates in the order the extension requires: width descending, then height descending.
std::vector<VkPhysicalDeviceFragmentShadingRateKHR> Rates(const Preset& preset, VkSampleCountFlags sampleCounts);

}  // namespace fsr
