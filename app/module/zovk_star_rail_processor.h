#pragma once

#include "app/zovk_hook_lists.h"
#include "app/zovk_processor_base.h"

namespace vulkan::zovk::app {

class ZoVkProcessorDataBase;

// The calls the Star Rail processor serves, with the shape each runs in.
#define ZOVK_STAR_RAIL_HOOKED_CALLS(X)       \
    X(CreateGraphicsPipelines, PreThenPost) \
    X(QueuePresentKHR, Pre)                 \
    X(CmdBeginRenderPass, Pre)              \
    /* The pass has ended below before any module hears of it. */ \
    X(CmdEndRenderPass, NextThenPost)       \
    X(CreateRenderPass, NextThenPost)       \
    X(CreateFramebuffer, NextThenPost)      \
    X(CmdBindPipeline, Pre)                 \
    X(CreateCommandPool, NextThenPost)      \
    X(CmdDrawIndexed, Pre)                  \
    X(DestroyPipeline, Pre)                 \
    X(DestroyRenderPass, Pre)               \
    X(DestroyFramebuffer, Pre)              \
    X(CmdExecuteCommands, Pre)              \
    X(BeginCommandBuffer, Pre)              \
    X(EndCommandBuffer, Pre)                \
    X(ResetCommandBuffer, Pre)              \
    X(FreeCommandBuffers, Pre)

// The processor of Star Rail: owns the chains of the device calls its modules hook and runs
// each call's chains. Everything that changes rendering is in the modules.
class ZoVkStarRailProcessor : public ZoVkProcessorBase {
public:
    static constexpr unsigned int PROCESSOR_TYPE = 2;

    ZoVkStarRailProcessor();

    unsigned int GetProcessorId() override { return PROCESSOR_TYPE; }
    void OnGettingInstanceInfo() override {}
    void OnGettingDeviceInfo() override {}

    // The chains, public so that modules can hang their nodes in.
    ZOVK_STAR_RAIL_HOOKED_CALLS(ZOVK_PROCESSOR_HOOKED_CALL)

    ZoVkProcessorDataBase* processorData = nullptr;
};

}  // namespace vulkan::zovk::app
