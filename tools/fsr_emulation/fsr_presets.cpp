#include "fsr_presets.h"

#include <algorithm>
#include <cstring>

namespace fsr {

namespace {

// The first is the default: what an NVIDIA H100 reports.
const Preset kPresets[] = {
    {"16x16-4x4", {16, 16}, {4, 4}},
    {"8x8-2x2", {8, 8}, {2, 2}},
    {"8x8-4x4", {8, 8}, {4, 4}},
};

// No preset allows fragments more than twice as long as they are wide.
constexpr uint32_t kMaxFragmentAspect = 2;
// Enough for a 2x2 fragment at 4 samples, which every implementation of the extension must offer.
constexpr uint32_t kCoverageSamples = 16;

VkSampleCountFlagBits HighestBit(VkSampleCountFlags counts) {
    VkSampleCountFlagBits highest = VK_SAMPLE_COUNT_1_BIT;
    for (uint32_t bit = VK_SAMPLE_COUNT_1_BIT; bit <= VK_SAMPLE_COUNT_64_BIT; bit <<= 1) {
        if (counts & bit) highest = static_cast<VkSampleCountFlagBits>(bit);
    }
    return highest;
}

uint32_t CoverageSamples(const Preset& preset, VkSampleCountFlags sampleCounts) {
    return std::min<uint32_t>(kCoverageSamples,
                              preset.maxFragmentSize.width * preset.maxFragmentSize.height * HighestBit(sampleCounts));
}

}  // namespace

const Preset* FindPreset(const char* name) {
    if (name == nullptr || *name == '\0') return &kPresets[0];
    for (const Preset& p : kPresets) {
        if (std::strcmp(p.name, name) == 0) return &p;
    }
    return nullptr;
}

std::string PresetNames() {
    std::string names;
    for (const Preset& p : kPresets) {
        if (!names.empty()) names += ' ';
        names += p.name;
    }
    return names;
}

void FillProperties(const Preset& preset, VkSampleCountFlags sampleCounts,
                    VkPhysicalDeviceFragmentShadingRatePropertiesKHR* props) {
    const VkExtent2D texel = preset.texelSize;
    props->minFragmentShadingRateAttachmentTexelSize = texel;
    props->maxFragmentShadingRateAttachmentTexelSize = texel;
    props->maxFragmentShadingRateAttachmentTexelSizeAspectRatio =
        std::max(texel.width, texel.height) / std::min(texel.width, texel.height);
    props->primitiveFragmentShadingRateWithMultipleViewports = VK_TRUE;
    props->layeredShadingRateAttachments = VK_TRUE;
    props->fragmentShadingRateNonTrivialCombinerOps = VK_TRUE;
    props->maxFragmentSize = preset.maxFragmentSize;
    props->maxFragmentSizeAspectRatio = kMaxFragmentAspect;
    props->maxFragmentShadingRateCoverageSamples = CoverageSamples(preset, sampleCounts);
    props->maxFragmentShadingRateRasterizationSamples = HighestBit(sampleCounts);
    props->fragmentShadingRateWithShaderDepthStencilWrites = VK_TRUE;
    props->fragmentShadingRateWithSampleMask = VK_TRUE;
    props->fragmentShadingRateWithShaderSampleMask = VK_TRUE;
    // lavapipe offers neither conservative rasterization, fragment shader interlock nor custom sample locations.
    props->fragmentShadingRateWithConservativeRasterization = VK_FALSE;
    props->fragmentShadingRateWithFragmentShaderInterlock = VK_FALSE;
    props->fragmentShadingRateWithCustomSampleLocations = VK_FALSE;
    props->fragmentShadingRateStrictMultiplyCombiner = VK_TRUE;
}

std::vector<VkPhysicalDeviceFragmentShadingRateKHR> Rates(const Preset& preset, VkSampleCountFlags sampleCounts) {
    const uint32_t coverage = CoverageSamples(preset, sampleCounts);
    const VkSampleCountFlagBits maxSamples = HighestBit(sampleCounts);
    std::vector<VkPhysicalDeviceFragmentShadingRateKHR> rates;
    for (uint32_t w = preset.maxFragmentSize.width; w >= 1; w /= 2) {
        for (uint32_t h = preset.maxFragmentSize.height; h >= 1; h /= 2) {
            if (w > h * kMaxFragmentAspect || h > w * kMaxFragmentAspect) continue;
            VkPhysicalDeviceFragmentShadingRateKHR rate = {};
            rate.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FRAGMENT_SHADING_RATE_KHR;
            rate.fragmentSize = {w, h};
            if (w == 1 && h == 1) {
                // 1x1 is the rate without any shading-rate state: every sample count goes.
                rate.sampleCounts = ~0u;
            } else {
                for (uint32_t s = VK_SAMPLE_COUNT_1_BIT; s <= maxSamples; s <<= 1) {
                    if ((sampleCounts & s) && w * h * s <= coverage) rate.sampleCounts |= s;
                }
            }
            if (rate.sampleCounts != 0) rates.push_back(rate);
        }
    }
    return rates;
}

}  // namespace fsr
