// The resource helper and the shading-rate builder on the shared recording next layer: what
// reaches the next layer, in which order, and what comes back on failure. That the objects
// are valid Vulkan is the integration test's part (tests/integration/builder.py).
#include <functional>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "app/module/zovk_fixed_vrs_renderpass.h"
#include "layer/zovk_dispatch_table.h"
#include "layer/zovk_records.h"
#include "tests/support/fake_next_layer.h"
#include "tests/support/test_processor.h"

namespace {

using namespace vulkan::zovk;
using zovk_test::FakeNextLayer;
using zovk_test::Hex;
using Log = std::vector<std::string>;

constexpr VkImageLayout kRateLayout = VK_IMAGE_LAYOUT_FRAGMENT_SHADING_RATE_ATTACHMENT_OPTIMAL_KHR;
constexpr VkImageLayout kColorLayout = VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL;
constexpr VkImageLayout kDepthLayout = VK_IMAGE_LAYOUT_DEPTH_STENCIL_ATTACHMENT_OPTIMAL;
constexpr VkImageLayout kGeneral = VK_IMAGE_LAYOUT_GENERAL;
constexpr VkMemoryPropertyFlags kHost = VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT | VK_MEMORY_PROPERTY_HOST_COHERENT_BIT;

template <typename S>
S Struct(VkStructureType type) {
    S s{};
    s.sType = type;
    return s;
}

// Runs `body` and returns what it logged.
template <typename F>
std::string Logged(F body) {
    testing::internal::CaptureStderr();
    body();
    return testing::internal::GetCapturedStderr();
}

// A render pass as the next layer received it: the attachments and dependencies as tuples;
// per subpass its references, preserved attachments and view mask as text, and what the rate
// adds as text; the correlated view masks.
using Attachment = std::tuple<const void*, VkFormat, VkSampleCountFlagBits, VkAttachmentLoadOp, VkAttachmentStoreOp,
                              VkAttachmentLoadOp, VkAttachmentStoreOp, VkImageLayout, VkImageLayout>;
using Dependency = std::tuple<uint32_t, uint32_t, VkPipelineStageFlags, VkPipelineStageFlags, VkAccessFlags,
                              VkAccessFlags, VkDependencyFlags, int32_t>;
struct SeenPass {
    const void* pNext = nullptr;
    std::vector<Attachment> attachments;
    Log subpasses, rates;
    std::vector<Dependency> dependencies;
    std::vector<uint32_t> correlated;
};

template <typename Description>  // version 1 or 2
Attachment Tie(const Description& a, const void* pNext) {
    return {pNext,           a.format,           a.samples,       a.loadOp,     a.storeOp,
            a.stencilLoadOp, a.stencilStoreOp, a.initialLayout, a.finalLayout};
}

// " attachment:layout:aspect" for each reference (aspects: 1 color, 2 depth, 4 stencil).
std::string Refs(const VkAttachmentReference2* refs, uint32_t count) {
    static const std::map<VkImageLayout, std::string> layouts = {
        {VK_IMAGE_LAYOUT_UNDEFINED, "undefined"}, {kGeneral, "general"}, {kColorLayout, "color"},
        {kDepthLayout, "depth"}, {VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL, "read"}, {kRateLayout, "rate"}};
    std::string text;
    for (uint32_t i = 0; refs != nullptr && i < count; ++i) {
        const uint32_t a = refs[i].attachment;
        text += " " + (a == VK_ATTACHMENT_UNUSED ? "unused" : std::to_string(a)) + ":" + layouts.at(refs[i].layout) +
                ":" + std::to_string(refs[i].aspectMask);
    }
    return text;
}

SeenPass See(const VkRenderPassCreateInfo2& info) {
    SeenPass seen{info.pNext, {}, {}, {}, {},
                  {info.pCorrelatedViewMasks, info.pCorrelatedViewMasks + info.correlatedViewMaskCount}};
    for (uint32_t i = 0; i < info.attachmentCount; ++i) {
        seen.attachments.push_back(Tie(info.pAttachments[i], info.pAttachments[i].pNext));
    }
    for (uint32_t s = 0; s < info.subpassCount; ++s) {
        const VkSubpassDescription2& d = info.pSubpasses[s];
        std::string preserve;
        for (uint32_t i = 0; i < d.preserveAttachmentCount; ++i) {
            preserve += " " + std::to_string(d.pPreserveAttachments[i]);
        }
        // The next layer reads one resolve reference per color attachment.
        seen.subpasses.push_back("input" + Refs(d.pInputAttachments, d.inputAttachmentCount) + " | color" +
                                 Refs(d.pColorAttachments, d.colorAttachmentCount) + " | resolve" +
                                 Refs(d.pResolveAttachments, d.colorAttachmentCount) + " | depth" +
                                 Refs(d.pDepthStencilAttachment, 1) + " | preserve" + preserve +
                                 " | view " + std::to_string(d.viewMask));
        std::string rate = d.pipelineBindPoint == VK_PIPELINE_BIND_POINT_GRAPHICS ? "graphics" : "not graphics";
        rate += ", chain:";
        for (auto* p = static_cast<const VkBaseInStructure*>(d.pNext); p != nullptr; p = p->pNext) {
            const auto* r = reinterpret_cast<const VkFragmentShadingRateAttachmentInfoKHR*>(p);
            rate += p->sType != VK_STRUCTURE_TYPE_FRAGMENT_SHADING_RATE_ATTACHMENT_INFO_KHR
                        ? " other"
                        : " rate" + Refs(r->pFragmentShadingRateAttachment, 1) + " " +
                              std::to_string(r->shadingRateAttachmentTexelSize.width) + "x" +
                              std::to_string(r->shadingRateAttachmentTexelSize.height);
        }
        seen.rates.push_back(rate);
    }
    for (uint32_t i = 0; i < info.dependencyCount; ++i) {
        const VkSubpassDependency2& d = info.pDependencies[i];
        seen.dependencies.emplace_back(d.srcSubpass, d.dstSubpass, d.srcStageMask, d.dstStageMask, d.srcAccessMask,
                                       d.dstAccessMask, d.dependencyFlags, d.viewOffset);
    }
    return seen;
}

// The builder on records whose tables the fake's resolvers filled, as the layer fills them.
// Binds and the pool each free returns to join the fake's log.
class VrsBuilderTest : public ::testing::Test {
protected:
    VrsBuilderTest() {
        instance_.functions.vkGetInstanceProcAddr = FakeNextLayer::GetInstanceProcAddr;
        FillInstanceCoreFunctions(fake_.Instance(), &instance_.functions, instance_.functionMap, VK_API_VERSION_1_2);
        device_.device = fake_.Device();
        device_.physicalDevice = fake_.PhysicalDevice();
        device_.setDeviceLoaderData = FakeNextLayer::SetDeviceLoaderData;
        device_.functions.vkGetDeviceProcAddr = FakeNextLayer::GetDeviceProcAddr;
        FillDeviceCoreFunctions(fake_.Device(), &device_.functions, device_.functionMap, VK_API_VERSION_1_2);
        processor_.SetInstanceInfo(&instance_);
        processor_.SetDeviceInfo(&device_);
        fake_.onBind = [this](const char* name, uint64_t object, VkDeviceMemory memory) {
            fake_.events.push_back({zovk_test::Event::kCall, name, nullptr, Hex(object) + " memory=" + Hex(memory)});
        };
    }
    // Starts a case afresh: an empty log, handles from 0x1000, and what fails.
    void Reset(const std::string& fail = "") {
        fake_.Clear();
        fake_.nextHandle = 0x1000;
        fake_.failNames = {fail};
    }

    FakeNextLayer fake_;
    ZoVkInstanceInfo instance_;
    ZoVkDeviceInfo device_;
    zovk_test::TestProcessor processor_;
    app::module::ZoVkFixedVRSRenderpass builder_{&processor_};
};

// Both versions: the game's attachments, dependencies, preserved attachments and views arrive
// as they were (version 1 converted: input aspects as named, else all of the format's; view
// masks, offsets and correlations moved in), the rate attachment is appended, and every
// subpass is a graphics subpass that points at it with the texel size and has nothing else in
// its chain.
TEST_F(VrsBuilderTest, PassesGainTheRateAttachmentInEverySubpass) {
    VkAttachmentDescription v1Attachments[2];
    for (VkAttachmentDescription& a : v1Attachments) {
        a = {VK_ATTACHMENT_DESCRIPTION_MAY_ALIAS_BIT, VK_FORMAT_R8G8B8A8_UNORM, VK_SAMPLE_COUNT_4_BIT,
             VK_ATTACHMENT_LOAD_OP_CLEAR, VK_ATTACHMENT_STORE_OP_STORE, VK_ATTACHMENT_LOAD_OP_LOAD,
             VK_ATTACHMENT_STORE_OP_DONT_CARE, VK_IMAGE_LAYOUT_UNDEFINED, kColorLayout};
    }
    v1Attachments[1].format = VK_FORMAT_D24_UNORM_S8_UINT;
    const VkAttachmentReference colors[2] = {{0, kColorLayout}, {0, kGeneral}};
    const VkAttachmentReference resolves[2] = {{1, kGeneral}, {0, kGeneral}};
    const VkAttachmentReference depth{1, kDepthLayout};
    const VkAttachmentReference inputs[2] = {{0, VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL},
                                             {1, VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL}};
    const uint32_t preserve = 1;
    const VkSubpassDescription v1Subpasses[2] = {
        {0, VK_PIPELINE_BIND_POINT_COMPUTE, 2, inputs, 2, colors, resolves, &depth, 1, &preserve},
        {0, VK_PIPELINE_BIND_POINT_GRAPHICS, 1, inputs + 1, 1, colors, nullptr, nullptr, 0, nullptr}};
    const VkSubpassDependency v1Dependency{0, 1, 1, 2, 4, 8, VK_DEPENDENCY_BY_REGION_BIT};
    const VkInputAttachmentAspectReference named{1, 0, VK_IMAGE_ASPECT_DEPTH_BIT};
    const VkRenderPassInputAttachmentAspectCreateInfo aspects{
        VK_STRUCTURE_TYPE_RENDER_PASS_INPUT_ATTACHMENT_ASPECT_CREATE_INFO, nullptr, 1, &named};
    const uint32_t viewMasks[2] = {3, 3};
    const int32_t viewOffset = -1;
    const VkRenderPassMultiviewCreateInfo multiview{
        VK_STRUCTURE_TYPE_RENDER_PASS_MULTIVIEW_CREATE_INFO, &aspects, 2, viewMasks, 1, &viewOffset, 1, viewMasks};
    const VkRenderPassCreateInfo v1{VK_STRUCTURE_TYPE_RENDER_PASS_CREATE_INFO, &multiview, 0, 2, v1Attachments, 2,
                                    v1Subpasses, 1, &v1Dependency};

    const auto stencil =
        Struct<VkAttachmentDescriptionStencilLayout>(VK_STRUCTURE_TYPE_ATTACHMENT_DESCRIPTION_STENCIL_LAYOUT);
    auto v2Attachment = Struct<VkAttachmentDescription2>(VK_STRUCTURE_TYPE_ATTACHMENT_DESCRIPTION_2);
    v2Attachment.pNext = &stencil;
    v2Attachment.format = VK_FORMAT_D32_SFLOAT;
    const auto depthResolve =
        Struct<VkSubpassDescriptionDepthStencilResolve>(VK_STRUCTURE_TYPE_SUBPASS_DESCRIPTION_DEPTH_STENCIL_RESOLVE);
    auto v2Subpass = Struct<VkSubpassDescription2>(VK_STRUCTURE_TYPE_SUBPASS_DESCRIPTION_2);
    v2Subpass.pNext = &depthResolve;
    v2Subpass.viewMask = 3;
    auto v2Dependency = Struct<VkSubpassDependency2>(VK_STRUCTURE_TYPE_SUBPASS_DEPENDENCY_2);
    v2Dependency.srcSubpass = VK_SUBPASS_EXTERNAL;
    v2Dependency.viewOffset = 1;
    const VkRenderPassCreateInfo2 v2{VK_STRUCTURE_TYPE_RENDER_PASS_CREATE_INFO_2, &stencil, 0, 1, &v2Attachment, 1,
                                     &v2Subpass, 1, &v2Dependency, 1, viewMasks + 1};

    const struct {
        const char* name;
        std::function<VkRenderPass()> create;
        std::vector<Attachment> attachments;  // the game's, as the next layer must receive them
        Log subpasses;
        Dependency dependency;
        const char* texel;
        const char* failure;
    } cases[] = {
        {"version 1", [&] { return builder_.createShadingRateRenderpass(v1, {16, 8}); },
         {Tie(v1Attachments[0], nullptr), Tie(v1Attachments[1], nullptr)},
         // Only the first resolve reference is kept; depth narrows to the depth aspect.
         {"input 0:read:1 1:read:6 | color 0:color:1 0:general:1 | resolve 1:general:1 unused:undefined:1 | depth "
          "1:depth:2 | preserve 1 | view 3",
          "input 1:read:2 | color 0:color:1 | resolve | depth | preserve | view 3"},
         {0, 1, 1, 2, 4, 8, VK_DEPENDENCY_BY_REGION_BIT, -1}, "16x8", "failed to create rp2"},
        {"version 2", [&] { return builder_.createShadingRateRenderpass2(v2, {16, 16}); },
         {Tie(v2Attachment, &stencil)},
         {"input | color | resolve | depth | preserve | view 3"},
         {VK_SUBPASS_EXTERNAL, 0, 0, 0, 0, 0, 0, 1}, "16x16", "failed to create rp22"},
    };
    const VkAttachmentDescription2 rate{
        VK_STRUCTURE_TYPE_ATTACHMENT_DESCRIPTION_2, nullptr, 0, VK_FORMAT_R8_UINT, VK_SAMPLE_COUNT_1_BIT,
        VK_ATTACHMENT_LOAD_OP_LOAD, VK_ATTACHMENT_STORE_OP_DONT_CARE, VK_ATTACHMENT_LOAD_OP_DONT_CARE,
        VK_ATTACHMENT_STORE_OP_DONT_CARE, kRateLayout, kRateLayout};
    SeenPass seen;
    fake_.onRenderPass2 = [&](const VkRenderPassCreateInfo2& info) { seen = See(info); };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_NE(c.create(), VK_NULL_HANDLE);
        std::vector<Attachment> attachments = c.attachments;
        attachments.push_back(Tie(rate, nullptr));
        EXPECT_EQ(seen.attachments, attachments);
        EXPECT_EQ(seen.pNext, nullptr) << "a version-1 chain is invalid in a version-2 pass";
        EXPECT_EQ(seen.subpasses, c.subpasses);
        const std::string added =
            "graphics, chain: rate " + std::to_string(c.attachments.size()) + ":rate:0 " + c.texel;
        EXPECT_EQ(seen.rates, Log(c.subpasses.size(), added));
        EXPECT_EQ(seen.dependencies, std::vector<Dependency>{c.dependency});
        EXPECT_EQ(seen.correlated, std::vector<uint32_t>{3});

        fake_.failNames = {"vkCreateRenderPass2"};
        EXPECT_NE(Logged([&] { EXPECT_EQ(c.create(), VK_NULL_HANDLE); }).find(c.failure), std::string::npos);
        fake_.failNames.clear();
    }
}

// The fake's memory types: 0 device-local, 1 host-visible and coherent, 2 both, 3 host-visible.
// Images get device-local memory whatever is asked; without a type that has the properties, type 0. A failed or refused create gives a null handle; so does a failed allocation,
// after destroying the object.
TEST_F(VrsBuilderTest, ImagesAndBuffersGetTheirMemoryBoundOrFailLogged) {
    const std::string image = "vkCreateImage 8x8 made=", buffer = "vkCreateBuffer size=8 made=";
    const std::string allocate = "vkAllocateMemory type=";
    const struct {
        bool image;
        uint32_t size;  // an empty one is refused before the next layer sees it
        uint32_t allowed;
        const char* fail;
        Log calls;
        const char* logged;  // null: nothing
    } cases[] = {
        {true, 8, 0b1110, "", {image + "1000", allocate + "2 made=1001", "vkBindImageMemory 1000 memory=1001"}, nullptr},
        {false, 8, 0b1000, "", {buffer + "1000", allocate + "0 made=1001", "vkBindBufferMemory 1000 memory=1001"},
         "failed to find suitable"},
        {true, 8, 0x3f, "vkCreateImage", {image + "0"}, "failed to create image!"},
        {true, 0, 0x3f, "", {}, "failed to create image!"},
        {true, 8, 0x3f, "vkAllocateMemory", {image + "1000", allocate + "0 made=0", "vkDestroyImage 1000"},
         "failed to allocate image"},
        {false, 8, 0x3f, "vkCreateBuffer", {buffer + "0"}, "CreateBuffer failed"},
        {false, 0, 0x3f, "", {}, "CreateBuffer failed"},
        {false, 8, 0x3f, "vkAllocateMemory", {buffer + "1000", allocate + "1 made=0", "vkDestroyBuffer 1000"},
         "failed to allocate buffer"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE((c.image ? "image " : "buffer ") + std::to_string(c.size) + " " + c.fail);
        Reset(c.fail);
        fake_.memoryTypeBits = c.allowed;
        VkDeviceMemory memory = VK_NULL_HANDLE;
        uint64_t made = 0;
        const std::string log = Logged([&] {
            const auto tiling = VK_IMAGE_TILING_OPTIMAL;
            made = c.image ? reinterpret_cast<uintptr_t>(builder_.createImage(c.size, 8, VK_FORMAT_R8_UINT, tiling, 0,
                                                                              kHost, memory))
                           : reinterpret_cast<uintptr_t>(builder_.createBuffer(c.size, 0, kHost, memory));
        });
        EXPECT_EQ(fake_.Log(), c.calls);
        EXPECT_EQ(made, c.calls.empty() || c.calls.back().find("vkBind") != 0 ? 0 : 0x1000u);
        EXPECT_TRUE(c.logged == nullptr ? log.empty() : log.find(c.logged) != std::string::npos) << log;
    }
}

}  // namespace
