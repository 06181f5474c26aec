#include "fsr_state.h"

#include "fsr_strip.h"

namespace fsr {

PipelineRate PipelineRateOf(const VkGraphicsPipelineCreateInfo& info) {
    PipelineRate out;
    out.dynamic = HasRateDynamicState(info.pDynamicState);
    for (auto* s = static_cast<const VkBaseInStructure*>(info.pNext); s != nullptr; s = s->pNext) {
        if (s->sType == VK_STRUCTURE_TYPE_PIPELINE_FRAGMENT_SHADING_RATE_STATE_CREATE_INFO_KHR) {
            const auto* state = reinterpret_cast<const VkPipelineFragmentShadingRateStateCreateInfoKHR*>(s);
            out.rate.size = state->fragmentSize;
            out.rate.ops[0] = state->combinerOps[0];
            out.rate.ops[1] = state->combinerOps[1];
        }
    }
    return out;
}

const char* RateFromName(RateFrom from) {
    switch (from) {
    case RateFrom::kSet: return "set";
    case RateFrom::kPipeline: return "pipeline";
    case RateFrom::kNone: return "none";
    case RateFrom::kNoPipeline: return "noPipeline";
    }
    return "?";
}

void RecordingState::Begin(const PassRecord* continued) {
    *this = RecordingState{};
    recording_ = true;
    if (continued != nullptr) BeginPass(*continued);
}

bool RecordingState::SetRate(const Rate& rate, int64_t position) {
    if (!recording_) return false;
    rateSet_ = true;
    rate_ = rate;
    setPosition_ = position;
    return true;
}

void RecordingState::BindPipeline(const PipelineRate* pipeline) {
    pipelineKnown_ = pipeline != nullptr;
    if (pipeline == nullptr) return;
    pipeline_ = *pipeline;
    // Static state overwrites the command buffer's; a later dynamic pipeline needs a new set.
    if (!pipeline->dynamic) rateSet_ = false;
}

DrawRate RecordingState::Draw() const {
    DrawRate d;
    if (!pipelineKnown_) {
        d.from = RateFrom::kNoPipeline;
    } else if (!pipeline_.dynamic) {
        d.from = RateFrom::kPipeline;
        d.rate = pipeline_.rate;
    } else if (rateSet_) {
        d.from = RateFrom::kSet;
        d.rate = rate_;
        d.setPosition = setPosition_;
    }
    return d;
}

}  // namespace fsr
