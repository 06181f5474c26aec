#pragma once

namespace vulkan::zovk {

// "vendor.zovk.log.debug", read once per process when the settings are made
// (zovk_settings.cpp). Apart from the settings so that logging needs nothing else.
bool IsLogDebug();

}  // namespace vulkan::zovk
