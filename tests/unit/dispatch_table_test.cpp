// The dispatch tables: the name-to-slot maps, filling by API version, extension slots
// served by their promoted core functions, and lazy filling on resolution.
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "layer/generated/zovk_extension_catalog_data.h"
#include "layer/zovk_context_manager.h"
#include "layer/zovk_dispatch_table.h"
#include "layer/zovk_extension_catalog.h"
#include "tests/support/fake_next_layer.h"

namespace zovk_test {
namespace {

using namespace vulkan::zovk;

template <typename Table>
PFN_vkVoidFunction SlotValue(const Table& table, size_t offset) {
    return *reinterpret_cast<const PFN_vkVoidFunction*>(reinterpret_cast<const char*>(&table) + offset);
}

template <typename Member>
PFN_vkVoidFunction* SlotOf(Member& member) {
    return reinterpret_cast<PFN_vkVoidFunction*>(&member);
}

class FunctionMapTest : public ::testing::Test {
protected:
    void SetUp() override {
        InitVkInstanceFunctionMap(&instanceTable, instanceMap);
        InitVkDeviceFunctionMap(&deviceTable, deviceMap);
    }
    // Every name refers to a distinct, aligned slot inside the table.
    static void ExpectCovers(const ZoVkFunctionMap& map, const void* table, size_t size) {
        std::set<const void*> slots;
        for (const auto& [name, slot] : map) {
            const auto offset = reinterpret_cast<const char*>(slot) - static_cast<const char*>(table);
            EXPECT_TRUE(offset >= 0 && static_cast<size_t>(offset) < size && offset % sizeof(void*) == 0) << name;
            slots.insert(slot);
        }
        EXPECT_EQ(slots.size(), map.size());
    }

    VkInstanceFunctionTable instanceTable;
    ZoVkFunctionMap instanceMap;
    VkDeviceFunctionTable deviceTable;
    ZoVkFunctionMap deviceMap;
};

TEST_F(FunctionMapTest, NamesEverySlotOfItsOwnTableOnce) {
    ASSERT_EQ(instanceMap.size(), 67u);
    ASSERT_EQ(deviceMap.size(), 404u);
    ExpectCovers(instanceMap, &instanceTable, sizeof(instanceTable));
    ExpectCovers(deviceMap, &deviceTable, sizeof(deviceTable));
    EXPECT_EQ(instanceMap.at("vkGetPhysicalDeviceFeatures2KHR"),
              SlotOf(instanceTable.vkGetPhysicalDeviceFeatures2KHR));
    EXPECT_EQ(deviceMap.at("vkGetDeviceProcAddr"), reinterpret_cast<PFN_vkVoidFunction*>(&deviceTable));
    EXPECT_EQ(deviceMap.at("vkCmdDraw"), SlotOf(deviceTable.vkCmdDraw));
    EXPECT_EQ(deviceMap.at("vkCreateRenderPass2KHR"), SlotOf(deviceTable.vkCreateRenderPass2KHR));
    EXPECT_EQ(deviceMap.at("vkCreateRenderPass2"), SlotOf(deviceTable.vkCreateRenderPass2));
    EXPECT_EQ(deviceMap.count("vkCreateInstance"), 0u);
}

// The extension fillers need a slot for every catalog function and for its core name.
TEST_F(FunctionMapTest, EveryCatalogFunctionHasASlotAtItsLevel) {
    ASSERT_EQ(kExtensionCatalogEntryCount, 256u);
    for (size_t i = 0; i < kExtensionCatalogEntryCount; ++i) {
        const VkExtensionCatalogEntry& entry = kExtensionCatalogEntries[i];
        const ZoVkFunctionMap& map = entry.instanceLevel ? instanceMap : deviceMap;
        EXPECT_EQ(map.count(entry.name), 1u) << entry.name;
        if (entry.coreName[0] != '\0') {
            EXPECT_EQ(map.count(entry.coreName), 1u) << entry.name << " -> " << entry.coreName;
        }
    }
}

TEST(ExtensionCatalog, TellingRowsAndUnknownNames) {
    const VkExtensionFunctionInfo& unknown = GetExtensionFunctionInfo("vkNotAFunction");
    EXPECT_EQ(unknown.instanceLevel, 0u);
    EXPECT_TRUE(unknown.coreName.empty());
    EXPECT_TRUE(unknown.extensions.empty());
    EXPECT_EQ(&GetExtensionFunctionInfo("vkCmdDraw"), &unknown);  // core commands are not in it

    const VkExtensionFunctionInfo& rectangles = GetExtensionFunctionInfo("vkGetPhysicalDevicePresentRectanglesKHR");
    EXPECT_EQ(rectangles.instanceLevel, 1u);
    EXPECT_TRUE(rectangles.coreName.empty());
    EXPECT_EQ(rectangles.extensions, (std::unordered_set<std::string>{"VK_KHR_device_group", "VK_KHR_surface"}));

    const VkExtensionFunctionInfo& wait = GetExtensionFunctionInfo("vkCmdWaitEvents2KHR");
    EXPECT_EQ(wait.instanceLevel, 0u);
    EXPECT_EQ(wait.coreName, "vkCmdWaitEvents2");
    EXPECT_EQ(wait.extensions, std::unordered_set<std::string>{"VK_KHR_synchronization2"});

    const VkExtensionFunctionInfo& features = GetExtensionFunctionInfo("vkGetPhysicalDeviceFeatures2KHR");
    EXPECT_EQ(features.instanceLevel, 1u);
    EXPECT_EQ(features.coreName, "vkGetPhysicalDeviceFeatures2");
}

// --- core filling by version ------------------------------------------------------------

class CoreFillingTest : public ::testing::TestWithParam<uint32_t> {
protected:
    ZoVkContextManager* manager = ZoVkContextManager::GetInstance();
    FakeNextLayer fake;
};

// E.g. a 1.0 instance has every 1.1 slot null although the next layer offers them.
TEST_P(CoreFillingTest, FillsExactlyTheCommandsUpToTheVersion) {
    const uint32_t version = GetParam();
    manager->InitInstanceInfo(fake.Instance(), FakeNextLayer::GetInstanceProcAddr, version, nullptr, true);
    manager->InitDeviceInfo(fake.PhysicalDevice(), fake.Device(), FakeNextLayer::GetDeviceProcAddr, version, nullptr,
                            true);
    const ZoVkInstanceInfo* instanceRecord = manager->GetInstanceInfo(GetDispatchKey(fake.Instance()));
    const ZoVkDeviceInfo* deviceRecord = manager->GetDeviceInfo(GetDispatchKey(fake.Device()));
    ASSERT_NE(instanceRecord, nullptr);
    ASSERT_NE(deviceRecord, nullptr);
    EXPECT_TRUE(instanceRecord->hooked);
    // Extension commands are never fetched here, even though the fake offers them all.
    for (size_t i = 0; i < kInstanceFunctionSlotCount; ++i) {
        const VkFunctionSlotInfo& slot = kInstanceFunctionSlots[i];
        const bool filled = slot.coreVersion != 0 && slot.coreVersion <= version;
        EXPECT_EQ(SlotValue(instanceRecord->functions, slot.offset), filled ? fake.Function(slot.name) : nullptr)
            << slot.name;
    }
    for (size_t i = 0; i < kDeviceFunctionSlotCount; ++i) {
        const VkFunctionSlotInfo& slot = kDeviceFunctionSlots[i];
        const bool filled = slot.coreVersion != 0 && slot.coreVersion <= version;
        EXPECT_EQ(SlotValue(deviceRecord->functions, slot.offset), filled ? fake.Function(slot.name) : nullptr)
            << slot.name;
    }
    EXPECT_EQ(fake.Queries("vkGetPhysicalDeviceFeatures2KHR"), 0);
    EXPECT_EQ(fake.Queries("vkQueuePresentKHR"), 0);
}

INSTANTIATE_TEST_SUITE_P(Versions, CoreFillingTest,
                         ::testing::Values(VK_API_VERSION_1_0, VK_API_VERSION_1_1, VK_API_VERSION_1_2,
                                           VK_API_VERSION_1_3));

// --- single extension slots -------------------------------------------------------------

class ExtensionSlotTest : public ::testing::Test {
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
    template <typename F>
    PFN_vkVoidFunction Void(F fn) {
        return reinterpret_cast<PFN_vkVoidFunction>(fn);
    }

    FakeNextLayer fake;
    VkInstanceFunctionTable instanceTable;
    ZoVkFunctionMap instanceMap;
    VkDeviceFunctionTable deviceTable;
    ZoVkFunctionMap deviceMap;
};

TEST_F(ExtensionSlotTest, ASetCoreSlotServesTheExtensionNameWithoutAsking) {
    instanceTable.vkGetPhysicalDeviceFeatures2 =
        reinterpret_cast<PFN_vkGetPhysicalDeviceFeatures2>(fake.Function("vkGetPhysicalDeviceFeatures2"));
    EXPECT_TRUE(FillInstance("vkGetPhysicalDeviceFeatures2KHR"));
    EXPECT_EQ(Void(instanceTable.vkGetPhysicalDeviceFeatures2KHR), fake.Function("vkGetPhysicalDeviceFeatures2"));
    EXPECT_TRUE(fake.events.empty());

    // An already filled slot is not asked for again either.
    EXPECT_TRUE(FillInstance("vkGetPhysicalDeviceFeatures2KHR"));
    EXPECT_TRUE(fake.events.empty());
}

TEST_F(ExtensionSlotTest, AnsweredExtensionFunctionAlsoFillsAnEmptyCoreSlot) {
    EXPECT_TRUE(FillInstance("vkGetPhysicalDeviceFeatures2KHR"));
    const PFN_vkVoidFunction khr = fake.Function("vkGetPhysicalDeviceFeatures2KHR");
    EXPECT_EQ(Void(instanceTable.vkGetPhysicalDeviceFeatures2KHR), khr);
    EXPECT_EQ(Void(instanceTable.vkGetPhysicalDeviceFeatures2), khr);
    EXPECT_EQ(fake.Queries("vkGetPhysicalDeviceFeatures2KHR"), 1);
    EXPECT_EQ(fake.Queries("vkGetPhysicalDeviceFeatures2"), 0);
    // Calls by the core name now reach the extension function.
    instanceTable.vkGetPhysicalDeviceFeatures2(fake.PhysicalDevice(), nullptr);
    EXPECT_EQ(fake.Calls("vkGetPhysicalDeviceFeatures2KHR"), 1);

    EXPECT_TRUE(FillDevice("vkCmdSetCullModeEXT"));
    EXPECT_EQ(Void(deviceTable.vkCmdSetCullMode), fake.Function("vkCmdSetCullModeEXT"));
}

TEST_F(ExtensionSlotTest, AFunctionTheNextLayerLacksLeavesBothSlotsEmpty) {
    fake.nullNames = {"vkCmdSetCullModeEXT", "vkQueuePresentKHR"};
    EXPECT_FALSE(FillDevice("vkCmdSetCullModeEXT"));
    EXPECT_EQ(deviceTable.vkCmdSetCullModeEXT, nullptr);
    EXPECT_EQ(deviceTable.vkCmdSetCullMode, nullptr);
    EXPECT_FALSE(FillDevice("vkQueuePresentKHR"));  // no core name to fall back on
    EXPECT_FALSE(FillDevice("vkNotAFunction"));     // no slot at all
}

// --- lazy filling on resolution ---------------------------------------------------------

TEST(LazyFilling, ASlotLeftEmptyAtCreationIsFilledOnFirstResolution) {
    FakeNextLayer fake;
    ZoVkContextManager* manager = ZoVkContextManager::GetInstance();
    manager->InitDeviceInfo(fake.PhysicalDevice(), fake.Device(), FakeNextLayer::GetDeviceProcAddr,
                            VK_API_VERSION_1_2, nullptr, true);
    ZoVkDeviceInfo* record = manager->GetDeviceInfo(GetDispatchKey(fake.Device()));
    ASSERT_EQ(record->functions.vkCmdSetCullMode, nullptr);

    EXPECT_EQ(manager->GetNextDeviceProcAddr(fake.Device(), "vkCmdSetCullMode"), fake.Function("vkCmdSetCullMode"));
    EXPECT_EQ(reinterpret_cast<PFN_vkVoidFunction>(record->functions.vkCmdSetCullMode),
              fake.Function("vkCmdSetCullMode"));
    EXPECT_EQ(manager->GetNextDeviceProcAddr(fake.Device(), "vkCmdSetCullMode"), fake.Function("vkCmdSetCullMode"));
    EXPECT_EQ(fake.Queries("vkCmdSetCullMode"), 1);

    // A slot filled at creation is answered without asking at all.
    fake.events.clear();
    EXPECT_EQ(manager->GetNextDeviceProcAddr(fake.Device(), "vkCmdDraw"), fake.Function("vkCmdDraw"));
    EXPECT_TRUE(fake.events.empty());

    // A name the table has no slot for is asked every time and kept nowhere.
    const size_t mapSize = record->functionMap.size();
    manager->GetNextDeviceProcAddr(fake.Device(), "vkVendorPrivateThing");
    manager->GetNextDeviceProcAddr(fake.Device(), "vkVendorPrivateThing");
    EXPECT_EQ(fake.Queries("vkVendorPrivateThing"), 2);
    EXPECT_EQ(record->functionMap.size(), mapSize);

    // The same holds for an instance, through either resolver.
    manager->InitInstanceInfo(fake.Instance(), FakeNextLayer::GetInstanceProcAddr, VK_API_VERSION_1_0, nullptr, true);
    const PFN_vkVoidFunction groups = fake.Function("vkEnumeratePhysicalDeviceGroups");
    EXPECT_EQ(manager->GetHookedInstanceProcAddr(fake.Instance(), "vkEnumeratePhysicalDeviceGroups"), groups);
    EXPECT_EQ(manager->GetNextInstanceProcAddr(fake.Instance(), "vkEnumeratePhysicalDeviceGroups"), groups);
    EXPECT_EQ(fake.Queries("vkEnumeratePhysicalDeviceGroups"), 1);
}

}  // namespace
}  // namespace zovk_test
