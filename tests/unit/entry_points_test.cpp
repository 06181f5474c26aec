// The exported entry points and the registries behind them: the layer enumeration answers, both
// address resolvers with their null-handle rules and their gating by the hook-enable flags,
// the records kept per dispatch key, and their removal by the destroy operations only.
#include <cstring>
#include <map>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "layer/zovk_context_manager.h"
#include "layer/zovk_entry.h"
#include "settings/zovk_settings.h"
#include "tests/support/fake_next_layer.h"
#include "tests/support/test_processor.h"

namespace zovk_test {
namespace {

using vulkan::zovk::GetDispatchKey;
using vulkan::zovk::ZoVkContextManager;
using vulkan::zovk::ZoVkDeviceInfo;
using vulkan::zovk::ZoVkInstanceInfo;
using vulkan::zovk::ZoVkSettings;

template <typename F>
PFN_vkVoidFunction Fn(F* fn) {
    return reinterpret_cast<PFN_vkVoidFunction>(fn);
}

PFN_vkVoidFunction SlotValue(const void* table, size_t offset) {
    return *reinterpret_cast<const PFN_vkVoidFunction*>(static_cast<const char*>(table) + offset);
}

ZoVkSettings* Settings() {
    return ZoVkSettings::GetInstance();
}

// --- enumeration ------------------------------------------------------------------------------

using LayerQuery = VkResult (*)(uint32_t*, VkLayerProperties*);
class LayerProperties : public ::testing::TestWithParam<LayerQuery> {};

TEST_P(LayerProperties, CountRules) {
    const LayerQuery query = GetParam();
    EXPECT_EQ(query(nullptr, nullptr), VK_INCOMPLETE);
    uint32_t count = 9;
    EXPECT_EQ(query(&count, nullptr), VK_SUCCESS);
    EXPECT_EQ(count, 1u);
    VkLayerProperties properties[3];
    VkLayerProperties untouched;
    std::memset(properties, 0xab, sizeof(properties));
    std::memset(&untouched, 0xab, sizeof(untouched));
    count = 0;
    EXPECT_EQ(query(&count, properties), VK_INCOMPLETE);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(std::memcmp(&properties[0], &untouched, sizeof(untouched)), 0);
    count = 3;  // one record copied whole; the caller's count is deliberately not lowered
    EXPECT_EQ(query(&count, properties), VK_SUCCESS);
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(std::memcmp(&properties[0], &kZoVkLayerProperties, sizeof(VkLayerProperties)), 0);
    EXPECT_EQ(std::memcmp(&properties[1], &untouched, sizeof(untouched)), 0);
}

INSTANTIATE_TEST_SUITE_P(
    AllThreeExports, LayerProperties,
    ::testing::Values(LayerQuery(ZoVkEnumerateInstanceLayerProperties),
                      +[](uint32_t* c, VkLayerProperties* p) { return ZoVkEnumerateDeviceLayerProperties({}, c, p); },
                      +[](uint32_t* c, VkLayerProperties* p) { return ZoVkGetDeviceLayerProperties({}, c, p); }));

TEST(Stub, ImplNamesTheLayerAndIsEnabledByBitZeroAlone) {
    EXPECT_EQ(createInstance(), static_cast<void*>(&impl));
    vulkan::IZoVkStub* stub = &impl;
    EXPECT_STREQ(stub->getLayerName(), kZoVkLayerProperties.layerName);
    EXPECT_FALSE(stub->isDebuggable());
    // Bit 0 alone decides, whatever the others say.
    Settings()->SetHookFlags(vulkan::zovk::kHookModulesConfigured | vulkan::zovk::kHookExtensionsReady);
    EXPECT_FALSE(stub->isEnabled());
    Settings()->SetHookFlags(vulkan::zovk::kHookConfigAccepted);
    EXPECT_TRUE(stub->isEnabled());
}

class EntryPoints : public ::testing::Test {
protected:
    ZoVkContextManager* manager = ZoVkContextManager::GetInstance();
    FakeNextLayer fake;

    // Records an unhooked instance and device (no flags set): everything passes through.
    void CreatePassThrough() {
        InstanceCreate instanceCreate;
        VkInstance instance = VK_NULL_HANDLE;
        ASSERT_EQ(ZoVkCreateInstance(&instanceCreate.info, nullptr, &instance), VK_SUCCESS);
        ASSERT_EQ(instance, fake.Instance());
        DeviceCreate deviceCreate;
        VkDevice device = VK_NULL_HANDLE;
        ASSERT_EQ(ZoVkCreateDevice(fake.PhysicalDevice(), &deviceCreate.info, nullptr, &device), VK_SUCCESS);
        fake.events.clear();
    }
    ZoVkInstanceInfo* InstanceRecord() { return manager->GetInstanceInfoWithLock(GetDispatchKey(fake.Instance())); }
    ZoVkDeviceInfo* DeviceRecord() { return manager->GetDeviceInfoWithLock(GetDispatchKey(fake.Device())); }
};

// --- address resolution -----------------------------------------------------------------------

// The layer answers its own entry points: the first four even without an instance, the
// last three through the device resolver too, even without a device. Every other name the
// generated tables know resolves to the next layer's function, and to nothing without a handle.
TEST_F(EntryPoints, ResolversAnswerTheLayersOwnNamesAndPassEveryOtherThrough) {
    const std::map<std::string, std::pair<PFN_vkVoidFunction, int>> own = {  // 1 without instance, 2 by device
        {"vkGetInstanceProcAddr", {Fn(ZoVkGetInstanceProcAddr), 1}},
        {"vkEnumerateInstanceExtensionProperties", {Fn(ZoVkEnumerateInstanceExtensionProperties), 1}},
        {"vkEnumerateInstanceLayerProperties", {Fn(ZoVkEnumerateInstanceLayerProperties), 1}},
        {"vkCreateInstance", {Fn(ZoVkCreateInstance), 1}},
        {"vkDestroyInstance", {Fn(ZoVkDestroyInstance), 0}},
        {"vkEnumerateDeviceLayerProperties", {Fn(ZoVkEnumerateDeviceLayerProperties), 0}},
        {"vkEnumerateDeviceExtensionProperties", {Fn(ZoVkEnumerateDeviceExtensionProperties), 0}},
        {"vkGetDeviceProcAddr", {Fn(ZoVkGetDeviceProcAddr), 2}},
        {"vkCreateDevice", {Fn(ZoVkCreateDevice), 2}},
        {"vkDestroyDevice", {Fn(ZoVkDestroyDevice), 2}},
    };
    CreatePassThrough();
    const auto check = [&](const std::string& name, bool deviceLevel) {
        const auto it = own.find(name);
        const int kind = it != own.end() ? it->second.second : -1;
        const char* n = name.c_str();
        EXPECT_EQ(ZoVkGetInstanceProcAddr(VK_NULL_HANDLE, n), kind == 1 ? it->second.first : nullptr) << name;
        EXPECT_EQ(ZoVkGetInstanceProcAddr(fake.Instance(), n), kind >= 0 ? it->second.first : fake.Function(n)) << n;
        EXPECT_EQ(ZoVkGetDeviceProcAddr(VK_NULL_HANDLE, n), kind == 2 ? it->second.first : nullptr) << name;
        if (deviceLevel || kind == 2) {
            EXPECT_EQ(ZoVkGetDeviceProcAddr(fake.Device(), n), kind == 2 ? it->second.first : fake.Function(n)) << n;
        }
    };
    for (const auto& [name, fn] : own) {
        check(name, false);
    }
    for (size_t i = 0; i < vulkan::zovk::kInstanceFunctionSlotCount; ++i) {
        check(vulkan::zovk::kInstanceFunctionSlots[i].name, false);
    }
    for (size_t i = 0; i < vulkan::zovk::kDeviceFunctionSlotCount; ++i) {
        check(vulkan::zovk::kDeviceFunctionSlots[i].name, true);
    }
    // A handle the layer never recorded resolves nothing beyond the layer's own functions.
    FakeObject stranger{&fake};
    EXPECT_EQ(ZoVkGetInstanceProcAddr(reinterpret_cast<VkInstance>(&stranger), "vkGetPhysicalDeviceFeatures2"), nullptr);
    EXPECT_EQ(ZoVkGetInstanceProcAddr(reinterpret_cast<VkInstance>(&stranger), "vkCreateDevice"), Fn(ZoVkCreateDevice));
    EXPECT_EQ(ZoVkGetDeviceProcAddr(reinterpret_cast<VkDevice>(&stranger), "vkCmdDraw"), nullptr);
}

TEST_F(EntryPoints, HooksComeBackOnlyWithAllThreeLowBitsSetAndForEveryHandleOfTheDevice) {
    ServeWithTestProcessor();
    InstanceCreate instanceCreate(VK_API_VERSION_1_0, {"VK_KHR_surface"});  // a device that can present
    VkInstance instance = VK_NULL_HANDLE;
    ASSERT_EQ(ZoVkCreateInstance(&instanceCreate.info, nullptr, &instance), VK_SUCCESS);
    DeviceCreate deviceCreate;
    VkDevice device = VK_NULL_HANDLE;
    ASSERT_EQ(ZoVkCreateDevice(fake.PhysicalDevice(), &deviceCreate.info, nullptr, &device), VK_SUCCESS);
    // Creation set bits 1 and 2; bit 0 comes from the remote configuration.
    ASSERT_EQ(Settings()->GetHookFlags(), vulkan::zovk::kHookModulesConfigured | vulkan::zovk::kHookExtensionsReady);
    for (uint32_t bits = 0; bits < 8; ++bits) {
        Settings()->ClearHookFlags(vulkan::zovk::kHookAll);
        Settings()->SetHookFlags(bits | 0x100u);  // higher bits play no part
        const bool hooked = bits == vulkan::zovk::kHookAll;
        SCOPED_TRACE(bits);
        EXPECT_EQ(ZoVkGetDeviceProcAddr(device, "vkCmdDraw"), hooked ? Fn(DrawHook) : fake.Function("vkCmdDraw"));
        EXPECT_EQ(ZoVkGetInstanceProcAddr(instance, TestProcessor::kInstanceHookName),
                  hooked ? Fn(InstanceHook) : fake.Function(TestProcessor::kInstanceHookName));
        EXPECT_EQ(ZoVkGetDeviceProcAddr(device, "vkCmdDispatch"), fake.Function("vkCmdDispatch"));
        EXPECT_EQ(ZoVkGetDeviceProcAddr(device, "vkDestroyDevice"), Fn(ZoVkDestroyDevice));
    }
    EXPECT_EQ(ZoVkGetDeviceProcAddr(reinterpret_cast<VkDevice>(fake.CommandBuffer()), "vkCmdDraw"), Fn(DrawHook));
}

// --- the registries ---------------------------------------------------------------------------

TEST_F(EntryPoints, HandlesSharingADispatchKeyFindOneRecordAndAnEqualKeyReusesIt) {
    CreatePassThrough();
    ZoVkDeviceInfo* record = DeviceRecord();
    ZoVkInstanceInfo* instanceRecord = InstanceRecord();
    ASSERT_NE(record, nullptr);
    ASSERT_NE(instanceRecord, nullptr);
    EXPECT_EQ(manager->GetDeviceInfo(GetDispatchKey(fake.Queue())), record);
    EXPECT_EQ(manager->GetDeviceInfoWithoutLock(GetDispatchKey(fake.CommandBuffer())), record);
    EXPECT_EQ(manager->GetInstanceInfo(GetDispatchKey(fake.PhysicalDevice())), instanceRecord);
    EXPECT_EQ(manager->GetInstanceInfoWithLock(GetDispatchKey(fake.Device())), nullptr) << "a device is no instance";
    // Kept as no-ops on purpose: records go only with their objects.
    manager->RemoveDeviceInfo(GetDispatchKey(fake.Device()));
    manager->RemoveInstanceInfo(GetDispatchKey(fake.Instance()));
    EXPECT_EQ(DeviceRecord(), record);

    // Marks that an unhooked insertion leaves alone: a replaced record would lose them.
    const auto mark = reinterpret_cast<PFN_vkCmdDraw>(fake.Function("vkCmdDraw"));
    record->functions.vkCmdDraw = mark;
    instanceRecord->hooked = true;
    FakeObject secondDevice{&fake.deviceDispatch};
    FakeObject secondInstance{&fake.instanceDispatch};
    manager->InitInstanceInfo(reinterpret_cast<VkInstance>(&secondInstance), FakeNextLayer::GetInstanceProcAddr,
                              VK_API_VERSION_1_3, nullptr, false);
    manager->InitDeviceInfo(fake.PhysicalDevice(), reinterpret_cast<VkDevice>(&secondDevice),
                            FakeNextLayer::GetDeviceProcAddr, VK_API_VERSION_1_3, nullptr, false);
    ASSERT_EQ(DeviceRecord(), record);
    EXPECT_EQ(record->functions.vkCmdDraw, mark);
    EXPECT_EQ(record->device, reinterpret_cast<VkDevice>(&secondDevice));
    ASSERT_EQ(InstanceRecord(), instanceRecord);
    EXPECT_TRUE(instanceRecord->hooked);
    EXPECT_EQ(instanceRecord->instance, reinterpret_cast<VkInstance>(&secondInstance));
}

TEST_F(EntryPoints, UnhookedRecordsHoldTheLifecycleFunctionsAndKeepNothingElse) {
    const std::set<std::string> lifecycle = {"vkGetInstanceProcAddr", "vkDestroyInstance", "vkCreateDevice",
                                             "vkEnumerateDeviceExtensionProperties", "vkGetDeviceProcAddr",
                                             "vkDestroyDevice"};
    manager->InitInstanceInfo(fake.Instance(), FakeNextLayer::GetInstanceProcAddr, VK_API_VERSION_1_2, nullptr, false);
    manager->InitDeviceInfo(fake.PhysicalDevice(), fake.Device(), FakeNextLayer::GetDeviceProcAddr,
                            VK_API_VERSION_1_2, nullptr, false);
    EXPECT_EQ(fake.events.size(), 4u) << "only the lifecycle functions were asked for, each once";
    ZoVkInstanceInfo* instanceRecord = InstanceRecord();
    ZoVkDeviceInfo* deviceRecord = DeviceRecord();
    ASSERT_NE(instanceRecord, nullptr);
    ASSERT_NE(deviceRecord, nullptr);
    EXPECT_TRUE(instanceRecord->functionMap.empty());
    EXPECT_TRUE(deviceRecord->functionMap.empty());
    const auto expected = [&](const char* name) { return lifecycle.count(name) ? fake.Function(name) : nullptr; };
    for (size_t i = 0; i < vulkan::zovk::kInstanceFunctionSlotCount; ++i) {
        const auto& slot = vulkan::zovk::kInstanceFunctionSlots[i];
        EXPECT_EQ(SlotValue(&instanceRecord->functions, slot.offset), expected(slot.name)) << slot.name;
    }
    for (size_t i = 0; i < vulkan::zovk::kDeviceFunctionSlotCount; ++i) {
        const auto& slot = vulkan::zovk::kDeviceFunctionSlots[i];
        EXPECT_EQ(SlotValue(&deviceRecord->functions, slot.offset), expected(slot.name)) << slot.name;
    }
    // Every name is asked of the next layer again each time, with the handle given, and kept nowhere.
    fake.events.clear();
    for (int i = 0; i < 2; ++i) {
        manager->GetHookedDeviceProcAddr(reinterpret_cast<VkDevice>(fake.Queue()), "vkCmdDraw");
        manager->GetNextInstanceProcAddr(fake.Instance(), "vkGetPhysicalDeviceFeatures2");
    }
    EXPECT_EQ(fake.Queries("vkCmdDraw") + fake.Queries("vkGetPhysicalDeviceFeatures2"), 4);
    EXPECT_EQ(fake.events.front().handle, static_cast<const void*>(fake.Queue()));
    EXPECT_EQ(deviceRecord->functions.vkCmdDraw, nullptr);
    EXPECT_EQ(instanceRecord->functions.vkGetPhysicalDeviceFeatures2, nullptr);
}

TEST_F(EntryPoints, DestroyCallsTheFunctionResolvedAtCreationOnceAndUnknownHandlesReachNothing) {
    CreatePassThrough();
    ZoVkDestroyDevice(fake.Device(), nullptr);
    EXPECT_EQ(DeviceRecord(), nullptr);
    EXPECT_EQ(manager->GetDeviceInfo(GetDispatchKey(fake.Queue())), nullptr);
    ZoVkDestroyInstance(fake.Instance(), nullptr);
    EXPECT_EQ(InstanceRecord(), nullptr);
    // Nothing is resolved again: that would ask a loader that answers from the top of the chain.
    ASSERT_EQ(fake.events.size(), 2u);
    EXPECT_EQ(fake.CallLog(), (std::vector<std::string>{"vkDestroyDevice", "vkDestroyInstance"}));
    EXPECT_EQ(fake.events[0].handle, static_cast<const void*>(fake.Device()));

    // The unhooked resolution of unknown handles is the resolver test's; these are the hooked.
    FakeObject stranger{&fake};
    const auto device = reinterpret_cast<VkDevice>(&stranger);
    const auto instance = reinterpret_cast<VkInstance>(&stranger);
    EXPECT_EQ(manager->GetHookedDeviceProcAddr(device, "vkCmdDraw"), nullptr);
    EXPECT_EQ(manager->GetHookedInstanceProcAddr(instance, "vkCmdDraw"), nullptr);
    for (const VkDevice d : {fake.Device(), device, VkDevice(VK_NULL_HANDLE)}) {  // the first: a second destroy
        ZoVkDestroyDevice(d, nullptr);
    }
    for (const VkInstance i : {fake.Instance(), instance, VkInstance(VK_NULL_HANDLE)}) {
        ZoVkDestroyInstance(i, nullptr);
    }
    EXPECT_EQ(fake.events.size(), 2u);
}

}  // namespace
}  // namespace zovk_test
