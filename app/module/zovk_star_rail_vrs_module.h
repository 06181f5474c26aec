#pragma once

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include <vulkan/vulkan_core.h>

#include "app/module/zovk_fixed_vrs_renderpass.h"
#include "app/module/zovk_star_rail_processor.h"
#include "app/module/zovk_star_rail_vrs_module_data.h"
#include "app/zovk_extent.h"
#include "app/zovk_module_base.h"

namespace vulkan::zovk::app::module {

// The calls the VRS module hooks.
#define ZOVK_STAR_RAIL_VRS_HOOKS(X)     \
    X(Pre, QueuePresentKHR, 0)          \
    X(Post, CreateGraphicsPipelines, 0) \
    X(Pre, CmdBeginRenderPass, 0)       \
    X(Post, CmdEndRenderPass, 0)        \
    X(Post, CreateRenderPass, 0)        \
    X(Post, CreateFramebuffer, 0)       \
    X(Pre, CmdBindPipeline, 0)          \
    X(Post, CreateCommandPool, 0)       \
    X(Pre, CmdDrawIndexed, 0)           \
    X(Pre, DestroyPipeline, 0)          \
    X(Pre, DestroyRenderPass, 0)        \
    X(Pre, DestroyFramebuffer, 0)       \
    X(Pre, CmdExecuteCommands, 0)       \
    X(Pre, BeginCommandBuffer, 0)       \
    X(Pre, EndCommandBuffer, 0)         \
    X(Pre, ResetCommandBuffer, 0)       \
    X(Pre, FreeCommandBuffers, 0)

// Gives Star Rail's main scene pass and light pass a shading-rate attachment without the game
// knowing. It watches the game create passes, framebuffers and pipelines and makes substitutes
// with one more attachment beside them (zovk_star_rail_vrs_substitution.cpp); while the game
// records, it swaps its handles for the substitutes and sets the rates
// (zovk_star_rail_vrs_recording.cpp); it keeps one shading-rate image per configured resolution
// and pass, filled from template patterns, and switches them at presentation when the game's
// VRS level changes (zovk_star_rail_vrs_images.cpp).
//
// In the conforming mode ("vendor.zovk.vrs.conforming") the same shading is reached with valid
// Vulkan only: the rate goes into each redirected secondary at its begin instead of after it
// ended, images cover the whole render area, and uploads carry their barriers and are not
// waited for.
//
// Everything is kept per device and released at that device's pre-destroy. Games create and
// record on several threads: one mutex guards the devices' state. The calls a frame makes
// most often look at two counters first and take the lock only while a device is active or
// a command buffer of interest is being recorded.
class ZoVkStarRailVRSModule : public ZoVkModuleBase {
public:
    static constexpr unsigned int PROCESSOR_MODULE_TYPE = 2;

    // vrsFlags bits.
    static constexpr uint32_t kTexelSizeKnown = 1u << 0;
    static constexpr uint32_t kImagesReady = 1u << 1;
    static constexpr uint32_t kLevelOn = 1u << 2;
    static constexpr uint32_t kSceneOn = 1u << 3;
    static constexpr uint32_t kMainRateSet = 1u << 4;
    static constexpr uint32_t kLightRateSet = 1u << 5;
    static constexpr uint32_t kFullRateDrawSwitched = 1u << 6;
    static constexpr uint32_t kPassSubstituted = 1u << 7;
    static constexpr uint32_t kSecondaryRedirected = 1u << 8;
    static constexpr uint32_t kActive = kTexelSizeKnown | kImagesReady | kLevelOn | kSceneOn;
    static constexpr uint32_t kFrameBits = 0x1f0;

    explicit ZoVkStarRailVRSModule(ZoVkProcessorBase* processor);
    ~ZoVkStarRailVRSModule() override = default;
    ZoVkStarRailVRSModule(const ZoVkStarRailVRSModule&) = delete;
    ZoVkStarRailVRSModule& operator=(const ZoVkStarRailVRSModule&) = delete;

    unsigned int GetModuleId() const override { return PROCESSOR_MODULE_TYPE; }
    void OnDeviceDestroy(VkDevice device) override;

    template <typename Handle>
    using SubstituteMap = std::unordered_map<Handle, Handle>;
    // What the module keeps for one kind of pass (the main scene pass, the light pass).
    struct PassState {
        SubstituteMap<VkRenderPass> passMap;             // the clear variant the game begins
        SubstituteMap<VkRenderPass> framebufferPassMap;  // the variant its framebuffers and pipelines name
        SubstituteMap<VkFramebuffer> framebufferMap;
        SubstituteMap<VkPipeline> pipelineMap;
        std::vector<ShadingRateImageInfo> images;  // one per configured resolution
        std::unordered_set<VkCommandBuffer> passCommandBuffers;
        std::unordered_set<VkCommandBuffer> secondaryCommandBuffers;
    };
    struct TemplateBuffer {
        VkBuffer buffer = VK_NULL_HANDLE;
        VkDeviceMemory memory = VK_NULL_HANDLE;
    };
    // What the module keeps for one device.
    struct DeviceState {
        DeviceState(ZoVkProcessorBase* processor, VkDevice device);

        VkDevice device;
        ZoVkFixedVRSRenderpass renderpassBuilder;
        MyVkExtent2D texelSize;
        std::vector<std::vector<TemplateBuffer>> templateBuffers;
        PassState mainPass;
        PassState lightPass;
        VkRenderPass lightPassSubstitute = VK_NULL_HANDLE;
        int32_t curMainResIndex_ = -1;
        int32_t appliedResIndex = 0;
        int32_t templevel_ = 1;
        uint32_t vrsFlags = 0;
        uint64_t frameCounter = 0;
        bool imagesMade = false;     // images and templates exist; their first uploads wait for a present
        bool countedActive = false;  // counted in activeDevices_
        // The light secondaries being recorded, each with its draws counted and whether the
        // attachment rate is the last one it set; a new one starts from the device's last.
        struct LightRecording {
            uint64_t draws = 0;
            bool coarse = false;
        };
        std::unordered_map<VkCommandBuffer, LightRecording> lightRecordings;
        bool coarseRateActive = false;
        bool missingRateCommandLogged = false;
        bool zeroTexelSizeLogged = false;
        bool queueLogged = false;
        bool tooSmallLogged = false;
    };

    ZOVK_MODULE_HOOKS(ZoVkStarRailVRSModule, ZoVkStarRailProcessor, ZOVK_STAR_RAIL_VRS_HOOKS)

    // The state of `device`, made on first need; null for an unknown device with `make` false.
    DeviceState* State(VkDevice device, bool make);
    bool Active(const DeviceState& state) const { return (state.vrsFlags & kActive) == kActive; }
    void SetFlags(DeviceState& state, uint32_t bits);
    void ClearFlags(DeviceState& state, uint32_t bits);
    // Keeps activeDevices_ in step with the device's flags.
    void CountActive(DeviceState& state);
    void Track(std::unordered_set<VkCommandBuffer>& set, VkCommandBuffer commandBuffer);
    bool Untrack(std::unordered_set<VkCommandBuffer>& set, VkCommandBuffer commandBuffer);
    void StartLightRecording(DeviceState& state, VkCommandBuffer commandBuffer);
    void StopLightRecording(DeviceState& state, VkCommandBuffer commandBuffer);
    // Forgets a command buffer the game freed, reset or begins again.
    void ForgetCommandBuffer(DeviceState& state, VkCommandBuffer commandBuffer);
    // Resolution index of a size, or a negative number when it is not configured.
    int32_t ResolutionIndex(uint32_t width, uint32_t height) const;
    void ReadTexelSize(DeviceState& state);
    // Makes the images and template buffers of every configured resolution; true when the
    // images exist (resolutions below one texel get none).
    bool initShadingRateImages(DeviceState& state);
    bool initShadingRateImageTemplates(DeviceState& state, int32_t resolutionIndex, uint32_t width, uint32_t height);
    // Brings a new image from undefined through the transfer layout to the attachment layout
    // with `buffer` uploaded; an image that was already brought there just gets the upload.
    void UploadTemplate(DeviceState& state, ShadingRateImageInfo& image, const TemplateBuffer& buffer);
    // The conforming mode's uploads: each pair (image, buffer) recorded with its barriers into
    // one command buffer, submitted without waiting.
    void UploadConforming(DeviceState& state,
                          std::initializer_list<std::pair<ShadingRateImageInfo*, const TemplateBuffer*>> uploads);
    // The step at every present: the scene gate, the level, and the uploads, on the queue
    // being presented.
    void Present(DeviceState& state, VkQueue queue);
    void UploadFirstTemplates(DeviceState& state);
    void UploadLevel(DeviceState& state, int level);
    void DestroyTemplateBuffers(DeviceState& state, std::vector<TemplateBuffer>& buffers);
    void SetRate(DeviceState& state, const VkDeviceFunctionTable& next, VkCommandBuffer commandBuffer,
                 VkFragmentShadingRateCombinerOpKHR attachmentOp);
    // Destroys every object the module made on the device.
    void ReleaseDeviceObjects(DeviceState& state);

    ZoVkStarRailVRSModuleData* moduleData = nullptr;
    bool debugLog = false;
    const bool conforming_;
    ZoVkStarRailProcessor* processor_;

    std::mutex mutex_;  // guards devices_ and everything in them
    std::unordered_map<VkDevice, std::unique_ptr<DeviceState>> devices_;
    std::pair<VkDevice, DeviceState*> lastState_{VK_NULL_HANDLE, nullptr};
    // Read without the lock by the calls of every draw and pass; changed under it.
    std::atomic<uint32_t> activeDevices_{0};       // devices whose substitution is active
    std::atomic<uint32_t> trackedCommandBuffers_{0};  // in any device's command-buffer sets
    std::atomic<uint32_t> lightRecordings_{0};     // light secondaries being recorded
};

}  // namespace vulkan::zovk::app::module
