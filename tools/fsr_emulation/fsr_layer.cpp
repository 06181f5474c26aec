// VK_LAYER_ZOVK_fsr_emulation: makes VK_KHR_fragment_shading_rate available on a driver that lacks it.
//
// Sits directly above the driver. Answers the extension's queries from a preset, removes everything
// of the extension from what goes down, and writes a trace of what it was asked to do (fsr_trace.h).
// Nothing here changes rendering: the driver shades every pixel at 1x1, so pixels match a run
// without the extension. ZOVK_FSR_EMULATION=off leaves the extension to the driver (a GPU's own
// shows through: nothing is answered or removed) while the trace goes on; ZOVK_FSR_WSI serves
// headless presentation where the driver has none (fsr_wsi.h).
#include <vulkan/vk_layer.h>
#include <vulkan/vulkan.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "fsr_presets.h"
#include "fsr_state.h"
#include "fsr_strip.h"
#include "fsr_trace.h"
#include "fsr_wsi.h"

namespace fsr {
namespace {

constexpr const char* kLayerName = "VK_LAYER_ZOVK_fsr_emulation";

// Dispatchable handles start with the loader's dispatch pointer: instance and physical device
// share one, device, queue and command buffer another.
template <typename T>
void* Key(T handle) {
    return *reinterpret_cast<void**>(handle);
}

template <typename T>
uint64_t H(T handle) {
    return reinterpret_cast<uint64_t>(handle);
}

#define FSR_INSTANCE_FUNCTIONS(X)                   \
    X(DestroyInstance)                              \
    X(EnumerateDeviceExtensionProperties)           \
    X(GetPhysicalDeviceProperties)                  \
    X(GetPhysicalDeviceMemoryProperties)            \
    X(GetPhysicalDeviceProperties2)                 \
    X(GetPhysicalDeviceProperties2KHR)              \
    X(GetPhysicalDeviceFeatures2)                   \
    X(GetPhysicalDeviceFeatures2KHR)                \
    X(GetPhysicalDeviceFormatProperties)            \
    X(GetPhysicalDeviceFormatProperties2)           \
    X(GetPhysicalDeviceFormatProperties2KHR)        \
    X(GetPhysicalDeviceImageFormatProperties)       \
    X(GetPhysicalDeviceImageFormatProperties2)      \
    X(GetPhysicalDeviceImageFormatProperties2KHR)   \
    X(GetPhysicalDeviceSparseImageFormatProperties) \
    X(GetPhysicalDeviceSparseImageFormatProperties2) \
    X(GetPhysicalDeviceSparseImageFormatProperties2KHR)

#define FSR_DEVICE_FUNCTIONS(X)          \
    X(DestroyDevice)                     \
    X(CreateImage)                       \
    X(DestroyImage)                      \
    X(CreateImageView)                   \
    X(BindBufferMemory)                  \
    X(BindBufferMemory2)                 \
    X(BindBufferMemory2KHR)              \
    X(DestroyBuffer)                     \
    X(AllocateMemory)                    \
    X(FreeMemory)                        \
    X(MapMemory)                         \
    X(UnmapMemory)                       \
    X(CreateRenderPass)                  \
    X(CreateRenderPass2)                 \
    X(CreateRenderPass2KHR)              \
    X(DestroyRenderPass)                 \
    X(CreateFramebuffer)                 \
    X(DestroyFramebuffer)                \
    X(CreateGraphicsPipelines)           \
    X(AllocateCommandBuffers)            \
    X(FreeCommandBuffers)                \
    X(ResetCommandPool)                  \
    X(DestroyCommandPool)                \
    X(BeginCommandBuffer)                \
    X(EndCommandBuffer)                  \
    X(ResetCommandBuffer)                \
    X(CmdBeginRenderPass)                \
    X(CmdBeginRenderPass2)               \
    X(CmdBeginRenderPass2KHR)            \
    X(CmdNextSubpass)                    \
    X(CmdNextSubpass2)                   \
    X(CmdNextSubpass2KHR)                \
    X(CmdEndRenderPass)                  \
    X(CmdEndRenderPass2)                 \
    X(CmdEndRenderPass2KHR)              \
    X(CmdBeginRendering)                 \
    X(CmdBeginRenderingKHR)              \
    X(CmdEndRendering)                   \
    X(CmdEndRenderingKHR)                \
    X(CmdBindPipeline)                   \
    X(CmdDraw)                           \
    X(CmdDrawIndexed)                    \
    X(CmdDrawIndirect)                   \
    X(CmdDrawIndexedIndirect)            \
    X(CmdDrawIndirectCount)              \
    X(CmdDrawIndirectCountKHR)           \
    X(CmdDrawIndirectCountAMD)           \
    X(CmdDrawIndexedIndirectCount)       \
    X(CmdDrawIndexedIndirectCountKHR)    \
    X(CmdDrawIndexedIndirectCountAMD)    \
    X(CmdDrawMultiEXT)                   \
    X(CmdDrawMultiIndexedEXT)            \
    X(CmdDrawIndirectByteCountEXT)       \
    X(CmdDrawMeshTasksEXT)               \
    X(CmdDrawMeshTasksIndirectEXT)       \
    X(CmdDrawMeshTasksIndirectCountEXT)  \
    X(CmdExecuteCommands)                \
    X(CmdCopyBufferToImage)              \
    X(CmdCopyBufferToImage2)             \
    X(CmdCopyBufferToImage2KHR)          \
    X(CmdPipelineBarrier)                \
    X(CmdPipelineBarrier2)               \
    X(CmdPipelineBarrier2KHR)            \
    X(CmdWaitEvents)                     \
    X(CmdWaitEvents2)                    \
    X(CmdWaitEvents2KHR)                 \
    X(CmdSetEvent)                       \
    X(CmdSetEvent2)                      \
    X(CmdSetEvent2KHR)                   \
    X(CmdResetEvent)                     \
    X(CmdResetEvent2)                    \
    X(CmdResetEvent2KHR)                 \
    X(QueueSubmit)                       \
    X(QueuePresentKHR)                   \
    X(QueueSubmit2)                      \
    X(QueueSubmit2KHR)                   \
    X(CmdSetFragmentShadingRateKHR)

struct InstanceTable {
#define FSR_MEMBER(name) PFN_vk##name name = nullptr;
    FSR_INSTANCE_FUNCTIONS(FSR_MEMBER)
};
struct DeviceTable {
    FSR_DEVICE_FUNCTIONS(FSR_MEMBER)
#undef FSR_MEMBER
};

struct InstanceRecord {
    VkInstance instance = VK_NULL_HANDLE;
    PFN_vkGetInstanceProcAddr gipa = nullptr;
    InstanceTable fn;
    const Preset* preset = nullptr;  // null with the emulation off
    bool emulation = true;
    std::unique_ptr<wsi::Instance> wsi;  // set where the layer serves headless surfaces
};

struct RenderPassRecord {
    std::vector<uint32_t> removed;
};

struct FramebufferRecord {
    VkRenderPass renderPass;
    VkImageView rateView;
};

struct ImageRecord {
    VkFormat format;
    uint32_t arrayLayers;
    uint32_t texelBytes;  // 0: not a format whose bytes the trace can lay out
};

struct BufferRecord {
    VkDeviceMemory memory;
    VkDeviceSize offset;
};

struct MemoryRecord {
    VkDeviceSize size;
    bool hostVisible;
    void* mapped = nullptr;  // the application's mapping, if any
    VkDeviceSize mapOffset = 0;
    VkDeviceSize mapSize = 0;
};

// What a command buffer does that matters at submission: uploads into shading-rate images and
// the secondaries it runs, in recording order.
struct UploadOp {
    VkBuffer buffer = VK_NULL_HANDLE;  // null for an execute of secondaries
    VkImage image = VK_NULL_HANDLE;
    ImageRecord imageRec{};
    VkBufferImageCopy region{};
    std::vector<VkCommandBuffer> secondaries;
};

struct CommandBufferRecord {
    VkCommandPool pool = VK_NULL_HANDLE;
    VkCommandBufferLevel level = VK_COMMAND_BUFFER_LEVEL_PRIMARY;
    int64_t position = 0;  // index of the next counted command since vkBeginCommandBuffer
    std::vector<UploadOp> ops;
    RecordingState state;
    VkPipeline pipeline = VK_NULL_HANDLE;

    void Restart() {
        position = 0;
        ops.clear();
        state = RecordingState{};
        pipeline = VK_NULL_HANDLE;
    }
};

struct Counters {
    int64_t renderPasses = 0, framebuffers = 0, beginRenderPasses = 0, rates = 0, draws = 0, uploads = 0,
            unreadableUploads = 0, submissions = 0, presents = 0;
};

struct DeviceRecord {
    VkDevice device = VK_NULL_HANDLE;
    PFN_vkGetDeviceProcAddr gdpa = nullptr;
    DeviceTable fn;
    VkPhysicalDeviceMemoryProperties memoryProperties{};
    std::unordered_map<VkRenderPass, RenderPassRecord> renderPasses;  // those with a shading-rate attachment
    std::unordered_map<VkFramebuffer, FramebufferRecord> framebuffers;  // made against those
    std::unordered_map<VkImage, ImageRecord> rateImages;
    std::unordered_map<VkImageView, VkImage> rateViews;
    std::unordered_map<VkPipeline, PipelineRate> pipelines;  // graphics ones, as asked for
    std::unordered_map<VkBuffer, BufferRecord> buffers;
    std::unordered_map<VkDeviceMemory, MemoryRecord> memories;
    std::unordered_map<VkCommandBuffer, CommandBufferRecord> commandBuffers;
    Counters counters;
    bool emulation = true;
    std::unique_ptr<wsi::Device> wsi;
};

// The emulation's rewrite of what goes down, or with the emulation off what the program gave.
// `strip` runs only where emulated.
template <typename Strip, typename T>
T Down(const DeviceRecord& dev, Strip strip, T original) {
    return dev.emulation ? strip() : original;
}

// One lock for all bookkeeping; calls down the chain are made without it, except the
// brief mappings of vkQueueSubmit.
std::mutex g_lock;
std::unordered_map<void*, std::unique_ptr<InstanceRecord>> g_instances;
std::unordered_map<void*, std::unique_ptr<DeviceRecord>> g_devices;

InstanceRecord* GetInstance(void* key) {
    std::lock_guard<std::mutex> lock(g_lock);
    auto it = g_instances.find(key);
    return it == g_instances.end() ? nullptr : it->second.get();
}

DeviceRecord* GetDevice(void* key) {
    std::lock_guard<std::mutex> lock(g_lock);
    auto it = g_devices.find(key);
    return it == g_devices.end() ? nullptr : it->second.get();
}

template <typename T>
InstanceRecord& Inst(T handle) {
    InstanceRecord* rec = GetInstance(Key(handle));
    if (rec == nullptr) {
        std::fprintf(stderr, "zovk_fsr_emulation: unknown instance-level handle %p\n", static_cast<void*>(handle));
        std::abort();
    }
    return *rec;
}

template <typename T>
DeviceRecord& Dev(T handle) {
    DeviceRecord* rec = GetDevice(Key(handle));
    if (rec == nullptr) {
        std::fprintf(stderr, "zovk_fsr_emulation: unknown device-level handle %p\n", static_cast<void*>(handle));
        std::abort();
    }
    return *rec;
}

uint32_t TexelBytes(VkFormat format) {
    switch (format) {
    case VK_FORMAT_R8_UNORM: case VK_FORMAT_R8_SNORM: case VK_FORMAT_R8_UINT: case VK_FORMAT_R8_SINT:
    case VK_FORMAT_R8_SRGB:
        return 1;
    case VK_FORMAT_R8G8_UNORM: case VK_FORMAT_R8G8_UINT: case VK_FORMAT_R16_UNORM: case VK_FORMAT_R16_UINT:
    case VK_FORMAT_R16_SFLOAT:
        return 2;
    case VK_FORMAT_R8G8B8A8_UNORM: case VK_FORMAT_R8G8B8A8_UINT: case VK_FORMAT_B8G8R8A8_UNORM:
    case VK_FORMAT_R32_UINT: case VK_FORMAT_R32_SFLOAT: case VK_FORMAT_R16G16_UINT:
        return 4;
    default:
        return 0;
    }
}

std::string CombinerName(VkFragmentShadingRateCombinerOpKHR op) {
    switch (op) {
    case VK_FRAGMENT_SHADING_RATE_COMBINER_OP_KEEP_KHR: return "KEEP";
    case VK_FRAGMENT_SHADING_RATE_COMBINER_OP_REPLACE_KHR: return "REPLACE";
    case VK_FRAGMENT_SHADING_RATE_COMBINER_OP_MIN_KHR: return "MIN";
    case VK_FRAGMENT_SHADING_RATE_COMBINER_OP_MAX_KHR: return "MAX";
    case VK_FRAGMENT_SHADING_RATE_COMBINER_OP_MUL_KHR: return "MUL";
    default: return std::to_string(static_cast<int>(op));
    }
}

std::string CombinerList(const Rate& rate) {
    return "[" + Quote(CombinerName(rate.ops[0])) + "," + Quote(CombinerName(rate.ops[1])) + "]";
}

const char* LevelName(VkCommandBufferLevel level) {
    return level == VK_COMMAND_BUFFER_LEVEL_SECONDARY ? "secondary" : "primary";
}

void AddRate(TraceLine& line, const Rate& rate) {
    line.Raw("rate", "[" + std::to_string(rate.size.width) + "," + std::to_string(rate.size.height) + "]")
        .Raw("combinerOps", CombinerList(rate));
}

// Under g_lock: the pass a command records into and, where it has a shading-rate attachment, which image.
void AddPass(const DeviceRecord& dev, TraceLine& line, const PassRecord& pass) {
    line.Handle("renderPass", H(pass.renderPass)).Bool("attachment", pass.attachment);
    if (pass.begin >= 0) line.Num("passBegin", pass.begin);
    if (!pass.attachment) return;
    auto image = dev.rateViews.find(pass.view);
    line.Handle("view", H(pass.view)).Handle("image", H(image == dev.rateViews.end() ? VK_NULL_HANDLE : image->second));
}

std::string IntList(std::initializer_list<int64_t> values) {
    std::string s = "[";
    for (int64_t v : values) {
        if (s.size() > 1) s += ',';
        s += std::to_string(v);
    }
    return s + "]";
}

VkSampleCountFlags DeviceSampleCounts(const VkPhysicalDeviceLimits& limits) {
    return limits.framebufferColorSampleCounts & limits.framebufferDepthSampleCounts;
}

// Under g_lock: the position of the next counted command of a command buffer.
int64_t NextPositionLocked(DeviceRecord& dev, VkCommandBuffer cb) { return dev.commandBuffers[cb].position++; }

int64_t NextPosition(DeviceRecord& dev, VkCommandBuffer cb) {
    std::lock_guard<std::mutex> lock(g_lock);
    return NextPositionLocked(dev, cb);
}

// ---------------------------------------------------------------------------------------------
// Instance level

// ZOVK_FSR_EMULATION: "off" leaves the shading-rate extension to the driver; anything else but "on" is logged.
bool EmulationOn() {
    const char* value = std::getenv("ZOVK_FSR_EMULATION");
    if (value == nullptr || std::strcmp(value, "") == 0 || std::strcmp(value, "on") == 0) return true;
    if (std::strcmp(value, "off") == 0) return false;
    std::fprintf(stderr, "zovk_fsr_emulation: ZOVK_FSR_EMULATION='%s' is neither on nor off: emulating\n", value);
    return true;
}

wsi::Mode WsiMode() {
    const char* value = std::getenv("ZOVK_FSR_WSI");
    if (std::optional<wsi::Mode> mode = wsi::ParseMode(value)) return *mode;
    std::fprintf(stderr, "zovk_fsr_emulation: ZOVK_FSR_WSI='%s' is none of off, headless, auto: off\n", value);
    return wsi::Mode::kOff;
}

// Whether the layer serves headless surfaces on this instance, and the extension names the driver gets.
wsi::InstancePlan PlanWsi(const VkInstanceCreateInfo& info) {
    const wsi::Mode mode = WsiMode();
    std::optional<std::vector<std::string>> driver;
    if (mode != wsi::Mode::kOff) {
        driver = wsi::DriverInstanceExtensions();
        if (!driver && mode == wsi::Mode::kAuto) {
            std::fprintf(stderr, "zovk_fsr_emulation: the loader does not list the driver's instance extensions: "
                                 "ZOVK_FSR_WSI=auto leaves presentation to the driver\n");
        }
    }
    wsi::InstancePlan plan = wsi::PlanInstance(mode, driver, info.enabledExtensionCount, info.ppEnabledExtensionNames);
    if (plan.serve) {
        std::fprintf(stderr, "zovk_fsr_emulation: serving VK_EXT_headless_surface in the layer (ZOVK_FSR_WSI=%s)\n",
                     mode == wsi::Mode::kAuto ? "auto, the driver has none" : "headless");
    }
    return plan;
}

VKAPI_ATTR VkResult VKAPI_CALL CreateInstance(const VkInstanceCreateInfo* pCreateInfo,
                                              const VkAllocationCallbacks* pAllocator, VkInstance* pInstance) {
    const bool emulation = EmulationOn();
    const char* presetName = std::getenv("ZOVK_FSR_PRESET");
    const Preset* preset = emulation ? FindPreset(presetName) : nullptr;
    if (emulation && preset == nullptr) {
        std::fprintf(stderr, "zovk_fsr_emulation: unknown ZOVK_FSR_PRESET '%s' (known: %s)\n", presetName,
                     PresetNames().c_str());
        return VK_ERROR_INITIALIZATION_FAILED;
    }
    auto* link = static_cast<VkLayerInstanceCreateInfo*>(const_cast<void*>(pCreateInfo->pNext));
    while (link != nullptr &&
           !(link->sType == VK_STRUCTURE_TYPE_LOADER_INSTANCE_CREATE_INFO && link->function == VK_LAYER_LINK_INFO)) {
        link = static_cast<VkLayerInstanceCreateInfo*>(const_cast<void*>(link->pNext));
    }
    if (link == nullptr) return VK_ERROR_INITIALIZATION_FAILED;
    PFN_vkGetInstanceProcAddr gipa = link->u.pLayerInfo->pfnNextGetInstanceProcAddr;
    link->u.pLayerInfo = link->u.pLayerInfo->pNext;
    auto create = reinterpret_cast<PFN_vkCreateInstance>(gipa(VK_NULL_HANDLE, "vkCreateInstance"));
    if (create == nullptr) return VK_ERROR_INITIALIZATION_FAILED;
    const wsi::InstancePlan plan = PlanWsi(*pCreateInfo);
    VkInstanceCreateInfo info = *pCreateInfo;
    info.enabledExtensionCount = uint32_t(plan.names.size());
    info.ppEnabledExtensionNames = plan.names.data();
    VkResult result = create(&info, pAllocator, pInstance);
    if (result != VK_SUCCESS) return result;

    auto rec = std::make_unique<InstanceRecord>();
    rec->instance = *pInstance;
    rec->gipa = gipa;
    rec->preset = preset;
    rec->emulation = emulation;
    if (plan.serve) rec->wsi = std::make_unique<wsi::Instance>(*pInstance, gipa);
#define FSR_LOAD(name) rec->fn.name = reinterpret_cast<PFN_vk##name>(gipa(*pInstance, "vk" #name));
    FSR_INSTANCE_FUNCTIONS(FSR_LOAD)
#undef FSR_LOAD
    std::lock_guard<std::mutex> lock(g_lock);
    g_instances[Key(*pInstance)] = std::move(rec);
    return VK_SUCCESS;
}

VKAPI_ATTR void VKAPI_CALL DestroyInstance(VkInstance instance, const VkAllocationCallbacks* pAllocator) {
    if (instance == VK_NULL_HANDLE) return;
    std::unique_ptr<InstanceRecord> rec;
    bool last = false;
    {
        std::lock_guard<std::mutex> lock(g_lock);
        auto it = g_instances.find(Key(instance));
        if (it == g_instances.end()) return;
        rec = std::move(it->second);
        g_instances.erase(it);
        last = g_instances.empty();
    }
    rec->fn.DestroyInstance(instance, pAllocator);
    if (last) CloseTrace();
}

VKAPI_ATTR VkResult VKAPI_CALL EnumerateDeviceExtensionProperties(VkPhysicalDevice physicalDevice,
                                                                  const char* pLayerName, uint32_t* pPropertyCount,
                                                                  VkExtensionProperties* pProperties) {
    VkExtensionProperties ours = {};
    std::snprintf(ours.extensionName, sizeof ours.extensionName, "%s", VK_KHR_FRAGMENT_SHADING_RATE_EXTENSION_NAME);
    ours.specVersion = VK_KHR_FRAGMENT_SHADING_RATE_SPEC_VERSION;

    std::vector<VkExtensionProperties> all;
    if (pLayerName != nullptr && std::strcmp(pLayerName, kLayerName) == 0) {
        all.push_back(ours);
    } else {
        InstanceRecord& inst = Inst(physicalDevice);
        if (pLayerName != nullptr) {
            return inst.fn.EnumerateDeviceExtensionProperties(physicalDevice, pLayerName, pPropertyCount, pProperties);
        }
        VkResult r;
        do {
            uint32_t count = 0;
            r = inst.fn.EnumerateDeviceExtensionProperties(physicalDevice, nullptr, &count, nullptr);
            if (r != VK_SUCCESS) return r;
            all.resize(count);
            r = inst.fn.EnumerateDeviceExtensionProperties(physicalDevice, nullptr, &count, all.data());
            all.resize(count);
        } while (r == VK_INCOMPLETE);
        if (r != VK_SUCCESS) return r;
        bool present = false;
        for (const auto& e : all) present |= std::strcmp(e.extensionName, ours.extensionName) == 0;
        if (!present) all.push_back(ours);
    }
    if (pProperties == nullptr) {
        *pPropertyCount = static_cast<uint32_t>(all.size());
        return VK_SUCCESS;
    }
    const uint32_t n = std::min<uint32_t>(*pPropertyCount, static_cast<uint32_t>(all.size()));
    std::copy(all.begin(), all.begin() + n, pProperties);
    *pPropertyCount = n;
    return n < all.size() ? VK_INCOMPLETE : VK_SUCCESS;
}

void AddFeatures(void* chain) {
    auto* features = static_cast<VkPhysicalDeviceFragmentShadingRateFeaturesKHR*>(
        FindInChainMutable(chain, VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FRAGMENT_SHADING_RATE_FEATURES_KHR));
    if (features == nullptr) return;
    features->pipelineFragmentShadingRate = VK_TRUE;
    features->primitiveFragmentShadingRate = VK_TRUE;
    features->attachmentFragmentShadingRate = VK_TRUE;
}

template <PFN_vkGetPhysicalDeviceFeatures2 InstanceTable::*Next>
VKAPI_ATTR void VKAPI_CALL GetPhysicalDeviceFeatures2(VkPhysicalDevice physicalDevice,
                                                      VkPhysicalDeviceFeatures2* pFeatures) {
    InstanceRecord& inst = Inst(physicalDevice);
    (inst.fn.*Next)(physicalDevice, pFeatures);
    AddFeatures(pFeatures);
}

template <PFN_vkGetPhysicalDeviceProperties2 InstanceTable::*Next>
VKAPI_ATTR void VKAPI_CALL GetPhysicalDeviceProperties2(VkPhysicalDevice physicalDevice,
                                                        VkPhysicalDeviceProperties2* pProperties) {
    InstanceRecord& inst = Inst(physicalDevice);
    (inst.fn.*Next)(physicalDevice, pProperties);
    auto* props = static_cast<VkPhysicalDeviceFragmentShadingRatePropertiesKHR*>(
        FindInChainMutable(pProperties, VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FRAGMENT_SHADING_RATE_PROPERTIES_KHR));
    if (props != nullptr) FillProperties(*inst.preset, DeviceSampleCounts(pProperties->properties.limits), props);
}

VKAPI_ATTR VkResult VKAPI_CALL GetPhysicalDeviceFragmentShadingRatesKHR(
    VkPhysicalDevice physicalDevice, uint32_t* pFragmentShadingRateCount,
    VkPhysicalDeviceFragmentShadingRateKHR* pFragmentShadingRates) {
    InstanceRecord& inst = Inst(physicalDevice);
    VkPhysicalDeviceProperties props;
    inst.fn.GetPhysicalDeviceProperties(physicalDevice, &props);
    const auto rates = Rates(*inst.preset, DeviceSampleCounts(props.limits));
    if (pFragmentShadingRates == nullptr) {
        *pFragmentShadingRateCount = static_cast<uint32_t>(rates.size());
        return VK_SUCCESS;
    }
    const uint32_t n = std::min<uint32_t>(*pFragmentShadingRateCount, static_cast<uint32_t>(rates.size()));
    for (uint32_t i = 0; i < n; ++i) {
        pFragmentShadingRates[i].sampleCounts = rates[i].sampleCounts;
        pFragmentShadingRates[i].fragmentSize = rates[i].fragmentSize;
    }
    *pFragmentShadingRateCount = n;
    return n < rates.size() ? VK_INCOMPLETE : VK_SUCCESS;
}

// The shading-rate image format of the extension's users; optimal tiling only, as on the GPUs emulated.
constexpr VkFormat kRateFormat = VK_FORMAT_R8_UINT;

VKAPI_ATTR void VKAPI_CALL GetPhysicalDeviceFormatProperties(VkPhysicalDevice physicalDevice, VkFormat format,
                                                             VkFormatProperties* pFormatProperties) {
    Inst(physicalDevice).fn.GetPhysicalDeviceFormatProperties(physicalDevice, format, pFormatProperties);
    if (format == kRateFormat) {
        pFormatProperties->optimalTilingFeatures |= VK_FORMAT_FEATURE_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR;
    }
}

template <PFN_vkGetPhysicalDeviceFormatProperties2 InstanceTable::*Next>
VKAPI_ATTR void VKAPI_CALL GetPhysicalDeviceFormatProperties2(VkPhysicalDevice physicalDevice, VkFormat format,
                                                              VkFormatProperties2* pFormatProperties) {
    (Inst(physicalDevice).fn.*Next)(physicalDevice, format, pFormatProperties);
    if (format != kRateFormat) return;
    pFormatProperties->formatProperties.optimalTilingFeatures |=
        VK_FORMAT_FEATURE_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR;
    auto* props3 = static_cast<VkFormatProperties3*>(
        FindInChainMutable(pFormatProperties->pNext, VK_STRUCTURE_TYPE_FORMAT_PROPERTIES_3));
    if (props3 != nullptr) {
        props3->optimalTilingFeatures |= VK_FORMAT_FEATURE_2_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR;
    }
}

VKAPI_ATTR VkResult VKAPI_CALL GetPhysicalDeviceImageFormatProperties(
    VkPhysicalDevice physicalDevice, VkFormat format, VkImageType type, VkImageTiling tiling, VkImageUsageFlags usage,
    VkImageCreateFlags flags, VkImageFormatProperties* pImageFormatProperties) {
    return Inst(physicalDevice)
        .fn.GetPhysicalDeviceImageFormatProperties(physicalDevice, format, type, tiling, StripUsage(usage), flags,
                                                   pImageFormatProperties);
}

template <PFN_vkGetPhysicalDeviceImageFormatProperties2 InstanceTable::*Next>
VKAPI_ATTR VkResult VKAPI_CALL GetPhysicalDeviceImageFormatProperties2(
    VkPhysicalDevice physicalDevice, const VkPhysicalDeviceImageFormatInfo2* pImageFormatInfo,
    VkImageFormatProperties2* pImageFormatProperties) {
    Arena arena;
    return (Inst(physicalDevice).fn.*Next)(physicalDevice, StripImageFormatInfo(arena, pImageFormatInfo),
                                           pImageFormatProperties);
}

VKAPI_ATTR void VKAPI_CALL GetPhysicalDeviceSparseImageFormatProperties(
    VkPhysicalDevice physicalDevice, VkFormat format, VkImageType type, VkSampleCountFlagBits samples,
    VkImageUsageFlags usage, VkImageTiling tiling, uint32_t* pPropertyCount, VkSparseImageFormatProperties* pProperties) {
    Inst(physicalDevice)
        .fn.GetPhysicalDeviceSparseImageFormatProperties(physicalDevice, format, type, samples, StripUsage(usage),
                                                         tiling, pPropertyCount, pProperties);
}

template <PFN_vkGetPhysicalDeviceSparseImageFormatProperties2 InstanceTable::*Next>
VKAPI_ATTR void VKAPI_CALL GetPhysicalDeviceSparseImageFormatProperties2(
    VkPhysicalDevice physicalDevice, const VkPhysicalDeviceSparseImageFormatInfo2* pFormatInfo,
    uint32_t* pPropertyCount, VkSparseImageFormatProperties2* pProperties) {
    VkPhysicalDeviceSparseImageFormatInfo2 info = *pFormatInfo;
    info.usage = StripUsage(info.usage);
    (Inst(physicalDevice).fn.*Next)(physicalDevice, &info, pPropertyCount, pProperties);
}

// ---------------------------------------------------------------------------------------------
// Device creation

VKAPI_ATTR VkResult VKAPI_CALL CreateDevice(VkPhysicalDevice physicalDevice, const VkDeviceCreateInfo* pCreateInfo,
                                            const VkAllocationCallbacks* pAllocator, VkDevice* pDevice) {
    auto* link = static_cast<VkLayerDeviceCreateInfo*>(const_cast<void*>(pCreateInfo->pNext));
    while (link != nullptr &&
           !(link->sType == VK_STRUCTURE_TYPE_LOADER_DEVICE_CREATE_INFO && link->function == VK_LAYER_LINK_INFO)) {
        link = static_cast<VkLayerDeviceCreateInfo*>(const_cast<void*>(link->pNext));
    }
    if (link == nullptr) return VK_ERROR_INITIALIZATION_FAILED;
    PFN_vkGetInstanceProcAddr gipa = link->u.pLayerInfo->pfnNextGetInstanceProcAddr;
    PFN_vkGetDeviceProcAddr gdpa = link->u.pLayerInfo->pfnNextGetDeviceProcAddr;
    link->u.pLayerInfo = link->u.pLayerInfo->pNext;

    InstanceRecord& inst = Inst(physicalDevice);
    auto create = reinterpret_cast<PFN_vkCreateDevice>(gipa(inst.instance, "vkCreateDevice"));
    if (create == nullptr) return VK_ERROR_INITIALIZATION_FAILED;

    bool enabled = false;
    for (uint32_t i = 0; i < pCreateInfo->enabledExtensionCount; ++i) {
        enabled |= std::strcmp(pCreateInfo->ppEnabledExtensionNames[i], VK_KHR_FRAGMENT_SHADING_RATE_EXTENSION_NAME) == 0;
    }
    Arena arena;
    VkResult result = create(physicalDevice, inst.emulation ? StripDeviceCreateInfo(arena, pCreateInfo) : pCreateInfo,
                             pAllocator, pDevice);
    if (result != VK_SUCCESS) return result;

    auto rec = std::make_unique<DeviceRecord>();
    rec->device = *pDevice;
    rec->gdpa = gdpa;
    rec->emulation = inst.emulation;
#define FSR_LOAD(name) rec->fn.name = reinterpret_cast<PFN_vk##name>(gdpa(*pDevice, "vk" #name));
    FSR_DEVICE_FUNCTIONS(FSR_LOAD)
#undef FSR_LOAD
    inst.fn.GetPhysicalDeviceMemoryProperties(physicalDevice, &rec->memoryProperties);
    if (inst.wsi && pCreateInfo->queueCreateInfoCount > 0) {
        rec->wsi = std::make_unique<wsi::Device>(*pDevice, gdpa, *inst.wsi, rec->memoryProperties,
                                                 pCreateInfo->pQueueCreateInfos[0].queueFamilyIndex);
    }

    // With the emulation off, the driver's own figures where the extension is enabled.
    Preset figures = inst.preset ? *inst.preset : Preset{"off", {0, 0}, {0, 0}};
    if (!inst.emulation && enabled && inst.fn.GetPhysicalDeviceProperties2 != nullptr) {
        VkPhysicalDeviceFragmentShadingRatePropertiesKHR props = {};
        props.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FRAGMENT_SHADING_RATE_PROPERTIES_KHR;
        VkPhysicalDeviceProperties2 props2 = {};
        props2.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_PROPERTIES_2;
        props2.pNext = &props;
        inst.fn.GetPhysicalDeviceProperties2(physicalDevice, &props2);
        figures.texelSize = props.minFragmentShadingRateAttachmentTexelSize;
        figures.maxFragmentSize = props.maxFragmentSize;
    }
    Emit(TraceLine("device")
             .Handle("device", H(*pDevice))
             .Str("preset", figures.name)
             .Bool("extensionEnabled", enabled)
             .Num("texelWidth", figures.texelSize.width)
             .Num("texelHeight", figures.texelSize.height)
             .Num("maxFragmentWidth", figures.maxFragmentSize.width)
             .Num("maxFragmentHeight", figures.maxFragmentSize.height));
    std::lock_guard<std::mutex> lock(g_lock);
    g_devices[Key(*pDevice)] = std::move(rec);
    return VK_SUCCESS;
}

VKAPI_ATTR void VKAPI_CALL DestroyDevice(VkDevice device, const VkAllocationCallbacks* pAllocator) {
    if (device == VK_NULL_HANDLE) return;
    std::unique_ptr<DeviceRecord> rec;
    {
        std::lock_guard<std::mutex> lock(g_lock);
        auto it = g_devices.find(Key(device));
        if (it == g_devices.end()) return;
        rec = std::move(it->second);
        g_devices.erase(it);
    }
    if (rec->wsi) rec->wsi->DestroyAll();
    const Counters& c = rec->counters;
    Emit(TraceLine("summary")
             .Handle("device", H(device))
             .Num("renderPasses", c.renderPasses)
             .Num("framebuffers", c.framebuffers)
             .Num("beginRenderPasses", c.beginRenderPasses)
             .Num("rates", c.rates)
             .Num("draws", c.draws)
             .Num("submissions", c.submissions)
             .Num("presents", c.presents)
             .Num("uploads", c.uploads)
             .Num("unreadableUploads", c.unreadableUploads));
    rec->fn.DestroyDevice(device, pAllocator);
}

// ---------------------------------------------------------------------------------------------
// Resources

// Forgets an object the application is about to destroy.
template <typename Map, typename Handle>
void ForgetObject(Map& map, Handle handle) {
    std::lock_guard<std::mutex> lock(g_lock);
    map.erase(handle);
}

VKAPI_ATTR VkResult VKAPI_CALL CreateImage(VkDevice device, const VkImageCreateInfo* pCreateInfo,
                                           const VkAllocationCallbacks* pAllocator, VkImage* pImage) {
    DeviceRecord& dev = Dev(device);
    Arena arena;
    const auto* down = Down(dev, [&] { return StripImageCreateInfo(arena, pCreateInfo); }, pCreateInfo);
    VkResult result = dev.fn.CreateImage(device, down, pAllocator, pImage);
    if (result == VK_SUCCESS && (pCreateInfo->usage & VK_IMAGE_USAGE_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR)) {
        std::lock_guard<std::mutex> lock(g_lock);
        dev.rateImages[*pImage] = {pCreateInfo->format, pCreateInfo->arrayLayers, TexelBytes(pCreateInfo->format)};
    }
    return result;
}

VKAPI_ATTR void VKAPI_CALL DestroyImage(VkDevice device, VkImage image, const VkAllocationCallbacks* pAllocator) {
    DeviceRecord& dev = Dev(device);
    ForgetObject(dev.rateImages, image);
    dev.fn.DestroyImage(device, image, pAllocator);
}

VKAPI_ATTR VkResult VKAPI_CALL CreateImageView(VkDevice device, const VkImageViewCreateInfo* pCreateInfo,
                                               const VkAllocationCallbacks* pAllocator, VkImageView* pView) {
    DeviceRecord& dev = Dev(device);
    Arena arena;
    const auto* down = Down(dev, [&] { return StripImageViewCreateInfo(arena, pCreateInfo); }, pCreateInfo);
    VkResult result = dev.fn.CreateImageView(device, down, pAllocator, pView);
    std::lock_guard<std::mutex> lock(g_lock);
    if (result == VK_SUCCESS && dev.rateImages.count(pCreateInfo->image)) dev.rateViews[*pView] = pCreateInfo->image;
    return result;
}

VKAPI_ATTR VkResult VKAPI_CALL BindBufferMemory(VkDevice device, VkBuffer buffer, VkDeviceMemory memory,
                                                VkDeviceSize memoryOffset) {
    DeviceRecord& dev = Dev(device);
    VkResult result = dev.fn.BindBufferMemory(device, buffer, memory, memoryOffset);
    if (result == VK_SUCCESS) {
        std::lock_guard<std::mutex> lock(g_lock);
        dev.buffers[buffer] = {memory, memoryOffset};
    }
    return result;
}

template <PFN_vkBindBufferMemory2 DeviceTable::*Next>
VKAPI_ATTR VkResult VKAPI_CALL BindBufferMemory2(VkDevice device, uint32_t bindInfoCount,
                                                 const VkBindBufferMemoryInfo* pBindInfos) {
    DeviceRecord& dev = Dev(device);
    VkResult result = (dev.fn.*Next)(device, bindInfoCount, pBindInfos);
    if (result == VK_SUCCESS) {
        std::lock_guard<std::mutex> lock(g_lock);
        for (uint32_t i = 0; i < bindInfoCount; ++i) {
            dev.buffers[pBindInfos[i].buffer] = {pBindInfos[i].memory, pBindInfos[i].memoryOffset};
        }
    }
    return result;
}

VKAPI_ATTR void VKAPI_CALL DestroyBuffer(VkDevice device, VkBuffer buffer, const VkAllocationCallbacks* pAllocator) {
    DeviceRecord& dev = Dev(device);
    ForgetObject(dev.buffers, buffer);
    dev.fn.DestroyBuffer(device, buffer, pAllocator);
}

VKAPI_ATTR VkResult VKAPI_CALL AllocateMemory(VkDevice device, const VkMemoryAllocateInfo* pAllocateInfo,
                                              const VkAllocationCallbacks* pAllocator, VkDeviceMemory* pMemory) {
    DeviceRecord& dev = Dev(device);
    VkResult result = dev.fn.AllocateMemory(device, pAllocateInfo, pAllocator, pMemory);
    if (result == VK_SUCCESS) {
        const uint32_t type = pAllocateInfo->memoryTypeIndex;
        const bool hostVisible = type < dev.memoryProperties.memoryTypeCount &&
                                 (dev.memoryProperties.memoryTypes[type].propertyFlags &
                                  VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT);
        std::lock_guard<std::mutex> lock(g_lock);
        MemoryRecord& m = dev.memories[*pMemory];
        m = MemoryRecord{};
        m.size = pAllocateInfo->allocationSize;
        m.hostVisible = hostVisible;
    }
    return result;
}

VKAPI_ATTR void VKAPI_CALL FreeMemory(VkDevice device, VkDeviceMemory memory, const VkAllocationCallbacks* pAllocator) {
    DeviceRecord& dev = Dev(device);
    ForgetObject(dev.memories, memory);
    dev.fn.FreeMemory(device, memory, pAllocator);
}

VKAPI_ATTR VkResult VKAPI_CALL MapMemory(VkDevice device, VkDeviceMemory memory, VkDeviceSize offset,
                                         VkDeviceSize size, VkMemoryMapFlags flags, void** ppData) {
    DeviceRecord& dev = Dev(device);
    VkResult result = dev.fn.MapMemory(device, memory, offset, size, flags, ppData);
    if (result == VK_SUCCESS) {
        std::lock_guard<std::mutex> lock(g_lock);
        auto it = dev.memories.find(memory);
        if (it != dev.memories.end()) {
            it->second.mapped = *ppData;
            it->second.mapOffset = offset;
            it->second.mapSize = size == VK_WHOLE_SIZE ? it->second.size - offset : size;
        }
    }
    return result;
}

VKAPI_ATTR void VKAPI_CALL UnmapMemory(VkDevice device, VkDeviceMemory memory) {
    DeviceRecord& dev = Dev(device);
    {
        std::lock_guard<std::mutex> lock(g_lock);
        auto it = dev.memories.find(memory);
        if (it != dev.memories.end()) it->second.mapped = nullptr;
    }
    dev.fn.UnmapMemory(device, memory);
}

// ---------------------------------------------------------------------------------------------
// Render passes, framebuffers, pipelines

template <PFN_vkCreateRenderPass2 DeviceTable::*Next>
VKAPI_ATTR VkResult VKAPI_CALL CreateRenderPass2(VkDevice device, const VkRenderPassCreateInfo2* pCreateInfo,
                                                 const VkAllocationCallbacks* pAllocator, VkRenderPass* pRenderPass) {
    DeviceRecord& dev = Dev(device);
    Arena arena;
    RenderPassStrip strip = StripRenderPass2(arena, pCreateInfo);
    VkResult result = (dev.fn.*Next)(device, dev.emulation ? strip.info : pCreateInfo, pAllocator, pRenderPass);
    if (result != VK_SUCCESS || strip.removed.empty()) return result;

    std::lock_guard<std::mutex> lock(g_lock);
    dev.renderPasses[*pRenderPass] = {strip.removed};
    ++dev.counters.renderPasses;
    for (const RateAttachmentUse& use : strip.uses) {
        std::string subpasses = "[";
        for (uint32_t s : use.subpasses) subpasses += (subpasses.size() > 1 ? "," : "") + std::to_string(s);
        Emit(TraceLine("renderPass")
                 .Handle("renderPass", H(*pRenderPass))
                 .Num("attachmentCount", pCreateInfo->attachmentCount)
                 .Num("attachment", use.attachment)
                 .Num("texelWidth", use.texelSize.width)
                 .Num("texelHeight", use.texelSize.height)
                 .Raw("subpasses", subpasses + "]"));
    }
    return result;
}

VKAPI_ATTR VkResult VKAPI_CALL CreateRenderPass(VkDevice device, const VkRenderPassCreateInfo* pCreateInfo,
                                                const VkAllocationCallbacks* pAllocator, VkRenderPass* pRenderPass) {
    DeviceRecord& dev = Dev(device);
    Arena arena;
    const auto* down = Down(dev, [&] { return StripRenderPass(arena, pCreateInfo); }, pCreateInfo);
    return dev.fn.CreateRenderPass(device, down, pAllocator, pRenderPass);
}

VKAPI_ATTR void VKAPI_CALL DestroyRenderPass(VkDevice device, VkRenderPass renderPass,
                                             const VkAllocationCallbacks* pAllocator) {
    DeviceRecord& dev = Dev(device);
    ForgetObject(dev.renderPasses, renderPass);
    dev.fn.DestroyRenderPass(device, renderPass, pAllocator);
}

VKAPI_ATTR VkResult VKAPI_CALL CreateFramebuffer(VkDevice device, const VkFramebufferCreateInfo* pCreateInfo,
                                                 const VkAllocationCallbacks* pAllocator, VkFramebuffer* pFramebuffer) {
    DeviceRecord& dev = Dev(device);
    std::vector<uint32_t> removed;
    {
        std::lock_guard<std::mutex> lock(g_lock);
        auto it = dev.renderPasses.find(pCreateInfo->renderPass);
        if (it != dev.renderPasses.end()) removed = it->second.removed;
    }
    Arena arena;
    FramebufferStrip strip = StripFramebuffer(arena, pCreateInfo, removed);
    VkResult result =
        dev.fn.CreateFramebuffer(device, dev.emulation ? strip.info : pCreateInfo, pAllocator, pFramebuffer);
    if (result != VK_SUCCESS || removed.empty()) return result;

    std::lock_guard<std::mutex> lock(g_lock);
    dev.framebuffers[*pFramebuffer] = {pCreateInfo->renderPass, strip.rateView};
    ++dev.counters.framebuffers;
    Emit(TraceLine("framebuffer")
             .Handle("framebuffer", H(*pFramebuffer))
             .Handle("renderPass", H(pCreateInfo->renderPass))
             .Num("width", pCreateInfo->width)
             .Num("height", pCreateInfo->height)
             .Num("layers", pCreateInfo->layers)
             .Bool("imageless", (pCreateInfo->flags & VK_FRAMEBUFFER_CREATE_IMAGELESS_BIT) != 0)
             .Handle("view", H(strip.rateView)));
    return result;
}

VKAPI_ATTR void VKAPI_CALL DestroyFramebuffer(VkDevice device, VkFramebuffer framebuffer,
                                              const VkAllocationCallbacks* pAllocator) {
    DeviceRecord& dev = Dev(device);
    ForgetObject(dev.framebuffers, framebuffer);
    dev.fn.DestroyFramebuffer(device, framebuffer, pAllocator);
}

VKAPI_ATTR VkResult VKAPI_CALL CreateGraphicsPipelines(VkDevice device, VkPipelineCache pipelineCache,
                                                       uint32_t createInfoCount,
                                                       const VkGraphicsPipelineCreateInfo* pCreateInfos,
                                                       const VkAllocationCallbacks* pAllocator, VkPipeline* pPipelines) {
    DeviceRecord& dev = Dev(device);
    Arena arena;
    const auto* down = Down(dev, [&] { return StripGraphicsPipelines(arena, pCreateInfos, createInfoCount); },
                            pCreateInfos);
    VkResult result =
        dev.fn.CreateGraphicsPipelines(device, pipelineCache, createInfoCount, down, pAllocator, pPipelines);
    // What the layers above asked for, before it was stripped.
    for (uint32_t i = 0; result >= 0 && i < createInfoCount; ++i) {
        if (pPipelines[i] == VK_NULL_HANDLE) continue;
        const PipelineRate rate = PipelineRateOf(pCreateInfos[i]);
        {
            std::lock_guard<std::mutex> lock(g_lock);
            dev.pipelines[pPipelines[i]] = rate;
        }
        if (!TraceEnabled()) continue;
        TraceLine line("pipeline");
        line.Handle("pipeline", H(pPipelines[i]))
            .Bool("dynamicStateBlock", pCreateInfos[i].pDynamicState != nullptr)
            .Bool("rateDynamic", rate.dynamic);
        if (!rate.dynamic) AddRate(line, rate.rate);
        Emit(line);
    }
    return result;
}

// ---------------------------------------------------------------------------------------------
// Command buffers

VKAPI_ATTR VkResult VKAPI_CALL AllocateCommandBuffers(VkDevice device, const VkCommandBufferAllocateInfo* pAllocateInfo,
                                                      VkCommandBuffer* pCommandBuffers) {
    DeviceRecord& dev = Dev(device);
    VkResult result = dev.fn.AllocateCommandBuffers(device, pAllocateInfo, pCommandBuffers);
    if (result == VK_SUCCESS) {
        std::lock_guard<std::mutex> lock(g_lock);
        for (uint32_t i = 0; i < pAllocateInfo->commandBufferCount; ++i) {
            CommandBufferRecord& cb = dev.commandBuffers[pCommandBuffers[i]];
            cb = CommandBufferRecord{};
            cb.pool = pAllocateInfo->commandPool;
            cb.level = pAllocateInfo->level;
        }
    }
    return result;
}

VKAPI_ATTR void VKAPI_CALL FreeCommandBuffers(VkDevice device, VkCommandPool commandPool, uint32_t commandBufferCount,
                                              const VkCommandBuffer* pCommandBuffers) {
    DeviceRecord& dev = Dev(device);
    {
        std::lock_guard<std::mutex> lock(g_lock);
        for (uint32_t i = 0; i < commandBufferCount; ++i) dev.commandBuffers.erase(pCommandBuffers[i]);
    }
    dev.fn.FreeCommandBuffers(device, commandPool, commandBufferCount, pCommandBuffers);
}

VKAPI_ATTR VkResult VKAPI_CALL ResetCommandPool(VkDevice device, VkCommandPool commandPool,
                                                VkCommandPoolResetFlags flags) {
    DeviceRecord& dev = Dev(device);
    {
        std::lock_guard<std::mutex> lock(g_lock);
        for (auto& [handle, cb] : dev.commandBuffers) {
            if (cb.pool == commandPool) cb.Restart();
        }
    }
    return dev.fn.ResetCommandPool(device, commandPool, flags);
}

VKAPI_ATTR void VKAPI_CALL DestroyCommandPool(VkDevice device, VkCommandPool commandPool,
                                              const VkAllocationCallbacks* pAllocator) {
    DeviceRecord& dev = Dev(device);
    {
        std::lock_guard<std::mutex> lock(g_lock);
        for (auto it = dev.commandBuffers.begin(); it != dev.commandBuffers.end();) {
            it = it->second.pool == commandPool ? dev.commandBuffers.erase(it) : std::next(it);
        }
    }
    dev.fn.DestroyCommandPool(device, commandPool, pAllocator);
}

VKAPI_ATTR VkResult VKAPI_CALL BeginCommandBuffer(VkCommandBuffer commandBuffer,
                                                  const VkCommandBufferBeginInfo* pBeginInfo) {
    DeviceRecord& dev = Dev(commandBuffer);
    {
        std::lock_guard<std::mutex> lock(g_lock);
        CommandBufferRecord& cb = dev.commandBuffers[commandBuffer];
        cb.Restart();
        const VkCommandBufferInheritanceInfo* inherit = pBeginInfo->pInheritanceInfo;
        PassRecord continued;
        const bool continues = cb.level == VK_COMMAND_BUFFER_LEVEL_SECONDARY && inherit != nullptr &&
                               (pBeginInfo->flags & VK_COMMAND_BUFFER_USAGE_RENDER_PASS_CONTINUE_BIT);
        if (continues) {
            continued.renderPass = inherit->renderPass;
            continued.attachment = dev.renderPasses.count(inherit->renderPass) != 0;
            auto fb = dev.framebuffers.find(inherit->framebuffer);
            if (fb != dev.framebuffers.end()) continued.view = fb->second.rateView;
        }
        cb.state.Begin(continues ? &continued : nullptr);
    }
    return dev.fn.BeginCommandBuffer(commandBuffer, pBeginInfo);
}

VKAPI_ATTR VkResult VKAPI_CALL EndCommandBuffer(VkCommandBuffer commandBuffer) {
    DeviceRecord& dev = Dev(commandBuffer);
    {
        std::lock_guard<std::mutex> lock(g_lock);
        dev.commandBuffers[commandBuffer].state.End();
    }
    return dev.fn.EndCommandBuffer(commandBuffer);
}

VKAPI_ATTR VkResult VKAPI_CALL ResetCommandBuffer(VkCommandBuffer commandBuffer, VkCommandBufferResetFlags flags) {
    DeviceRecord& dev = Dev(commandBuffer);
    {
        std::lock_guard<std::mutex> lock(g_lock);
        dev.commandBuffers[commandBuffer].Restart();
    }
    return dev.fn.ResetCommandBuffer(commandBuffer, flags);
}

// Strips a render pass begin and, for a pass with a shading-rate attachment, writes its trace line.
const VkRenderPassBeginInfo* BeginRenderPassCommon(DeviceRecord& dev, Arena& arena, VkCommandBuffer cb,
                                                   const VkRenderPassBeginInfo* info) {
    std::lock_guard<std::mutex> lock(g_lock);
    const int64_t position = NextPositionLocked(dev, cb);
    RecordingState& state = dev.commandBuffers[cb].state;
    state.BeginPass(PassRecord{info->renderPass, position});
    auto rp = dev.renderPasses.find(info->renderPass);
    if (rp == dev.renderPasses.end()) return info;
    BeginStrip strip = StripRenderPassBegin(arena, info, rp->second.removed);
    VkImageView view = strip.rateView;
    auto fb = dev.framebuffers.find(info->framebuffer);
    if (view == VK_NULL_HANDLE && fb != dev.framebuffers.end()) view = fb->second.rateView;
    state.BeginPass(PassRecord{info->renderPass, position, true, view});
    ++dev.counters.beginRenderPasses;
    const VkRect2D& area = info->renderArea;
    Emit(TraceLine("beginRenderPass")
             .Handle("commandBuffer", H(cb))
             .Num("position", position)
             .Handle("renderPass", H(info->renderPass))
             .Handle("framebuffer", H(info->framebuffer))
             .Handle("view", H(view))
             .Raw("renderArea", IntList({area.offset.x, area.offset.y, area.extent.width, area.extent.height})));
    return dev.emulation ? strip.info : info;
}

VKAPI_ATTR void VKAPI_CALL CmdBeginRenderPass(VkCommandBuffer commandBuffer, const VkRenderPassBeginInfo* pBegin,
                                              VkSubpassContents contents) {
    DeviceRecord& dev = Dev(commandBuffer);
    Arena arena;
    dev.fn.CmdBeginRenderPass(commandBuffer, BeginRenderPassCommon(dev, arena, commandBuffer, pBegin), contents);
}

template <PFN_vkCmdBeginRenderPass2 DeviceTable::*Next>
VKAPI_ATTR void VKAPI_CALL CmdBeginRenderPass2(VkCommandBuffer commandBuffer, const VkRenderPassBeginInfo* pBegin,
                                               const VkSubpassBeginInfo* pSubpassBeginInfo) {
    DeviceRecord& dev = Dev(commandBuffer);
    Arena arena;
    (dev.fn.*Next)(commandBuffer, BeginRenderPassCommon(dev, arena, commandBuffer, pBegin), pSubpassBeginInfo);
}

VKAPI_ATTR void VKAPI_CALL CmdNextSubpass(VkCommandBuffer commandBuffer, VkSubpassContents contents) {
    DeviceRecord& dev = Dev(commandBuffer);
    NextPosition(dev, commandBuffer);
    dev.fn.CmdNextSubpass(commandBuffer, contents);
}

template <PFN_vkCmdNextSubpass2 DeviceTable::*Next>
VKAPI_ATTR void VKAPI_CALL CmdNextSubpass2(VkCommandBuffer commandBuffer, const VkSubpassBeginInfo* pBegin,
                                           const VkSubpassEndInfo* pEnd) {
    DeviceRecord& dev = Dev(commandBuffer);
    NextPosition(dev, commandBuffer);
    (dev.fn.*Next)(commandBuffer, pBegin, pEnd);
}

// Counts the end of a pass; draws after it are outside any pass.
void EndPass(DeviceRecord& dev, VkCommandBuffer cb) {
    std::lock_guard<std::mutex> lock(g_lock);
    NextPositionLocked(dev, cb);
    dev.commandBuffers[cb].state.EndPass();
}

VKAPI_ATTR void VKAPI_CALL CmdEndRenderPass(VkCommandBuffer commandBuffer) {
    DeviceRecord& dev = Dev(commandBuffer);
    EndPass(dev, commandBuffer);
    dev.fn.CmdEndRenderPass(commandBuffer);
}

template <PFN_vkCmdEndRenderPass2 DeviceTable::*Next>
VKAPI_ATTR void VKAPI_CALL CmdEndRenderPass2(VkCommandBuffer commandBuffer, const VkSubpassEndInfo* pEnd) {
    DeviceRecord& dev = Dev(commandBuffer);
    EndPass(dev, commandBuffer);
    (dev.fn.*Next)(commandBuffer, pEnd);
}

template <PFN_vkCmdBeginRendering DeviceTable::*Next>
VKAPI_ATTR void VKAPI_CALL CmdBeginRendering(VkCommandBuffer commandBuffer, const VkRenderingInfo* pRenderingInfo) {
    DeviceRecord& dev = Dev(commandBuffer);
    {
        std::lock_guard<std::mutex> lock(g_lock);
        PassRecord pass{VK_NULL_HANDLE, NextPositionLocked(dev, commandBuffer)};
        for (auto* s = static_cast<const VkBaseInStructure*>(pRenderingInfo->pNext); s != nullptr; s = s->pNext) {
            if (s->sType != VK_STRUCTURE_TYPE_RENDERING_FRAGMENT_SHADING_RATE_ATTACHMENT_INFO_KHR) continue;
            pass.view = reinterpret_cast<const VkRenderingFragmentShadingRateAttachmentInfoKHR*>(s)->imageView;
            pass.attachment = pass.view != VK_NULL_HANDLE;
        }
        dev.commandBuffers[commandBuffer].state.BeginPass(pass);
    }
    Arena arena;
    (dev.fn.*Next)(commandBuffer, Down(dev, [&] { return StripRenderingInfo(arena, pRenderingInfo); },
                                       pRenderingInfo));
}

template <PFN_vkCmdEndRendering DeviceTable::*Next>
VKAPI_ATTR void VKAPI_CALL CmdEndRendering(VkCommandBuffer commandBuffer) {
    DeviceRecord& dev = Dev(commandBuffer);
    EndPass(dev, commandBuffer);
    (dev.fn.*Next)(commandBuffer);
}

VKAPI_ATTR void VKAPI_CALL CmdBindPipeline(VkCommandBuffer commandBuffer, VkPipelineBindPoint bindPoint,
                                           VkPipeline pipeline) {
    DeviceRecord& dev = Dev(commandBuffer);
    {
        std::lock_guard<std::mutex> lock(g_lock);
        NextPositionLocked(dev, commandBuffer);
        if (bindPoint == VK_PIPELINE_BIND_POINT_GRAPHICS) {
            CommandBufferRecord& rec = dev.commandBuffers[commandBuffer];
            auto it = dev.pipelines.find(pipeline);
            rec.state.BindPipeline(it == dev.pipelines.end() ? nullptr : &it->second);
            rec.pipeline = pipeline;
        }
    }
    dev.fn.CmdBindPipeline(commandBuffer, bindPoint, pipeline);
}

// Counts a draw and writes its line; `fill` adds the counts the call carries.
template <typename Fill>
void TraceDraw(DeviceRecord& dev, VkCommandBuffer cb, const char* call, Fill fill) {
    std::lock_guard<std::mutex> lock(g_lock);
    const int64_t position = NextPositionLocked(dev, cb);
    ++dev.counters.draws;
    if (!TraceEnabled()) return;
    TraceLine line("draw");
    line.Handle("commandBuffer", H(cb)).Num("position", position).Str("call", call);
    fill(line);
    const CommandBufferRecord& rec = dev.commandBuffers[cb];
    const DrawRate rate = rec.state.Draw();
    line.Str("level", LevelName(rec.level)).Handle("pipeline", H(rec.pipeline)).Str("rateFrom", RateFromName(rate.from));
    if (rate.from == RateFrom::kSet || rate.from == RateFrom::kPipeline) AddRate(line, rate.rate);
    if (rate.from == RateFrom::kSet) line.Num("ratePosition", rate.setPosition);
    if (const PassRecord* pass = rec.state.Pass()) AddPass(dev, line, *pass);
    Emit(line);
}

VKAPI_ATTR void VKAPI_CALL CmdDraw(VkCommandBuffer commandBuffer, uint32_t vertexCount, uint32_t instanceCount,
                                   uint32_t firstVertex, uint32_t firstInstance) {
    DeviceRecord& dev = Dev(commandBuffer);
    TraceDraw(dev, commandBuffer, "vkCmdDraw", [&](TraceLine& l) {
        l.Num("vertexCount", vertexCount).Num("instanceCount", instanceCount).Num("firstInstance", firstInstance);
    });
    dev.fn.CmdDraw(commandBuffer, vertexCount, instanceCount, firstVertex, firstInstance);
}

VKAPI_ATTR void VKAPI_CALL CmdDrawIndexed(VkCommandBuffer commandBuffer, uint32_t indexCount, uint32_t instanceCount,
                                          uint32_t firstIndex, int32_t vertexOffset, uint32_t firstInstance) {
    DeviceRecord& dev = Dev(commandBuffer);
    TraceDraw(dev, commandBuffer, "vkCmdDrawIndexed", [&](TraceLine& l) {
        l.Num("indexCount", indexCount).Num("instanceCount", instanceCount).Num("firstInstance", firstInstance);
    });
    dev.fn.CmdDrawIndexed(commandBuffer, indexCount, instanceCount, firstIndex, vertexOffset, firstInstance);
}

VKAPI_ATTR void VKAPI_CALL CmdDrawIndirect(VkCommandBuffer commandBuffer, VkBuffer buffer, VkDeviceSize offset,
                                           uint32_t drawCount, uint32_t stride) {
    DeviceRecord& dev = Dev(commandBuffer);
    TraceDraw(dev, commandBuffer, "vkCmdDrawIndirect", [&](TraceLine& l) { l.Num("drawCount", drawCount); });
    dev.fn.CmdDrawIndirect(commandBuffer, buffer, offset, drawCount, stride);
}

VKAPI_ATTR void VKAPI_CALL CmdDrawIndexedIndirect(VkCommandBuffer commandBuffer, VkBuffer buffer, VkDeviceSize offset,
                                                  uint32_t drawCount, uint32_t stride) {
    DeviceRecord& dev = Dev(commandBuffer);
    TraceDraw(dev, commandBuffer, "vkCmdDrawIndexedIndirect", [&](TraceLine& l) { l.Num("drawCount", drawCount); });
    dev.fn.CmdDrawIndexedIndirect(commandBuffer, buffer, offset, drawCount, stride);
}

template <PFN_vkCmdDrawIndirectCount DeviceTable::*Next>
VKAPI_ATTR void VKAPI_CALL CmdDrawIndirectCount(VkCommandBuffer commandBuffer, VkBuffer buffer, VkDeviceSize offset,
                                                VkBuffer countBuffer, VkDeviceSize countBufferOffset,
                                                uint32_t maxDrawCount, uint32_t stride) {
    DeviceRecord& dev = Dev(commandBuffer);
    TraceDraw(dev, commandBuffer, "vkCmdDrawIndirectCount",
              [&](TraceLine& l) { l.Num("maxDrawCount", maxDrawCount); });
    (dev.fn.*Next)(commandBuffer, buffer, offset, countBuffer, countBufferOffset, maxDrawCount, stride);
}

template <PFN_vkCmdDrawIndexedIndirectCount DeviceTable::*Next>
VKAPI_ATTR void VKAPI_CALL CmdDrawIndexedIndirectCount(VkCommandBuffer commandBuffer, VkBuffer buffer,
                                                       VkDeviceSize offset, VkBuffer countBuffer,
                                                       VkDeviceSize countBufferOffset, uint32_t maxDrawCount,
                                                       uint32_t stride) {
    DeviceRecord& dev = Dev(commandBuffer);
    TraceDraw(dev, commandBuffer, "vkCmdDrawIndexedIndirectCount",
              [&](TraceLine& l) { l.Num("maxDrawCount", maxDrawCount); });
    (dev.fn.*Next)(commandBuffer, buffer, offset, countBuffer, countBufferOffset, maxDrawCount, stride);
}

VKAPI_ATTR void VKAPI_CALL CmdDrawMultiEXT(VkCommandBuffer commandBuffer, uint32_t drawCount,
                                           const VkMultiDrawInfoEXT* pVertexInfo, uint32_t instanceCount,
                                           uint32_t firstInstance, uint32_t stride) {
    DeviceRecord& dev = Dev(commandBuffer);
    TraceDraw(dev, commandBuffer, "vkCmdDrawMultiEXT",
              [&](TraceLine& l) { l.Num("drawCount", drawCount).Num("instanceCount", instanceCount); });
    dev.fn.CmdDrawMultiEXT(commandBuffer, drawCount, pVertexInfo, instanceCount, firstInstance, stride);
}

VKAPI_ATTR void VKAPI_CALL CmdDrawMultiIndexedEXT(VkCommandBuffer commandBuffer, uint32_t drawCount,
                                                  const VkMultiDrawIndexedInfoEXT* pIndexInfo, uint32_t instanceCount,
                                                  uint32_t firstInstance, uint32_t stride,
                                                  const int32_t* pVertexOffset) {
    DeviceRecord& dev = Dev(commandBuffer);
    TraceDraw(dev, commandBuffer, "vkCmdDrawMultiIndexedEXT",
              [&](TraceLine& l) { l.Num("drawCount", drawCount).Num("instanceCount", instanceCount); });
    dev.fn.CmdDrawMultiIndexedEXT(commandBuffer, drawCount, pIndexInfo, instanceCount, firstInstance, stride,
                                  pVertexOffset);
}

VKAPI_ATTR void VKAPI_CALL CmdDrawIndirectByteCountEXT(VkCommandBuffer commandBuffer, uint32_t instanceCount,
                                                       uint32_t firstInstance, VkBuffer counterBuffer,
                                                       VkDeviceSize counterBufferOffset, uint32_t counterOffset,
                                                       uint32_t vertexStride) {
    DeviceRecord& dev = Dev(commandBuffer);
    TraceDraw(dev, commandBuffer, "vkCmdDrawIndirectByteCountEXT",
              [&](TraceLine& l) { l.Num("instanceCount", instanceCount); });
    dev.fn.CmdDrawIndirectByteCountEXT(commandBuffer, instanceCount, firstInstance, counterBuffer,
                                       counterBufferOffset, counterOffset, vertexStride);
}

VKAPI_ATTR void VKAPI_CALL CmdDrawMeshTasksEXT(VkCommandBuffer commandBuffer, uint32_t x, uint32_t y, uint32_t z) {
    DeviceRecord& dev = Dev(commandBuffer);
    TraceDraw(dev, commandBuffer, "vkCmdDrawMeshTasksEXT",
              [&](TraceLine& l) { l.Raw("groupCount", IntList({x, y, z})); });
    dev.fn.CmdDrawMeshTasksEXT(commandBuffer, x, y, z);
}

VKAPI_ATTR void VKAPI_CALL CmdDrawMeshTasksIndirectEXT(VkCommandBuffer commandBuffer, VkBuffer buffer,
                                                       VkDeviceSize offset, uint32_t drawCount, uint32_t stride) {
    DeviceRecord& dev = Dev(commandBuffer);
    TraceDraw(dev, commandBuffer, "vkCmdDrawMeshTasksIndirectEXT",
              [&](TraceLine& l) { l.Num("drawCount", drawCount); });
    dev.fn.CmdDrawMeshTasksIndirectEXT(commandBuffer, buffer, offset, drawCount, stride);
}

VKAPI_ATTR void VKAPI_CALL CmdDrawMeshTasksIndirectCountEXT(VkCommandBuffer commandBuffer, VkBuffer buffer,
                                                            VkDeviceSize offset, VkBuffer countBuffer,
                                                            VkDeviceSize countBufferOffset, uint32_t maxDrawCount,
                                                            uint32_t stride) {
    DeviceRecord& dev = Dev(commandBuffer);
    TraceDraw(dev, commandBuffer, "vkCmdDrawMeshTasksIndirectCountEXT",
              [&](TraceLine& l) { l.Num("maxDrawCount", maxDrawCount); });
    dev.fn.CmdDrawMeshTasksIndirectCountEXT(commandBuffer, buffer, offset, countBuffer, countBufferOffset,
                                            maxDrawCount, stride);
}

VKAPI_ATTR void VKAPI_CALL CmdExecuteCommands(VkCommandBuffer commandBuffer, uint32_t commandBufferCount,
                                              const VkCommandBuffer* pCommandBuffers) {
    DeviceRecord& dev = Dev(commandBuffer);
    {
        std::lock_guard<std::mutex> lock(g_lock);
        const int64_t position = NextPositionLocked(dev, commandBuffer);
        UploadOp op;
        op.secondaries.assign(pCommandBuffers, pCommandBuffers + commandBufferCount);
        dev.commandBuffers[commandBuffer].ops.push_back(std::move(op));
        std::string list = "[";
        for (uint32_t i = 0; i < commandBufferCount; ++i) {
            list += (i ? "," : "") + Quote(HandleText(H(pCommandBuffers[i])));
        }
        TraceLine line("executeCommands");
        line.Handle("commandBuffer", H(commandBuffer)).Num("position", position).Raw("secondaries", list + "]");
        const CommandBufferRecord& rec = dev.commandBuffers[commandBuffer];
        if (const PassRecord* pass = rec.state.Pass()) AddPass(dev, line, *pass);
        Emit(line);
    }
    dev.fn.CmdExecuteCommands(commandBuffer, commandBufferCount, pCommandBuffers);
}

VKAPI_ATTR void VKAPI_CALL CmdSetFragmentShadingRateKHR(VkCommandBuffer commandBuffer, const VkExtent2D* pFragmentSize,
                                                        const VkFragmentShadingRateCombinerOpKHR combinerOps[2]) {
    // Recorded only where emulated: the driver has no such command.
    DeviceRecord& dev = Dev(commandBuffer);
    if (!dev.emulation) dev.fn.CmdSetFragmentShadingRateKHR(commandBuffer, pFragmentSize, combinerOps);
    std::lock_guard<std::mutex> lock(g_lock);
    const int64_t position = NextPositionLocked(dev, commandBuffer);
    ++dev.counters.rates;
    CommandBufferRecord& rec = dev.commandBuffers[commandBuffer];
    Rate rate;
    rate.size = *pFragmentSize;
    rate.ops[0] = combinerOps[0];
    rate.ops[1] = combinerOps[1];
    // Into a command buffer that is not recording: traced, but in force for no draw.
    const bool recording = rec.state.SetRate(rate, position);
    TraceLine line("setRate");
    line.Handle("commandBuffer", H(commandBuffer))
        .Str("level", LevelName(rec.level))
        .Num("position", position)
        .Num("width", pFragmentSize->width)
        .Num("height", pFragmentSize->height)
        .Raw("combinerOps", CombinerList(rate))
        .Bool("recording", recording);
    Emit(line);
}

void RecordUploads(DeviceRecord& dev, VkCommandBuffer cb, VkBuffer buffer, VkImage image, uint32_t count,
                   const VkBufferImageCopy* regions) {
    std::lock_guard<std::mutex> lock(g_lock);
    auto it = dev.rateImages.find(image);
    if (it == dev.rateImages.end()) return;
    auto& ops = dev.commandBuffers[cb].ops;
    for (uint32_t i = 0; i < count; ++i) {
        UploadOp op;
        op.buffer = buffer;
        op.image = image;
        op.imageRec = it->second;
        op.region = regions[i];
        ops.push_back(std::move(op));
    }
}

VKAPI_ATTR void VKAPI_CALL CmdCopyBufferToImage(VkCommandBuffer commandBuffer, VkBuffer srcBuffer, VkImage dstImage,
                                                VkImageLayout dstImageLayout, uint32_t regionCount,
                                                const VkBufferImageCopy* pRegions) {
    DeviceRecord& dev = Dev(commandBuffer);
    RecordUploads(dev, commandBuffer, srcBuffer, dstImage, regionCount, pRegions);
    dev.fn.CmdCopyBufferToImage(commandBuffer, srcBuffer, dstImage,
                                dev.emulation ? StripLayout(dstImageLayout) : dstImageLayout, regionCount, pRegions);
}

template <PFN_vkCmdCopyBufferToImage2 DeviceTable::*Next>
VKAPI_ATTR void VKAPI_CALL CmdCopyBufferToImage2(VkCommandBuffer commandBuffer,
                                                 const VkCopyBufferToImageInfo2* pInfo) {
    DeviceRecord& dev = Dev(commandBuffer);
    std::vector<VkBufferImageCopy> regions(pInfo->regionCount);
    for (uint32_t i = 0; i < pInfo->regionCount; ++i) {
        const VkBufferImageCopy2& r = pInfo->pRegions[i];
        regions[i] = {r.bufferOffset, r.bufferRowLength, r.bufferImageHeight, r.imageSubresource, r.imageOffset,
                      r.imageExtent};
    }
    RecordUploads(dev, commandBuffer, pInfo->srcBuffer, pInfo->dstImage, pInfo->regionCount, regions.data());
    VkCopyBufferToImageInfo2 info = *pInfo;
    info.dstImageLayout = dev.emulation ? StripLayout(info.dstImageLayout) : info.dstImageLayout;
    (dev.fn.*Next)(commandBuffer, &info);
}

VKAPI_ATTR void VKAPI_CALL CmdPipelineBarrier(VkCommandBuffer commandBuffer, VkPipelineStageFlags srcStageMask,
                                              VkPipelineStageFlags dstStageMask, VkDependencyFlags dependencyFlags,
                                              uint32_t memoryBarrierCount, const VkMemoryBarrier* pMemoryBarriers,
                                              uint32_t bufferMemoryBarrierCount,
                                              const VkBufferMemoryBarrier* pBufferMemoryBarriers,
                                              uint32_t imageMemoryBarrierCount,
                                              const VkImageMemoryBarrier* pImageMemoryBarriers) {
    DeviceRecord& dev = Dev(commandBuffer);
    Arena arena;
    dev.fn.CmdPipelineBarrier(commandBuffer, StripStages(srcStageMask), StripStages(dstStageMask), dependencyFlags,
                              memoryBarrierCount, StripMemoryBarriers(arena, pMemoryBarriers, memoryBarrierCount),
                              bufferMemoryBarrierCount,
                              StripBufferBarriers(arena, pBufferMemoryBarriers, bufferMemoryBarrierCount),
                              imageMemoryBarrierCount,
                              StripImageBarriers(arena, pImageMemoryBarriers, imageMemoryBarrierCount));
}

template <PFN_vkCmdPipelineBarrier2 DeviceTable::*Next>
VKAPI_ATTR void VKAPI_CALL CmdPipelineBarrier2(VkCommandBuffer commandBuffer, const VkDependencyInfo* pDependencyInfo) {
    DeviceRecord& dev = Dev(commandBuffer);
    Arena arena;
    (dev.fn.*Next)(commandBuffer, StripDependencyInfos(arena, pDependencyInfo, 1));
}

VKAPI_ATTR void VKAPI_CALL CmdWaitEvents(VkCommandBuffer commandBuffer, uint32_t eventCount, const VkEvent* pEvents,
                                         VkPipelineStageFlags srcStageMask, VkPipelineStageFlags dstStageMask,
                                         uint32_t memoryBarrierCount, const VkMemoryBarrier* pMemoryBarriers,
                                         uint32_t bufferMemoryBarrierCount,
                                         const VkBufferMemoryBarrier* pBufferMemoryBarriers,
                                         uint32_t imageMemoryBarrierCount,
                                         const VkImageMemoryBarrier* pImageMemoryBarriers) {
    DeviceRecord& dev = Dev(commandBuffer);
    Arena arena;
    dev.fn.CmdWaitEvents(commandBuffer, eventCount, pEvents, StripStages(srcStageMask), StripStages(dstStageMask),
                         memoryBarrierCount, StripMemoryBarriers(arena, pMemoryBarriers, memoryBarrierCount),
                         bufferMemoryBarrierCount,
                         StripBufferBarriers(arena, pBufferMemoryBarriers, bufferMemoryBarrierCount),
                         imageMemoryBarrierCount,
                         StripImageBarriers(arena, pImageMemoryBarriers, imageMemoryBarrierCount));
}

template <PFN_vkCmdWaitEvents2 DeviceTable::*Next>
VKAPI_ATTR void VKAPI_CALL CmdWaitEvents2(VkCommandBuffer commandBuffer, uint32_t eventCount, const VkEvent* pEvents,
                                          const VkDependencyInfo* pDependencyInfos) {
    DeviceRecord& dev = Dev(commandBuffer);
    Arena arena;
    (dev.fn.*Next)(commandBuffer, eventCount, pEvents, StripDependencyInfos(arena, pDependencyInfos, eventCount));
}

VKAPI_ATTR void VKAPI_CALL CmdSetEvent(VkCommandBuffer commandBuffer, VkEvent event, VkPipelineStageFlags stageMask) {
    Dev(commandBuffer).fn.CmdSetEvent(commandBuffer, event, StripStages(stageMask));
}

template <PFN_vkCmdSetEvent2 DeviceTable::*Next>
VKAPI_ATTR void VKAPI_CALL CmdSetEvent2(VkCommandBuffer commandBuffer, VkEvent event,
                                        const VkDependencyInfo* pDependencyInfo) {
    DeviceRecord& dev = Dev(commandBuffer);
    Arena arena;
    (dev.fn.*Next)(commandBuffer, event, StripDependencyInfos(arena, pDependencyInfo, 1));
}

VKAPI_ATTR void VKAPI_CALL CmdResetEvent(VkCommandBuffer commandBuffer, VkEvent event,
                                         VkPipelineStageFlags stageMask) {
    Dev(commandBuffer).fn.CmdResetEvent(commandBuffer, event, StripStages(stageMask));
}

template <PFN_vkCmdResetEvent2 DeviceTable::*Next>
VKAPI_ATTR void VKAPI_CALL CmdResetEvent2(VkCommandBuffer commandBuffer, VkEvent event,
                                          VkPipelineStageFlags2 stageMask) {
    (Dev(commandBuffer).fn.*Next)(commandBuffer, event, StripStages2(stageMask));
}

// ---------------------------------------------------------------------------------------------
// Submission: the bytes of the uploads into shading-rate images

// Under g_lock: appends the uploads that executing `cb` performs, with the command buffer that recorded each.
void CollectUploads(DeviceRecord& dev, VkCommandBuffer cb, int depth,
                    std::vector<std::pair<VkCommandBuffer, const UploadOp*>>& out) {
    auto it = dev.commandBuffers.find(cb);
    if (it == dev.commandBuffers.end() || depth > 4) return;
    for (const UploadOp& op : it->second.ops) {
        if (op.buffer != VK_NULL_HANDLE) {
            out.emplace_back(cb, &op);
        } else {
            for (VkCommandBuffer s : op.secondaries) CollectUploads(dev, s, depth + 1, out);
        }
    }
}

// Under g_lock: the bytes that an upload reads from its buffer, packed row after row, or why they cannot be read.
bool ReadUpload(DeviceRecord& dev, const UploadOp& op, std::string& hex, std::string& reason) {
    const VkBufferImageCopy& r = op.region;
    const uint64_t texel = op.imageRec.texelBytes;
    if (texel == 0) {
        reason = "format " + std::to_string(op.imageRec.format) + " has no known texel size";
        return false;
    }
    auto buf = dev.buffers.find(op.buffer);
    if (buf == dev.buffers.end()) {
        reason = "buffer has no memory bound";
        return false;
    }
    auto mem = dev.memories.find(buf->second.memory);
    if (mem == dev.memories.end()) {
        reason = "buffer memory unknown";
        return false;
    }
    MemoryRecord& m = mem->second;
    if (!m.hostVisible) {
        reason = "memory not host-visible";
        return false;
    }
    const uint64_t width = r.imageExtent.width, height = r.imageExtent.height, depth = r.imageExtent.depth;
    uint64_t layers = r.imageSubresource.layerCount;
    if (layers == VK_REMAINING_ARRAY_LAYERS) layers = op.imageRec.arrayLayers - r.imageSubresource.baseArrayLayer;
    const uint64_t rowLength = r.bufferRowLength ? r.bufferRowLength : width;
    const uint64_t imageHeight = r.bufferImageHeight ? r.bufferImageHeight : height;
    const uint64_t rows = layers * depth * height;
    if (rows == 0 || width == 0) return true;
    const uint64_t begin = buf->second.offset + r.bufferOffset;
    const uint64_t lastSlice = layers * depth - 1;
    const uint64_t end = begin + (lastSlice * imageHeight + height - 1) * rowLength * texel + width * texel;
    if (end > m.size) {
        reason = "region reaches beyond the buffer's memory";
        return false;
    }

    const unsigned char* base = nullptr;
    bool ownMapping = false;
    if (m.mapped != nullptr) {
        if (begin < m.mapOffset || end > m.mapOffset + m.mapSize) {
            reason = "the application maps another range of the memory";
            return false;
        }
        base = static_cast<const unsigned char*>(m.mapped) + (begin - m.mapOffset);
    } else {
        void* p = nullptr;
        if (dev.fn.MapMemory(dev.device, buf->second.memory, begin, end - begin, 0, &p) != VK_SUCCESS) {
            reason = "vkMapMemory failed";
            return false;
        }
        base = static_cast<const unsigned char*>(p);
        ownMapping = true;
    }
    static const char kDigits[] = "0123456789abcdef";
    hex.reserve(rows * width * texel * 2);
    for (uint64_t slice = 0; slice <= lastSlice; ++slice) {
        for (uint64_t y = 0; y < height; ++y) {
            const unsigned char* row = base + (slice * imageHeight + y) * rowLength * texel;
            for (uint64_t i = 0; i < width * texel; ++i) {
                hex += kDigits[row[i] >> 4];
                hex += kDigits[row[i] & 15];
            }
        }
    }
    if (ownMapping) dev.fn.UnmapMemory(dev.device, buf->second.memory);
    return true;
}

void TraceUploads(DeviceRecord& dev, VkQueue queue, const std::vector<VkCommandBuffer>& submitted) {
    std::lock_guard<std::mutex> lock(g_lock);
    const int64_t submission = dev.counters.submissions++;
    for (VkCommandBuffer primary : submitted) {
        std::vector<std::pair<VkCommandBuffer, const UploadOp*>> uploads;
        CollectUploads(dev, primary, 0, uploads);
        for (const auto& [recordedIn, op] : uploads) {
            std::string hex, reason;
            const bool readable = ReadUpload(dev, *op, hex, reason);
            ++dev.counters.uploads;
            if (!readable) ++dev.counters.unreadableUploads;
            const VkBufferImageCopy& r = op->region;
            TraceLine line("upload");
            line.Handle("queue", H(queue))
                .Num("submission", submission)
                .Handle("submittedCommandBuffer", H(primary))
                .Handle("commandBuffer", H(recordedIn))
                .Handle("image", H(op->image))
                .Num("format", op->imageRec.format)
                .Handle("buffer", H(op->buffer))
                .Num("bufferOffset", static_cast<int64_t>(r.bufferOffset))
                .Num("mipLevel", r.imageSubresource.mipLevel)
                .Num("baseArrayLayer", r.imageSubresource.baseArrayLayer)
                .Num("layerCount", r.imageSubresource.layerCount)
                .Raw("imageOffset", IntList({r.imageOffset.x, r.imageOffset.y, r.imageOffset.z}))
                .Raw("extent", IntList({r.imageExtent.width, r.imageExtent.height, r.imageExtent.depth}))
                .Bool("readable", readable);
            if (readable) {
                line.Str("bytes", hex);
            } else {
                line.Str("reason", reason);
            }
            Emit(line);
        }
    }
}

VKAPI_ATTR VkResult VKAPI_CALL QueueSubmit(VkQueue queue, uint32_t submitCount, const VkSubmitInfo* pSubmits,
                                           VkFence fence) {
    DeviceRecord& dev = Dev(queue);
    std::vector<VkCommandBuffer> submitted;
    for (uint32_t i = 0; i < submitCount; ++i) {
        submitted.insert(submitted.end(), pSubmits[i].pCommandBuffers,
                         pSubmits[i].pCommandBuffers + pSubmits[i].commandBufferCount);
    }
    TraceUploads(dev, queue, submitted);
    Arena arena;
    const VkSubmitInfo* down = Down(dev, [&] { return StripSubmits(arena, pSubmits, submitCount); }, pSubmits);
    return dev.fn.QueueSubmit(queue, submitCount, down, fence);
}

// Frames, so that a reader (and a tool waiting for frame N) can tell what happened when.
VKAPI_ATTR VkResult VKAPI_CALL QueuePresentKHR(VkQueue queue, const VkPresentInfoKHR* pPresentInfo) {
    DeviceRecord& dev = Dev(queue);
    int64_t frame = 0;
    {
        std::lock_guard<std::mutex> lock(g_lock);
        frame = ++dev.counters.presents;
    }
    if (TraceEnabled()) {
        Emit(TraceLine("present").Handle("queue", H(queue)).Num("frame", frame));
    }
    return dev.wsi ? dev.wsi->Present(queue, pPresentInfo) : dev.fn.QueuePresentKHR(queue, pPresentInfo);
}

// ---------------------------------------------------------------------------------------------
// Headless presentation (fsr_wsi.h): resolved only where the layer serves it

VKAPI_ATTR VkResult VKAPI_CALL CreateHeadlessSurfaceEXT(VkInstance instance, const VkHeadlessSurfaceCreateInfoEXT*,
                                                        const VkAllocationCallbacks*, VkSurfaceKHR* pSurface) {
    return Inst(instance).wsi->CreateSurface(pSurface);
}

VKAPI_ATTR void VKAPI_CALL DestroySurfaceKHR(VkInstance instance, VkSurfaceKHR surface,
                                             const VkAllocationCallbacks* pAllocator) {
    Inst(instance).wsi->DestroySurface(instance, surface, pAllocator);
}

VKAPI_ATTR VkResult VKAPI_CALL GetPhysicalDeviceSurfaceSupportKHR(VkPhysicalDevice physicalDevice, uint32_t family,
                                                                  VkSurfaceKHR surface, VkBool32* pSupported) {
    return Inst(physicalDevice).wsi->Support(physicalDevice, family, surface, pSupported);
}

VKAPI_ATTR VkResult VKAPI_CALL GetPhysicalDeviceSurfaceCapabilitiesKHR(VkPhysicalDevice physicalDevice,
                                                                       VkSurfaceKHR surface,
                                                                       VkSurfaceCapabilitiesKHR* pCapabilities) {
    return Inst(physicalDevice).wsi->Capabilities(physicalDevice, surface, pCapabilities);
}

VKAPI_ATTR VkResult VKAPI_CALL GetPhysicalDeviceSurfaceCapabilities2KHR(
    VkPhysicalDevice physicalDevice, const VkPhysicalDeviceSurfaceInfo2KHR* pSurfaceInfo,
    VkSurfaceCapabilities2KHR* pCapabilities) {
    return Inst(physicalDevice).wsi->Capabilities2(physicalDevice, pSurfaceInfo, pCapabilities);
}

VKAPI_ATTR VkResult VKAPI_CALL GetPhysicalDeviceSurfaceFormatsKHR(VkPhysicalDevice physicalDevice,
                                                                  VkSurfaceKHR surface, uint32_t* pCount,
                                                                  VkSurfaceFormatKHR* pFormats) {
    return Inst(physicalDevice).wsi->Formats(physicalDevice, surface, pCount, pFormats);
}

VKAPI_ATTR VkResult VKAPI_CALL GetPhysicalDeviceSurfaceFormats2KHR(VkPhysicalDevice physicalDevice,
                                                                   const VkPhysicalDeviceSurfaceInfo2KHR* pSurfaceInfo,
                                                                   uint32_t* pCount, VkSurfaceFormat2KHR* pFormats) {
    return Inst(physicalDevice).wsi->Formats2(physicalDevice, pSurfaceInfo, pCount, pFormats);
}

VKAPI_ATTR VkResult VKAPI_CALL GetPhysicalDeviceSurfacePresentModesKHR(VkPhysicalDevice physicalDevice,
                                                                       VkSurfaceKHR surface, uint32_t* pCount,
                                                                       VkPresentModeKHR* pModes) {
    return Inst(physicalDevice).wsi->PresentModes(physicalDevice, surface, pCount, pModes);
}

VKAPI_ATTR VkResult VKAPI_CALL CreateSwapchainKHR(VkDevice device, const VkSwapchainCreateInfoKHR* pCreateInfo,
                                                  const VkAllocationCallbacks* pAllocator, VkSwapchainKHR* pSwapchain) {
    return Dev(device).wsi->CreateSwapchain(pCreateInfo, pAllocator, pSwapchain);
}

VKAPI_ATTR void VKAPI_CALL DestroySwapchainKHR(VkDevice device, VkSwapchainKHR swapchain,
                                               const VkAllocationCallbacks* pAllocator) {
    Dev(device).wsi->DestroySwapchain(swapchain, pAllocator);
}

VKAPI_ATTR VkResult VKAPI_CALL GetSwapchainImagesKHR(VkDevice device, VkSwapchainKHR swapchain, uint32_t* pCount,
                                                     VkImage* pImages) {
    return Dev(device).wsi->Images(swapchain, pCount, pImages);
}

VKAPI_ATTR VkResult VKAPI_CALL AcquireNextImageKHR(VkDevice device, VkSwapchainKHR swapchain, uint64_t timeout,
                                                   VkSemaphore semaphore, VkFence fence, uint32_t* pImageIndex) {
    return Dev(device).wsi->Acquire(swapchain, timeout, semaphore, fence, pImageIndex);
}

VKAPI_ATTR VkResult VKAPI_CALL AcquireNextImage2KHR(VkDevice device, const VkAcquireNextImageInfoKHR* pAcquireInfo,
                                                    uint32_t* pImageIndex) {
    return Dev(device).wsi->Acquire2(pAcquireInfo, pImageIndex);
}

template <PFN_vkQueueSubmit2 DeviceTable::*Next>
VKAPI_ATTR VkResult VKAPI_CALL QueueSubmit2(VkQueue queue, uint32_t submitCount, const VkSubmitInfo2* pSubmits,
                                            VkFence fence) {
    DeviceRecord& dev = Dev(queue);
    std::vector<VkCommandBuffer> submitted;
    for (uint32_t i = 0; i < submitCount; ++i) {
        for (uint32_t c = 0; c < pSubmits[i].commandBufferInfoCount; ++c) {
            submitted.push_back(pSubmits[i].pCommandBufferInfos[c].commandBuffer);
        }
    }
    TraceUploads(dev, queue, submitted);
    Arena arena;
    const VkSubmitInfo2* down = Down(dev, [&] { return StripSubmits2(arena, pSubmits, submitCount); }, pSubmits);
    return (dev.fn.*Next)(queue, submitCount, down, fence);
}

// ---------------------------------------------------------------------------------------------
// Resolution

VKAPI_ATTR PFN_vkVoidFunction VKAPI_CALL GetDeviceProcAddr(VkDevice device, const char* pName);
VKAPI_ATTR PFN_vkVoidFunction VKAPI_CALL GetInstanceProcAddr(VkInstance instance, const char* pName);

#define FSR_FN(f) reinterpret_cast<PFN_vkVoidFunction>(f)
// A core command and its KHR alias, served by one handler template over their table slots.
#define FSR_CORE_AND_KHR(Table, Name) \
    {"vk" #Name, FSR_FN(Name<&Table::Name>)}, {"vk" #Name "KHR", FSR_FN(Name<&Table::Name##KHR>)}

const std::unordered_map<std::string_view, PFN_vkVoidFunction>& InstanceHooks() {
    static const std::unordered_map<std::string_view, PFN_vkVoidFunction> hooks = {
        {"vkGetInstanceProcAddr", FSR_FN(GetInstanceProcAddr)},
        {"vkCreateInstance", FSR_FN(CreateInstance)},
        {"vkDestroyInstance", FSR_FN(DestroyInstance)},
        {"vkCreateDevice", FSR_FN(CreateDevice)},
        {"vkEnumerateDeviceExtensionProperties", FSR_FN(EnumerateDeviceExtensionProperties)},
        FSR_CORE_AND_KHR(InstanceTable, GetPhysicalDeviceFeatures2),
        FSR_CORE_AND_KHR(InstanceTable, GetPhysicalDeviceProperties2),
        {"vkGetPhysicalDeviceFragmentShadingRatesKHR", FSR_FN(GetPhysicalDeviceFragmentShadingRatesKHR)},
        {"vkGetPhysicalDeviceFormatProperties", FSR_FN(GetPhysicalDeviceFormatProperties)},
        FSR_CORE_AND_KHR(InstanceTable, GetPhysicalDeviceFormatProperties2),
        {"vkGetPhysicalDeviceImageFormatProperties", FSR_FN(GetPhysicalDeviceImageFormatProperties)},
        FSR_CORE_AND_KHR(InstanceTable, GetPhysicalDeviceImageFormatProperties2),
        {"vkGetPhysicalDeviceSparseImageFormatProperties", FSR_FN(GetPhysicalDeviceSparseImageFormatProperties)},
        FSR_CORE_AND_KHR(InstanceTable, GetPhysicalDeviceSparseImageFormatProperties2),
    };
    return hooks;
}

const std::unordered_map<std::string_view, PFN_vkVoidFunction>& DeviceHooks() {
    static const std::unordered_map<std::string_view, PFN_vkVoidFunction> hooks = {
        {"vkGetDeviceProcAddr", FSR_FN(GetDeviceProcAddr)},
        {"vkDestroyDevice", FSR_FN(DestroyDevice)},
        {"vkQueuePresentKHR", FSR_FN(QueuePresentKHR)},
        {"vkCreateImage", FSR_FN(CreateImage)},
        {"vkDestroyImage", FSR_FN(DestroyImage)},
        {"vkCreateImageView", FSR_FN(CreateImageView)},
        {"vkBindBufferMemory", FSR_FN(BindBufferMemory)},
        FSR_CORE_AND_KHR(DeviceTable, BindBufferMemory2),
        {"vkDestroyBuffer", FSR_FN(DestroyBuffer)},
        {"vkAllocateMemory", FSR_FN(AllocateMemory)},
        {"vkFreeMemory", FSR_FN(FreeMemory)},
        {"vkMapMemory", FSR_FN(MapMemory)},
        {"vkUnmapMemory", FSR_FN(UnmapMemory)},
        {"vkCreateRenderPass", FSR_FN(CreateRenderPass)},
        FSR_CORE_AND_KHR(DeviceTable, CreateRenderPass2),
        {"vkDestroyRenderPass", FSR_FN(DestroyRenderPass)},
        {"vkCreateFramebuffer", FSR_FN(CreateFramebuffer)},
        {"vkDestroyFramebuffer", FSR_FN(DestroyFramebuffer)},
        {"vkCreateGraphicsPipelines", FSR_FN(CreateGraphicsPipelines)},
        {"vkAllocateCommandBuffers", FSR_FN(AllocateCommandBuffers)},
        {"vkFreeCommandBuffers", FSR_FN(FreeCommandBuffers)},
        {"vkResetCommandPool", FSR_FN(ResetCommandPool)},
        {"vkDestroyCommandPool", FSR_FN(DestroyCommandPool)},
        {"vkBeginCommandBuffer", FSR_FN(BeginCommandBuffer)},
        {"vkEndCommandBuffer", FSR_FN(EndCommandBuffer)},
        {"vkResetCommandBuffer", FSR_FN(ResetCommandBuffer)},
        {"vkCmdBeginRenderPass", FSR_FN(CmdBeginRenderPass)},
        FSR_CORE_AND_KHR(DeviceTable, CmdBeginRenderPass2),
        {"vkCmdNextSubpass", FSR_FN(CmdNextSubpass)},
        FSR_CORE_AND_KHR(DeviceTable, CmdNextSubpass2),
        {"vkCmdEndRenderPass", FSR_FN(CmdEndRenderPass)},
        FSR_CORE_AND_KHR(DeviceTable, CmdEndRenderPass2),
        FSR_CORE_AND_KHR(DeviceTable, CmdBeginRendering),
        FSR_CORE_AND_KHR(DeviceTable, CmdEndRendering),
        {"vkCmdBindPipeline", FSR_FN(CmdBindPipeline)},
        {"vkCmdDraw", FSR_FN(CmdDraw)},
        {"vkCmdDrawIndexed", FSR_FN(CmdDrawIndexed)},
        {"vkCmdDrawIndirect", FSR_FN(CmdDrawIndirect)},
        {"vkCmdDrawIndexedIndirect", FSR_FN(CmdDrawIndexedIndirect)},
        FSR_CORE_AND_KHR(DeviceTable, CmdDrawIndirectCount),
        {"vkCmdDrawIndirectCountAMD", FSR_FN(CmdDrawIndirectCount<&DeviceTable::CmdDrawIndirectCountAMD>)},
        FSR_CORE_AND_KHR(DeviceTable, CmdDrawIndexedIndirectCount),
        {"vkCmdDrawIndexedIndirectCountAMD",
         FSR_FN(CmdDrawIndexedIndirectCount<&DeviceTable::CmdDrawIndexedIndirectCountAMD>)},
        {"vkCmdDrawMultiEXT", FSR_FN(CmdDrawMultiEXT)},
        {"vkCmdDrawMultiIndexedEXT", FSR_FN(CmdDrawMultiIndexedEXT)},
        {"vkCmdDrawIndirectByteCountEXT", FSR_FN(CmdDrawIndirectByteCountEXT)},
        {"vkCmdDrawMeshTasksEXT", FSR_FN(CmdDrawMeshTasksEXT)},
        {"vkCmdDrawMeshTasksIndirectEXT", FSR_FN(CmdDrawMeshTasksIndirectEXT)},
        {"vkCmdDrawMeshTasksIndirectCountEXT", FSR_FN(CmdDrawMeshTasksIndirectCountEXT)},
        {"vkCmdExecuteCommands", FSR_FN(CmdExecuteCommands)},
        {"vkCmdSetFragmentShadingRateKHR", FSR_FN(CmdSetFragmentShadingRateKHR)},
        {"vkCmdCopyBufferToImage", FSR_FN(CmdCopyBufferToImage)},
        FSR_CORE_AND_KHR(DeviceTable, CmdCopyBufferToImage2),
        {"vkCmdPipelineBarrier", FSR_FN(CmdPipelineBarrier)},
        FSR_CORE_AND_KHR(DeviceTable, CmdPipelineBarrier2),
        {"vkCmdWaitEvents", FSR_FN(CmdWaitEvents)},
        FSR_CORE_AND_KHR(DeviceTable, CmdWaitEvents2),
        {"vkCmdSetEvent", FSR_FN(CmdSetEvent)},
        FSR_CORE_AND_KHR(DeviceTable, CmdSetEvent2),
        {"vkCmdResetEvent", FSR_FN(CmdResetEvent)},
        FSR_CORE_AND_KHR(DeviceTable, CmdResetEvent2),
        {"vkQueueSubmit", FSR_FN(QueueSubmit)},
        FSR_CORE_AND_KHR(DeviceTable, QueueSubmit2),
    };
    return hooks;
}

using Hooks = std::unordered_map<std::string_view, PFN_vkVoidFunction>;

const Hooks& WsiInstanceHooks() {
    static const Hooks hooks = {
        {"vkCreateHeadlessSurfaceEXT", FSR_FN(CreateHeadlessSurfaceEXT)},
        {"vkDestroySurfaceKHR", FSR_FN(DestroySurfaceKHR)},
        {"vkGetPhysicalDeviceSurfaceSupportKHR", FSR_FN(GetPhysicalDeviceSurfaceSupportKHR)},
        {"vkGetPhysicalDeviceSurfaceCapabilitiesKHR", FSR_FN(GetPhysicalDeviceSurfaceCapabilitiesKHR)},
        {"vkGetPhysicalDeviceSurfaceCapabilities2KHR", FSR_FN(GetPhysicalDeviceSurfaceCapabilities2KHR)},
        {"vkGetPhysicalDeviceSurfaceFormatsKHR", FSR_FN(GetPhysicalDeviceSurfaceFormatsKHR)},
        {"vkGetPhysicalDeviceSurfaceFormats2KHR", FSR_FN(GetPhysicalDeviceSurfaceFormats2KHR)},
        {"vkGetPhysicalDeviceSurfacePresentModesKHR", FSR_FN(GetPhysicalDeviceSurfacePresentModesKHR)},
    };
    return hooks;
}

const Hooks& WsiDeviceHooks() {
    static const Hooks hooks = {
        {"vkCreateSwapchainKHR", FSR_FN(CreateSwapchainKHR)},
        {"vkDestroySwapchainKHR", FSR_FN(DestroySwapchainKHR)},
        {"vkGetSwapchainImagesKHR", FSR_FN(GetSwapchainImagesKHR)},
        {"vkAcquireNextImageKHR", FSR_FN(AcquireNextImageKHR)},
        {"vkAcquireNextImage2KHR", FSR_FN(AcquireNextImage2KHR)},
        {"vkQueuePresentKHR", FSR_FN(QueuePresentKHR)},
    };
    return hooks;
}

PFN_vkVoidFunction Find(const std::unordered_map<std::string_view, PFN_vkVoidFunction>& hooks, const char* name) {
    auto it = hooks.find(name);
    return it == hooks.end() ? nullptr : it->second;
}

// The commands the driver never has: they resolve even though nothing below offers them.
bool IsOwnCommand(const char* name) {
    return std::strcmp(name, "vkCmdSetFragmentShadingRateKHR") == 0 ||
           std::strcmp(name, "vkGetPhysicalDeviceFragmentShadingRatesKHR") == 0;
}

// The hooks that only answer for the extension or remove it: with the emulation off, the
// driver's own, since the trace needs none of them.
bool AnswersOrStripsOnly(std::string_view name) {
    for (std::string_view prefix : {"vkGetPhysicalDevice", "vkEnumerateDeviceExtensionProperties",
                                    "vkCmdPipelineBarrier", "vkCmdWaitEvents", "vkCmdSetEvent", "vkCmdResetEvent"}) {
        if (name.substr(0, prefix.size()) == prefix) return true;
    }
    return false;
}

// Our hook or the next layer's function: headless presentation where served, whatever the
// driver has; the emulation's own commands only with the emulation on.
PFN_vkVoidFunction Resolve(bool emulation, bool wsi, const Hooks& wsiHooks, PFN_vkVoidFunction hook,
                           PFN_vkVoidFunction next, const char* name) {
    if (PFN_vkVoidFunction own = wsi ? Find(wsiHooks, name) : nullptr) return own;
    if (hook == nullptr || (!emulation && AnswersOrStripsOnly(name))) return next;
    return next != nullptr || (emulation && IsOwnCommand(name)) ? hook : next;
}

VKAPI_ATTR PFN_vkVoidFunction VKAPI_CALL GetDeviceProcAddr(VkDevice device, const char* pName) {
    if (device == VK_NULL_HANDLE || pName == nullptr) return nullptr;
    DeviceRecord* dev = GetDevice(Key(device));
    if (dev == nullptr) return nullptr;
    return Resolve(dev->emulation, dev->wsi != nullptr, WsiDeviceHooks(), Find(DeviceHooks(), pName),
                   dev->gdpa(device, pName), pName);
}

VKAPI_ATTR PFN_vkVoidFunction VKAPI_CALL GetInstanceProcAddr(VkInstance instance, const char* pName) {
    if (pName == nullptr) return nullptr;
    if (std::strcmp(pName, "vkCreateInstance") == 0 || std::strcmp(pName, "vkGetInstanceProcAddr") == 0) {
        return Find(InstanceHooks(), pName);
    }
    if (instance == VK_NULL_HANDLE) return nullptr;
    InstanceRecord* inst = GetInstance(Key(instance));
    if (inst == nullptr) return nullptr;
    PFN_vkVoidFunction hook = Find(InstanceHooks(), pName);
    if (hook == nullptr) hook = Find(DeviceHooks(), pName);
    const bool wsi = inst->wsi != nullptr;
    PFN_vkVoidFunction next = inst->gipa(instance, pName);
    if (PFN_vkVoidFunction own = wsi ? Find(WsiDeviceHooks(), pName) : nullptr) return own;
    return Resolve(inst->emulation, wsi, WsiInstanceHooks(), hook, next, pName);
}

}  // namespace
}  // namespace fsr

extern "C" __attribute__((visibility("default"))) VKAPI_ATTR VkResult VKAPI_CALL
vkNegotiateLoaderLayerInterfaceVersion(VkNegotiateLayerInterface* pVersionStruct) {
    if (pVersionStruct == nullptr || pVersionStruct->sType != LAYER_NEGOTIATE_INTERFACE_STRUCT ||
        pVersionStruct->loaderLayerInterfaceVersion < 2) {
        return VK_ERROR_INITIALIZATION_FAILED;
    }
    pVersionStruct->loaderLayerInterfaceVersion = 2;
    pVersionStruct->pfnGetInstanceProcAddr = fsr::GetInstanceProcAddr;
    pVersionStruct->pfnGetDeviceProcAddr = fsr::GetDeviceProcAddr;
    pVersionStruct->pfnGetPhysicalDeviceProcAddr = nullptr;
    return VK_SUCCESS;
}
