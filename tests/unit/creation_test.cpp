// Instance and device creation and destruction through the loader's link: the gates
// that decide whether a processor serves the object, what the next layer receives on
// either path, and the processor's calls around creation and destruction.
#include <pthread.h>

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "app/zovk_processor_data_base.h"
#include "layer/zovk_context_manager.h"
#include "layer/zovk_entry.h"
#include "settings/zovk_settings.h"
#include "tests/support/fake_next_layer.h"
#include "tests/support/test_processor.h"

namespace zovk_test {
namespace {

using vulkan::zovk::GetDispatchKey;
using vulkan::zovk::kHookExtensionsReady;
using vulkan::zovk::kHookModulesConfigured;
using vulkan::zovk::ZoVkContextManager;
using vulkan::zovk::ZoVkDeviceInfo;
using vulkan::zovk::ZoVkInstanceInfo;
using vulkan::zovk::ZoVkSettings;
using Names = std::vector<std::string>;

class CreationTest : public ::testing::Test {
protected:
    ZoVkInstanceInfo* InstanceRecord() {
        return ZoVkContextManager::GetInstance()->GetInstanceInfoWithLock(GetDispatchKey(fake.Instance()));
    }
    ZoVkDeviceInfo* DeviceRecord() {
        return ZoVkContextManager::GetInstance()->GetDeviceInfoWithLock(GetDispatchKey(fake.Device()));
    }
    bool ExtensionsReady() { return ZoVkSettings::GetInstance()->HasHookFlags(kHookExtensionsReady); }

    VkResult CreateInstance(InstanceCreate& create) {
        VkInstance instance = VK_NULL_HANDLE;
        return ZoVkCreateInstance(&create.info, nullptr, &instance);
    }
    VkResult CreateDevice(DeviceCreate& create) {
        VkDevice device = VK_NULL_HANDLE;
        return ZoVkCreateDevice(fake.PhysicalDevice(), &create.info, nullptr, &device);
    }

    FakeNextLayer fake;
};

// --- the loader link -------------------------------------------------------------------

TEST_F(CreationTest, WithoutALoaderLinkNothingIsCreated) {
    InstanceCreate instanceCreate;
    instanceCreate.info.pNext = nullptr;
    EXPECT_EQ(CreateInstance(instanceCreate), VK_ERROR_INITIALIZATION_FAILED);

    // An element of the right type that is not the link does not count either.
    InstanceCreate callbackOnly;
    callbackOnly.layerInfo.function = VK_LOADER_DATA_CALLBACK;
    EXPECT_EQ(CreateInstance(callbackOnly), VK_ERROR_INITIALIZATION_FAILED);

    DeviceCreate deviceCreate;
    deviceCreate.info.pNext = nullptr;
    EXPECT_EQ(CreateDevice(deviceCreate), VK_ERROR_INITIALIZATION_FAILED);

    EXPECT_TRUE(fake.events.empty());
    EXPECT_EQ(InstanceRecord(), nullptr);
}

// --- the unhooked paths ----------------------------------------------------------------

TEST_F(CreationTest, WithoutAConfiguredModuleObjectsPassThroughUnchanged) {
    ServeWithTestProcessor();
    ZoVkSettings::GetInstance()->ClearHookFlags(kHookModulesConfigured);
    InstanceCreate instanceCreate(VK_API_VERSION_1_0, {"VK_KHR_surface"});
    ASSERT_EQ(CreateInstance(instanceCreate), VK_SUCCESS);
    EXPECT_EQ(fake.seenInstanceCreateInfo, &instanceCreate.info);
    EXPECT_EQ(fake.seenLayerInfo, &instanceCreate.below);  // the link was advanced first
    EXPECT_EQ(fake.seenApiVersion, VK_API_VERSION_1_0);
    EXPECT_EQ(fake.seenInstanceExtensions, Names{"VK_KHR_surface"});

    ZoVkInstanceInfo* record = InstanceRecord();
    ASSERT_NE(record, nullptr);
    EXPECT_FALSE(record->hooked);
    EXPECT_FALSE(record->processor);
    EXPECT_EQ(record->apiVersion, 0x00402000u);
    EXPECT_EQ(TestProcessorStats::created, 0);

    DeviceCreate deviceCreate;
    ASSERT_EQ(CreateDevice(deviceCreate), VK_SUCCESS);
    EXPECT_EQ(fake.seenDeviceCreateInfo, &deviceCreate.info);
    EXPECT_EQ(fake.seenLayerInfo, &deviceCreate.below);
    ASSERT_NE(DeviceRecord(), nullptr);
    EXPECT_FALSE(DeviceRecord()->processor);
    EXPECT_EQ(fake.Calls("vkEnumerateInstanceExtensionProperties"), 0);
    EXPECT_EQ(fake.Calls("vkEnumerateDeviceExtensionProperties"), 0);
}

TEST_F(CreationTest, AFailedNextLayerCreateRecordsNothing) {
    fake.createInstanceResult = VK_ERROR_INCOMPATIBLE_DRIVER;
    InstanceCreate unhooked;
    EXPECT_EQ(CreateInstance(unhooked), VK_ERROR_INCOMPATIBLE_DRIVER);
    EXPECT_EQ(InstanceRecord(), nullptr);

    // On the served path the processor made for it is ended.
    ServeWithTestProcessor();
    InstanceCreate served;
    EXPECT_EQ(CreateInstance(served), VK_ERROR_INCOMPATIBLE_DRIVER);
    EXPECT_EQ(InstanceRecord(), nullptr);
    EXPECT_EQ(TestProcessorStats::created, 1);
    EXPECT_EQ(TestProcessorStats::onEnd, 1);
    EXPECT_EQ(TestProcessorStats::gotInstanceInfo, 0);

    // A success without a handle is not recorded either.
    fake.createInstanceResult = VK_SUCCESS;
    fake.instanceToCreate = nullptr;
    InstanceCreate nullHandle;
    EXPECT_EQ(CreateInstance(nullHandle), VK_SUCCESS);
    EXPECT_EQ(InstanceRecord(), nullptr);
    EXPECT_EQ(TestProcessorStats::onEnd, 2);

    // Nor a failed device; the processor hears nothing of it.
    fake.instanceToCreate = &fake.instance;
    InstanceCreate instanceCreate;
    ASSERT_EQ(CreateInstance(instanceCreate), VK_SUCCESS);
    fake.createDeviceResult = VK_ERROR_DEVICE_LOST;
    fake.events.clear();
    DeviceCreate deviceCreate;
    EXPECT_EQ(CreateDevice(deviceCreate), VK_ERROR_DEVICE_LOST);
    EXPECT_EQ(DeviceRecord(), nullptr);
    EXPECT_EQ(fake.CallLog(), (Names{"vkEnumerateDeviceExtensionProperties", "vkEnumerateDeviceExtensionProperties",
                                     "vkCreateDevice"}));
}

// --- the served path -------------------------------------------------------------------

TEST_F(CreationTest, AServedInstanceRunsAtLeastAtVersion12) {
    ServeWithTestProcessor();
    InstanceCreate create(VK_API_VERSION_1_0);
    ASSERT_EQ(CreateInstance(create), VK_SUCCESS);
    EXPECT_EQ(fake.seenApiVersion, 0x00402000u);
    EXPECT_NE(fake.seenInstanceCreateInfo, &create.info);
    EXPECT_EQ(create.application.apiVersion, VK_API_VERSION_1_0);  // the application's own is not written

    ZoVkInstanceInfo* record = InstanceRecord();
    ASSERT_NE(record, nullptr);
    EXPECT_TRUE(record->hooked);
    EXPECT_EQ(record->apiVersion, 0x00402000u);
    ASSERT_TRUE(record->processor);
    EXPECT_EQ(record->processor->GetInstanceInfo(), record);
    EXPECT_EQ(TestProcessorStats::gotInstanceInfo, 1);
    EXPECT_TRUE(ExtensionsReady());
    EXPECT_EQ(fake.CallLog(), (Names{"vkEnumerateInstanceExtensionProperties",
                                     "vkEnumerateInstanceExtensionProperties", "PreCreateInstance",
                                     "vkCreateInstance", "PostCreateInstance"}));
    // The layer's own needs are filled: the core function serves the extension name.
    EXPECT_EQ(reinterpret_cast<PFN_vkVoidFunction>(record->functions.vkGetPhysicalDeviceFeatures2KHR),
              fake.Function("vkGetPhysicalDeviceFeatures2"));
    EXPECT_NE(record->functions.vkGetPhysicalDeviceProperties2KHR, nullptr);

    // A higher request is kept.
    InstanceCreate create13(VK_API_VERSION_1_3);
    ASSERT_EQ(CreateInstance(create13), VK_SUCCESS);
    EXPECT_EQ(fake.seenApiVersion, VK_API_VERSION_1_3);
    EXPECT_EQ(record->apiVersion, VK_API_VERSION_1_3);
}

TEST_F(CreationTest, NeededExtensionsAreAddedOnce) {
    ServeWithTestProcessor();
    InstanceCreate bare;
    ASSERT_EQ(CreateInstance(bare), VK_SUCCESS);
    EXPECT_EQ(fake.seenInstanceExtensions, Names{"VK_KHR_get_physical_device_properties2"});
    EXPECT_EQ(bare.info.enabledExtensionCount, 0u);

    InstanceCreate enabled(VK_API_VERSION_1_0, {"VK_KHR_surface", "VK_KHR_get_physical_device_properties2"});
    ASSERT_EQ(CreateInstance(enabled), VK_SUCCESS);
    EXPECT_EQ(fake.seenInstanceExtensions, (Names{"VK_KHR_surface", "VK_KHR_get_physical_device_properties2"}));

    DeviceCreate bareDevice;
    ASSERT_EQ(CreateDevice(bareDevice), VK_SUCCESS);
    EXPECT_EQ(fake.seenDeviceExtensions, Names{"VK_KHR_swapchain"});
    DeviceCreate enabledDevice({"VK_KHR_swapchain"});
    ASSERT_EQ(CreateDevice(enabledDevice), VK_SUCCESS);
    EXPECT_EQ(fake.seenDeviceExtensions, Names{"VK_KHR_swapchain"});
}

TEST_F(CreationTest, ANeededInstanceExtensionNotOfferedLeavesTheInstanceUnhooked) {
    ServeWithTestProcessor();
    fake.instanceExtensions = {"VK_KHR_surface"};
    InstanceCreate create(VK_API_VERSION_1_0, {"VK_KHR_surface"});
    ASSERT_EQ(CreateInstance(create), VK_SUCCESS);
    EXPECT_FALSE(ExtensionsReady());
    EXPECT_EQ(fake.seenInstanceCreateInfo, &create.info);
    EXPECT_EQ(fake.seenApiVersion, VK_API_VERSION_1_0);
    EXPECT_EQ(fake.seenInstanceExtensions, Names{"VK_KHR_surface"});
    ASSERT_NE(InstanceRecord(), nullptr);
    EXPECT_FALSE(InstanceRecord()->hooked);
    EXPECT_EQ(TestProcessorStats::created, 0);
}

TEST_F(CreationTest, AServedDeviceSharesTheInstancesProcessor) {
    ServeWithTestProcessor();
    InstanceCreate instanceCreate;
    ASSERT_EQ(CreateInstance(instanceCreate), VK_SUCCESS);
    fake.events.clear();
    DeviceCreate deviceCreate;
    ASSERT_EQ(CreateDevice(deviceCreate), VK_SUCCESS);

    ZoVkDeviceInfo* record = DeviceRecord();
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->processor, InstanceRecord()->processor);
    EXPECT_EQ(record->processor->GetDeviceInfo(), record);
    EXPECT_EQ(TestProcessorStats::gotDeviceInfo, 1);
    EXPECT_EQ(reinterpret_cast<PFN_vkVoidFunction>(record->functions.vkQueuePresentKHR),
              fake.Function("vkQueuePresentKHR"));
    EXPECT_TRUE(ExtensionsReady());
    EXPECT_EQ(fake.CallLog(), (Names{"vkEnumerateDeviceExtensionProperties", "vkEnumerateDeviceExtensionProperties",
                                     "vkCreateDevice", "PostCreateDevice"}));
}

TEST_F(CreationTest, AMissingQueuePresentSwitchesInterceptionOff) {
    ServeWithTestProcessor();
    fake.nullNames = {"vkQueuePresentKHR"};
    InstanceCreate instanceCreate;
    ASSERT_EQ(CreateInstance(instanceCreate), VK_SUCCESS);
    ASSERT_TRUE(ExtensionsReady());
    DeviceCreate deviceCreate;
    ASSERT_EQ(CreateDevice(deviceCreate), VK_SUCCESS);
    EXPECT_FALSE(ExtensionsReady());

    // With bit 0 set as well, the hooked name now resolves to the next layer.
    ZoVkSettings::GetInstance()->SetHookFlags(vulkan::zovk::kHookConfigAccepted);
    EXPECT_EQ(ZoVkGetDeviceProcAddr(fake.Device(), "vkCmdDraw"), fake.Function("vkCmdDraw"));
}

TEST_F(CreationTest, ANeededDeviceExtensionNotOfferedLeavesTheDeviceUnhooked) {
    ServeWithTestProcessor();
    InstanceCreate instanceCreate;
    ASSERT_EQ(CreateInstance(instanceCreate), VK_SUCCESS);
    fake.deviceExtensions = {};
    DeviceCreate deviceCreate({"VK_KHR_maintenance1"});
    ASSERT_EQ(CreateDevice(deviceCreate), VK_SUCCESS);
    EXPECT_FALSE(ExtensionsReady());
    EXPECT_EQ(fake.seenDeviceCreateInfo, &deviceCreate.info);
    EXPECT_EQ(fake.seenDeviceExtensions, Names{"VK_KHR_maintenance1"});
    ASSERT_NE(DeviceRecord(), nullptr);
    EXPECT_FALSE(DeviceRecord()->processor);
    EXPECT_EQ(TestProcessorStats::gotDeviceInfo, 0);
}

TEST_F(CreationTest, AnInstanceFunctionTheNextLayerLacksKeepsLaterDevicesUnhooked) {
    ServeWithTestProcessor();
    fake.nullNames = {"vkGetPhysicalDeviceFeatures2", "vkGetPhysicalDeviceFeatures2KHR"};
    InstanceCreate instanceCreate;
    ASSERT_EQ(CreateInstance(instanceCreate), VK_SUCCESS);
    EXPECT_TRUE(InstanceRecord()->hooked);  // recorded served, but the fill failed
    EXPECT_FALSE(ExtensionsReady());

    DeviceCreate deviceCreate;
    ASSERT_EQ(CreateDevice(deviceCreate), VK_SUCCESS);
    EXPECT_EQ(fake.seenDeviceCreateInfo, &deviceCreate.info);
    EXPECT_FALSE(DeviceRecord()->processor);
}

TEST_F(CreationTest, DestroyRunsTheProcessorsHooksAroundTheNextLayer) {
    ServeWithTestProcessor();
    InstanceCreate instanceCreate;
    ASSERT_EQ(CreateInstance(instanceCreate), VK_SUCCESS);
    DeviceCreate deviceCreate;
    ASSERT_EQ(CreateDevice(deviceCreate), VK_SUCCESS);
    fake.events.clear();

    ZoVkDestroyDevice(fake.Device(), nullptr);
    EXPECT_EQ(fake.CallLog(), (Names{"PreDestroyDevice", "vkDestroyDevice", "PostDestroyDevice"}));
    EXPECT_EQ(DeviceRecord(), nullptr);
    EXPECT_EQ(TestProcessorStats::onEnd, 0);  // modules live until their instance goes

    fake.events.clear();
    ZoVkDestroyInstance(fake.Instance(), nullptr);
    EXPECT_EQ(fake.CallLog(), (Names{"PreDestroyInstance", "vkDestroyInstance", "PostDestroyInstance", "OnEnd"}));
    EXPECT_EQ(InstanceRecord(), nullptr);
    EXPECT_EQ(TestProcessorStats::onEnd, 1);
}

// --- the render-thread gate ------------------------------------------------------------

struct ThreadCase {
    const char* pattern;
    const char* threadName;
    bool served;
};

class RenderThreadTest : public CreationTest, public ::testing::WithParamInterface<ThreadCase> {};

TEST_P(RenderThreadTest, OnlyTheNamedThreadIsServed) {
    auto* data = new vulkan::zovk::app::ZoVkProcessorDataBase;
    data->checkRenderThread = true;
    data->renderThreadPattern = GetParam().pattern;
    ZoVkSettings::GetInstance()->SetProcessorData(data);
    ServeWithTestProcessor();

    InstanceCreate create;
    VkResult result = VK_ERROR_UNKNOWN;
    std::thread creator([&] {
        pthread_setname_np(pthread_self(), GetParam().threadName);
        VkInstance instance = VK_NULL_HANDLE;
        result = ZoVkCreateInstance(&create.info, nullptr, &instance);
    });
    creator.join();

    ASSERT_EQ(result, VK_SUCCESS);
    ASSERT_NE(InstanceRecord(), nullptr);
    EXPECT_EQ(InstanceRecord()->hooked, GetParam().served);
    EXPECT_EQ(TestProcessorStats::created, GetParam().served ? 1 : 0);
    if (!GetParam().served) {
        EXPECT_EQ(fake.seenInstanceCreateInfo, &create.info);
    }
}

INSTANTIATE_TEST_SUITE_P(Names, RenderThreadTest,
                         ::testing::Values(ThreadCase{"RenderThread", "RenderThread", true},
                                           ThreadCase{"RenderThread", "UnityMain", false},
                                           ThreadCase{"RenderThread", "RenderThread2", false},
                                           ThreadCase{"Render.*", "RenderThread2", true},
                                           ThreadCase{"(Render", "RenderThread", false}),
                         [](const auto& param) { return "Case" + std::to_string(param.index); });

}  // namespace
}  // namespace zovk_test
