// What device creation enables beside the application's choices where Vulkan ties them to
// others: the fragment shading rate features (never beside a fragment density map or an NV
// shading-rate image, nor against the application's own structure), and VK_KHR_swapchain only
// on an instance with VK_KHR_surface.
#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "layer/zovk_context_manager.h"
#include "layer/zovk_device_features.h"
#include "layer/zovk_entry.h"
#include "tests/support/fake_next_layer.h"
#include "tests/support/test_processor.h"

namespace zovk_test {
namespace {

using vulkan::zovk::ChainShadingRateFeatures;
using vulkan::zovk::GetDispatchKey;
using vulkan::zovk::ZoVkContextManager;
using vulkan::zovk::ZoVkInstanceInfo;
using Names = std::vector<std::string>;

constexpr const char* kRate = VK_KHR_FRAGMENT_SHADING_RATE_EXTENSION_NAME;
constexpr VkStructureType kRateType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FRAGMENT_SHADING_RATE_FEATURES_KHR;

// The rates the physical device supports.
VkBool32 gPipeline = VK_TRUE;
VkBool32 gAttachment = VK_TRUE;
void VKAPI_CALL Features2(VkPhysicalDevice, VkPhysicalDeviceFeatures2* f) {
    auto* rate = static_cast<VkPhysicalDeviceFragmentShadingRateFeaturesKHR*>(f->pNext);
    rate->pipelineFragmentShadingRate = gPipeline;
    rate->primitiveFragmentShadingRate = VK_TRUE;
    rate->attachmentFragmentShadingRate = gAttachment;
}

// The log lines of `body`.
template <typename F>
std::string Logged(F body) {
    testing::internal::CaptureStderr();
    body();
    return testing::internal::GetCapturedStderr();
}

TEST(ShadingRateFeatures, OnlyWhereVulkanAllowsThemBesideWhatTheApplicationEnabled) {
    VkPhysicalDeviceVulkan11Features other{};
    other.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_VULKAN_1_1_FEATURES;
    const VkPhysicalDeviceFragmentDensityMapFeaturesEXT densityMap{
        VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FRAGMENT_DENSITY_MAP_FEATURES_EXT, &other, VK_TRUE, VK_FALSE, VK_FALSE};
    const VkPhysicalDeviceFragmentDensityMapFeaturesEXT densityMapOff{
        VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FRAGMENT_DENSITY_MAP_FEATURES_EXT, &other, VK_FALSE, VK_TRUE, VK_TRUE};
    const VkPhysicalDeviceShadingRateImageFeaturesNV rateImage{
        VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_SHADING_RATE_IMAGE_FEATURES_NV, &other, VK_TRUE, VK_FALSE};
    const VkPhysicalDeviceFragmentShadingRateFeaturesKHR own{kRateType, &other, VK_TRUE, VK_FALSE, VK_TRUE};
    const VkPhysicalDeviceFragmentShadingRateFeaturesKHR ownWithoutAttachment{kRateType, &other, VK_TRUE, VK_FALSE,
                                                                              VK_FALSE};
    const struct {
        const char* name;
        bool extension;
        const void* chain;
        VkBool32 pipeline, attachment;  // supported
        bool usable;
        bool linked;          // the layer's structure, with what is supported, in front of the chain
        const char* warning;  // null: nothing logged
    } cases[] = {
        {"no extension", false, &other, VK_TRUE, VK_TRUE, false, false, nullptr},
        {"no attachment rate on the device", true, &other, VK_TRUE, VK_FALSE, true, true, nullptr},
        {"no rate on the device", true, &other, VK_FALSE, VK_FALSE, false, false, "supports no"},
        {"a fragment density map", true, &densityMap, VK_TRUE, VK_TRUE, false, false, "fragmentDensityMap"},
        {"its structure, the map off", true, &densityMapOff, VK_TRUE, VK_TRUE, true, true, nullptr},
        {"an NV shading-rate image", true, &rateImage, VK_TRUE, VK_TRUE, false, false, "shadingRateImage"},
        {"the application's own", true, &own, VK_TRUE, VK_TRUE, true, false, nullptr},
        {"the application's own, attachment off", true, &ownWithoutAttachment, VK_TRUE, VK_TRUE, false, false,
         "attachment 0"},
        {"the application's own, no attachment rate on the device", true, &ownWithoutAttachment, VK_TRUE, VK_FALSE,
         true, false, nullptr},
    };
    ZoVkInstanceInfo instance;
    instance.functions.vkGetPhysicalDeviceFeatures2 = Features2;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        gPipeline = c.pipeline;
        gAttachment = c.attachment;
        std::vector<const char*> extensions{"VK_KHR_swapchain"};
        if (c.extension) {
            extensions.push_back(kRate);
        }
        VkDeviceCreateInfo info{};
        info.sType = VK_STRUCTURE_TYPE_DEVICE_CREATE_INFO;
        info.pNext = c.chain;
        VkPhysicalDeviceFragmentShadingRateFeaturesKHR storage{};
        const std::string log = Logged(
            [&] { EXPECT_EQ(ChainShadingRateFeatures(instance, VK_NULL_HANDLE, extensions, info, storage), c.usable); });
        EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), c.warning != nullptr ? 1 : 0) << log;
        EXPECT_TRUE(c.warning == nullptr || log.find(c.warning) != std::string::npos) << log;
        EXPECT_EQ(info.pNext, c.linked ? static_cast<const void*>(&storage) : c.chain);
        if (c.linked) {
            EXPECT_EQ(std::make_tuple(storage.sType, storage.pNext, storage.pipelineFragmentShadingRate,
                                      storage.primitiveFragmentShadingRate, storage.attachmentFragmentShadingRate),
                      std::make_tuple(kRateType, const_cast<void*>(c.chain), c.pipeline, VkBool32{VK_FALSE},
                                      c.attachment))
                << "the modules never use primitive rates";
        }
    }
}

// Through creation: a device of an instance without VK_KHR_surface cannot have VK_KHR_swapchain,
// which the present hooks need, so it is passed through as the application made it; a served
// device's record says whether the modules may give it shading rates.
TEST(DeviceCreation, SwapchainOnlyBesideASurfaceAndTheRecordSaysWhetherRatesMayBeUsed) {
    FakeNextLayer fake;
    fake.deviceExtensions = {"VK_KHR_swapchain", kRate};
    ServeWithTestProcessor();
    gPipeline = gAttachment = VK_TRUE;
    VkPhysicalDeviceFragmentDensityMapFeaturesEXT densityMap{};
    densityMap.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FRAGMENT_DENSITY_MAP_FEATURES_EXT;
    densityMap.fragmentDensityMap = VK_TRUE;
    const struct {
        const char* name;
        std::vector<const char*> instanceExtensions;
        bool densityMap;
        bool served;
        bool shadingRateOff;
        const char* warning;
    } cases[] = {
        {"no surface", {}, false, false, false, "no VK_KHR_surface"},
        {"a surface", {"VK_KHR_surface"}, false, true, false, nullptr},
        {"a surface and a density map", {"VK_KHR_surface"}, true, true, true, "fragmentDensityMap"},
    };
    auto* manager = ZoVkContextManager::GetInstance();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        InstanceCreate instanceCreate(VK_API_VERSION_1_0, c.instanceExtensions);
        VkInstance instance = VK_NULL_HANDLE;
        ASSERT_EQ(ZoVkCreateInstance(&instanceCreate.info, nullptr, &instance), VK_SUCCESS);
        manager->GetInstanceInfoWithLock(GetDispatchKey(instance))->functions.vkGetPhysicalDeviceFeatures2 = Features2;
        DeviceCreate deviceCreate({kRate});
        if (c.densityMap) {
            densityMap.pNext = const_cast<void*>(deviceCreate.info.pNext);
            deviceCreate.info.pNext = &densityMap;
        }
        VkDevice device = VK_NULL_HANDLE;
        const std::string log = Logged([&] {
            ASSERT_EQ(ZoVkCreateDevice(fake.PhysicalDevice(), &deviceCreate.info, nullptr, &device), VK_SUCCESS);
        });
        EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), c.warning != nullptr ? 1 : 0) << log;
        EXPECT_TRUE(c.warning == nullptr || log.find(c.warning) != std::string::npos) << log;
        EXPECT_EQ(fake.seenDeviceCreateInfo == &deviceCreate.info, !c.served);
        EXPECT_EQ(fake.seenDeviceExtensions, c.served ? (Names{kRate, "VK_KHR_swapchain"}) : Names{kRate});
        const auto* record = manager->GetDeviceInfoWithLock(GetDispatchKey(device));
        ASSERT_NE(record, nullptr);
        EXPECT_EQ(record->processor != nullptr, c.served);
        EXPECT_EQ(record->shadingRateOff, c.shadingRateOff);
        ZoVkDestroyDevice(device, nullptr);
        ZoVkDestroyInstance(instance, nullptr);
    }
}

}  // namespace
}  // namespace zovk_test
