#pragma once

#include <atomic>
#include <cstdint>

// Reports scene ids that the layer recognises back to the game service. Its one use
// here: telling the service, once, that Star Rail renders through the layer's Vulkan path.
class StarRailSceneRecognizer {
public:
    static constexpr int kVulkanModeSceneId = 10005;
    // Codes of sendSceneIdToPavune.
    static constexpr uint32_t kServiceMissing = 2;
    static constexpr uint32_t kSendFailed = 3;
    static constexpr uint32_t kSent = 4;

    static StarRailSceneRecognizer* getInstance();

    uint32_t sendSceneIdToPavune(int sceneId);
    // Sends the Vulkan-mode scene id on the first call only, whatever that send returns; of
    // threads that call at once, one sends.
    void notifyVkMode();

private:
    // Set by pipeline creation on any thread.
    std::atomic<bool> notified_{false};
};
