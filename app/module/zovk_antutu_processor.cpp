#include "app/module/zovk_antutu_processor.h"

#include "settings/zovk_settings.h"

namespace vulkan::zovk::app {

ZoVkAntutuProcessor::ZoVkAntutuProcessor() : processorData(ZoVkSettings::GetInstance()->GetProcessorData()) {}

}  // namespace vulkan::zovk::app
