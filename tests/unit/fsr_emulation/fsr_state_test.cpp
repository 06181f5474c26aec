// The rate a conformant driver uses at a draw, by Vulkan's state rules, per recording.
#include <gtest/gtest.h>

#include <functional>
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

// The command buffers of one test: a primary and a secondary, each with its own state.
struct Buffers {
    RecordingState primary, secondary;
};

struct Case {
    const char* name;
    std::function<void(Buffers&)> record;  // what comes before the draw
    bool drawInSecondary;
    RateFrom from;
    uint32_t width;  // of the rate in force, for kSet and kPipeline
    VkFragmentShadingRateCombinerOpKHR op1;
    uint64_t view = 0;  // the pass's shading-rate attachment at the draw; 0: in no pass
};

VkImageView View(uint64_t handle) { return reinterpret_cast<VkImageView>(handle); }
const PassRecord kPassWithImage{VK_NULL_HANDLE, 2, true, View(0x10)};

const std::vector<Case>& Cases() {
    static const std::vector<Case> cases = {
        {"secondary inherits no rate from the primary that executes it",
         [](Buffers& b) {
             b.primary.Begin();
             b.primary.BindPipeline(&kDynamic);
             b.primary.SetRate(MakeRate(2, 2, kReplace), 1);
             b.secondary.Begin();
             b.secondary.BindPipeline(&kDynamic);
         },
         true, RateFrom::kNone, 0, kKeep},
        {"a rate after the recording ended is in force for no draw",
         [](Buffers& b) {
             b.secondary.Begin();
             b.secondary.BindPipeline(&kDynamic);
             b.secondary.End();
             EXPECT_FALSE(b.secondary.SetRate(MakeRate(2, 2, kReplace), 3));
         },
         true, RateFrom::kNone, 0, kKeep},
        {"a new recording starts with no rate",
         [](Buffers& b) {
             b.primary.Begin();
             b.primary.SetRate(MakeRate(4, 4, kKeep), 0);
             b.primary.End();
             b.primary.Begin();
             b.primary.BindPipeline(&kDynamic);
         },
         false, RateFrom::kNone, 0, kKeep},
        {"a rate set before a dynamic pipeline is bound holds",
         [](Buffers& b) {
             b.primary.Begin();
             EXPECT_TRUE(b.primary.SetRate(MakeRate(2, 2, kReplace), 0));
             b.primary.BindPipeline(&kDynamic);
         },
         false, RateFrom::kSet, 2, kReplace},
        {"a rate set in the secondary holds for later passes of the recording",
         [](Buffers& b) {
             b.secondary.Begin();
             b.secondary.BindPipeline(&kDynamic);
             b.secondary.SetRate(MakeRate(4, 4, kKeep), 1);
             b.secondary.BindPipeline(&kDynamic);
         },
         true, RateFrom::kSet, 4, kKeep},
        {"a pipeline with its own rate carries it",
         [](Buffers& b) {
             b.primary.Begin();
             b.primary.SetRate(MakeRate(4, 4, kReplace), 0);
             b.primary.BindPipeline(&kStatic2x2);
         },
         false, RateFrom::kPipeline, 2, kKeep},
        {"static state overwrites the set rate for a later dynamic pipeline",
         [](Buffers& b) {
             b.primary.Begin();
             b.primary.SetRate(MakeRate(4, 4, kReplace), 0);
             b.primary.BindPipeline(&kStatic2x2);
             b.primary.BindPipeline(&kDynamic);
         },
         false, RateFrom::kNone, 0, kKeep},
        {"no pipeline the layer saw",
         [](Buffers& b) {
             b.primary.Begin();
             b.primary.SetRate(MakeRate(2, 2, kReplace), 0);
             b.primary.BindPipeline(nullptr);
         },
         false, RateFrom::kNoPipeline, 0, kKeep},
        {"a pass with an attachment names its image",
         [](Buffers& b) {
             b.primary.Begin();
             b.primary.BindPipeline(&kDynamic);
             b.primary.SetRate(MakeRate(1, 1, kReplace), 1);
             b.primary.BeginPass(kPassWithImage);
         },
         false, RateFrom::kSet, 1, kReplace, 0x10},
        {"a secondary continuing the pass names the inherited image, with no rate",
         [](Buffers& b) {
             b.secondary.Begin(&kPassWithImage);
             b.secondary.BindPipeline(&kDynamic);
         },
         true, RateFrom::kNone, 0, kKeep, 0x10},
        {"after the pass ends the draw is in none",
         [](Buffers& b) {
             b.primary.Begin();
             b.primary.BindPipeline(&kStatic2x2);
             b.primary.BeginPass(kPassWithImage);
             b.primary.EndPass();
         },
         false, RateFrom::kPipeline, 2, kKeep},
    };
    return cases;
}

TEST(RecordingState, RateInForceAtADraw) {
    for (const Case& c : Cases()) {
        SCOPED_TRACE(c.name);
        Buffers b;
        c.record(b);
        const RecordingState& drawn = c.drawInSecondary ? b.secondary : b.primary;
        const DrawRate d = drawn.Draw();
        EXPECT_EQ(drawn.Pass() ? drawn.Pass()->view : VK_NULL_HANDLE, View(c.view));
        EXPECT_STREQ(RateFromName(d.from), RateFromName(c.from));
        if (c.from == RateFrom::kSet || c.from == RateFrom::kPipeline) {
            EXPECT_EQ(d.rate.size.width, c.width);
            EXPECT_EQ(d.rate.ops[1], c.op1);
        }
    }
}

TEST(RecordingState, TheSetRateNamesItsCommand) {
    RecordingState s;
    s.Begin();
    s.BindPipeline(&kDynamic);
    s.SetRate(MakeRate(2, 2, kReplace), 4);
    s.SetRate(MakeRate(1, 1, kKeep), 9);
    EXPECT_EQ(s.Draw().setPosition, 9);
    EXPECT_EQ(s.Draw().rate.ops[1], kKeep);
}

TEST(PipelineRateOf, DynamicStateOrTheChainsRateOrFullRate) {
    VkDynamicState dynamicStates[] = {VK_DYNAMIC_STATE_VIEWPORT, VK_DYNAMIC_STATE_FRAGMENT_SHADING_RATE_KHR};
    VkPipelineDynamicStateCreateInfo dyn = {VK_STRUCTURE_TYPE_PIPELINE_DYNAMIC_STATE_CREATE_INFO};
    dyn.dynamicStateCount = 2;
    dyn.pDynamicStates = dynamicStates;
    VkPipelineFragmentShadingRateStateCreateInfoKHR state = {
        VK_STRUCTURE_TYPE_PIPELINE_FRAGMENT_SHADING_RATE_STATE_CREATE_INFO_KHR};
    state.fragmentSize = {2, 1};
    state.combinerOps[1] = kReplace;
    VkPipelineRenderingCreateInfo other = {VK_STRUCTURE_TYPE_PIPELINE_RENDERING_CREATE_INFO, &state};

    VkGraphicsPipelineCreateInfo info = {VK_STRUCTURE_TYPE_GRAPHICS_PIPELINE_CREATE_INFO};
    PipelineRate plain = PipelineRateOf(info);
    EXPECT_FALSE(plain.dynamic);
    EXPECT_EQ(plain.rate.size.width * plain.rate.size.height, 1u);
    EXPECT_EQ(plain.rate.ops[1], kKeep);

    info.pNext = &other;  // found further down the chain
    PipelineRate own = PipelineRateOf(info);
    EXPECT_FALSE(own.dynamic);
    EXPECT_EQ(own.rate.size.width, 2u);
    EXPECT_EQ(own.rate.ops[1], kReplace);

    info.pDynamicState = &dyn;
    EXPECT_TRUE(PipelineRateOf(info).dynamic);
}

}  // namespace
}  // namespace fsr
