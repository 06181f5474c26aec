#include "app/module/zovk_fixed_vrs_renderpass.h"

#include <algorithm>
#include <cstring>

#include "layer/zovk_chain.h"
#include "layer/zovk_records.h"
#include "settings/zovk_log.h"

namespace vulkan::zovk::app::module {

namespace {

constexpr VkImageLayout kRateLayout = VK_IMAGE_LAYOUT_FRAGMENT_SHADING_RATE_ATTACHMENT_OPTIMAL_KHR;

VkAttachmentDescription2 ShadingRateAttachment() {
    VkAttachmentDescription2 a{};
    a.sType = VK_STRUCTURE_TYPE_ATTACHMENT_DESCRIPTION_2;
    a.format = VK_FORMAT_R8_UINT;
    a.samples = VK_SAMPLE_COUNT_1_BIT;
    a.loadOp = VK_ATTACHMENT_LOAD_OP_LOAD;
    a.storeOp = VK_ATTACHMENT_STORE_OP_DONT_CARE;
    a.stencilLoadOp = VK_ATTACHMENT_LOAD_OP_DONT_CARE;
    a.stencilStoreOp = VK_ATTACHMENT_STORE_OP_DONT_CARE;
    a.initialLayout = kRateLayout;
    a.finalLayout = kRateLayout;
    return a;
}

VkAttachmentReference2 Reference2(const VkAttachmentReference& r, VkImageAspectFlags aspect) {
    return {VK_STRUCTURE_TYPE_ATTACHMENT_REFERENCE_2, nullptr, r.attachment, r.layout, aspect};
}

VkImageAspectFlags FormatAspects(VkFormat format) {
    switch (format) {
        case VK_FORMAT_D16_UNORM:
        case VK_FORMAT_X8_D24_UNORM_PACK32:
        case VK_FORMAT_D32_SFLOAT:
            return VK_IMAGE_ASPECT_DEPTH_BIT;
        case VK_FORMAT_S8_UINT:
            return VK_IMAGE_ASPECT_STENCIL_BIT;
        case VK_FORMAT_D16_UNORM_S8_UINT:
        case VK_FORMAT_D24_UNORM_S8_UINT:
        case VK_FORMAT_D32_SFLOAT_S8_UINT:
            return VK_IMAGE_ASPECT_DEPTH_BIT | VK_IMAGE_ASPECT_STENCIL_BIT;
        default:
            return VK_IMAGE_ASPECT_COLOR_BIT;
    }
}

// The aspects input attachment `index` of `subpass` reads: those the application named, or
// else every aspect of the attachment's format, as a version-1 pass allows. A version-2
// reference must name them (VUID-VkSubpassDescription2-attachment-02800).
VkImageAspectFlags InputAspects(const VkRenderPassCreateInfo& info, uint32_t subpass, uint32_t index) {
    const uint32_t attachment = info.pSubpasses[subpass].pInputAttachments[index].attachment;
    if (attachment >= info.attachmentCount) {
        return 0;  // unused
    }
    const auto* named = FindInChain<VkRenderPassInputAttachmentAspectCreateInfo>(
        info.pNext, VK_STRUCTURE_TYPE_RENDER_PASS_INPUT_ATTACHMENT_ASPECT_CREATE_INFO);
    for (uint32_t i = 0; named != nullptr && i < named->aspectReferenceCount; ++i) {
        const VkInputAttachmentAspectReference& r = named->pAspectReferences[i];
        if (r.subpass == subpass && r.inputAttachmentIndex == index) {
            return r.aspectMask;
        }
    }
    return FormatAspects(info.pAttachments[attachment].format);
}

// What every subpass of a converted pass points at: the rate attachment, appended last.
struct ShadingRateReference {
    ShadingRateReference(uint32_t index, MyVkExtent2D texelSize) {
        reference = {VK_STRUCTURE_TYPE_ATTACHMENT_REFERENCE_2, nullptr, index, kRateLayout, 0};
        info.sType = VK_STRUCTURE_TYPE_FRAGMENT_SHADING_RATE_ATTACHMENT_INFO_KHR;
        info.pFragmentShadingRateAttachment = &reference;
        info.shadingRateAttachmentTexelSize = texelSize.ToVkExtent2D();
    }
    ShadingRateReference(const ShadingRateReference&) = delete;
    ShadingRateReference& operator=(const ShadingRateReference&) = delete;

    VkAttachmentReference2 reference;
    VkFragmentShadingRateAttachmentInfoKHR info{};
};

// The references of one converted subpass; they must outlive the create call.
struct SubpassReferences {
    std::vector<VkAttachmentReference2> input;
    std::vector<VkAttachmentReference2> color;
    std::vector<VkAttachmentReference2> resolve;
    VkAttachmentReference2 depth{};
};

// The substitute pass: no pNext, no flags; null on failure.
VkRenderPass CreateRenderPass2(const ZoVkDeviceInfo& record, const std::vector<VkAttachmentDescription2>& attachments,
                               const std::vector<VkSubpassDescription2>& subpasses,
                               const std::vector<VkSubpassDependency2>& dependencies, uint32_t correlatedViewMaskCount,
                               const uint32_t* correlatedViewMasks, const char* failure) {
    VkRenderPassCreateInfo2 info{};
    info.sType = VK_STRUCTURE_TYPE_RENDER_PASS_CREATE_INFO_2;
    info.correlatedViewMaskCount = correlatedViewMaskCount;
    info.pCorrelatedViewMasks = correlatedViewMasks;
    info.attachmentCount = static_cast<uint32_t>(attachments.size());
    info.pAttachments = attachments.data();
    info.subpassCount = static_cast<uint32_t>(subpasses.size());
    info.pSubpasses = subpasses.empty() ? nullptr : subpasses.data();
    info.dependencyCount = static_cast<uint32_t>(dependencies.size());
    info.pDependencies = dependencies.empty() ? nullptr : dependencies.data();
    VkRenderPass renderPass = VK_NULL_HANDLE;
    const auto create = record.functions.vkCreateRenderPass2;
    if (create == nullptr || create(record.device, &info, nullptr, &renderPass) != VK_SUCCESS) {
        ZOVK_LOGE("%s", failure);
        return VK_NULL_HANDLE;
    }
    return renderPass;
}

}  // namespace

VkRenderPass ZoVkFixedVRSRenderpass::createShadingRateRenderpass(VkRenderPassCreateInfo createInfo,
                                                                 MyVkExtent2D texelSize) {
    const ShadingRateReference rate(createInfo.attachmentCount, texelSize);
    // Multiview moves from this structure into the version-2 subpasses, dependencies and pass.
    const auto* multiview = FindInChain<VkRenderPassMultiviewCreateInfo>(
        createInfo.pNext, VK_STRUCTURE_TYPE_RENDER_PASS_MULTIVIEW_CREATE_INFO);
    const VkRenderPassMultiviewCreateInfo noViews{};
    const VkRenderPassMultiviewCreateInfo& views = multiview != nullptr ? *multiview : noViews;

    // Attachment flags (may-alias) are not carried over.
    std::vector<VkAttachmentDescription2> attachments;
    attachments.reserve(createInfo.attachmentCount + 1);
    for (uint32_t i = 0; i < createInfo.attachmentCount; ++i) {
        const VkAttachmentDescription& a = createInfo.pAttachments[i];
        VkAttachmentDescription2 converted{};
        converted.sType = VK_STRUCTURE_TYPE_ATTACHMENT_DESCRIPTION_2;
        converted.format = a.format;
        converted.samples = a.samples;
        converted.loadOp = a.loadOp;
        converted.storeOp = a.storeOp;
        converted.stencilLoadOp = a.stencilLoadOp;
        converted.stencilStoreOp = a.stencilStoreOp;
        converted.initialLayout = a.initialLayout;
        converted.finalLayout = a.finalLayout;
        attachments.push_back(converted);
    }
    attachments.push_back(ShadingRateAttachment());

    std::vector<SubpassReferences> references(createInfo.subpassCount);
    std::vector<VkSubpassDescription2> subpasses(createInfo.subpassCount);
    for (uint32_t s = 0; s < createInfo.subpassCount; ++s) {
        const VkSubpassDescription& in = createInfo.pSubpasses[s];
        SubpassReferences& refs = references[s];
        VkSubpassDescription2& out = subpasses[s];
        out.sType = VK_STRUCTURE_TYPE_SUBPASS_DESCRIPTION_2;
        out.pNext = &rate.info;
        // Only graphics subpasses can carry a shading-rate attachment.
        out.pipelineBindPoint = VK_PIPELINE_BIND_POINT_GRAPHICS;
        out.viewMask = s < views.subpassCount ? views.pViewMasks[s] : 0;

        for (uint32_t i = 0; i < in.inputAttachmentCount; ++i) {
            refs.input.push_back(Reference2(in.pInputAttachments[i], InputAspects(createInfo, s, i)));
        }
        for (uint32_t i = 0; i < in.colorAttachmentCount; ++i) {
            refs.color.push_back(Reference2(in.pColorAttachments[i], VK_IMAGE_ASPECT_COLOR_BIT));
        }
        // Only the first resolve reference is kept. The array still has one entry per
        // color attachment, as the next layer reads it: the others resolve nothing.
        if (in.pResolveAttachments != nullptr && in.colorAttachmentCount > 0) {
            refs.resolve.assign(in.colorAttachmentCount, {VK_STRUCTURE_TYPE_ATTACHMENT_REFERENCE_2, nullptr,
                                                          VK_ATTACHMENT_UNUSED, VK_IMAGE_LAYOUT_UNDEFINED,
                                                          VK_IMAGE_ASPECT_COLOR_BIT});
            refs.resolve[0] = Reference2(in.pResolveAttachments[0], VK_IMAGE_ASPECT_COLOR_BIT);
        }
        if (in.pDepthStencilAttachment != nullptr) {
            refs.depth = Reference2(*in.pDepthStencilAttachment, VK_IMAGE_ASPECT_DEPTH_BIT);
            out.pDepthStencilAttachment = &refs.depth;
        }

        out.inputAttachmentCount = static_cast<uint32_t>(refs.input.size());
        out.pInputAttachments = refs.input.empty() ? nullptr : refs.input.data();
        out.colorAttachmentCount = static_cast<uint32_t>(refs.color.size());
        out.pColorAttachments = refs.color.empty() ? nullptr : refs.color.data();
        out.pResolveAttachments = refs.resolve.empty() ? nullptr : refs.resolve.data();
        out.preserveAttachmentCount = in.preserveAttachmentCount;
        out.pPreserveAttachments = in.pPreserveAttachments;
    }

    std::vector<VkSubpassDependency2> dependencies;
    dependencies.reserve(createInfo.dependencyCount);
    for (uint32_t i = 0; i < createInfo.dependencyCount; ++i) {
        const VkSubpassDependency& d = createInfo.pDependencies[i];
        dependencies.push_back({VK_STRUCTURE_TYPE_SUBPASS_DEPENDENCY_2, nullptr, d.srcSubpass, d.dstSubpass,
                                d.srcStageMask, d.dstStageMask, d.srcAccessMask, d.dstAccessMask, d.dependencyFlags,
                                i < views.dependencyCount ? views.pViewOffsets[i] : 0});
    }

    // The rest of the application's pNext chain and its flags are not carried over.
    return CreateRenderPass2(*DeviceInfo(), attachments, subpasses, dependencies, views.correlationMaskCount,
                             views.pCorrelationMasks, "failed to create rp2");
}

VkRenderPass ZoVkFixedVRSRenderpass::createShadingRateRenderpass2(VkRenderPassCreateInfo2 createInfo,
                                                                  MyVkExtent2D texelSize) {
    const ShadingRateReference rate(createInfo.attachmentCount, texelSize);

    std::vector<VkAttachmentDescription2> attachments(createInfo.pAttachments,
                                                      createInfo.pAttachments + createInfo.attachmentCount);
    attachments.push_back(ShadingRateAttachment());

    std::vector<VkSubpassDescription2> subpasses(createInfo.pSubpasses,
                                                 createInfo.pSubpasses + createInfo.subpassCount);
    for (VkSubpassDescription2& subpass : subpasses) {
        // The subpass's own chain (a depth resolve, say) gives way to the rate attachment.
        subpass.pNext = &rate.info;
    }

    std::vector<VkSubpassDependency2> dependencies(createInfo.pDependencies,
                                                   createInfo.pDependencies + createInfo.dependencyCount);

    return CreateRenderPass2(*DeviceInfo(), attachments, subpasses, dependencies, createInfo.correlatedViewMaskCount,
                             createInfo.pCorrelatedViewMasks, "failed to create rp22");
}

VkFramebuffer ZoVkFixedVRSRenderpass::createVRSFramebuffer(VkRenderPass renderPass, VkFramebufferCreateInfo createInfo,
                                                           ShadingRateImageInfo& info) {
    if (info.image != VK_NULL_HANDLE && info.imageView == VK_NULL_HANDLE) {
        info.imageView = createImageView(info.image, VK_FORMAT_R8_UINT, VK_IMAGE_ASPECT_COLOR_BIT);
    }
    if (info.imageView == VK_NULL_HANDLE) {
        return VK_NULL_HANDLE;
    }

    std::vector<VkImageView> views;
    views.reserve(createInfo.attachmentCount + 1);
    if (createInfo.pAttachments != nullptr) {
        views.assign(createInfo.pAttachments, createInfo.pAttachments + createInfo.attachmentCount);
    } else {
        // Imageless: there are no views to carry over, and a framebuffer with holes is invalid.
        views.assign(createInfo.attachmentCount, VK_NULL_HANDLE);
    }
    views.push_back(info.imageView);

    // The application's pNext and flags (imageless, for one) are not carried over.
    VkFramebufferCreateInfo vrs{};
    vrs.sType = VK_STRUCTURE_TYPE_FRAMEBUFFER_CREATE_INFO;
    vrs.renderPass = renderPass;
    vrs.attachmentCount = static_cast<uint32_t>(views.size());
    vrs.pAttachments = views.data();
    vrs.width = createInfo.width;
    vrs.height = createInfo.height;
    vrs.layers = createInfo.layers;

    const ZoVkDeviceInfo* record = DeviceInfo();
    VkFramebuffer framebuffer = VK_NULL_HANDLE;
    const bool complete = std::find(views.begin(), views.end(), VK_NULL_HANDLE) == views.end();
    if (!complete || record->functions.vkCreateFramebuffer(record->device, &vrs, nullptr, &framebuffer) != VK_SUCCESS) {
        ZOVK_LOGE("failed to create vrs fbo");
        return VK_NULL_HANDLE;
    }
    return framebuffer;
}

VkPipeline ZoVkFixedVRSRenderpass::createVRSPipelineCreateInfo(VkPipelineCache cache,
                                                               const VkAllocationCallbacks* allocator,
                                                               VkGraphicsPipelineCreateInfo createInfo,
                                                               VkRenderPass renderPass) {
    std::vector<VkDynamicState> states;
    const VkPipelineDynamicStateCreateInfo* appDynamic = createInfo.pDynamicState;
    if (appDynamic != nullptr && appDynamic->pDynamicStates != nullptr) {
        states.assign(appDynamic->pDynamicStates, appDynamic->pDynamicStates + appDynamic->dynamicStateCount);
    }
    // A state listed twice is invalid; the application may already have made the rate dynamic.
    if (std::find(states.begin(), states.end(), VK_DYNAMIC_STATE_FRAGMENT_SHADING_RATE_KHR) == states.end()) {
        states.push_back(VK_DYNAMIC_STATE_FRAGMENT_SHADING_RATE_KHR);
    }

    VkPipelineDynamicStateCreateInfo dynamic{};
    dynamic.sType = VK_STRUCTURE_TYPE_PIPELINE_DYNAMIC_STATE_CREATE_INFO;
    dynamic.dynamicStateCount = static_cast<uint32_t>(states.size());
    dynamic.pDynamicStates = states.data();

    // No rate state is chained in: the modules set rate and combiners while recording.
    createInfo.pDynamicState = &dynamic;
    createInfo.renderPass = renderPass;

    const ZoVkDeviceInfo* record = DeviceInfo();
    VkPipeline pipeline = VK_NULL_HANDLE;
    if (record->functions.vkCreateGraphicsPipelines(record->device, cache, 1, &createInfo, allocator, &pipeline) !=
        VK_SUCCESS) {
        ZOVK_LOGE("failed to create gp");
        return VK_NULL_HANDLE;
    }
    return pipeline;
}

void ZoVkFixedVRSRenderpass::CopyBufferToImage(VkCommandBuffer commandBuffer, VkBuffer buffer, VkImage image,
                                               uint32_t width, uint32_t height) {
    if (commandBuffer == VK_NULL_HANDLE) {
        return;
    }
    VkBufferImageCopy region{};
    region.imageSubresource = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 0, 1};
    region.imageExtent = {width, height, 1};
    DeviceInfo()->functions.vkCmdCopyBufferToImage(commandBuffer, buffer, image, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL,
                                                   1, &region);
}

void ZoVkFixedVRSRenderpass::updateImageDataFromPtr(VkImage image, uint32_t width, uint32_t height,
                                                    const unsigned char* data) {
    const VkDeviceSize size = VkDeviceSize{width} * height;
    if (size == 0 || data == nullptr) {
        return;
    }
    VkDeviceMemory memory = VK_NULL_HANDLE;
    const VkBuffer staging =
        createBuffer(size, VK_BUFFER_USAGE_TRANSFER_SRC_BIT,
                     VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT | VK_MEMORY_PROPERTY_HOST_COHERENT_BIT, memory);
    if (staging == VK_NULL_HANDLE) {
        return;
    }

    const ZoVkDeviceInfo* record = DeviceInfo();
    const VkDevice device = record->device;
    void* mapped = nullptr;
    if (memory != VK_NULL_HANDLE) {
        const VkResult result = record->functions.vkMapMemory(device, memory, 0, size, 0, &mapped);
        if (result != VK_SUCCESS) {
            ZOVK_LOGE("failed to map staging memory, ret:%d", result);
            mapped = nullptr;
        }
    }
    if (mapped != nullptr) {
        std::memcpy(mapped, data, static_cast<size_t>(size));
        record->functions.vkUnmapMemory(device, memory);
        const VkCommandBuffer commandBuffer = beginSingleTimeCommands();
        CopyBufferToImage(commandBuffer, staging, image, width, height);
        endSingleTimeCommands(commandBuffer);
    }

    // The queue is idle again (or nothing was submitted): the staging copy is no longer read.
    record->functions.vkDestroyBuffer(device, staging, nullptr);
    if (memory != VK_NULL_HANDLE) {
        record->functions.vkFreeMemory(device, memory, nullptr);
    }
}

void ZoVkFixedVRSRenderpass::updateImageDataFromBuffer(VkImage image, uint32_t width, uint32_t height,
                                                       VkBuffer buffer) {
    if (width == 0 || height == 0) {
        return;
    }
    const VkCommandBuffer commandBuffer = beginSingleTimeCommands();
    CopyBufferToImage(commandBuffer, buffer, image, width, height);
    endSingleTimeCommands(commandBuffer);
}

void ZoVkFixedVRSRenderpass::recordShadingRateUpload(VkCommandBuffer commandBuffer, ShadingRateImageInfo& info,
                                                     VkBuffer buffer) {
    if (commandBuffer == VK_NULL_HANDLE || info.image == VK_NULL_HANDLE || info.width == 0 || info.height == 0) {
        return;
    }
    constexpr VkImageLayout kAttachment = VK_IMAGE_LAYOUT_FRAGMENT_SHADING_RATE_ATTACHMENT_OPTIMAL_KHR;
    constexpr VkPipelineStageFlags kRateStage = VK_PIPELINE_STAGE_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR;
    const bool fresh = info.layout != kAttachment;
    const auto& functions = DeviceInfo()->functions;
    VkImageMemoryBarrier barrier{};
    barrier.sType = VK_STRUCTURE_TYPE_IMAGE_MEMORY_BARRIER;
    barrier.srcQueueFamilyIndex = VK_QUEUE_FAMILY_IGNORED;
    barrier.dstQueueFamilyIndex = VK_QUEUE_FAMILY_IGNORED;
    barrier.image = info.image;
    barrier.subresourceRange = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 1, 0, 1};
    // Earlier shading-rate reads only need to finish before the copy writes: no access to flush.
    barrier.oldLayout = fresh ? VK_IMAGE_LAYOUT_UNDEFINED : kAttachment;
    barrier.newLayout = VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL;
    barrier.dstAccessMask = VK_ACCESS_TRANSFER_WRITE_BIT;
    const VkPipelineStageFlags before = fresh ? VkPipelineStageFlags{VK_PIPELINE_STAGE_TOP_OF_PIPE_BIT} : kRateStage;
    functions.vkCmdPipelineBarrier(commandBuffer, before,
                                   VK_PIPELINE_STAGE_TRANSFER_BIT, 0, 0, nullptr, 0, nullptr, 1, &barrier);
    CopyBufferToImage(commandBuffer, buffer, info.image, info.width, info.height);
    barrier.oldLayout = VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL;
    barrier.newLayout = kAttachment;
    barrier.srcAccessMask = VK_ACCESS_TRANSFER_WRITE_BIT;
    barrier.dstAccessMask = VK_ACCESS_FRAGMENT_SHADING_RATE_ATTACHMENT_READ_BIT_KHR;
    functions.vkCmdPipelineBarrier(commandBuffer, VK_PIPELINE_STAGE_TRANSFER_BIT, kRateStage, 0, 0, nullptr, 0,
                                   nullptr, 1, &barrier);
    info.layout = kAttachment;
}

void ZoVkFixedVRSRenderpass::destroyShadingRateImage(ShadingRateImageInfo& info) {
    const ZoVkDeviceInfo* record = DeviceInfo();
    const VkDevice device = record->device;
    if (info.imageView != VK_NULL_HANDLE) {
        record->functions.vkDestroyImageView(device, info.imageView, nullptr);
    }
    if (info.image != VK_NULL_HANDLE) {
        record->functions.vkDestroyImage(device, info.image, nullptr);
    }
    if (info.memory != VK_NULL_HANDLE) {
        record->functions.vkFreeMemory(device, info.memory, nullptr);
    }
    info.imageView = VK_NULL_HANDLE;
    info.image = VK_NULL_HANDLE;
    info.memory = VK_NULL_HANDLE;
    info.layout = VK_IMAGE_LAYOUT_UNDEFINED;
}

}  // namespace vulkan::zovk::app::module
