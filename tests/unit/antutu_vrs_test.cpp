// The AnTuTu processor and VRS module on a recording next layer: the configuration, the pass
// classes, the step machine, the sampling of the VRS switch and the pipeline copies.
#include <gtest/gtest.h>

#include <json/value.h>

#include <array>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "app/module/zovk_antutu_processor.h"
#include "app/module/zovk_antutu_vrs_module.h"
#include "app/module/zovk_antutu_vrs_module_data.h"
#include "app/zovk_app_data.h"
#include "app/zovk_factory.h"
#include "layer/zovk_records.h"
#include "settings/zovk_app_info_monitor.h"
#include "settings/zovk_settings.h"
#include "tests/support/fake_next_layer.h"
#include "tests/support/served_device.h"
#include "tests/unit/binder/binder_test_support.h"

using namespace vulkan::zovk;
using namespace vulkan::zovk::app;
using module::ZoVkAntutuVRSModule;
using module::ZoVkAntutuVRSModuleData;

namespace {

constexpr char kPackage[] = "com.antutu.benchmark.full:ue";
// Codes 3 4 5 6 9 10: every step has a size of its own (1x2 2x1 2x2 2x4 4x2 4x4).
constexpr char kSizeRange[] = "2000;3500;1000;2000;3;4;5;6;9;10";

Json::Value SizeRange(const std::string& value) {
    Json::Value config(Json::objectValue);
    config["vrs_SizeRange"] = value;
    return config;
}

std::string Size(const VkExtent2D& e) { return std::to_string(e.width) + "x" + std::to_string(e.height); }

// The AnTuTu process with the configuration `sizeRange` accepted, its processor made by the
// factory and given a device on the recording fake.
class AntutuVrsTest : public ::testing::Test {
protected:
    void SetUp() override {
        Json::Value config = SizeRange(kSizeRange);
        config["xrender_BaseInfo"] = "1";
        auto processor = zovk_test::ServedDevice::ServeApplication(kPackage, new ZoVkAntutuData(), config);
        ASSERT_NE(processor, nullptr);
        ASSERT_NE(processor->GetVkModule(ZoVkAntutuVRSModule::PROCESSOR_MODULE_TYPE), nullptr);
        served_ = std::make_unique<zovk_test::ServedDevice>(fake_, processor);
        processor_ = processor.get();
        for (const char* name : {"vkCreateGraphicsPipelines", "vkCmdBeginRenderPass", "vkCreateRenderPass",
                                 "vkQueuePresentKHR"}) {
            EXPECT_NE(served_->Call<PFN_vkVoidFunction>(name), fake_.Function(name)) << name << " is not hooked";
        }
        // Only the conforming mode needs the recording's calls: otherwise they stay direct.
        const bool conforming = ZoVkSettings::GetInstance()->IsVrsConforming();
        for (const char* name : {"vkCmdBindPipeline", "vkBeginCommandBuffer", "vkFreeCommandBuffers"}) {
            EXPECT_EQ(served_->Call<PFN_vkVoidFunction>(name) != fake_.Function(name), conforming) << name;
        }
    }

    static void PushVrs(int value) {
        android::ZoVkAppInfoMonitor::GetInstance()->UpdateAppInfo("6 " + std::string(kPackage) + " " +
                                                                  std::to_string(value));
    }
    void Present(int count) {
        for (int i = 0; i < count; ++i) {
            EXPECT_EQ(served_->Call<PFN_vkQueuePresentKHR>("vkQueuePresentKHR")(fake_.Queue(), nullptr), VK_SUCCESS);
        }
    }
    // VRS on and sampled.
    void SwitchOn() {
        PushVrs(1);
        Present(ZoVkAntutuVRSModule::kSamplingPeriod);
    }

    VkRenderPass Pass(const zovk_test::ServedDevice::Attachments& attachments, bool fail = false) {
        fake_.failNames = fail ? std::set<std::string>{"vkCreateRenderPass"} : std::set<std::string>{};
        VkRenderPass pass = VK_NULL_HANDLE;
        EXPECT_EQ(served_->CreatePass(attachments, &pass), fail ? VK_ERROR_OUT_OF_DEVICE_MEMORY : VK_SUCCESS);
        fake_.failNames.clear();
        return pass;
    }
    VkResult CreatePass(const VkRenderPassCreateInfo* info, VkRenderPass* pass) {
        return served_->Call<PFN_vkCreateRenderPass>("vkCreateRenderPass")(fake_.Device(), info, nullptr, pass);
    }
    void BeginOnly(VkRenderPass pass, uint32_t width = 2400, uint32_t height = 1200) {
        VkRenderPassBeginInfo begin{};
        begin.sType = VK_STRUCTURE_TYPE_RENDER_PASS_BEGIN_INFO;
        begin.renderPass = pass;
        begin.renderArea.extent = {width, height};
        served_->Call<PFN_vkCmdBeginRenderPass>("vkCmdBeginRenderPass")(fake_.CommandBuffer(), &begin,
                                                                        VK_SUBPASS_CONTENTS_INLINE);
    }
    // The rate recorded before the begin reached the next layer, or "none".
    std::string Begin(VkRenderPass pass, uint32_t width = 2400, uint32_t height = 1200) {
        fake_.Clear();
        BeginOnly(pass, width, height);
        const std::vector<std::string> log = fake_.Log({"vkCmdSetFragmentShadingRateKHR", "vkCmdBeginRenderPass"});
        if (log.size() == 1) {
            return "none";
        }
        EXPECT_EQ(log.size(), 2u);
        EXPECT_EQ(log.back().rfind("vkCmdBeginRenderPass", 0), 0u);
        const std::string rate = log.front().substr(log.front().find(' ') + 1);
        EXPECT_EQ(rate.substr(rate.find(' ') + 1), "KEEP,KEEP");
        return rate.substr(0, rate.find(' '));
    }
    std::vector<std::string> Begins(const std::vector<VkRenderPass>& passes) {
        std::vector<std::string> rates;
        for (VkRenderPass pass : passes) {
            rates.push_back(Begin(pass));
        }
        return rates;
    }

    zovk_test::BinderDir binderDir_;  // no service: the monitor's registration just gives up
    zovk_test::FakeNextLayer fake_;
    std::unique_ptr<zovk_test::ServedDevice> served_;
    ZoVkProcessorBase* processor_ = nullptr;  // owned by the instance record
};

constexpr auto kClear = VK_ATTACHMENT_LOAD_OP_CLEAR;
constexpr auto kLoad = VK_ATTACHMENT_LOAD_OP_LOAD;
constexpr auto kHdr = VK_FORMAT_B10G11R11_UFLOAT_PACK32;
constexpr auto kHalf = VK_FORMAT_R16G16B16A16_SFLOAT;
constexpr auto kDepth = VK_FORMAT_D24_UNORM_S8_UINT;

}  // namespace

// ---- configuration ---------------------------------------------------------------------------

TEST(AntutuSizeRange, FourOrTenIntegersOtherwiseEveryDefault) {
    using Codes = std::array<int32_t, 6>;
    const Codes defaults{0, 5, 0, 0, 3, 5};
    struct Case {
        Json::Value config;
        std::array<int32_t, 4> bounds;
        Codes codes;
    };
    Json::Value notString(Json::objectValue);
    notString["vrs_SizeRange"] = 2000;
    for (const Case& c : {
             Case{SizeRange("1;2;3;4"), {1, 2, 3, 4}, defaults},
             Case{SizeRange("1;2;3;4;5;6;7;8;9;10"), {1, 2, 3, 4}, {5, 6, 7, 8, 9, 10}},
             Case{SizeRange("1;2;3;4;5;6;x7;8;9;10"), {2000, 3500, 1000, 2000}, defaults},
             Case{SizeRange("1;2;3;-4"), {2000, 3500, 1000, 2000}, defaults},
             Case{SizeRange("1;2;3;4;5"), {2000, 3500, 1000, 2000}, defaults},
             Case{SizeRange("1;2;3"), {2000, 3500, 1000, 2000}, defaults},
             Case{SizeRange("1;2;3;2147483648"), {2000, 3500, 1000, 2000}, defaults},
             Case{SizeRange(""), {2000, 3500, 1000, 2000}, defaults},
             Case{notString, {2000, 3500, 1000, 2000}, defaults},
             Case{Json::Value(), {2000, 3500, 1000, 2000}, defaults},
         }) {
        const ZoVkAntutuVRSModuleData d(c.config);
        const std::string what = c.config.toStyledString();
        EXPECT_TRUE(d.valid) << what;
        EXPECT_EQ((std::array<int32_t, 4>{d.widthMin, d.widthMax, d.heightMin, d.heightMax}), c.bounds) << what;
        EXPECT_EQ(d.rateCodes, c.codes) << what;
    }
}

TEST(AntutuFragmentSize, CodeTableWithSevenAndEightAtFullRate) {
    const std::vector<std::pair<int, std::string>> table = {
        {3, "1x2"}, {4, "2x1"}, {5, "2x2"}, {6, "2x4"}, {7, "1x1"}, {8, "1x1"}, {9, "4x2"}, {10, "4x4"},
        {0, "1x1"}, {1, "1x1"}, {2, "1x1"}, {11, "1x1"}, {-5, "1x1"}};
    for (const auto& [code, size] : table) {
        EXPECT_EQ(Size(ZoVkAntutuVRSModule::GetFramentSizeFromIntConfig(code)), size) << code;
    }
}

// ---- render passes and rates -----------------------------------------------------------------

TEST_F(AntutuVrsTest, NoRateBeforeTheSwitchIsSampledAndNoneAfterItIsSampledOff) {
    const VkRenderPass hdr = Pass({{kHdr, kClear}, {kDepth, kLoad}});
    PushVrs(1);
    Present(119);
    EXPECT_EQ(Begin(hdr), "none");
    Present(1);
    EXPECT_EQ(Begin(hdr), "1x2");
    // Exactly 2000 wide or 1000 high is outside the range.
    EXPECT_EQ(Begin(hdr, 2000, 1200), "none");
    EXPECT_EQ(Begin(hdr, 2400, 1000), "none");

    PushVrs(0);
    Present(119);
    EXPECT_EQ(Begin(hdr), "1x2");
    Present(1);
    EXPECT_EQ(Begin(hdr), "none");
}

TEST_F(AntutuVrsTest, PassesAreClassifiedByTheirAttachmentsWhenCreated) {
    const VkRenderPass rgba = Pass({{VK_FORMAT_R8G8B8A8_UNORM, kClear}});
    const VkRenderPass depth = Pass({{kDepth, kClear}});
    const VkRenderPass depth16 = Pass({{VK_FORMAT_D16_UNORM, kLoad}});
    const VkRenderPass bloom = Pass({{kHalf, kClear}});                        // one attachment, not listed
    const VkRenderPass loadedHdr = Pass({{kHdr, kLoad}, {kDepth, kLoad}});     // not a clear-colour pair
    const VkRenderPass otherDepth = Pass({{kHalf, kClear}, {VK_FORMAT_D32_SFLOAT, kLoad}});
    const VkRenderPass three = Pass({{kHdr, kClear}, {kDepth, kLoad}, {kDepth, kLoad}});
    const VkRenderPass failed = Pass({{kHdr, kClear}, {kDepth, kLoad}}, true);
    VkRenderPass noArray = VK_NULL_HANDLE;
    {
        VkRenderPassCreateInfo info{};
        info.sType = VK_STRUCTURE_TYPE_RENDER_PASS_CREATE_INFO;
        info.attachmentCount = 1;
        EXPECT_EQ(CreatePass(&info, &noArray), VK_SUCCESS);
    }
    const VkRenderPass hdr = Pass({{kHdr, kClear}, {kDepth, kLoad}});
    const VkRenderPass half = Pass({{kHalf, kLoad}, {kDepth, kClear}});  // load ops do not matter here
    const std::vector<VkRenderPass> others = {bloom, loadedHdr, otherDepth, three, failed, noArray};
    SwitchOn();

    // Step 0 takes only clear-colour passes; step 1 then only half-float ones.
    for (VkRenderPass pass : {rgba, depth, depth16, half, loadedHdr, otherDepth, three, failed, noArray}) {
        EXPECT_EQ(Begin(pass), "1x1");
    }
    EXPECT_EQ(Begin(hdr), "1x2");
    for (VkRenderPass pass : {rgba, bloom, three, failed}) {
        EXPECT_EQ(Begin(pass), "1x1");
    }
    EXPECT_EQ(Begin(half), "2x1");
    // Step 2 leaves single-attachment passes at full rate and gives every unclassified one the fifth size.
    EXPECT_EQ(Begins({rgba, depth, depth16}), (std::vector<std::string>(3, "1x1")));
    EXPECT_EQ(Begins(others), (std::vector<std::string>(others.size(), "4x2")));

    // Once the device goes, its passes are forgotten.
    processor_->PreDestroyDevice(fake_.Device(), nullptr);
    EXPECT_EQ(Begins({rgba, half}), (std::vector<std::string>{"4x2", "4x2"}));
}

TEST_F(AntutuVrsTest, StepMachineWalksTheBenchmarkSequenceToItsLastStepAndStays) {
    const VkRenderPass a = Pass({{kDepth, kClear}});
    const VkRenderPass b = Pass({{kHdr, kClear}, {kDepth, kLoad}});
    const VkRenderPass c = Pass({{kHalf, kClear}, {kDepth, kLoad}});
    const VkRenderPass o = Pass({{kHalf, kClear}});
    SwitchOn();
    const std::vector<VkRenderPass> frame = {a, b, b, c, c, o, b, o, c, c, o, a};
    // Steps: 0 -> 1 at the first B, 2 at the first C, 3 at the B after it, 4 at the next C.
    EXPECT_EQ(Begins(frame), (std::vector<std::string>{"1x1", "1x2", "1x2", "2x1", "2x1", "4x2", "2x2", "4x2",
                                                        "2x4", "2x4", "4x4", "1x1"}));
    for (int again = 0; again < 2; ++again) {
        EXPECT_EQ(Begins(frame), (std::vector<std::string>{"1x1", "4x4", "4x4", "2x4", "2x4", "4x4", "4x4", "4x4",
                                                            "2x4", "2x4", "4x4", "1x1"}));
    }
}

TEST_F(AntutuVrsTest, PassesBeginsAndPresentsOnSeveralThreads) {
    const VkRenderPass b = Pass({{kHdr, kClear}, {kDepth, kLoad}});
    const VkRenderPass c = Pass({{kHalf, kClear}, {kDepth, kLoad}});
    SwitchOn();
    fake_.Clear();
    constexpr int kBegins = 400;
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        for (int i = 0; i < 100; ++i) {
            Pass({{kHdr, kClear}, {kDepth, kLoad}});
        }
    });
    threads.emplace_back([&] { Present(2 * ZoVkAntutuVRSModule::kSamplingPeriod); });
    for (VkRenderPass pass : {b, c}) {
        threads.emplace_back([&, pass] {
            for (int i = 0; i < kBegins; ++i) {
                BeginOnly(pass);
            }
        });
    }
    for (std::thread& t : threads) {
        t.join();
    }
    // The switch stayed on through both samplings: one rate before every begin.
    EXPECT_EQ(fake_.Calls("vkCmdBeginRenderPass"), 2 * kBegins);
    EXPECT_EQ(fake_.Calls("vkCmdSetFragmentShadingRateKHR"), 2 * kBegins);
}

// ---- pipelines -------------------------------------------------------------------------------

TEST_F(AntutuVrsTest, PipelinesWithADynamicStateBlockGetTheRateOnceInACopy) {
    const VkDynamicState viewport[2] = {VK_DYNAMIC_STATE_VIEWPORT, VK_DYNAMIC_STATE_SCISSOR};
    const VkDynamicState already[2] = {VK_DYNAMIC_STATE_FRAGMENT_SHADING_RATE_KHR, VK_DYNAMIC_STATE_VIEWPORT};
    VkPipelineDynamicStateCreateInfo blocks[3] = {};
    for (auto& block : blocks) {
        block.sType = VK_STRUCTURE_TYPE_PIPELINE_DYNAMIC_STATE_CREATE_INFO;
    }
    blocks[0].dynamicStateCount = 2;
    blocks[0].pDynamicStates = viewport;
    blocks[1].dynamicStateCount = 2;
    blocks[1].pDynamicStates = already;
    // blocks[2]: empty
    VkGraphicsPipelineCreateInfo infos[4] = {};
    for (uint32_t i = 0; i < 4; ++i) {
        infos[i].sType = VK_STRUCTURE_TYPE_GRAPHICS_PIPELINE_CREATE_INFO;
        infos[i].subpass = i;
        infos[i].pDynamicState = i == 0 ? nullptr : &blocks[i - 1];
    }
    VkPipeline pipelines[4] = {};
    std::vector<const VkGraphicsPipelineCreateInfo*> seen;
    std::vector<std::vector<VkDynamicState>> states;
    fake_.onPipeline = [&](const VkGraphicsPipelineCreateInfo& info) {
        seen.push_back(&info);
        const VkPipelineDynamicStateCreateInfo* block = info.pDynamicState;
        states.emplace_back();
        if (block != nullptr && block->pDynamicStates != nullptr) {
            states.back().assign(block->pDynamicStates, block->pDynamicStates + block->dynamicStateCount);
        }
        EXPECT_EQ(info.subpass, seen.size() - 1);
        EXPECT_EQ(block == nullptr, seen.size() == 1) << "a block appears only where the application gave one";
    };
    const auto create = served_->Call<PFN_vkCreateGraphicsPipelines>("vkCreateGraphicsPipelines");
    fake_.failNames = {"vkCreateGraphicsPipelines"};
    EXPECT_EQ(create(fake_.Device(), VK_NULL_HANDLE, 4, infos, nullptr, pipelines), VK_ERROR_OUT_OF_DEVICE_MEMORY);

    ASSERT_EQ(seen.size(), 4u);
    EXPECT_NE(seen[0], &infos[0]) << "the application's array went down, not a copy";
    const VkDynamicState rate = VK_DYNAMIC_STATE_FRAGMENT_SHADING_RATE_KHR;
    EXPECT_EQ(states[1], (std::vector<VkDynamicState>{VK_DYNAMIC_STATE_VIEWPORT, VK_DYNAMIC_STATE_SCISSOR, rate}));
    EXPECT_EQ(states[2], (std::vector<VkDynamicState>{rate, VK_DYNAMIC_STATE_VIEWPORT}));
    EXPECT_EQ(states[3], (std::vector<VkDynamicState>{rate}));
    // The application's structures are as they were.
    EXPECT_EQ(infos[1].pDynamicState, &blocks[0]);
    EXPECT_EQ(blocks[0].dynamicStateCount, 2u);
    EXPECT_EQ(blocks[0].pDynamicStates, viewport);
    EXPECT_EQ(blocks[2].dynamicStateCount, 0u);
    EXPECT_EQ(blocks[2].pDynamicStates, nullptr);

    // Nothing to copy: handed on as they came.
    fake_.failNames.clear();
    seen.clear();
    EXPECT_EQ(create(fake_.Device(), VK_NULL_HANDLE, 0, infos, nullptr, pipelines), VK_SUCCESS);
    EXPECT_EQ(create(fake_.Device(), VK_NULL_HANDLE, 2, nullptr, nullptr, pipelines), VK_SUCCESS);
    EXPECT_TRUE(seen.empty());
}

// ---- the conforming mode ---------------------------------------------------------------------

namespace {

class AntutuConformingTest : public AntutuVrsTest {
protected:
    // What reached the next layer since the last call: rates by size, "begin", and binds of
    // the pipeline that takes the rate ("bind") or carries its own ("own").
    std::vector<std::string> Recorded(VkPipeline own) {
        std::vector<std::string> out;
        for (const std::string& call :
             fake_.Log({"vkCmdSetFragmentShadingRateKHR", "vkCmdBindPipeline", "vkCmdBeginRenderPass"})) {
            const std::string args = call.substr(call.find(' ') + 1);
            out.push_back(call.rfind("vkCmdBeginRenderPass", 0) == 0 ? "begin"
                          : call.rfind("vkCmdBindPipeline", 0) == 0  ? (args == "pipeline=" + zovk_test::Hex(own) ? "own" : "bind")
                                                                     : args.substr(0, args.find(' ')));
        }
        fake_.Clear();
        return out;
    }

    zovk_test::ScopedProperties properties_{"vendor.zovk.vrs.conforming=true\n"};
};

}  // namespace

TEST_F(AntutuConformingTest, EveryRecordingHasItsPassRateInForceWhereAPipelineTakesIt) {
    const VkRenderPass b = Pass({{kHdr, kClear}, {kDepth, kLoad}});
    const VkDynamicState viewport = VK_DYNAMIC_STATE_VIEWPORT;
    VkPipelineDynamicStateCreateInfo block{};
    block.sType = VK_STRUCTURE_TYPE_PIPELINE_DYNAMIC_STATE_CREATE_INFO;
    block.dynamicStateCount = 1;
    block.pDynamicStates = &viewport;
    VkGraphicsPipelineCreateInfo infos[2] = {};
    infos[0].sType = infos[1].sType = VK_STRUCTURE_TYPE_GRAPHICS_PIPELINE_CREATE_INFO;
    infos[0].pDynamicState = &block;
    VkPipeline pipelines[2] = {};
    ASSERT_EQ(served_->Call<PFN_vkCreateGraphicsPipelines>("vkCreateGraphicsPipelines")(
                  fake_.Device(), VK_NULL_HANDLE, 2, infos, nullptr, pipelines),
              VK_SUCCESS);
    const auto bind = [&](VkCommandBuffer cb, VkPipeline p) {
        served_->Call<PFN_vkCmdBindPipeline>("vkCmdBindPipeline")(cb, VK_PIPELINE_BIND_POINT_GRAPHICS, p);
    };
    const auto beginRecording = [&](VkCommandBuffer cb) {
        VkCommandBufferBeginInfo info{};
        info.sType = VK_STRUCTURE_TYPE_COMMAND_BUFFER_BEGIN_INFO;
        served_->Call<PFN_vkBeginCommandBuffer>("vkBeginCommandBuffer")(cb, &info);
    };
    const VkCommandBuffer cb = fake_.CommandBuffer();
    const VkPipeline takes = pipelines[0], own = pipelines[1];
    fake_.Clear();

    // Before the switch is sampled: 1x1 at the first bind, and again after a pipeline of its own rate.
    beginRecording(cb);
    BeginOnly(b);
    bind(cb, takes);
    bind(cb, takes);
    bind(cb, own);
    bind(cb, takes);
    EXPECT_EQ(Recorded(own), (std::vector<std::string>{"begin", "bind", "1x1", "bind", "own", "bind", "1x1"}));

    // On: the chosen rate before a large pass; a small pass after it gets 1x1 back before it begins.
    SwitchOn();
    beginRecording(cb);
    BeginOnly(b);
    bind(cb, takes);
    BeginOnly(b, 1000, 500);
    bind(cb, takes);
    EXPECT_EQ(Recorded(own), (std::vector<std::string>{"1x2", "begin", "bind", "1x1", "begin", "bind"}));

    // A secondary inherits nothing; a new recording starts from nothing.
    zovk_test::FakeObject secondaryObject{&fake_.deviceDispatch};
    const auto secondary = reinterpret_cast<VkCommandBuffer>(&secondaryObject);
    beginRecording(secondary);
    bind(secondary, takes);
    beginRecording(cb);
    bind(cb, takes);
    EXPECT_EQ(Recorded(own), (std::vector<std::string>{"bind", "1x1", "bind", "1x1"}));
}
