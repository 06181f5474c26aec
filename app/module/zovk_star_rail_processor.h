#pragma once

#include "app/zovk_functor.h"
#include "app/zovk_trampoline.h"

namespace vulkan::zovk::app {

// The processor of Star Rail: owns the chains of the fifteen device calls that its modules
// hook, and starts each call's chain. Everything that changes rendering is in the modules.
class ZoVkStarRailProcessor : public ZoVkProcessorBase {
public:
    static constexpr unsigned int PROCESSOR_TYPE = 2;

    ZoVkStarRailProcessor();

    unsigned int GetProcessorId() override { return PROCESSOR_TYPE; }
    void RegisterVkInstanceHooks() override {}
    void RegisterVkDeviceHooks() override {}
    void OnGettingInstanceInfo() override {}
    void OnGettingDeviceInfo() override;

    VkResult VkCreateGraphicsPipelinesHooked(VkDevice device, VkPipelineCache pipelineCache, uint32_t createInfoCount,
                                             const VkGraphicsPipelineCreateInfo* pCreateInfos,
                                             const VkAllocationCallbacks* pAllocator, VkPipeline* pPipelines);
    VkResult VkQueuePresentKHRHooked(VkQueue queue, const VkPresentInfoKHR* pPresentInfo);
    void VkCmdBeginRenderPassHooked(VkCommandBuffer commandBuffer, const VkRenderPassBeginInfo* pRenderPassBegin,
                                    VkSubpassContents contents);
    void VkCmdEndRenderPassHooked(VkCommandBuffer commandBuffer);
    VkResult VkCreateRenderPassHooked(VkDevice device, const VkRenderPassCreateInfo* pCreateInfo,
                                      const VkAllocationCallbacks* pAllocator, VkRenderPass* pRenderPass);
    VkResult VkCreateFramebufferHooked(VkDevice device, const VkFramebufferCreateInfo* pCreateInfo,
                                       const VkAllocationCallbacks* pAllocator, VkFramebuffer* pFramebuffer);
    void VkCmdBindPipelineHooked(VkCommandBuffer commandBuffer, VkPipelineBindPoint pipelineBindPoint,
                                 VkPipeline pipeline);
    VkResult VkCreateCommandPoolHooked(VkDevice device, const VkCommandPoolCreateInfo* pCreateInfo,
                                       const VkAllocationCallbacks* pAllocator, VkCommandPool* pCommandPool);
    void VkCmdDrawIndexedHooked(VkCommandBuffer commandBuffer, uint32_t indexCount, uint32_t instanceCount,
                                uint32_t firstIndex, int32_t vertexOffset, uint32_t firstInstance);
    void VkDestroyPipelineHooked(VkDevice device, VkPipeline pipeline, const VkAllocationCallbacks* pAllocator);
    void VkDestroyRenderPassHooked(VkDevice device, VkRenderPass renderPass, const VkAllocationCallbacks* pAllocator);
    void VkDestroyFramebufferHooked(VkDevice device, VkFramebuffer framebuffer,
                                    const VkAllocationCallbacks* pAllocator);
    void VkCmdExecuteCommandsHooked(VkCommandBuffer commandBuffer, uint32_t commandBufferCount,
                                    const VkCommandBuffer* pCommandBuffers);
    VkResult VkBeginCommandBufferHooked(VkCommandBuffer commandBuffer, const VkCommandBufferBeginInfo* pBeginInfo);
    VkResult VkEndCommandBufferHooked(VkCommandBuffer commandBuffer);

    // The trampoline of a call, for a module's RegisterModuleVkDeviceHooks.
    template <auto Slot, auto Member>
    static ZoVkHookFunction Trampoline() {
        return GlobalDeviceHookFunctor<ZoVkStarRailProcessor, Slot, Member>::Address();
    }

    template <auto Slot>
    using PreChain = module::ZoVkPreChain<Slot>;
    template <auto Slot>
    using PostChain = module::ZoVkPostChain<Slot>;
    using T = VkDeviceFunctionTable;

    // The chains, public so that modules can hang their nodes in.
    PreChain<&T::vkCreateGraphicsPipelines> createGraphicsPipelines;
    PostChain<&T::vkCreateGraphicsPipelines> postCreateGraphicsPipelines;
    PreChain<&T::vkQueuePresentKHR> queuePresent;
    PreChain<&T::vkCmdBeginRenderPass> cmdBeginRenderPass;
    PostChain<&T::vkCmdEndRenderPass> cmdEndRenderPass;
    PostChain<&T::vkCreateRenderPass> postCreateRenderPass;
    PostChain<&T::vkCreateFramebuffer> postCreateFramebuffer;
    PreChain<&T::vkCmdBindPipeline> cmdBindPipeline;
    PostChain<&T::vkCreateCommandPool> postCreateCommandPool;
    PreChain<&T::vkCmdDrawIndexed> cmdDrawIndexed;
    PreChain<&T::vkDestroyPipeline> destroyPipeline;
    PreChain<&T::vkDestroyRenderPass> destroyRenderPass;
    PreChain<&T::vkDestroyFramebuffer> destroyFramebuffer;
    PreChain<&T::vkCmdExecuteCommands> cmdExecuteCommands;
    PreChain<&T::vkBeginCommandBuffer> beginCommandBuffer;
    PreChain<&T::vkEndCommandBuffer> endCommandBuffer;

    ZoVkProcessorDataBase* processorData = nullptr;
};

// The hooked members sit on every intercepted call: defined here so that the trampolines
// inline them.

inline VkResult ZoVkStarRailProcessor::VkCreateGraphicsPipelinesHooked(VkDevice device, VkPipelineCache pipelineCache,
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

inline VkResult ZoVkStarRailProcessor::VkQueuePresentKHRHooked(VkQueue queue, const VkPresentInfoKHR* pPresentInfo) {
    return queuePresent.Run(queue, pPresentInfo);
}

inline void ZoVkStarRailProcessor::VkCmdBeginRenderPassHooked(VkCommandBuffer commandBuffer,
                                                       const VkRenderPassBeginInfo* pRenderPassBegin,
                                                       VkSubpassContents contents) {
    cmdBeginRenderPass.Run(commandBuffer, pRenderPassBegin, contents);
}

inline void ZoVkStarRailProcessor::VkCmdEndRenderPassHooked(VkCommandBuffer commandBuffer) {
    // The pass has ended below before any module hears of it.
    module::NextLayer<&T::vkCmdEndRenderPass>(this)(commandBuffer);
    cmdEndRenderPass.Run(commandBuffer);
}

inline VkResult ZoVkStarRailProcessor::VkCreateRenderPassHooked(VkDevice device, const VkRenderPassCreateInfo* pCreateInfo,
                                                         const VkAllocationCallbacks* pAllocator,
                                                         VkRenderPass* pRenderPass) {
    return postCreateRenderPass.RunAfterNextLayer(this, device, pCreateInfo, pAllocator, pRenderPass);
}

inline VkResult ZoVkStarRailProcessor::VkCreateFramebufferHooked(VkDevice device, const VkFramebufferCreateInfo* pCreateInfo,
                                                          const VkAllocationCallbacks* pAllocator,
                                                          VkFramebuffer* pFramebuffer) {
    return postCreateFramebuffer.RunAfterNextLayer(this, device, pCreateInfo, pAllocator, pFramebuffer);
}

inline void ZoVkStarRailProcessor::VkCmdBindPipelineHooked(VkCommandBuffer commandBuffer,
                                                    VkPipelineBindPoint pipelineBindPoint, VkPipeline pipeline) {
    cmdBindPipeline.Run(commandBuffer, pipelineBindPoint, pipeline);
}

inline VkResult ZoVkStarRailProcessor::VkCreateCommandPoolHooked(VkDevice device, const VkCommandPoolCreateInfo* pCreateInfo,
                                                          const VkAllocationCallbacks* pAllocator,
                                                          VkCommandPool* pCommandPool) {
    return postCreateCommandPool.RunAfterNextLayer(this, device, pCreateInfo, pAllocator, pCommandPool);
}

inline void ZoVkStarRailProcessor::VkCmdDrawIndexedHooked(VkCommandBuffer commandBuffer, uint32_t indexCount,
                                                   uint32_t instanceCount, uint32_t firstIndex, int32_t vertexOffset,
                                                   uint32_t firstInstance) {
    cmdDrawIndexed.Run(commandBuffer, indexCount, instanceCount, firstIndex, vertexOffset, firstInstance);
}

inline void ZoVkStarRailProcessor::VkDestroyPipelineHooked(VkDevice device, VkPipeline pipeline,
                                                    const VkAllocationCallbacks* pAllocator) {
    destroyPipeline.Run(device, pipeline, pAllocator);
}

inline void ZoVkStarRailProcessor::VkDestroyRenderPassHooked(VkDevice device, VkRenderPass renderPass,
                                                      const VkAllocationCallbacks* pAllocator) {
    destroyRenderPass.Run(device, renderPass, pAllocator);
}

inline void ZoVkStarRailProcessor::VkDestroyFramebufferHooked(VkDevice device, VkFramebuffer framebuffer,
                                                       const VkAllocationCallbacks* pAllocator) {
    destroyFramebuffer.Run(device, framebuffer, pAllocator);
}

inline void ZoVkStarRailProcessor::VkCmdExecuteCommandsHooked(VkCommandBuffer commandBuffer, uint32_t commandBufferCount,
                                                       const VkCommandBuffer* pCommandBuffers) {
    cmdExecuteCommands.Run(commandBuffer, commandBufferCount, pCommandBuffers);
}

inline VkResult ZoVkStarRailProcessor::VkBeginCommandBufferHooked(VkCommandBuffer commandBuffer,
                                                           const VkCommandBufferBeginInfo* pBeginInfo) {
    return beginCommandBuffer.Run(commandBuffer, pBeginInfo);
}

inline VkResult ZoVkStarRailProcessor::VkEndCommandBufferHooked(VkCommandBuffer commandBuffer) {
    return endCommandBuffer.Run(commandBuffer);
}

}  // namespace vulkan::zovk::app
