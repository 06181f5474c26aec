#pragma once

// A recording stand-in for the layer or driver below libzovk. Its resolvers answer every
// name with a function of its own (recording ones for the commands the layer calls,
// inert distinct stubs for the rest) unless the name is in nullNames; every resolver
// query and call goes, in order, into `events`.

#include <set>
#include <string>
#include <vector>

#include <vulkan/vk_layer.h>
#include <vulkan/vulkan_core.h>

namespace zovk_test {

// A dispatchable object as the loader lays it out: its first word is the dispatch key.
struct FakeObject {
    void* dispatch;
};

struct Event {
    enum Kind { kQuery, kCall, kNote };
    Kind kind;
    std::string name;
    const void* handle;
};

class FakeNextLayer {
public:
    FakeNextLayer();
    ~FakeNextLayer();
    FakeNextLayer(const FakeNextLayer&) = delete;
    FakeNextLayer& operator=(const FakeNextLayer&) = delete;

    static FakeNextLayer* Current();  // null while no fake lives
    static PFN_vkVoidFunction VKAPI_CALL GetInstanceProcAddr(VkInstance instance, const char* pName);
    static PFN_vkVoidFunction VKAPI_CALL GetDeviceProcAddr(VkDevice device, const char* pName);
    // What the resolvers hand out for `name`.
    PFN_vkVoidFunction Function(const std::string& name) const;

    std::set<std::string> nullNames;
    std::vector<std::string> instanceExtensions{"VK_KHR_get_physical_device_properties2", "VK_KHR_surface"};
    std::vector<std::string> deviceExtensions{"VK_KHR_swapchain"};
    VkResult createInstanceResult = VK_SUCCESS;
    VkResult createDeviceResult = VK_SUCCESS;

    // The instance shares its key with the physical device; the device with its queue
    // and command buffer. The creates hand back `*ToCreate` (null allowed).
    int instanceDispatch = 0;
    int deviceDispatch = 0;
    FakeObject instance{&instanceDispatch};
    FakeObject physicalDevice{&instanceDispatch};
    FakeObject device{&deviceDispatch};
    FakeObject queue{&deviceDispatch};
    FakeObject commandBuffer{&deviceDispatch};
    FakeObject* instanceToCreate = &instance;
    FakeObject* deviceToCreate = &device;
    VkInstance Instance() { return reinterpret_cast<VkInstance>(&instance); }
    VkPhysicalDevice PhysicalDevice() { return reinterpret_cast<VkPhysicalDevice>(&physicalDevice); }
    VkDevice Device() { return reinterpret_cast<VkDevice>(&device); }
    VkQueue Queue() { return reinterpret_cast<VkQueue>(&queue); }
    VkCommandBuffer CommandBuffer() { return reinterpret_cast<VkCommandBuffer>(&commandBuffer); }

    // What the last creates received; seenLayerInfo is the link element's pLayerInfo.
    const void* seenInstanceCreateInfo = nullptr;
    const void* seenDeviceCreateInfo = nullptr;
    const void* seenLayerInfo = nullptr;
    uint32_t seenApiVersion = 0;
    std::vector<std::string> seenInstanceExtensions;
    std::vector<std::string> seenDeviceExtensions;

    std::vector<Event> events;
    void Note(const std::string& text) { events.push_back({Event::kNote, text, nullptr}); }
    int Count(Event::Kind kind, const std::string& name) const;
    int Queries(const std::string& name) const { return Count(Event::kQuery, name); }
    int Calls(const std::string& name) const { return Count(Event::kCall, name); }
    std::vector<std::string> CallLog() const;  // calls and notes, in order
};

// Create infos whose link element points at the fake resolvers. They point into
// themselves, so they stay put; use a fresh one per create (the layer advances the link).
struct InstanceCreate {
    explicit InstanceCreate(uint32_t apiVersion = VK_API_VERSION_1_0, std::vector<const char*> names = {});
    InstanceCreate(const InstanceCreate&) = delete;
    InstanceCreate& operator=(const InstanceCreate&) = delete;

    VkLayerInstanceLink below{};  // the next layer's own link
    VkLayerInstanceLink link{};
    VkLayerInstanceCreateInfo layerInfo{};
    VkApplicationInfo application{};
    std::vector<const char*> extensions;
    VkInstanceCreateInfo info{};
};

struct DeviceCreate {
    explicit DeviceCreate(std::vector<const char*> names = {});
    DeviceCreate(const DeviceCreate&) = delete;
    DeviceCreate& operator=(const DeviceCreate&) = delete;

    VkLayerDeviceLink below{};
    VkLayerDeviceLink link{};
    VkLayerDeviceCreateInfo layerInfo{};
    std::vector<const char*> extensions;
    VkDeviceCreateInfo info{};
};

}  // namespace zovk_test
