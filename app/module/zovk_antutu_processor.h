#pragma once

#include "app/zovk_functor.h"
#include "app/zovk_trampoline.h"

namespace vulkan::zovk::app {

class ZoVkProcessorDataBase;

// The processor of AnTuTu: the chains of the four device calls its VRS module hooks.
// Render passes reach the module after the next layer made them; the other three calls
// reach it before.
class ZoVkAntutuProcessor : public ZoVkProcessorBase {
public:
    static constexpr unsigned int PROCESSOR_TYPE = 1;
    using T = VkDeviceFunctionTable;

    ZoVkAntutuProcessor();

    unsigned int GetProcessorId() override { return PROCESSOR_TYPE; }
    void OnGettingInstanceInfo() override {}
    void OnGettingDeviceInfo() override;

    VkResult VkCreateGraphicsPipelinesHooked(VkDevice device, VkPipelineCache pipelineCache, uint32_t createInfoCount,
                                             const VkGraphicsPipelineCreateInfo* pCreateInfos,
                                             const VkAllocationCallbacks* pAllocator, VkPipeline* pPipelines) {
        return createGraphicsPipelines.Run(device, pipelineCache, createInfoCount, pCreateInfos, pAllocator,
                                           pPipelines);
    }
    void VkCmdBeginRenderPassHooked(VkCommandBuffer commandBuffer, const VkRenderPassBeginInfo* pRenderPassBegin,
                                    VkSubpassContents contents) {
        cmdBeginRenderPass.Run(commandBuffer, pRenderPassBegin, contents);
    }
    VkResult VkCreateRenderPassHooked(VkDevice device, const VkRenderPassCreateInfo* pCreateInfo,
                                      const VkAllocationCallbacks* pAllocator, VkRenderPass* pRenderPass) {
        return postCreateRenderPass.RunAfterNextLayer(this, device, pCreateInfo, pAllocator, pRenderPass);
    }
    VkResult VkQueuePresentKHRHooked(VkQueue queue, const VkPresentInfoKHR* pPresentInfo) {
        return queuePresent.Run(queue, pPresentInfo);
    }

    // The chains, public so that the module can hang its nodes in.
    module::ZoVkPreChain<&T::vkCreateGraphicsPipelines> createGraphicsPipelines;
    module::ZoVkPreChain<&T::vkCmdBeginRenderPass> cmdBeginRenderPass;
    module::ZoVkPostChain<&T::vkCreateRenderPass> postCreateRenderPass;
    module::ZoVkPreChain<&T::vkQueuePresentKHR> queuePresent;

    ZoVkProcessorDataBase* processorData = nullptr;
};

}  // namespace vulkan::zovk::app
