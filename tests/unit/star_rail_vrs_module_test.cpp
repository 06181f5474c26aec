// The Star Rail VRS module on a recording next layer: which passes it recognises, what it
// substitutes and uploads, the present step, the recording state machine and the clean-up.
#include <json/json.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app/module/zovk_star_rail_vrs_module.h"
#include "app/zovk_app_data.h"
#include "layer/zovk_device_features.h"
#include "layer/zovk_records.h"
#include "settings/zovk_app_info_monitor.h"
#include "settings/zovk_settings.h"
#include "tests/unit/binder/binder_test_support.h"

namespace {

using vulkan::zovk::ZoVkDeviceInfo;
using vulkan::zovk::ZoVkInstanceInfo;
using vulkan::zovk::ZoVkSettings;
using vulkan::zovk::app::ZoVkStarRailData;
using vulkan::zovk::app::ZoVkStarRailProcessor;
using vulkan::zovk::app::module::ZoVkStarRailVRSModule;
using vulkan::zovk::app::module::ZoVkStarRailVRSModuleData;
using M = ZoVkStarRailVRSModule;

struct Dispatchable {
    void* dispatch = nullptr;
};

// What the next layer saw, in order, as short strings ("vkCmdSetFragmentShadingRateKHR:KEEP,REPLACE").
struct Fake {
    std::vector<std::string> log;
    uint64_t nextHandle = 0x1000;
    VkExtent2D texel{16, 16};
    std::vector<unsigned char> mapped = std::vector<unsigned char>(1 << 20);
    std::vector<std::unique_ptr<Dispatchable>> objects;
    VkRenderPassBeginInfo begun{};
    VkCommandBufferInheritanceInfo inherited{};
    VkPipeline bound = VK_NULL_HANDLE;
    std::vector<std::pair<uint64_t, uint64_t>> copies;  // buffer, image

    template <typename H>
    VkResult Make(const char* name, H* out) {
        log.push_back(name);
        *out = reinterpret_cast<H>(static_cast<uintptr_t>(nextHandle++));
        return VK_SUCCESS;
    }
    size_t Count(const std::string& prefix) const {
        return std::count_if(log.begin(), log.end(), [&](const std::string& l) { return l.rfind(prefix, 0) == 0; });
    }
};
Fake* g;

template <typename H>
uint64_t N(H h) {
    return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(h));
}
template <typename H>
H Handle(uint64_t v) {
    return reinterpret_cast<H>(static_cast<uintptr_t>(v));
}

// A zeroed Vulkan structure of the given type.
template <typename S>
S Info(VkStructureType type) {
    S s{};
    s.sType = type;
    return s;
}

const char* Op(VkFragmentShadingRateCombinerOpKHR op) {
    return op == VK_FRAGMENT_SHADING_RATE_COMBINER_OP_KEEP_KHR ? "KEEP" : "REPLACE";
}

// clang-format off
void VKAPI_CALL Properties2(VkPhysicalDevice, VkPhysicalDeviceProperties2* p) {
    auto* rate = static_cast<VkPhysicalDeviceFragmentShadingRatePropertiesKHR*>(p->pNext);
    rate->maxFragmentShadingRateAttachmentTexelSize = g->texel;
}
void VKAPI_CALL MemoryProperties(VkPhysicalDevice, VkPhysicalDeviceMemoryProperties* p) {
    *p = {};
    p->memoryTypeCount = 1;
    p->memoryTypes[0].propertyFlags = VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT | VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT |
                                      VK_MEMORY_PROPERTY_HOST_COHERENT_BIT;
}
void VKAPI_CALL Families(VkPhysicalDevice, uint32_t* n, VkQueueFamilyProperties* p) {
    if (p != nullptr) p[0] = {VK_QUEUE_GRAPHICS_BIT, 1, 0, {1, 1, 1}};
    *n = 1;
}
VkResult VKAPI_CALL SetLoaderData(VkDevice, void*) { return VK_SUCCESS; }
VkResult VKAPI_CALL CreateRenderPass2(VkDevice, const VkRenderPassCreateInfo2*, const VkAllocationCallbacks*, VkRenderPass* o) { return g->Make("vkCreateRenderPass2", o); }
VkResult VKAPI_CALL FakeCreateFramebuffer(VkDevice, const VkFramebufferCreateInfo*, const VkAllocationCallbacks*, VkFramebuffer* o) { return g->Make("vkCreateFramebuffer", o); }
VkResult VKAPI_CALL CreatePipelines(VkDevice, VkPipelineCache, uint32_t, const VkGraphicsPipelineCreateInfo*, const VkAllocationCallbacks*, VkPipeline* o) { return g->Make("vkCreateGraphicsPipelines", o); }
VkResult VKAPI_CALL CreateImage(VkDevice, const VkImageCreateInfo* i, const VkAllocationCallbacks*, VkImage* o) {
    g->log.push_back("image " + std::to_string(i->extent.width) + "x" + std::to_string(i->extent.height));
    return g->Make("vkCreateImage", o);
}
VkResult VKAPI_CALL CreateView(VkDevice, const VkImageViewCreateInfo*, const VkAllocationCallbacks*, VkImageView* o) { return g->Make("vkCreateImageView", o); }
VkResult VKAPI_CALL CreateBuffer(VkDevice, const VkBufferCreateInfo*, const VkAllocationCallbacks*, VkBuffer* o) { return g->Make("vkCreateBuffer", o); }
void VKAPI_CALL ImageRequirements(VkDevice, VkImage, VkMemoryRequirements* r) { *r = {256, 16, 1}; }
void VKAPI_CALL BufferRequirements(VkDevice, VkBuffer, VkMemoryRequirements* r) { *r = {256, 16, 1}; }
VkResult VKAPI_CALL Allocate(VkDevice, const VkMemoryAllocateInfo*, const VkAllocationCallbacks*, VkDeviceMemory* o) { return g->Make("vkAllocateMemory", o); }
VkResult VKAPI_CALL BindImage(VkDevice, VkImage, VkDeviceMemory, VkDeviceSize) { return VK_SUCCESS; }
VkResult VKAPI_CALL BindBuffer(VkDevice, VkBuffer, VkDeviceMemory, VkDeviceSize) { return VK_SUCCESS; }
VkResult VKAPI_CALL Map(VkDevice, VkDeviceMemory, VkDeviceSize, VkDeviceSize, VkMemoryMapFlags, void** p) { *p = g->mapped.data(); return VK_SUCCESS; }
void VKAPI_CALL Unmap(VkDevice, VkDeviceMemory) {}
VkResult VKAPI_CALL CreatePool(VkDevice, const VkCommandPoolCreateInfo*, const VkAllocationCallbacks*, VkCommandPool* o) { return g->Make("vkCreateCommandPool", o); }
VkResult VKAPI_CALL AllocateCommandBuffers(VkDevice, const VkCommandBufferAllocateInfo*, VkCommandBuffer* o) {
    g->objects.push_back(std::make_unique<Dispatchable>());
    *o = reinterpret_cast<VkCommandBuffer>(g->objects.back().get());
    return VK_SUCCESS;
}
void VKAPI_CALL FreeCommandBuffers(VkDevice, VkCommandPool, uint32_t, const VkCommandBuffer*) {}
VkResult VKAPI_CALL Begin(VkCommandBuffer, const VkCommandBufferBeginInfo* b) {
    if (b->pInheritanceInfo != nullptr) g->inherited = *b->pInheritanceInfo;
    g->log.push_back("vkBeginCommandBuffer");
    return VK_SUCCESS;
}
VkResult VKAPI_CALL End(VkCommandBuffer) { g->log.push_back("vkEndCommandBuffer"); return VK_SUCCESS; }
void VKAPI_CALL GetQueue(VkDevice, uint32_t, uint32_t, VkQueue* q) {
    g->objects.push_back(std::make_unique<Dispatchable>());
    *q = reinterpret_cast<VkQueue>(g->objects.back().get());
}
VkResult VKAPI_CALL Submit(VkQueue, uint32_t, const VkSubmitInfo*, VkFence) { return VK_SUCCESS; }
VkResult VKAPI_CALL WaitIdle(VkQueue) { g->log.push_back("vkQueueWaitIdle"); return VK_SUCCESS; }
void VKAPI_CALL Barrier(VkCommandBuffer, VkPipelineStageFlags, VkPipelineStageFlags, VkDependencyFlags, uint32_t, const VkMemoryBarrier*, uint32_t, const VkBufferMemoryBarrier*, uint32_t, const VkImageMemoryBarrier*) { g->log.push_back("vkCmdPipelineBarrier"); }
void VKAPI_CALL Copy(VkCommandBuffer, VkBuffer b, VkImage i, VkImageLayout, uint32_t, const VkBufferImageCopy*) { g->copies.emplace_back(N(b), N(i)); }
void VKAPI_CALL SetRate(VkCommandBuffer, const VkExtent2D*, const VkFragmentShadingRateCombinerOpKHR ops[2]) {
    g->log.push_back(std::string("rate:") + Op(ops[0]) + "," + Op(ops[1]));
}
void VKAPI_CALL FakeBeginPass(VkCommandBuffer, const VkRenderPassBeginInfo* b, VkSubpassContents) { g->begun = *b; }
void VKAPI_CALL EndPass(VkCommandBuffer) {}
void VKAPI_CALL Bind(VkCommandBuffer, VkPipelineBindPoint, VkPipeline p) { g->bound = p; }
void VKAPI_CALL Execute(VkCommandBuffer, uint32_t, const VkCommandBuffer*) { g->log.push_back("vkCmdExecuteCommands"); }
void VKAPI_CALL Draw(VkCommandBuffer, uint32_t, uint32_t, uint32_t, int32_t, uint32_t) { g->log.push_back("draw"); }
VkResult VKAPI_CALL FakePresent(VkQueue, const VkPresentInfoKHR*) { g->log.push_back("vkQueuePresentKHR"); return VK_SUCCESS; }
template <typename H> void VKAPI_CALL Destroy(VkDevice, H h, const VkAllocationCallbacks*) { g->log.push_back("destroy " + std::to_string(N(h))); }
// clang-format on

VkAttachmentDescription Attachment(VkFormat format, VkAttachmentLoadOp loadOp) {
    VkAttachmentDescription a{};
    a.format = format;
    a.samples = VK_SAMPLE_COUNT_1_BIT;
    a.loadOp = loadOp;
    a.finalLayout = VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL;
    return a;
}

constexpr auto kClear = VK_ATTACHMENT_LOAD_OP_CLEAR;
constexpr auto kLoad = VK_ATTACHMENT_LOAD_OP_LOAD;
constexpr auto kDontCare = VK_ATTACHMENT_LOAD_OP_DONT_CARE;

// The module of a Star Rail processor whose records point at the fake; configured with
// `params` ("vrs_Params") and switched on for the scene gate and `level` where asked.
class StarRailVrsModuleTest : public ::testing::Test {
protected:
    void SetUp() override {
        g = &fake_;
        instance_.functions.vkGetPhysicalDeviceProperties2 = Properties2;
        instance_.functions.vkGetPhysicalDeviceMemoryProperties = MemoryProperties;
        instance_.functions.vkGetPhysicalDeviceQueueFamilyProperties = Families;
        device_.device = Handle<VkDevice>(0xD);
        device_.physicalDevice = Handle<VkPhysicalDevice>(0xF);
        device_.setDeviceLoaderData = SetLoaderData;
        auto& f = device_.functions;
        f.vkCreateRenderPass2 = CreateRenderPass2;
        f.vkCreateFramebuffer = FakeCreateFramebuffer;
        f.vkCreateGraphicsPipelines = CreatePipelines;
        f.vkCreateImage = CreateImage;
        f.vkCreateImageView = CreateView;
        f.vkCreateBuffer = CreateBuffer;
        f.vkGetImageMemoryRequirements = ImageRequirements;
        f.vkGetBufferMemoryRequirements = BufferRequirements;
        f.vkAllocateMemory = Allocate;
        f.vkBindImageMemory = BindImage;
        f.vkBindBufferMemory = BindBuffer;
        f.vkMapMemory = Map;
        f.vkUnmapMemory = Unmap;
        f.vkCreateCommandPool = CreatePool;
        f.vkAllocateCommandBuffers = AllocateCommandBuffers;
        f.vkFreeCommandBuffers = FreeCommandBuffers;
        f.vkBeginCommandBuffer = Begin;
        f.vkEndCommandBuffer = End;
        f.vkGetDeviceQueue = GetQueue;
        f.vkQueueSubmit = Submit;
        f.vkQueueWaitIdle = WaitIdle;
        f.vkCmdPipelineBarrier = Barrier;
        f.vkCmdCopyBufferToImage = Copy;
        f.vkCmdSetFragmentShadingRateKHR = SetRate;
        f.vkCmdBeginRenderPass = FakeBeginPass;
        f.vkCmdEndRenderPass = EndPass;
        f.vkCmdBindPipeline = Bind;
        f.vkCmdExecuteCommands = Execute;
        f.vkCmdDrawIndexed = Draw;
        f.vkQueuePresentKHR = FakePresent;
        f.vkDestroyRenderPass = Destroy<VkRenderPass>;
        f.vkDestroyFramebuffer = Destroy<VkFramebuffer>;
        f.vkDestroyPipeline = Destroy<VkPipeline>;
        f.vkDestroyImage = Destroy<VkImage>;
        f.vkDestroyImageView = Destroy<VkImageView>;
        f.vkDestroyBuffer = Destroy<VkBuffer>;
        f.vkFreeMemory = Destroy<VkDeviceMemory>;
        f.vkDestroyCommandPool = Destroy<VkCommandPool>;
    }
    void TearDown() override {
        if (module_) module_->OnDeviceDestroy(device_.device);
        module_.reset();
        processor_.reset();
        g = nullptr;
    }

    M& Make(const std::string& params = "1920x1080,2400x1080;5;10,12,3000,1;2") {
        ZoVkSettings* settings = ZoVkSettings::GetInstance();
        settings->IdentifyApplication("com.miHoYo.hkrpg");
        auto* data = new ZoVkStarRailData();
        Json::Value config;
        config["vrs_Params"] = params;
        data->moduleData[M::PROCESSOR_MODULE_TYPE] = new ZoVkStarRailVRSModuleData(config);
        settings->SetProcessorData(data);
        android::ZoVkAppInfoMonitor::GetInstance()->Start();  // takes this process's records
        processor_ = std::make_unique<ZoVkStarRailProcessor>();
        processor_->SetInstanceInfo(&instance_);
        processor_->SetDeviceInfo(&device_);
        module_ = std::make_unique<M>(processor_.get());
        module_->RegisterModuleDeviceFunctors();
        return *module_;
    }

    VkRenderPass CreatePass(std::vector<VkAttachmentDescription> attachments) {
        auto info = Info<VkRenderPassCreateInfo>(VK_STRUCTURE_TYPE_RENDER_PASS_CREATE_INFO);
        info.attachmentCount = static_cast<uint32_t>(attachments.size());
        info.pAttachments = attachments.data();
        VkRenderPass pass = Handle<VkRenderPass>(fake_.nextHandle++);
        processor_->postCreateRenderPass.Run(device_.device, &info, nullptr, &pass, VK_SUCCESS);
        return pass;
    }
    VkRenderPass MainPass(VkAttachmentLoadOp op) {
        return CreatePass({Attachment(VK_FORMAT_R8G8B8A8_SRGB, op), Attachment(VK_FORMAT_R8G8B8A8_UNORM, op),
                           Attachment(VK_FORMAT_R8G8B8A8_UNORM, op), Attachment(VK_FORMAT_R8G8B8A8_UNORM, op),
                           Attachment(VK_FORMAT_D24_UNORM_S8_UINT, op)});
    }
    VkRenderPass LightPass(VkAttachmentLoadOp color, VkAttachmentLoadOp depth) {
        return CreatePass({Attachment(VK_FORMAT_B10G11R11_UFLOAT_PACK32, color),
                           Attachment(VK_FORMAT_D24_UNORM_S8_UINT, depth)});
    }
    VkFramebuffer CreateFramebuffer(VkRenderPass pass, uint32_t attachments, uint32_t w = 1920, uint32_t h = 1080) {
        std::vector<VkImageView> views(attachments, Handle<VkImageView>(0x77));
        auto info = Info<VkFramebufferCreateInfo>(VK_STRUCTURE_TYPE_FRAMEBUFFER_CREATE_INFO);
        info.renderPass = pass;
        info.attachmentCount = attachments;
        info.pAttachments = views.data();
        info.width = w;
        info.height = h;
        info.layers = 1;
        VkFramebuffer fb = Handle<VkFramebuffer>(fake_.nextHandle++);
        processor_->postCreateFramebuffer.Run(device_.device, &info, nullptr, &fb, VK_SUCCESS);
        return fb;
    }
    // Scene 1058 and `level` pushed, then one present: the module is active from here on.
    void Present(int level, int sceneId = 1058) {
        auto* monitor = android::ZoVkAppInfoMonitor::GetInstance();
        monitor->ParseGameSceneId("com.miHoYo.hkrpg", sceneId);
        monitor->ParseVkVrsSwitch("com.miHoYo.hkrpg", level);
        processor_->queuePresent.Run(queue_, &presentInfo_);
    }
    // Main and light passes on both variants, framebuffers on the framebuffer variants.
    void CreateScene() {
        mainClear_ = MainPass(kClear);
        mainFb_ = CreateFramebuffer(MainPass(kDontCare), 5);
        lightClear_ = LightPass(kClear, kLoad);
        lightFb_ = CreateFramebuffer(LightPass(kDontCare, kDontCare), 2);
    }
    void BeginPass(VkCommandBuffer cb, VkRenderPass pass, VkFramebuffer fb, uint32_t w = 1920) {
        auto begin = Info<VkRenderPassBeginInfo>(VK_STRUCTURE_TYPE_RENDER_PASS_BEGIN_INFO);
        begin.renderPass = pass;
        begin.framebuffer = fb;
        begin.renderArea.extent = {w, 1080};
        processor_->cmdBeginRenderPass.Run(cb, &begin, VK_SUBPASS_CONTENTS_SECONDARY_COMMAND_BUFFERS);
        EXPECT_EQ(begin.renderPass, pass) << "the game's begin info was written";
    }
    void BeginSecondary(VkCommandBuffer cb, VkRenderPass pass, VkFramebuffer fb) {
        auto inheritance = Info<VkCommandBufferInheritanceInfo>(VK_STRUCTURE_TYPE_COMMAND_BUFFER_INHERITANCE_INFO);
        inheritance.renderPass = pass;
        inheritance.framebuffer = fb;
        auto begin = Info<VkCommandBufferBeginInfo>(VK_STRUCTURE_TYPE_COMMAND_BUFFER_BEGIN_INFO);
        begin.pInheritanceInfo = &inheritance;
        processor_->beginCommandBuffer.Run(cb, &begin);
        EXPECT_EQ(inheritance.renderPass, pass) << "the game's inheritance info was written";
    }
    std::vector<std::string> Rates() const {
        std::vector<std::string> out;
        for (const std::string& l : fake_.log) {
            if (l.rfind("rate:", 0) == 0 || l == "draw") out.push_back(l);
        }
        return out;
    }

    zovk_test::BinderDir binderDir_;  // no game service: the monitor's registration gives up
    Fake fake_;
    ZoVkInstanceInfo instance_;
    ZoVkDeviceInfo device_;
    std::unique_ptr<ZoVkStarRailProcessor> processor_;
    std::unique_ptr<M> module_;
    VkQueue queue_ = Handle<VkQueue>(0x51);
    VkPresentInfoKHR presentInfo_ = Info<VkPresentInfoKHR>(VK_STRUCTURE_TYPE_PRESENT_INFO_KHR);
    VkRenderPass mainClear_{}, lightClear_{};
    VkFramebuffer mainFb_{}, lightFb_{};
};

TEST_F(StarRailVrsModuleTest, RecognisesOnlyTheMainAndLightPassShapes) {
    M& m = Make();
    ASSERT_TRUE(m.valid);
    const VkRenderPass mainClear = MainPass(kClear);
    EXPECT_EQ(m.Flags() & M::kTexelSizeKnown, M::kTexelSizeKnown);
    const VkRenderPass mainFb = MainPass(kDontCare);
    // The main formats with (CLEAR, CLEAR, LOAD) match neither main rule.
    CreatePass({Attachment(VK_FORMAT_R8G8B8A8_SRGB, kClear), Attachment(VK_FORMAT_R8G8B8A8_UNORM, kClear),
                Attachment(VK_FORMAT_R8G8B8A8_UNORM, kClear), Attachment(VK_FORMAT_R8G8B8A8_UNORM, kClear),
                Attachment(VK_FORMAT_D24_UNORM_S8_UINT, kLoad)});
    const VkRenderPass lightClear = LightPass(kClear, kLoad);
    const VkRenderPass lightFb = LightPass(kDontCare, kDontCare);
    LightPass(kClear, kClear);  // depth must be loaded
    EXPECT_EQ(m.mainPassMap.size(), 1u);
    EXPECT_EQ(m.mainPassMap.count(mainClear), 1u);
    EXPECT_EQ(m.mainFramebufferPassMap.count(mainFb), 1u);
    EXPECT_EQ(m.lightPassMap.count(lightClear), 1u);
    EXPECT_EQ(m.lightFramebufferPassMap.count(lightFb), 1u);
    EXPECT_EQ(m.lightPassSubstitute, m.lightPassMap.at(lightClear));
    EXPECT_EQ(fake_.Count("vkCreateRenderPass2"), 4u);
}

TEST_F(StarRailVrsModuleTest, TwoAttachmentPassOfTheMainCountIsTestedOnlyAsAMainPass) {
    M& m = Make("1920x1080;2;10,12,3000,1;2");
    LightPass(kClear, kLoad);
    EXPECT_TRUE(m.lightPassMap.empty());
    EXPECT_TRUE(m.mainPassMap.empty());
}

TEST_F(StarRailVrsModuleTest, WaitsForANonZeroTexelSize) {
    fake_.texel = {0, 16};
    M& m = Make();
    MainPass(kClear);
    EXPECT_EQ(m.Flags() & M::kTexelSizeKnown, 0u);
    EXPECT_TRUE(m.mainPassMap.empty());
    fake_.texel = {16, 16};
    MainPass(kClear);  // asked again at the next pass
    EXPECT_EQ(m.mainPassMap.size(), 1u);
}

TEST_F(StarRailVrsModuleTest, FirstFramebufferMakesImagesAndTemplatesAndSubstitutesKnownSizesOnly) {
    M& m = Make();
    CreateScene();
    EXPECT_EQ(m.Flags() & M::kImagesReady, M::kImagesReady);
    // 1920x1080 and 2400x1080 at texel 16: integer division.
    EXPECT_EQ(fake_.Count("image 120x67"), 2u);
    EXPECT_EQ(fake_.Count("image 150x67"), 2u);
    EXPECT_EQ(m.templateBuffers.size(), 2u);
    EXPECT_EQ(m.templateBuffers[0].size(), 4u);
    // Each image got its first template: main 0 and light 2 per resolution.
    ASSERT_EQ(fake_.copies.size(), 4u);
    EXPECT_EQ(fake_.copies[0], std::make_pair(N(m.templateBuffers[0][0].buffer), N(m.mainPassImages[0].image)));
    EXPECT_EQ(fake_.copies[1], std::make_pair(N(m.templateBuffers[0][2].buffer), N(m.lightPassImages[0].image)));
    EXPECT_EQ(m.mainFramebufferMap.count(mainFb_), 1u);
    EXPECT_EQ(m.lightFramebufferMap.count(lightFb_), 1u);

    CreateFramebuffer(MainPass(kDontCare), 5, 1280, 720);  // not a configured size
    CreateFramebuffer(Handle<VkRenderPass>(0x999), 5);     // not a recognised pass
    EXPECT_EQ(m.mainFramebufferMap.size(), 1u);
}

TEST_F(StarRailVrsModuleTest, WithoutTemplatesImagesAreRetriedAtEveryFramebuffer) {
    M& m = Make("1920x1080");
    MainPass(kClear);  // count 0 configured: nothing recognised, but the texel size is read
    CreateFramebuffer(Handle<VkRenderPass>(0x999), 5);
    CreateFramebuffer(Handle<VkRenderPass>(0x999), 5);
    EXPECT_EQ(m.Flags() & M::kImagesReady, 0u);
    EXPECT_EQ(fake_.Count("image 120x67"), 2u) << "existing images are kept on retry";
}

TEST_F(StarRailVrsModuleTest, PresentFollowsSceneAndLevel) {
    M& m = Make();
    CreateScene();
    const size_t firstFill = fake_.copies.size();
    for (const auto& [scene, gate] : std::vector<std::pair<int, bool>>{{1058, true}, {1000000, false}, {1000001, true}}) {
        Present(1, scene);
        EXPECT_EQ((m.Flags() & M::kSceneOn) != 0, gate) << scene;
    }
    EXPECT_EQ(fake_.Count("vkQueuePresentKHR"), 3u);

    // Level 1 at resolution 0: main template 0, light template 2.
    m.curMainResIndex_ = 0;
    Present(1);
    ASSERT_EQ(fake_.copies.size(), firstFill + 2);
    EXPECT_EQ(fake_.copies[firstFill].first, N(m.templateBuffers[0][0].buffer));
    EXPECT_EQ(fake_.copies[firstFill + 1].first, N(m.templateBuffers[0][2].buffer));
    Present(1);  // nothing changed
    EXPECT_EQ(fake_.copies.size(), firstFill + 2);
    Present(2);
    ASSERT_EQ(fake_.copies.size(), firstFill + 4);
    EXPECT_EQ(fake_.copies[firstFill + 2].first, N(m.templateBuffers[0][1].buffer));
    EXPECT_EQ(fake_.copies[firstFill + 3].first, N(m.templateBuffers[0][3].buffer));
    Present(3);  // counted as applied, uploads nothing, keeps bit 2
    EXPECT_EQ(fake_.copies.size(), firstFill + 4);
    EXPECT_EQ(m.templevel_, 3);
    EXPECT_NE(m.Flags() & M::kLevelOn, 0u);
    Present(0);
    EXPECT_EQ(m.Flags() & M::kLevelOn, 0u);
}

TEST_F(StarRailVrsModuleTest, RecordingSwapsHandlesInCopiesAndSetsRates) {
    M& m = Make();
    CreateScene();
    const VkPipeline mainPipeline = Handle<VkPipeline>(0x500);
    auto info = Info<VkGraphicsPipelineCreateInfo>(VK_STRUCTURE_TYPE_GRAPHICS_PIPELINE_CREATE_INFO);
    info.renderPass = m.mainFramebufferPassMap.begin()->first;
    VkPipeline created = mainPipeline;
    processor_->postCreateGraphicsPipelines.Run(device_.device, VK_NULL_HANDLE, 1u, &info, nullptr, &created,
                                                VK_SUCCESS);
    ASSERT_EQ(m.mainPipelineMap.count(mainPipeline), 1u);
    Present(1);
    ASSERT_EQ(m.Flags() & M::kActive, M::kActive);

    const auto primary = Handle<VkCommandBuffer>(0xA1);
    const auto secondary = Handle<VkCommandBuffer>(0xA2);
    BeginSecondary(secondary, mainClear_, mainFb_);
    EXPECT_EQ(fake_.inherited.renderPass, m.mainPassMap.at(mainClear_));
    EXPECT_EQ(fake_.inherited.framebuffer, m.mainFramebufferMap.at(mainFb_));
    processor_->cmdBindPipeline.Run(secondary, VK_PIPELINE_BIND_POINT_GRAPHICS, mainPipeline);
    EXPECT_EQ(fake_.bound, m.mainPipelineMap.at(mainPipeline));
    processor_->cmdBindPipeline.Run(primary, VK_PIPELINE_BIND_POINT_GRAPHICS, mainPipeline);
    EXPECT_EQ(fake_.bound, mainPipeline) << "primaries keep the game's pipeline";

    BeginPass(primary, mainClear_, mainFb_, 2000);  // render area not configured: untouched
    EXPECT_EQ(fake_.begun.renderPass, mainClear_);
    BeginPass(primary, mainClear_, mainFb_);
    EXPECT_EQ(fake_.begun.renderPass, m.mainPassMap.at(mainClear_));
    EXPECT_EQ(fake_.begun.framebuffer, m.mainFramebufferMap.at(mainFb_));
    EXPECT_EQ(m.curMainResIndex_, 0);

    processor_->cmdExecuteCommands.Run(primary, 0u, nullptr);  // count 0: nothing
    EXPECT_TRUE(Rates().empty());
    processor_->cmdExecuteCommands.Run(primary, 1u, &secondary);
    EXPECT_EQ(Rates(), std::vector<std::string>{"rate:KEEP,REPLACE"});
    EXPECT_EQ(m.mainSecondaryCommandBuffers.count(secondary), 0u);
    processor_->cmdEndRenderPass.Run(primary);
    EXPECT_TRUE(m.mainPassCommandBuffers.empty());
}

TEST_F(StarRailVrsModuleTest, LightSecondaryKeepsTheConfiguredDrawAtFullRate) {
    M& m = Make();
    CreateScene();
    Present(1);
    const auto secondary = Handle<VkCommandBuffer>(0xB2);
    auto record = [&](std::vector<std::pair<uint32_t, uint32_t>> draws) {
        BeginSecondary(secondary, lightClear_, lightFb_);
        for (const auto& [indices, instances] : draws) {
            processor_->cmdDrawIndexed.Run(secondary, indices, instances, 0u, 0, 0u);
        }
        processor_->endCommandBuffer.Run(secondary);
    };
    // Draws 1..14: draw 10 has 2 instances, 11 matches, 14 matches but is outside 10..12.
    std::vector<std::pair<uint32_t, uint32_t>> draws(14, {36, 1});
    draws[9] = {3000, 2};
    draws[10] = {3000, 1};
    draws[13] = {3000, 1};
    record(draws);
    std::vector<std::string> expected{"rate:KEEP,REPLACE"};
    for (int i = 1; i <= 14; ++i) {
        if (i == 11) expected.push_back("rate:KEEP,KEEP");
        if (i == 12) expected.push_back("rate:KEEP,REPLACE");
        expected.push_back("draw");
    }
    EXPECT_EQ(Rates(), expected);
    EXPECT_NE(m.Flags() & M::kFullRateDrawSwitched, 0u);
    EXPECT_EQ(m.lightDrawCounter, 0u) << "the end of a light secondary resets the count";

    // The count starts again at 1: a matching first draw is outside the range.
    fake_.log.clear();
    record({{3000, 1}});
    EXPECT_EQ(Rates(), std::vector<std::string>{"draw"});
}

TEST_F(StarRailVrsModuleTest, DestroyHooksAndDeviceDestroyFreeEverythingMade) {
    M& m = Make();
    CreateScene();
    const VkRenderPass mainSubstitute = m.mainPassMap.at(mainClear_);
    const VkFramebuffer fbSubstitute = m.mainFramebufferMap.at(mainFb_);
    processor_->destroyFramebuffer.Run(device_.device, mainFb_, nullptr);
    processor_->destroyRenderPass.Run(device_.device, mainClear_, nullptr);
    processor_->destroyPipeline.Run(device_.device, Handle<VkPipeline>(0x4242), nullptr);  // none of ours
    EXPECT_EQ(fake_.Count("destroy " + std::to_string(N(fbSubstitute))), 1u);
    EXPECT_EQ(fake_.Count("destroy " + std::to_string(N(mainSubstitute))), 1u);
    EXPECT_EQ(fake_.Count("destroy " + std::to_string(N(mainFb_))), 1u) << "the game's own call goes on";
    EXPECT_EQ(fake_.Count("destroy 16962"), 1u);
    EXPECT_TRUE(m.mainPassMap.empty());

    // What is left: 3 passes, 1 framebuffer, 4 images with their memory and the 2 views the
    // framebuffers made, 8 template buffers with their memory, the helper's pool.
    fake_.log.clear();
    m.OnDeviceDestroy(device_.device);
    EXPECT_EQ(fake_.Count("destroy "), 3u + 1u + (4u * 2u + 2u) + 8u * 2u + 1u);
    EXPECT_EQ(m.Flags(), 0u);
    fake_.log.clear();
    module_.reset();  // the destructor finds nothing left
    EXPECT_EQ(fake_.Count("destroy "), 0u);
}

TEST_F(StarRailVrsModuleTest, OutOfRangeSizesAndLevelCountsAreBounded) {
    // A resolution smaller than one texel gets no zero-sized image; the images never get ready.
    M& m = Make("8x8;5;10,12,3000,1;2");
    MainPass(kClear);
    CreateFramebuffer(Handle<VkRenderPass>(0x999), 5, 8, 8);
    EXPECT_EQ(fake_.Count("vkCreateImage"), 0u);
    EXPECT_EQ(m.Flags() & M::kImagesReady, 0u);
}

TEST_F(StarRailVrsModuleTest, ManyLevelsMakeABoundedNumberOfTemplates) {
    M& m = Make("1920x1080;5;10,12,3000,1;100000");
    MainPass(kClear);
    CreateFramebuffer(Handle<VkRenderPass>(0x999), 5);
    EXPECT_EQ(m.templateBuffers.at(0).size(), 16u);
    EXPECT_NE(m.Flags() & M::kImagesReady, 0u);
}

TEST_F(StarRailVrsModuleTest, MalformedConfigurationKeepsTheModuleOff) {
    EXPECT_FALSE(Make("1920*1080").valid);
}

// --- device features --------------------------------------------------------------------

VkBool32 gAttachmentSupported = VK_TRUE;
void VKAPI_CALL Features2(VkPhysicalDevice, VkPhysicalDeviceFeatures2* f) {
    auto* rate = static_cast<VkPhysicalDeviceFragmentShadingRateFeaturesKHR*>(f->pNext);
    rate->pipelineFragmentShadingRate = VK_TRUE;
    rate->primitiveFragmentShadingRate = VK_TRUE;
    rate->attachmentFragmentShadingRate = gAttachmentSupported;
}

TEST(ShadingRateFeatures, ChainedOnlyWhenTheExtensionIsEnabledAndTheApplicationChainedNone) {
    ZoVkInstanceInfo instance;
    instance.functions.vkGetPhysicalDeviceFeatures2 = Features2;
    VkPhysicalDeviceFragmentShadingRateFeaturesKHR storage{};
    auto info = Info<VkDeviceCreateInfo>(VK_STRUCTURE_TYPE_DEVICE_CREATE_INFO);
    const std::vector<const char*> without{"VK_KHR_swapchain"};
    EXPECT_FALSE(vulkan::zovk::ChainShadingRateFeatures(instance, VK_NULL_HANDLE, without, info, storage));

    const std::vector<const char*> with{"VK_KHR_swapchain", VK_KHR_FRAGMENT_SHADING_RATE_EXTENSION_NAME};
    auto other = Info<VkPhysicalDeviceVulkan11Features>(VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_VULKAN_1_1_FEATURES);
    info.pNext = &other;
    ASSERT_TRUE(vulkan::zovk::ChainShadingRateFeatures(instance, VK_NULL_HANDLE, with, info, storage));
    EXPECT_EQ(info.pNext, &storage);
    EXPECT_EQ(storage.pNext, &other);
    EXPECT_TRUE(storage.pipelineFragmentShadingRate && storage.attachmentFragmentShadingRate);
    EXPECT_FALSE(storage.primitiveFragmentShadingRate) << "the modules never use primitive rates";

    // The application's own structure stands.
    auto own = Info<VkDeviceCreateInfo>(VK_STRUCTURE_TYPE_DEVICE_CREATE_INFO);
    auto theirs = Info<VkPhysicalDeviceFragmentShadingRateFeaturesKHR>(VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FRAGMENT_SHADING_RATE_FEATURES_KHR);
    own.pNext = &theirs;
    EXPECT_FALSE(vulkan::zovk::ChainShadingRateFeatures(instance, VK_NULL_HANDLE, with, own, storage));
    EXPECT_EQ(own.pNext, &theirs);
}

}  // namespace
