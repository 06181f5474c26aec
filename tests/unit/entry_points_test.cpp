// The exported entry points: the enumeration answers and both address resolvers, with
// their order, null-handle rules and gating by the hook-enable flags.
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "layer/zovk_entry.h"
#include "settings/zovk_settings.h"
#include "tests/support/fake_next_layer.h"
#include "tests/support/test_processor.h"

namespace zovk_test {
namespace {

using vulkan::zovk::ZoVkSettings;

template <typename F>
PFN_vkVoidFunction Fn(F* fn) {
    return reinterpret_cast<PFN_vkVoidFunction>(fn);
}

ZoVkSettings* Settings() {
    return ZoVkSettings::GetInstance();
}

// --- layer properties ---------------------------------------------------------------

using LayerQuery = VkResult (*)(uint32_t*, VkLayerProperties*);

class LayerPropertiesTest : public ::testing::TestWithParam<LayerQuery> {};

TEST_P(LayerPropertiesTest, CountRules) {
    const LayerQuery query = GetParam();
    EXPECT_EQ(query(nullptr, nullptr), VK_INCOMPLETE);

    uint32_t count = 9;
    EXPECT_EQ(query(&count, nullptr), VK_SUCCESS);
    EXPECT_EQ(count, 1u);

    VkLayerProperties properties[3];
    std::memset(properties, 0xab, sizeof(properties));
    VkLayerProperties untouched;
    std::memset(&untouched, 0xab, sizeof(untouched));

    count = 0;
    EXPECT_EQ(query(&count, properties), VK_INCOMPLETE);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(std::memcmp(&properties[0], &untouched, sizeof(untouched)), 0);

    // One record copied whole; the caller's count is deliberately not lowered.
    count = 3;
    EXPECT_EQ(query(&count, properties), VK_SUCCESS);
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(std::memcmp(&properties[0], &kZoVkLayerProperties, sizeof(VkLayerProperties)), 0);
    EXPECT_EQ(std::memcmp(&properties[1], &untouched, sizeof(untouched)), 0);
}

INSTANTIATE_TEST_SUITE_P(
    AllThreeExports, LayerPropertiesTest,
    ::testing::Values(LayerQuery(ZoVkEnumerateInstanceLayerProperties),
                      +[](uint32_t* c, VkLayerProperties* p) { return ZoVkEnumerateDeviceLayerProperties({}, c, p); },
                      +[](uint32_t* c, VkLayerProperties* p) { return ZoVkGetDeviceLayerProperties({}, c, p); }));

TEST(Stub, TheRecordAndImplNameTheLayerTheSettingsKnow) {
    const std::string name = kZoVkLayerProperties.layerName;
    EXPECT_EQ(name, Settings()->GetLayerName());
    EXPECT_EQ(name.size(), 21u);
    EXPECT_EQ(name.find_first_not_of("abcdefghijklmnopqrstuvwxyz"), std::string::npos) << name;
    EXPECT_EQ(kZoVkLayerProperties.specVersion, 0x00400000u);
    EXPECT_EQ(kZoVkLayerProperties.implementationVersion, 0x00421000u);
    EXPECT_STREQ(kZoVkLayerProperties.description, "torvi");

    EXPECT_EQ(createInstance(), static_cast<void*>(&impl));
    vulkan::IZoVkStub* stub = &impl;
    EXPECT_EQ(stub->getLayerName(), name);
    EXPECT_FALSE(stub->isDebuggable());
    // Bit 0 alone decides, whatever the others say.
    Settings()->SetHookFlags(vulkan::zovk::kHookModulesConfigured | vulkan::zovk::kHookExtensionsReady);
    EXPECT_FALSE(stub->isEnabled());
    Settings()->SetHookFlags(vulkan::zovk::kHookConfigAccepted);
    EXPECT_TRUE(stub->isEnabled());
}

// --- extension queries ----------------------------------------------------------------

TEST(InstanceExtensionQuery, AnswersOnlyForThisLayerAndListsNothing) {
    uint32_t count = 5;
    EXPECT_EQ(ZoVkEnumerateInstanceExtensionProperties(nullptr, &count, nullptr), VK_ERROR_LAYER_NOT_PRESENT);
    EXPECT_EQ(ZoVkEnumerateInstanceExtensionProperties("VK_LAYER_other", &count, nullptr),
              VK_ERROR_LAYER_NOT_PRESENT);
    EXPECT_EQ(count, 5u);

    VkExtensionProperties property{};
    property.specVersion = 42;
    const char* own = Settings()->GetLayerName().c_str();
    EXPECT_EQ(ZoVkEnumerateInstanceExtensionProperties(own, &count, &property), VK_SUCCESS);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(property.specVersion, 42u);
    EXPECT_EQ(ZoVkEnumerateInstanceExtensionProperties(own, nullptr, nullptr), VK_SUCCESS);
}

class EntryPointTest : public ::testing::Test {
protected:
    // An instance recorded unhooked (no flags set): everything passes through.
    VkInstance CreatePassThroughInstance() {
        InstanceCreate create;
        VkInstance instance = VK_NULL_HANDLE;
        EXPECT_EQ(ZoVkCreateInstance(&create.info, nullptr, &instance), VK_SUCCESS);
        EXPECT_EQ(instance, fake.Instance());
        return instance;
    }

    FakeNextLayer fake;
};

TEST_F(EntryPointTest, DeviceExtensionQueryWithoutAnInstanceRecord) {
    const char* own = Settings()->GetLayerName().c_str();
    uint32_t count = 7;
    EXPECT_EQ(ZoVkEnumerateDeviceExtensionProperties(VK_NULL_HANDLE, own, &count, nullptr), VK_SUCCESS);
    EXPECT_EQ(count, 0u);

    count = 7;
    EXPECT_EQ(ZoVkEnumerateDeviceExtensionProperties(VK_NULL_HANDLE, "VK_LAYER_other", &count, nullptr),
              VK_SUCCESS);
    EXPECT_EQ(count, 7u);
    EXPECT_EQ(ZoVkEnumerateDeviceExtensionProperties(VK_NULL_HANDLE, nullptr, &count, nullptr), VK_SUCCESS);
    EXPECT_EQ(count, 7u);

    // A physical device of an instance the layer never saw: an empty list.
    EXPECT_EQ(ZoVkEnumerateDeviceExtensionProperties(fake.PhysicalDevice(), nullptr, &count, nullptr), VK_SUCCESS);
    EXPECT_EQ(count, 0u);
    EXPECT_TRUE(fake.events.empty());
}

TEST_F(EntryPointTest, DeviceExtensionQueryPassesTheNextLayersAnswerThrough) {
    fake.deviceExtensions = {"VK_KHR_swapchain", "VK_KHR_fragment_shading_rate"};
    CreatePassThroughInstance();

    uint32_t count = 0;
    EXPECT_EQ(ZoVkEnumerateDeviceExtensionProperties(fake.PhysicalDevice(), nullptr, &count, nullptr), VK_SUCCESS);
    EXPECT_EQ(count, 2u);

    // The next layer's VK_INCOMPLETE and its lowered count come back unchanged.
    VkExtensionProperties properties[2] = {};
    count = 1;
    EXPECT_EQ(ZoVkEnumerateDeviceExtensionProperties(fake.PhysicalDevice(), "VK_LAYER_other", &count, properties),
              VK_INCOMPLETE);
    EXPECT_EQ(count, 1u);
    EXPECT_STREQ(properties[0].extensionName, "VK_KHR_swapchain");
    EXPECT_EQ(fake.Calls("vkEnumerateDeviceExtensionProperties"), 2);
}

// --- address resolution ---------------------------------------------------------------

TEST_F(EntryPointTest, ResolversWithoutAHandle) {
    EXPECT_EQ(ZoVkGetInstanceProcAddr(VK_NULL_HANDLE, "vkGetInstanceProcAddr"), Fn(ZoVkGetInstanceProcAddr));
    EXPECT_EQ(ZoVkGetInstanceProcAddr(VK_NULL_HANDLE, "vkEnumerateInstanceExtensionProperties"),
              Fn(ZoVkEnumerateInstanceExtensionProperties));
    EXPECT_EQ(ZoVkGetInstanceProcAddr(VK_NULL_HANDLE, "vkEnumerateInstanceLayerProperties"),
              Fn(ZoVkEnumerateInstanceLayerProperties));
    EXPECT_EQ(ZoVkGetInstanceProcAddr(VK_NULL_HANDLE, "vkCreateInstance"), Fn(ZoVkCreateInstance));
    for (const char* name : {"vkDestroyInstance", "vkCreateDevice", "vkGetDeviceProcAddr", "vkDestroyDevice",
                             "vkEnumerateDeviceExtensionProperties", "vkGetPhysicalDeviceFeatures2"}) {
        EXPECT_EQ(ZoVkGetInstanceProcAddr(VK_NULL_HANDLE, name), nullptr) << name;
    }
    EXPECT_EQ(ZoVkGetDeviceProcAddr(VK_NULL_HANDLE, "vkGetDeviceProcAddr"), Fn(ZoVkGetDeviceProcAddr));
    EXPECT_EQ(ZoVkGetDeviceProcAddr(VK_NULL_HANDLE, "vkCreateDevice"), Fn(ZoVkCreateDevice));
    EXPECT_EQ(ZoVkGetDeviceProcAddr(VK_NULL_HANDLE, "vkDestroyDevice"), Fn(ZoVkDestroyDevice));
    EXPECT_EQ(ZoVkGetDeviceProcAddr(VK_NULL_HANDLE, "vkCmdDraw"), nullptr);
    EXPECT_EQ(ZoVkGetDeviceProcAddr(VK_NULL_HANDLE, "vkDestroyInstance"), nullptr);
    EXPECT_TRUE(fake.events.empty());
}

TEST_F(EntryPointTest, GetInstanceProcAddrAnswersTheLifecycleItselfAndPassesTheRest) {
    const VkInstance instance = CreatePassThroughInstance();
    EXPECT_EQ(ZoVkGetInstanceProcAddr(instance, "vkDestroyInstance"), Fn(ZoVkDestroyInstance));
    EXPECT_EQ(ZoVkGetInstanceProcAddr(instance, "vkEnumerateDeviceLayerProperties"),
              Fn(ZoVkEnumerateDeviceLayerProperties));
    EXPECT_EQ(ZoVkGetInstanceProcAddr(instance, "vkEnumerateDeviceExtensionProperties"),
              Fn(ZoVkEnumerateDeviceExtensionProperties));
    EXPECT_EQ(ZoVkGetInstanceProcAddr(instance, "vkGetDeviceProcAddr"), Fn(ZoVkGetDeviceProcAddr));
    EXPECT_EQ(ZoVkGetInstanceProcAddr(instance, "vkCreateDevice"), Fn(ZoVkCreateDevice));
    EXPECT_EQ(ZoVkGetInstanceProcAddr(instance, "vkDestroyDevice"), Fn(ZoVkDestroyDevice));
    EXPECT_EQ(ZoVkGetInstanceProcAddr(instance, "vkGetPhysicalDeviceFeatures2"),
              fake.Function("vkGetPhysicalDeviceFeatures2"));

    // An instance the layer does not know resolves nothing beyond its own functions.
    int otherKey = 0;
    FakeObject stranger{&otherKey};
    const auto strangerInstance = reinterpret_cast<VkInstance>(&stranger);
    EXPECT_EQ(ZoVkGetInstanceProcAddr(strangerInstance, "vkGetPhysicalDeviceFeatures2"), nullptr);
    EXPECT_EQ(ZoVkGetInstanceProcAddr(strangerInstance, "vkCreateDevice"), Fn(ZoVkCreateDevice));
}

// A served instance and device whose processor hooks vkCmdDraw and an instance command.
class GatingTest : public EntryPointTest {
protected:
    void SetUp() override {
        ServeWithTestProcessor();
        InstanceCreate instanceCreate;
        ASSERT_EQ(ZoVkCreateInstance(&instanceCreate.info, nullptr, &instance), VK_SUCCESS);
        DeviceCreate deviceCreate;
        ASSERT_EQ(ZoVkCreateDevice(fake.PhysicalDevice(), &deviceCreate.info, nullptr, &device), VK_SUCCESS);
        // Creation set bits 1 and 2; bit 0 comes from the remote configuration.
        ASSERT_EQ(Settings()->GetHookFlags(),
                  vulkan::zovk::kHookModulesConfigured | vulkan::zovk::kHookExtensionsReady);
    }

    VkInstance instance = VK_NULL_HANDLE;
    VkDevice device = VK_NULL_HANDLE;
};

TEST_F(GatingTest, HooksComeBackOnlyWithAllThreeLowBitsSet) {
    for (uint32_t bits = 0; bits < 8; ++bits) {
        Settings()->ClearHookFlags(vulkan::zovk::kHookAll);
        Settings()->SetHookFlags(bits | 0x100u);  // higher bits play no part
        const bool hooked = bits == vulkan::zovk::kHookAll;
        SCOPED_TRACE(bits);
        EXPECT_EQ(ZoVkGetDeviceProcAddr(device, "vkCmdDraw"), hooked ? Fn(DrawHook) : fake.Function("vkCmdDraw"));
        EXPECT_EQ(ZoVkGetInstanceProcAddr(instance, TestProcessor::kInstanceHookName),
                  hooked ? Fn(InstanceHook) : fake.Function(TestProcessor::kInstanceHookName));
        // Unhooked names and the layer's own functions do not depend on the flags.
        EXPECT_EQ(ZoVkGetDeviceProcAddr(device, "vkCmdDispatch"), fake.Function("vkCmdDispatch"));
        EXPECT_EQ(ZoVkGetDeviceProcAddr(device, "vkDestroyDevice"), Fn(ZoVkDestroyDevice));
        EXPECT_EQ(ZoVkGetInstanceProcAddr(instance, "vkDestroyInstance"), Fn(ZoVkDestroyInstance));
    }
}

TEST_F(GatingTest, ACommandBufferFindsItsDevicesHooks) {
    Settings()->SetHookFlags(vulkan::zovk::kHookAll);
    EXPECT_EQ(ZoVkGetDeviceProcAddr(reinterpret_cast<VkDevice>(fake.CommandBuffer()), "vkCmdDraw"), Fn(DrawHook));
}

}  // namespace
}  // namespace zovk_test
