// The Star Rail VRS module on the recording next layer, called through its trampolines as the
// game would call them: what reaches the next layer (substitutes, rates, uploads, destroys).

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app/module/zovk_star_rail_vrs_module.h"
#include "tests/support/fake_next_layer.h"
#include "tests/support/served_device.h"
#include "tests/support/star_rail_device.h"
#include "tests/unit/binder/binder_test_support.h"

namespace {

using namespace vulkan::zovk;
using namespace vulkan::zovk::app;
using M = module::ZoVkStarRailVRSModule;
using zovk_test::FakeNextLayer;
using zovk_test::Hex;

constexpr auto kClear = VK_ATTACHMENT_LOAD_OP_CLEAR;
constexpr auto kLoad = VK_ATTACHMENT_LOAD_OP_LOAD;
constexpr auto kDontCare = VK_ATTACHMENT_LOAD_OP_DONT_CARE;

template <typename H>
H Handle(uint64_t value) {
    return reinterpret_cast<H>(static_cast<uintptr_t>(value));
}

// The handle a create of `name` made, `back` calls before the last.
template <typename H>
H Made(const FakeNextLayer& fake, const std::string& name, size_t back = 0) {
    const std::vector<std::string> args = fake.Args(name);
    if (args.size() <= back) return VK_NULL_HANDLE;
    const std::string& text = args[args.size() - 1 - back];
    return Handle<H>(std::stoull(text.substr(text.find("made=") + 5), nullptr, 16));
}

// A Star Rail process whose configuration switches on the VRS module with `params`, and one
// device on the fake; every call goes through the layer's own resolver.
class StarRailVrsModuleTest : public ::testing::Test {
protected:
    M* Serve(const std::string& params = "1920x1080,2400x1080;5;10,12,3000,1;2") {
        auto processor = zovk_test::ServeStarRailVrs(params);
        if (processor == nullptr) {
            return nullptr;
        }
        served_ = std::make_unique<zovk_test::ServedDevice>(fake_, processor);
        return static_cast<M*>(processor->GetVkModule(M::PROCESSOR_MODULE_TYPE));
    }

    template <typename Pfn>
    Pfn Call(const char* name) {
        return served_->Call<Pfn>(name);
    }

    VkRenderPass CreatePass(const zovk_test::ServedDevice::Attachments& attachments) {
        VkRenderPass pass = VK_NULL_HANDLE;
        served_->CreatePass(attachments, &pass);
        return pass;
    }
    VkRenderPass MainPass(VkAttachmentLoadOp op) { return CreatePass(zovk_test::StarRailMainPass(op)); }
    VkRenderPass LightPass(VkAttachmentLoadOp color, VkAttachmentLoadOp depth) {
        return CreatePass(zovk_test::StarRailLightPass(color, depth));
    }
    VkFramebuffer CreateFramebuffer(VkRenderPass pass, uint32_t attachments, uint32_t w = 1920, uint32_t h = 1080) {
        return served_->CreateFramebuffer(pass, attachments, w, h);
    }
    // Main and light passes on both variants, framebuffers on the framebuffer variants; the
    // substitutes of the clear passes and of the framebuffers as the next layer made them.
    void CreateScene() {
        mainClear_ = MainPass(kClear);
        mainSubstitute_ = Made<VkRenderPass>(fake_, "vkCreateRenderPass2");
        mainFbPass_ = MainPass(kDontCare);
        mainFb_ = CreateFramebuffer(mainFbPass_, 5);
        mainFbSubstitute_ = Made<VkFramebuffer>(fake_, "vkCreateFramebuffer");
        lightClear_ = LightPass(kClear, kLoad);
        lightSubstitute_ = Made<VkRenderPass>(fake_, "vkCreateRenderPass2");
        lightFb_ = CreateFramebuffer(LightPass(kDontCare, kDontCare), 2);
        lightFbSubstitute_ = Made<VkFramebuffer>(fake_, "vkCreateFramebuffer");
    }
    // The scene and `level` pushed by the game service, then one present.
    void Present(int level, int sceneId = 1058) {
        zovk_test::PushStarRailScene(level, sceneId);
        VkPresentInfoKHR present{};
        present.sType = VK_STRUCTURE_TYPE_PRESENT_INFO_KHR;
        EXPECT_EQ(Call<PFN_vkQueuePresentKHR>("vkQueuePresentKHR")(fake_.Queue(), &present), VK_SUCCESS);
    }
    // What the next layer was asked to begin; the game's own structures stay as they were.
    std::string BeginPass(VkCommandBuffer cb, VkRenderPass pass, VkFramebuffer fb, uint32_t w = 1920) {
        EXPECT_TRUE(served_->BeginPass(cb, pass, fb, {w, 1080})) << "the game's begin info was written";
        return fake_.Args("vkCmdBeginRenderPass").back();
    }
    std::string BeginSecondary(VkCommandBuffer cb, VkRenderPass pass, VkFramebuffer fb) {
        EXPECT_TRUE(served_->BeginSecondary(cb, pass, fb)) << "the game's inheritance info was written";
        return fake_.Args("vkBeginCommandBuffer").back();
    }
    static std::string Pair(VkRenderPass pass, VkFramebuffer fb) { return "pass=" + Hex(pass) + " framebuffer=" + Hex(fb); }
    // The uploads since the last call, as the template buffer index and the image they fill.
    std::vector<std::string> Uploads() {
        std::vector<std::string> uploads = fake_.Args("vkCmdCopyBufferToImage");
        uploads.erase(uploads.begin(), uploads.begin() + std::min(uploadsSeen_, uploads.size()));
        uploadsSeen_ += uploads.size();
        const std::vector<std::string> buffers = fake_.Args("vkCreateBuffer");
        for (std::string& upload : uploads) {
            const std::string buffer = upload.substr(7, upload.find(' ') - 7);
            for (size_t i = 0; i < buffers.size(); ++i) {
                if (buffers[i].find("made=" + buffer) != std::string::npos) upload = "template " + std::to_string(i);
            }
        }
        return uploads;
    }

    zovk_test::BinderDir binderDir_;  // no game service: the monitor's registration gives up
    FakeNextLayer fake_;
    std::unique_ptr<zovk_test::ServedDevice> served_;
    size_t uploadsSeen_ = 0;
    zovk_test::FakeObject primaryObject_{&fake_.deviceDispatch};
    zovk_test::FakeObject secondaryObject_{&fake_.deviceDispatch};
    VkCommandBuffer primary_ = reinterpret_cast<VkCommandBuffer>(&primaryObject_);
    VkCommandBuffer secondary_ = reinterpret_cast<VkCommandBuffer>(&secondaryObject_);
    VkRenderPass mainClear_{}, mainFbPass_{}, lightClear_{}, mainSubstitute_{}, lightSubstitute_{};
    VkFramebuffer mainFb_{}, lightFb_{}, mainFbSubstitute_{}, lightFbSubstitute_{};
};

}  // namespace

TEST_F(StarRailVrsModuleTest, RecognisesOnlyTheMainAndLightPassShapes) {
    ASSERT_NE(Serve(), nullptr);
    MainPass(kClear);
    MainPass(kDontCare);
    LightPass(kClear, kLoad);
    LightPass(kDontCare, kDontCare);
    EXPECT_EQ(fake_.Calls("vkCreateRenderPass2"), 4);
    // The main formats with a loaded depth, a light pass with cleared depth, other counts.
    CreatePass({{VK_FORMAT_R8G8B8A8_SRGB, kClear}, {VK_FORMAT_R8G8B8A8_UNORM, kClear}, {VK_FORMAT_R8G8B8A8_UNORM, kClear},
                {VK_FORMAT_R8G8B8A8_UNORM, kClear}, {VK_FORMAT_D24_UNORM_S8_UINT, kLoad}});
    LightPass(kClear, kClear);
    CreatePass({{VK_FORMAT_B10G11R11_UFLOAT_PACK32, kClear}});
    EXPECT_EQ(fake_.Calls("vkCreateRenderPass2"), 4);
}

TEST_F(StarRailVrsModuleTest, WaitsForANonZeroTexelSize) {
    fake_.texelSize = {0, 16};
    ASSERT_NE(Serve(), nullptr);
    MainPass(kClear);
    EXPECT_EQ(fake_.Calls("vkCreateRenderPass2"), 0);
    fake_.texelSize = {16, 16};
    MainPass(kClear);  // asked again at the next pass
    EXPECT_EQ(fake_.Calls("vkCreateRenderPass2"), 1);
}

TEST_F(StarRailVrsModuleTest, FramebuffersMakeImagesWhoseFirstUploadsWaitForAPresentOnTheGamesQueue) {
    ASSERT_NE(Serve(), nullptr);
    CreateScene();
    // 1920x1080 and 2400x1080 at texel 16 (integer division), a main and a light image each.
    std::vector<std::string> sizes;
    for (const std::string& image : fake_.Args("vkCreateImage")) sizes.push_back(image.substr(0, image.find(' ')));
    EXPECT_EQ(sizes, (std::vector<std::string>{"120x67", "120x67", "150x67", "150x67"}));
    EXPECT_EQ(fake_.Calls("vkCreateBuffer"), 8) << "two levels, four template buffers per resolution";
    EXPECT_NE(mainFbSubstitute_, VK_NULL_HANDLE);
    EXPECT_NE(lightFbSubstitute_, mainFbSubstitute_);
    CreateFramebuffer(mainFbPass_, 5, 1280, 720);        // not a configured size
    CreateFramebuffer(Handle<VkRenderPass>(0x999), 5);  // not a recognised pass
    EXPECT_EQ(fake_.Calls("vkCreateFramebuffer"), 6) << "4 of the game's, 2 substitutes";
    EXPECT_EQ(fake_.Calls("vkQueueSubmit"), 0) << "nothing is submitted from a create";

    // Each image gets its first template (main 0, light 2) between a transition to the transfer
    // layout and one to the attachment layout, submitted on the queue being presented.
    Present(0);
    EXPECT_EQ(Uploads(), (std::vector<std::string>{"template 0", "template 2", "template 4", "template 6"}));
    EXPECT_EQ(fake_.Calls("vkCmdPipelineBarrier"), 8);
    for (const zovk_test::Event& e : fake_.events) {
        if (e.kind == zovk_test::Event::kCall && (e.name == "vkQueueSubmit" || e.name == "vkQueueWaitIdle")) {
            EXPECT_EQ(e.handle, fake_.Queue());
        }
    }
    EXPECT_EQ(fake_.CallLog().back(), "vkQueuePresentKHR") << "uploaded before the present went on";
}

TEST_F(StarRailVrsModuleTest, ImagesAreRetriedAtEveryFramebufferUntilTheTemplatesExist) {
    ASSERT_NE(Serve("1920x1080"), nullptr);  // no template levels configured
    MainPass(kClear);
    CreateFramebuffer(Handle<VkRenderPass>(0x999), 5);
    CreateFramebuffer(Handle<VkRenderPass>(0x999), 5);
    EXPECT_EQ(fake_.Calls("vkCreateImage"), 2) << "existing images are kept on retry";
    EXPECT_TRUE(Uploads().empty());
}

TEST_F(StarRailVrsModuleTest, PresentsGateOnTheSceneAndUploadTheLevelsPatterns) {
    ASSERT_NE(Serve(), nullptr);
    CreateScene();
    Present(0);  // the first uploads
    Uploads();
    // Scenes 1058 and above 1000000 open the gate, and only while the level is on.
    for (const auto& [scene, level, substituted] : std::vector<std::tuple<int, int, bool>>{
             {1058, 1, true}, {1000000, 1, false}, {1000001, 1, true}, {1058, 0, false}, {1058, 1, true}}) {
        Present(level, scene);
        EXPECT_EQ(BeginPass(primary_, mainClear_, mainFb_), substituted ? Pair(mainSubstitute_, mainFbSubstitute_)
                                                                       : Pair(mainClear_, mainFb_))
            << scene << " " << level;
    }
    EXPECT_EQ(fake_.Calls("vkQueuePresentKHR"), 6);
    // Once a main pass was begun at resolution 0, the level's patterns were uploaded there.
    EXPECT_EQ(Uploads(), (std::vector<std::string>{"template 0", "template 2"}));
    Present(2);
    EXPECT_EQ(Uploads(), (std::vector<std::string>{"template 1", "template 3"}));
    Present(2);
    EXPECT_TRUE(Uploads().empty()) << "nothing changed";
    Present(1);
    EXPECT_EQ(Uploads(), (std::vector<std::string>{"template 0", "template 2"}));
    Present(3);  // applied, with no patterns: nothing uploaded, substitution goes on
    EXPECT_TRUE(Uploads().empty());
    EXPECT_EQ(BeginPass(primary_, mainClear_, mainFb_), Pair(mainSubstitute_, mainFbSubstitute_));
}

TEST_F(StarRailVrsModuleTest, RecordingSwapsHandlesInCopiesAndRatesTheSecondaries) {
    ASSERT_NE(Serve(), nullptr);
    CreateScene();
    VkGraphicsPipelineCreateInfo info{};
    info.sType = VK_STRUCTURE_TYPE_GRAPHICS_PIPELINE_CREATE_INFO;
    info.renderPass = mainFbPass_;
    VkPipeline pipeline = VK_NULL_HANDLE;
    Call<PFN_vkCreateGraphicsPipelines>("vkCreateGraphicsPipelines")(fake_.Device(), VK_NULL_HANDLE, 1, &info,
                                                                     nullptr, &pipeline);
    const VkPipeline substitute = Made<VkPipeline>(fake_, "vkCreateGraphicsPipelines");
    ASSERT_NE(substitute, pipeline);
    Present(1);

    EXPECT_EQ(BeginSecondary(secondary_, mainClear_, mainFb_), Pair(mainSubstitute_, mainFbSubstitute_));
    const auto bind = Call<PFN_vkCmdBindPipeline>("vkCmdBindPipeline");
    bind(secondary_, VK_PIPELINE_BIND_POINT_GRAPHICS, pipeline);
    bind(primary_, VK_PIPELINE_BIND_POINT_GRAPHICS, pipeline);
    EXPECT_EQ(fake_.Args("vkCmdBindPipeline"),
              (std::vector<std::string>{"pipeline=" + Hex(substitute), "pipeline=" + Hex(pipeline)}))
        << "primaries keep the game's pipeline";

    EXPECT_EQ(BeginPass(primary_, mainClear_, mainFb_, 2000), Pair(mainClear_, mainFb_)) << "area not configured";
    EXPECT_EQ(BeginPass(primary_, mainClear_, mainFb_), Pair(mainSubstitute_, mainFbSubstitute_));
    const auto execute = Call<PFN_vkCmdExecuteCommands>("vkCmdExecuteCommands");
    execute(primary_, 0, nullptr);
    EXPECT_EQ(fake_.Calls("vkCmdSetFragmentShadingRateKHR"), 0);
    execute(primary_, 1, &secondary_);
    execute(primary_, 1, &secondary_);  // rated once: the secondary left the set
    const std::vector<std::string> rates = fake_.Log({"vkCmdSetFragmentShadingRateKHR"});
    EXPECT_EQ(rates, std::vector<std::string>{"vkCmdSetFragmentShadingRateKHR 1x1 KEEP,REPLACE"});
    EXPECT_EQ(fake_.events.back().name, "vkCmdExecuteCommands");
    Call<PFN_vkCmdEndRenderPass>("vkCmdEndRenderPass")(primary_);
    EXPECT_EQ(fake_.Calls("vkCmdEndRenderPass"), 1);
}

TEST_F(StarRailVrsModuleTest, LightSecondaryKeepsTheConfiguredDrawAtFullRate) {
    ASSERT_NE(Serve(), nullptr);
    CreateScene();
    Present(1);
    const auto draw = Call<PFN_vkCmdDrawIndexed>("vkCmdDrawIndexed");
    auto record = [&](const std::vector<std::pair<uint32_t, uint32_t>>& draws) {
        fake_.Clear();
        EXPECT_EQ(BeginSecondary(secondary_, lightClear_, lightFb_), Pair(lightSubstitute_, lightFbSubstitute_));
        for (const auto& [indices, instances] : draws) draw(secondary_, indices, instances, 0, 0, 0);
        Call<PFN_vkEndCommandBuffer>("vkEndCommandBuffer")(secondary_);
        std::vector<std::string> log;
        for (const std::string& call : fake_.Log({"vkCmdSetFragmentShadingRateKHR", "vkCmdDrawIndexed"})) {
            log.push_back(call.substr(call.find(' ') + 1));
        }
        return log;
    };
    // Draws 1..14: draw 10 has 2 instances, 11 matches, 14 matches but is outside 10..12.
    std::vector<std::pair<uint32_t, uint32_t>> draws(14, {36, 1});
    draws[9] = {3000, 2};
    draws[10] = {3000, 1};
    draws[13] = {3000, 1};
    std::vector<std::string> expected{"1x1 KEEP,REPLACE"};
    for (int i = 1; i <= 14; ++i) {
        if (i == 11) expected.push_back("1x1 KEEP,KEEP");
        if (i == 12) expected.push_back("1x1 KEEP,REPLACE");
        expected.push_back(draws[i - 1].first == 3000 ? "3000x" + std::to_string(draws[i - 1].second) : "36x1");
    }
    EXPECT_EQ(record(draws), expected);
    // The end of the secondary reset the count: a matching first draw is outside the range,
    // and the rate set last time still counts as in force.
    EXPECT_EQ(record({{3000, 1}}), std::vector<std::string>{"3000x1"});
}

TEST_F(StarRailVrsModuleTest, DestroyHooksAndDeviceDestroyFreeEverythingMade) {
    ASSERT_NE(Serve(), nullptr);
    CreateScene();
    Present(1);
    fake_.Clear();
    Call<PFN_vkDestroyFramebuffer>("vkDestroyFramebuffer")(fake_.Device(), mainFb_, nullptr);
    Call<PFN_vkDestroyRenderPass>("vkDestroyRenderPass")(fake_.Device(), mainClear_, nullptr);
    Call<PFN_vkDestroyPipeline>("vkDestroyPipeline")(fake_.Device(), Handle<VkPipeline>(0x4242), nullptr);
    EXPECT_EQ(fake_.Args("vkDestroyFramebuffer"), (std::vector<std::string>{Hex(mainFbSubstitute_), Hex(mainFb_)}));
    EXPECT_EQ(fake_.Args("vkDestroyRenderPass"), (std::vector<std::string>{Hex(mainSubstitute_), Hex(mainClear_)}));
    EXPECT_EQ(fake_.Args("vkDestroyPipeline"), std::vector<std::string>{"4242"}) << "none of ours";

    // What is left goes before the device (the validation layer's object tracker counts it in
    // every integration run); the module's destructor then finds nothing left.
    fake_.Clear();
    served_->DestroyDevice();
    EXPECT_EQ(fake_.events.back().name, "vkDestroyDevice");
    fake_.Clear();
    served_.reset();  // the module's destructor finds nothing left
    EXPECT_EQ(fake_.CallLog(), std::vector<std::string>{"vkDestroyInstance"});
}

TEST_F(StarRailVrsModuleTest, ManyLevelsMakeABoundedNumberOfTemplates) {
    ASSERT_NE(Serve("1920x1080;5;10,12,3000,1;100000"), nullptr);
    MainPass(kClear);
    CreateFramebuffer(Handle<VkRenderPass>(0x999), 5);
    EXPECT_EQ(fake_.Calls("vkCreateBuffer"), 16);
}

TEST_F(StarRailVrsModuleTest, ALightSecondaryStopsCountingHoweverItsRecordingEnds) {
    ASSERT_NE(Serve(), nullptr);
    CreateScene();
    const auto draw = Call<PFN_vkCmdDrawIndexed>("vkCmdDrawIndexed");
    // Ended while the level is off, freed, reset: afterwards a draw of another command buffer
    // sets no rate.
    const std::vector<std::function<void()>> ends = {
        [&] {
            Present(0);
            Call<PFN_vkEndCommandBuffer>("vkEndCommandBuffer")(secondary_);
        },
        [&] { Call<PFN_vkFreeCommandBuffers>("vkFreeCommandBuffers")(fake_.Device(), VK_NULL_HANDLE, 1, &secondary_); },
        [&] { Call<PFN_vkResetCommandBuffer>("vkResetCommandBuffer")(secondary_, 0); },
    };
    for (size_t i = 0; i < ends.size(); ++i) {
        Present(1);
        BeginSecondary(secondary_, lightClear_, lightFb_);
        ends[i]();
        Present(1);
        fake_.Clear();
        draw(primary_, 36, 1, 0, 0, 0);
        EXPECT_EQ(fake_.Calls("vkCmdSetFragmentShadingRateKHR"), 0) << "way " << i;
    }
}

TEST_F(StarRailVrsModuleTest, ResolutionsAndMemoryThatCannotBeHadLeaveTheRestWorking) {
    // 8x8 is below one texel: only it goes without images.
    ASSERT_NE(Serve("8x8,1920x1080;5;10,12,3000,1;2"), nullptr);
    CreateScene();
    EXPECT_EQ(fake_.Calls("vkCreateImage"), 2);
    EXPECT_EQ(fake_.Calls("vkCreateFramebuffer"), 4) << "the scene's two and their substitutes";
    CreateFramebuffer(mainFbPass_, 5, 8, 8);
    EXPECT_EQ(fake_.Calls("vkCreateFramebuffer"), 5) << "no substitute for the 8x8 one";
}

TEST_F(StarRailVrsModuleTest, ImagesWithoutMemoryAreDestroyedAndNeverUsed) {
    ASSERT_NE(Serve(), nullptr);
    fake_.failNames = {"vkAllocateMemory"};
    CreateScene();
    EXPECT_EQ(fake_.Calls("vkDestroyImage"), fake_.Calls("vkCreateImage"));
    EXPECT_EQ(fake_.Calls("vkCreateImageView"), 0);
    EXPECT_EQ(fake_.Calls("vkCreateFramebuffer"), 2) << "no substitutes";
    Present(1);
    EXPECT_TRUE(Uploads().empty());
    EXPECT_EQ(BeginPass(primary_, mainClear_, mainFb_), Pair(mainClear_, mainFb_));
}

namespace {

class StarRailConformingTest : public StarRailVrsModuleTest {
protected:
    zovk_test::ScopedProperties properties_{"vendor.zovk.vrs.conforming=true\n"};
};

}  // namespace

TEST_F(StarRailConformingTest, RatesWhereSecondariesBeginImagesCoverTheAreaUploadsAreBarrieredNotWaited) {
    ASSERT_NE(Serve(), nullptr);
    CreateScene();
    std::vector<std::string> sizes;
    for (const std::string& image : fake_.Args("vkCreateImage")) sizes.push_back(image.substr(0, image.find(' ')));
    EXPECT_EQ(sizes, (std::vector<std::string>{"120x68", "120x68", "150x68", "150x68"})) << "1080 / 16 rounded up";

    // One submission per resolution, with a fence and never waited for; each image goes from the
    // layout it is in to the transfer layout and back to the attachment layout.
    const std::string transfer = "7", attachment = "1000164003";
    Present(1);
    EXPECT_EQ(Uploads(), (std::vector<std::string>{"template 0", "template 2", "template 4", "template 6"}));
    std::vector<std::string> barriers = fake_.Args("vkCmdPipelineBarrier");
    ASSERT_EQ(barriers.size(), 8u);
    EXPECT_EQ(barriers[0].substr(barriers[0].find(' ') + 1), "0->" + transfer);
    EXPECT_EQ(barriers[1].substr(barriers[1].find(' ') + 1), transfer + "->" + attachment);
    EXPECT_EQ(BeginPass(primary_, mainClear_, mainFb_), Pair(mainSubstitute_, mainFbSubstitute_));
    Present(2);
    EXPECT_EQ(Uploads(), (std::vector<std::string>{"template 1", "template 3"}));
    barriers = fake_.Args("vkCmdPipelineBarrier");
    ASSERT_EQ(barriers.size(), 12u);
    EXPECT_EQ(barriers[8].substr(barriers[8].find(' ') + 1), attachment + "->" + transfer);
    EXPECT_EQ(fake_.Calls("vkQueueSubmit"), 3);
    EXPECT_EQ(fake_.Calls("vkDestroyFence"), 2) << "each submission frees those whose fences have signalled";
    EXPECT_EQ(fake_.Calls("vkQueueWaitIdle"), 0);

    // A redirected secondary gets the attachment rate as it begins, nothing once it has ended.
    fake_.Clear();
    BeginSecondary(secondary_, mainClear_, mainFb_);
    BeginPass(primary_, mainClear_, mainFb_);
    Call<PFN_vkCmdExecuteCommands>("vkCmdExecuteCommands")(primary_, 1, &secondary_);
    EXPECT_EQ(fake_.Log({"vkBeginCommandBuffer", "vkCmdSetFragmentShadingRateKHR", "vkCmdExecuteCommands"}),
              (std::vector<std::string>{"vkBeginCommandBuffer " + Pair(mainSubstitute_, mainFbSubstitute_),
                                        "vkCmdSetFragmentShadingRateKHR 1x1 KEEP,REPLACE", "vkCmdExecuteCommands 1"}));

    // In the light secondary the configured draw (the 11th) runs at full rate, the rest at the attachment rate.
    fake_.Clear();
    BeginSecondary(secondary_, lightClear_, lightFb_);
    for (int i = 1; i <= 14; ++i) Call<PFN_vkCmdDrawIndexed>("vkCmdDrawIndexed")(secondary_, i == 11 ? 3000 : 36, 1, 0, 0, 0);
    std::vector<std::string> expected{"1x1 KEEP,REPLACE"};
    for (int i = 1; i <= 14; ++i) {
        if (i == 11) expected.push_back("1x1 KEEP,KEEP");
        if (i == 12) expected.push_back("1x1 KEEP,REPLACE");
        expected.push_back(i == 11 ? "3000x1" : "36x1");
    }
    std::vector<std::string> recorded;
    for (const std::string& call : fake_.Log({"vkCmdSetFragmentShadingRateKHR", "vkCmdDrawIndexed"})) {
        recorded.push_back(call.substr(call.find(' ') + 1));
    }
    EXPECT_EQ(recorded, expected);

    // The device waits for what is still in flight and frees it.
    fake_.Clear();
    served_->DestroyDevice();
    EXPECT_EQ(fake_.Calls("vkWaitForFences"), 1);
    EXPECT_EQ(fake_.Calls("vkDestroyFence"), 1);
}
