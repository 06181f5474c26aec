// Instance and device creation through the loader's link: the gates that decide whether a
// processor serves the object, and what the next layer receives on either path.
#include <pthread.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <json/value.h>

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
using vulkan::zovk::ZoVkContextManager;
using vulkan::zovk::ZoVkDeviceInfo;
using vulkan::zovk::ZoVkInstanceInfo;
using vulkan::zovk::ZoVkSettings;
using Names = std::vector<std::string>;

class Creation : public ::testing::Test {
protected:
    ZoVkInstanceInfo* InstanceRecord() {
        return ZoVkContextManager::GetInstance()->GetInstanceInfoWithLock(GetDispatchKey(fake.Instance()));
    }
    ZoVkDeviceInfo* DeviceRecord() {
        return ZoVkContextManager::GetInstance()->GetDeviceInfoWithLock(GetDispatchKey(fake.Device()));
    }
    bool ExtensionsReady() { return ZoVkSettings::GetInstance()->HasHookFlags(kHookExtensionsReady); }
    // With VK_KHR_surface: only then may a served device get VK_KHR_swapchain.
    VkResult CreateInstance(InstanceCreate&& create = InstanceCreate(VK_API_VERSION_1_0, {"VK_KHR_surface"})) {
        VkInstance instance = VK_NULL_HANDLE;
        return ZoVkCreateInstance(&create.info, nullptr, &instance);
    }
    VkResult CreateDevice(DeviceCreate&& create = DeviceCreate()) {
        VkDevice device = VK_NULL_HANDLE;
        return ZoVkCreateDevice(fake.PhysicalDevice(), &create.info, nullptr, &device);
    }

    FakeNextLayer fake;
};

TEST_F(Creation, AFailedNextLayerCreateRecordsNothing) {
    fake.createInstanceResult = VK_ERROR_INCOMPATIBLE_DRIVER;
    EXPECT_EQ(CreateInstance(), VK_ERROR_INCOMPATIBLE_DRIVER);
    EXPECT_EQ(InstanceRecord(), nullptr);
    // On the served path the processor made for it is ended.
    ServeWithTestProcessor();
    EXPECT_EQ(CreateInstance(), VK_ERROR_INCOMPATIBLE_DRIVER);
    EXPECT_EQ(InstanceRecord(), nullptr);
    EXPECT_EQ(TestProcessorStats::created, 1);
    EXPECT_EQ(TestProcessorStats::onEnd, 1);
    EXPECT_EQ(TestProcessorStats::gotInstanceInfo, 0);
    // A success without a handle is not recorded either.
    fake.createInstanceResult = VK_SUCCESS;
    fake.instanceToCreate = nullptr;
    EXPECT_EQ(CreateInstance(), VK_SUCCESS);
    EXPECT_EQ(InstanceRecord(), nullptr);
    EXPECT_EQ(TestProcessorStats::onEnd, 2);
    // Nor a failed device; the processor hears nothing of it.
    fake.instanceToCreate = &fake.instance;
    ASSERT_EQ(CreateInstance(), VK_SUCCESS);
    fake.createDeviceResult = VK_ERROR_DEVICE_LOST;
    fake.events.clear();
    EXPECT_EQ(CreateDevice(), VK_ERROR_DEVICE_LOST);
    EXPECT_EQ(DeviceRecord(), nullptr);
    EXPECT_EQ(fake.CallLog(), (Names{"vkEnumerateDeviceExtensionProperties", "vkEnumerateDeviceExtensionProperties",
                                     "vkCreateDevice"}));
}

TEST_F(Creation, AServedInstanceRunsAtLeastAtVersion12WithItsNeededExtensionsAddedOnce) {
    ServeWithTestProcessor();
    InstanceCreate create(VK_API_VERSION_1_0);
    ASSERT_EQ(CreateInstance(std::move(create)), VK_SUCCESS);
    EXPECT_EQ(fake.seenApiVersion, 0x00402000u);
    EXPECT_NE(fake.seenInstanceCreateInfo, &create.info);
    EXPECT_EQ(create.application.apiVersion, VK_API_VERSION_1_0) << "the application's own is not written";
    EXPECT_EQ(create.info.enabledExtensionCount, 0u);
    EXPECT_EQ(fake.seenInstanceExtensions, Names{"VK_KHR_get_physical_device_properties2"});
    ZoVkInstanceInfo* record = InstanceRecord();
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->apiVersion, 0x00402000u) << "the record's tables are filled to the raised version";
    ASSERT_TRUE(record->processor);
    EXPECT_EQ(record->processor->GetInstanceInfo(), record);
    EXPECT_TRUE(ExtensionsReady());
    EXPECT_EQ(fake.CallLog(), (Names{"vkEnumerateInstanceExtensionProperties", "vkEnumerateInstanceExtensionProperties",
                                     "PreCreateInstance", "vkCreateInstance", "PostCreateInstance"}));
    // The layer's own needs are filled (how, the table tests show).
    EXPECT_NE(record->functions.vkGetPhysicalDeviceProperties2KHR, nullptr);

    ASSERT_EQ(CreateInstance(InstanceCreate(VK_API_VERSION_1_3, {"VK_KHR_surface", "VK_KHR_get_physical_device_properties2"})),
              VK_SUCCESS);
    EXPECT_EQ(fake.seenApiVersion, VK_API_VERSION_1_3) << "a higher request is kept";
    EXPECT_EQ(fake.seenInstanceExtensions, (Names{"VK_KHR_surface", "VK_KHR_get_physical_device_properties2"}));
}

// A next layer that lacks what the layer needs: an instance extension (the instance passes
// through unchanged, as in a process without a configured module), an instance function (the
// instance is recorded served, but its fill failed), a device extension, or vkQueuePresentKHR,
// found missing only once the device exists. Either way interception is off for the device; it
// gets the application's own structures wherever the lack is known before it is created.
struct Lack {
    std::vector<std::string> instanceExtensions;
    std::set<std::string> nullNames;
    std::vector<std::string> deviceExtensions;
};
class Lacking : public Creation, public ::testing::WithParamInterface<Lack> {};
const Names kBothInstanceExtensions = {"VK_KHR_get_physical_device_properties2", "VK_KHR_surface"};

TEST_P(Lacking, TheDeviceIsNotIntercepted) {
    ServeWithTestProcessor();
    fake.instanceExtensions = GetParam().instanceExtensions;
    fake.nullNames = GetParam().nullNames;
    InstanceCreate instanceCreate(VK_API_VERSION_1_0, {"VK_KHR_surface"});
    VkInstance instance = VK_NULL_HANDLE;
    ASSERT_EQ(ZoVkCreateInstance(&instanceCreate.info, nullptr, &instance), VK_SUCCESS);
    const bool served = fake.instanceExtensions == kBothInstanceExtensions;
    EXPECT_EQ(fake.seenInstanceCreateInfo == &instanceCreate.info, !served);
    EXPECT_EQ(TestProcessorStats::created, served ? 1 : 0);
    fake.deviceExtensions = GetParam().deviceExtensions;
    DeviceCreate deviceCreate({"VK_KHR_maintenance1"});
    VkDevice device = VK_NULL_HANDLE;
    ASSERT_EQ(ZoVkCreateDevice(fake.PhysicalDevice(), &deviceCreate.info, nullptr, &device), VK_SUCCESS);
    EXPECT_FALSE(ExtensionsReady());
    const bool late = fake.nullNames.count("vkQueuePresentKHR") != 0;
    EXPECT_EQ(fake.seenDeviceCreateInfo == &deviceCreate.info, !late);
    EXPECT_EQ(DeviceRecord()->processor != nullptr, late);
    ZoVkSettings::GetInstance()->SetHookFlags(vulkan::zovk::kHookConfigAccepted);
    EXPECT_EQ(ZoVkGetDeviceProcAddr(fake.Device(), "vkCmdDraw"), fake.Function("vkCmdDraw"));
}

INSTANTIATE_TEST_SUITE_P(
    NextLayers, Lacking,
    ::testing::Values(Lack{{"VK_KHR_surface"}, {}, {"VK_KHR_swapchain"}},
                      Lack{kBothInstanceExtensions, {"vkGetPhysicalDeviceFeatures2", "vkGetPhysicalDeviceFeatures2KHR"},
                           {"VK_KHR_swapchain"}},
                      Lack{kBothInstanceExtensions, {}, {}},
                      Lack{kBothInstanceExtensions, {"vkQueuePresentKHR"}, {"VK_KHR_swapchain"}}),
    [](const auto& param) { return "Case" + std::to_string(param.index); });

struct ThreadCase {
    std::string pattern;
    const char* threadName;
    bool served;
};
class RenderThread : public Creation, public ::testing::WithParamInterface<ThreadCase> {};

// The pattern comes with the configuration and is compiled there, once: an invalid or over-long
// one serves no thread, and creation says nothing more about it.
TEST_P(RenderThread, OnlyTheNamedThreadIsServed) {
    auto* data = new vulkan::zovk::app::ZoVkProcessorDataBase;
    Json::Value config;
    config["xrender_BaseInfo"] = "1";
    config["xrender_CheckMainInfo"] = "1;1;" + GetParam().pattern;
    data->InitProcessorConfigData(config);  // no module here, but the thread check is set
    ASSERT_TRUE(data->checkRenderThread);
    ZoVkSettings::GetInstance()->SetProcessorData(data);
    ServeWithTestProcessor();
    InstanceCreate create;
    VkResult result = VK_ERROR_UNKNOWN;
    testing::internal::CaptureStderr();
    std::thread creator([&] {
        pthread_setname_np(pthread_self(), GetParam().threadName);
        VkInstance instance = VK_NULL_HANDLE;
        result = ZoVkCreateInstance(&create.info, nullptr, &instance);
    });
    creator.join();
    EXPECT_EQ(testing::internal::GetCapturedStderr().find("pattern"), std::string::npos);
    ASSERT_EQ(result, VK_SUCCESS);
    ASSERT_NE(InstanceRecord(), nullptr);
    EXPECT_EQ(InstanceRecord()->hooked, GetParam().served);
    EXPECT_EQ(TestProcessorStats::created, GetParam().served ? 1 : 0);
    EXPECT_EQ(fake.seenInstanceCreateInfo == &create.info, !GetParam().served);
}

const std::string kLongest = "RenderThread|" + std::string(115, 'x');  // 128 characters
INSTANTIATE_TEST_SUITE_P(Names, RenderThread,
                         ::testing::Values(ThreadCase{"RenderThread", "RenderThread", true},
                                           ThreadCase{"RenderThread", "UnityMain", false},
                                           ThreadCase{"RenderThread", "RenderThread2", false},
                                           ThreadCase{"Render.*", "RenderThread2", true},
                                           ThreadCase{"(Render", "RenderThread", false},
                                           ThreadCase{kLongest, "RenderThread", true},
                                           ThreadCase{kLongest + "x", "RenderThread", false}),
                         [](const auto& param) { return "Case" + std::to_string(param.index); });

}  // namespace
}  // namespace zovk_test
