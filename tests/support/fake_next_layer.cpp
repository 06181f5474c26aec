#include "tests/support/fake_next_layer.h"

#include <array>
#include <cstdio>
#include <map>
#include <utility>

namespace zovk_test {

namespace {

FakeNextLayer* gCurrent = nullptr;

void Record(Event::Kind kind, const char* name, const void* handle) {
    if (gCurrent != nullptr) {
        gCurrent->events.push_back({kind, name, handle});
    }
}

// Distinct addresses for every other name, so a test can tell which name a slot was
// filled from. Each touches its own counter so that no optimiser folds them together.
constexpr size_t kStubCount = 640;
int gStubHits[kStubCount];

template <size_t I>
void VKAPI_CALL Stub() {
    ++gStubHits[I];
}

template <size_t... I>
constexpr std::array<PFN_vkVoidFunction, sizeof...(I)> MakeStubs(std::index_sequence<I...>) {
    return {&Stub<I>...};
}

PFN_vkVoidFunction StubFor(const std::string& name) {
    static constexpr auto stubs = MakeStubs(std::make_index_sequence<kStubCount>());
    static std::map<std::string, size_t> assigned;  // per process: a name keeps its stub
    return stubs.at(assigned.emplace(name, assigned.size()).first->second);
}

std::vector<std::string> Names(const char* const* names, uint32_t count) {
    return names == nullptr ? std::vector<std::string>() : std::vector<std::string>(names, names + count);
}

template <typename LayerCreateInfo>
const void* LinkOf(const void* pNext, VkStructureType sType) {
    for (auto* p = static_cast<const VkBaseInStructure*>(pNext); p != nullptr; p = p->pNext) {
        if (p->sType == sType) {
            return reinterpret_cast<const LayerCreateInfo*>(p)->u.pLayerInfo;
        }
    }
    return nullptr;
}

VkResult Enumerate(const std::vector<std::string>& offered, uint32_t* pCount, VkExtensionProperties* pProperties) {
    if (pProperties == nullptr) {
        *pCount = static_cast<uint32_t>(offered.size());
        return VK_SUCCESS;
    }
    const uint32_t n = std::min<uint32_t>(*pCount, static_cast<uint32_t>(offered.size()));
    for (uint32_t i = 0; i < n; ++i) {
        pProperties[i] = {};
        std::snprintf(pProperties[i].extensionName, VK_MAX_EXTENSION_NAME_SIZE, "%s", offered[i].c_str());
    }
    *pCount = n;
    return n < offered.size() ? VK_INCOMPLETE : VK_SUCCESS;
}

VKAPI_ATTR VkResult VKAPI_CALL CreateInstance(const VkInstanceCreateInfo* pCreateInfo, const VkAllocationCallbacks*,
                                              VkInstance* pInstance) {
    Record(Event::kCall, "vkCreateInstance", nullptr);
    FakeNextLayer& fake = *gCurrent;
    fake.seenInstanceCreateInfo = pCreateInfo;
    fake.seenApiVersion = pCreateInfo->pApplicationInfo->apiVersion;
    fake.seenInstanceExtensions = Names(pCreateInfo->ppEnabledExtensionNames, pCreateInfo->enabledExtensionCount);
    fake.seenLayerInfo =
        LinkOf<VkLayerInstanceCreateInfo>(pCreateInfo->pNext, VK_STRUCTURE_TYPE_LOADER_INSTANCE_CREATE_INFO);
    if (fake.createInstanceResult >= 0) {
        *pInstance = reinterpret_cast<VkInstance>(fake.instanceToCreate);
    }
    return fake.createInstanceResult;
}

VKAPI_ATTR VkResult VKAPI_CALL CreateDevice(VkPhysicalDevice physicalDevice, const VkDeviceCreateInfo* pCreateInfo,
                                            const VkAllocationCallbacks*, VkDevice* pDevice) {
    Record(Event::kCall, "vkCreateDevice", physicalDevice);
    FakeNextLayer& fake = *gCurrent;
    fake.seenDeviceCreateInfo = pCreateInfo;
    fake.seenDeviceExtensions = Names(pCreateInfo->ppEnabledExtensionNames, pCreateInfo->enabledExtensionCount);
    fake.seenLayerInfo =
        LinkOf<VkLayerDeviceCreateInfo>(pCreateInfo->pNext, VK_STRUCTURE_TYPE_LOADER_DEVICE_CREATE_INFO);
    if (fake.createDeviceResult >= 0) {
        *pDevice = reinterpret_cast<VkDevice>(fake.deviceToCreate);
    }
    return fake.createDeviceResult;
}

VKAPI_ATTR VkResult VKAPI_CALL EnumerateInstanceExtensions(const char*, uint32_t* pCount,
                                                           VkExtensionProperties* pProperties) {
    Record(Event::kCall, "vkEnumerateInstanceExtensionProperties", nullptr);
    return Enumerate(gCurrent->instanceExtensions, pCount, pProperties);
}

VKAPI_ATTR VkResult VKAPI_CALL EnumerateDeviceExtensions(VkPhysicalDevice physicalDevice, const char*,
                                                         uint32_t* pCount, VkExtensionProperties* pProperties) {
    Record(Event::kCall, "vkEnumerateDeviceExtensionProperties", physicalDevice);
    return Enumerate(gCurrent->deviceExtensions, pCount, pProperties);
}

// The remaining recording functions only say that they ran, and on what.
#define ZOVK_FAKE(Name, Ret, Handle, ...)                          \
    VKAPI_ATTR Ret VKAPI_CALL Fake_##Name(Handle h, __VA_ARGS__) { \
        Record(Event::kCall, #Name, h);                            \
        return Ret();                                              \
    }
ZOVK_FAKE(vkDestroyInstance, void, VkInstance, const VkAllocationCallbacks*)
ZOVK_FAKE(vkDestroyDevice, void, VkDevice, const VkAllocationCallbacks*)
ZOVK_FAKE(vkCmdDraw, void, VkCommandBuffer, uint32_t, uint32_t, uint32_t, uint32_t)
ZOVK_FAKE(vkCmdSetCullMode, void, VkCommandBuffer, VkCullModeFlags)
ZOVK_FAKE(vkGetPhysicalDeviceFeatures2, void, VkPhysicalDevice, VkPhysicalDeviceFeatures2*)
ZOVK_FAKE(vkGetPhysicalDeviceFeatures2KHR, void, VkPhysicalDevice, VkPhysicalDeviceFeatures2*)
ZOVK_FAKE(vkQueuePresentKHR, VkResult, VkQueue, const VkPresentInfoKHR*)
#undef ZOVK_FAKE

const std::map<std::string, PFN_vkVoidFunction>& OwnFunctions() {
    const auto fn = [](auto f) { return reinterpret_cast<PFN_vkVoidFunction>(f); };
    static const std::map<std::string, PFN_vkVoidFunction> functions = {
        {"vkGetInstanceProcAddr", fn(FakeNextLayer::GetInstanceProcAddr)},
        {"vkGetDeviceProcAddr", fn(FakeNextLayer::GetDeviceProcAddr)},
        {"vkCreateInstance", fn(CreateInstance)},
        {"vkCreateDevice", fn(CreateDevice)},
        {"vkEnumerateInstanceExtensionProperties", fn(EnumerateInstanceExtensions)},
        {"vkEnumerateDeviceExtensionProperties", fn(EnumerateDeviceExtensions)},
        {"vkDestroyInstance", fn(Fake_vkDestroyInstance)},
        {"vkDestroyDevice", fn(Fake_vkDestroyDevice)},
        {"vkCmdDraw", fn(Fake_vkCmdDraw)},
        {"vkCmdSetCullMode", fn(Fake_vkCmdSetCullMode)},
        {"vkGetPhysicalDeviceFeatures2", fn(Fake_vkGetPhysicalDeviceFeatures2)},
        {"vkGetPhysicalDeviceFeatures2KHR", fn(Fake_vkGetPhysicalDeviceFeatures2KHR)},
        {"vkQueuePresentKHR", fn(Fake_vkQueuePresentKHR)},
    };
    return functions;
}

}  // namespace

FakeNextLayer::FakeNextLayer() {
    gCurrent = this;
}

FakeNextLayer::~FakeNextLayer() {
    gCurrent = nullptr;
}

FakeNextLayer* FakeNextLayer::Current() {
    return gCurrent;
}

PFN_vkVoidFunction FakeNextLayer::Function(const std::string& name) const {
    if (nullNames.count(name) != 0) {
        return nullptr;
    }
    const auto it = OwnFunctions().find(name);
    return it != OwnFunctions().end() ? it->second : StubFor(name);
}

PFN_vkVoidFunction VKAPI_CALL FakeNextLayer::GetInstanceProcAddr(VkInstance instance, const char* pName) {
    Record(Event::kQuery, pName, instance);
    return gCurrent != nullptr ? gCurrent->Function(pName) : nullptr;
}

PFN_vkVoidFunction VKAPI_CALL FakeNextLayer::GetDeviceProcAddr(VkDevice device, const char* pName) {
    Record(Event::kQuery, pName, device);
    return gCurrent != nullptr ? gCurrent->Function(pName) : nullptr;
}

int FakeNextLayer::Count(Event::Kind kind, const std::string& name) const {
    int n = 0;
    for (const Event& e : events) {
        n += e.kind == kind && e.name == name ? 1 : 0;
    }
    return n;
}

std::vector<std::string> FakeNextLayer::CallLog() const {
    std::vector<std::string> log;
    for (const Event& e : events) {
        if (e.kind != Event::kQuery) {
            log.push_back(e.name);
        }
    }
    return log;
}

InstanceCreate::InstanceCreate(uint32_t apiVersion, std::vector<const char*> names) : extensions(std::move(names)) {
    link = {&below, FakeNextLayer::GetInstanceProcAddr, nullptr};
    layerInfo.sType = VK_STRUCTURE_TYPE_LOADER_INSTANCE_CREATE_INFO;
    layerInfo.function = VK_LAYER_LINK_INFO;
    layerInfo.u.pLayerInfo = &link;
    application = {VK_STRUCTURE_TYPE_APPLICATION_INFO, nullptr, "unit", 1, nullptr, 0, apiVersion};
    info.sType = VK_STRUCTURE_TYPE_INSTANCE_CREATE_INFO;
    info.pNext = &layerInfo;
    info.pApplicationInfo = &application;
    info.enabledExtensionCount = static_cast<uint32_t>(extensions.size());
    info.ppEnabledExtensionNames = extensions.empty() ? nullptr : extensions.data();
}

DeviceCreate::DeviceCreate(std::vector<const char*> names) : extensions(std::move(names)) {
    link = {&below, FakeNextLayer::GetInstanceProcAddr, FakeNextLayer::GetDeviceProcAddr};
    layerInfo.sType = VK_STRUCTURE_TYPE_LOADER_DEVICE_CREATE_INFO;
    layerInfo.function = VK_LAYER_LINK_INFO;
    layerInfo.u.pLayerInfo = &link;
    info.sType = VK_STRUCTURE_TYPE_DEVICE_CREATE_INFO;
    info.pNext = &layerInfo;
    info.enabledExtensionCount = static_cast<uint32_t>(extensions.size());
    info.ppEnabledExtensionNames = extensions.empty() ? nullptr : extensions.data();
}

}  // namespace zovk_test
