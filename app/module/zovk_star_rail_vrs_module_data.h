#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>
#include <vector>

#include "app/zovk_extent.h"
#include "app/zovk_module_base.h"

namespace vulkan::zovk::app::module {

// Configuration of the Star Rail VRS module, from the string "vrs_Params":
//   resolutions;mainPassAttachmentCount;drawFirst,drawLast,indexCount,instanceCount;levels
// e.g. "1920x1080,2400x1080;5;10,12,3000,1;2". Only group 1 is required. A malformed group
// clears `valid` and ends parsing; what was parsed before it stays.
class ZoVkStarRailVRSModuleData : public ZoVkModuleDataBase {
public:
    static constexpr unsigned int MODULE_DATA_TYPE = 2;
    static constexpr uint32_t kNoResolution = 0xFFFFFFFFu;

    explicit ZoVkStarRailVRSModuleData(const Json::Value& config);

    // Index of the first resolution equal to (width, height), or kNoResolution.
    uint32_t mainPassResContains(uint32_t width, uint32_t height) const;

    std::vector<MyVkExtent2D> resolutions;  // the position is the resolution index
    int32_t templateLevelCount = 0;         // two template buffers per level and resolution
    int32_t fullRateInstanceCount = 0;
    int32_t fullRateIndexCount = 0;
    int64_t fullRateDrawFirst = 0;  // draw numbers count from 1 within the main pass
    int64_t fullRateDrawLast = 0;
    int32_t mainPassAttachmentCount = 0;

private:
    void Parse(const std::string& params);
};

}  // namespace vulkan::zovk::app::module
