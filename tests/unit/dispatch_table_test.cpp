// The dispatch tables: filling by API version, extension slots served
// by their promoted core functions, and lazy filling on resolution.
#include <string>

#include <gtest/gtest.h>

#include "layer/zovk_context_manager.h"
#include "layer/zovk_dispatch_table.h"
#include "layer/zovk_extension_catalog.h"
#include "tests/support/fake_next_layer.h"

namespace zovk_test {
namespace {

using namespace vulkan::zovk;

PFN_vkVoidFunction SlotValue(const void* table, size_t offset) {
    return *reinterpret_cast<const PFN_vkVoidFunction*>(static_cast<const char*>(table) + offset);
}

template <typename F>
PFN_vkVoidFunction Void(F fn) {
    return reinterpret_cast<PFN_vkVoidFunction>(fn);
}

class Tables : public ::testing::Test {
protected:
    void SetUp() override {
        InitVkInstanceFunctionMap(&instanceTable, instanceMap);
        instanceTable.vkGetInstanceProcAddr = FakeNextLayer::GetInstanceProcAddr;
        InitVkDeviceFunctionMap(&deviceTable, deviceMap);
        deviceTable.vkGetDeviceProcAddr = FakeNextLayer::GetDeviceProcAddr;
    }
    bool FillInstance(const std::string& name) {
        return InitInstanceExtensionFunctionWithoutLock(fake.Instance(), &instanceTable, instanceMap, name,
                                                        GetExtensionFunctionInfo(name));
    }
    bool FillDevice(const std::string& name) {
        return InitDeviceExtensionFunctionWithoutLock(fake.Device(), &deviceTable, deviceMap, name,
                                                      GetExtensionFunctionInfo(name));
    }

    FakeNextLayer fake;
    VkInstanceFunctionTable instanceTable;
    ZoVkFunctionMap instanceMap;
    VkDeviceFunctionTable deviceTable;
    ZoVkFunctionMap deviceMap;
};

// E.g. a 1.0 instance has every 1.1 slot null although the next layer offers them; extension
// commands are never fetched here. A slot left empty is filled on its first resolution.
class CoreFilling : public ::testing::TestWithParam<uint32_t> {};

TEST_P(CoreFilling, FillsExactlyTheCommandsUpToTheVersion) {
    FakeNextLayer fake;
    ZoVkContextManager* manager = ZoVkContextManager::GetInstance();
    const uint32_t version = GetParam();
    manager->InitInstanceInfo(fake.Instance(), FakeNextLayer::GetInstanceProcAddr, version, nullptr, true);
    manager->InitDeviceInfo(fake.PhysicalDevice(), fake.Device(), FakeNextLayer::GetDeviceProcAddr, version, nullptr,
                            true);
    const ZoVkInstanceInfo* instanceRecord = manager->GetInstanceInfo(GetDispatchKey(fake.Instance()));
    const ZoVkDeviceInfo* deviceRecord = manager->GetDeviceInfo(GetDispatchKey(fake.Device()));
    ASSERT_NE(instanceRecord, nullptr);
    ASSERT_NE(deviceRecord, nullptr);
    const auto expectFilled = [&](const VkFunctionSlotInfo* slots, size_t count, const void* table) {
        for (size_t i = 0; i < count; ++i) {
            const bool filled = slots[i].coreVersion != 0 && slots[i].coreVersion <= version;
            EXPECT_EQ(SlotValue(table, slots[i].offset), filled ? fake.Function(slots[i].name) : nullptr)
                << slots[i].name;
        }
    };
    expectFilled(kInstanceFunctionSlots, kInstanceFunctionSlotCount, &instanceRecord->functions);
    expectFilled(kDeviceFunctionSlots, kDeviceFunctionSlotCount, &deviceRecord->functions);
    EXPECT_EQ(fake.Queries("vkGetPhysicalDeviceFeatures2KHR"), 0);
    EXPECT_EQ(fake.Queries("vkQueuePresentKHR"), 0);

    // Through either resolver; a name without a slot is asked every time and kept nowhere.
    fake.events.clear();
    const size_t mapSize = deviceRecord->functionMap.size();
    for (const char* name : {"vkCmdSetCullMode", "vkCmdSetCullMode", "vkVendorPrivateThing", "vkVendorPrivateThing"}) {
        EXPECT_EQ(manager->GetNextDeviceProcAddr(fake.Device(), name), fake.Function(name)) << name;
    }
    const char* groups = "vkEnumeratePhysicalDeviceGroups";
    EXPECT_EQ(manager->GetHookedInstanceProcAddr(fake.Instance(), groups), fake.Function(groups));
    EXPECT_EQ(manager->GetNextInstanceProcAddr(fake.Instance(), groups), fake.Function(groups));
    EXPECT_EQ(fake.Queries("vkCmdSetCullMode"), version < VK_API_VERSION_1_3 ? 1 : 0);
    EXPECT_EQ(fake.Queries(groups), version < VK_API_VERSION_1_1 ? 1 : 0);
    EXPECT_EQ(fake.Queries("vkVendorPrivateThing"), 2);
    EXPECT_EQ(deviceRecord->functionMap.size(), mapSize);
}

INSTANTIATE_TEST_SUITE_P(Versions, CoreFilling,
                         ::testing::Values(VK_API_VERSION_1_0, VK_API_VERSION_1_1, VK_API_VERSION_1_2,
                                           VK_API_VERSION_1_3));

TEST_F(Tables, AnExtensionSlotIsServedByItsCoreFunctionOrFillsIt) {
    // A set core slot serves the extension name without asking; a filled slot is not asked again.
    instanceTable.vkGetPhysicalDeviceFeatures2 =
        reinterpret_cast<PFN_vkGetPhysicalDeviceFeatures2>(fake.Function("vkGetPhysicalDeviceFeatures2"));
    EXPECT_TRUE(FillInstance("vkGetPhysicalDeviceFeatures2KHR"));
    EXPECT_TRUE(FillInstance("vkGetPhysicalDeviceFeatures2KHR"));
    EXPECT_EQ(Void(instanceTable.vkGetPhysicalDeviceFeatures2KHR), fake.Function("vkGetPhysicalDeviceFeatures2"));
    EXPECT_TRUE(fake.events.empty());

    // An answered extension function also fills an empty core slot: calls by the core name reach it.
    EXPECT_TRUE(FillDevice("vkCmdSetCullModeEXT"));
    EXPECT_EQ(Void(deviceTable.vkCmdSetCullModeEXT), fake.Function("vkCmdSetCullModeEXT"));
    EXPECT_EQ(Void(deviceTable.vkCmdSetCullMode), fake.Function("vkCmdSetCullModeEXT"));
    EXPECT_EQ(fake.Queries("vkCmdSetCullModeEXT"), 1);
    EXPECT_EQ(fake.Queries("vkCmdSetCullMode"), 0);

    // A function the next layer lacks leaves both slots empty.
    fake.nullNames = {"vkCmdSetDepthTestEnableEXT", "vkQueuePresentKHR"};
    EXPECT_FALSE(FillDevice("vkCmdSetDepthTestEnableEXT"));
    EXPECT_EQ(deviceTable.vkCmdSetDepthTestEnableEXT, nullptr);
    EXPECT_EQ(deviceTable.vkCmdSetDepthTestEnable, nullptr);
    EXPECT_FALSE(FillDevice("vkQueuePresentKHR"));  // no core name to fall back on
    EXPECT_FALSE(FillDevice("vkNotAFunction"));     // no slot at all
}

}  // namespace
}  // namespace zovk_test
