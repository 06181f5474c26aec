#include "app/module/zovk_star_rail_vrs_module_data.h"

#include <cstdint>
#include <limits>

#include "settings/zovk_log.h"
#include "settings/zovk_settings.h"

namespace vulkan::zovk::app::module {

namespace {

// Plain decimal digits that fit an int32: signs are refused, so negative counts can never
// be configured.
bool ParseInt(const std::string& text, int32_t* value) {
    uint64_t parsed = 0;
    if (ZoVkSettings::ParseDecimal(text, std::numeric_limits<int32_t>::max(), &parsed) !=
        ZoVkSettings::Decimal::kOk) {
        return false;
    }
    *value = static_cast<int32_t>(parsed);
    return true;
}

// An absent member is an empty string; anything but a string cannot be parsed.
bool ParamsString(const Json::Value& config, std::string* params) {
    if (!config.isObject() || !config.isMember("vrs_Params")) {
        return true;
    }
    const Json::Value& value = config["vrs_Params"];
    if (value.isNull()) {
        return true;
    }
    if (!value.isString()) {
        ZOVK_LOGW("vrs_Params is not a string; Star Rail VRS off");
        return false;
    }
    *params = value.asString();
    return true;
}

}  // namespace

ZoVkStarRailVRSModuleData::ZoVkStarRailVRSModuleData(const Json::Value& config) {
    valid = true;
    std::string params;
    if (!ParamsString(config, &params)) {
        valid = false;
        return;
    }
    Parse(params);
}

void ZoVkStarRailVRSModuleData::Parse(const std::string& params) {
    if (params.empty()) {
        return;  // valid and empty: no resolution ever matches, the module stays passive
    }
    const std::vector<std::string> groups = ZoVkSettings::Split(params, ";");
    if (groups.empty()) {
        return;
    }

    for (const std::string& item : ZoVkSettings::Split(groups[0], ",")) {
        const std::vector<std::string> parts = ZoVkSettings::Split(item, "x");
        int32_t width = 0;
        int32_t height = 0;
        if (parts.size() != 2 || !ParseInt(parts[0], &width) || !ParseInt(parts[1], &height)) {
            ZOVK_LOGW("vrs_Params resolution \"%s\" is not WIDTHxHEIGHT of numbers 0 to 2147483647; Star Rail VRS off",
                      item.c_str());
            valid = false;
            return;
        }
        resolutions.emplace_back(static_cast<uint32_t>(width), static_cast<uint32_t>(height));
    }

    if (groups.size() >= 2 && !ParseInt(groups[1], &mainPassAttachmentCount)) {
        ZOVK_LOGW("vrs_Params attachment count \"%s\" is not a number 0 to 2147483647; Star Rail VRS off",
                  groups[1].c_str());
        valid = false;
        return;
    }

    if (groups.size() >= 3) {
        const std::vector<std::string> draw = ZoVkSettings::Split(groups[2], ",");
        // Only a complete draw description counts; any other length leaves the defaults.
        if (draw.size() == 4) {
            int32_t numbers[4] = {};
            for (size_t i = 0; i < 4; ++i) {
                if (!ParseInt(draw[i], &numbers[i])) {
                    ZOVK_LOGW("vrs_Params full-rate draw value \"%s\" is not a number 0 to 2147483647; "
                              "Star Rail VRS off",
                              draw[i].c_str());
                    valid = false;
                    return;
                }
            }
            fullRateDrawFirst = numbers[0];
            fullRateDrawLast = numbers[1];
            fullRateIndexCount = numbers[2];
            fullRateInstanceCount = numbers[3];
        } else {
            ZOVK_LOGW("vrs_Params full-rate draw \"%s\" does not have 4 numbers; ignored", groups[2].c_str());
        }
    }

    if (groups.size() >= 4 && !ParseInt(groups[3], &templateLevelCount)) {
        ZOVK_LOGW("vrs_Params level count \"%s\" is not a number 0 to 2147483647; Star Rail VRS off",
                  groups[3].c_str());
        valid = false;
        return;
    }

    ZOVK_LOGD("vrs_Params: %zu resolutions, attachments %d, draws %lld-%lld (%d indices, %d instances), levels %d",
              resolutions.size(), mainPassAttachmentCount, static_cast<long long>(fullRateDrawFirst),
              static_cast<long long>(fullRateDrawLast), fullRateIndexCount, fullRateInstanceCount,
              templateLevelCount);
}

uint32_t ZoVkStarRailVRSModuleData::mainPassResContains(uint32_t width, uint32_t height) const {
    for (size_t i = 0; i < resolutions.size(); ++i) {
        if (resolutions[i].width == width && resolutions[i].height == height) {
            return static_cast<uint32_t>(i);
        }
    }
    return kNoResolution;
}

}  // namespace vulkan::zovk::app::module
