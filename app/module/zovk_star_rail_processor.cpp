#include "app/module/zovk_star_rail_processor.h"

#include "settings/zovk_settings.h"

namespace vulkan::zovk::app {

ZoVkStarRailProcessor::ZoVkStarRailProcessor() : processorData(ZoVkSettings::GetInstance()->GetProcessorData()) {}

}  // namespace vulkan::zovk::app
