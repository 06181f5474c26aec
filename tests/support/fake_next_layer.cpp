#include "tests/support/fake_next_layer.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <mutex>
#include <utility>

namespace zovk_test {

namespace {

FakeNextLayer* gCurrent = nullptr;

// Concurrency tests call from several threads at once.
std::mutex gRecordLock;

void Record(Event::Kind kind, const char* name, const void* handle, std::string args = {}) {
    std::lock_guard<std::mutex> lock(gRecordLock);
    if (gCurrent != nullptr) {
        gCurrent->events.push_back({kind, name, handle, std::move(args)});
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

// The remaining recording functions say that they ran, on what, and with what.
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
ZOVK_FAKE(vkQueueSubmit, VkResult, VkQueue, uint32_t, const VkSubmitInfo*, VkFence)
ZOVK_FAKE(vkUnmapMemory, void, VkDevice, VkDeviceMemory)
#undef ZOVK_FAKE
VKAPI_ATTR void VKAPI_CALL Fake_vkFreeCommandBuffers(VkDevice d, VkCommandPool, uint32_t, const VkCommandBuffer*) {
    Record(Event::kCall, "vkFreeCommandBuffers", d);
}
VKAPI_ATTR void VKAPI_CALL Fake_vkCmdEndRenderPass(VkCommandBuffer c) { Record(Event::kCall, "vkCmdEndRenderPass", c); }
VKAPI_ATTR VkResult VKAPI_CALL Fake_vkEndCommandBuffer(VkCommandBuffer c) {
    Record(Event::kCall, "vkEndCommandBuffer", c);
    return VK_SUCCESS;
}
VKAPI_ATTR VkResult VKAPI_CALL Fake_vkQueueWaitIdle(VkQueue q) {
    Record(Event::kCall, "vkQueueWaitIdle", q);
    return VK_SUCCESS;
}

// Creates: a fresh handle, or an error and a null handle for a name in failNames.
template <typename Handle>
VkResult Make(const char* name, const void* on, Handle* out, std::string args = {}) {
    FakeNextLayer& fake = *gCurrent;
    const bool fail = fake.failNames.count(name) != 0;
    {
        std::lock_guard<std::mutex> lock(gRecordLock);
        *out = fail ? Handle() : reinterpret_cast<Handle>(static_cast<uintptr_t>(fake.nextHandle++));
    }
    Record(Event::kCall, name, on, args + (args.empty() ? "" : " ") + "made=" + Hex(*out));
    return fail ? VK_ERROR_OUT_OF_DEVICE_MEMORY : VK_SUCCESS;
}

template <typename Info>
void Observe(const std::function<void(const Info&)>& observer, const Info* info) {
    if (observer && info != nullptr) observer(*info);
}

#define ZOVK_FAKE_DESTROY(Name, Handle)                                                     \
    VKAPI_ATTR void VKAPI_CALL Fake_##Name(VkDevice d, Handle h, const VkAllocationCallbacks*) { \
        Record(Event::kCall, #Name, d, Hex(h));                                             \
    }
ZOVK_FAKE_DESTROY(vkDestroyRenderPass, VkRenderPass)
ZOVK_FAKE_DESTROY(vkDestroyFramebuffer, VkFramebuffer)
ZOVK_FAKE_DESTROY(vkDestroyPipeline, VkPipeline)
ZOVK_FAKE_DESTROY(vkDestroyImage, VkImage)
ZOVK_FAKE_DESTROY(vkDestroyImageView, VkImageView)
ZOVK_FAKE_DESTROY(vkDestroyBuffer, VkBuffer)
ZOVK_FAKE_DESTROY(vkDestroyCommandPool, VkCommandPool)
ZOVK_FAKE_DESTROY(vkFreeMemory, VkDeviceMemory)
ZOVK_FAKE_DESTROY(vkDestroyFence, VkFence)
#undef ZOVK_FAKE_DESTROY

// clang-format off
VKAPI_ATTR VkResult VKAPI_CALL Fake_vkCreateRenderPass(VkDevice d, const VkRenderPassCreateInfo* i, const VkAllocationCallbacks*, VkRenderPass* o) {
    Observe(gCurrent->onRenderPass, i);
    return Make("vkCreateRenderPass", d, o, "attachments=" + std::to_string(i->attachmentCount));
}
VKAPI_ATTR VkResult VKAPI_CALL Fake_vkCreateRenderPass2(VkDevice d, const VkRenderPassCreateInfo2* i, const VkAllocationCallbacks*, VkRenderPass* o) {
    Observe(gCurrent->onRenderPass2, i);
    return Make("vkCreateRenderPass2", d, o, "attachments=" + std::to_string(i->attachmentCount));
}
VKAPI_ATTR VkResult VKAPI_CALL Fake_vkCreateFramebuffer(VkDevice d, const VkFramebufferCreateInfo* i, const VkAllocationCallbacks*, VkFramebuffer* o) {
    return Make("vkCreateFramebuffer", d, o, "pass=" + Hex(i->renderPass) + " attachments=" + std::to_string(i->attachmentCount));
}
VKAPI_ATTR VkResult VKAPI_CALL Fake_vkCreateGraphicsPipelines(VkDevice d, VkPipelineCache, uint32_t n, const VkGraphicsPipelineCreateInfo* i, const VkAllocationCallbacks*, VkPipeline* o) {
    VkResult result = VK_SUCCESS;
    for (uint32_t k = 0; i != nullptr && k < n; ++k) {
        Observe(gCurrent->onPipeline, &i[k]);
        const VkResult one = Make("vkCreateGraphicsPipelines", d, &o[k], "pass=" + Hex(i[k].renderPass));
        result = one != VK_SUCCESS ? one : result;
    }
    return result;
}
VKAPI_ATTR VkResult VKAPI_CALL Fake_vkCreateImage(VkDevice d, const VkImageCreateInfo* i, const VkAllocationCallbacks*, VkImage* o) {
    Observe(gCurrent->onImage, i);
    return Make("vkCreateImage", d, o, std::to_string(i->extent.width) + "x" + std::to_string(i->extent.height));
}
VKAPI_ATTR VkResult VKAPI_CALL Fake_vkCreateImageView(VkDevice d, const VkImageViewCreateInfo* i, const VkAllocationCallbacks*, VkImageView* o) { return Make("vkCreateImageView", d, o, "image=" + Hex(i->image)); }
VKAPI_ATTR VkResult VKAPI_CALL Fake_vkCreateBuffer(VkDevice d, const VkBufferCreateInfo* i, const VkAllocationCallbacks*, VkBuffer* o) { return Make("vkCreateBuffer", d, o, "size=" + std::to_string(i->size)); }
VKAPI_ATTR VkResult VKAPI_CALL Fake_vkAllocateMemory(VkDevice d, const VkMemoryAllocateInfo* i, const VkAllocationCallbacks*, VkDeviceMemory* o) { return Make("vkAllocateMemory", d, o, "type=" + std::to_string(i->memoryTypeIndex)); }
VKAPI_ATTR VkResult VKAPI_CALL Fake_vkCreateFence(VkDevice d, const VkFenceCreateInfo*, const VkAllocationCallbacks*, VkFence* o) { return Make("vkCreateFence", d, o); }
// Every fence has signalled.
VKAPI_ATTR VkResult VKAPI_CALL Fake_vkGetFenceStatus(VkDevice d, VkFence f) { Record(Event::kCall, "vkGetFenceStatus", d, Hex(f)); return VK_SUCCESS; }
VKAPI_ATTR VkResult VKAPI_CALL Fake_vkWaitForFences(VkDevice d, uint32_t n, const VkFence*, VkBool32, uint64_t) { Record(Event::kCall, "vkWaitForFences", d, std::to_string(n)); return VK_SUCCESS; }
VKAPI_ATTR VkResult VKAPI_CALL Fake_vkCreateCommandPool(VkDevice d, const VkCommandPoolCreateInfo* i, const VkAllocationCallbacks*, VkCommandPool* o) { return Make("vkCreateCommandPool", d, o, "family=" + std::to_string(i->queueFamilyIndex)); }
template <typename Handle>
VkResult Bind(const char* name, Handle object, VkDeviceMemory memory) {
    if (gCurrent->onBind) gCurrent->onBind(name, static_cast<uint64_t>(reinterpret_cast<uintptr_t>(object)), memory);
    return VK_SUCCESS;
}
VKAPI_ATTR VkResult VKAPI_CALL Fake_vkBindImageMemory(VkDevice, VkImage i, VkDeviceMemory m, VkDeviceSize) { return Bind("vkBindImageMemory", i, m); }
VKAPI_ATTR VkResult VKAPI_CALL Fake_vkBindBufferMemory(VkDevice, VkBuffer b, VkDeviceMemory m, VkDeviceSize) { return Bind("vkBindBufferMemory", b, m); }
VKAPI_ATTR void VKAPI_CALL Fake_vkGetImageMemoryRequirements(VkDevice, VkImage, VkMemoryRequirements* r) { *r = {256, 16, gCurrent->memoryTypeBits}; }
VKAPI_ATTR void VKAPI_CALL Fake_vkGetBufferMemoryRequirements(VkDevice, VkBuffer, VkMemoryRequirements* r) { *r = {256, 16, gCurrent->memoryTypeBits}; }
VKAPI_ATTR VkResult VKAPI_CALL Fake_vkMapMemory(VkDevice d, VkDeviceMemory m, VkDeviceSize, VkDeviceSize, VkMemoryMapFlags, void** p) {
    Record(Event::kCall, "vkMapMemory", d, Hex(m));
    *p = gCurrent->mapped.data();
    return VK_SUCCESS;
}
// Memory types: device-local, host-visible and coherent, both, host-visible only.
VKAPI_ATTR void VKAPI_CALL Fake_vkGetPhysicalDeviceMemoryProperties(VkPhysicalDevice, VkPhysicalDeviceMemoryProperties* p) {
    *p = {};
    const VkMemoryPropertyFlags local = VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT;
    const VkMemoryPropertyFlags host = VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT | VK_MEMORY_PROPERTY_HOST_COHERENT_BIT;
    const VkMemoryPropertyFlags types[] = {local, host, local | host, VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT};
    p->memoryTypeCount = 4;
    for (uint32_t k = 0; k < 4; ++k) p->memoryTypes[k].propertyFlags = types[k];
}
VKAPI_ATTR void VKAPI_CALL Fake_vkGetPhysicalDeviceQueueFamilyProperties(VkPhysicalDevice, uint32_t* n, VkQueueFamilyProperties* p) {
    if (p != nullptr && *n > 0) p[0] = {VK_QUEUE_GRAPHICS_BIT | VK_QUEUE_TRANSFER_BIT, 1, 0, {1, 1, 1}};
    *n = 1;
}
VKAPI_ATTR void VKAPI_CALL Fake_vkGetPhysicalDeviceProperties2(VkPhysicalDevice, VkPhysicalDeviceProperties2* p) {
    for (auto* s = static_cast<VkBaseOutStructure*>(p->pNext); s != nullptr; s = s->pNext) {
        if (s->sType == VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FRAGMENT_SHADING_RATE_PROPERTIES_KHR) {
            reinterpret_cast<VkPhysicalDeviceFragmentShadingRatePropertiesKHR*>(s)->maxFragmentShadingRateAttachmentTexelSize = gCurrent->texelSize;
        }
    }
}
// Command buffers are dispatchable objects of the device: they share its dispatch key.
VKAPI_ATTR VkResult VKAPI_CALL Fake_vkAllocateCommandBuffers(VkDevice d, const VkCommandBufferAllocateInfo* i, VkCommandBuffer* o) {
    for (uint32_t k = 0; k < i->commandBufferCount; ++k) {
        gCurrent->made.push_back(std::make_unique<FakeObject>(FakeObject{&gCurrent->deviceDispatch}));
        o[k] = reinterpret_cast<VkCommandBuffer>(gCurrent->made.back().get());
    }
    Record(Event::kCall, "vkAllocateCommandBuffers", d, "pool=" + Hex(i->commandPool));
    return VK_SUCCESS;
}
// The device has one queue, the application's.
VKAPI_ATTR void VKAPI_CALL Fake_vkGetDeviceQueue(VkDevice d, uint32_t family, uint32_t, VkQueue* q) {
    *q = gCurrent->Queue();
    Record(Event::kCall, "vkGetDeviceQueue", d, "family=" + std::to_string(family));
}
VKAPI_ATTR VkResult VKAPI_CALL Fake_vkBeginCommandBuffer(VkCommandBuffer c, const VkCommandBufferBeginInfo* b) {
    const VkCommandBufferInheritanceInfo* i = b != nullptr ? b->pInheritanceInfo : nullptr;
    Record(Event::kCall, "vkBeginCommandBuffer", c, i == nullptr ? "" : "pass=" + Hex(i->renderPass) + " framebuffer=" + Hex(i->framebuffer));
    return VK_SUCCESS;
}
VKAPI_ATTR void VKAPI_CALL Fake_vkCmdBeginRenderPass(VkCommandBuffer c, const VkRenderPassBeginInfo* b, VkSubpassContents) {
    Record(Event::kCall, "vkCmdBeginRenderPass", c, "pass=" + Hex(b->renderPass) + " framebuffer=" + Hex(b->framebuffer));
}
VKAPI_ATTR void VKAPI_CALL Fake_vkCmdBindPipeline(VkCommandBuffer c, VkPipelineBindPoint, VkPipeline p) { Record(Event::kCall, "vkCmdBindPipeline", c, "pipeline=" + Hex(p)); }
VKAPI_ATTR void VKAPI_CALL Fake_vkCmdDrawIndexed(VkCommandBuffer c, uint32_t indices, uint32_t instances, uint32_t, int32_t, uint32_t) {
    Record(Event::kCall, "vkCmdDrawIndexed", c, std::to_string(indices) + "x" + std::to_string(instances));
}
VKAPI_ATTR void VKAPI_CALL Fake_vkCmdExecuteCommands(VkCommandBuffer c, uint32_t n, const VkCommandBuffer*) { Record(Event::kCall, "vkCmdExecuteCommands", c, std::to_string(n)); }
VKAPI_ATTR void VKAPI_CALL Fake_vkCmdSetFragmentShadingRateKHR(VkCommandBuffer c, const VkExtent2D* size, const VkFragmentShadingRateCombinerOpKHR ops[2]) {
    const auto op = [](VkFragmentShadingRateCombinerOpKHR o) { return o == VK_FRAGMENT_SHADING_RATE_COMBINER_OP_KEEP_KHR ? "KEEP" : o == VK_FRAGMENT_SHADING_RATE_COMBINER_OP_REPLACE_KHR ? "REPLACE" : "OTHER"; };
    Record(Event::kCall, "vkCmdSetFragmentShadingRateKHR", c, std::to_string(size->width) + "x" + std::to_string(size->height) + " " + op(ops[0]) + "," + op(ops[1]));
}
VKAPI_ATTR void VKAPI_CALL Fake_vkCmdPipelineBarrier(VkCommandBuffer c, VkPipelineStageFlags, VkPipelineStageFlags, VkDependencyFlags, uint32_t, const VkMemoryBarrier*, uint32_t, const VkBufferMemoryBarrier*, uint32_t n, const VkImageMemoryBarrier* b) {
    Record(Event::kCall, "vkCmdPipelineBarrier", c, n == 0 ? "" : "image=" + Hex(b[0].image) + " " + std::to_string(b[0].oldLayout) + "->" + std::to_string(b[0].newLayout));
}
VKAPI_ATTR void VKAPI_CALL Fake_vkCmdCopyBufferToImage(VkCommandBuffer c, VkBuffer b, VkImage i, VkImageLayout layout, uint32_t, const VkBufferImageCopy*) {
    Record(Event::kCall, "vkCmdCopyBufferToImage", c, "buffer=" + Hex(b) + " image=" + Hex(i) + " layout=" + std::to_string(layout));
}
// clang-format on

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
#define ZOVK_OWN(Name) {#Name, fn(Fake_##Name)},
        ZOVK_OWN(vkCmdEndRenderPass) ZOVK_OWN(vkEndCommandBuffer) ZOVK_OWN(vkQueueWaitIdle) ZOVK_OWN(vkQueueSubmit)
        ZOVK_OWN(vkUnmapMemory) ZOVK_OWN(vkFreeCommandBuffers) ZOVK_OWN(vkDestroyRenderPass)
        ZOVK_OWN(vkDestroyFramebuffer) ZOVK_OWN(vkDestroyPipeline) ZOVK_OWN(vkDestroyImage)
        ZOVK_OWN(vkDestroyImageView) ZOVK_OWN(vkDestroyBuffer) ZOVK_OWN(vkDestroyCommandPool) ZOVK_OWN(vkFreeMemory)
        ZOVK_OWN(vkCreateRenderPass) ZOVK_OWN(vkCreateRenderPass2) ZOVK_OWN(vkCreateFramebuffer)
        ZOVK_OWN(vkCreateGraphicsPipelines) ZOVK_OWN(vkCreateImage) ZOVK_OWN(vkCreateImageView)
        ZOVK_OWN(vkCreateBuffer) ZOVK_OWN(vkAllocateMemory) ZOVK_OWN(vkCreateCommandPool) ZOVK_OWN(vkBindImageMemory)
        ZOVK_OWN(vkBindBufferMemory) ZOVK_OWN(vkGetImageMemoryRequirements) ZOVK_OWN(vkGetBufferMemoryRequirements)
        ZOVK_OWN(vkMapMemory) ZOVK_OWN(vkGetPhysicalDeviceMemoryProperties)
        ZOVK_OWN(vkGetPhysicalDeviceQueueFamilyProperties) ZOVK_OWN(vkGetPhysicalDeviceProperties2)
        ZOVK_OWN(vkAllocateCommandBuffers) ZOVK_OWN(vkGetDeviceQueue) ZOVK_OWN(vkBeginCommandBuffer)
        ZOVK_OWN(vkCmdBeginRenderPass) ZOVK_OWN(vkCmdBindPipeline) ZOVK_OWN(vkCmdDrawIndexed)
        ZOVK_OWN(vkCmdExecuteCommands) ZOVK_OWN(vkCmdSetFragmentShadingRateKHR) ZOVK_OWN(vkCmdPipelineBarrier)
        ZOVK_OWN(vkCmdCopyBufferToImage) ZOVK_OWN(vkCreateFence) ZOVK_OWN(vkDestroyFence) ZOVK_OWN(vkGetFenceStatus)
        ZOVK_OWN(vkWaitForFences)
#undef ZOVK_OWN
        {"vkGetPhysicalDeviceProperties2KHR", fn(Fake_vkGetPhysicalDeviceProperties2)},
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

VkResult VKAPI_CALL FakeNextLayer::SetDeviceLoaderData(VkDevice device, void* object) {
    Record(Event::kCall, "setDeviceLoaderData", device, Hex(object));
    const bool fail = gCurrent != nullptr && gCurrent->failNames.count("setDeviceLoaderData") != 0;
    return fail ? VK_ERROR_INITIALIZATION_FAILED : VK_SUCCESS;
}

int FakeNextLayer::Count(Event::Kind kind, const std::string& name) const {
    std::lock_guard<std::mutex> lock(gRecordLock);  // threads may still be recording
    int n = 0;
    for (const Event& e : events) {
        n += e.kind == kind && e.name == name ? 1 : 0;
    }
    return n;
}

std::string Hex(uint64_t value) {
    char text[24];
    std::snprintf(text, sizeof(text), "%llx", static_cast<unsigned long long>(value));
    return text;
}

std::vector<std::string> FakeNextLayer::Args(const std::string& name) const {
    std::lock_guard<std::mutex> lock(gRecordLock);  // threads may still be recording
    std::vector<std::string> args;
    for (const Event& e : events) {
        if (e.kind == Event::kCall && e.name == name) args.push_back(e.args);
    }
    return args;
}

std::vector<std::string> FakeNextLayer::Log(const std::set<std::string>& names) const {
    std::lock_guard<std::mutex> lock(gRecordLock);  // threads may still be recording
    std::vector<std::string> log;
    for (const Event& e : events) {
        if (e.kind == Event::kCall && (names.empty() || names.count(e.name) != 0)) {
            log.push_back(e.args.empty() ? e.name : e.name + " " + e.args);
        }
    }
    return log;
}

std::vector<std::string> FakeNextLayer::CallLog() const {
    std::lock_guard<std::mutex> lock(gRecordLock);  // threads may still be recording
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
