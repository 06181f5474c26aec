#pragma once

// A Star Rail process on the recording fake: its configuration switching the VRS module on,
// the pass shapes the module recognises, and the scene and level the game service pushes.

#include <json/value.h>

#include <memory>
#include <string>

#include "app/zovk_app_data.h"
#include "settings/zovk_app_info_monitor.h"
#include "tests/support/served_device.h"

namespace zovk_test {

constexpr char kStarRailPackage[] = "com.miHoYo.hkrpg";

// The processor of a Star Rail process with the VRS module on `params`; null when refused.
inline std::shared_ptr<vulkan::zovk::app::ZoVkProcessorBase> ServeStarRailVrs(const std::string& params) {
    Json::Value config;
    config["xrender_BaseInfo"] = "2";
    config["vrs_Params"] = params;
    return ServedDevice::ServeApplication(kStarRailPackage, new vulkan::zovk::app::ZoVkStarRailData(), config);
}

inline ServedDevice::Attachments StarRailMainPass(VkAttachmentLoadOp op) {
    return {{VK_FORMAT_R8G8B8A8_SRGB, op}, {VK_FORMAT_R8G8B8A8_UNORM, op}, {VK_FORMAT_R8G8B8A8_UNORM, op},
            {VK_FORMAT_R8G8B8A8_UNORM, op}, {VK_FORMAT_D24_UNORM_S8_UINT, op}};
}
inline ServedDevice::Attachments StarRailLightPass(VkAttachmentLoadOp color, VkAttachmentLoadOp depth) {
    return {{VK_FORMAT_B10G11R11_UFLOAT_PACK32, color}, {VK_FORMAT_D24_UNORM_S8_UINT, depth}};
}

// The scene and the VRS level as the game service pushes them.
inline void PushStarRailScene(int level, int sceneId = 1058) {
    auto* monitor = ::android::ZoVkAppInfoMonitor::GetInstance();
    monitor->ParseGameSceneId(kStarRailPackage, sceneId);
    monitor->ParseVkVrsSwitch(kStarRailPackage, level);
}

}  // namespace zovk_test
