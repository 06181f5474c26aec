#pragma once

#include <cstdint>
#include <vector>

#include <vulkan/vulkan_core.h>

#include "app/module/zovk_resource_create.h"
#include "app/zovk_extent.h"

namespace vulkan::zovk::app::module {

// One shading-rate image (one R8_UINT texel per tile of pixels) with its view and memory.
struct ShadingRateImageInfo {
    VkImage image = VK_NULL_HANDLE;
    VkImageView imageView = VK_NULL_HANDLE;  // made on first use as a framebuffer attachment
    VkDeviceMemory memory = VK_NULL_HANDLE;
    // The layout its owner last moved it to; uploads name the transfer layout regardless.
    VkImageLayout layout = VK_IMAGE_LAYOUT_UNDEFINED;
    std::vector<unsigned char> data;
    uint32_t width = 0;
    uint32_t height = 0;
};

// Turns an application's render pass, framebuffer and graphics pipeline descriptions into
// equivalents with one more attachment: an attachment-based fragment shading rate image.
// Keeps no state; every object it makes belongs to the caller. Create infos come by value
// and the caller's structures are never written, except ShadingRateImageInfo::imageView.
class ZoVkFixedVRSRenderpass : public ResourceCreate {
public:
    explicit ZoVkFixedVRSRenderpass(ZoVkProcessorBase* processor, VkDevice device = VK_NULL_HANDLE)
        : ResourceCreate(processor, device) {}

    // Version-1 description in, version-2 pass out. Null on failure.
    VkRenderPass createShadingRateRenderpass(VkRenderPassCreateInfo createInfo, MyVkExtent2D texelSize);
    VkRenderPass createShadingRateRenderpass2(VkRenderPassCreateInfo2 createInfo, MyVkExtent2D texelSize);
    // Null, with nothing made, when `info` has neither an image nor a view.
    VkFramebuffer createVRSFramebuffer(VkRenderPass renderPass, VkFramebufferCreateInfo createInfo,
                                       ShadingRateImageInfo& info);
    // Creates the pipeline (the name is historical); the rate stays dynamic state.
    VkPipeline createVRSPipelineCreateInfo(VkPipelineCache cache, const VkAllocationCallbacks* allocator,
                                           VkGraphicsPipelineCreateInfo createInfo, VkRenderPass renderPass);
    // Both name the image in the transfer layout whatever its real layout; the caller
    // transitions it. `data` holds width * height bytes.
    void updateImageDataFromPtr(VkImage image, uint32_t width, uint32_t height, const unsigned char* data);
    void updateImageDataFromBuffer(VkImage image, uint32_t width, uint32_t height, VkBuffer buffer);
    // Records the upload of `buffer` (width * height bytes) into `info`'s image with the
    // barriers Vulkan requires: from the layout the image is in (undefined at first, else the
    // attachment layout, where work submitted earlier may still read it) to the transfer
    // layout, and back to the attachment layout for the shading-rate reads of later work.
    void recordShadingRateUpload(VkCommandBuffer commandBuffer, ShadingRateImageInfo& info, VkBuffer buffer);
    // Destroys what `info` holds and clears its handles, so a second call frees nothing twice.
    void destroyShadingRateImage(ShadingRateImageInfo& info);

private:
    void CopyBufferToImage(VkCommandBuffer commandBuffer, VkBuffer buffer, VkImage image, uint32_t width,
                           uint32_t height);
};

}  // namespace vulkan::zovk::app::module
