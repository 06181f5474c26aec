#pragma once

// A recording stand-in for the layer or driver below libzovk. Its resolvers answer every
// name with a function of its own (recording ones for the commands the layer calls,
// inert distinct stubs for the rest) unless the name is in nullNames; every resolver
// query and call goes, in order, into `events`, with what matters of its arguments.
//
// For the modules and the shading-rate builder it is a small device: creates hand out
// fresh handles (or fail, for names in failNames), memory maps onto `mapped`, command
// buffers are dispatchable objects of the device, its one queue is `queue`, and the physical device
// reports one memory type of every kind, one graphics family and `texelSize`.

#include <cstdint>
#include <functional>
#include <memory>
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
    // The arguments that matter, as text: handles in hex ("pass=1002 framebuffer=1005"), a
    // rate as "2x2 KEEP,REPLACE", what a create made as "made=1003".
    std::string args;
};

// A handle as the fake's argument texts print it.
std::string Hex(uint64_t value);
template <typename Handle>
std::string Hex(Handle handle) {
    return Hex(static_cast<uint64_t>(reinterpret_cast<uintptr_t>(handle)));
}

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

    // What the last creates received.
    const void* seenInstanceCreateInfo = nullptr;
    const void* seenDeviceCreateInfo = nullptr;
    uint32_t seenApiVersion = 0;
    std::vector<std::string> seenInstanceExtensions;
    std::vector<std::string> seenDeviceExtensions;

    // The small device.
    std::set<std::string> failNames;  // creates and allocations that fail
    VkExtent2D texelSize{16, 16};     // the largest shading-rate attachment texel size
    std::vector<unsigned char> mapped = std::vector<unsigned char>(1 << 20);
    uint64_t nextHandle = 0x1000;
    std::vector<std::unique_ptr<FakeObject>> made;  // command buffers
    std::function<void(const VkRenderPassCreateInfo&)> onRenderPass;
    std::function<void(const VkRenderPassCreateInfo2&)> onRenderPass2;
    std::function<void(const VkGraphicsPipelineCreateInfo&)> onPipeline;
    std::function<void(const VkImageCreateInfo&)> onImage;
    // For the resource helper: what memory requirements allow, and the binds the events leave out.
    uint32_t memoryTypeBits = 0x3f;
    std::function<void(const char* name, uint64_t object, VkDeviceMemory memory)> onBind;
    // The loader's callback for objects a layer obtains itself: records "setDeviceLoaderData"
    // with the object, or fails for that name in failNames.
    static VkResult VKAPI_CALL SetDeviceLoaderData(VkDevice device, void* object);

    std::vector<Event> events;
    void Note(const std::string& text) { events.push_back({Event::kNote, text, nullptr, {}}); }
    int Count(Event::Kind kind, const std::string& name) const;
    int Queries(const std::string& name) const { return Count(Event::kQuery, name); }
    int Calls(const std::string& name) const { return Count(Event::kCall, name); }
    std::vector<std::string> CallLog() const;  // calls and notes, in order
    // The argument texts of every call of `name`, in order.
    std::vector<std::string> Args(const std::string& name) const;
    // Calls as "name args", in order, of the names given (all calls when none are).
    std::vector<std::string> Log(const std::set<std::string>& names = {}) const;
    void Clear() { events.clear(); }
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
