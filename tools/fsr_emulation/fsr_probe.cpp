// fsr_probe: one frame that uses VK_KHR_fragment_shading_rate the way the layer does, for checking
// the emulation layer (or a GPU that has the extension).
//
//   fsr_probe [--plain] OUTPUT.png
//
// The frame: a render pass 2 with the shading-rate attachment first (so that every other index
// moves when it is removed), a colour and a depth attachment, two subpasses. Subpass 0 is recorded
// inline with two rates and two draws, subpass 1 in a secondary command buffer with its own rate
// and draw. Before the pass the R8_UINT shading-rate image is filled from two staging buffers: one
// copy in the primary from a buffer that stays mapped, one in a secondary from a buffer that is
// unmapped before submission and has padded rows. --plain draws the same frame with nothing of the
// extension. Writes the colour image as PNG and, on stdout, what the test compares against the
// emulation trace: the reported features, properties and rates, the command buffer handles and
// the bytes uploaded.
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "fsr_probe_frag.h"
#include "fsr_probe_vert.h"
#include "vkharness.h"

namespace {

constexpr uint32_t kWidth = 100;
constexpr uint32_t kHeight = 60;
constexpr VkFormat kColorFormat = VK_FORMAT_R8G8B8A8_UNORM;
constexpr VkFormat kDepthFormat = VK_FORMAT_D32_SFLOAT;
constexpr VkFormat kRateFormat = VK_FORMAT_R8_UINT;

// The attachment value of a fragment size: log2(width) << 2 | log2(height).
uint8_t RateValue(VkExtent2D size) {
    auto log2 = [](uint32_t v) { return v >= 4 ? 2 : v >= 2 ? 1 : 0; };
    return static_cast<uint8_t>(log2(size.width) << 2 | log2(size.height));
}

std::string Hex(const uint8_t* data, size_t size) {
    static const char kDigits[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < size; ++i) {
        s += kDigits[data[i] >> 4];
        s += kDigits[data[i] & 15];
    }
    return s;
}

uint64_t HandleValue(VkCommandBuffer cb) { return reinterpret_cast<uint64_t>(cb); }

VkAttachmentDescription2 Attachment(VkFormat format, VkAttachmentLoadOp load, VkAttachmentStoreOp store,
                                    VkImageLayout initial, VkImageLayout final) {
    VkAttachmentDescription2 a = {VK_STRUCTURE_TYPE_ATTACHMENT_DESCRIPTION_2};
    a.format = format;
    a.samples = VK_SAMPLE_COUNT_1_BIT;
    a.loadOp = load;
    a.storeOp = store;
    a.stencilLoadOp = VK_ATTACHMENT_LOAD_OP_DONT_CARE;
    a.stencilStoreOp = VK_ATTACHMENT_STORE_OP_DONT_CARE;
    a.initialLayout = initial;
    a.finalLayout = final;
    return a;
}

VkAttachmentReference2 Reference(uint32_t index, VkImageLayout layout, VkImageAspectFlags aspect) {
    VkAttachmentReference2 r = {VK_STRUCTURE_TYPE_ATTACHMENT_REFERENCE_2};
    r.attachment = index;
    r.layout = layout;
    r.aspectMask = aspect;
    return r;
}

}  // namespace

int main(int argc, char** argv) {
    vkh::setProgramName("fsr_probe");
    bool plain = false;
    const char* output = nullptr;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--plain") == 0) {
            plain = true;
        } else if (output == nullptr && argv[i][0] != '-') {
            output = argv[i];
        } else {
            vkh::fail("usage: fsr_probe [--plain] OUTPUT.png");
        }
    }
    if (output == nullptr) vkh::fail("usage: fsr_probe [--plain] OUTPUT.png");
    const bool rate = !plain;

    // The rate features sit between two other structures, so that removing them must splice the chain.
    VkPhysicalDeviceVulkan13Features features13 = {VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_VULKAN_1_3_FEATURES};
    features13.synchronization2 = VK_TRUE;
    VkPhysicalDeviceFragmentShadingRateFeaturesKHR rateFeatures = {
        VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FRAGMENT_SHADING_RATE_FEATURES_KHR};
    rateFeatures.pNext = &features13;
    rateFeatures.pipelineFragmentShadingRate = VK_TRUE;
    rateFeatures.primitiveFragmentShadingRate = VK_TRUE;
    rateFeatures.attachmentFragmentShadingRate = VK_TRUE;
    VkPhysicalDeviceFeatures2 features2 = {VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FEATURES_2};
    features2.pNext = rate ? static_cast<void*>(&rateFeatures) : static_cast<void*>(&features13);

    vkh::ContextDesc desc;
    desc.appName = "fsr_probe";
    desc.apiVersion = VK_API_VERSION_1_3;
    if (rate) desc.deviceExtensions = {VK_KHR_FRAGMENT_SHADING_RATE_EXTENSION_NAME};
    desc.deviceCreatePNext = &features2;
    vkh::Context ctx(desc);
    VkDevice device = ctx.device;

    VkExtent2D texel = {1, 1};
    std::vector<VkPhysicalDeviceFragmentShadingRateKHR> rates;
    PFN_vkCmdSetFragmentShadingRateKHR setRate = nullptr;
    if (rate) {
        VkPhysicalDeviceFragmentShadingRateFeaturesKHR f = {
            VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FRAGMENT_SHADING_RATE_FEATURES_KHR};
        VkPhysicalDeviceFeatures2 f2 = {VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FEATURES_2, &f};
        vkGetPhysicalDeviceFeatures2(ctx.physicalDevice, &f2);
        std::printf("features pipeline=%u primitive=%u attachment=%u\n", f.pipelineFragmentShadingRate,
                    f.primitiveFragmentShadingRate, f.attachmentFragmentShadingRate);

        VkPhysicalDeviceFragmentShadingRatePropertiesKHR p = {
            VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FRAGMENT_SHADING_RATE_PROPERTIES_KHR};
        VkPhysicalDeviceProperties2 p2 = {VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_PROPERTIES_2, &p};
        vkGetPhysicalDeviceProperties2(ctx.physicalDevice, &p2);
        std::printf(
            "properties minTexel=%ux%u maxTexel=%ux%u texelAspect=%u maxFragment=%ux%u fragmentAspect=%u "
            "coverageSamples=%u rasterSamples=%u nonTrivialCombiners=%u layered=%u multipleViewports=%u "
            "strictMultiply=%u\n",
            p.minFragmentShadingRateAttachmentTexelSize.width, p.minFragmentShadingRateAttachmentTexelSize.height,
            p.maxFragmentShadingRateAttachmentTexelSize.width, p.maxFragmentShadingRateAttachmentTexelSize.height,
            p.maxFragmentShadingRateAttachmentTexelSizeAspectRatio, p.maxFragmentSize.width, p.maxFragmentSize.height,
            p.maxFragmentSizeAspectRatio, p.maxFragmentShadingRateCoverageSamples,
            p.maxFragmentShadingRateRasterizationSamples, p.fragmentShadingRateNonTrivialCombinerOps,
            p.layeredShadingRateAttachments, p.primitiveFragmentShadingRateWithMultipleViewports,
            p.fragmentShadingRateStrictMultiplyCombiner);
        texel = p.minFragmentShadingRateAttachmentTexelSize;
        if (texel.width == 0 || texel.height == 0) vkh::fail("the device reports a shading-rate texel size of 0");

        auto getRates = reinterpret_cast<PFN_vkGetPhysicalDeviceFragmentShadingRatesKHR>(
            vkGetInstanceProcAddr(ctx.instance, "vkGetPhysicalDeviceFragmentShadingRatesKHR"));
        if (getRates == nullptr) vkh::fail("vkGetPhysicalDeviceFragmentShadingRatesKHR does not resolve");
        uint32_t count = 0;
        VKH_CHECK(getRates(ctx.physicalDevice, &count, nullptr));
        rates.resize(count, {VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FRAGMENT_SHADING_RATE_KHR});
        VKH_CHECK(getRates(ctx.physicalDevice, &count, rates.data()));
        rates.resize(count);
        std::printf("rates");
        for (const auto& r : rates) {
            std::printf(" %ux%u:0x%x", r.fragmentSize.width, r.fragmentSize.height, r.sampleCounts);
        }
        std::printf("\n");
        if (count >= 2) {
            // One short of the whole list must come back incomplete.
            uint32_t fewer = count - 1;
            std::vector<VkPhysicalDeviceFragmentShadingRateKHR> some(
                fewer, {VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FRAGMENT_SHADING_RATE_KHR});
            if (getRates(ctx.physicalDevice, &fewer, some.data()) != VK_INCOMPLETE || fewer != count - 1) {
                vkh::fail("a short rate array did not give VK_INCOMPLETE");
            }
        }
        if (!ctx.supportsOptimal(kRateFormat, VK_FORMAT_FEATURE_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR)) {
            vkh::fail("R8_UINT lacks the shading-rate attachment format feature");
        }
        setRate = reinterpret_cast<PFN_vkCmdSetFragmentShadingRateKHR>(
            vkGetDeviceProcAddr(device, "vkCmdSetFragmentShadingRateKHR"));
        if (setRate == nullptr) vkh::fail("vkCmdSetFragmentShadingRateKHR does not resolve");
    }

    // Images.
    vkh::Image color = ctx.createImage(kColorFormat, {kWidth, kHeight},
                                       VK_IMAGE_USAGE_COLOR_ATTACHMENT_BIT | VK_IMAGE_USAGE_TRANSFER_SRC_BIT);
    vkh::Image depth = ctx.createImage(kDepthFormat, {kWidth, kHeight}, VK_IMAGE_USAGE_DEPTH_STENCIL_ATTACHMENT_BIT);
    const VkExtent2D rateExtent = {(kWidth + texel.width - 1) / texel.width, (kHeight + texel.height - 1) / texel.height};
    vkh::Image rateImage;
    VkImageView rateView = VK_NULL_HANDLE;
    std::vector<uint8_t> rateBytes;
    if (rate) {
        std::printf("rateImage %ux%u\n", rateExtent.width, rateExtent.height);
        rateImage = ctx.createImage(kRateFormat, rateExtent,
                                    VK_IMAGE_USAGE_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR |
                                        VK_IMAGE_USAGE_TRANSFER_DST_BIT);
        // The attachment's view names only the shading-rate usage.
        VkImageViewUsageCreateInfo viewUsage = {VK_STRUCTURE_TYPE_IMAGE_VIEW_USAGE_CREATE_INFO};
        viewUsage.usage = VK_IMAGE_USAGE_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR;
        VkImageViewCreateInfo viewInfo = {VK_STRUCTURE_TYPE_IMAGE_VIEW_CREATE_INFO, &viewUsage};
        viewInfo.image = rateImage.image;
        viewInfo.viewType = VK_IMAGE_VIEW_TYPE_2D;
        viewInfo.format = kRateFormat;
        viewInfo.subresourceRange = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 1, 0, 1};
        VKH_CHECK(vkCreateImageView(device, &viewInfo, nullptr, &rateView));

        // A pattern of the rates that single-sampled rendering may use.
        std::vector<VkExtent2D> usable;
        for (const auto& r : rates) {
            if (r.sampleCounts & VK_SAMPLE_COUNT_1_BIT) usable.push_back(r.fragmentSize);
        }
        rateBytes.resize(size_t(rateExtent.width) * rateExtent.height);
        for (uint32_t y = 0; y < rateExtent.height; ++y) {
            for (uint32_t x = 0; x < rateExtent.width; ++x) {
                rateBytes[size_t(y) * rateExtent.width + x] = RateValue(usable[(x + 2 * y) % usable.size()]);
            }
        }
        std::printf("uploadBytes %s\n", Hex(rateBytes.data(), rateBytes.size()).c_str());
    }

    // Staging: the top half from a buffer that stays mapped, the rest from one with 16 bytes of
    // lead-in and 3 bytes of padding per row that is unmapped before submission.
    const uint32_t topRows = rateExtent.height / 2;
    const uint32_t bottomRows = rateExtent.height - topRows;
    const VkDeviceSize bottomOffset = 16;
    const uint32_t bottomPitch = rateExtent.width + 3;
    vkh::Buffer stagingTop, stagingBottom;
    if (rate) {
        stagingTop = ctx.createBufferWithData(rateBytes.data(), VkDeviceSize(topRows) * rateExtent.width,
                                      VK_BUFFER_USAGE_TRANSFER_SRC_BIT);
        stagingBottom = ctx.createBuffer(bottomOffset + VkDeviceSize(bottomRows) * bottomPitch,
                                         VK_BUFFER_USAGE_TRANSFER_SRC_BIT, vkh::kHostMemory);
        auto* dst = static_cast<uint8_t*>(stagingBottom.mapped);
        std::memset(dst, 0xee, size_t(stagingBottom.size));
        for (uint32_t y = 0; y < bottomRows; ++y) {
            std::memcpy(dst + bottomOffset + size_t(y) * bottomPitch,
                        rateBytes.data() + size_t(topRows + y) * rateExtent.width, rateExtent.width);
        }
        vkUnmapMemory(device, stagingBottom.memory);
        stagingBottom.mapped = nullptr;
    }

    // Render pass: [rate,] colour, depth.
    const uint32_t base = rate ? 1 : 0;
    std::vector<VkAttachmentDescription2> attachments;
    if (rate) {
        attachments.push_back(Attachment(kRateFormat, VK_ATTACHMENT_LOAD_OP_LOAD, VK_ATTACHMENT_STORE_OP_DONT_CARE,
                                         VK_IMAGE_LAYOUT_FRAGMENT_SHADING_RATE_ATTACHMENT_OPTIMAL_KHR,
                                         VK_IMAGE_LAYOUT_FRAGMENT_SHADING_RATE_ATTACHMENT_OPTIMAL_KHR));
    }
    attachments.push_back(Attachment(kColorFormat, VK_ATTACHMENT_LOAD_OP_CLEAR, VK_ATTACHMENT_STORE_OP_STORE,
                                     VK_IMAGE_LAYOUT_UNDEFINED, VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL));
    attachments.push_back(Attachment(kDepthFormat, VK_ATTACHMENT_LOAD_OP_CLEAR, VK_ATTACHMENT_STORE_OP_DONT_CARE,
                                     VK_IMAGE_LAYOUT_UNDEFINED, VK_IMAGE_LAYOUT_DEPTH_STENCIL_ATTACHMENT_OPTIMAL));
    const VkAttachmentReference2 colorRef =
        Reference(base, VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL, VK_IMAGE_ASPECT_COLOR_BIT);
    const VkAttachmentReference2 depthRef =
        Reference(base + 1, VK_IMAGE_LAYOUT_DEPTH_STENCIL_ATTACHMENT_OPTIMAL, VK_IMAGE_ASPECT_DEPTH_BIT);
    const VkAttachmentReference2 rateRef =
        Reference(0, VK_IMAGE_LAYOUT_FRAGMENT_SHADING_RATE_ATTACHMENT_OPTIMAL_KHR, VK_IMAGE_ASPECT_COLOR_BIT);
    VkFragmentShadingRateAttachmentInfoKHR rateInfo = {VK_STRUCTURE_TYPE_FRAGMENT_SHADING_RATE_ATTACHMENT_INFO_KHR};
    rateInfo.pFragmentShadingRateAttachment = &rateRef;
    rateInfo.shadingRateAttachmentTexelSize = texel;
    VkSubpassDescription2 subpasses[2] = {};
    for (VkSubpassDescription2& sp : subpasses) {
        sp.sType = VK_STRUCTURE_TYPE_SUBPASS_DESCRIPTION_2;
        sp.pNext = rate ? &rateInfo : nullptr;
        sp.pipelineBindPoint = VK_PIPELINE_BIND_POINT_GRAPHICS;
        sp.colorAttachmentCount = 1;
        sp.pColorAttachments = &colorRef;
        sp.pDepthStencilAttachment = &depthRef;
    }
    const VkPipelineStageFlags fragmentTests =
        VK_PIPELINE_STAGE_EARLY_FRAGMENT_TESTS_BIT | VK_PIPELINE_STAGE_LATE_FRAGMENT_TESTS_BIT;
    VkSubpassDependency2 deps[2] = {};
    deps[0].sType = VK_STRUCTURE_TYPE_SUBPASS_DEPENDENCY_2;
    deps[0].srcSubpass = VK_SUBPASS_EXTERNAL;
    deps[0].dstSubpass = 0;
    deps[0].srcStageMask = VK_PIPELINE_STAGE_COLOR_ATTACHMENT_OUTPUT_BIT | fragmentTests;
    deps[0].dstStageMask = VK_PIPELINE_STAGE_COLOR_ATTACHMENT_OUTPUT_BIT | fragmentTests |
                           (rate ? VK_PIPELINE_STAGE_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR : 0);
    deps[0].dstAccessMask = VK_ACCESS_COLOR_ATTACHMENT_WRITE_BIT | VK_ACCESS_DEPTH_STENCIL_ATTACHMENT_WRITE_BIT |
                            (rate ? VK_ACCESS_FRAGMENT_SHADING_RATE_ATTACHMENT_READ_BIT_KHR : 0);
    deps[1].sType = VK_STRUCTURE_TYPE_SUBPASS_DEPENDENCY_2;
    deps[1].srcSubpass = 0;
    deps[1].dstSubpass = 1;
    deps[1].srcStageMask = VK_PIPELINE_STAGE_COLOR_ATTACHMENT_OUTPUT_BIT | fragmentTests;
    deps[1].dstStageMask = VK_PIPELINE_STAGE_COLOR_ATTACHMENT_OUTPUT_BIT | fragmentTests;
    deps[1].srcAccessMask = VK_ACCESS_COLOR_ATTACHMENT_WRITE_BIT | VK_ACCESS_DEPTH_STENCIL_ATTACHMENT_WRITE_BIT;
    deps[1].dstAccessMask = VK_ACCESS_COLOR_ATTACHMENT_WRITE_BIT | VK_ACCESS_COLOR_ATTACHMENT_READ_BIT |
                            VK_ACCESS_DEPTH_STENCIL_ATTACHMENT_READ_BIT |
                            VK_ACCESS_DEPTH_STENCIL_ATTACHMENT_WRITE_BIT;
    deps[1].dependencyFlags = VK_DEPENDENCY_BY_REGION_BIT;
    VkRenderPassCreateInfo2 passInfo = {VK_STRUCTURE_TYPE_RENDER_PASS_CREATE_INFO_2};
    passInfo.attachmentCount = uint32_t(attachments.size());
    passInfo.pAttachments = attachments.data();
    passInfo.subpassCount = 2;
    passInfo.pSubpasses = subpasses;
    passInfo.dependencyCount = 2;
    passInfo.pDependencies = deps;
    VkRenderPass renderPass = VK_NULL_HANDLE;
    VKH_CHECK(vkCreateRenderPass2(device, &passInfo, nullptr, &renderPass));

    std::vector<VkImageView> views;
    if (rate) views.push_back(rateView);
    views.push_back(color.view);
    views.push_back(depth.view);
    VkFramebufferCreateInfo fbInfo = {VK_STRUCTURE_TYPE_FRAMEBUFFER_CREATE_INFO};
    fbInfo.renderPass = renderPass;
    fbInfo.attachmentCount = uint32_t(views.size());
    fbInfo.pAttachments = views.data();
    fbInfo.width = kWidth;
    fbInfo.height = kHeight;
    fbInfo.layers = 1;
    VkFramebuffer framebuffer = VK_NULL_HANDLE;
    VKH_CHECK(vkCreateFramebuffer(device, &fbInfo, nullptr, &framebuffer));

    // Pipelines, one per subpass; the second also carries a static rate, which the dynamic one overrides.
    VkShaderModule vert = ctx.createShader(fsr_probe_vert_spv, sizeof(fsr_probe_vert_spv));
    VkShaderModule frag = ctx.createShader(fsr_probe_frag_spv, sizeof(fsr_probe_frag_spv));
    VkPipelineShaderStageCreateInfo stages[2] = {};
    stages[0] = {VK_STRUCTURE_TYPE_PIPELINE_SHADER_STAGE_CREATE_INFO, nullptr, 0, VK_SHADER_STAGE_VERTEX_BIT, vert,
                 "main"};
    stages[1] = {VK_STRUCTURE_TYPE_PIPELINE_SHADER_STAGE_CREATE_INFO, nullptr, 0, VK_SHADER_STAGE_FRAGMENT_BIT, frag,
                 "main"};
    VkPipelineVertexInputStateCreateInfo vertexInput = {VK_STRUCTURE_TYPE_PIPELINE_VERTEX_INPUT_STATE_CREATE_INFO};
    VkPipelineInputAssemblyStateCreateInfo assembly = {VK_STRUCTURE_TYPE_PIPELINE_INPUT_ASSEMBLY_STATE_CREATE_INFO};
    assembly.topology = VK_PRIMITIVE_TOPOLOGY_TRIANGLE_LIST;
    VkPipelineViewportStateCreateInfo viewport = {VK_STRUCTURE_TYPE_PIPELINE_VIEWPORT_STATE_CREATE_INFO};
    viewport.viewportCount = 1;
    viewport.scissorCount = 1;
    VkPipelineRasterizationStateCreateInfo raster = {VK_STRUCTURE_TYPE_PIPELINE_RASTERIZATION_STATE_CREATE_INFO};
    raster.polygonMode = VK_POLYGON_MODE_FILL;
    raster.cullMode = VK_CULL_MODE_NONE;
    raster.lineWidth = 1.0f;
    VkPipelineMultisampleStateCreateInfo multisample = {VK_STRUCTURE_TYPE_PIPELINE_MULTISAMPLE_STATE_CREATE_INFO};
    multisample.rasterizationSamples = VK_SAMPLE_COUNT_1_BIT;
    VkPipelineDepthStencilStateCreateInfo depthState = {VK_STRUCTURE_TYPE_PIPELINE_DEPTH_STENCIL_STATE_CREATE_INFO};
    depthState.depthTestEnable = VK_TRUE;
    depthState.depthWriteEnable = VK_TRUE;
    depthState.depthCompareOp = VK_COMPARE_OP_LESS;
    VkPipelineColorBlendAttachmentState blendAttachment = {};
    blendAttachment.colorWriteMask = 0xf;
    VkPipelineColorBlendStateCreateInfo blend = {VK_STRUCTURE_TYPE_PIPELINE_COLOR_BLEND_STATE_CREATE_INFO};
    blend.attachmentCount = 1;
    blend.pAttachments = &blendAttachment;
    std::vector<VkDynamicState> dynamicStates = {VK_DYNAMIC_STATE_VIEWPORT, VK_DYNAMIC_STATE_SCISSOR};
    if (rate) dynamicStates.insert(dynamicStates.begin() + 1, VK_DYNAMIC_STATE_FRAGMENT_SHADING_RATE_KHR);
    VkPipelineDynamicStateCreateInfo dynamic = {VK_STRUCTURE_TYPE_PIPELINE_DYNAMIC_STATE_CREATE_INFO};
    dynamic.dynamicStateCount = uint32_t(dynamicStates.size());
    dynamic.pDynamicStates = dynamicStates.data();
    VkPipelineLayoutCreateInfo layoutInfo = {VK_STRUCTURE_TYPE_PIPELINE_LAYOUT_CREATE_INFO};
    VkPipelineLayout layout = VK_NULL_HANDLE;
    VKH_CHECK(vkCreatePipelineLayout(device, &layoutInfo, nullptr, &layout));
    VkPipelineFragmentShadingRateStateCreateInfoKHR staticRate = {
        VK_STRUCTURE_TYPE_PIPELINE_FRAGMENT_SHADING_RATE_STATE_CREATE_INFO_KHR};
    staticRate.fragmentSize = {1, 1};
    staticRate.combinerOps[0] = VK_FRAGMENT_SHADING_RATE_COMBINER_OP_KEEP_KHR;
    staticRate.combinerOps[1] = VK_FRAGMENT_SHADING_RATE_COMBINER_OP_KEEP_KHR;
    VkGraphicsPipelineCreateInfo pipeInfos[2] = {};
    for (uint32_t i = 0; i < 2; ++i) {
        VkGraphicsPipelineCreateInfo& p = pipeInfos[i];
        p.sType = VK_STRUCTURE_TYPE_GRAPHICS_PIPELINE_CREATE_INFO;
        p.pNext = (rate && i == 1) ? &staticRate : nullptr;
        p.stageCount = 2;
        p.pStages = stages;
        p.pVertexInputState = &vertexInput;
        p.pInputAssemblyState = &assembly;
        p.pViewportState = &viewport;
        p.pRasterizationState = &raster;
        p.pMultisampleState = &multisample;
        p.pDepthStencilState = &depthState;
        p.pColorBlendState = &blend;
        p.pDynamicState = &dynamic;
        p.layout = layout;
        p.renderPass = renderPass;
        p.subpass = i;
    }
    VkPipeline pipelines[2] = {};
    VKH_CHECK(vkCreateGraphicsPipelines(device, VK_NULL_HANDLE, 2, pipeInfos, nullptr, pipelines));

    const uint16_t indices[6] = {0, 1, 2, 2, 1, 3};
    vkh::Buffer indexBuffer = ctx.createBufferWithData(indices, sizeof indices, VK_BUFFER_USAGE_INDEX_BUFFER_BIT);

    // Command buffers: the primary, a secondary that uploads, a secondary that draws subpass 1.
    VkCommandBuffer primary = VK_NULL_HANDLE;
    VkCommandBuffer secondaries[2] = {};
    VkCommandBufferAllocateInfo alloc = {VK_STRUCTURE_TYPE_COMMAND_BUFFER_ALLOCATE_INFO};
    alloc.commandPool = ctx.commandPool;
    alloc.level = VK_COMMAND_BUFFER_LEVEL_PRIMARY;
    alloc.commandBufferCount = 1;
    VKH_CHECK(vkAllocateCommandBuffers(device, &alloc, &primary));
    alloc.level = VK_COMMAND_BUFFER_LEVEL_SECONDARY;
    alloc.commandBufferCount = 2;
    VKH_CHECK(vkAllocateCommandBuffers(device, &alloc, secondaries));
    VkCommandBuffer uploadSecondary = secondaries[0];
    VkCommandBuffer drawSecondary = secondaries[1];
    std::printf("commandBuffers primary=0x%" PRIx64 " uploadSecondary=0x%" PRIx64 " drawSecondary=0x%" PRIx64 "\n",
                HandleValue(primary), HandleValue(uploadSecondary), HandleValue(drawSecondary));

    const VkViewport vp = {0.0f, 0.0f, float(kWidth), float(kHeight), 0.0f, 1.0f};
    const VkRect2D scissor = {{0, 0}, {kWidth, kHeight}};
    auto rateCall = [&](VkCommandBuffer cb, VkExtent2D size, VkFragmentShadingRateCombinerOpKHR op0,
                        VkFragmentShadingRateCombinerOpKHR op1) {
        if (!rate) return;
        const VkFragmentShadingRateCombinerOpKHR ops[2] = {op0, op1};
        setRate(cb, &size, ops);
    };

    if (rate) {
        VkCommandBufferInheritanceInfo inherit = {VK_STRUCTURE_TYPE_COMMAND_BUFFER_INHERITANCE_INFO};
        VkCommandBufferBeginInfo begin = {VK_STRUCTURE_TYPE_COMMAND_BUFFER_BEGIN_INFO};
        begin.pInheritanceInfo = &inherit;
        VKH_CHECK(vkBeginCommandBuffer(uploadSecondary, &begin));
        VkCopyBufferToImageInfo2 copy = {VK_STRUCTURE_TYPE_COPY_BUFFER_TO_IMAGE_INFO_2};
        VkBufferImageCopy2 region = {VK_STRUCTURE_TYPE_BUFFER_IMAGE_COPY_2};
        region.bufferOffset = bottomOffset;
        region.bufferRowLength = bottomPitch;
        region.imageSubresource = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 0, 1};
        region.imageOffset = {0, int32_t(topRows), 0};
        region.imageExtent = {rateExtent.width, bottomRows, 1};
        copy.srcBuffer = stagingBottom.buffer;
        copy.dstImage = rateImage.image;
        copy.dstImageLayout = VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL;
        copy.regionCount = 1;
        copy.pRegions = &region;
        vkCmdCopyBufferToImage2(uploadSecondary, &copy);
        VKH_CHECK(vkEndCommandBuffer(uploadSecondary));
    }
    {
        VkCommandBufferInheritanceInfo inherit = {VK_STRUCTURE_TYPE_COMMAND_BUFFER_INHERITANCE_INFO};
        inherit.renderPass = renderPass;
        inherit.subpass = 1;
        inherit.framebuffer = framebuffer;
        VkCommandBufferBeginInfo begin = {VK_STRUCTURE_TYPE_COMMAND_BUFFER_BEGIN_INFO};
        begin.flags = VK_COMMAND_BUFFER_USAGE_RENDER_PASS_CONTINUE_BIT;
        begin.pInheritanceInfo = &inherit;
        VKH_CHECK(vkBeginCommandBuffer(drawSecondary, &begin));
        vkCmdBindPipeline(drawSecondary, VK_PIPELINE_BIND_POINT_GRAPHICS, pipelines[1]);
        vkCmdSetViewport(drawSecondary, 0, 1, &vp);
        vkCmdSetScissor(drawSecondary, 0, 1, &scissor);
        rateCall(drawSecondary, {2, 1}, VK_FRAGMENT_SHADING_RATE_COMBINER_OP_KEEP_KHR,
                 VK_FRAGMENT_SHADING_RATE_COMBINER_OP_MAX_KHR);
        vkCmdDraw(drawSecondary, 3, 1, 0, 2);
        VKH_CHECK(vkEndCommandBuffer(drawSecondary));
    }

    VkCommandBufferBeginInfo begin = {VK_STRUCTURE_TYPE_COMMAND_BUFFER_BEGIN_INFO};
    begin.flags = VK_COMMAND_BUFFER_USAGE_ONE_TIME_SUBMIT_BIT;
    VKH_CHECK(vkBeginCommandBuffer(primary, &begin));
    if (rate) {
        VkImageMemoryBarrier2 toTransfer = {VK_STRUCTURE_TYPE_IMAGE_MEMORY_BARRIER_2};
        toTransfer.srcStageMask = VK_PIPELINE_STAGE_2_NONE;
        toTransfer.dstStageMask = VK_PIPELINE_STAGE_2_COPY_BIT;
        toTransfer.dstAccessMask = VK_ACCESS_2_TRANSFER_WRITE_BIT;
        toTransfer.oldLayout = VK_IMAGE_LAYOUT_UNDEFINED;
        toTransfer.newLayout = VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL;
        toTransfer.srcQueueFamilyIndex = VK_QUEUE_FAMILY_IGNORED;
        toTransfer.dstQueueFamilyIndex = VK_QUEUE_FAMILY_IGNORED;
        toTransfer.image = rateImage.image;
        toTransfer.subresourceRange = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 1, 0, 1};
        VkDependencyInfo dep = {VK_STRUCTURE_TYPE_DEPENDENCY_INFO};
        dep.imageMemoryBarrierCount = 1;
        dep.pImageMemoryBarriers = &toTransfer;
        vkCmdPipelineBarrier2(primary, &dep);

        VkBufferImageCopy region = {};
        region.imageSubresource = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 0, 1};
        region.imageExtent = {rateExtent.width, topRows, 1};
        vkCmdCopyBufferToImage(primary, stagingTop.buffer, rateImage.image, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, 1,
                               &region);
        vkCmdExecuteCommands(primary, 1, &uploadSecondary);
        vkh::transition(primary, rateImage.image, VK_IMAGE_ASPECT_COLOR_BIT, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL,
                        VK_IMAGE_LAYOUT_FRAGMENT_SHADING_RATE_ATTACHMENT_OPTIMAL_KHR, VK_PIPELINE_STAGE_TRANSFER_BIT,
                        VK_ACCESS_TRANSFER_WRITE_BIT, VK_PIPELINE_STAGE_FRAGMENT_SHADING_RATE_ATTACHMENT_BIT_KHR,
                        VK_ACCESS_FRAGMENT_SHADING_RATE_ATTACHMENT_READ_BIT_KHR);
    }

    // The rate attachment's clear value is unused but present, so that the colour and depth ones
    // keep their indices as the application sees them.
    VkClearValue clears[3] = {};
    clears[base].color = {{0.05f, 0.05f, 0.1f, 1.0f}};
    clears[base + 1].depthStencil = {1.0f, 0};
    VkRenderPassBeginInfo rpBegin = {VK_STRUCTURE_TYPE_RENDER_PASS_BEGIN_INFO};
    rpBegin.renderPass = renderPass;
    rpBegin.framebuffer = framebuffer;
    rpBegin.renderArea = scissor;
    rpBegin.clearValueCount = base + 2;
    rpBegin.pClearValues = clears;
    VkSubpassBeginInfo inlineContents = {VK_STRUCTURE_TYPE_SUBPASS_BEGIN_INFO, nullptr, VK_SUBPASS_CONTENTS_INLINE};
    VkSubpassBeginInfo secondaryContents = {VK_STRUCTURE_TYPE_SUBPASS_BEGIN_INFO, nullptr,
                                            VK_SUBPASS_CONTENTS_SECONDARY_COMMAND_BUFFERS};
    VkSubpassEndInfo end = {VK_STRUCTURE_TYPE_SUBPASS_END_INFO};
    vkCmdBeginRenderPass2(primary, &rpBegin, &inlineContents);
    vkCmdBindPipeline(primary, VK_PIPELINE_BIND_POINT_GRAPHICS, pipelines[0]);
    vkCmdSetViewport(primary, 0, 1, &vp);
    vkCmdSetScissor(primary, 0, 1, &scissor);
    rateCall(primary, {2, 2}, VK_FRAGMENT_SHADING_RATE_COMBINER_OP_KEEP_KHR,
             VK_FRAGMENT_SHADING_RATE_COMBINER_OP_REPLACE_KHR);
    vkCmdDraw(primary, 3, 1, 0, 0);
    rateCall(primary, {1, 2}, VK_FRAGMENT_SHADING_RATE_COMBINER_OP_REPLACE_KHR,
             VK_FRAGMENT_SHADING_RATE_COMBINER_OP_KEEP_KHR);
    vkCmdBindIndexBuffer(primary, indexBuffer.buffer, 0, VK_INDEX_TYPE_UINT16);
    vkCmdDrawIndexed(primary, 6, 1, 0, 0, 1);
    vkCmdNextSubpass2(primary, &secondaryContents, &end);
    vkCmdExecuteCommands(primary, 1, &drawSecondary);
    vkCmdEndRenderPass2(primary, &end);
    ctx.endOneShot(primary);

    std::vector<uint8_t> pixels =
        ctx.readImageRGBA(color.image, kColorFormat, {kWidth, kHeight}, VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL);
    vkh::writePng(output, kWidth, kHeight, pixels);

    vkFreeCommandBuffers(device, ctx.commandPool, 2, secondaries);
    ctx.destroy(indexBuffer);
    vkDestroyPipeline(device, pipelines[0], nullptr);
    vkDestroyPipeline(device, pipelines[1], nullptr);
    vkDestroyPipelineLayout(device, layout, nullptr);
    vkDestroyShaderModule(device, vert, nullptr);
    vkDestroyShaderModule(device, frag, nullptr);
    vkDestroyFramebuffer(device, framebuffer, nullptr);
    vkDestroyRenderPass(device, renderPass, nullptr);
    if (rate) {
        ctx.destroy(stagingTop);
        ctx.destroy(stagingBottom);
        vkDestroyImageView(device, rateView, nullptr);
        ctx.destroy(rateImage);
    }
    ctx.destroy(depth);
    ctx.destroy(color);
    std::printf("done\n");
    return 0;
}
