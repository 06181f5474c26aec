// Rewrites of create infos and command arguments that remove everything of
// VK_KHR_fragment_shading_rate before the driver sees it. Every function leaves
// the application's structures alone: it returns either the original pointer
// (nothing to remove) or a copy built in the caller's Arena, which must outlive
// the call down the chain.
#pragma once

#include <vulkan/vulkan.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

namespace fsr {

class Arena {
public:
    void* Bytes(const void* src, size_t size) {
        blocks_.emplace_back(new unsigned char[size]);
        std::memcpy(blocks_.back().get(), src, size);
        return blocks_.back().get();
    }
    template <typename T>
    T* Copy(const T* src, size_t count = 1) {
        if (src == nullptr || count == 0) return nullptr;
        return static_cast<T*>(Bytes(src, sizeof(T) * count));
    }
    template <typename T>
    T* Alloc(size_t count) {
        blocks_.emplace_back(new unsigned char[sizeof(T) * (count ? count : 1)]());
        return reinterpret_cast<T*>(blocks_.back().get());
    }

private:
    std::vector<std::unique_ptr<unsigned char[]>> blocks_;
};

// Size of the structure that sType names, 0 when this build does not know it.
size_t StructSize(VkStructureType sType);

// Copies a pNext chain node by node, leaving out the nodes of type `drop`
// (VK_STRUCTURE_TYPE_MAX_ENUM: none). A node of unknown size ends the copy:
// the rest of the original chain is linked in unchanged.
void* CopyChain(Arena& arena, const void* chain, VkStructureType drop = VK_STRUCTURE_TYPE_MAX_ENUM);

// First node of type sType in a chain, or null.
const void* FindInChain(const void* chain, VkStructureType sType);
void* FindInChainMutable(void* chain, VkStructureType sType);
// Copies `chain` into the arena, points *head at the copy, and returns the copy's structure of
// `sType` (null when the chain has none).
template <typename S>
S* CopyChainFind(Arena& arena, const void* chain, const void** head, VkStructureType sType) {
    *head = CopyChain(arena, chain);
    return static_cast<S*>(FindInChainMutable(const_cast<void*>(*head), sType));
}

// Flags and layouts.
VkImageUsageFlags StripUsage(VkImageUsageFlags usage);
VkPipelineStageFlags StripStages(VkPipelineStageFlags stages);
VkAccessFlags StripAccess(VkAccessFlags access);
VkPipelineStageFlags2 StripStages2(VkPipelineStageFlags2 stages);
VkAccessFlags2 StripAccess2(VkAccessFlags2 access);
VkImageLayout StripLayout(VkImageLayout layout);

// Device creation: the extension name and the feature structure.
const VkDeviceCreateInfo* StripDeviceCreateInfo(Arena& arena, const VkDeviceCreateInfo* info);

// Render passes. `removed` lists, ascending, the attachments that served as a
// shading-rate attachment; `uses` says which subpasses used which, with what texel size.
struct RateAttachmentUse {
    uint32_t attachment;
    VkExtent2D texelSize;
    std::vector<uint32_t> subpasses;
};
struct RenderPassStrip {
    const VkRenderPassCreateInfo2* info = nullptr;
    std::vector<uint32_t> removed;
    std::vector<RateAttachmentUse> uses;
};
RenderPassStrip StripRenderPass2(Arena& arena, const VkRenderPassCreateInfo2* info);
const VkRenderPassCreateInfo* StripRenderPass(Arena& arena, const VkRenderPassCreateInfo* info);

// Index of attachment `index` once the `removed` ones are gone; VK_ATTACHMENT_UNUSED for a removed one.
uint32_t RemapAttachment(uint32_t index, const std::vector<uint32_t>& removed);

struct FramebufferStrip {
    const VkFramebufferCreateInfo* info = nullptr;
    VkImageView rateView = VK_NULL_HANDLE;  // null for an imageless framebuffer
};
FramebufferStrip StripFramebuffer(Arena& arena, const VkFramebufferCreateInfo* info,
                                  const std::vector<uint32_t>& removed);

struct BeginStrip {
    const VkRenderPassBeginInfo* info = nullptr;
    VkImageView rateView = VK_NULL_HANDLE;  // from VkRenderPassAttachmentBeginInfo, if any
};
BeginStrip StripRenderPassBegin(Arena& arena, const VkRenderPassBeginInfo* info,
                                const std::vector<uint32_t>& removed);

const VkImageCreateInfo* StripImageCreateInfo(Arena& arena, const VkImageCreateInfo* info);
const VkImageViewCreateInfo* StripImageViewCreateInfo(Arena& arena, const VkImageViewCreateInfo* info);
const VkPhysicalDeviceImageFormatInfo2* StripImageFormatInfo(Arena& arena,
                                                            const VkPhysicalDeviceImageFormatInfo2* info);
// Whether a pipeline's dynamic-state block lists the fragment shading rate.
bool HasRateDynamicState(const VkPipelineDynamicStateCreateInfo* dynamicState);
const VkGraphicsPipelineCreateInfo* StripGraphicsPipelines(Arena& arena, const VkGraphicsPipelineCreateInfo* infos,
                                                           uint32_t count);
const VkRenderingInfo* StripRenderingInfo(Arena& arena, const VkRenderingInfo* info);

// Barriers and submissions.
const VkMemoryBarrier* StripMemoryBarriers(Arena& arena, const VkMemoryBarrier* barriers, uint32_t count);
const VkBufferMemoryBarrier* StripBufferBarriers(Arena& arena, const VkBufferMemoryBarrier* barriers, uint32_t count);
const VkImageMemoryBarrier* StripImageBarriers(Arena& arena, const VkImageMemoryBarrier* barriers, uint32_t count);
const VkDependencyInfo* StripDependencyInfos(Arena& arena, const VkDependencyInfo* infos, uint32_t count);
const VkSubmitInfo* StripSubmits(Arena& arena, const VkSubmitInfo* submits, uint32_t count);
const VkSubmitInfo2* StripSubmits2(Arena& arena, const VkSubmitInfo2* submits, uint32_t count);

}  // namespace fsr
