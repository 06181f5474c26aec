#include "settings/zovk_scene_recognizer.h"

#include <type_traits>

#include "settings/zovk_log.h"
#include "settings/zovk_pavune.h"

namespace pavune = vulkan::zovk::pavune;

// Nothing to destroy at exit, when pipeline creation may still run on the game's threads.
static_assert(std::is_trivially_destructible_v<StarRailSceneRecognizer>);

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
    // A relaxed load keeps later calls as cheap as a plain read; the exchange picks the one sender.
    if (notified_.load(std::memory_order_relaxed) || notified_.exchange(true, std::memory_order_relaxed)) {
        return;
    }
    sendSceneIdToPavune(kVulkanModeSceneId);
}
