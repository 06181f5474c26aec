#include "settings/zovk_scene_recognizer.h"

#include "settings/zovk_log.h"
#include "settings/zovk_pavune.h"

namespace pavune = vulkan::zovk::pavune;

StarRailSceneRecognizer* StarRailSceneRecognizer::getInstance() {
    static StarRailSceneRecognizer recognizer;
    return &recognizer;
}

uint32_t StarRailSceneRecognizer::sendSceneIdToPavune(int sceneId) {
    ZOVK_LOG(DEBUG, pavune::kSceneLogTag, "sendSceneIdToPavune, sceneId: %d", sceneId);
    switch (pavune::Client::ReportSceneId(sceneId)) {
        case pavune::Outcome::kDone:
            return kSent;
        case pavune::Outcome::kNoService:
            return kServiceMissing;
        default:
            return kSendFailed;
    }
}

void StarRailSceneRecognizer::notifyVkMode() {
    if (notified_) {
        return;
    }
    notified_ = true;
    sendSceneIdToPavune(kVulkanModeSceneId);
}
