#include "app/module/zovk_star_rail_processor.h"

#include "settings/zovk_settings.h"

namespace vulkan::zovk::app {

using module::NextLayer;

ZoVkStarRailProcessor::ZoVkStarRailProcessor() : processorData(ZoVkSettings::GetInstance()->GetProcessorData()) {}

void ZoVkStarRailProcessor::OnGettingDeviceInfo() {
    createGraphicsPipelines.Reset(this);
    queuePresent.Reset(this);
    cmdBeginRenderPass.Reset(this);
    cmdBindPipeline.Reset(this);
    cmdDrawIndexed.Reset(this);
    destroyPipeline.Reset(this);
    destroyRenderPass.Reset(this);
    destroyFramebuffer.Reset(this);
    cmdExecuteCommands.Reset(this);
    beginCommandBuffer.Reset(this);
    endCommandBuffer.Reset(this);
}

VkResult ZoVkStarRailProcessor::VkCreateGraphicsPipelinesHooked(VkDevice device, VkPipelineCache pipelineCache,
                                                                uint32_t createInfoCount,
                                                                const VkGraphicsPipelineCreateInfo* pCreateInfos,
                                                                const VkAllocationCallbacks* pAllocator,
                                                                VkPipeline* pPipelines) {
    const VkResult result =
        createGraphicsPipelines.Run(device, pipelineCache, createInfoCount, pCreateInfos, pAllocator, pPipelines);
    postCreateGraphicsPipelines.Run(device, pipelineCache, createInfoCount, pCreateInfos, pAllocator, pPipelines,
                                    result);
    return result;
}

VkResult ZoVkStarRailProcessor::VkQueuePresentKHRHooked(VkQueue queue, const VkPresentInfoKHR* pPresentInfo) {
    return queuePresent.Run(queue, pPresentInfo);
}

void ZoVkStarRailProcessor::VkCmdBeginRenderPassHooked(VkCommandBuffer commandBuffer,
                                                       const VkRenderPassBeginInfo* pRenderPassBegin,
                                                       VkSubpassContents contents) {
    cmdBeginRenderPass.Run(commandBuffer, pRenderPassBegin, contents);
}

void ZoVkStarRailProcessor::VkCmdEndRenderPassHooked(VkCommandBuffer commandBuffer) {
    // The pass has ended below before any module hears of it.
    NextLayer<&T::vkCmdEndRenderPass>(this)(commandBuffer);
    cmdEndRenderPass.Run(commandBuffer);
}

VkResult ZoVkStarRailProcessor::VkCreateRenderPassHooked(VkDevice device, const VkRenderPassCreateInfo* pCreateInfo,
                                                         const VkAllocationCallbacks* pAllocator,
                                                         VkRenderPass* pRenderPass) {
    const VkResult result = NextLayer<&T::vkCreateRenderPass>(this)(device, pCreateInfo, pAllocator, pRenderPass);
    postCreateRenderPass.Run(device, pCreateInfo, pAllocator, pRenderPass, result);
    return result;
}

VkResult ZoVkStarRailProcessor::VkCreateFramebufferHooked(VkDevice device, const VkFramebufferCreateInfo* pCreateInfo,
                                                          const VkAllocationCallbacks* pAllocator,
                                                          VkFramebuffer* pFramebuffer) {
    const VkResult result = NextLayer<&T::vkCreateFramebuffer>(this)(device, pCreateInfo, pAllocator, pFramebuffer);
    postCreateFramebuffer.Run(device, pCreateInfo, pAllocator, pFramebuffer, result);
    return result;
}

void ZoVkStarRailProcessor::VkCmdBindPipelineHooked(VkCommandBuffer commandBuffer,
                                                    VkPipelineBindPoint pipelineBindPoint, VkPipeline pipeline) {
    cmdBindPipeline.Run(commandBuffer, pipelineBindPoint, pipeline);
}

VkResult ZoVkStarRailProcessor::VkCreateCommandPoolHooked(VkDevice device, const VkCommandPoolCreateInfo* pCreateInfo,
                                                          const VkAllocationCallbacks* pAllocator,
                                                          VkCommandPool* pCommandPool) {
    const VkResult result = NextLayer<&T::vkCreateCommandPool>(this)(device, pCreateInfo, pAllocator, pCommandPool);
    postCreateCommandPool.Run(device, pCreateInfo, pAllocator, pCommandPool, result);
    return result;
}

void ZoVkStarRailProcessor::VkCmdDrawIndexedHooked(VkCommandBuffer commandBuffer, uint32_t indexCount,
                                                   uint32_t instanceCount, uint32_t firstIndex, int32_t vertexOffset,
                                                   uint32_t firstInstance) {
    cmdDrawIndexed.Run(commandBuffer, indexCount, instanceCount, firstIndex, vertexOffset, firstInstance);
}

void ZoVkStarRailProcessor::VkDestroyPipelineHooked(VkDevice device, VkPipeline pipeline,
                                                    const VkAllocationCallbacks* pAllocator) {
    destroyPipeline.Run(device, pipeline, pAllocator);
}

void ZoVkStarRailProcessor::VkDestroyRenderPassHooked(VkDevice device, VkRenderPass renderPass,
                                                      const VkAllocationCallbacks* pAllocator) {
    destroyRenderPass.Run(device, renderPass, pAllocator);
}

void ZoVkStarRailProcessor::VkDestroyFramebufferHooked(VkDevice device, VkFramebuffer framebuffer,
                                                       const VkAllocationCallbacks* pAllocator) {
    destroyFramebuffer.Run(device, framebuffer, pAllocator);
}

void ZoVkStarRailProcessor::VkCmdExecuteCommandsHooked(VkCommandBuffer commandBuffer, uint32_t commandBufferCount,
                                                       const VkCommandBuffer* pCommandBuffers) {
    cmdExecuteCommands.Run(commandBuffer, commandBufferCount, pCommandBuffers);
}

VkResult ZoVkStarRailProcessor::VkBeginCommandBufferHooked(VkCommandBuffer commandBuffer,
                                                           const VkCommandBufferBeginInfo* pBeginInfo) {
    return beginCommandBuffer.Run(commandBuffer, pBeginInfo);
}

VkResult ZoVkStarRailProcessor::VkEndCommandBufferHooked(VkCommandBuffer commandBuffer) {
    return endCommandBuffer.Run(commandBuffer);
}

}  // namespace vulkan::zovk::app
