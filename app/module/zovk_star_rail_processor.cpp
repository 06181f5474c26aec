#include "app/module/zovk_star_rail_processor.h"

#include "settings/zovk_settings.h"

namespace vulkan::zovk::app {

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

}  // namespace vulkan::zovk::app
