// What the presets report must be a set of values a real implementation of the extension could report.
#include <gtest/gtest.h>

#include <string>

#include "fsr_presets.h"

namespace fsr {
namespace {

constexpr VkSampleCountFlags kLavapipeCounts = VK_SAMPLE_COUNT_1_BIT | VK_SAMPLE_COUNT_4_BIT;

std::string Describe(const std::vector<VkPhysicalDeviceFragmentShadingRateKHR>& rates) {
    std::string s;
    for (const auto& r : rates) {
        s += std::to_string(r.fragmentSize.width) + "x" + std::to_string(r.fragmentSize.height) + ":" +
             std::to_string(r.sampleCounts) + " ";
    }
    return s;
}

// The exact values per preset are the emulation probe's to check (tests/integration/emulation.py):
// these are the rules any preset must follow.
class EveryPreset : public ::testing::TestWithParam<const char*> {};

TEST_P(EveryPreset, RatesFollowTheOrderAndLimits) {
    const Preset& preset = *FindPreset(GetParam());
    VkPhysicalDeviceFragmentShadingRatePropertiesKHR props = {};
    FillProperties(preset, kLavapipeCounts, &props);
    const auto rates = Rates(preset, kLavapipeCounts);
    ASSERT_GE(rates.size(), 4u) << Describe(rates);

    for (size_t i = 1; i < rates.size(); ++i) {
        const VkExtent2D a = rates[i - 1].fragmentSize, b = rates[i].fragmentSize;
        EXPECT_TRUE(a.width > b.width || (a.width == b.width && a.height > b.height)) << Describe(rates);
    }
    EXPECT_EQ(Describe({rates.back()}), "1x1:" + std::to_string(~0u) + " ");
    // Every implementation offers 2x2, 2x1 and 1x2 at each sample count up to 4.
    std::string must;
    for (const auto& r : rates) {
        const uint32_t w = r.fragmentSize.width, h = r.fragmentSize.height;
        EXPECT_TRUE(w <= props.maxFragmentSize.width && h <= props.maxFragmentSize.height && (w & (w - 1)) == 0 &&
                    (h & (h - 1)) == 0 && std::max(w / h, h / w) <= props.maxFragmentSizeAspectRatio &&
                    r.sType == VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FRAGMENT_SHADING_RATE_KHR)
            << Describe({r});
        const bool both = (r.sampleCounts & kLavapipeCounts) == kLavapipeCounts;
        if (w * h > 1 && w <= 2 && h <= 2 && both) must += Describe({r});
        if (w == 1 && h == 1) continue;
        ASSERT_NE(r.sampleCounts, 0u);
        EXPECT_EQ(r.sampleCounts & ~kLavapipeCounts, 0u);
        uint32_t highest = 1;
        while ((highest << 1) <= r.sampleCounts) highest <<= 1;
        EXPECT_LE(highest, uint32_t(props.maxFragmentShadingRateRasterizationSamples));
        EXPECT_LE(w * h * highest, props.maxFragmentShadingRateCoverageSamples);
    }
    EXPECT_EQ(must, "2x2:5 2x1:5 1x2:5 ") << Describe(rates);
}

INSTANTIATE_TEST_SUITE_P(Fsr, EveryPreset, ::testing::Values("16x16-4x4", "8x8-2x2", "8x8-4x4"));

}  // namespace
}  // namespace fsr
