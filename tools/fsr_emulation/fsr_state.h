// Vulkan's fragment shading rate state, per command buffer recording: what a conformant driver
// would use at each draw, which the trace records so that a report need not guess.
#pragma once

#include <vulkan/vulkan.h>

#include <cstdint>

namespace fsr {

struct Rate {
    VkExtent2D size = {1, 1};
    VkFragmentShadingRateCombinerOpKHR ops[2] = {VK_FRAGMENT_SHADING_RATE_COMBINER_OP_KEEP_KHR,
                                                 VK_FRAGMENT_SHADING_RATE_COMBINER_OP_KEEP_KHR};
};

// A graphics pipeline either takes the rate as dynamic state or carries its own (1x1, KEEP, KEEP
// when it names none).
struct PipelineRate {
    bool dynamic = false;
    Rate rate;
};
PipelineRate PipelineRateOf(const VkGraphicsPipelineCreateInfo& info);

enum class RateFrom {
    kSet,         // vkCmdSetFragmentShadingRateKHR earlier in this recording
    kPipeline,    // the bound pipeline's own rate
    kNone,        // the bound pipeline needs a rate and none was set: the driver's rate is undefined
    kNoPipeline,  // no graphics pipeline the layer saw is bound
};
const char* RateFromName(RateFrom from);

struct DrawRate {
    RateFrom from = RateFrom::kNone;
    Rate rate;                // meaningful for kSet and kPipeline
    int64_t setPosition = -1;  // for kSet: the position of the command that set it
};

// The render pass a command buffer records into: begun in it, or, for a secondary, inherited.
struct PassRecord {
    VkRenderPass renderPass = VK_NULL_HANDLE;
    int64_t begin = -1;  // position of the begin; -1 in a secondary
    bool attachment = false;
    VkImageView view = VK_NULL_HANDLE;  // the shading-rate attachment, when known
};

class RecordingState {
public:
    // A new recording starts with nothing set, also in a secondary: it inherits no rate, only the
    // pass it continues.
    void Begin(const PassRecord* continued = nullptr);
    void End() { recording_ = false; }
    bool Recording() const { return recording_; }
    // False when the command buffer is not recording: the command then affects no draw.
    bool SetRate(const Rate& rate, int64_t position);
    // Null: a pipeline the layer did not see. A pipeline with its own rate replaces the set one.
    void BindPipeline(const PipelineRate* pipeline);
    DrawRate Draw() const;
    void BeginPass(const PassRecord& pass) {
        inPass_ = true;
        pass_ = pass;
    }
    void EndPass() { inPass_ = false; }
    const PassRecord* Pass() const { return inPass_ ? &pass_ : nullptr; }

private:
    bool inPass_ = false;
    PassRecord pass_;
    bool recording_ = false;
    bool pipelineKnown_ = false;
    PipelineRate pipeline_;
    bool rateSet_ = false;
    Rate rate_;
    int64_t setPosition_ = -1;
};

}  // namespace fsr
