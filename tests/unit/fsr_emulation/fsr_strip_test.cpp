// The rewrites that keep the extension away from the driver, on hand-made create infos. The emulation
// probe renders through them on lavapipe with the rate attachment first; lavapipe ignores layouts,
// barriers and usage, so those, and the shapes the probe does not build, are checked here.
#include <gtest/gtest.h>

#include <vector>

#include "fsr_strip.h"

namespace fsr {
namespace {

using Values = std::vector<uint64_t>;
template <typename... T>
Values V(T... values) {
    return {static_cast<uint64_t>(values)...};
}
Values Cat(Values a, const Values& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

constexpr VkImageLayout kRateLayout = VK_IMAGE_LAYOUT_FRAGMENT_SHADING_RATE_ATTACHMENT_OPTIMAL_KHR;
constexpr VkImageLayout kGeneral = VK_IMAGE_LAYOUT_GENERAL;
constexpr uint32_t kUnused = VK_ATTACHMENT_UNUSED;
constexpr VkImageUsageFlags kRateUsage = VK_IMAGE_USAGE_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR;
// The stage and access bits named here have the same values in both synchronization APIs.
constexpr VkPipelineStageFlags2 kRateStage = VK_PIPELINE_STAGE_2_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR;
constexpr VkAccessFlags2 kRateAccess = VK_ACCESS_2_FRAGMENT_SHADING_RATE_ATTACHMENT_READ_BIT_KHR;
constexpr uint64_t kFragment = VK_PIPELINE_STAGE_FRAGMENT_SHADER_BIT, kTransfer = VK_PIPELINE_STAGE_TRANSFER_BIT;
constexpr uint64_t kShaderRead = VK_ACCESS_SHADER_READ_BIT, kWrite = VK_ACCESS_TRANSFER_WRITE_BIT;
constexpr uint64_t kCopy = VK_PIPELINE_STAGE_2_COPY_BIT, kSampled = VK_IMAGE_USAGE_SAMPLED_BIT;

VkAttachmentDescription2 Desc(VkFormat format, VkImageLayout layout = kGeneral) {
    return {VK_STRUCTURE_TYPE_ATTACHMENT_DESCRIPTION_2, nullptr, 0, format, VK_SAMPLE_COUNT_1_BIT, {}, {}, {}, {},
            layout, layout};
}
VkAttachmentReference2 Ref(uint32_t index, VkImageLayout layout = kGeneral) {
    return {VK_STRUCTURE_TYPE_ATTACHMENT_REFERENCE_2, nullptr, index, layout};
}

// Attachments: 0 colour, 1 rate, 2 depth, 3 resolve target; every kind of reference points past the
// rate attachment. The rate info sits behind another node in subpass 0, so dropping it splices the chain.
struct RatePass {
    VkAttachmentDescription2 atts[4] = {Desc(VK_FORMAT_R8G8B8A8_UNORM), Desc(VK_FORMAT_R8_UINT, kRateLayout),
                                        Desc(VK_FORMAT_D32_SFLOAT), Desc(VK_FORMAT_B8G8R8A8_UNORM)};
    VkAttachmentReference2 color = Ref(0), resolve = Ref(3), depth = Ref(2), input = Ref(2), unused = Ref(kUnused);
    VkAttachmentReference2 rateRef = Ref(1, kRateLayout), rateRef2 = Ref(3, kRateLayout);
    uint32_t preserve[2] = {3, 1};
    VkFragmentShadingRateAttachmentInfoKHR rate = {VK_STRUCTURE_TYPE_FRAGMENT_SHADING_RATE_ATTACHMENT_INFO_KHR,
                                                   nullptr, &rateRef, {16, 16}};
    VkFragmentShadingRateAttachmentInfoKHR rate2 = {VK_STRUCTURE_TYPE_FRAGMENT_SHADING_RATE_ATTACHMENT_INFO_KHR,
                                                    nullptr, &rateRef2, {8, 8}};
    VkSubpassDescriptionDepthStencilResolve dsResolve = {VK_STRUCTURE_TYPE_SUBPASS_DESCRIPTION_DEPTH_STENCIL_RESOLVE,
                                                         &rate, {}, {}, &resolve};
    VkSubpassDescription2 subpasses[2] = {
        {VK_STRUCTURE_TYPE_SUBPASS_DESCRIPTION_2, &dsResolve, 0, {}, 0, 0, nullptr, 1, &color, &resolve, &depth},
        {VK_STRUCTURE_TYPE_SUBPASS_DESCRIPTION_2, &rate, 0, {}, 0, 1, &input, 1, &color, nullptr, &unused, 2,
         preserve}};
    VkMemoryBarrier2 barrier = {VK_STRUCTURE_TYPE_MEMORY_BARRIER_2, nullptr, kCopy, kWrite, kRateStage | kCopy,
                                kRateAccess};
    VkSubpassDependency2 dep = {VK_STRUCTURE_TYPE_SUBPASS_DEPENDENCY_2, &barrier, VK_SUBPASS_EXTERNAL, 0,
                                kRateStage | kTransfer, kRateStage, kRateAccess | kWrite, kRateAccess | kShaderRead};
    VkRenderPassCreateInfo2 info = {VK_STRUCTURE_TYPE_RENDER_PASS_CREATE_INFO_2, nullptr, 0, 4, atts, 2, subpasses,
                                    1, &dep};
};

TEST(RenderPass2, RateAttachmentsGoEveryReferenceFollowsNothingOfTheExtensionStays) {
    const struct {
        const char* name;
        void (*setup)(RatePass&);
        std::vector<uint32_t> removed;
        Values refs;  // attachments; subpass 0: colour, resolve, depth, d/s resolve; 1: input, depth, preserved
        Values uses;  // per rate attachment: index, texel size, subpasses
    } kCases[] = {
        {"one rate attachment in both subpasses", [](RatePass&) {}, {1}, {3, 0, 2, 1, 2, 1, kUnused, 2},
         {1, 16, 16, 0, 1}},
        {"another one in subpass 1", [](RatePass& p) { p.subpasses[1].pNext = &p.rate2; }, {1, 3},
         {2, 0, kUnused, 1, kUnused, 1, kUnused}, {1, 16, 16, 0, 3, 8, 8, 1}},
        {"a rate info without an attachment", [](RatePass& p) { p.rateRef.attachment = kUnused; }, {},
         {4, 0, 3, 2, 3, 2, kUnused, 3, 1}, {}},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.name);
        RatePass pass;
        c.setup(pass);
        const auto* bytes = reinterpret_cast<const unsigned char*>(&pass);
        const std::vector<unsigned char> before(bytes, bytes + sizeof pass);
        Arena arena;
        const RenderPassStrip s = StripRenderPass2(arena, &pass.info);
        EXPECT_EQ(std::vector<unsigned char>(bytes, bytes + sizeof pass), before) << "the application's copy changed";
        EXPECT_EQ(s.removed, c.removed);
        Values uses;
        for (const RateAttachmentUse& u : s.uses) {
            uses = Cat(Cat(uses, V(u.attachment, u.texelSize.width, u.texelSize.height)),
                       Values(u.subpasses.begin(), u.subpasses.end()));
        }
        EXPECT_EQ(uses, c.uses);
        // Which attachments stay is the probe's to prove; that none keeps the rate layout is not.
        for (uint32_t i = 0; i < s.info->attachmentCount; ++i) {
            EXPECT_NE(s.info->pAttachments[i].initialLayout, kRateLayout);
            EXPECT_NE(s.info->pAttachments[i].finalLayout, kRateLayout);
        }
        const VkSubpassDescription2 &sp0 = s.info->pSubpasses[0], &sp1 = s.info->pSubpasses[1];
        const VkStructureType rateInfo = VK_STRUCTURE_TYPE_FRAGMENT_SHADING_RATE_ATTACHMENT_INFO_KHR;
        EXPECT_FALSE(FindInChain(sp0.pNext, rateInfo) || FindInChain(sp1.pNext, rateInfo));
        const VkSubpassDependency2& d = s.info->pDependencies[0];
        auto* ds = static_cast<const VkSubpassDescriptionDepthStencilResolve*>(
            FindInChain(sp0.pNext, VK_STRUCTURE_TYPE_SUBPASS_DESCRIPTION_DEPTH_STENCIL_RESOLVE));
        auto* b = static_cast<const VkMemoryBarrier2*>(FindInChain(d.pNext, VK_STRUCTURE_TYPE_MEMORY_BARRIER_2));
        ASSERT_TRUE(ds && b) << "a node beside one of the extension was lost";
        const Values refs = V(s.info->attachmentCount, sp0.pColorAttachments[0].attachment,
                              sp0.pResolveAttachments[0].attachment, sp0.pDepthStencilAttachment->attachment,
                              ds->pDepthStencilResolveAttachment->attachment, sp1.pInputAttachments[0].attachment,
                              sp1.pDepthStencilAttachment->attachment);
        EXPECT_EQ(Cat(refs, Values(sp1.pPreserveAttachments, sp1.pPreserveAttachments + sp1.preserveAttachmentCount)),
                  c.refs);
        EXPECT_EQ(V(d.srcStageMask, d.dstStageMask, d.srcAccessMask, d.dstAccessMask, b->dstStageMask,
                    b->dstAccessMask),
                  V(kTransfer, kFragment, kWrite, kShaderRead, kCopy, kShaderRead));
    }
}

// The other rewrites, on structures that carry the extension's bits alone and beside others; `run`
// returns what reaches the driver.
const struct {
    const char* name;
    Values (*run)(Arena&);
    Values want;
} kRewrites[] = {
    {"render pass 1, barriers and submissions: layouts, stages and access",
     [](Arena& a) {
         const VkAttachmentDescription att = {0, VK_FORMAT_R8_UINT, VK_SAMPLE_COUNT_1_BIT, {}, {}, {}, {}, kRateLayout,
                                              kRateLayout};
         const VkAttachmentReference ref = {0, kRateLayout};
         const VkSubpassDescription sp = {0, VK_PIPELINE_BIND_POINT_GRAPHICS, 1, &ref};
         const VkSubpassDependency dep = {0, 0, kRateStage | kTransfer, kRateStage, kRateAccess, kRateAccess | kWrite};
         const VkRenderPassCreateInfo pass = {VK_STRUCTURE_TYPE_RENDER_PASS_CREATE_INFO, nullptr, 0, 1, &att, 1, &sp, 1,
                                              &dep};
         const VkImageMemoryBarrier i = {VK_STRUCTURE_TYPE_IMAGE_MEMORY_BARRIER, nullptr, kRateAccess,
                                         kRateAccess | kWrite, kRateLayout, kRateLayout};
         const VkImageMemoryBarrier2 i2 = {VK_STRUCTURE_TYPE_IMAGE_MEMORY_BARRIER_2, nullptr, kCopy, kWrite, kRateStage,
                                           kRateAccess, kRateLayout, kRateLayout};
         const VkDependencyInfo dep2 = {VK_STRUCTURE_TYPE_DEPENDENCY_INFO, nullptr, 0, 0, nullptr, 0, nullptr, 1, &i2};
         const VkPipelineStageFlags stages[2] = {kTransfer, kRateStage};
         const VkSemaphore semaphores[2] = {};
         const VkSubmitInfo submit = {VK_STRUCTURE_TYPE_SUBMIT_INFO, nullptr, 2, semaphores, stages};
         const VkRenderPassCreateInfo* po = StripRenderPass(a, &pass);
         const VkSubpassDependency& d = po->pDependencies[0];
         const VkImageMemoryBarrier* io = StripImageBarriers(a, &i, 1);
         const VkImageMemoryBarrier2& i2o = StripDependencyInfos(a, &dep2, 1)->pImageMemoryBarriers[0];
         const VkSubmitInfo* so = StripSubmits(a, &submit, 1);
         return V(po->pAttachments[0].initialLayout, po->pAttachments[0].finalLayout,
                  po->pSubpasses[0].pInputAttachments[0].layout, d.srcStageMask, d.dstStageMask, d.srcAccessMask,
                  d.dstAccessMask, io->srcAccessMask, io->dstAccessMask, io->oldLayout, io->newLayout,
                  i2o.srcStageMask, i2o.dstStageMask, i2o.dstAccessMask, i2o.newLayout, so->pWaitDstStageMask[0],
                  so->pWaitDstStageMask[1]);
     },
     V(kGeneral, kGeneral, kGeneral, kTransfer, kFragment, kShaderRead, kWrite, kShaderRead, kWrite, kGeneral,
       kGeneral, kCopy, kFragment, kShaderRead, kGeneral, kTransfer, kFragment)},
    {"imageless framebuffers and begins, images, views, format queries: the rate view, clear values, usage",
     [](Arena& a) {
         const VkImageUsageFlags usages[3] = {VK_IMAGE_USAGE_COLOR_ATTACHMENT_BIT, kRateUsage, kRateUsage | kSampled};
         VkFramebufferAttachmentImageInfo images[3] = {};
         VkClearValue clears[3] = {};
         VkImageView views[3] = {};
         for (uint32_t i = 0; i < 3; ++i) {
             images[i] = {VK_STRUCTURE_TYPE_FRAMEBUFFER_ATTACHMENT_IMAGE_INFO, nullptr, 0, usages[i]};
             clears[i].color.uint32[0] = 10 + i;
             views[i] = reinterpret_cast<VkImageView>(uintptr_t(0x10 + i));
         }
         VkFramebufferAttachmentsCreateInfo list = {VK_STRUCTURE_TYPE_FRAMEBUFFER_ATTACHMENTS_CREATE_INFO, nullptr, 3,
                                                    images};
         const VkFramebufferCreateInfo fb = {VK_STRUCTURE_TYPE_FRAMEBUFFER_CREATE_INFO, &list,
                                             VK_FRAMEBUFFER_CREATE_IMAGELESS_BIT, VK_NULL_HANDLE, 3};
         const FramebufferStrip f = StripFramebuffer(a, &fb, {1});
         auto* fo = static_cast<const VkFramebufferAttachmentsCreateInfo*>(f.info->pNext);
         VkRenderPassAttachmentBeginInfo attached = {VK_STRUCTURE_TYPE_RENDER_PASS_ATTACHMENT_BEGIN_INFO, nullptr, 3,
                                                     views};
         VkRenderPassBeginInfo begin = {VK_STRUCTURE_TYPE_RENDER_PASS_BEGIN_INFO, &attached, {}, {}, {}, 3, clears};
         const BeginStrip b = StripRenderPassBegin(a, &begin, {1});
         auto* bo = static_cast<const VkRenderPassAttachmentBeginInfo*>(b.info->pNext);
         // A removed attachment past the last clear value takes none with it.
         VkRenderPassBeginInfo shortBegin = {VK_STRUCTURE_TYPE_RENDER_PASS_BEGIN_INFO, nullptr, {}, {}, {}, 1, clears};
         const VkRenderPassBeginInfo* past = StripRenderPassBegin(a, &shortBegin, {1}).info;
         VkImageStencilUsageCreateInfo stencil = {VK_STRUCTURE_TYPE_IMAGE_STENCIL_USAGE_CREATE_INFO, nullptr,
                                                  kRateUsage};
         const VkImageCreateInfo image = {VK_STRUCTURE_TYPE_IMAGE_CREATE_INFO, &stencil, {}, {}, {}, {}, 1, 1, {}, {},
                                          kRateUsage | kSampled};
         VkImageViewUsageCreateInfo viewUsage = {VK_STRUCTURE_TYPE_IMAGE_VIEW_USAGE_CREATE_INFO, nullptr, kRateUsage};
         const VkImageViewCreateInfo view = {VK_STRUCTURE_TYPE_IMAGE_VIEW_CREATE_INFO, &viewUsage};
         const VkPhysicalDeviceImageFormatInfo2 query = {VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_IMAGE_FORMAT_INFO_2, nullptr,
                                                         {}, {}, {}, kRateUsage};
         const VkImageCreateInfo* io = StripImageCreateInfo(a, &image);
         return V(f.info->attachmentCount, fo->attachmentImageInfoCount, fo->pAttachmentImageInfos[0].usage,
                  fo->pAttachmentImageInfos[1].usage, b.info->clearValueCount, b.info->pClearValues[1].color.uint32[0],
                  bo->attachmentCount, bo->pAttachments[1] == views[2], b.rateView == views[1],
                  past->clearValueCount, past->pClearValues[0].color.uint32[0], io->usage,
                  static_cast<const VkImageStencilUsageCreateInfo*>(io->pNext)->stencilUsage,
                  static_cast<const VkImageViewUsageCreateInfo*>(StripImageViewCreateInfo(a, &view)->pNext)->usage,
                  StripImageFormatInfo(a, &query)->usage);
     },
     // An image needs some usage; the application uploads into one that had only the rate usage.
     V(2, 2, VK_IMAGE_USAGE_COLOR_ATTACHMENT_BIT, kSampled, 2, 12, 2, true, true, 1, 10, kSampled,
       VK_IMAGE_USAGE_TRANSFER_DST_BIT, VK_IMAGE_USAGE_TRANSFER_DST_BIT, VK_IMAGE_USAGE_TRANSFER_DST_BIT)},
};

TEST(Rewrites, NothingOfTheExtensionReachesTheDriver) {
    for (const auto& r : kRewrites) {
        Arena arena;
        EXPECT_EQ(r.run(arena), r.want) << r.name;
    }
}

}  // namespace
}  // namespace fsr
