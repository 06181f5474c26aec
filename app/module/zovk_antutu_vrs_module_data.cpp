#include "app/module/zovk_antutu_vrs_module_data.h"

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "settings/zovk_log.h"
#include "settings/zovk_settings.h"

namespace vulkan::zovk::app::module {

ZoVkAntutuVRSModuleData::ZoVkAntutuVRSModuleData(const Json::Value& config) {
    valid = true;
    if (!config.isObject() || !config.isMember("vrs_SizeRange")) {
        return;
    }
    const Json::Value& value = config["vrs_SizeRange"];
    if (!value.isString()) {
        ZOVK_LOGW("vrs_SizeRange is not a string; AnTuTu VRS keeps its defaults");
        return;
    }
    Parse(value.asString());
}

void ZoVkAntutuVRSModuleData::Parse(const std::string& text) {
    if (text.empty()) {
        return;
    }
    const std::vector<std::string> pieces = ZoVkSettings::Split(text, ";");
    constexpr size_t kBoundCount = 4;
    if (pieces.size() != kBoundCount && pieces.size() != kBoundCount + kRateCodeCount) {
        ZOVK_LOGW("vrs_SizeRange \"%s\" has %zu values, not 4 or 10; AnTuTu VRS keeps its defaults", text.c_str(),
                  pieces.size());
        return;
    }
    std::array<int32_t, kBoundCount + kRateCodeCount> values{};
    for (size_t i = 0; i < pieces.size(); ++i) {
        uint64_t number = 0;
        if (ZoVkSettings::ParseDecimal(pieces[i], std::numeric_limits<int32_t>::max(), &number) !=
            ZoVkSettings::Decimal::kOk) {
            ZOVK_LOGW("vrs_SizeRange value \"%s\" is not a number 0 to 2147483647; AnTuTu VRS keeps its defaults",
                      pieces[i].c_str());
            return;
        }
        values[i] = static_cast<int32_t>(number);
    }
    widthMin = values[0];
    widthMax = values[1];
    heightMin = values[2];
    heightMax = values[3];
    if (pieces.size() > kBoundCount) {
        for (size_t i = 0; i < kRateCodeCount; ++i) {
            rateCodes[i] = values[kBoundCount + i];
        }
    }
    ZOVK_LOGD("vrs_SizeRange: width %d-%d, height %d-%d, codes %d %d %d %d %d %d", widthMin, widthMax, heightMin,
              heightMax, rateCodes[0], rateCodes[1], rateCodes[2], rateCodes[3], rateCodes[4], rateCodes[5]);
}

bool ZoVkAntutuVRSModuleData::InRange(uint32_t width, uint32_t height) const {
    // In 64 bits: a configured bound is a signed 32-bit value, an extent an unsigned one.
    const auto inside = [](int64_t value, int64_t low, int64_t high) { return value > low && value < high; };
    return inside(width, widthMin, widthMax) && inside(height, heightMin, heightMax);
}

}  // namespace vulkan::zovk::app::module
