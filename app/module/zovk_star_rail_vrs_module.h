#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <vulkan/vulkan_core.h>

#include "app/module/zovk_fixed_vrs_renderpass.h"
#include "app/module/zovk_star_rail_processor.h"
#include "app/module/zovk_star_rail_vrs_module_data.h"
#include "app/zovk_extent.h"
#include "app/zovk_module_base.h"

namespace vulkan::zovk::app::module {

// The calls the VRS module hooks.
#define ZOVK_STAR_RAIL_VRS_HOOKS(X)   \
    X(Pre, QueuePresentKHR, 0)        \
    X(Post, CreateGraphicsPipelines, 0) \
    X(Pre, CmdBeginRenderPass, 0)     \
    X(Post, CmdEndRenderPass, 0)      \
    X(Post, CreateRenderPass, 0)      \
    X(Post, CreateFramebuffer, 0)     \
    X(Pre, CmdBindPipeline, 0)        \
    X(Post, CreateCommandPool, 0)     \
    X(Pre, CmdDrawIndexed, 0)         \
    X(Pre, DestroyPipeline, 0)        \
    X(Pre, DestroyRenderPass, 0)      \
    X(Pre, DestroyFramebuffer, 0)     \
    X(Pre, CmdExecuteCommands, 0)     \
    X(Pre, BeginCommandBuffer, 0)     \
    X(Pre, EndCommandBuffer, 0)

// Gives Star Rail's main scene pass and light pass a shading-rate attachment without the game
// knowing. It watches the game create passes, framebuffers and pipelines and makes substitutes
// with one more attachment beside them (zovk_star_rail_vrs_substitution.cpp); while the game
// records, it swaps its handles for the substitutes and sets the rates
// (zovk_star_rail_vrs_recording.cpp); it keeps one shading-rate image per configured resolution
// and pass, filled from template patterns, and switches them at presentation when the game's
// VRS level changes (zovk_star_rail_vrs_images.cpp).
//
// All state belongs to the game's render thread, which creates the objects, records and
// presents; only the flags are read across threads, so they are atomics.
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
    ~ZoVkStarRailVRSModule() override;
    ZoVkStarRailVRSModule(const ZoVkStarRailVRSModule&) = delete;
    ZoVkStarRailVRSModule& operator=(const ZoVkStarRailVRSModule&) = delete;

    unsigned int GetModuleId() const override { return PROCESSOR_MODULE_TYPE; }
    void OnDeviceDestroy(VkDevice device) override;

    // Shading-rate images.
    bool initShadingRateImages();
    bool initShadingRateImageTemplates(int32_t resolutionIndex, uint32_t width, uint32_t height);

    uint32_t Flags() const { return vrsFlags.load(std::memory_order_relaxed); }

private:
    struct TemplateBuffer {
        VkBuffer buffer = VK_NULL_HANDLE;
        VkDeviceMemory memory = VK_NULL_HANDLE;
    };

    bool Active() const { return (Flags() & kActive) == kActive; }
    void SetFlags(uint32_t bits) { vrsFlags.fetch_or(bits, std::memory_order_relaxed); }
    void ClearFlags(uint32_t bits) { vrsFlags.fetch_and(~bits, std::memory_order_relaxed); }
    // Resolution index of a size, or a negative number when it is not configured.
    int32_t ResolutionIndex(uint32_t width, uint32_t height) const;
    void ReadTexelSize();
    // Brings a new image from undefined through the transfer layout to the attachment layout
    // with `buffer` uploaded; an image that was already brought there just gets the upload.
    void UploadTemplate(ShadingRateImageInfo& image, const TemplateBuffer& buffer);
    void DestroyTemplateBuffers(std::vector<TemplateBuffer>& buffers);
    void SetRate(const VkDeviceFunctionTable& next, VkCommandBuffer commandBuffer,
                 VkFragmentShadingRateCombinerOpKHR attachmentOp);
    // Destroys every object the module made on the device and forgets the recording state.
    void ReleaseDeviceObjects();

public:
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

    // Configuration and shading-rate images.
    ZoVkStarRailVRSModuleData* moduleData = nullptr;
    std::unique_ptr<ZoVkFixedVRSRenderpass> renderpassBuilder;
    MyVkExtent2D texelSize;
    std::vector<std::vector<TemplateBuffer>> templateBuffers;
    int32_t curMainResIndex_ = -1;
    int32_t appliedResIndex = 0;
    int32_t templevel_ = 1;
    std::atomic<uint32_t> vrsFlags{0};
    uint64_t frameCounter = 0;
    bool debugLog = false;

    PassState mainPass;
    PassState lightPass;
    VkRenderPass lightPassSubstitute = VK_NULL_HANDLE;

    // Recording state: module-wide, the game records one light secondary at a time.
    bool lightSecondaryRecording = false;
    bool coarseRateActive = false;
    uint64_t lightDrawCounter = 0;

private:
    using T = VkDeviceFunctionTable;
    ZoVkStarRailProcessor* processor_;
    // The device whose objects the module holds; null before the first one is made.
    VkDevice device_ = VK_NULL_HANDLE;
    bool missingRateCommandLogged_ = false;
    bool zeroTexelSizeLogged_ = false;


    ZOVK_MODULE_HOOKS(ZoVkStarRailVRSModule, ZoVkStarRailProcessor, ZOVK_STAR_RAIL_VRS_HOOKS)
};

}  // namespace vulkan::zovk::app::module
