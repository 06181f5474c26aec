// The resource helper and the shading-rate builder, on a recording next layer: what each
// operation hands down, what it creates and destroys, and in which order.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include <gtest/gtest.h>

#include "app/module/zovk_fixed_vrs_renderpass.h"
#include "app/zovk_extent.h"
#include "app/zovk_processor_base.h"
#include "layer/zovk_records.h"

namespace {

using vulkan::zovk::MyVkExtent2D;
using vulkan::zovk::VkExtent2DHash;
using vulkan::zovk::ZoVkDeviceInfo;
using vulkan::zovk::ZoVkInstanceInfo;
using vulkan::zovk::app::module::ShadingRateImageInfo;
using vulkan::zovk::app::module::ZoVkFixedVRSRenderpass;
using Log = std::vector<std::string>;

constexpr VkImageLayout kRateLayout = VK_IMAGE_LAYOUT_FRAGMENT_SHADING_RATE_ATTACHMENT_OPTIMAL_KHR;
constexpr VkMemoryPropertyFlags kHost = VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT | VK_MEMORY_PROPERTY_HOST_COHERENT_BIT;

struct Dispatchable {
    void* dispatch = nullptr;  // null until the loader's data is set
};

// A zeroed Vulkan structure of the given type.
template <typename S>
S Struct(VkStructureType type) {
    S s{};
    s.sType = type;
    return s;
}

template <typename H>
H Handle(uint64_t value) {
    return reinterpret_cast<H>(static_cast<uintptr_t>(value));
}
template <typename H>
uint64_t Value(H handle) {
    return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(handle));
}

// Deep copy of a render pass as the next layer received it.
struct SeenPass {
    struct Subpass {
        VkSubpassDescription2 desc;
        std::vector<VkAttachmentReference2> input, color, resolve;
        VkAttachmentReference2 depth{};
        const void* chain;  // where pNext pointed, to see that subpasses share it
        VkFragmentShadingRateAttachmentInfoKHR rate{};
        VkAttachmentReference2 rateReference{};
    };
    VkRenderPassCreateInfo2 info;
    std::vector<VkAttachmentDescription2> attachments;
    std::vector<Subpass> subpasses;
    std::vector<VkSubpassDependency2> dependencies;
};

// The recording next layer. Handles are numbers; the command buffers and the queue are
// objects whose first word the loader callback fills.
struct Fake {
    int loaderData = 0;
    Log log;
    uint64_t nextHandle = 0x100;
    VkResult createResult = VK_SUCCESS;  // of the create named by failName
    std::string failName;

    VkPhysicalDeviceMemoryProperties memory{};
    uint32_t typeBits = ~0u;
    std::vector<VkQueueFamilyProperties> families;

    SeenPass pass{};
    VkFramebufferCreateInfo framebuffer{};
    std::vector<VkImageView> framebufferViews;
    VkGraphicsPipelineCreateInfo pipeline{};
    std::vector<VkDynamicState> dynamicStates;
    const VkAllocationCallbacks* pipelineAllocator = nullptr;
    VkPipelineCache pipelineCache = VK_NULL_HANDLE;
    std::vector<VkImageCreateInfo> images;
    std::vector<VkMemoryAllocateInfo> allocations;
    std::vector<VkCommandPoolCreateInfo> pools;
    std::vector<VkCommandPool> allocatedFrom, freedTo;
    std::vector<VkImageMemoryBarrier> barriers;
    std::vector<VkPipelineStageFlags> stages;
    std::vector<VkBufferImageCopy> copies;
    std::vector<unsigned char> mapped;
    std::vector<std::unique_ptr<Dispatchable>> commandBuffers;
    Dispatchable queue;

    VkResult Create(const char* name) {
        log.push_back(name);
        return failName == name ? createResult : VK_SUCCESS;
    }
    template <typename H>
    VkResult Make(const char* name, H* out) {
        const VkResult result = Create(name);
        *out = result == VK_SUCCESS ? Handle<H>(nextHandle++) : VK_NULL_HANDLE;
        return result;
    }
    bool HasLoaderData(const void* object) const {
        return static_cast<const Dispatchable*>(object)->dispatch == &loaderData;
    }
    template <typename H>
    void Destroyed(const char* name, H handle) {
        log.push_back(std::string(name) + ":" + std::to_string(Value(handle)));
    }
};
Fake* gFake;

void VKAPI_CALL GetMemoryProperties(VkPhysicalDevice, VkPhysicalDeviceMemoryProperties* out) {
    gFake->log.push_back("vkGetPhysicalDeviceMemoryProperties");
    *out = gFake->memory;
}
void VKAPI_CALL GetQueueFamilies(VkPhysicalDevice, uint32_t* count, VkQueueFamilyProperties* out) {
    if (out != nullptr) {
        std::copy(gFake->families.begin(), gFake->families.begin() + *count, out);
    }
    *count = static_cast<uint32_t>(gFake->families.size());
}
VkResult VKAPI_CALL SetLoaderData(VkDevice, void* object) {
    static_cast<Dispatchable*>(object)->dispatch = &gFake->loaderData;
    return VK_SUCCESS;
}

VkResult VKAPI_CALL CreateImage(VkDevice, const VkImageCreateInfo* info, const VkAllocationCallbacks*, VkImage* out) {
    gFake->images.push_back(*info);
    return gFake->Make("vkCreateImage", out);
}
VkResult VKAPI_CALL CreateBuffer(VkDevice, const VkBufferCreateInfo* info, const VkAllocationCallbacks*,
                                 VkBuffer* out) {
    gFake->mapped.assign(info->size, 0);
    return gFake->Make("vkCreateBuffer", out);
}
void VKAPI_CALL GetImageRequirements(VkDevice, VkImage, VkMemoryRequirements* out) {
    *out = {4096, 256, gFake->typeBits};
}
void VKAPI_CALL GetBufferRequirements(VkDevice, VkBuffer, VkMemoryRequirements* out) {
    *out = {4096, 256, gFake->typeBits};
}
VkResult VKAPI_CALL AllocateMemory(VkDevice, const VkMemoryAllocateInfo* info, const VkAllocationCallbacks*,
                                   VkDeviceMemory* out) {
    gFake->allocations.push_back(*info);
    return gFake->Make("vkAllocateMemory", out);
}
VkResult VKAPI_CALL BindImageMemory(VkDevice, VkImage image, VkDeviceMemory memory, VkDeviceSize offset) {
    gFake->log.push_back("vkBindImageMemory:" + std::to_string(Value(image)) + "," + std::to_string(Value(memory)) +
                         "@" + std::to_string(offset));
    return VK_SUCCESS;
}
VkResult VKAPI_CALL BindBufferMemory(VkDevice, VkBuffer, VkDeviceMemory, VkDeviceSize) {
    gFake->log.push_back("vkBindBufferMemory");
    return VK_SUCCESS;
}
VkResult VKAPI_CALL MapMemory(VkDevice, VkDeviceMemory, VkDeviceSize offset, VkDeviceSize size, VkMemoryMapFlags,
                              void** out) {
    gFake->log.push_back("vkMapMemory");
    EXPECT_EQ(offset, 0u);
    EXPECT_EQ(size, gFake->mapped.size());
    *out = gFake->mapped.data();
    return VK_SUCCESS;
}
void VKAPI_CALL UnmapMemory(VkDevice, VkDeviceMemory) { gFake->log.push_back("vkUnmapMemory"); }
VkResult VKAPI_CALL CreateImageView(VkDevice, const VkImageViewCreateInfo* info, const VkAllocationCallbacks*,
                                    VkImageView* out) {
    EXPECT_EQ(info->format, VK_FORMAT_R8_UINT);
    EXPECT_EQ(info->subresourceRange.aspectMask, VkImageAspectFlags{VK_IMAGE_ASPECT_COLOR_BIT});
    return gFake->Make("vkCreateImageView", out);
}
VkResult VKAPI_CALL CreateCommandPool(VkDevice, const VkCommandPoolCreateInfo* info, const VkAllocationCallbacks*,
                                      VkCommandPool* out) {
    gFake->pools.push_back(*info);
    return gFake->Make("vkCreateCommandPool", out);
}
void VKAPI_CALL DestroyCommandPool(VkDevice, VkCommandPool pool, const VkAllocationCallbacks*) {
    gFake->Destroyed("vkDestroyCommandPool", pool);
}
VkResult VKAPI_CALL AllocateCommandBuffers(VkDevice, const VkCommandBufferAllocateInfo* info, VkCommandBuffer* out) {
    gFake->allocatedFrom.push_back(info->commandPool);
    const VkResult result = gFake->Create("vkAllocateCommandBuffers");
    if (result == VK_SUCCESS) {
        gFake->commandBuffers.push_back(std::make_unique<Dispatchable>());
        *out = reinterpret_cast<VkCommandBuffer>(gFake->commandBuffers.back().get());
    }
    return result;
}
void VKAPI_CALL FreeCommandBuffers(VkDevice, VkCommandPool pool, uint32_t, const VkCommandBuffer*) {
    gFake->freedTo.push_back(pool);
    gFake->log.push_back("vkFreeCommandBuffers");
}
VkResult VKAPI_CALL BeginCommandBuffer(VkCommandBuffer cb, const VkCommandBufferBeginInfo* info) {
    EXPECT_TRUE(gFake->HasLoaderData(cb)) << "recorded before the loader knew the command buffer";
    EXPECT_EQ(info->flags, VkCommandBufferUsageFlags{VK_COMMAND_BUFFER_USAGE_ONE_TIME_SUBMIT_BIT});
    gFake->log.push_back("vkBeginCommandBuffer");
    return VK_SUCCESS;
}
VkResult VKAPI_CALL EndCommandBuffer(VkCommandBuffer) {
    gFake->log.push_back("vkEndCommandBuffer");
    return VK_SUCCESS;
}
void VKAPI_CALL GetDeviceQueue(VkDevice, uint32_t family, uint32_t index, VkQueue* out) {
    gFake->log.push_back("vkGetDeviceQueue:" + std::to_string(family) + "," + std::to_string(index));
    *out = reinterpret_cast<VkQueue>(&gFake->queue);
}
VkResult VKAPI_CALL QueueSubmit(VkQueue queue, uint32_t count, const VkSubmitInfo* submit, VkFence) {
    EXPECT_TRUE(gFake->HasLoaderData(queue)) << "submitted before the loader knew the queue";
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(submit->commandBufferCount, 1u);
    gFake->log.push_back("vkQueueSubmit");
    return VK_SUCCESS;
}
VkResult VKAPI_CALL QueueWaitIdle(VkQueue) {
    gFake->log.push_back("vkQueueWaitIdle");
    return VK_SUCCESS;
}
void VKAPI_CALL CmdPipelineBarrier(VkCommandBuffer, VkPipelineStageFlags src, VkPipelineStageFlags dst,
                                   VkDependencyFlags, uint32_t, const VkMemoryBarrier*, uint32_t,
                                   const VkBufferMemoryBarrier*, uint32_t count, const VkImageMemoryBarrier* barriers) {
    gFake->log.push_back("vkCmdPipelineBarrier");
    gFake->stages = {src, dst};
    gFake->barriers.assign(barriers, barriers + count);
}
void VKAPI_CALL CmdCopyBufferToImage(VkCommandBuffer, VkBuffer buffer, VkImage image, VkImageLayout layout,
                                     uint32_t count, const VkBufferImageCopy* regions) {
    gFake->log.push_back("vkCmdCopyBufferToImage:" + std::to_string(Value(buffer)) + "->" +
                         std::to_string(Value(image)));
    EXPECT_EQ(layout, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL);
    gFake->copies.assign(regions, regions + count);
}
VkResult VKAPI_CALL CreateRenderPass2(VkDevice, const VkRenderPassCreateInfo2* info, const VkAllocationCallbacks*,
                                      VkRenderPass* out) {
    SeenPass& seen = gFake->pass;
    seen.info = *info;
    seen.attachments.assign(info->pAttachments, info->pAttachments + info->attachmentCount);
    seen.dependencies.assign(info->pDependencies, info->pDependencies + info->dependencyCount);
    seen.subpasses.clear();
    for (uint32_t s = 0; s < info->subpassCount; ++s) {
        const VkSubpassDescription2& d = info->pSubpasses[s];
        SeenPass::Subpass sub{d, {}, {}, {}, {}, d.pNext, {}, {}};
        sub.input.assign(d.pInputAttachments, d.pInputAttachments + d.inputAttachmentCount);
        sub.color.assign(d.pColorAttachments, d.pColorAttachments + d.colorAttachmentCount);
        if (d.pResolveAttachments != nullptr) {  // the next layer reads one per color attachment
            sub.resolve.assign(d.pResolveAttachments, d.pResolveAttachments + d.colorAttachmentCount);
        }
        if (d.pDepthStencilAttachment != nullptr) {
            sub.depth = *d.pDepthStencilAttachment;
        }
        const auto* rate = static_cast<const VkFragmentShadingRateAttachmentInfoKHR*>(d.pNext);
        if (rate != nullptr && rate->sType == VK_STRUCTURE_TYPE_FRAGMENT_SHADING_RATE_ATTACHMENT_INFO_KHR) {
            sub.rate = *rate;
            sub.rateReference = *rate->pFragmentShadingRateAttachment;
        }
        seen.subpasses.push_back(sub);
    }
    return gFake->Make("vkCreateRenderPass2", out);
}
VkResult VKAPI_CALL CreateFramebuffer(VkDevice, const VkFramebufferCreateInfo* info, const VkAllocationCallbacks*,
                                      VkFramebuffer* out) {
    gFake->framebuffer = *info;
    gFake->framebufferViews.assign(info->pAttachments, info->pAttachments + info->attachmentCount);
    return gFake->Make("vkCreateFramebuffer", out);
}
VkResult VKAPI_CALL CreateGraphicsPipelines(VkDevice, VkPipelineCache cache, uint32_t count,
                                            const VkGraphicsPipelineCreateInfo* infos,
                                            const VkAllocationCallbacks* allocator, VkPipeline* out) {
    EXPECT_EQ(count, 1u);
    gFake->pipeline = infos[0];
    const VkPipelineDynamicStateCreateInfo* d = infos[0].pDynamicState;
    gFake->dynamicStates.assign(d->pDynamicStates, d->pDynamicStates + d->dynamicStateCount);
    gFake->pipelineCache = cache;
    gFake->pipelineAllocator = allocator;
    return gFake->Make("vkCreateGraphicsPipelines", out);
}
void VKAPI_CALL DestroyImageView(VkDevice, VkImageView h, const VkAllocationCallbacks*) {
    gFake->Destroyed("vkDestroyImageView", h);
}
void VKAPI_CALL DestroyImage(VkDevice, VkImage h, const VkAllocationCallbacks*) {
    gFake->Destroyed("vkDestroyImage", h);
}
void VKAPI_CALL DestroyBuffer(VkDevice, VkBuffer h, const VkAllocationCallbacks*) {
    gFake->Destroyed("vkDestroyBuffer", h);
}
void VKAPI_CALL FreeMemory(VkDevice, VkDeviceMemory h, const VkAllocationCallbacks*) {
    gFake->Destroyed("vkFreeMemory", h);
}

class TestProcessor : public vulkan::zovk::app::ZoVkProcessorBase {
public:
    unsigned int GetProcessorId() override { return 99; }
    void OnGettingDeviceInfo() override {}
    void OnGettingInstanceInfo() override {}
};

// A processor whose records point at the fake. The device has a compute-only family 0
// and a graphics family 1; memory type 0 is host-visible, 1 and 2 device-local.
class VrsBuilderTest : public ::testing::Test {
protected:
    void SetUp() override {
        gFake = &fake_;
        fake_.memory.memoryTypeCount = 4;
        fake_.memory.memoryTypes[0].propertyFlags = kHost;
        fake_.memory.memoryTypes[1].propertyFlags = VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT;
        fake_.memory.memoryTypes[2].propertyFlags = VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT | kHost;
        fake_.memory.memoryTypes[3].propertyFlags = kHost;
        fake_.families = {{VK_QUEUE_COMPUTE_BIT, 1, 0, {1, 1, 1}}, {VK_QUEUE_GRAPHICS_BIT, 1, 0, {1, 1, 1}}};

        instance_.functions.vkGetPhysicalDeviceMemoryProperties = GetMemoryProperties;
        instance_.functions.vkGetPhysicalDeviceQueueFamilyProperties = GetQueueFamilies;
        device_.device = Handle<VkDevice>(0xD);
        device_.physicalDevice = Handle<VkPhysicalDevice>(0xF);
        device_.setDeviceLoaderData = SetLoaderData;
        auto& f = device_.functions;
        f.vkCreateImage = CreateImage;
        f.vkCreateBuffer = CreateBuffer;
        f.vkGetImageMemoryRequirements = GetImageRequirements;
        f.vkGetBufferMemoryRequirements = GetBufferRequirements;
        f.vkAllocateMemory = AllocateMemory;
        f.vkBindImageMemory = BindImageMemory;
        f.vkBindBufferMemory = BindBufferMemory;
        f.vkMapMemory = MapMemory;
        f.vkUnmapMemory = UnmapMemory;
        f.vkCreateImageView = CreateImageView;
        f.vkCreateCommandPool = CreateCommandPool;
        f.vkDestroyCommandPool = DestroyCommandPool;
        f.vkAllocateCommandBuffers = AllocateCommandBuffers;
        f.vkFreeCommandBuffers = FreeCommandBuffers;
        f.vkBeginCommandBuffer = BeginCommandBuffer;
        f.vkEndCommandBuffer = EndCommandBuffer;
        f.vkGetDeviceQueue = GetDeviceQueue;
        f.vkQueueSubmit = QueueSubmit;
        f.vkQueueWaitIdle = QueueWaitIdle;
        f.vkCmdPipelineBarrier = CmdPipelineBarrier;
        f.vkCmdCopyBufferToImage = CmdCopyBufferToImage;
        f.vkCreateRenderPass2 = CreateRenderPass2;
        f.vkCreateFramebuffer = CreateFramebuffer;
        f.vkCreateGraphicsPipelines = CreateGraphicsPipelines;
        f.vkDestroyImageView = DestroyImageView;
        f.vkDestroyImage = DestroyImage;
        f.vkDestroyBuffer = DestroyBuffer;
        f.vkFreeMemory = FreeMemory;
        processor_.SetInstanceInfo(&instance_);
        processor_.SetDeviceInfo(&device_);
    }
    void TearDown() override { gFake = nullptr; }

    void FailCreate(const char* name, VkResult result = VK_ERROR_OUT_OF_DEVICE_MEMORY) {
        fake_.failName = name;
        fake_.createResult = result;
    }
    // Runs `body` and returns what it logged.
    template <typename F>
    static std::string Logged(F body) {
        testing::internal::CaptureStderr();
        body();
        return testing::internal::GetCapturedStderr();
    }

    Fake fake_;
    ZoVkInstanceInfo instance_;
    ZoVkDeviceInfo device_;
    TestProcessor processor_;
    ZoVkFixedVRSRenderpass builder_{&processor_};
};

::testing::AssertionResult Contains(const std::string& text, const std::string& part) {
    if (text.find(part) != std::string::npos) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "\"" << part << "\" not in: " << text;
}

// --- extent ----------------------------------------------------------------------------

TEST(MyVkExtent2D, ComparesWithEveryExtentKindIgnoringDepth) {
    const MyVkExtent2D e(1920, 1080);
    EXPECT_TRUE(e == (VkExtent2D{1920, 1080}));
    EXPECT_TRUE(e == (VkExtent3D{1920, 1080, 7}));
    EXPECT_TRUE(e != (VkExtent2D{1080, 1920}));
    EXPECT_TRUE(e != (VkExtent3D{1920, 1081, 1}));
    EXPECT_TRUE(e != MyVkExtent2D(1920, 0));
    EXPECT_FALSE(e != MyVkExtent2D(1920, 1080));

    MyVkExtent2D a;
    a = VkExtent3D{16, 8, 4};
    EXPECT_EQ(a, MyVkExtent2D(16, 8));
    a = VkExtent2D{4, 2};
    EXPECT_EQ(a, MyVkExtent2D(4, 2));
}

TEST(MyVkExtent2D, HashIs31WidthPlusHeightPlus4805In64Bits) {
    EXPECT_EQ(VkExtent2DHash()(MyVkExtent2D(1920, 1080)), 31u * 1920 + 1080 + 4805);
    // 32-bit arithmetic would wrap here.
    EXPECT_EQ(VkExtent2DHash()(MyVkExtent2D(0xFFFFFFFFu, 1)), 31ull * 0xFFFFFFFFull + 1 + 4805);
    const std::unordered_set<MyVkExtent2D, VkExtent2DHash> set{{1, 31}, {2, 0}};  // same hash, different keys
    EXPECT_EQ(set.size(), 2u);
}

// --- render passes ----------------------------------------------------------------------

TEST_F(VrsBuilderTest, Version1PassGainsTheRateAttachmentInEverySubpass) {
    VkAttachmentDescription attachments[3]{};
    for (uint32_t i = 0; i < 3; ++i) {
        attachments[i] = {VK_ATTACHMENT_DESCRIPTION_MAY_ALIAS_BIT, VK_FORMAT_R8G8B8A8_UNORM, VK_SAMPLE_COUNT_4_BIT,
                          VK_ATTACHMENT_LOAD_OP_CLEAR, VK_ATTACHMENT_STORE_OP_STORE, VK_ATTACHMENT_LOAD_OP_LOAD,
                          VK_ATTACHMENT_STORE_OP_DONT_CARE, VK_IMAGE_LAYOUT_UNDEFINED,
                          VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL};
    }
    attachments[2].format = VK_FORMAT_D24_UNORM_S8_UINT;
    const VkAttachmentReference colors[2] = {{0, VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL},
                                             {1, VK_IMAGE_LAYOUT_GENERAL}};
    const VkAttachmentReference resolves[2] = {{1, VK_IMAGE_LAYOUT_GENERAL}, {0, VK_IMAGE_LAYOUT_GENERAL}};
    const VkAttachmentReference depth{2, VK_IMAGE_LAYOUT_DEPTH_STENCIL_ATTACHMENT_OPTIMAL};
    const VkAttachmentReference input{0, VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL};
    const uint32_t preserve = 1;
    VkSubpassDescription subpasses[2]{};
    subpasses[0] = {0, VK_PIPELINE_BIND_POINT_COMPUTE, 1, &input, 2, colors, resolves, &depth, 1, &preserve};
    subpasses[1] = {0, VK_PIPELINE_BIND_POINT_GRAPHICS, 0, nullptr, 1, colors, nullptr, nullptr, 0, nullptr};
    const VkSubpassDependency dependency{0, 1, 1, 2, 4, 8, VK_DEPENDENCY_BY_REGION_BIT};
    const auto multiview = Struct<VkRenderPassMultiviewCreateInfo>(VK_STRUCTURE_TYPE_RENDER_PASS_MULTIVIEW_CREATE_INFO);
    const VkRenderPassCreateInfo info{
        VK_STRUCTURE_TYPE_RENDER_PASS_CREATE_INFO, &multiview, 1, 3, attachments, 2, subpasses, 1, &dependency};

    EXPECT_EQ(builder_.createShadingRateRenderpass(info, {16, 8}), Handle<VkRenderPass>(0x100));

    const SeenPass& seen = fake_.pass;
    EXPECT_EQ(seen.info.pNext, nullptr);
    EXPECT_EQ(seen.info.flags, 0u);
    EXPECT_EQ(seen.info.correlatedViewMaskCount, 0u);
    ASSERT_EQ(seen.attachments.size(), 4u);
    for (uint32_t i = 0; i < 3; ++i) {
        const VkAttachmentDescription2& a = seen.attachments[i];
        EXPECT_EQ(a.sType, VK_STRUCTURE_TYPE_ATTACHMENT_DESCRIPTION_2);
        EXPECT_EQ(a.flags, 0u) << "attachment flags are dropped";
        EXPECT_EQ(a.format, attachments[i].format);
        EXPECT_EQ(a.samples, VK_SAMPLE_COUNT_4_BIT);
        EXPECT_EQ(a.loadOp, VK_ATTACHMENT_LOAD_OP_CLEAR);
        EXPECT_EQ(a.storeOp, VK_ATTACHMENT_STORE_OP_STORE);
        EXPECT_EQ(a.stencilLoadOp, VK_ATTACHMENT_LOAD_OP_LOAD);
        EXPECT_EQ(a.stencilStoreOp, VK_ATTACHMENT_STORE_OP_DONT_CARE);
        EXPECT_EQ(a.finalLayout, VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL);
    }
    const VkAttachmentDescription2& rate = seen.attachments[3];
    EXPECT_EQ(rate.format, VK_FORMAT_R8_UINT);
    EXPECT_EQ(rate.samples, VK_SAMPLE_COUNT_1_BIT);
    EXPECT_EQ(rate.loadOp, VK_ATTACHMENT_LOAD_OP_LOAD);
    EXPECT_EQ(rate.storeOp, VK_ATTACHMENT_STORE_OP_DONT_CARE);
    EXPECT_EQ(rate.initialLayout, kRateLayout);
    EXPECT_EQ(rate.finalLayout, kRateLayout);

    ASSERT_EQ(seen.subpasses.size(), 2u);
    for (const SeenPass::Subpass& sub : seen.subpasses) {
        EXPECT_EQ(sub.desc.pipelineBindPoint, VK_PIPELINE_BIND_POINT_GRAPHICS);
        EXPECT_EQ(sub.desc.preserveAttachmentCount, 0u);
        EXPECT_EQ(sub.desc.pPreserveAttachments, nullptr);
        EXPECT_EQ(sub.chain, seen.subpasses[0].chain) << "one rate description shared by all subpasses";
        EXPECT_EQ(sub.rateReference.attachment, 3u);
        EXPECT_EQ(sub.rateReference.layout, kRateLayout);
        EXPECT_EQ(sub.rateReference.aspectMask, 0u);
        EXPECT_EQ(sub.rate.shadingRateAttachmentTexelSize.width, 16u);
        EXPECT_EQ(sub.rate.shadingRateAttachmentTexelSize.height, 8u);
    }
    const SeenPass::Subpass& first = seen.subpasses[0];
    ASSERT_EQ(first.input.size(), 1u);
    EXPECT_EQ(first.input[0].aspectMask, 0u);
    EXPECT_EQ(first.input[0].layout, VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL);
    ASSERT_EQ(first.color.size(), 2u);
    EXPECT_EQ(first.color[1].attachment, 1u);
    EXPECT_EQ(first.color[1].layout, VK_IMAGE_LAYOUT_GENERAL);
    EXPECT_EQ(first.color[1].aspectMask, VkImageAspectFlags{VK_IMAGE_ASPECT_COLOR_BIT});
    ASSERT_EQ(first.resolve.size(), 2u);
    EXPECT_EQ(first.resolve[0].attachment, 1u) << "the first resolve reference is kept";
    EXPECT_EQ(first.resolve[1].attachment, VK_ATTACHMENT_UNUSED) << "later ones resolve nothing";
    EXPECT_EQ(first.depth.attachment, 2u);
    EXPECT_EQ(first.depth.aspectMask, VkImageAspectFlags{VK_IMAGE_ASPECT_DEPTH_BIT});
    EXPECT_TRUE(seen.subpasses[1].resolve.empty());
    EXPECT_EQ(seen.subpasses[1].desc.pDepthStencilAttachment, nullptr);

    ASSERT_EQ(seen.dependencies.size(), 1u);
    const VkSubpassDependency2& d = seen.dependencies[0];
    EXPECT_EQ(d.sType, VK_STRUCTURE_TYPE_SUBPASS_DEPENDENCY_2);
    EXPECT_EQ(d.dstSubpass, 1u);
    EXPECT_EQ(d.srcStageMask, 1u);
    EXPECT_EQ(d.dstAccessMask, 8u);
    EXPECT_EQ(d.dependencyFlags, VkDependencyFlags{VK_DEPENDENCY_BY_REGION_BIT});
    EXPECT_EQ(d.viewOffset, 0);
}

TEST_F(VrsBuilderTest, PassWithoutDependenciesAndFailedCreatesGiveNulls) {
    VkAttachmentDescription attachment{};
    attachment.format = VK_FORMAT_R8G8B8A8_UNORM;
    VkSubpassDescription subpass{};
    subpass.pipelineBindPoint = VK_PIPELINE_BIND_POINT_GRAPHICS;
    const VkRenderPassCreateInfo info{VK_STRUCTURE_TYPE_RENDER_PASS_CREATE_INFO, nullptr, 0, 1, &attachment, 1,
                                      &subpass, 0, nullptr};
    EXPECT_NE(builder_.createShadingRateRenderpass(info, {8, 8}), VK_NULL_HANDLE);
    EXPECT_EQ(fake_.pass.info.dependencyCount, 0u);
    EXPECT_EQ(fake_.pass.info.pDependencies, nullptr);
    EXPECT_EQ(fake_.pass.attachments.size(), 2u);
    EXPECT_EQ(fake_.pass.subpasses[0].rateReference.attachment, 1u);

    FailCreate("vkCreateRenderPass2");
    EXPECT_TRUE(Contains(Logged([&] { EXPECT_EQ(builder_.createShadingRateRenderpass(info, {8, 8}), VK_NULL_HANDLE); }),
                         "failed to create rp2"));
    const auto attachment2 = Struct<VkAttachmentDescription2>(VK_STRUCTURE_TYPE_ATTACHMENT_DESCRIPTION_2);
    const auto subpass2 = Struct<VkSubpassDescription2>(VK_STRUCTURE_TYPE_SUBPASS_DESCRIPTION_2);
    auto info2 = Struct<VkRenderPassCreateInfo2>(VK_STRUCTURE_TYPE_RENDER_PASS_CREATE_INFO_2);
    info2.attachmentCount = 1;
    info2.pAttachments = &attachment2;
    info2.subpassCount = 1;
    info2.pSubpasses = &subpass2;
    EXPECT_TRUE(Contains(
        Logged([&] { EXPECT_EQ(builder_.createShadingRateRenderpass2(info2, {8, 8}), VK_NULL_HANDLE); }),
        "failed to create rp22"));
}

TEST_F(VrsBuilderTest, Version2PassIsCopiedWithTheSubpassChainReplaced) {
    const auto stencil =
        Struct<VkAttachmentDescriptionStencilLayout>(VK_STRUCTURE_TYPE_ATTACHMENT_DESCRIPTION_STENCIL_LAYOUT);
    auto attachment = Struct<VkAttachmentDescription2>(VK_STRUCTURE_TYPE_ATTACHMENT_DESCRIPTION_2);
    attachment.pNext = &stencil;
    attachment.flags = VK_ATTACHMENT_DESCRIPTION_MAY_ALIAS_BIT;
    attachment.format = VK_FORMAT_D32_SFLOAT;
    const VkAttachmentReference2 depth{VK_STRUCTURE_TYPE_ATTACHMENT_REFERENCE_2, nullptr, 0,
                                       VK_IMAGE_LAYOUT_DEPTH_STENCIL_ATTACHMENT_OPTIMAL,
                                       VK_IMAGE_ASPECT_DEPTH_BIT | VK_IMAGE_ASPECT_STENCIL_BIT};
    const auto resolve =
        Struct<VkSubpassDescriptionDepthStencilResolve>(VK_STRUCTURE_TYPE_SUBPASS_DESCRIPTION_DEPTH_STENCIL_RESOLVE);
    auto subpass = Struct<VkSubpassDescription2>(VK_STRUCTURE_TYPE_SUBPASS_DESCRIPTION_2);
    subpass.pNext = &resolve;
    subpass.pipelineBindPoint = VK_PIPELINE_BIND_POINT_GRAPHICS;
    subpass.viewMask = 3;
    subpass.pDepthStencilAttachment = &depth;
    auto dependency = Struct<VkSubpassDependency2>(VK_STRUCTURE_TYPE_SUBPASS_DEPENDENCY_2);
    dependency.srcSubpass = VK_SUBPASS_EXTERNAL;
    const uint32_t masks = 3;
    const VkRenderPassCreateInfo2 info{VK_STRUCTURE_TYPE_RENDER_PASS_CREATE_INFO_2, &stencil, 2, 1, &attachment, 1,
                                       &subpass, 1, &dependency, 1, &masks};

    EXPECT_NE(builder_.createShadingRateRenderpass2(info, {16, 16}), VK_NULL_HANDLE);
    const SeenPass& seen = fake_.pass;
    EXPECT_EQ(seen.info.pNext, nullptr);
    EXPECT_EQ(seen.info.flags, 0u);
    EXPECT_EQ(seen.info.correlatedViewMaskCount, 0u);
    EXPECT_EQ(seen.info.pCorrelatedViewMasks, nullptr);
    ASSERT_EQ(seen.attachments.size(), 2u);
    EXPECT_EQ(seen.attachments[0].pNext, &stencil) << "version-2 attachments are copied whole";
    EXPECT_EQ(seen.attachments[0].flags, VkAttachmentDescriptionFlags{VK_ATTACHMENT_DESCRIPTION_MAY_ALIAS_BIT});
    EXPECT_EQ(seen.attachments[1].format, VK_FORMAT_R8_UINT);
    ASSERT_EQ(seen.subpasses.size(), 1u);
    const SeenPass::Subpass& sub = seen.subpasses[0];
    EXPECT_EQ(sub.rate.sType, VK_STRUCTURE_TYPE_FRAGMENT_SHADING_RATE_ATTACHMENT_INFO_KHR);
    EXPECT_EQ(sub.rateReference.attachment, 1u);
    EXPECT_EQ(sub.rate.shadingRateAttachmentTexelSize.width, 16u);
    EXPECT_EQ(sub.desc.viewMask, 3u);
    EXPECT_EQ(sub.depth.aspectMask, depth.aspectMask) << "only version 1 narrows the depth aspect";
    ASSERT_EQ(seen.dependencies.size(), 1u);
    EXPECT_EQ(seen.dependencies[0].srcSubpass, VK_SUBPASS_EXTERNAL);
}

// --- framebuffers and pipelines -----------------------------------------------------------

TEST_F(VrsBuilderTest, FramebufferMakesTheViewOnceAndAppendsIt) {
    const VkImageView views[2] = {Handle<VkImageView>(0xA1), Handle<VkImageView>(0xA2)};
    const auto chained =
        Struct<VkFramebufferAttachmentsCreateInfo>(VK_STRUCTURE_TYPE_FRAMEBUFFER_ATTACHMENTS_CREATE_INFO);
    const VkFramebufferCreateInfo info{VK_STRUCTURE_TYPE_FRAMEBUFFER_CREATE_INFO, &chained, 0,
                                       Handle<VkRenderPass>(0xB), 2, views, 1280, 720, 2};
    const auto pass = Handle<VkRenderPass>(0xC);

    ShadingRateImageInfo empty;
    EXPECT_EQ(builder_.createVRSFramebuffer(pass, info, empty), VK_NULL_HANDLE);
    EXPECT_TRUE(fake_.log.empty()) << "nothing is created without an image";

    ShadingRateImageInfo rate;
    rate.image = Handle<VkImage>(0xE);
    const VkFramebuffer first = builder_.createVRSFramebuffer(pass, info, rate);
    const VkFramebuffer second = builder_.createVRSFramebuffer(pass, info, rate);
    EXPECT_NE(first, VK_NULL_HANDLE);
    EXPECT_NE(second, first);
    EXPECT_EQ(fake_.log, (Log{"vkCreateImageView", "vkCreateFramebuffer", "vkCreateFramebuffer"}));
    ASSERT_NE(rate.imageView, VK_NULL_HANDLE);
    EXPECT_EQ(fake_.framebufferViews, (std::vector<VkImageView>{views[0], views[1], rate.imageView}));
    EXPECT_EQ(fake_.framebuffer.renderPass, pass);
    EXPECT_EQ(fake_.framebuffer.pNext, nullptr);
    EXPECT_EQ(fake_.framebuffer.width, 1280u);
    EXPECT_EQ(fake_.framebuffer.height, 720u);
    EXPECT_EQ(fake_.framebuffer.layers, 2u);

    // An imageless framebuffer has no views to carry over: a framebuffer with holes is not made.
    VkFramebufferCreateInfo imageless = info;
    imageless.flags = VK_FRAMEBUFFER_CREATE_IMAGELESS_BIT;
    imageless.pAttachments = nullptr;
    fake_.log.clear();
    EXPECT_TRUE(Contains(
        Logged([&] { EXPECT_EQ(builder_.createVRSFramebuffer(pass, imageless, rate), VK_NULL_HANDLE); }),
        "failed to create vrs fbo"));
    EXPECT_TRUE(fake_.log.empty());

    FailCreate("vkCreateFramebuffer");
    EXPECT_TRUE(Contains(Logged([&] { EXPECT_EQ(builder_.createVRSFramebuffer(pass, info, rate), VK_NULL_HANDLE); }),
                         "failed to create vrs fbo"));

    ShadingRateImageInfo noView;
    noView.image = Handle<VkImage>(0xF);
    FailCreate("vkCreateImageView");
    fake_.log.clear();
    EXPECT_TRUE(Contains(Logged([&] { EXPECT_EQ(builder_.createVRSFramebuffer(pass, info, noView), VK_NULL_HANDLE); }),
                         "failed to create texture image view!"));
    EXPECT_EQ(fake_.log, Log{"vkCreateImageView"}) << "no framebuffer without the view";
}

TEST_F(VrsBuilderTest, PipelineGetsTheRateStateAndThePassAndNothingElse) {
    const VkDynamicState states[2] = {VK_DYNAMIC_STATE_VIEWPORT, VK_DYNAMIC_STATE_SCISSOR};
    const VkPipelineDynamicStateCreateInfo dynamic{VK_STRUCTURE_TYPE_PIPELINE_DYNAMIC_STATE_CREATE_INFO, nullptr, 0,
                                                   2, states};
    // Distinct non-null stand-ins: the next layer must see the same pointers back.
    alignas(8) static char blobs[10][64];
    auto info = Struct<VkGraphicsPipelineCreateInfo>(VK_STRUCTURE_TYPE_GRAPHICS_PIPELINE_CREATE_INFO);
    info.pNext = blobs[0];
    info.flags = VK_PIPELINE_CREATE_DISABLE_OPTIMIZATION_BIT;
    info.stageCount = 2;
    info.pStages = reinterpret_cast<const VkPipelineShaderStageCreateInfo*>(blobs[1]);
    info.pVertexInputState = reinterpret_cast<const VkPipelineVertexInputStateCreateInfo*>(blobs[2]);
    info.pInputAssemblyState = reinterpret_cast<const VkPipelineInputAssemblyStateCreateInfo*>(blobs[3]);
    info.pViewportState = reinterpret_cast<const VkPipelineViewportStateCreateInfo*>(blobs[4]);
    info.pRasterizationState = reinterpret_cast<const VkPipelineRasterizationStateCreateInfo*>(blobs[5]);
    info.pMultisampleState = reinterpret_cast<const VkPipelineMultisampleStateCreateInfo*>(blobs[6]);
    info.pDepthStencilState = reinterpret_cast<const VkPipelineDepthStencilStateCreateInfo*>(blobs[7]);
    info.pColorBlendState = reinterpret_cast<const VkPipelineColorBlendStateCreateInfo*>(blobs[8]);
    info.pDynamicState = &dynamic;
    info.layout = Handle<VkPipelineLayout>(0x1A);
    info.renderPass = Handle<VkRenderPass>(0x1B);
    info.subpass = 1;
    info.basePipelineIndex = -1;
    const auto cache = Handle<VkPipelineCache>(0x1C);
    const auto* allocator = reinterpret_cast<const VkAllocationCallbacks*>(blobs[9]);
    const auto pass = Handle<VkRenderPass>(0x1D);

    EXPECT_NE(builder_.createVRSPipelineCreateInfo(cache, allocator, info, pass), VK_NULL_HANDLE);
    EXPECT_EQ(fake_.dynamicStates, (std::vector<VkDynamicState>{VK_DYNAMIC_STATE_VIEWPORT, VK_DYNAMIC_STATE_SCISSOR,
                                                                 VK_DYNAMIC_STATE_FRAGMENT_SHADING_RATE_KHR}));
    EXPECT_EQ(fake_.pipelineCache, cache);
    EXPECT_EQ(fake_.pipelineAllocator, allocator);
    const VkGraphicsPipelineCreateInfo& seen = fake_.pipeline;
    EXPECT_EQ(seen.renderPass, pass);
    EXPECT_EQ(seen.pNext, info.pNext) << "no rate state is chained in";
    EXPECT_EQ(seen.flags, info.flags);
    EXPECT_EQ(seen.stageCount, 2u);
    EXPECT_EQ(seen.pStages, info.pStages);
    EXPECT_EQ(seen.pVertexInputState, info.pVertexInputState);
    EXPECT_EQ(seen.pInputAssemblyState, info.pInputAssemblyState);
    EXPECT_EQ(seen.pTessellationState, nullptr);
    EXPECT_EQ(seen.pViewportState, info.pViewportState);
    EXPECT_EQ(seen.pRasterizationState, info.pRasterizationState);
    EXPECT_EQ(seen.pMultisampleState, info.pMultisampleState);
    EXPECT_EQ(seen.pDepthStencilState, info.pDepthStencilState);
    EXPECT_EQ(seen.pColorBlendState, info.pColorBlendState);
    EXPECT_EQ(seen.layout, info.layout);
    EXPECT_EQ(seen.subpass, 1u);
    EXPECT_EQ(seen.basePipelineIndex, -1);

    // A rate already dynamic is not listed twice (a duplicate is invalid).
    const VkDynamicState withRate[1] = {VK_DYNAMIC_STATE_FRAGMENT_SHADING_RATE_KHR};
    const VkPipelineDynamicStateCreateInfo rateOnly{VK_STRUCTURE_TYPE_PIPELINE_DYNAMIC_STATE_CREATE_INFO, nullptr, 0,
                                                    1, withRate};
    info.pDynamicState = &rateOnly;
    builder_.createVRSPipelineCreateInfo(cache, allocator, info, pass);
    EXPECT_EQ(fake_.dynamicStates, std::vector<VkDynamicState>{VK_DYNAMIC_STATE_FRAGMENT_SHADING_RATE_KHR});
    info.pDynamicState = nullptr;  // tolerated: the rate is then the only dynamic state
    builder_.createVRSPipelineCreateInfo(cache, allocator, info, pass);
    EXPECT_EQ(fake_.dynamicStates, std::vector<VkDynamicState>{VK_DYNAMIC_STATE_FRAGMENT_SHADING_RATE_KHR});

    FailCreate("vkCreateGraphicsPipelines");
    EXPECT_TRUE(Contains(
        Logged([&] { EXPECT_EQ(builder_.createVRSPipelineCreateInfo(cache, allocator, info, pass), VK_NULL_HANDLE); }),
        "failed to create gp"));
}

// --- memory -------------------------------------------------------------------------------

TEST_F(VrsBuilderTest, ImagesAreDeviceLocalWhateverIsAskedAndBuffersGetTheLowestMatch) {
    VkDeviceMemory memory = VK_NULL_HANDLE;
    const VkImage image = builder_.createImage(64, 32, VK_FORMAT_R8_UINT, VK_IMAGE_TILING_OPTIMAL,
                                               VK_IMAGE_USAGE_TRANSFER_DST_BIT, kHost, memory);
    ASSERT_NE(image, VK_NULL_HANDLE);
    ASSERT_NE(memory, VK_NULL_HANDLE);
    EXPECT_EQ(fake_.allocations.back().memoryTypeIndex, 1u);
    EXPECT_EQ(fake_.allocations.back().allocationSize, 4096u);
    EXPECT_EQ(fake_.images.back().extent.width, 64u);
    EXPECT_EQ(fake_.images.back().extent.height, 32u);
    EXPECT_EQ(fake_.log.back(),
              "vkBindImageMemory:" + std::to_string(Value(image)) + "," + std::to_string(Value(memory)) + "@0");

    fake_.typeBits = 0b1100;  // type 1 not allowed: the next device-local one
    builder_.createImage(8, 8, VK_FORMAT_R8_UINT, VK_IMAGE_TILING_OPTIMAL, 0, 0, memory);
    EXPECT_EQ(fake_.allocations.back().memoryTypeIndex, 2u);
    builder_.createBuffer(16, VK_BUFFER_USAGE_TRANSFER_SRC_BIT, kHost, memory);
    EXPECT_EQ(fake_.allocations.back().memoryTypeIndex, 2u);
    fake_.typeBits = ~0u;
    builder_.createBuffer(16, VK_BUFFER_USAGE_TRANSFER_SRC_BIT, kHost, memory);
    EXPECT_EQ(fake_.allocations.back().memoryTypeIndex, 0u);
    EXPECT_EQ(builder_.findMemoryType(0b1010, kHost), 3u);

    fake_.typeBits = 0b1001;  // no allowed type is device-local
    EXPECT_TRUE(Contains(Logged([&] {
                             builder_.createImage(8, 8, VK_FORMAT_R8_UINT, VK_IMAGE_TILING_OPTIMAL, 0, 0, memory);
                         }),
                         "failed to find suitable memory type"));
    EXPECT_EQ(fake_.allocations.back().memoryTypeIndex, 0u);
    EXPECT_TRUE(Contains(Logged([&] { EXPECT_EQ(builder_.findMemoryType(0, 0), 0u); }),
                         "failed to find suitable memory type"));
    int queries = 0;
    for (const std::string& call : fake_.log) {
        queries += call == "vkGetPhysicalDeviceMemoryProperties";
    }
    EXPECT_EQ(queries, 1) << "memory properties are asked once";
}

TEST_F(VrsBuilderTest, FailedCreatesAndAllocationsAreLoggedAndReportedByHandle) {
    VkDeviceMemory memory = Handle<VkDeviceMemory>(0x55);
    FailCreate("vkCreateImage");
    EXPECT_TRUE(Contains(Logged([&] {
                             EXPECT_EQ(builder_.createImage(8, 8, VK_FORMAT_R8_UINT, VK_IMAGE_TILING_OPTIMAL, 0, 0,
                                                            memory),
                                       VK_NULL_HANDLE);
                         }),
                         "failed to create image!"));
    EXPECT_EQ(memory, Handle<VkDeviceMemory>(0x55)) << "memory untouched";
    FailCreate("vkCreateBuffer");
    EXPECT_TRUE(Contains(Logged([&] { EXPECT_EQ(builder_.createBuffer(8, 0, kHost, memory), VK_NULL_HANDLE); }),
                         "CreateBuffer failed"));

    FailCreate("vkAllocateMemory");
    fake_.log.clear();
    VkImage image = VK_NULL_HANDLE;
    EXPECT_TRUE(Contains(Logged([&] {
                             image = builder_.createImage(8, 8, VK_FORMAT_R8_UINT, VK_IMAGE_TILING_OPTIMAL, 0, 0,
                                                          memory);
                         }),
                         "failed to allocate image memory!"));
    EXPECT_NE(image, VK_NULL_HANDLE) << "the unbound image is handed back";
    EXPECT_TRUE(Contains(Logged([&] { EXPECT_NE(builder_.createBuffer(8, 0, kHost, memory), VK_NULL_HANDLE); }),
                         "failed to allocate buffer memory!"));
    for (const std::string& call : fake_.log) {
        EXPECT_EQ(call.find("vkBind"), std::string::npos) << call;
    }
}

// --- one-shot command buffers ---------------------------------------------------------------

TEST_F(VrsBuilderTest, OneShotWorkUsesTheOwnPoolMadeOnceUntilRelease) {
    builder_.SetCommandPool(Handle<VkCommandPool>(0xA99));
    builder_.updateImageDataFromBuffer(Handle<VkImage>(0x1), 4, 4, Handle<VkBuffer>(0x2));
    builder_.transitionImageLayout(Handle<VkImage>(0x1), VK_FORMAT_R8_UINT, VK_IMAGE_LAYOUT_UNDEFINED,
                                   VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL);
    ASSERT_EQ(fake_.pools.size(), 1u);
    EXPECT_EQ(fake_.pools[0].queueFamilyIndex, 1u) << "the first graphics family";
    EXPECT_EQ(fake_.pools[0].flags, VkCommandPoolCreateFlags{VK_COMMAND_POOL_CREATE_TRANSIENT_BIT});
    const auto own = Handle<VkCommandPool>(0x100);
    EXPECT_EQ(fake_.allocatedFrom, (std::vector<VkCommandPool>{own, own}));
    EXPECT_EQ(fake_.freedTo, fake_.allocatedFrom);
    // Loader data on the command buffer and queue is checked by the fake's begin and submit.
    EXPECT_EQ(fake_.log, (Log{"vkCreateCommandPool", "vkAllocateCommandBuffers", "vkBeginCommandBuffer",
                              "vkCmdCopyBufferToImage:2->1", "vkEndCommandBuffer", "vkGetDeviceQueue:1,0",
                              "vkQueueSubmit", "vkQueueWaitIdle", "vkFreeCommandBuffers", "vkAllocateCommandBuffers",
                              "vkBeginCommandBuffer", "vkCmdPipelineBarrier", "vkEndCommandBuffer",
                              "vkGetDeviceQueue:1,0", "vkQueueSubmit", "vkQueueWaitIdle", "vkFreeCommandBuffers"}));
    ASSERT_EQ(fake_.commandBuffers.size(), 2u);
    EXPECT_TRUE(fake_.HasLoaderData(fake_.commandBuffers[0].get()));
    EXPECT_TRUE(fake_.HasLoaderData(&fake_.queue));

    fake_.log.clear();
    builder_.Release();
    builder_.Release();
    EXPECT_EQ(fake_.log, Log{"vkDestroyCommandPool:" + std::to_string(Value(own))}) << "destroyed once";
    builder_.updateImageDataFromBuffer(Handle<VkImage>(0x1), 4, 4, Handle<VkBuffer>(0x2));
    EXPECT_EQ(fake_.pools.size(), 2u) << "a later use makes a new pool";
}

TEST_F(VrsBuilderTest, ApplicationPoolIsTheFallbackAndNoPoolRecordsNothing) {
    FailCreate("vkCreateCommandPool");
    EXPECT_TRUE(Contains(
        Logged([&] { builder_.updateImageDataFromBuffer(Handle<VkImage>(1), 4, 4, Handle<VkBuffer>(2)); }),
        "failed to allocate command buffers, ret:"));
    EXPECT_EQ(fake_.log, Log{"vkCreateCommandPool"}) << "no pool at all: nothing allocated or recorded";

    const auto appPool = Handle<VkCommandPool>(0xA99);
    builder_.SetCommandPool(appPool);
    builder_.updateImageDataFromBuffer(Handle<VkImage>(1), 4, 4, Handle<VkBuffer>(2));
    EXPECT_EQ(fake_.pools.size(), 1u) << "the own pool is tried once";
    EXPECT_EQ(fake_.allocatedFrom, std::vector<VkCommandPool>{appPool});
    EXPECT_EQ(fake_.freedTo, std::vector<VkCommandPool>{appPool});

    fake_.log.clear();
    builder_.Release();
    EXPECT_TRUE(fake_.log.empty()) << "the application's pool stays the application's";
}

TEST_F(VrsBuilderTest, WithoutAGraphicsFamilyNothingIsSubmitted) {
    fake_.families = {{VK_QUEUE_COMPUTE_BIT, 1, 0, {1, 1, 1}}};
    EXPECT_EQ(builder_.findGraphicQueueFamilies(), UINT32_MAX);
    builder_.SetCommandPool(Handle<VkCommandPool>(0xA99));
    builder_.updateImageDataFromBuffer(Handle<VkImage>(1), 4, 4, Handle<VkBuffer>(2));
    EXPECT_TRUE(fake_.pools.empty());
    EXPECT_EQ(fake_.log, (Log{"vkAllocateCommandBuffers", "vkBeginCommandBuffer", "vkCmdCopyBufferToImage:2->1",
                              "vkEndCommandBuffer", "vkFreeCommandBuffers"}));

    fake_.families.clear();
    EXPECT_EQ(builder_.findGraphicQueueFamilies(), UINT32_MAX);
}

TEST_F(VrsBuilderTest, TransitionsFollowTheLayoutTable) {
    struct Row {
        VkImageLayout from, to;
        VkAccessFlags srcAccess, dstAccess;
        VkPipelineStageFlags srcStage, dstStage;
    };
    const Row rows[] = {
        {VK_IMAGE_LAYOUT_UNDEFINED, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, 0, VK_ACCESS_TRANSFER_WRITE_BIT,
         VK_PIPELINE_STAGE_TOP_OF_PIPE_BIT, VK_PIPELINE_STAGE_TRANSFER_BIT},
        {VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, kRateLayout, VK_ACCESS_TRANSFER_WRITE_BIT,
         VK_ACCESS_INPUT_ATTACHMENT_READ_BIT, VK_PIPELINE_STAGE_TRANSFER_BIT,
         VK_PIPELINE_STAGE_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR},
        {VK_IMAGE_LAYOUT_GENERAL, kRateLayout, 0, 0, 0, 0},
        {kRateLayout, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, 0, 0, 0, 0},
    };
    const auto image = Handle<VkImage>(0x77);
    for (const Row& row : rows) {
        fake_.log.clear();
        const std::string logged =
            Logged([&] { builder_.transitionImageLayout(image, VK_FORMAT_R8_UINT, row.from, row.to); });
        EXPECT_EQ(logged.find("failed to transition image layout!") != std::string::npos, row.srcStage == 0)
            << logged;
        EXPECT_EQ(std::count(fake_.log.begin(), fake_.log.end(), "vkQueueSubmit"), 1) << "submitted in every case";
        ASSERT_EQ(fake_.barriers.size(), 1u);
        const VkImageMemoryBarrier& b = fake_.barriers[0];
        EXPECT_EQ(b.oldLayout, row.from);
        EXPECT_EQ(b.newLayout, row.to);
        EXPECT_EQ(b.srcAccessMask, row.srcAccess);
        EXPECT_EQ(b.dstAccessMask, row.dstAccess);
        EXPECT_EQ(fake_.stages, (std::vector<VkPipelineStageFlags>{row.srcStage, row.dstStage}));
        EXPECT_EQ(b.image, image);
    }
}

// --- uploads and teardown -------------------------------------------------------------------

TEST_F(VrsBuilderTest, UploadFromPointerCopiesThroughAStagingBufferReleasedAfterward) {
    const unsigned char texels[6] = {1, 2, 3, 4, 5, 6};
    builder_.updateImageDataFromPtr(Handle<VkImage>(0x9), 3, 2, texels);
    EXPECT_EQ(fake_.mapped, (std::vector<unsigned char>{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(fake_.allocations.back().memoryTypeIndex, 0u) << "host-visible and coherent";
    ASSERT_EQ(fake_.copies.size(), 1u);
    EXPECT_EQ(fake_.copies[0].imageExtent.width, 3u);
    EXPECT_EQ(fake_.copies[0].imageExtent.height, 2u);
    // Buffer 0x100, its memory 0x101, the own pool 0x102: the buffer goes once the queue is idle.
    const Log& log = fake_.log;
    const auto at = [&](const std::string& call) { return std::find(log.begin(), log.end(), call) - log.begin(); };
    EXPECT_LT(at("vkUnmapMemory"), at("vkQueueSubmit"));
    EXPECT_LT(at("vkQueueWaitIdle"), at("vkDestroyBuffer:256"));
    EXPECT_LT(at("vkDestroyBuffer:256"), at("vkFreeMemory:257"));
    EXPECT_LT(at("vkFreeMemory:257"), static_cast<std::ptrdiff_t>(log.size()));

    fake_.log.clear();
    builder_.updateImageDataFromPtr(Handle<VkImage>(0x9), 0, 2, texels);
    EXPECT_TRUE(fake_.log.empty()) << "an empty upload creates nothing";
}

TEST_F(VrsBuilderTest, DestroyingAShadingRateImageFreesWhatIsSetOnce) {
    ShadingRateImageInfo info;
    info.image = Handle<VkImage>(0x31);
    info.imageView = Handle<VkImageView>(0x32);
    info.memory = Handle<VkDeviceMemory>(0x33);
    builder_.destroyShadingRateImage(info);
    builder_.destroyShadingRateImage(info);
    EXPECT_EQ(fake_.log, (Log{"vkDestroyImageView:50", "vkDestroyImage:49", "vkFreeMemory:51"}));

    fake_.log.clear();
    ShadingRateImageInfo imageOnly;
    imageOnly.image = Handle<VkImage>(0x31);
    builder_.destroyShadingRateImage(imageOnly);
    EXPECT_EQ(fake_.log, Log{"vkDestroyImage:49"});
}

}  // namespace
