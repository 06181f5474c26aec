#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <unordered_map>
#include <unordered_set>

#include "app/module/zovk_antutu_processor.h"
#include "app/module/zovk_antutu_vrs_module_data.h"
#include "app/zovk_module_base.h"

namespace vulkan::zovk::app::module {

// The calls the AnTuTu VRS module hooks; pipelines come late, after any other module's.
#define ZOVK_ANTUTU_VRS_HOOKS(X)         \
    X(Pre, CreateGraphicsPipelines, 1000) \
    X(Pre, CmdBeginRenderPass, 0)        \
    X(Post, CreateRenderPass, 0)         \
    X(Pre, QueuePresentKHR, 0)

// AnTuTu's per-pass shading rate. Every graphics pipeline with a dynamic-state block gets the
// fragment shading rate as dynamic state; render passes are classified by their attachments
// as they are created; and, while the game service has VRS switched on (sampled every 120
// presents), each begin of a render pass whose area lies inside the configured bounds records
// a rate chosen by a step machine that follows the benchmark's sequence of pass kinds.
//
// Besides "vxxk vflag" and "vxxk s", two debug lines feed the run command's report:
//   "vxxk c: <pass> <kind>"                          a pass classified at creation
//   "vxxk r: <frame> <kind> <width>x<height> <step>" a rate recorded at a begin
// where kind is A (single attachment), B (clear colour), C (half float) or O (none of them).
class ZoVkAntutuVRSModule : public ZoVkModuleBase {
public:
    static constexpr unsigned int PROCESSOR_MODULE_TYPE = 1;
    static constexpr uint64_t kSamplingPeriod = 120;  // presents between two reads of the VRS switch

    explicit ZoVkAntutuVRSModule(ZoVkProcessorBase* processor);

    unsigned int GetModuleId() const override { return PROCESSOR_MODULE_TYPE; }
    // The device's passes are gone: their handles may come back for another device's objects.
    void OnDeviceDestroy(VkDevice device) override;

    // Shading-rate code of the configuration to fragment size; codes 7 and 8 give 1x1 on purpose.
    static VkExtent2D GetFramentSizeFromIntConfig(int code);

private:
    using T = VkDeviceFunctionTable;
    // A set of passes, each with the device that made it.
    using PassSet = std::unordered_map<VkRenderPass, VkDevice>;

    void Classify(VkDevice device, const VkRenderPassCreateInfo& info, VkRenderPass pass);
    void SetRate(const VkDeviceFunctionTable& next, VkCommandBuffer commandBuffer,
                 const VkRenderPassBeginInfo& begin);

    ZoVkAntutuProcessor* processor_;
    // A copy: the configuration object can be released while the module still runs.
    ZoVkAntutuVRSModuleData config_;

    // Guards the pass sets and the step: passes are created and recorded on any thread.
    std::mutex mutex_;
    PassSet singleAttachmentPasses_;  // A
    PassSet clearColorPasses_;        // B
    PassSet halfFloatPasses_;         // C

    const VkFragmentShadingRateCombinerOpKHR combinerOps_[2] = {VK_FRAGMENT_SHADING_RATE_COMBINER_OP_KEEP_KHR,
                                                                VK_FRAGMENT_SHADING_RATE_COMBINER_OP_KEEP_KHR};
    const std::unordered_set<VkFormat> clearColorFormats_{VK_FORMAT_B10G11R11_UFLOAT_PACK32};
    const std::unordered_set<VkFormat> depthFormats_{VK_FORMAT_D24_UNORM_S8_UINT};
    const std::unordered_set<VkFormat> halfFloatFormats_{VK_FORMAT_R16G16B16A16_SFLOAT};

    std::atomic<bool> vrsEnabled_{false};
    std::atomic<uint64_t> presentCount_{0};
    int passStep_ = 0;  // only grows
    VkExtent2D fragmentSizes_[ZoVkAntutuVRSModuleData::kRateCodeCount];

    ZOVK_MODULE_HOOKS(ZoVkAntutuVRSModule, ZoVkAntutuProcessor, ZOVK_ANTUTU_VRS_HOOKS)
};

}  // namespace vulkan::zovk::app::module
