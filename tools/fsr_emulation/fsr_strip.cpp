#include "fsr_strip.h"

#include <vulkan/vk_layer.h>

#include <algorithm>

namespace fsr {

size_t StructSize(VkStructureType sType) {
    switch (sType) {
#include "fsr_struct_sizes.inc"
    // The loader's own links head every instance and device create chain.
    case VK_STRUCTURE_TYPE_LOADER_INSTANCE_CREATE_INFO: return sizeof(VkLayerInstanceCreateInfo);
    case VK_STRUCTURE_TYPE_LOADER_DEVICE_CREATE_INFO: return sizeof(VkLayerDeviceCreateInfo);
    default: return 0;
    }
}

void* CopyChain(Arena& arena, const void* chain, VkStructureType drop) {
    VkBaseOutStructure* head = nullptr;
    VkBaseOutStructure** link = &head;
    for (auto* node = static_cast<const VkBaseInStructure*>(chain); node != nullptr; node = node->pNext) {
        if (node->sType == drop) continue;
        const size_t size = StructSize(node->sType);
        if (size == 0) {
            *link = reinterpret_cast<VkBaseOutStructure*>(const_cast<VkBaseInStructure*>(node));
            break;
        }
        auto* copy = static_cast<VkBaseOutStructure*>(arena.Bytes(node, size));
        copy->pNext = nullptr;
        *link = copy;
        link = &copy->pNext;
    }
    return head;
}

const void* FindInChain(const void* chain, VkStructureType sType) {
    for (auto* node = static_cast<const VkBaseInStructure*>(chain); node != nullptr; node = node->pNext) {
        if (node->sType == sType) return node;
    }
    return nullptr;
}

void* FindInChainMutable(void* chain, VkStructureType sType) { return const_cast<void*>(FindInChain(chain, sType)); }

VkImageUsageFlags StripUsage(VkImageUsageFlags usage) {
    if (!(usage & VK_IMAGE_USAGE_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR)) return usage;
    usage &= ~VK_IMAGE_USAGE_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR;
    // An image with no usage left is invalid; the application uploads into it, so this one is true.
    return usage ? usage : VkImageUsageFlags(VK_IMAGE_USAGE_TRANSFER_DST_BIT);
}

VkPipelineStageFlags StripStages(VkPipelineStageFlags stages) {
    if (!(stages & VK_PIPELINE_STAGE_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR)) return stages;
    stages &= ~VK_PIPELINE_STAGE_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR;
    return stages ? stages : VkPipelineStageFlags(VK_PIPELINE_STAGE_FRAGMENT_SHADER_BIT);
}

VkAccessFlags StripAccess(VkAccessFlags access) {
    if (!(access & VK_ACCESS_FRAGMENT_SHADING_RATE_ATTACHMENT_READ_BIT_KHR)) return access;
    access &= ~VK_ACCESS_FRAGMENT_SHADING_RATE_ATTACHMENT_READ_BIT_KHR;
    return access ? access : VkAccessFlags(VK_ACCESS_SHADER_READ_BIT);
}

VkPipelineStageFlags2 StripStages2(VkPipelineStageFlags2 stages) {
    if (!(stages & VK_PIPELINE_STAGE_2_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR)) return stages;
    stages &= ~VK_PIPELINE_STAGE_2_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR;
    return stages ? stages : VK_PIPELINE_STAGE_2_FRAGMENT_SHADER_BIT;
}

VkAccessFlags2 StripAccess2(VkAccessFlags2 access) {
    if (!(access & VK_ACCESS_2_FRAGMENT_SHADING_RATE_ATTACHMENT_READ_BIT_KHR)) return access;
    access &= ~VK_ACCESS_2_FRAGMENT_SHADING_RATE_ATTACHMENT_READ_BIT_KHR;
    return access ? access : VK_ACCESS_2_SHADER_READ_BIT;
}

VkImageLayout StripLayout(VkImageLayout layout) {
    return layout == VK_IMAGE_LAYOUT_FRAGMENT_SHADING_RATE_ATTACHMENT_OPTIMAL_KHR ? VK_IMAGE_LAYOUT_GENERAL : layout;
}

namespace {

template <typename T, typename Fix>
const T* FixArray(Arena& arena, const T* items, uint32_t count, bool& changed, Fix fix) {
    if (items == nullptr || count == 0) return items;
    T* copy = arena.Copy(items, count);
    bool any = false;
    for (uint32_t i = 0; i < count; ++i) any |= fix(copy[i]);
    changed |= any;
    return any ? copy : items;
}

template <typename T>
bool SetIfDifferent(T& field, T value) {
    if (field == value) return false;
    field = value;
    return true;
}

bool FixDependency(VkSubpassDependency& d) {
    bool c = SetIfDifferent(d.srcStageMask, StripStages(d.srcStageMask));
    c |= SetIfDifferent(d.dstStageMask, StripStages(d.dstStageMask));
    c |= SetIfDifferent(d.srcAccessMask, StripAccess(d.srcAccessMask));
    c |= SetIfDifferent(d.dstAccessMask, StripAccess(d.dstAccessMask));
    return c;
}

// The stage and access masks that every sync2 barrier kind carries.
template <typename Barrier2>
bool FixMasks2(Barrier2& b) {
    bool c = SetIfDifferent(b.srcStageMask, StripStages2(b.srcStageMask));
    c |= SetIfDifferent(b.dstStageMask, StripStages2(b.dstStageMask));
    c |= SetIfDifferent(b.srcAccessMask, StripAccess2(b.srcAccessMask));
    c |= SetIfDifferent(b.dstAccessMask, StripAccess2(b.dstAccessMask));
    return c;
}

bool FixImageBarrier2(VkImageMemoryBarrier2& b) {
    bool c = FixMasks2(b);
    c |= SetIfDifferent(b.oldLayout, StripLayout(b.oldLayout));
    c |= SetIfDifferent(b.newLayout, StripLayout(b.newLayout));
    return c;
}

bool IsRemoved(uint32_t index, const std::vector<uint32_t>& removed) {
    return std::binary_search(removed.begin(), removed.end(), index);
}

}  // namespace

const VkDeviceCreateInfo* StripDeviceCreateInfo(Arena& arena, const VkDeviceCreateInfo* info) {
    const bool hasFeatures =
        FindInChain(info->pNext, VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FRAGMENT_SHADING_RATE_FEATURES_KHR) != nullptr;
    std::vector<const char*> names;
    for (uint32_t i = 0; i < info->enabledExtensionCount; ++i) {
        if (std::strcmp(info->ppEnabledExtensionNames[i], VK_KHR_FRAGMENT_SHADING_RATE_EXTENSION_NAME) != 0) {
            names.push_back(info->ppEnabledExtensionNames[i]);
        }
    }
    const bool hasName = names.size() != info->enabledExtensionCount;
    if (!hasFeatures && !hasName) return info;

    VkDeviceCreateInfo* out = arena.Copy(info);
    if (hasFeatures) {
        out->pNext = CopyChain(arena, info->pNext, VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FRAGMENT_SHADING_RATE_FEATURES_KHR);
    }
    if (hasName) {
        out->enabledExtensionCount = static_cast<uint32_t>(names.size());
        out->ppEnabledExtensionNames = names.empty() ? nullptr : arena.Copy(names.data(), names.size());
    }
    return out;
}

uint32_t RemapAttachment(uint32_t index, const std::vector<uint32_t>& removed) {
    if (index == VK_ATTACHMENT_UNUSED) return index;
    if (IsRemoved(index, removed)) return VK_ATTACHMENT_UNUSED;
    const auto below = std::lower_bound(removed.begin(), removed.end(), index) - removed.begin();
    return index - static_cast<uint32_t>(below);
}

RenderPassStrip StripRenderPass2(Arena& arena, const VkRenderPassCreateInfo2* info) {
    RenderPassStrip result;
    result.info = info;
    bool changed = false;

    for (uint32_t s = 0; s < info->subpassCount; ++s) {
        auto* rate = static_cast<const VkFragmentShadingRateAttachmentInfoKHR*>(
            FindInChain(info->pSubpasses[s].pNext, VK_STRUCTURE_TYPE_FRAGMENT_SHADING_RATE_ATTACHMENT_INFO_KHR));
        if (rate == nullptr) continue;
        changed = true;
        if (rate->pFragmentShadingRateAttachment == nullptr) continue;
        const uint32_t attachment = rate->pFragmentShadingRateAttachment->attachment;
        if (attachment == VK_ATTACHMENT_UNUSED || attachment >= info->attachmentCount) continue;
        const VkExtent2D texel = rate->shadingRateAttachmentTexelSize;
        auto use = std::find_if(result.uses.begin(), result.uses.end(), [&](const RateAttachmentUse& u) {
            return u.attachment == attachment && u.texelSize.width == texel.width &&
                   u.texelSize.height == texel.height;
        });
        if (use == result.uses.end()) {
            result.uses.push_back({attachment, texel, {}});
            use = result.uses.end() - 1;
        }
        use->subpasses.push_back(s);
        if (!IsRemoved(attachment, result.removed)) {
            result.removed.insert(std::lower_bound(result.removed.begin(), result.removed.end(), attachment),
                                  attachment);
        }
    }
    const std::vector<uint32_t>& removed = result.removed;

    VkRenderPassCreateInfo2* out = arena.Copy(info);
    if (!removed.empty() && FindInChain(info->pNext, VK_STRUCTURE_TYPE_RENDER_PASS_FRAGMENT_DENSITY_MAP_CREATE_INFO_EXT)) {
        auto* density = CopyChainFind<VkRenderPassFragmentDensityMapCreateInfoEXT>(
            arena, info->pNext, &out->pNext, VK_STRUCTURE_TYPE_RENDER_PASS_FRAGMENT_DENSITY_MAP_CREATE_INFO_EXT);
        if (density != nullptr) {
            density->fragmentDensityMapAttachment.attachment =
                RemapAttachment(density->fragmentDensityMapAttachment.attachment, removed);
        }
    }

    auto* attachments = arena.Alloc<VkAttachmentDescription2>(info->attachmentCount);
    uint32_t kept = 0;
    for (uint32_t i = 0; i < info->attachmentCount; ++i) {
        if (IsRemoved(i, removed)) continue;
        VkAttachmentDescription2& a = attachments[kept++];
        a = info->pAttachments[i];
        changed |= SetIfDifferent(a.initialLayout, StripLayout(a.initialLayout));
        changed |= SetIfDifferent(a.finalLayout, StripLayout(a.finalLayout));
    }
    out->attachmentCount = kept;
    out->pAttachments = kept ? attachments : nullptr;

    auto fixRefs = [&](const VkAttachmentReference2* refs, uint32_t count) -> const VkAttachmentReference2* {
        if (refs == nullptr || count == 0) return refs;
        VkAttachmentReference2* copy = arena.Copy(refs, count);
        for (uint32_t i = 0; i < count; ++i) {
            copy[i].attachment = RemapAttachment(copy[i].attachment, removed);
            changed |= SetIfDifferent(copy[i].layout, StripLayout(copy[i].layout));
        }
        return copy;
    };

    VkSubpassDescription2* subpasses = arena.Copy(info->pSubpasses, info->subpassCount);
    for (uint32_t s = 0; s < info->subpassCount; ++s) {
        VkSubpassDescription2& sp = subpasses[s];
        const VkSubpassDescription2& orig = info->pSubpasses[s];
        sp.pNext = CopyChain(arena, orig.pNext, VK_STRUCTURE_TYPE_FRAGMENT_SHADING_RATE_ATTACHMENT_INFO_KHR);
        sp.pInputAttachments = fixRefs(orig.pInputAttachments, orig.inputAttachmentCount);
        sp.pColorAttachments = fixRefs(orig.pColorAttachments, orig.colorAttachmentCount);
        sp.pResolveAttachments = fixRefs(orig.pResolveAttachments, orig.colorAttachmentCount);
        sp.pDepthStencilAttachment = fixRefs(orig.pDepthStencilAttachment, 1);
        auto* resolve = static_cast<VkSubpassDescriptionDepthStencilResolve*>(FindInChainMutable(
            const_cast<void*>(sp.pNext), VK_STRUCTURE_TYPE_SUBPASS_DESCRIPTION_DEPTH_STENCIL_RESOLVE));
        if (resolve != nullptr) {
            resolve->pDepthStencilResolveAttachment = fixRefs(resolve->pDepthStencilResolveAttachment, 1);
        }
        if (orig.preserveAttachmentCount != 0) {
            auto* preserve = arena.Alloc<uint32_t>(orig.preserveAttachmentCount);
            uint32_t n = 0;
            for (uint32_t i = 0; i < orig.preserveAttachmentCount; ++i) {
                const uint32_t index = RemapAttachment(orig.pPreserveAttachments[i], removed);
                if (index != VK_ATTACHMENT_UNUSED) preserve[n++] = index;
            }
            sp.preserveAttachmentCount = n;
            sp.pPreserveAttachments = n ? preserve : nullptr;
        }
    }
    out->pSubpasses = subpasses;

    VkSubpassDependency2* deps = arena.Copy(info->pDependencies, info->dependencyCount);
    for (uint32_t d = 0; d < info->dependencyCount; ++d) {
        VkSubpassDependency2& dep = deps[d];
        changed |= SetIfDifferent(dep.srcStageMask, StripStages(dep.srcStageMask));
        changed |= SetIfDifferent(dep.dstStageMask, StripStages(dep.dstStageMask));
        changed |= SetIfDifferent(dep.srcAccessMask, StripAccess(dep.srcAccessMask));
        changed |= SetIfDifferent(dep.dstAccessMask, StripAccess(dep.dstAccessMask));
        if (FindInChain(dep.pNext, VK_STRUCTURE_TYPE_MEMORY_BARRIER_2)) {
            auto* barrier =
                CopyChainFind<VkMemoryBarrier2>(arena, dep.pNext, &dep.pNext, VK_STRUCTURE_TYPE_MEMORY_BARRIER_2);
            if (barrier != nullptr) changed |= FixMasks2(*barrier);
        }
    }
    out->pDependencies = deps;

    if (changed) result.info = out;
    return result;
}

const VkRenderPassCreateInfo* StripRenderPass(Arena& arena, const VkRenderPassCreateInfo* info) {
    bool changed = false;
    VkRenderPassCreateInfo* out = arena.Copy(info);
    out->pAttachments = FixArray(arena, info->pAttachments, info->attachmentCount, changed,
                                 [](VkAttachmentDescription& a) {
                                     bool c = SetIfDifferent(a.initialLayout, StripLayout(a.initialLayout));
                                     return SetIfDifferent(a.finalLayout, StripLayout(a.finalLayout)) || c;
                                 });
    auto fixRef = [](VkAttachmentReference& r) { return SetIfDifferent(r.layout, StripLayout(r.layout)); };
    VkSubpassDescription* subpasses = arena.Copy(info->pSubpasses, info->subpassCount);
    for (uint32_t s = 0; s < info->subpassCount; ++s) {
        VkSubpassDescription& sp = subpasses[s];
        sp.pInputAttachments = FixArray(arena, sp.pInputAttachments, sp.inputAttachmentCount, changed, fixRef);
        sp.pColorAttachments = FixArray(arena, sp.pColorAttachments, sp.colorAttachmentCount, changed, fixRef);
        sp.pResolveAttachments = FixArray(arena, sp.pResolveAttachments, sp.colorAttachmentCount, changed, fixRef);
        sp.pDepthStencilAttachment = FixArray(arena, sp.pDepthStencilAttachment, 1, changed, fixRef);
    }
    out->pSubpasses = subpasses;
    out->pDependencies = FixArray(arena, info->pDependencies, info->dependencyCount, changed, FixDependency);
    return changed ? out : info;
}

FramebufferStrip StripFramebuffer(Arena& arena, const VkFramebufferCreateInfo* info,
                                  const std::vector<uint32_t>& removed) {
    FramebufferStrip result;
    result.info = info;
    if (removed.empty()) return result;

    VkFramebufferCreateInfo* out = arena.Copy(info);
    uint32_t kept = 0;
    if (info->flags & VK_FRAMEBUFFER_CREATE_IMAGELESS_BIT) {
        auto* images = CopyChainFind<VkFramebufferAttachmentsCreateInfo>(
            arena, info->pNext, &out->pNext, VK_STRUCTURE_TYPE_FRAMEBUFFER_ATTACHMENTS_CREATE_INFO);
        if (images != nullptr) {
            auto* infos = arena.Alloc<VkFramebufferAttachmentImageInfo>(images->attachmentImageInfoCount);
            for (uint32_t i = 0; i < images->attachmentImageInfoCount; ++i) {
                if (IsRemoved(i, removed)) continue;
                infos[kept] = images->pAttachmentImageInfos[i];
                infos[kept].usage = StripUsage(infos[kept].usage);
                ++kept;
            }
            images->attachmentImageInfoCount = kept;
            images->pAttachmentImageInfos = kept ? infos : nullptr;
        }
        for (uint32_t r : removed) {
            if (r < info->attachmentCount) --out->attachmentCount;
        }
    } else {
        auto* views = arena.Alloc<VkImageView>(info->attachmentCount);
        for (uint32_t i = 0; i < info->attachmentCount; ++i) {
            if (IsRemoved(i, removed)) {
                if (result.rateView == VK_NULL_HANDLE) result.rateView = info->pAttachments[i];
                continue;
            }
            views[kept++] = info->pAttachments[i];
        }
        out->attachmentCount = kept;
        out->pAttachments = kept ? views : nullptr;
    }
    result.info = out;
    return result;
}

BeginStrip StripRenderPassBegin(Arena& arena, const VkRenderPassBeginInfo* info,
                                const std::vector<uint32_t>& removed) {
    BeginStrip result;
    result.info = info;
    if (removed.empty()) return result;

    // A clear value beyond the last attachment is ignored, so only a removal that
    // shifts later values needs a copy.
    bool shiftsClears = false;
    for (uint32_t r : removed) shiftsClears |= r + 1 < info->clearValueCount;
    auto* views = static_cast<const VkRenderPassAttachmentBeginInfo*>(
        FindInChain(info->pNext, VK_STRUCTURE_TYPE_RENDER_PASS_ATTACHMENT_BEGIN_INFO));
    if (!shiftsClears && views == nullptr) return result;

    VkRenderPassBeginInfo* out = arena.Copy(info);
    if (shiftsClears) {
        auto* clears = arena.Alloc<VkClearValue>(info->clearValueCount);
        uint32_t kept = 0;
        for (uint32_t i = 0; i < info->clearValueCount; ++i) {
            if (!IsRemoved(i, removed)) clears[kept++] = info->pClearValues[i];
        }
        out->clearValueCount = kept;
        out->pClearValues = clears;
    }
    if (views != nullptr) {
        auto* copy = CopyChainFind<VkRenderPassAttachmentBeginInfo>(arena, info->pNext, &out->pNext,
                                                                    VK_STRUCTURE_TYPE_RENDER_PASS_ATTACHMENT_BEGIN_INFO);
        auto* kept = arena.Alloc<VkImageView>(views->attachmentCount);
        uint32_t n = 0;
        for (uint32_t i = 0; i < views->attachmentCount; ++i) {
            if (IsRemoved(i, removed)) {
                if (result.rateView == VK_NULL_HANDLE) result.rateView = views->pAttachments[i];
                continue;
            }
            kept[n++] = views->pAttachments[i];
        }
        copy->attachmentCount = n;
        copy->pAttachments = n ? kept : nullptr;
    }
    result.info = out;
    return result;
}

namespace {

// Image creation and image format queries carry the usage bit twice: in `usage` and in the
// stencil usage structure of the chain.
template <typename Info>
const Info* StripImageUsage(Arena& arena, const Info* info) {
    auto* stencil = static_cast<const VkImageStencilUsageCreateInfo*>(
        FindInChain(info->pNext, VK_STRUCTURE_TYPE_IMAGE_STENCIL_USAGE_CREATE_INFO));
    const bool stencilHasBit = stencil && StripUsage(stencil->stencilUsage) != stencil->stencilUsage;
    if (StripUsage(info->usage) == info->usage && !stencilHasBit) return info;
    Info* out = arena.Copy(info);
    out->usage = StripUsage(info->usage);
    if (stencilHasBit) {
        auto* copy = CopyChainFind<VkImageStencilUsageCreateInfo>(arena, info->pNext, &out->pNext,
                                                                  VK_STRUCTURE_TYPE_IMAGE_STENCIL_USAGE_CREATE_INFO);
        copy->stencilUsage = StripUsage(copy->stencilUsage);
    }
    return out;
}

}  // namespace

const VkImageCreateInfo* StripImageCreateInfo(Arena& arena, const VkImageCreateInfo* info) {
    return StripImageUsage(arena, info);
}

const VkImageViewCreateInfo* StripImageViewCreateInfo(Arena& arena, const VkImageViewCreateInfo* info) {
    auto* usage = static_cast<const VkImageViewUsageCreateInfo*>(
        FindInChain(info->pNext, VK_STRUCTURE_TYPE_IMAGE_VIEW_USAGE_CREATE_INFO));
    if (usage == nullptr || StripUsage(usage->usage) == usage->usage) return info;
    VkImageViewCreateInfo* out = arena.Copy(info);
    auto* copy = CopyChainFind<VkImageViewUsageCreateInfo>(arena, info->pNext, &out->pNext,
                                                           VK_STRUCTURE_TYPE_IMAGE_VIEW_USAGE_CREATE_INFO);
    copy->usage = StripUsage(copy->usage);
    return out;
}

const VkPhysicalDeviceImageFormatInfo2* StripImageFormatInfo(Arena& arena,
                                                            const VkPhysicalDeviceImageFormatInfo2* info) {
    return StripImageUsage(arena, info);
}

bool HasRateDynamicState(const VkPipelineDynamicStateCreateInfo* dyn) {
    if (dyn == nullptr) return false;
    for (uint32_t i = 0; i < dyn->dynamicStateCount; ++i) {
        if (dyn->pDynamicStates[i] == VK_DYNAMIC_STATE_FRAGMENT_SHADING_RATE_KHR) return true;
    }
    return false;
}

const VkGraphicsPipelineCreateInfo* StripGraphicsPipelines(Arena& arena, const VkGraphicsPipelineCreateInfo* infos,
                                                           uint32_t count) {
    const VkPipelineCreateFlags renderingRate = VK_PIPELINE_CREATE_RENDERING_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR;
    bool changed = false;
    VkGraphicsPipelineCreateInfo* out = arena.Copy(infos, count);
    for (uint32_t p = 0; p < count; ++p) {
        VkGraphicsPipelineCreateInfo& ci = out[p];
        if (ci.flags & renderingRate) {
            ci.flags &= ~renderingRate;
            changed = true;
        }
        if (FindInChain(ci.pNext, VK_STRUCTURE_TYPE_PIPELINE_FRAGMENT_SHADING_RATE_STATE_CREATE_INFO_KHR)) {
            ci.pNext = CopyChain(arena, ci.pNext, VK_STRUCTURE_TYPE_PIPELINE_FRAGMENT_SHADING_RATE_STATE_CREATE_INFO_KHR);
            changed = true;
        }
        if (HasRateDynamicState(ci.pDynamicState)) {
            VkPipelineDynamicStateCreateInfo* dyn = arena.Copy(ci.pDynamicState);
            auto* states = arena.Alloc<VkDynamicState>(dyn->dynamicStateCount);
            uint32_t n = 0;
            for (uint32_t i = 0; i < dyn->dynamicStateCount; ++i) {
                if (dyn->pDynamicStates[i] != VK_DYNAMIC_STATE_FRAGMENT_SHADING_RATE_KHR) {
                    states[n++] = dyn->pDynamicStates[i];
                }
            }
            dyn->dynamicStateCount = n;
            dyn->pDynamicStates = n ? states : nullptr;
            ci.pDynamicState = dyn;
            changed = true;
        }
    }
    return changed ? out : infos;
}

const VkRenderingInfo* StripRenderingInfo(Arena& arena, const VkRenderingInfo* info) {
    if (!FindInChain(info->pNext, VK_STRUCTURE_TYPE_RENDERING_FRAGMENT_SHADING_RATE_ATTACHMENT_INFO_KHR)) return info;
    VkRenderingInfo* out = arena.Copy(info);
    out->pNext = CopyChain(arena, info->pNext, VK_STRUCTURE_TYPE_RENDERING_FRAGMENT_SHADING_RATE_ATTACHMENT_INFO_KHR);
    return out;
}

const VkMemoryBarrier* StripMemoryBarriers(Arena& arena, const VkMemoryBarrier* barriers, uint32_t count) {
    bool changed = false;
    return FixArray(arena, barriers, count, changed, [](VkMemoryBarrier& b) {
        bool c = SetIfDifferent(b.srcAccessMask, StripAccess(b.srcAccessMask));
        return SetIfDifferent(b.dstAccessMask, StripAccess(b.dstAccessMask)) || c;
    });
}

const VkBufferMemoryBarrier* StripBufferBarriers(Arena& arena, const VkBufferMemoryBarrier* barriers, uint32_t count) {
    bool changed = false;
    return FixArray(arena, barriers, count, changed, [](VkBufferMemoryBarrier& b) {
        bool c = SetIfDifferent(b.srcAccessMask, StripAccess(b.srcAccessMask));
        return SetIfDifferent(b.dstAccessMask, StripAccess(b.dstAccessMask)) || c;
    });
}

const VkImageMemoryBarrier* StripImageBarriers(Arena& arena, const VkImageMemoryBarrier* barriers, uint32_t count) {
    bool changed = false;
    return FixArray(arena, barriers, count, changed, [](VkImageMemoryBarrier& b) {
        bool c = SetIfDifferent(b.srcAccessMask, StripAccess(b.srcAccessMask));
        c |= SetIfDifferent(b.dstAccessMask, StripAccess(b.dstAccessMask));
        c |= SetIfDifferent(b.oldLayout, StripLayout(b.oldLayout));
        return SetIfDifferent(b.newLayout, StripLayout(b.newLayout)) || c;
    });
}

const VkDependencyInfo* StripDependencyInfos(Arena& arena, const VkDependencyInfo* infos, uint32_t count) {
    bool changed = false;
    VkDependencyInfo* out = arena.Copy(infos, count);
    for (uint32_t i = 0; i < count; ++i) {
        VkDependencyInfo& d = out[i];
        d.pMemoryBarriers = FixArray(arena, d.pMemoryBarriers, d.memoryBarrierCount, changed, FixMasks2<VkMemoryBarrier2>);
        d.pBufferMemoryBarriers =
            FixArray(arena, d.pBufferMemoryBarriers, d.bufferMemoryBarrierCount, changed, FixMasks2<VkBufferMemoryBarrier2>);
        d.pImageMemoryBarriers =
            FixArray(arena, d.pImageMemoryBarriers, d.imageMemoryBarrierCount, changed, FixImageBarrier2);
    }
    return changed ? out : infos;
}

const VkSubmitInfo* StripSubmits(Arena& arena, const VkSubmitInfo* submits, uint32_t count) {
    bool changed = false;
    VkSubmitInfo* out = arena.Copy(submits, count);
    for (uint32_t i = 0; i < count; ++i) {
        out[i].pWaitDstStageMask = FixArray(arena, out[i].pWaitDstStageMask, out[i].waitSemaphoreCount, changed,
                                            [](VkPipelineStageFlags& s) { return SetIfDifferent(s, StripStages(s)); });
    }
    return changed ? out : submits;
}

const VkSubmitInfo2* StripSubmits2(Arena& arena, const VkSubmitInfo2* submits, uint32_t count) {
    bool changed = false;
    auto fix = [](VkSemaphoreSubmitInfo& s) { return SetIfDifferent(s.stageMask, StripStages2(s.stageMask)); };
    VkSubmitInfo2* out = arena.Copy(submits, count);
    for (uint32_t i = 0; i < count; ++i) {
        out[i].pWaitSemaphoreInfos =
            FixArray(arena, out[i].pWaitSemaphoreInfos, out[i].waitSemaphoreInfoCount, changed, fix);
        out[i].pSignalSemaphoreInfos =
            FixArray(arena, out[i].pSignalSemaphoreInfos, out[i].signalSemaphoreInfoCount, changed, fix);
    }
    return changed ? out : submits;
}

}  // namespace fsr
