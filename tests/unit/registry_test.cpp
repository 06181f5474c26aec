// The instance and device registries: keys, record reuse, what unhooked records hold,
// and removal by the destroy operations only.
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "layer/zovk_context_manager.h"
#include "layer/zovk_entry.h"
#include "settings/zovk_settings.h"
#include "tests/support/fake_next_layer.h"

namespace zovk_test {
namespace {

using vulkan::zovk::GetDispatchKey;
using vulkan::zovk::ZoVkContextManager;
using vulkan::zovk::ZoVkDeviceInfo;
using vulkan::zovk::ZoVkInstanceInfo;

PFN_vkVoidFunction SlotValue(const void* table, size_t offset) {
    return *reinterpret_cast<const PFN_vkVoidFunction*>(static_cast<const char*>(table) + offset);
}

class RegistryTest : public ::testing::Test {
protected:
    ZoVkContextManager* manager = ZoVkContextManager::GetInstance();
    FakeNextLayer fake;

    void RecordUnhooked() {
        manager->InitInstanceInfo(fake.Instance(), FakeNextLayer::GetInstanceProcAddr, VK_API_VERSION_1_2, nullptr,
                                  false);
        manager->InitDeviceInfo(fake.PhysicalDevice(), fake.Device(), FakeNextLayer::GetDeviceProcAddr,
                                VK_API_VERSION_1_2, nullptr, false);
    }
    ZoVkInstanceInfo* InstanceRecord() { return manager->GetInstanceInfoWithLock(GetDispatchKey(fake.Instance())); }
    ZoVkDeviceInfo* DeviceRecord() { return manager->GetDeviceInfoWithLock(GetDispatchKey(fake.Device())); }
};

TEST_F(RegistryTest, HandlesSharingADispatchKeyFindOneRecord) {
    RecordUnhooked();
    ZoVkDeviceInfo* record = DeviceRecord();
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->device, fake.Device());
    EXPECT_EQ(record->physicalDevice, fake.PhysicalDevice());
    EXPECT_EQ(manager->GetDeviceInfo(GetDispatchKey(fake.Queue())), record);
    EXPECT_EQ(manager->GetDeviceInfoWithoutLock(GetDispatchKey(fake.CommandBuffer())), record);
    // A physical device finds its instance.
    ZoVkInstanceInfo* instanceRecord = manager->GetInstanceInfo(GetDispatchKey(fake.PhysicalDevice()));
    ASSERT_NE(instanceRecord, nullptr);
    EXPECT_EQ(instanceRecord->instance, fake.Instance());
    // The two maps are apart: a device key is no instance.
    EXPECT_EQ(manager->GetInstanceInfoWithLock(GetDispatchKey(fake.Device())), nullptr);

    // Kept as no-ops on purpose: records go only with their objects.
    manager->RemoveDeviceInfo(GetDispatchKey(fake.Device()));
    manager->RemoveInstanceInfo(GetDispatchKey(fake.Instance()));
    EXPECT_EQ(DeviceRecord(), record);
    EXPECT_EQ(InstanceRecord(), instanceRecord);
}

TEST_F(RegistryTest, AnEqualKeyReusesTheRecordAndOverwritesItsHandles) {
    RecordUnhooked();
    ZoVkDeviceInfo* first = DeviceRecord();
    ZoVkInstanceInfo* firstInstance = InstanceRecord();
    // Marks that an unhooked insertion leaves alone: a replaced record would lose them.
    const auto mark = reinterpret_cast<PFN_vkCmdDraw>(fake.Function("vkCmdDraw"));
    first->functions.vkCmdDraw = mark;
    firstInstance->hooked = true;

    FakeObject secondDevice{&fake.deviceDispatch};
    FakeObject secondInstance{&fake.instanceDispatch};
    manager->InitInstanceInfo(reinterpret_cast<VkInstance>(&secondInstance), FakeNextLayer::GetInstanceProcAddr,
                              VK_API_VERSION_1_3, nullptr, false);
    manager->InitDeviceInfo(fake.PhysicalDevice(), reinterpret_cast<VkDevice>(&secondDevice),
                            FakeNextLayer::GetDeviceProcAddr, VK_API_VERSION_1_3, nullptr, false);

    ASSERT_EQ(DeviceRecord(), first);
    EXPECT_EQ(first->functions.vkCmdDraw, mark);
    EXPECT_EQ(first->device, reinterpret_cast<VkDevice>(&secondDevice));
    ASSERT_EQ(InstanceRecord(), firstInstance);
    EXPECT_TRUE(firstInstance->hooked);
    EXPECT_EQ(firstInstance->instance, reinterpret_cast<VkInstance>(&secondInstance));
    EXPECT_EQ(firstInstance->apiVersion, VK_API_VERSION_1_3);
}

TEST_F(RegistryTest, UnhookedRecordsHoldOnlyTheResolverAndTheLifecycleFunctions) {
    RecordUnhooked();
    const std::set<std::string> instanceLifecycle = {"vkGetInstanceProcAddr", "vkDestroyInstance", "vkCreateDevice",
                                                     "vkEnumerateDeviceExtensionProperties"};
    const std::set<std::string> deviceLifecycle = {"vkGetDeviceProcAddr", "vkDestroyDevice"};

    ZoVkInstanceInfo* instanceRecord = InstanceRecord();
    ASSERT_NE(instanceRecord, nullptr);
    EXPECT_FALSE(instanceRecord->hooked);
    EXPECT_FALSE(instanceRecord->processor);
    EXPECT_TRUE(instanceRecord->functionMap.empty());
    for (size_t i = 0; i < vulkan::zovk::kInstanceFunctionSlotCount; ++i) {
        const auto& slot = vulkan::zovk::kInstanceFunctionSlots[i];
        const PFN_vkVoidFunction expected = instanceLifecycle.count(slot.name) ? fake.Function(slot.name) : nullptr;
        EXPECT_EQ(SlotValue(&instanceRecord->functions, slot.offset), expected) << slot.name;
    }

    ZoVkDeviceInfo* deviceRecord = DeviceRecord();
    ASSERT_NE(deviceRecord, nullptr);
    EXPECT_FALSE(deviceRecord->processor);
    EXPECT_TRUE(deviceRecord->functionMap.empty());
    for (size_t i = 0; i < vulkan::zovk::kDeviceFunctionSlotCount; ++i) {
        const auto& slot = vulkan::zovk::kDeviceFunctionSlots[i];
        const PFN_vkVoidFunction expected = deviceLifecycle.count(slot.name) ? fake.Function(slot.name) : nullptr;
        EXPECT_EQ(SlotValue(&deviceRecord->functions, slot.offset), expected) << slot.name;
    }
    // Only those were asked for, each once.
    EXPECT_EQ(fake.events.size(), instanceLifecycle.size() - 1 + deviceLifecycle.size() - 1);
}

TEST_F(RegistryTest, AnUnhookedRecordResolvesEveryNameThroughAndKeepsNothing) {
    RecordUnhooked();
    fake.events.clear();
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(manager->GetNextDeviceProcAddr(fake.Device(), "vkCmdDraw"), fake.Function("vkCmdDraw"));
        EXPECT_EQ(manager->GetHookedDeviceProcAddr(fake.Device(), "vkCmdDraw"), fake.Function("vkCmdDraw"));
        EXPECT_EQ(manager->GetNextInstanceProcAddr(fake.Instance(), "vkGetPhysicalDeviceFeatures2"),
                  fake.Function("vkGetPhysicalDeviceFeatures2"));
    }
    EXPECT_EQ(fake.Queries("vkCmdDraw"), 4);
    EXPECT_EQ(fake.Queries("vkGetPhysicalDeviceFeatures2"), 2);
    EXPECT_EQ(DeviceRecord()->functions.vkCmdDraw, nullptr);
    EXPECT_EQ(InstanceRecord()->functions.vkGetPhysicalDeviceFeatures2, nullptr);
    // The device is asked with the handle given to the query.
    manager->GetNextDeviceProcAddr(reinterpret_cast<VkDevice>(fake.Queue()), "vkCmdDraw");
    EXPECT_EQ(fake.events.back().handle, static_cast<const void*>(fake.Queue()));
}

TEST_F(RegistryTest, DestroyCallsTheFunctionResolvedAtCreationAndErasesTheRecord) {
    RecordUnhooked();
    fake.events.clear();
    VkAllocationCallbacks allocator{};

    ZoVkDestroyDevice(fake.Device(), &allocator);
    // Resolving again now would ask a loader that answers from the top of the chain.
    ASSERT_EQ(fake.events.size(), 1u);
    EXPECT_EQ(fake.CallLog(), std::vector<std::string>{"vkDestroyDevice"});
    EXPECT_EQ(fake.events[0].handle, static_cast<const void*>(fake.Device()));
    EXPECT_EQ(DeviceRecord(), nullptr);
    EXPECT_EQ(manager->GetDeviceInfo(GetDispatchKey(fake.Queue())), nullptr);

    ZoVkDestroyInstance(fake.Instance(), nullptr);
    EXPECT_EQ(fake.CallLog(), (std::vector<std::string>{"vkDestroyDevice", "vkDestroyInstance"}));
    EXPECT_EQ(InstanceRecord(), nullptr);

    // A second destroy finds nothing and calls nothing.
    ZoVkDestroyDevice(fake.Device(), nullptr);
    ZoVkDestroyInstance(fake.Instance(), nullptr);
    EXPECT_EQ(fake.events.size(), 2u);
}

TEST_F(RegistryTest, UnknownOrNullHandlesReachNothing) {
    FakeObject stranger{&fake};
    const auto device = reinterpret_cast<VkDevice>(&stranger);
    const auto instance = reinterpret_cast<VkInstance>(&stranger);
    EXPECT_EQ(manager->GetNextDeviceProcAddr(device, "vkCmdDraw"), nullptr);
    EXPECT_EQ(manager->GetHookedDeviceProcAddr(device, "vkCmdDraw"), nullptr);
    EXPECT_EQ(manager->GetNextInstanceProcAddr(instance, "vkCmdDraw"), nullptr);
    EXPECT_EQ(manager->GetHookedInstanceProcAddr(instance, "vkCmdDraw"), nullptr);
    ZoVkDestroyDevice(device, nullptr);
    ZoVkDestroyDevice(VK_NULL_HANDLE, nullptr);
    ZoVkDestroyInstance(instance, nullptr);
    ZoVkDestroyInstance(VK_NULL_HANDLE, nullptr);
    EXPECT_TRUE(fake.events.empty());
}

}  // namespace
}  // namespace zovk_test
