#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <unordered_map>
#include <unordered_set>

#include "app/module/zovk_antutu_processor.h"
#include "app/module/zovk_antutu_vrs_module_data.h"
#include "app/zovk_extent.h"
#include "app/zovk_module_base.h"

namespace vulkan::zovk::app::module {

// The calls the AnTuTu VRS module hooks; pipelines come late, after any other module's.
#define ZOVK_ANTUTU_VRS_HOOKS(X)          \
    X(Pre, CreateGraphicsPipelines, 1000) \
    X(Pre, CmdBeginRenderPass, 0)         \
    X(Post, CreateRenderPass, 0)          \
    X(Pre, QueuePresentKHR, 0)
// The calls only the conforming mode hooks.
#define ZOVK_ANTUTU_VRS_CONFORMING_HOOKS(X) \
    X(Pre, CmdBindPipeline, 0)              \
    X(Pre, DestroyPipeline, 0)              \
    X(Pre, BeginCommandBuffer, 0)           \
    X(Pre, EndCommandBuffer, 0)             \
    X(Pre, ResetCommandBuffer, 0)           \
    X(Pre, FreeCommandBuffers, 0)

// AnTuTu's per-pass shading rate. Every graphics pipeline with a dynamic-state block gets the
// fragment shading rate as dynamic state; render passes are classified by their attachments
// as they are created; and, while the game service has VRS switched on (sampled every 120
// presents), each begin of a render pass whose area lies inside the configured bounds records
// a rate chosen by a step machine that follows the benchmark's sequence of pass kinds.
//
// The pipelines' rate is then undefined wherever no rate was set in the same recording: before
// the first sampling, in passes outside the bounds, in secondaries, after a pipeline without
// the dynamic state. The conforming mode ("vendor.zovk.vrs.conforming"; only it hooks the
// calls of the second list) keeps, per command buffer being recorded, the rate
// its current pass wants (1x1 outside the chosen passes) and records it again after a pipeline
// that takes it is bound while another rate, or none, is in force; a pass begun with a coarse
// rate still in force gets 1x1 first.
//
// Besides "vxxk vflag" and "vxxk s", two debug lines feed the run command's report:
//   "vxxk c: <pass> <kind>"                          a pass classified at creation
//   "vxxk r: <frame> <kind> <width>x<height> <step>" a rate recorded right before a begin
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

    // What the conforming mode knows of a command buffer being recorded.
    struct Recording {
        VkDevice device = VK_NULL_HANDLE;
        MyVkExtent2D wanted{1, 1};  // the rate of the pass begun last
        MyVkExtent2D inForce;       // 0x0: none, or a pipeline's own
    };
    // The sets a pass is in (a handle made again for another kind of pass can be in two).
    struct PassClasses {
        bool a = false;
        bool b = false;
        bool c = false;
        char Kind() const { return b ? 'B' : c ? 'C' : a ? 'A' : 'O'; }
    };

    void Classify(VkDevice device, const VkRenderPassCreateInfo& info, VkRenderPass pass);
    // Under the lock.
    PassClasses ClassesOf(VkRenderPass pass) const;
    // Chooses the rate of a begin inside the bounds by the step machine, records and logs it;
    // the size recorded, 0x0 when the device has no rate command.
    VkExtent2D SetRate(const VkDeviceFunctionTable& next, VkCommandBuffer commandBuffer,
                       const VkRenderPassBeginInfo& begin);
    // The conforming mode at a begin that gets no chosen rate: 1x1 is wanted, and recorded
    // at once when a coarser rate is still in force.
    void WantFullRate(const VkDeviceFunctionTable& next, VkCommandBuffer commandBuffer,
                      const VkRenderPassBeginInfo& begin, VkDevice device);
    void Forget(VkCommandBuffer commandBuffer);

    ZoVkAntutuProcessor* processor_;
    // A copy: the configuration object can be released while the module still runs.
    ZoVkAntutuVRSModuleData config_;

    // Guards the pass sets, the step and the conforming mode's maps: passes are created and
    // recorded on any thread.
    std::mutex mutex_;
    PassSet singleAttachmentPasses_;  // A
    PassSet clearColorPasses_;        // B
    PassSet halfFloatPasses_;         // C

    const VkFragmentShadingRateCombinerOpKHR combinerOps_[2] = {VK_FRAGMENT_SHADING_RATE_COMBINER_OP_KEEP_KHR,
                                                                VK_FRAGMENT_SHADING_RATE_COMBINER_OP_KEEP_KHR};
    const std::unordered_set<VkFormat> clearColorFormats_{VK_FORMAT_B10G11R11_UFLOAT_PACK32};
    const std::unordered_set<VkFormat> depthFormats_{VK_FORMAT_D24_UNORM_S8_UINT};
    const std::unordered_set<VkFormat> halfFloatFormats_{VK_FORMAT_R16G16B16A16_SFLOAT};

    const bool conforming_;
    std::unordered_map<VkCommandBuffer, Recording> recordings_;   // conforming mode only
    std::unordered_map<VkPipeline, VkDevice> ratePipelines_;      // given the dynamic rate; conforming only

    std::atomic<bool> vrsEnabled_{false};
    std::atomic<uint64_t> presentCount_{0};
    int passStep_ = 0;  // only grows
    VkExtent2D fragmentSizes_[ZoVkAntutuVRSModuleData::kRateCodeCount];

    ZOVK_MODULE_HOOKS_SOME_IF(ZoVkAntutuVRSModule, ZoVkAntutuProcessor, ZOVK_ANTUTU_VRS_HOOKS,
                              ZOVK_ANTUTU_VRS_CONFORMING_HOOKS, conforming_)
};

}  // namespace vulkan::zovk::app::module
