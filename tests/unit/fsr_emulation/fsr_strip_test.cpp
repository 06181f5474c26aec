// The rewrites that keep the extension away from the driver, on hand-made create infos.
#include <gtest/gtest.h>
#include <vulkan/vk_layer.h>

#include <cstring>
#include <vector>

#include "fsr_strip.h"

namespace fsr {
namespace {

// A byte snapshot of a structure, to prove that the application's copy was left alone.
template <typename T>
std::vector<unsigned char> Bytes(const T& value) {
    const auto* p = reinterpret_cast<const unsigned char*>(&value);
    return std::vector<unsigned char>(p, p + sizeof(T));
}

std::vector<VkStructureType> ChainTypes(const void* chain) {
    std::vector<VkStructureType> types;
    for (auto* n = static_cast<const VkBaseInStructure*>(chain); n != nullptr; n = n->pNext) types.push_back(n->sType);
    return types;
}

VkAttachmentDescription2 Desc(VkFormat format, VkImageLayout layout = VK_IMAGE_LAYOUT_GENERAL) {
    VkAttachmentDescription2 d = {VK_STRUCTURE_TYPE_ATTACHMENT_DESCRIPTION_2};
    d.format = format;
    d.samples = VK_SAMPLE_COUNT_1_BIT;
    d.initialLayout = layout;
    d.finalLayout = layout;
    return d;
}

VkAttachmentReference2 Ref(uint32_t index, VkImageLayout layout = VK_IMAGE_LAYOUT_GENERAL) {
    VkAttachmentReference2 r = {VK_STRUCTURE_TYPE_ATTACHMENT_REFERENCE_2};
    r.attachment = index;
    r.layout = layout;
    return r;
}

constexpr VkImageLayout kRateLayout = VK_IMAGE_LAYOUT_FRAGMENT_SHADING_RATE_ATTACHMENT_OPTIMAL_KHR;

// Attachments: 0 colour, 1 rate, 2 depth, 3 colour resolve target. Every kind of reference
// points past the rate attachment, so each must move down by one.
struct RatePass {
    VkAttachmentDescription2 atts[4] = {Desc(VK_FORMAT_R8G8B8A8_UNORM), Desc(VK_FORMAT_R8_UINT, kRateLayout),
                                        Desc(VK_FORMAT_D32_SFLOAT), Desc(VK_FORMAT_R8G8B8A8_UNORM)};
    VkAttachmentReference2 color = Ref(0);
    VkAttachmentReference2 resolve = Ref(3);
    VkAttachmentReference2 depth = Ref(2);
    VkAttachmentReference2 input = Ref(2);
    VkAttachmentReference2 dsResolveRef = Ref(VK_ATTACHMENT_UNUSED);
    VkAttachmentReference2 rateRef = Ref(1, kRateLayout);
    uint32_t preserve[2] = {3, 1};
    VkSubpassDescriptionDepthStencilResolve dsResolve = {VK_STRUCTURE_TYPE_SUBPASS_DESCRIPTION_DEPTH_STENCIL_RESOLVE};
    VkFragmentShadingRateAttachmentInfoKHR rate = {VK_STRUCTURE_TYPE_FRAGMENT_SHADING_RATE_ATTACHMENT_INFO_KHR};
    VkSubpassDescription2 subpasses[2] = {};
    VkSubpassDependency2 dep = {VK_STRUCTURE_TYPE_SUBPASS_DEPENDENCY_2};
    VkRenderPassCreateInfo2 info = {VK_STRUCTURE_TYPE_RENDER_PASS_CREATE_INFO_2};

    RatePass() {
        // The rate info sits between two nodes so that dropping it must splice the chain.
        dsResolve.pNext = &rate;
        dsResolve.pDepthStencilResolveAttachment = &dsResolveRef;
        rate.pFragmentShadingRateAttachment = &rateRef;
        rate.shadingRateAttachmentTexelSize = {16, 16};
        for (VkSubpassDescription2& sp : subpasses) {
            sp.sType = VK_STRUCTURE_TYPE_SUBPASS_DESCRIPTION_2;
            sp.colorAttachmentCount = 1;
            sp.pColorAttachments = &color;
            sp.pDepthStencilAttachment = &depth;
        }
        subpasses[0].pNext = &dsResolve;
        subpasses[0].pResolveAttachments = &resolve;
        subpasses[1].pNext = &rate;
        subpasses[1].inputAttachmentCount = 1;
        subpasses[1].pInputAttachments = &input;
        subpasses[1].pDepthStencilAttachment = nullptr;
        subpasses[1].preserveAttachmentCount = 2;
        subpasses[1].pPreserveAttachments = preserve;
        dep.srcSubpass = VK_SUBPASS_EXTERNAL;
        dep.dstSubpass = 0;
        dep.srcStageMask = VK_PIPELINE_STAGE_TRANSFER_BIT;
        dep.dstStageMask = VK_PIPELINE_STAGE_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR;
        dep.srcAccessMask = VK_ACCESS_TRANSFER_WRITE_BIT;
        dep.dstAccessMask = VK_ACCESS_FRAGMENT_SHADING_RATE_ATTACHMENT_READ_BIT_KHR | VK_ACCESS_SHADER_READ_BIT;
        info.attachmentCount = 4;
        info.pAttachments = atts;
        info.subpassCount = 2;
        info.pSubpasses = subpasses;
        info.dependencyCount = 1;
        info.pDependencies = &dep;
    }

    // The same pass with nothing of the extension: no rate info, attachment 1 a colour target.
    void WithoutRate() {
        subpasses[0].pNext = nullptr;
        subpasses[1].pNext = nullptr;
        atts[1] = Desc(VK_FORMAT_R8G8B8A8_UNORM);
        dep.dstStageMask = VK_PIPELINE_STAGE_FRAGMENT_SHADER_BIT;
        dep.dstAccessMask = VK_ACCESS_SHADER_READ_BIT;
    }
};

TEST(RenderPass2, RemovesTheRateAttachmentAndRemapsEveryReference) {
    RatePass pass;
    const auto before = Bytes(pass);
    Arena arena;
    RenderPassStrip s = StripRenderPass2(arena, &pass.info);
    EXPECT_EQ(Bytes(pass), before) << "the application's structures were written";

    ASSERT_NE(s.info, &pass.info);
    ASSERT_EQ(s.removed, std::vector<uint32_t>{1});
    ASSERT_EQ(s.uses.size(), 1u);
    EXPECT_EQ(s.uses[0].attachment, 1u);
    EXPECT_EQ(s.uses[0].texelSize.width, 16u);
    EXPECT_EQ(s.uses[0].subpasses, (std::vector<uint32_t>{0, 1}));

    ASSERT_EQ(s.info->attachmentCount, 3u);
    EXPECT_EQ(s.info->pAttachments[0].format, VK_FORMAT_R8G8B8A8_UNORM);
    EXPECT_EQ(s.info->pAttachments[1].format, VK_FORMAT_D32_SFLOAT);
    EXPECT_EQ(s.info->pAttachments[2].format, VK_FORMAT_R8G8B8A8_UNORM);

    const VkSubpassDescription2& sp0 = s.info->pSubpasses[0];
    EXPECT_EQ(sp0.pColorAttachments[0].attachment, 0u);
    EXPECT_EQ(sp0.pResolveAttachments[0].attachment, 2u);
    EXPECT_EQ(sp0.pDepthStencilAttachment->attachment, 1u);
    EXPECT_EQ(ChainTypes(sp0.pNext), std::vector<VkStructureType>{VK_STRUCTURE_TYPE_SUBPASS_DESCRIPTION_DEPTH_STENCIL_RESOLVE});
    // An unused reference stays unused.
    EXPECT_EQ(static_cast<const VkSubpassDescriptionDepthStencilResolve*>(sp0.pNext)->pDepthStencilResolveAttachment->attachment,
              VK_ATTACHMENT_UNUSED);

    const VkSubpassDescription2& sp1 = s.info->pSubpasses[1];
    EXPECT_EQ(sp1.pNext, nullptr);
    EXPECT_EQ(sp1.pInputAttachments[0].attachment, 1u);
    EXPECT_EQ(sp1.pDepthStencilAttachment, nullptr);
    // Preserving the removed attachment means nothing any more; the other one moves down.
    ASSERT_EQ(sp1.preserveAttachmentCount, 1u);
    EXPECT_EQ(sp1.pPreserveAttachments[0], 2u);

    const VkSubpassDependency2& dep = s.info->pDependencies[0];
    EXPECT_EQ(dep.dstStageMask, VkPipelineStageFlags(VK_PIPELINE_STAGE_FRAGMENT_SHADER_BIT));
    EXPECT_EQ(dep.dstAccessMask, VkAccessFlags(VK_ACCESS_SHADER_READ_BIT));
    EXPECT_EQ(dep.srcStageMask, VkPipelineStageFlags(VK_PIPELINE_STAGE_TRANSFER_BIT));
}

TEST(RenderPass2, RemapsTheDepthStencilResolveReference) {
    RatePass pass;
    pass.dsResolveRef = Ref(3);
    Arena arena;
    RenderPassStrip s = StripRenderPass2(arena, &pass.info);
    auto* resolve = static_cast<const VkSubpassDescriptionDepthStencilResolve*>(
        FindInChain(s.info->pSubpasses[0].pNext, VK_STRUCTURE_TYPE_SUBPASS_DESCRIPTION_DEPTH_STENCIL_RESOLVE));
    ASSERT_NE(resolve, nullptr);
    EXPECT_EQ(resolve->pDepthStencilResolveAttachment->attachment, 2u);
    EXPECT_EQ(pass.dsResolveRef.attachment, 3u);
}

TEST(RenderPass2, RemovesTwoDifferentRateAttachmentsInOrder) {
    RatePass pass;
    // Subpass 1 uses attachment 3 as its rate attachment instead (8x8), so 1 and 3 both go.
    VkAttachmentReference2 otherRate = Ref(3, kRateLayout);
    VkFragmentShadingRateAttachmentInfoKHR rate1 = pass.rate;
    rate1.pNext = nullptr;
    rate1.pFragmentShadingRateAttachment = &otherRate;
    rate1.shadingRateAttachmentTexelSize = {8, 8};
    pass.subpasses[1].pNext = &rate1;
    pass.subpasses[0].pResolveAttachments = nullptr;
    Arena arena;
    RenderPassStrip s = StripRenderPass2(arena, &pass.info);
    EXPECT_EQ(s.removed, (std::vector<uint32_t>{1, 3}));
    ASSERT_EQ(s.uses.size(), 2u);
    EXPECT_EQ(s.uses[1].attachment, 3u);
    EXPECT_EQ(s.uses[1].texelSize.width, 8u);
    EXPECT_EQ(s.info->attachmentCount, 2u);
    EXPECT_EQ(s.info->pSubpasses[1].preserveAttachmentCount, 0u);
}

TEST(RenderPass2, PassWithoutAnythingOfTheExtensionGoesDownUntouched) {
    RatePass pass;
    pass.WithoutRate();
    Arena arena;
    RenderPassStrip s = StripRenderPass2(arena, &pass.info);
    EXPECT_EQ(s.info, &pass.info);
    EXPECT_TRUE(s.removed.empty());
}

TEST(RenderPass2, RateInfoWithoutAttachmentIsDroppedButNothingRemoved) {
    RatePass pass;
    pass.rateRef.attachment = VK_ATTACHMENT_UNUSED;
    pass.subpasses[1].pNext = nullptr;
    Arena arena;
    RenderPassStrip s = StripRenderPass2(arena, &pass.info);
    ASSERT_NE(s.info, &pass.info);
    EXPECT_TRUE(s.removed.empty());
    EXPECT_TRUE(s.uses.empty());
    EXPECT_EQ(s.info->attachmentCount, 4u);
    // The rate layout of the now unreferenced attachment still must not reach the driver.
    EXPECT_EQ(s.info->pAttachments[1].initialLayout, VK_IMAGE_LAYOUT_GENERAL);
    EXPECT_EQ(ChainTypes(s.info->pSubpasses[0].pNext),
              std::vector<VkStructureType>{VK_STRUCTURE_TYPE_SUBPASS_DESCRIPTION_DEPTH_STENCIL_RESOLVE});
}

TEST(RenderPass2, FixesSynchronization2BarrierOfADependency) {
    RatePass pass;
    pass.WithoutRate();
    VkMemoryBarrier2 barrier = {VK_STRUCTURE_TYPE_MEMORY_BARRIER_2};
    barrier.dstStageMask = VK_PIPELINE_STAGE_2_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR | VK_PIPELINE_STAGE_2_COPY_BIT;
    barrier.dstAccessMask = VK_ACCESS_2_FRAGMENT_SHADING_RATE_ATTACHMENT_READ_BIT_KHR;
    pass.dep.pNext = &barrier;
    Arena arena;
    RenderPassStrip s = StripRenderPass2(arena, &pass.info);
    ASSERT_NE(s.info, &pass.info);
    auto* b = static_cast<const VkMemoryBarrier2*>(FindInChain(s.info->pDependencies[0].pNext, VK_STRUCTURE_TYPE_MEMORY_BARRIER_2));
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->dstStageMask, VK_PIPELINE_STAGE_2_COPY_BIT);
    EXPECT_EQ(b->dstAccessMask, VK_ACCESS_2_SHADER_READ_BIT);
    EXPECT_EQ(barrier.dstAccessMask, VK_ACCESS_2_FRAGMENT_SHADING_RATE_ATTACHMENT_READ_BIT_KHR);
}

TEST(RenderPass1, OnlyLayoutsAndMasksChange) {
    VkAttachmentDescription att = {};
    att.format = VK_FORMAT_R8_UINT;
    att.initialLayout = kRateLayout;
    att.finalLayout = VK_IMAGE_LAYOUT_GENERAL;
    VkSubpassDescription sp = {};
    VkSubpassDependency dep = {};
    dep.dstStageMask = VK_PIPELINE_STAGE_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR;
    VkRenderPassCreateInfo info = {VK_STRUCTURE_TYPE_RENDER_PASS_CREATE_INFO};
    info.attachmentCount = 1;
    info.pAttachments = &att;
    info.subpassCount = 1;
    info.pSubpasses = &sp;
    info.dependencyCount = 1;
    info.pDependencies = &dep;
    Arena arena;
    const VkRenderPassCreateInfo* out = StripRenderPass(arena, &info);
    ASSERT_NE(out, &info);
    EXPECT_EQ(out->pAttachments[0].initialLayout, VK_IMAGE_LAYOUT_GENERAL);
    EXPECT_EQ(out->pDependencies[0].dstStageMask, VkPipelineStageFlags(VK_PIPELINE_STAGE_FRAGMENT_SHADER_BIT));
    EXPECT_EQ(att.initialLayout, kRateLayout);

    att.initialLayout = VK_IMAGE_LAYOUT_GENERAL;
    dep.dstStageMask = VK_PIPELINE_STAGE_FRAGMENT_SHADER_BIT;
    EXPECT_EQ(StripRenderPass(arena, &info), &info);
}

TEST(Framebuffer, DropsTheRateViewAndReportsIt) {
    VkImageView views[3] = {reinterpret_cast<VkImageView>(0x10), reinterpret_cast<VkImageView>(0x20),
                            reinterpret_cast<VkImageView>(0x30)};
    VkFramebufferCreateInfo info = {VK_STRUCTURE_TYPE_FRAMEBUFFER_CREATE_INFO};
    info.attachmentCount = 3;
    info.pAttachments = views;
    Arena arena;
    FramebufferStrip s = StripFramebuffer(arena, &info, {0});
    ASSERT_EQ(s.info->attachmentCount, 2u);
    EXPECT_EQ(s.info->pAttachments[0], views[1]);
    EXPECT_EQ(s.info->pAttachments[1], views[2]);
    EXPECT_EQ(s.rateView, views[0]);
    EXPECT_EQ(info.attachmentCount, 3u);
    EXPECT_EQ(StripFramebuffer(arena, &info, {}).info, &info);
}

TEST(Framebuffer, ImagelessDropsTheImageInfoAndStripsUsage) {
    VkFramebufferAttachmentImageInfo images[2] = {};
    images[0].sType = images[1].sType = VK_STRUCTURE_TYPE_FRAMEBUFFER_ATTACHMENT_IMAGE_INFO;
    images[0].usage = VK_IMAGE_USAGE_COLOR_ATTACHMENT_BIT;
    images[1].usage = VK_IMAGE_USAGE_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR;
    VkFramebufferAttachmentsCreateInfo attachments = {VK_STRUCTURE_TYPE_FRAMEBUFFER_ATTACHMENTS_CREATE_INFO};
    attachments.attachmentImageInfoCount = 2;
    attachments.pAttachmentImageInfos = images;
    VkFramebufferCreateInfo info = {VK_STRUCTURE_TYPE_FRAMEBUFFER_CREATE_INFO, &attachments};
    info.flags = VK_FRAMEBUFFER_CREATE_IMAGELESS_BIT;
    info.attachmentCount = 2;
    Arena arena;
    FramebufferStrip s = StripFramebuffer(arena, &info, {1});
    EXPECT_EQ(s.info->attachmentCount, 1u);
    EXPECT_EQ(s.rateView, VK_NULL_HANDLE);
    auto* out = static_cast<const VkFramebufferAttachmentsCreateInfo*>(
        FindInChain(s.info->pNext, VK_STRUCTURE_TYPE_FRAMEBUFFER_ATTACHMENTS_CREATE_INFO));
    ASSERT_NE(out, nullptr);
    ASSERT_EQ(out->attachmentImageInfoCount, 1u);
    EXPECT_EQ(out->pAttachmentImageInfos[0].usage, VkImageUsageFlags(VK_IMAGE_USAGE_COLOR_ATTACHMENT_BIT));
    EXPECT_EQ(attachments.attachmentImageInfoCount, 2u);
}

TEST(RenderPassBegin, RemovedLastAttachmentLeavesTheBeginAlone) {
    VkClearValue clears[3] = {};
    VkRenderPassBeginInfo info = {VK_STRUCTURE_TYPE_RENDER_PASS_BEGIN_INFO};
    info.clearValueCount = 3;
    info.pClearValues = clears;
    Arena arena;
    EXPECT_EQ(StripRenderPassBegin(arena, &info, {2}).info, &info);
    info.clearValueCount = 1;
    EXPECT_EQ(StripRenderPassBegin(arena, &info, {1}).info, &info);
}

TEST(RenderPassBegin, ImagelessViewsLoseTheRateView) {
    VkImageView views[2] = {reinterpret_cast<VkImageView>(0x10), reinterpret_cast<VkImageView>(0x20)};
    VkRenderPassAttachmentBeginInfo attachments = {VK_STRUCTURE_TYPE_RENDER_PASS_ATTACHMENT_BEGIN_INFO};
    attachments.attachmentCount = 2;
    attachments.pAttachments = views;
    VkRenderPassBeginInfo info = {VK_STRUCTURE_TYPE_RENDER_PASS_BEGIN_INFO, &attachments};
    Arena arena;
    BeginStrip s = StripRenderPassBegin(arena, &info, {1});
    EXPECT_EQ(s.rateView, views[1]);
    auto* out = static_cast<const VkRenderPassAttachmentBeginInfo*>(
        FindInChain(s.info->pNext, VK_STRUCTURE_TYPE_RENDER_PASS_ATTACHMENT_BEGIN_INFO));
    ASSERT_NE(out, nullptr);
    ASSERT_EQ(out->attachmentCount, 1u);
    EXPECT_EQ(out->pAttachments[0], views[0]);
}

TEST(DeviceCreate, DropsNameAndFeaturesBehindTheLoaderLinks) {
    VkPhysicalDeviceVulkan13Features f13 = {VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_VULKAN_1_3_FEATURES};
    VkPhysicalDeviceFragmentShadingRateFeaturesKHR rate = {
        VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FRAGMENT_SHADING_RATE_FEATURES_KHR, &f13};
    VkPhysicalDeviceFeatures2 f2 = {VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FEATURES_2, &rate};
    // What the loader puts in front of the application's chain.
    VkLayerDeviceCreateInfo link = {VK_STRUCTURE_TYPE_LOADER_DEVICE_CREATE_INFO, &f2};
    link.function = VK_LAYER_LINK_INFO;
    const char* names[3] = {"VK_KHR_swapchain", VK_KHR_FRAGMENT_SHADING_RATE_EXTENSION_NAME, "VK_EXT_other"};
    VkDeviceCreateInfo info = {VK_STRUCTURE_TYPE_DEVICE_CREATE_INFO, &link};
    info.enabledExtensionCount = 3;
    info.ppEnabledExtensionNames = names;
    Arena arena;
    const VkDeviceCreateInfo* out = StripDeviceCreateInfo(arena, &info);
    ASSERT_NE(out, &info);
    EXPECT_EQ(ChainTypes(out->pNext),
              (std::vector<VkStructureType>{VK_STRUCTURE_TYPE_LOADER_DEVICE_CREATE_INFO,
                                            VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FEATURES_2,
                                            VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_VULKAN_1_3_FEATURES}));
    ASSERT_EQ(out->enabledExtensionCount, 2u);
    EXPECT_STREQ(out->ppEnabledExtensionNames[0], "VK_KHR_swapchain");
    EXPECT_STREQ(out->ppEnabledExtensionNames[1], "VK_EXT_other");
    EXPECT_EQ(f2.pNext, &rate);
    EXPECT_EQ(info.enabledExtensionCount, 3u);

    info.enabledExtensionCount = 1;
    f2.pNext = &f13;
    EXPECT_EQ(StripDeviceCreateInfo(arena, &info), &info);
}

TEST(Chain, UnknownNodeEndsTheCopyAndKeepsTheRest) {
    VkPhysicalDeviceFragmentShadingRateFeaturesKHR rate = {
        VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FRAGMENT_SHADING_RATE_FEATURES_KHR};
    VkBaseInStructure unknown = {static_cast<VkStructureType>(0x7ffffff0), reinterpret_cast<const VkBaseInStructure*>(&rate)};
    VkPhysicalDeviceFeatures2 f2 = {VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FEATURES_2, &unknown};
    Arena arena;
    void* out = CopyChain(arena, &f2, VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FRAGMENT_SHADING_RATE_FEATURES_KHR);
    ASSERT_NE(out, &f2);
    EXPECT_EQ(static_cast<VkBaseInStructure*>(out)->pNext, &unknown);
}

TEST(Chain, KnowsSizesOfTheStructuresItCopies) {
    EXPECT_EQ(StructSize(VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_VULKAN_1_3_FEATURES), sizeof(VkPhysicalDeviceVulkan13Features));
    EXPECT_EQ(StructSize(VK_STRUCTURE_TYPE_SUBPASS_DESCRIPTION_DEPTH_STENCIL_RESOLVE),
              sizeof(VkSubpassDescriptionDepthStencilResolve));
    EXPECT_EQ(StructSize(VK_STRUCTURE_TYPE_LOADER_DEVICE_CREATE_INFO), sizeof(VkLayerDeviceCreateInfo));
    EXPECT_EQ(StructSize(static_cast<VkStructureType>(0x7ffffff0)), 0u);
}

TEST(Pipelines, DropsRateDynamicStateAndStaticRate) {
    VkDynamicState states[3] = {VK_DYNAMIC_STATE_VIEWPORT, VK_DYNAMIC_STATE_FRAGMENT_SHADING_RATE_KHR,
                                VK_DYNAMIC_STATE_SCISSOR};
    VkPipelineDynamicStateCreateInfo dyn = {VK_STRUCTURE_TYPE_PIPELINE_DYNAMIC_STATE_CREATE_INFO};
    dyn.dynamicStateCount = 3;
    dyn.pDynamicStates = states;
    VkPipelineRenderingCreateInfo rendering = {VK_STRUCTURE_TYPE_PIPELINE_RENDERING_CREATE_INFO};
    VkPipelineFragmentShadingRateStateCreateInfoKHR rate = {
        VK_STRUCTURE_TYPE_PIPELINE_FRAGMENT_SHADING_RATE_STATE_CREATE_INFO_KHR, &rendering};
    VkGraphicsPipelineCreateInfo infos[2] = {};
    infos[0].sType = infos[1].sType = VK_STRUCTURE_TYPE_GRAPHICS_PIPELINE_CREATE_INFO;
    infos[1].pNext = &rate;
    infos[1].pDynamicState = &dyn;
    infos[1].flags = VK_PIPELINE_CREATE_RENDERING_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR |
                     VK_PIPELINE_CREATE_DISABLE_OPTIMIZATION_BIT;
    Arena arena;
    const VkGraphicsPipelineCreateInfo* out = StripGraphicsPipelines(arena, infos, 2);
    ASSERT_NE(out, infos);
    EXPECT_EQ(out[0].pNext, nullptr);
    EXPECT_EQ(ChainTypes(out[1].pNext), std::vector<VkStructureType>{VK_STRUCTURE_TYPE_PIPELINE_RENDERING_CREATE_INFO});
    ASSERT_EQ(out[1].pDynamicState->dynamicStateCount, 2u);
    EXPECT_EQ(out[1].pDynamicState->pDynamicStates[0], VK_DYNAMIC_STATE_VIEWPORT);
    EXPECT_EQ(out[1].pDynamicState->pDynamicStates[1], VK_DYNAMIC_STATE_SCISSOR);
    EXPECT_EQ(out[1].flags, VkPipelineCreateFlags(VK_PIPELINE_CREATE_DISABLE_OPTIMIZATION_BIT));
    EXPECT_EQ(dyn.dynamicStateCount, 3u);

    EXPECT_EQ(StripGraphicsPipelines(arena, infos, 1), infos);
}

TEST(Usage, RateBitAloneBecomesTransferDestination) {
    EXPECT_EQ(StripUsage(VK_IMAGE_USAGE_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR),
              VkImageUsageFlags(VK_IMAGE_USAGE_TRANSFER_DST_BIT));
    EXPECT_EQ(StripUsage(VK_IMAGE_USAGE_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR | VK_IMAGE_USAGE_SAMPLED_BIT),
              VkImageUsageFlags(VK_IMAGE_USAGE_SAMPLED_BIT));
    EXPECT_EQ(StripUsage(VK_IMAGE_USAGE_STORAGE_BIT), VkImageUsageFlags(VK_IMAGE_USAGE_STORAGE_BIT));
}

TEST(Usage, ImageViewUsageInfoIsStripped) {
    VkImageViewUsageCreateInfo usage = {VK_STRUCTURE_TYPE_IMAGE_VIEW_USAGE_CREATE_INFO};
    usage.usage = VK_IMAGE_USAGE_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR;
    VkImageViewCreateInfo info = {VK_STRUCTURE_TYPE_IMAGE_VIEW_CREATE_INFO, &usage};
    Arena arena;
    const VkImageViewCreateInfo* out = StripImageViewCreateInfo(arena, &info);
    auto* u = static_cast<const VkImageViewUsageCreateInfo*>(FindInChain(out->pNext, VK_STRUCTURE_TYPE_IMAGE_VIEW_USAGE_CREATE_INFO));
    ASSERT_NE(u, nullptr);
    EXPECT_EQ(u->usage, VkImageUsageFlags(VK_IMAGE_USAGE_TRANSFER_DST_BIT));
    EXPECT_EQ(usage.usage, VkImageUsageFlags(VK_IMAGE_USAGE_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR));
}

TEST(Barriers, LayoutStageAndAccessOfTheExtensionAreReplaced) {
    VkImageMemoryBarrier barriers[2] = {};
    barriers[0].sType = barriers[1].sType = VK_STRUCTURE_TYPE_IMAGE_MEMORY_BARRIER;
    barriers[0].oldLayout = VK_IMAGE_LAYOUT_UNDEFINED;
    barriers[0].newLayout = VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL;
    barriers[1].oldLayout = VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL;
    barriers[1].newLayout = kRateLayout;
    barriers[1].dstAccessMask = VK_ACCESS_FRAGMENT_SHADING_RATE_ATTACHMENT_READ_BIT_KHR;
    Arena arena;
    const VkImageMemoryBarrier* out = StripImageBarriers(arena, barriers, 2);
    ASSERT_NE(out, barriers);
    EXPECT_EQ(out[0].newLayout, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL);
    EXPECT_EQ(out[1].newLayout, VK_IMAGE_LAYOUT_GENERAL);
    EXPECT_EQ(out[1].dstAccessMask, VkAccessFlags(VK_ACCESS_SHADER_READ_BIT));
    EXPECT_EQ(StripImageBarriers(arena, barriers, 1), barriers);

    EXPECT_EQ(StripStages(VK_PIPELINE_STAGE_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR | VK_PIPELINE_STAGE_TRANSFER_BIT),
              VkPipelineStageFlags(VK_PIPELINE_STAGE_TRANSFER_BIT));
}

TEST(Barriers, DependencyInfoOfSynchronization2) {
    VkImageMemoryBarrier2 image = {VK_STRUCTURE_TYPE_IMAGE_MEMORY_BARRIER_2};
    image.srcStageMask = VK_PIPELINE_STAGE_2_COPY_BIT;
    image.dstStageMask = VK_PIPELINE_STAGE_2_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR;
    image.dstAccessMask = VK_ACCESS_2_FRAGMENT_SHADING_RATE_ATTACHMENT_READ_BIT_KHR;
    image.newLayout = kRateLayout;
    VkDependencyInfo dep = {VK_STRUCTURE_TYPE_DEPENDENCY_INFO};
    dep.imageMemoryBarrierCount = 1;
    dep.pImageMemoryBarriers = &image;
    Arena arena;
    const VkDependencyInfo* out = StripDependencyInfos(arena, &dep, 1);
    ASSERT_NE(out, &dep);
    EXPECT_EQ(out->pImageMemoryBarriers[0].dstStageMask, VK_PIPELINE_STAGE_2_FRAGMENT_SHADER_BIT);
    EXPECT_EQ(out->pImageMemoryBarriers[0].dstAccessMask, VK_ACCESS_2_SHADER_READ_BIT);
    EXPECT_EQ(out->pImageMemoryBarriers[0].newLayout, VK_IMAGE_LAYOUT_GENERAL);
    EXPECT_EQ(out->pImageMemoryBarriers[0].srcStageMask, VK_PIPELINE_STAGE_2_COPY_BIT);
}

TEST(Submit, WaitStageOfTheExtensionIsReplaced) {
    VkPipelineStageFlags stages[2] = {VK_PIPELINE_STAGE_TRANSFER_BIT,
                                      VK_PIPELINE_STAGE_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR};
    VkSemaphore semaphores[2] = {};
    VkSubmitInfo submit = {VK_STRUCTURE_TYPE_SUBMIT_INFO};
    submit.waitSemaphoreCount = 2;
    submit.pWaitSemaphores = semaphores;
    submit.pWaitDstStageMask = stages;
    Arena arena;
    const VkSubmitInfo* out = StripSubmits(arena, &submit, 1);
    ASSERT_NE(out, &submit);
    EXPECT_EQ(out->pWaitDstStageMask[0], VkPipelineStageFlags(VK_PIPELINE_STAGE_TRANSFER_BIT));
    EXPECT_EQ(out->pWaitDstStageMask[1], VkPipelineStageFlags(VK_PIPELINE_STAGE_FRAGMENT_SHADER_BIT));
}

TEST(Rendering, RateAttachmentInfoIsDropped) {
    VkRenderingFragmentShadingRateAttachmentInfoKHR rate = {
        VK_STRUCTURE_TYPE_RENDERING_FRAGMENT_SHADING_RATE_ATTACHMENT_INFO_KHR};
    VkRenderingInfo info = {VK_STRUCTURE_TYPE_RENDERING_INFO, &rate};
    Arena arena;
    const VkRenderingInfo* out = StripRenderingInfo(arena, &info);
    ASSERT_NE(out, &info);
    EXPECT_EQ(out->pNext, nullptr);
}

}  // namespace
}  // namespace fsr
