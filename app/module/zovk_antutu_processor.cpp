#include "app/module/zovk_antutu_processor.h"

#include "settings/zovk_settings.h"

namespace vulkan::zovk::app {

ZoVkAntutuProcessor::ZoVkAntutuProcessor() : processorData(ZoVkSettings::GetInstance()->GetProcessorData()) {}

void ZoVkAntutuProcessor::OnGettingDeviceInfo() {
    createGraphicsPipelines.Reset(this);
    cmdBeginRenderPass.Reset(this);
    queuePresent.Reset(this);
}

}  // namespace vulkan::zovk::app
