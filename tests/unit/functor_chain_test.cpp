// The path of a hooked call: trampoline, processor, module nodes by priority, tail, next
// layer; and post chains after the next layer.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "app/module/zovk_star_rail_processor.h"
#include "app/zovk_app_data.h"
#include "app/zovk_module_base.h"
#include "layer/zovk_entry.h"
#include "settings/zovk_settings.h"

using namespace vulkan::zovk;
using namespace vulkan::zovk::app;
using module::ZoVkModuleBase;
using T = VkDeviceFunctionTable;

namespace {

std::vector<std::string> gLog;
VkResult gNextResult = VK_SUCCESS;
const auto kPipeline = reinterpret_cast<VkPipeline>(uintptr_t{0x77});

void VKAPI_CALL NextCmdDrawIndexed(VkCommandBuffer, uint32_t indexCount, uint32_t, uint32_t, int32_t, uint32_t) {
    gLog.push_back("next:draw:" + std::to_string(indexCount));
}
void VKAPI_CALL NextCmdEndRenderPass(VkCommandBuffer) { gLog.push_back("next:endRenderPass"); }
VkResult VKAPI_CALL NextCreateRenderPass(VkDevice, const VkRenderPassCreateInfo*, const VkAllocationCallbacks*,
                                         VkRenderPass* pRenderPass) {
    gLog.push_back("next:createRenderPass");
    *pRenderPass = reinterpret_cast<VkRenderPass>(uintptr_t{0x1234});
    return gNextResult;
}
VkResult VKAPI_CALL NextBeginCommandBuffer(VkCommandBuffer, const VkCommandBufferBeginInfo*) {
    gLog.push_back("next:begin");
    return gNextResult;
}
VkResult VKAPI_CALL NextCreateGraphicsPipelines(VkDevice, VkPipelineCache, uint32_t count,
                                                const VkGraphicsPipelineCreateInfo*, const VkAllocationCallbacks*,
                                                VkPipeline* pPipelines) {
    gLog.push_back("next:createGraphicsPipelines");
    for (uint32_t i = 0; i < count; ++i) {
        pPipelines[i] = kPipeline;
    }
    return gNextResult;
}
void VKAPI_CALL NextDestroyDevice(VkDevice, const VkAllocationCallbacks*) { gLog.push_back("next:destroyDevice"); }

PFN_vkVoidFunction VKAPI_CALL NextGetDeviceProcAddr(VkDevice, const char* name) {
    static const std::map<std::string, PFN_vkVoidFunction> functions = {
        {"vkCmdDrawIndexed", reinterpret_cast<PFN_vkVoidFunction>(NextCmdDrawIndexed)},
        {"vkCmdEndRenderPass", reinterpret_cast<PFN_vkVoidFunction>(NextCmdEndRenderPass)},
        {"vkCreateRenderPass", reinterpret_cast<PFN_vkVoidFunction>(NextCreateRenderPass)},
        {"vkBeginCommandBuffer", reinterpret_cast<PFN_vkVoidFunction>(NextBeginCommandBuffer)},
        {"vkCreateGraphicsPipelines", reinterpret_cast<PFN_vkVoidFunction>(NextCreateGraphicsPipelines)},
        {"vkDestroyDevice", reinterpret_cast<PFN_vkVoidFunction>(NextDestroyDevice)},
    };
    const auto it = functions.find(name);
    return it == functions.end() ? nullptr : it->second;
}

// A module that hooks a few calls, logs each visit under its tag and, unless told to
// stop, passes the call on.
class ChainModule : public ZoVkModuleBase {
public:
    using DrawNode = module::ZoVkPreFunctor<&T::vkCmdDrawIndexed>;
    using BeginNode = module::ZoVkPreFunctor<&T::vkBeginCommandBuffer>;
    using CreatePassNode = module::ZoVkPostFunctor<&T::vkCreateRenderPass>;
    using EndPassNode = module::ZoVkPostFunctor<&T::vkCmdEndRenderPass>;
    using PipelinesNode = module::ZoVkPreFunctor<&T::vkCreateGraphicsPipelines>;
    using PostPipelinesNode = module::ZoVkPostFunctor<&T::vkCreateGraphicsPipelines>;

    ChainModule(ZoVkStarRailProcessor* processor, unsigned int id, std::string tag, int32_t priority)
        : ZoVkModuleBase(processor), processor_(processor), id_(id), tag_(std::move(tag)), priority_(priority) {}

    unsigned int GetModuleId() const override { return id_; }

    void RegisterModuleVkDeviceHooks() override {
        SetHook<&T::vkCmdDrawIndexed, &ZoVkStarRailProcessor::VkCmdDrawIndexedHooked>("vkCmdDrawIndexed");
        SetHook<&T::vkBeginCommandBuffer, &ZoVkStarRailProcessor::VkBeginCommandBufferHooked>("vkBeginCommandBuffer");
        SetHook<&T::vkCreateRenderPass, &ZoVkStarRailProcessor::VkCreateRenderPassHooked>("vkCreateRenderPass");
        SetHook<&T::vkCmdEndRenderPass, &ZoVkStarRailProcessor::VkCmdEndRenderPassHooked>("vkCmdEndRenderPass");
        SetHook<&T::vkCreateGraphicsPipelines, &ZoVkStarRailProcessor::VkCreateGraphicsPipelinesHooked>(
            "vkCreateGraphicsPipelines");
    }

    void RegisterModuleDeviceFunctors() override {
        module::FillFunctor(draw_, this, &DrawNode::Hooked<ChainModule, &ChainModule::Draw>, priority_);
        processor_->cmdDrawIndexed.Insert(&draw_);
        module::FillFunctor(begin_, this, &BeginNode::Hooked<ChainModule, &ChainModule::Begin>, priority_);
        processor_->beginCommandBuffer.Insert(&begin_);
        module::FillFunctor(createPass_, this, &CreatePassNode::Hooked<ChainModule, &ChainModule::CreatedPass>,
                            priority_);
        processor_->postCreateRenderPass.Insert(&createPass_);
        module::FillFunctor(endPass_, this, &EndPassNode::Hooked<ChainModule, &ChainModule::EndedPass>, priority_);
        processor_->cmdEndRenderPass.Insert(&endPass_);
        module::FillFunctor(pipelines_, this, &PipelinesNode::Hooked<ChainModule, &ChainModule::Pipelines>,
                            priority_);
        processor_->createGraphicsPipelines.Insert(&pipelines_);
        module::FillFunctor(postPipelines_, this,
                            &PostPipelinesNode::Hooked<ChainModule, &ChainModule::PipelinesCreated>, priority_);
        processor_->postCreateGraphicsPipelines.Insert(&postPipelines_);
    }

    void UnregisterModuleDeviceFunctors() override {
        processor_->cmdDrawIndexed.Remove(&draw_);
        processor_->beginCommandBuffer.Remove(&begin_);
        processor_->postCreateRenderPass.Remove(&createPass_);
        processor_->cmdEndRenderPass.Remove(&endPass_);
        processor_->createGraphicsPipelines.Remove(&pipelines_);
        processor_->postCreateGraphicsPipelines.Remove(&postPipelines_);
    }

    void Draw(VkCommandBuffer cb, uint32_t indexCount, uint32_t instanceCount, uint32_t firstIndex,
              int32_t vertexOffset, uint32_t firstInstance) {
        gLog.push_back(tag_ + ":draw");
        if (!stop) {
            draw_.next->Call(cb, indexCount, instanceCount, firstIndex, vertexOffset, firstInstance);
        }
    }
    VkResult Begin(VkCommandBuffer cb, const VkCommandBufferBeginInfo* info) {
        gLog.push_back(tag_ + ":begin");
        return stop ? VK_ERROR_UNKNOWN : begin_.next->Call(cb, info);
    }
    void CreatedPass(VkDevice device, const VkRenderPassCreateInfo* info, const VkAllocationCallbacks* allocator,
                     VkRenderPass* pass, VkResult result) {
        gLog.push_back(tag_ + ":createdPass:" + std::to_string(result) + ":" +
                       std::to_string(reinterpret_cast<uintptr_t>(*pass)));
        createPass_.next->Call(device, info, allocator, pass, result);
    }
    void EndedPass(VkCommandBuffer cb) {
        gLog.push_back(tag_ + ":endedPass");
        endPass_.next->Call(cb);
    }
    VkResult Pipelines(VkDevice device, VkPipelineCache cache, uint32_t count,
                       const VkGraphicsPipelineCreateInfo* infos, const VkAllocationCallbacks* allocator,
                       VkPipeline* pipelines) {
        gLog.push_back(tag_ + ":pipelines");
        return pipelines_.next->Call(device, cache, count, infos, allocator, pipelines);
    }
    void PipelinesCreated(VkDevice device, VkPipelineCache cache, uint32_t count,
                          const VkGraphicsPipelineCreateInfo* infos, const VkAllocationCallbacks* allocator,
                          VkPipeline* pipelines, VkResult result) {
        gLog.push_back(tag_ + ":pipelinesCreated:" + std::to_string(result) + ":" +
                       (pipelines[0] == kPipeline ? "made" : "missing"));
        postPipelines_.next->Call(device, cache, count, infos, allocator, pipelines, result);
    }

    void OnDeviceDestroy(VkDevice) override { gLog.push_back(tag_ + ":deviceDestroy"); }

    bool stop = false;

private:
    template <auto Slot, auto Member>
    void SetHook(const char* name) {
        processor_->SetDeviceHookFunction(name, ZoVkStarRailProcessor::Trampoline<Slot, Member>());
    }

    ZoVkStarRailProcessor* processor_;
    unsigned int id_;
    std::string tag_;
    int32_t priority_;
    DrawNode draw_;
    BeginNode begin_;
    CreatePassNode createPass_;
    EndPassNode endPass_;
    PipelinesNode pipelines_;
    PostPipelinesNode postPipelines_;
};

struct FakeHandle {
    void* dispatch;
};

class FunctorChainTest : public ::testing::Test {
protected:
    void SetUp() override {
        gLog.clear();
        gNextResult = VK_SUCCESS;
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
        if (processor_) {
            processor_->OnEnd();
        }
    }

    ChainModule* AddModule(unsigned int id, const std::string& tag, int32_t priority) {
        auto* module = new ChainModule(processor_.get(), id, tag, priority);
        processor_->RegisterModule(module);
        return module;
    }

    // Records the device with the processor: tails are built, then module nodes hang in.
    void CreateDevice() {
        ZoVkContextManager::GetInstance()->InitDeviceInfo(reinterpret_cast<VkPhysicalDevice>(&physical_), Device(),
                                                          NextGetDeviceProcAddr, VK_API_VERSION_1_2, processor_,
                                                          true);
    }

    template <typename Pfn>
    Pfn Resolve(const char* name, VkDevice device) {
        return reinterpret_cast<Pfn>(ZoVkGetDeviceProcAddr(device, name));
    }
    template <typename Pfn>
    Pfn Resolve(const char* name) {
        return Resolve<Pfn>(name, Device());
    }

    VkDevice Device() { return reinterpret_cast<VkDevice>(&device_); }
    VkCommandBuffer CommandBuffer() { return reinterpret_cast<VkCommandBuffer>(&commandBuffer_); }

    int instanceKey_ = 0;
    int deviceKey_ = 0;
    FakeHandle physical_{&instanceKey_};
    FakeHandle device_{&deviceKey_};
    FakeHandle commandBuffer_{&deviceKey_};
    std::shared_ptr<ZoVkStarRailProcessor> processor_;
};

TEST_F(FunctorChainTest, WithoutModulesEveryCallReachesTheNextLayerUnchanged) {
    CreateDevice();
    // No module entered a trampoline: the application gets the next layer's own functions.
    EXPECT_EQ(Resolve<PFN_vkCmdDrawIndexed>("vkCmdDrawIndexed"), &NextCmdDrawIndexed);

    // The processor's own calls, as a trampoline makes them.
    processor_->VkCmdDrawIndexedHooked(CommandBuffer(), 36, 1, 0, 0, 0);
    gNextResult = VK_ERROR_DEVICE_LOST;
    EXPECT_EQ(processor_->VkBeginCommandBufferHooked(CommandBuffer(), nullptr), VK_ERROR_DEVICE_LOST);
    VkRenderPass pass = VK_NULL_HANDLE;
    EXPECT_EQ(processor_->VkCreateRenderPassHooked(Device(), nullptr, nullptr, &pass), VK_ERROR_DEVICE_LOST);
    EXPECT_EQ(gLog, (std::vector<std::string>{"next:draw:36", "next:begin", "next:createRenderPass"}));
}

TEST_F(FunctorChainTest, NodesRunByPriorityThenTheTailWhateverTheRegistrationOrder) {
    for (const bool highFirst : {false, true}) {
        SetUp();
        if (highFirst) {
            AddModule(2, "p1000", 1000);
            AddModule(1, "p0", 0);
        } else {
            AddModule(1, "p0", 0);
            AddModule(2, "p1000", 1000);
        }
        CreateDevice();
        Resolve<PFN_vkCmdDrawIndexed>("vkCmdDrawIndexed")(CommandBuffer(), 6, 1, 0, 0, 0);
        EXPECT_EQ(gLog, (std::vector<std::string>{"p0:draw", "p1000:draw", "next:draw:6"})) << highFirst;
        TearDown();
    }
}

TEST_F(FunctorChainTest, EqualPrioritiesRunInRegistrationOrder) {
    AddModule(2, "second-id-first", 5);
    AddModule(1, "first-id-second", 5);
    AddModule(4, "low", -1);
    CreateDevice();
    Resolve<PFN_vkCmdDrawIndexed>("vkCmdDrawIndexed")(CommandBuffer(), 3, 1, 0, 0, 0);
    EXPECT_EQ(gLog, (std::vector<std::string>{"low:draw", "second-id-first:draw", "first-id-second:draw",
                                              "next:draw:3"}));
}

TEST_F(FunctorChainTest, ANodeThatDoesNotCallOnEndsTheCall) {
    ChainModule* first = AddModule(1, "first", 0);
    AddModule(2, "second", 10);
    CreateDevice();
    first->stop = true;
    Resolve<PFN_vkCmdDrawIndexed>("vkCmdDrawIndexed")(CommandBuffer(), 3, 1, 0, 0, 0);
    EXPECT_EQ(Resolve<PFN_vkBeginCommandBuffer>("vkBeginCommandBuffer")(CommandBuffer(), nullptr), VK_ERROR_UNKNOWN);
    EXPECT_EQ(gLog, (std::vector<std::string>{"first:draw", "first:begin"}));
}

TEST_F(FunctorChainTest, PostChainSeesTheNextLayersResultAndTheApplicationGetsIt) {
    AddModule(1, "m", 0);
    CreateDevice();
    gNextResult = VK_ERROR_OUT_OF_HOST_MEMORY;
    VkRenderPass pass = VK_NULL_HANDLE;
    const VkResult result =
        Resolve<PFN_vkCreateRenderPass>("vkCreateRenderPass")(Device(), nullptr, nullptr, &pass);
    EXPECT_EQ(result, VK_ERROR_OUT_OF_HOST_MEMORY);
    EXPECT_EQ(gLog, (std::vector<std::string>{"next:createRenderPass",
                                              "m:createdPass:" + std::to_string(VK_ERROR_OUT_OF_HOST_MEMORY) +
                                                  ":" + std::to_string(0x1234)}));
}

TEST_F(FunctorChainTest, EndRenderPassReachesTheNextLayerBeforeAnyNode) {
    AddModule(1, "a", 0);
    AddModule(2, "b", 1);
    CreateDevice();
    Resolve<PFN_vkCmdEndRenderPass>("vkCmdEndRenderPass")(CommandBuffer());
    EXPECT_EQ(gLog, (std::vector<std::string>{"next:endRenderPass", "a:endedPass", "b:endedPass"}));
}

TEST_F(FunctorChainTest, GraphicsPipelinesRunThePreChainThenThePostChainWithItsResult) {
    AddModule(1, "m", 0);
    CreateDevice();
    gNextResult = VK_PIPELINE_COMPILE_REQUIRED;
    VkGraphicsPipelineCreateInfo info{};
    info.sType = VK_STRUCTURE_TYPE_GRAPHICS_PIPELINE_CREATE_INFO;
    VkPipeline pipeline = VK_NULL_HANDLE;
    const VkResult result = Resolve<PFN_vkCreateGraphicsPipelines>("vkCreateGraphicsPipelines")(
        Device(), VK_NULL_HANDLE, 1, &info, nullptr, &pipeline);
    EXPECT_EQ(result, VK_PIPELINE_COMPILE_REQUIRED);
    EXPECT_EQ(gLog, (std::vector<std::string>{"m:pipelines", "next:createGraphicsPipelines",
                                              "m:pipelinesCreated:" + std::to_string(VK_PIPELINE_COMPILE_REQUIRED) +
                                                  ":made"}));
}

TEST_F(FunctorChainTest, ADeviceWithoutProcessorNeverReachesANode) {
    AddModule(1, "m", 0);
    CreateDevice();
    const auto trampoline = Resolve<PFN_vkCmdDrawIndexed>("vkCmdDrawIndexed");

    int otherKey = 0;
    FakeHandle other{&otherKey};
    FakeHandle otherCommandBuffer{&otherKey};
    ZoVkContextManager::GetInstance()->InitDeviceInfo(reinterpret_cast<VkPhysicalDevice>(&physical_),
                                                      reinterpret_cast<VkDevice>(&other), NextGetDeviceProcAddr,
                                                      VK_API_VERSION_1_2, nullptr, true);
    ZoVkContextManager::GetInstance()->GetDeviceInfoWithLock(&otherKey)->functions.vkCmdDrawIndexed =
        NextCmdDrawIndexed;
    trampoline(reinterpret_cast<VkCommandBuffer>(&otherCommandBuffer), 9, 1, 0, 0, 0);
    EXPECT_EQ(gLog, (std::vector<std::string>{"next:draw:9"}));
    ZoVkDestroyDevice(reinterpret_cast<VkDevice>(&other), nullptr);
}

TEST_F(FunctorChainTest, ANullHandleEndsTheCallWithSuccess) {
    AddModule(1, "m", 0);
    CreateDevice();
    EXPECT_EQ(Resolve<PFN_vkBeginCommandBuffer>("vkBeginCommandBuffer")(VK_NULL_HANDLE, nullptr), VK_SUCCESS);
    EXPECT_TRUE(gLog.empty());
}

TEST_F(FunctorChainTest, UnregisteringRestoresTheChainAndIgnoresNodesNeverFilled) {
    AddModule(1, "m", 0);
    CreateDevice();
    ChainModule::DrawNode neverFilled;
    processor_->cmdDrawIndexed.Remove(&neverFilled);
    ASSERT_NE(processor_->cmdDrawIndexed.head, &processor_->cmdDrawIndexed.tail);

    processor_->OnEnd();
    EXPECT_EQ(processor_->cmdDrawIndexed.head, &processor_->cmdDrawIndexed.tail);
    EXPECT_EQ(processor_->postCreateRenderPass.head, &module::sPostDummy<&T::vkCreateRenderPass>);
    processor_->VkCmdDrawIndexedHooked(CommandBuffer(), 1, 1, 0, 0, 0);
    EXPECT_EQ(gLog, (std::vector<std::string>{"next:draw:1"}));
}

TEST_F(FunctorChainTest, ASecondDeviceOnTheSameProcessorKeepsEveryChainFinite) {
    AddModule(1, "m", 0);
    CreateDevice();
    int otherKey = 0;
    FakeHandle other{&otherKey};
    ZoVkContextManager::GetInstance()->InitDeviceInfo(reinterpret_cast<VkPhysicalDevice>(&physical_),
                                                      reinterpret_cast<VkDevice>(&other), NextGetDeviceProcAddr,
                                                      VK_API_VERSION_1_2, processor_, true);
    // The module's nodes hang in again: each runs once, and every chain still ends.
    VkRenderPass pass = VK_NULL_HANDLE;
    Resolve<PFN_vkCreateRenderPass>("vkCreateRenderPass")(Device(), nullptr, nullptr, &pass);
    Resolve<PFN_vkCmdEndRenderPass>("vkCmdEndRenderPass")(CommandBuffer());
    Resolve<PFN_vkCmdDrawIndexed>("vkCmdDrawIndexed")(CommandBuffer(), 3, 1, 0, 0, 0);
    EXPECT_EQ(gLog, (std::vector<std::string>{"next:createRenderPass", "m:createdPass:0:" + std::to_string(0x1234),
                                              "next:endRenderPass", "m:endedPass", "m:draw", "next:draw:3"}));
    gLog.clear();
    ZoVkDestroyDevice(reinterpret_cast<VkDevice>(&other), nullptr);
    EXPECT_EQ(gLog, (std::vector<std::string>{"m:deviceDestroy", "next:destroyDevice"}));
}

}  // namespace
