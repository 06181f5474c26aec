// The rate a conformant driver uses at a draw, by Vulkan's state rules, per recording.
#include <gtest/gtest.h>

#include <vector>

#include "fsr_state.h"

namespace fsr {
namespace {

constexpr auto kKeep = VK_FRAGMENT_SHADING_RATE_COMBINER_OP_KEEP_KHR;
constexpr auto kReplace = VK_FRAGMENT_SHADING_RATE_COMBINER_OP_REPLACE_KHR;

Rate MakeRate(uint32_t w, uint32_t h, VkFragmentShadingRateCombinerOpKHR op1) {
    Rate r;
    r.size = {w, h};
    r.ops[1] = op1;
    return r;
}

const PipelineRate kDynamic{true, {}};
const PipelineRate kStatic2x2{false, MakeRate(2, 2, kKeep)};
VkImageView View(uint64_t handle) { return reinterpret_cast<VkImageView>(handle); }
const PassRecord kPassWithImage{VK_NULL_HANDLE, 2, true, View(0x10)};

// A primary P and a secondary S, each with its own state; the draw is in S when drawInSecondary.
using R = RecordingState;
struct Case {
    const char* name;
    void (*record)(R& P, R& S);  // what comes before the draw
    bool drawInSecondary;
    RateFrom from;
    uint32_t width;  // of the rate in force, for kSet and kPipeline
    VkFragmentShadingRateCombinerOpKHR op1;
    int64_t position = -1;  // for kSet: of the command that set the rate
    uint64_t view = 0;      // the pass's shading-rate attachment at the draw; 0: in no pass
};

const Case kCases[] = {
    {"secondary inherits no rate from the primary that executes it",
     [](R& P, R& S) { P.Begin(), P.BindPipeline(&kDynamic), P.SetRate(MakeRate(2, 2, kReplace), 1);
                      S.Begin(), S.BindPipeline(&kDynamic); }, true, RateFrom::kNone, 0, kKeep},
    {"a rate after the recording ended is in force for no draw",
     [](R&, R& S) { S.Begin(), S.BindPipeline(&kDynamic), S.End();
                    EXPECT_FALSE(S.SetRate(MakeRate(2, 2, kReplace), 3)); }, true, RateFrom::kNone, 0, kKeep},
    {"a pipeline with its own rate carries it",
     [](R& P, R&) { P.Begin(), P.SetRate(MakeRate(4, 4, kReplace), 0), P.BindPipeline(&kStatic2x2); },
     false, RateFrom::kPipeline, 2, kKeep},
    {"a pass with an attachment names its image",
     [](R& P, R&) { P.Begin(), P.BindPipeline(&kDynamic), P.SetRate(MakeRate(1, 1, kReplace), 1),
                    P.BeginPass(kPassWithImage); }, false, RateFrom::kSet, 1, kReplace, 1, 0x10},
    {"a secondary continuing the pass names the inherited image, with no rate",
     [](R&, R& S) { S.Begin(&kPassWithImage), S.BindPipeline(&kDynamic); }, true, RateFrom::kNone, 0, kKeep, -1, 0x10},
    {"after the pass ends the draw is in none",
     [](R& P, R&) { P.Begin(), P.BindPipeline(&kStatic2x2), P.BeginPass(kPassWithImage), P.EndPass(); },
     false, RateFrom::kPipeline, 2, kKeep},
};

TEST(RecordingState, RateInForceAtADraw) {
    for (const Case& c : kCases) {
        SCOPED_TRACE(c.name);
        R primary, secondary;
        c.record(primary, secondary);
        const R& drawn = c.drawInSecondary ? secondary : primary;
        const DrawRate d = drawn.Draw();
        EXPECT_EQ(drawn.Pass() ? drawn.Pass()->view : VK_NULL_HANDLE, View(c.view));
        EXPECT_STREQ(RateFromName(d.from), RateFromName(c.from));
        if (c.from == RateFrom::kSet || c.from == RateFrom::kPipeline) {
            EXPECT_EQ(d.rate.size.width, c.width);
            EXPECT_EQ(d.rate.ops[1], c.op1);
        }
        EXPECT_EQ(c.from == RateFrom::kSet ? d.setPosition : -1, c.position);
    }
}

TEST(PipelineRateOf, DynamicStateOrTheChainsRateOrFullRate) {
    VkDynamicState dynamicStates[] = {VK_DYNAMIC_STATE_VIEWPORT, VK_DYNAMIC_STATE_FRAGMENT_SHADING_RATE_KHR};
    const VkPipelineDynamicStateCreateInfo dyn = {VK_STRUCTURE_TYPE_PIPELINE_DYNAMIC_STATE_CREATE_INFO, nullptr, 0, 2,
                                                  dynamicStates};
    VkPipelineFragmentShadingRateStateCreateInfoKHR state = {
        VK_STRUCTURE_TYPE_PIPELINE_FRAGMENT_SHADING_RATE_STATE_CREATE_INFO_KHR, nullptr, {2, 1}, {kKeep, kReplace}};
    VkPipelineRenderingCreateInfo other = {VK_STRUCTURE_TYPE_PIPELINE_RENDERING_CREATE_INFO, &state};
    VkGraphicsPipelineCreateInfo info = {VK_STRUCTURE_TYPE_GRAPHICS_PIPELINE_CREATE_INFO};
    const PipelineRate plain = PipelineRateOf(info);
    EXPECT_EQ(std::vector<uint64_t>({plain.dynamic, plain.rate.size.width * plain.rate.size.height, plain.rate.ops[1]}),
              std::vector<uint64_t>({false, 1, kKeep}));
    info.pNext = &other;  // found further down the chain
    const PipelineRate own = PipelineRateOf(info);
    EXPECT_EQ(std::vector<uint64_t>({own.dynamic, own.rate.size.width, own.rate.ops[1]}),
              std::vector<uint64_t>({false, 2, kReplace}));
    info.pDynamicState = &dyn;
    EXPECT_TRUE(PipelineRateOf(info).dynamic);
}

}  // namespace
}  // namespace fsr
