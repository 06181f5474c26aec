#pragma once

#include "app/zovk_hook_lists.h"
#include "app/zovk_processor_base.h"

namespace vulkan::zovk::app {

class ZoVkProcessorDataBase;

// The calls the AnTuTu processor serves, with the shape each runs in: render passes reach
// the module after the next layer made them, the other calls before.
#define ZOVK_ANTUTU_HOOKED_CALLS(X)    \
    X(CreateGraphicsPipelines, Pre)   \
    X(CmdBeginRenderPass, Pre)        \
    X(CreateRenderPass, NextThenPost) \
    X(QueuePresentKHR, Pre)           \
    X(CmdBindPipeline, Pre)           \
    X(DestroyPipeline, Pre)           \
    X(BeginCommandBuffer, Pre)        \
    X(EndCommandBuffer, Pre)          \
    X(ResetCommandBuffer, Pre)        \
    X(FreeCommandBuffers, Pre)

// The processor of AnTuTu: the chains of the device calls its VRS module hooks.
class ZoVkAntutuProcessor : public ZoVkProcessorBase {
public:
    static constexpr unsigned int PROCESSOR_TYPE = 1;

    ZoVkAntutuProcessor();

    unsigned int GetProcessorId() override { return PROCESSOR_TYPE; }
    void OnGettingInstanceInfo() override {}
    void OnGettingDeviceInfo() override {}

    // The chains, public so that the module can hang its nodes in.
    ZOVK_ANTUTU_HOOKED_CALLS(ZOVK_PROCESSOR_HOOKED_CALL)

    ZoVkProcessorDataBase* processorData = nullptr;
};

}  // namespace vulkan::zovk::app
