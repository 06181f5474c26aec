#pragma once

#include <json/value.h>

#include <array>
#include <cstdint>
#include <string>

#include "app/zovk_module_base.h"

namespace vulkan::zovk::app::module {

// Configuration of the AnTuTu VRS module, from the string "vrs_SizeRange":
//   widthMin;widthMax;heightMin;heightMax[;code1;...;code6]
// Four integers set the render-area bounds (all exclusive), ten also the shading-rate codes of
// the six steps. Anything else keeps every default; the object is always valid.
class ZoVkAntutuVRSModuleData : public ZoVkModuleDataBase {
public:
    static constexpr unsigned int MODULE_DATA_TYPE = 1;
    static constexpr size_t kRateCodeCount = 6;

    explicit ZoVkAntutuVRSModuleData(const Json::Value& config);

    // Strictly inside both bounds.
    bool InRange(uint32_t width, uint32_t height) const;

    int32_t widthMin = 2000;
    int32_t widthMax = 3500;
    int32_t heightMin = 1000;
    int32_t heightMax = 2000;
    std::array<int32_t, kRateCodeCount> rateCodes{0, 5, 0, 0, 3, 5};

private:
    void Parse(const std::string& text);
};

}  // namespace vulkan::zovk::app::module
