// The path of a hooked call: trampoline, processor, module nodes by priority, the next layer
// of the call's own device; and post chains after the next layer.
#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <string>
#include <vector>

#include "app/module/zovk_star_rail_processor.h"
#include "app/zovk_app_data.h"
#include "app/zovk_hook_lists.h"
#include "app/zovk_module_base.h"
#include "layer/zovk_entry.h"
#include "settings/zovk_settings.h"
#include "tests/support/fake_next_layer.h"

using namespace vulkan::zovk;
using namespace vulkan::zovk::app;
using module::ZoVkNext;
using module::ZoVkPassed;
using T = VkDeviceFunctionTable;
using zovk_test::FakeNextLayer;
using zovk_test::FakeObject;

namespace {

std::vector<std::string> gLog;

#define CHAIN_MODULE_HOOKS(X)          \
    X(Pre, CmdDrawIndexed, priority_)  \
    X(Pre, BeginCommandBuffer, priority_) \
    X(Post, CreateRenderPass, priority_) \
    X(Post, CmdEndRenderPass, priority_) \
    X(Pre, CreateGraphicsPipelines, priority_) \
    X(Post, CreateGraphicsPipelines, priority_)

// A module that logs each visit under its tag and passes the call on, unless told to end it.
class ChainModule : public module::ZoVkModuleBase {
public:
    ChainModule(ZoVkStarRailProcessor* processor, unsigned int id, std::string tag, int32_t priority)
        : ZoVkModuleBase(processor), processor_(processor), id_(id), tag_(std::move(tag)), priority_(priority) {}
    unsigned int GetModuleId() const override { return id_; }
    void OnDeviceDestroy(VkDevice) override { gLog.push_back(tag_ + ":deviceDestroy"); }

    bool end = false;
    bool fail = false;  // throw, as an allocation failure would

private:
    void Log(const std::string& what) { gLog.push_back(tag_ + ":" + what); }

    ZoVkStarRailProcessor* processor_;
    unsigned int id_;
    std::string tag_;
    int32_t priority_;

    ZOVK_MODULE_HOOKS(ChainModule, ZoVkStarRailProcessor, CHAIN_MODULE_HOOKS)
};

ZoVkPassed<void> ChainModule::PreVkCmdDrawIndexed(VkCommandBuffer cb, uint32_t indexCount, uint32_t instanceCount,
                                                  uint32_t firstIndex, int32_t vertexOffset, uint32_t firstInstance,
                                                  ZoVkNext<&T::vkCmdDrawIndexed> next) {
    Log("draw");
    if (fail) throw std::bad_alloc();
    return next(cb, indexCount, instanceCount, firstIndex, vertexOffset, firstInstance);
}
ZoVkPassed<VkResult> ChainModule::PreVkBeginCommandBuffer(VkCommandBuffer cb, const VkCommandBufferBeginInfo* info,
                                                          ZoVkNext<&T::vkBeginCommandBuffer> next) {
    Log("begin");
    return end ? next.End(VK_ERROR_UNKNOWN) : next(cb, info);
}
void ChainModule::PostVkCreateRenderPass(VkDevice, const VkRenderPassCreateInfo*, const VkAllocationCallbacks*,
                                         VkRenderPass* pass, VkResult result) {
    Log("createdPass:" + std::to_string(result) + ":" + zovk_test::Hex(*pass));
    if (fail) throw std::bad_alloc();
}
void ChainModule::PostVkCmdEndRenderPass(VkCommandBuffer) { Log("endedPass"); }
ZoVkPassed<VkResult> ChainModule::PreVkCreateGraphicsPipelines(VkDevice device, VkPipelineCache cache, uint32_t count,
                                                               const VkGraphicsPipelineCreateInfo* infos,
                                                               const VkAllocationCallbacks* allocator,
                                                               VkPipeline* pipelines,
                                                               ZoVkNext<&T::vkCreateGraphicsPipelines> next) {
    Log("pipelines");
    return next(device, cache, count, infos, allocator, pipelines);
}
void ChainModule::PostVkCreateGraphicsPipelines(VkDevice, VkPipelineCache, uint32_t, const VkGraphicsPipelineCreateInfo*,
                                                const VkAllocationCallbacks*, VkPipeline* pipelines, VkResult result) {
    Log("pipelinesCreated:" + std::to_string(result) + ":" + (pipelines[0] != VK_NULL_HANDLE ? "made" : "missing"));
}

// Star Rail devices on the recording fake, with a processor whose modules are added by the test.
class FunctorChainTest : public ::testing::Test {
protected:
    void SetUp() override {
        gLog.clear();
        ZoVkSettings* settings = ZoVkSettings::GetInstance();
        settings->SetApplicationType(vulkan::ZOVK_APPLICATION_STAR_RAIL);
        auto* data = new ZoVkStarRailData();
        data->moduleIds = {1, 2, 4};
        settings->SetProcessorData(data);
        settings->SetHookFlags(kHookAll);
        processor_ = std::make_shared<ZoVkStarRailProcessor>();
    }
    void TearDown() override {
        ZoVkDestroyDevice(Device(), nullptr);
        ZoVkDestroyDevice(reinterpret_cast<VkDevice>(&other_), nullptr);
        processor_->OnEnd();
    }

    ChainModule* AddModule(unsigned int id, const std::string& tag, int32_t priority) {
        auto* module = new ChainModule(processor_.get(), id, tag, priority);
        processor_->RegisterModule(module);
        return module;
    }
    // Records a device with the processor (or none): the modules hang their nodes in.
    void CreateDevice(FakeObject& device, bool withProcessor = true) {
        ZoVkContextManager::GetInstance()->InitDeviceInfo(
            fake_.PhysicalDevice(), reinterpret_cast<VkDevice>(&device), FakeNextLayer::GetDeviceProcAddr,
            VK_API_VERSION_1_2, withProcessor ? processor_ : nullptr, true);
    }
    template <typename Pfn>
    Pfn Resolve(const char* name, VkDevice device) {
        return reinterpret_cast<Pfn>(ZoVkGetDeviceProcAddr(device, name));
    }
    // Draws through the trampoline and returns the log of the modules and the next layer.
    std::vector<std::string> Draw(VkCommandBuffer cb) {
        gLog.clear();
        fake_.Clear();
        Resolve<PFN_vkCmdDrawIndexed>("vkCmdDrawIndexed", Device())(cb, 3, 1, 0, 0, 0);
        for (const std::string& call : fake_.Log({"vkCmdDrawIndexed"})) gLog.push_back(call);
        return gLog;
    }
    VkResult Begin() {
        VkCommandBufferBeginInfo info{VK_STRUCTURE_TYPE_COMMAND_BUFFER_BEGIN_INFO, nullptr, 0, nullptr};
        return Resolve<PFN_vkBeginCommandBuffer>("vkBeginCommandBuffer", Device())(fake_.CommandBuffer(), &info);
    }

    VkDevice Device() { return fake_.Device(); }

    FakeNextLayer fake_;
    int otherKey_ = 0;
    FakeObject other_{&otherKey_};
    FakeObject otherCommandBuffer_{&otherKey_};
    std::shared_ptr<ZoVkStarRailProcessor> processor_;
};

const std::string kNextDraw = "vkCmdDrawIndexed 3x1";

}  // namespace

TEST_F(FunctorChainTest, WithoutModulesEveryCallReachesTheNextLayerUnchanged) {
    CreateDevice(fake_.device);
    // No module entered a trampoline: the application gets the next layer's own function.
    EXPECT_EQ(Resolve<PFN_vkVoidFunction>("vkCmdDrawIndexed", Device()), fake_.Function("vkCmdDrawIndexed"));
    // Through the processor's member, the tail alone calls the next layer.
    processor_->VkCmdDrawIndexedHooked(*ZoVkContextManager::GetInstance()->GetDeviceInfo(fake_.device.dispatch),
                                       fake_.CommandBuffer(), 3, 1, 0, 0, 0);
    EXPECT_EQ(fake_.Log({"vkCmdDrawIndexed"}), std::vector<std::string>{kNextDraw});
}

TEST_F(FunctorChainTest, NodesRunByPriorityThenInRegistrationOrderThenTheNextLayer) {
    AddModule(4, "late", 1000);
    AddModule(1, "early", 0);
    AddModule(2, "second", 0);
    CreateDevice(fake_.device);
    EXPECT_EQ(Draw(fake_.CommandBuffer()),
              (std::vector<std::string>{"early:draw", "second:draw", "late:draw", kNextDraw}));
}

TEST_F(FunctorChainTest, ANodeThatEndsTheCallCutsTheRestAndGivesItsResult) {
    AddModule(1, "first", 0)->end = true;
    AddModule(2, "second", 5);
    CreateDevice(fake_.device);
    EXPECT_EQ(Begin(), VK_ERROR_UNKNOWN);
    EXPECT_EQ(gLog, std::vector<std::string>{"first:begin"});
    EXPECT_EQ(fake_.Calls("vkBeginCommandBuffer"), 0);
}

TEST_F(FunctorChainTest, PostChainsRunAfterTheNextLayerWithItsResultWhichTheApplicationGets) {
    AddModule(1, "a", 0);
    AddModule(2, "b", 0);
    CreateDevice(fake_.device);
    VkRenderPassCreateInfo info{};
    info.sType = VK_STRUCTURE_TYPE_RENDER_PASS_CREATE_INFO;
    VkRenderPass pass = VK_NULL_HANDLE;
    fake_.failNames = {"vkCreateRenderPass"};
    EXPECT_EQ(Resolve<PFN_vkCreateRenderPass>("vkCreateRenderPass", Device())(Device(), &info, nullptr, &pass),
              VK_ERROR_OUT_OF_DEVICE_MEMORY);
    EXPECT_EQ(gLog, (std::vector<std::string>{"a:createdPass:-2:0", "b:createdPass:-2:0"}));

    // The pass has ended below before any node hears of it.
    gLog.clear();
    fake_.Clear();
    Resolve<PFN_vkCmdEndRenderPass>("vkCmdEndRenderPass", Device())(fake_.CommandBuffer());
    EXPECT_EQ(fake_.Calls("vkCmdEndRenderPass"), 1);
    EXPECT_EQ(gLog, (std::vector<std::string>{"a:endedPass", "b:endedPass"}));

    // Pipelines: the pre chain, the next layer, then the post chain with the pre chain's result.
    gLog.clear();
    VkGraphicsPipelineCreateInfo pipeline{};
    pipeline.sType = VK_STRUCTURE_TYPE_GRAPHICS_PIPELINE_CREATE_INFO;
    VkPipeline made = VK_NULL_HANDLE;
    EXPECT_EQ(Resolve<PFN_vkCreateGraphicsPipelines>("vkCreateGraphicsPipelines", Device())(
                  Device(), VK_NULL_HANDLE, 1, &pipeline, nullptr, &made),
              VK_SUCCESS);
    EXPECT_EQ(gLog, (std::vector<std::string>{"a:pipelines", "b:pipelines", "a:pipelinesCreated:0:made",
                                              "b:pipelinesCreated:0:made"}));
}

TEST_F(FunctorChainTest, AModuleThatThrowsIsSkippedAndTheCallGoesOnUnchanged) {
    AddModule(1, "failing", 0)->fail = true;
    AddModule(2, "after", 5);
    CreateDevice(fake_.device);
    EXPECT_EQ(Draw(fake_.CommandBuffer()), (std::vector<std::string>{"failing:draw", "after:draw", kNextDraw}));
    VkRenderPassCreateInfo info{};
    info.sType = VK_STRUCTURE_TYPE_RENDER_PASS_CREATE_INFO;
    VkRenderPass pass = VK_NULL_HANDLE;
    gLog.clear();
    EXPECT_EQ(Resolve<PFN_vkCreateRenderPass>("vkCreateRenderPass", Device())(Device(), &info, nullptr, &pass),
              VK_SUCCESS);
    ASSERT_EQ(gLog.size(), 2u);
    EXPECT_EQ(gLog[1], "after:createdPass:0:" + zovk_test::Hex(pass));
    EXPECT_EQ(fake_.Calls("vkCreateRenderPass"), 1);
}

TEST_F(FunctorChainTest, CallsReachTheNextLayerOfTheirOwnDevice) {
    AddModule(1, "m", 0);
    CreateDevice(fake_.device);
    // A second device on the same processor, whose next layer has no vkCmdDrawIndexed: the
    // processor's latest record is now this one, and modules hang their nodes in again.
    fake_.nullNames = {"vkCmdDrawIndexed"};
    CreateDevice(other_);
    fake_.nullNames.clear();
    EXPECT_EQ(Draw(fake_.CommandBuffer()), (std::vector<std::string>{"m:draw", kNextDraw}));
    EXPECT_EQ(Draw(reinterpret_cast<VkCommandBuffer>(&otherCommandBuffer_)), std::vector<std::string>{"m:draw"});
    // Both chains stayed finite (a node linked to itself would loop here).
    EXPECT_EQ(Draw(fake_.CommandBuffer()), (std::vector<std::string>{"m:draw", kNextDraw}));
}

TEST_F(FunctorChainTest, DevicesWithoutProcessorAndNullHandlesReachNoNode) {
    AddModule(1, "m", 0);
    CreateDevice(fake_.device);
    CreateDevice(other_, false);
    gLog.clear();
    const auto draw = Resolve<PFN_vkCmdDrawIndexed>("vkCmdDrawIndexed", Device());
    draw(reinterpret_cast<VkCommandBuffer>(&otherCommandBuffer_), 3, 1, 0, 0, 0);
    EXPECT_TRUE(gLog.empty());
    EXPECT_EQ(fake_.Calls("vkCmdDrawIndexed"), 1);
    // A null handle ends the call as a success, reaching nothing.
    EXPECT_EQ(Resolve<PFN_vkBeginCommandBuffer>("vkBeginCommandBuffer", Device())(VK_NULL_HANDLE, nullptr), VK_SUCCESS);
    draw(VK_NULL_HANDLE, 3, 1, 0, 0, 0);
    EXPECT_TRUE(gLog.empty());
    EXPECT_EQ(fake_.Calls("vkCmdDrawIndexed"), 1);
}

TEST_F(FunctorChainTest, UnregisteringRestoresTheChainAndIgnoresNodesNeverJoined) {
    ChainModule* kept = AddModule(1, "kept", 0);
    ChainModule* gone = AddModule(2, "gone", 0);
    ChainModule* never = new ChainModule(processor_.get(), 4, "never", 0);
    CreateDevice(fake_.device);
    never->UnregisterModuleDeviceFunctors();  // its nodes were never filled
    delete never;
    processor_->UnRegisterModule(gone);
    EXPECT_EQ(Draw(fake_.CommandBuffer()), (std::vector<std::string>{"kept:draw", kNextDraw}));
    processor_->UnRegisterModule(kept);
    EXPECT_EQ(Draw(fake_.CommandBuffer()), std::vector<std::string>{kNextDraw});
}

TEST_F(FunctorChainTest, LockedLookupsGoThroughTheRegistry) {
    AddModule(1, "m", 0);
    ZoVkSettings::GetInstance()->GetProcessorData()->useLock = true;
    CreateDevice(fake_.device);
    EXPECT_TRUE(ZoVkContextManager::GetInstance()->LockLookups());
    EXPECT_EQ(ZoVkContextManager::GetInstance()->FindFirstRecentDevice(fake_.device.dispatch), nullptr);
    EXPECT_EQ(Draw(fake_.CommandBuffer()), (std::vector<std::string>{"m:draw", kNextDraw}));
}
