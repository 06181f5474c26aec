#include "scene_common.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace scene {

// ---- options

const char* optionValue(int argc, char** argv, int& i) {
    if (i + 1 >= argc) vkh::fail("option %s needs a value", argv[i]);
    return argv[++i];
}

uint32_t parseNumber(const char* text, const char* option, uint32_t min, uint32_t max) {
    char* end = nullptr;
    errno = 0;
    unsigned long long value = std::strtoull(text, &end, 10);
    if (end == text || *end != '\0' || errno != 0 || text[0] == '-' || value < min || value > max) {
        vkh::fail("%s: '%s' is not a number from %u to %u", option, text, min, max);
    }
    return uint32_t(value);
}

std::vector<uint32_t> parseNumberList(const char* text, const char* option, size_t count) {
    std::vector<uint32_t> numbers;
    std::string all(text);
    size_t start = 0;
    while (true) {
        size_t comma = all.find(',', start);
        std::string piece = all.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        numbers.push_back(parseNumber(piece.c_str(), option, 0, 0x7fffffff));
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    if (numbers.size() != count) vkh::fail("%s: '%s' must be %zu numbers separated by commas", option, text, count);
    return numbers;
}

const char kCommonUsage[] =
    "  --shader-loops N         the pass fragment shaders add N rounds of trigonometry whose result\n"
    "                           is 1, so that fragment work dominates on a GPU (default 1: none)\n"
    "  --gpu-time FILE          GPU time of each render pass from timestamps, as JSON lines\n"
    "                           {\"frame\":N,\"pass\":\"LABEL\",\"ms\":X} (frames from 1)\n";

bool parseCommonOption(int argc, char** argv, int& i, CommonOptions& options) {
    const std::string option = argv[i];
    if (option == "--frames") {
        options.frames = parseNumber(optionValue(argc, argv, i), "--frames", 1, 1000000);
    } else if (option == "--width") {
        options.width = parseNumber(optionValue(argc, argv, i), "--width", 16, 8192);
    } else if (option == "--height") {
        options.height = parseNumber(optionValue(argc, argv, i), "--height", 16, 8192);
    } else if (option == "--png") {
        options.png = optionValue(argc, argv, i);
    } else if (option == "--shader-loops") {
        options.shaderLoops = parseNumber(optionValue(argc, argv, i), "--shader-loops", 0, 1000000);
    } else if (option == "--gpu-time") {
        options.gpuTime = optionValue(argc, argv, i);
    } else {
        return false;
    }
    return true;
}

void parseOptions(int argc, char** argv, const char* usage, CommonOptions& common,
                  const std::function<bool(const std::string& option, int& i)>& own) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (parseCommonOption(argc, argv, i, common) || own(arg, i)) continue;
        if (arg == "--help" || arg == "-h") {
            std::fputs(usage, stdout);
            std::fputs(kCommonUsage, stdout);
            std::exit(0);
        }
        std::fputs(usage, stderr);
        std::fputs(kCommonUsage, stderr);
        vkh::fail("unknown option %s", arg.c_str());
    }
}

// ---- meshes

Mesh makeGrid(uint32_t cols, uint32_t rows, float depthLeft, float depthRight) {
    Mesh mesh;
    for (uint32_t y = 0; y <= rows; ++y) {
        for (uint32_t x = 0; x <= cols; ++x) {
            const float u = float(x) / float(cols), v = float(y) / float(rows);
            Vertex vtx;
            vtx.x = u * 2.0f - 1.0f;
            vtx.y = v * 2.0f - 1.0f;
            vtx.z = depthLeft + (depthRight - depthLeft) * u;
            vtx.r = 0.5f + 0.5f * std::sin(u * 6.0f + v * 2.0f);
            vtx.g = 0.5f + 0.5f * std::sin(v * 5.0f + 2.0f);
            vtx.b = 0.5f + 0.5f * std::cos(u * 3.0f - v * 4.0f);
            vtx.a = 1.0f;
            mesh.vertices.push_back(vtx);
        }
    }
    for (uint32_t y = 0; y < rows; ++y) {
        for (uint32_t x = 0; x < cols; ++x) {
            const uint32_t i = y * (cols + 1) + x;
            mesh.indices.insert(mesh.indices.end(), {i, i + 1, i + cols + 1, i + 1, i + cols + 2, i + cols + 1});
        }
    }
    return mesh;
}

Mesh makeQuad(float depth, float r, float g, float b) {
    Mesh mesh;
    const float corners[4][2] = {{-1, -1}, {1, -1}, {1, 1}, {-1, 1}};
    for (int i = 0; i < 4; ++i) {
        // A little gradient across the quad keeps even a single quad from being flat.
        const float shade = 0.6f + 0.2f * float(i);
        mesh.vertices.push_back({corners[i][0], corners[i][1], depth, r * shade, g, b * (1.6f - shade), 1.0f});
    }
    mesh.indices = {0, 1, 2, 0, 2, 3};
    return mesh;
}

Mesh makeRing(uint32_t indexCount, float depth) {
    Mesh mesh;
    const uint32_t triangles = (indexCount + 2) / 3;
    const float golden = 2.39996323f;
    for (uint32_t t = 0; t < triangles; ++t) {
        const float angle = float(t) * golden;
        const float radius = 0.25f + 0.75f * std::sqrt((float(t) + 0.5f) / float(triangles));
        const float cx = radius * std::cos(angle), cy = radius * std::sin(angle);
        const float size = 0.05f;
        const float r = 0.5f + 0.5f * std::cos(angle), g = 0.5f + 0.5f * std::cos(angle + 2.1f),
                    b = 0.5f + 0.5f * std::cos(angle + 4.2f);
        for (int k = 0; k < 3; ++k) {
            const float a = angle + float(k) * 2.0943951f;
            mesh.vertices.push_back({cx + size * std::cos(a), cy + size * std::sin(a), depth, r, g, b, 1.0f});
            mesh.indices.push_back(t * 3 + uint32_t(k));
        }
    }
    return mesh;
}

MeshRange MeshBuffers::add(const Mesh& mesh) {
    MeshRange range;
    range.firstIndex = uint32_t(all_.indices.size());
    range.indexCount = uint32_t(mesh.indices.size());
    range.vertexOffset = int32_t(all_.vertices.size());
    all_.vertices.insert(all_.vertices.end(), mesh.vertices.begin(), mesh.vertices.end());
    all_.indices.insert(all_.indices.end(), mesh.indices.begin(), mesh.indices.end());
    return range;
}

void MeshBuffers::upload(vkh::Context& ctx) {
    // Host-visible memory is enough: the meshes are small and written once.
    vertices_ = ctx.createBufferWithData(all_.vertices.data(), all_.vertices.size() * sizeof(Vertex),
                                 VK_BUFFER_USAGE_VERTEX_BUFFER_BIT);
    indices_ = ctx.createBufferWithData(all_.indices.data(), all_.indices.size() * sizeof(uint32_t),
                                VK_BUFFER_USAGE_INDEX_BUFFER_BIT);
}

void MeshBuffers::bind(VkCommandBuffer cmd) const {
    const VkDeviceSize offset = 0;
    vkCmdBindVertexBuffers(cmd, 0, 1, &vertices_.buffer, &offset);
    vkCmdBindIndexBuffer(cmd, indices_.buffer, 0, VK_INDEX_TYPE_UINT32);
}

void MeshBuffers::destroy(vkh::Context& ctx) {
    ctx.destroy(vertices_);
    ctx.destroy(indices_);
}

// ---- render passes and pipelines

VkRenderPass createRenderPass(VkDevice device, const std::vector<AttachmentSpec>& attachments) {
    std::vector<VkAttachmentDescription> descriptions;
    std::vector<VkAttachmentReference> colors;
    VkAttachmentReference depth = {VK_ATTACHMENT_UNUSED, VK_IMAGE_LAYOUT_UNDEFINED};
    for (size_t i = 0; i < attachments.size(); ++i) {
        const AttachmentSpec& a = attachments[i];
        const VkImageAspectFlags aspect = vkh::aspectOf(a.format);
        const bool isDepth = aspect != VK_IMAGE_ASPECT_COLOR_BIT;
        if (isDepth && i + 1 != attachments.size()) vkh::fail("createRenderPass: the depth attachment must be last");
        VkAttachmentDescription d = {};
        d.format = a.format;
        d.samples = VK_SAMPLE_COUNT_1_BIT;
        d.loadOp = a.load;
        d.storeOp = VK_ATTACHMENT_STORE_OP_STORE;
        d.stencilLoadOp = (aspect & VK_IMAGE_ASPECT_STENCIL_BIT) ? a.load : VK_ATTACHMENT_LOAD_OP_DONT_CARE;
        d.stencilStoreOp =
            (aspect & VK_IMAGE_ASPECT_STENCIL_BIT) ? VK_ATTACHMENT_STORE_OP_STORE : VK_ATTACHMENT_STORE_OP_DONT_CARE;
        d.initialLayout = a.initialLayout;
        d.finalLayout = a.finalLayout;
        descriptions.push_back(d);
        if (isDepth) {
            depth = {uint32_t(i), VK_IMAGE_LAYOUT_DEPTH_STENCIL_ATTACHMENT_OPTIMAL};
        } else {
            colors.push_back({uint32_t(i), VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL});
        }
    }
    VkSubpassDescription subpass = {};
    subpass.pipelineBindPoint = VK_PIPELINE_BIND_POINT_GRAPHICS;
    subpass.colorAttachmentCount = uint32_t(colors.size());
    subpass.pColorAttachments = colors.data();
    subpass.pDepthStencilAttachment = depth.attachment == VK_ATTACHMENT_UNUSED ? nullptr : &depth;

    // Every pass writes attachments that a later pass loads or samples, and may overwrite what
    // an earlier pass sampled.
    const VkPipelineStageFlags attachmentStages = VK_PIPELINE_STAGE_COLOR_ATTACHMENT_OUTPUT_BIT |
                                                  VK_PIPELINE_STAGE_EARLY_FRAGMENT_TESTS_BIT |
                                                  VK_PIPELINE_STAGE_LATE_FRAGMENT_TESTS_BIT;
    const VkAccessFlags attachmentWrites =
        VK_ACCESS_COLOR_ATTACHMENT_WRITE_BIT | VK_ACCESS_DEPTH_STENCIL_ATTACHMENT_WRITE_BIT;
    const VkAccessFlags attachmentAccess = attachmentWrites | VK_ACCESS_COLOR_ATTACHMENT_READ_BIT |
                                           VK_ACCESS_DEPTH_STENCIL_ATTACHMENT_READ_BIT;
    VkSubpassDependency dependencies[2] = {};
    dependencies[0].srcSubpass = VK_SUBPASS_EXTERNAL;
    dependencies[0].dstSubpass = 0;
    dependencies[0].srcStageMask = attachmentStages | VK_PIPELINE_STAGE_FRAGMENT_SHADER_BIT;
    dependencies[0].srcAccessMask = attachmentWrites;
    dependencies[0].dstStageMask = attachmentStages;
    dependencies[0].dstAccessMask = attachmentAccess;
    dependencies[1].srcSubpass = 0;
    dependencies[1].dstSubpass = VK_SUBPASS_EXTERNAL;
    dependencies[1].srcStageMask = attachmentStages;
    dependencies[1].srcAccessMask = attachmentWrites;
    dependencies[1].dstStageMask = attachmentStages | VK_PIPELINE_STAGE_FRAGMENT_SHADER_BIT;
    dependencies[1].dstAccessMask = attachmentAccess | VK_ACCESS_SHADER_READ_BIT;

    VkRenderPassCreateInfo info = {VK_STRUCTURE_TYPE_RENDER_PASS_CREATE_INFO};
    info.attachmentCount = uint32_t(descriptions.size());
    info.pAttachments = descriptions.data();
    info.subpassCount = 1;
    info.pSubpasses = &subpass;
    info.dependencyCount = 2;
    info.pDependencies = dependencies;
    VkRenderPass pass = VK_NULL_HANDLE;
    VKH_CHECK(vkCreateRenderPass(device, &info, nullptr, &pass));
    return pass;
}

VkFramebuffer createFramebuffer(VkDevice device, VkRenderPass pass, const std::vector<VkImageView>& views,
                                VkExtent2D extent) {
    VkFramebufferCreateInfo info = {VK_STRUCTURE_TYPE_FRAMEBUFFER_CREATE_INFO};
    info.renderPass = pass;
    info.attachmentCount = uint32_t(views.size());
    info.pAttachments = views.data();
    info.width = extent.width;
    info.height = extent.height;
    info.layers = 1;
    VkFramebuffer fb = VK_NULL_HANDLE;
    VKH_CHECK(vkCreateFramebuffer(device, &info, nullptr, &fb));
    return fb;
}

VkPipeline createPipeline(VkDevice device, const PipelineDesc& desc) {
    VkPipelineShaderStageCreateInfo stages[2] = {};
    stages[0].sType = VK_STRUCTURE_TYPE_PIPELINE_SHADER_STAGE_CREATE_INFO;
    stages[0].stage = VK_SHADER_STAGE_VERTEX_BIT;
    stages[0].module = desc.vertex;
    stages[0].pName = "main";
    stages[1] = stages[0];
    stages[1].stage = VK_SHADER_STAGE_FRAGMENT_BIT;
    stages[1].module = desc.fragment;
    const int32_t loops = int32_t(desc.fragmentLoops);
    const VkSpecializationMapEntry loopsEntry = {0, 0, sizeof(loops)};
    const VkSpecializationInfo specialization = {1, &loopsEntry, sizeof(loops), &loops};
    if (desc.fragmentLoops != 0) stages[1].pSpecializationInfo = &specialization;

    const VkVertexInputBindingDescription binding = {0, sizeof(Vertex), VK_VERTEX_INPUT_RATE_VERTEX};
    const VkVertexInputAttributeDescription attributes[2] = {
        {0, 0, VK_FORMAT_R32G32B32_SFLOAT, offsetof(Vertex, x)},
        {1, 0, VK_FORMAT_R32G32B32A32_SFLOAT, offsetof(Vertex, r)},
    };
    VkPipelineVertexInputStateCreateInfo vertexInput = {VK_STRUCTURE_TYPE_PIPELINE_VERTEX_INPUT_STATE_CREATE_INFO};
    if (desc.meshInput) {
        vertexInput.vertexBindingDescriptionCount = 1;
        vertexInput.pVertexBindingDescriptions = &binding;
        vertexInput.vertexAttributeDescriptionCount = 2;
        vertexInput.pVertexAttributeDescriptions = attributes;
    }
    VkPipelineInputAssemblyStateCreateInfo assembly = {VK_STRUCTURE_TYPE_PIPELINE_INPUT_ASSEMBLY_STATE_CREATE_INFO};
    assembly.topology = VK_PRIMITIVE_TOPOLOGY_TRIANGLE_LIST;

    const VkViewport viewport = {0, 0, float(desc.extent.width), float(desc.extent.height), 0, 1};
    const VkRect2D scissor = {{0, 0}, desc.extent};
    VkPipelineViewportStateCreateInfo viewportState = {VK_STRUCTURE_TYPE_PIPELINE_VIEWPORT_STATE_CREATE_INFO};
    viewportState.viewportCount = 1;
    viewportState.scissorCount = 1;
    const VkDynamicState dynamicList[2] = {VK_DYNAMIC_STATE_VIEWPORT, VK_DYNAMIC_STATE_SCISSOR};
    VkPipelineDynamicStateCreateInfo dynamic = {VK_STRUCTURE_TYPE_PIPELINE_DYNAMIC_STATE_CREATE_INFO};
    if (desc.dynamic == DynamicStates::kViewportScissor) {
        dynamic.dynamicStateCount = 2;
        dynamic.pDynamicStates = dynamicList;
    } else {
        if (desc.extent.width == 0 || desc.extent.height == 0) vkh::fail("createPipeline: a baked viewport needs an extent");
        viewportState.pViewports = &viewport;
        viewportState.pScissors = &scissor;
    }

    VkPipelineRasterizationStateCreateInfo raster = {VK_STRUCTURE_TYPE_PIPELINE_RASTERIZATION_STATE_CREATE_INFO};
    raster.polygonMode = VK_POLYGON_MODE_FILL;
    raster.cullMode = VK_CULL_MODE_NONE;
    raster.frontFace = VK_FRONT_FACE_COUNTER_CLOCKWISE;
    raster.lineWidth = 1.0f;
    VkPipelineMultisampleStateCreateInfo multisample = {VK_STRUCTURE_TYPE_PIPELINE_MULTISAMPLE_STATE_CREATE_INFO};
    multisample.rasterizationSamples = VK_SAMPLE_COUNT_1_BIT;
    VkPipelineDepthStencilStateCreateInfo depth = {VK_STRUCTURE_TYPE_PIPELINE_DEPTH_STENCIL_STATE_CREATE_INFO};
    depth.depthTestEnable = desc.depthTest;
    depth.depthWriteEnable = desc.depthWrite;
    depth.depthCompareOp = VK_COMPARE_OP_LESS_OR_EQUAL;
    depth.maxDepthBounds = 1.0f;

    VkPipelineColorBlendAttachmentState blend = {};
    blend.colorWriteMask =
        VK_COLOR_COMPONENT_R_BIT | VK_COLOR_COMPONENT_G_BIT | VK_COLOR_COMPONENT_B_BIT | VK_COLOR_COMPONENT_A_BIT;
    if (desc.additive) {
        blend.blendEnable = VK_TRUE;
        blend.srcColorBlendFactor = VK_BLEND_FACTOR_ONE;
        blend.dstColorBlendFactor = VK_BLEND_FACTOR_ONE;
        blend.colorBlendOp = VK_BLEND_OP_ADD;
        blend.srcAlphaBlendFactor = VK_BLEND_FACTOR_ONE;
        blend.dstAlphaBlendFactor = VK_BLEND_FACTOR_ONE;
        blend.alphaBlendOp = VK_BLEND_OP_ADD;
    }
    const std::vector<VkPipelineColorBlendAttachmentState> blends(desc.colorCount, blend);
    VkPipelineColorBlendStateCreateInfo colorBlend = {VK_STRUCTURE_TYPE_PIPELINE_COLOR_BLEND_STATE_CREATE_INFO};
    colorBlend.attachmentCount = desc.colorCount;
    colorBlend.pAttachments = blends.data();

    VkGraphicsPipelineCreateInfo info = {VK_STRUCTURE_TYPE_GRAPHICS_PIPELINE_CREATE_INFO};
    info.stageCount = desc.fragment ? 2 : 1;
    info.pStages = stages;
    info.pVertexInputState = &vertexInput;
    info.pInputAssemblyState = &assembly;
    info.pViewportState = &viewportState;
    info.pRasterizationState = &raster;
    info.pMultisampleState = &multisample;
    info.pDepthStencilState = &depth;
    info.pColorBlendState = &colorBlend;
    info.pDynamicState = desc.dynamic == DynamicStates::kNone ? nullptr : &dynamic;
    info.layout = desc.layout;
    info.renderPass = desc.renderPass;
    info.subpass = 0;
    VkPipeline pipeline = VK_NULL_HANDLE;
    VKH_CHECK(vkCreateGraphicsPipelines(device, VK_NULL_HANDLE, 1, &info, nullptr, &pipeline));
    return pipeline;
}

VkPipelineLayout createPipelineLayout(VkDevice device, VkDescriptorSetLayout setLayout) {
    const VkPushConstantRange range = {kDrawConstantStages, 0, sizeof(DrawConstants)};
    VkPipelineLayoutCreateInfo info = {VK_STRUCTURE_TYPE_PIPELINE_LAYOUT_CREATE_INFO};
    info.setLayoutCount = setLayout ? 1 : 0;
    info.pSetLayouts = &setLayout;
    info.pushConstantRangeCount = 1;
    info.pPushConstantRanges = &range;
    VkPipelineLayout layout = VK_NULL_HANDLE;
    VKH_CHECK(vkCreatePipelineLayout(device, &info, nullptr, &layout));
    return layout;
}

void setViewport(VkCommandBuffer cmd, VkExtent2D extent) {
    const VkViewport viewport = {0, 0, float(extent.width), float(extent.height), 0, 1};
    const VkRect2D scissor = {{0, 0}, extent};
    vkCmdSetViewport(cmd, 0, 1, &viewport);
    vkCmdSetScissor(cmd, 0, 1, &scissor);
}

void recordCompositePass(VkCommandBuffer cmd, VkRenderPass pass, VkFramebuffer framebuffer, VkExtent2D extent,
                         VkPipeline pipeline, VkPipelineLayout layout, VkDescriptorSet set) {
    VkRenderPassBeginInfo begin = {VK_STRUCTURE_TYPE_RENDER_PASS_BEGIN_INFO};
    begin.renderPass = pass;
    begin.framebuffer = framebuffer;
    begin.renderArea = {{0, 0}, extent};
    vkCmdBeginRenderPass(cmd, &begin, VK_SUBPASS_CONTENTS_INLINE);
    vkCmdBindPipeline(cmd, VK_PIPELINE_BIND_POINT_GRAPHICS, pipeline);
    setViewport(cmd, extent);
    vkCmdBindDescriptorSets(cmd, VK_PIPELINE_BIND_POINT_GRAPHICS, layout, 0, 1, &set, 0, nullptr);
    vkCmdDraw(cmd, 3, 1, 0, 0);
    vkCmdEndRenderPass(cmd);
}

// ---- sampled images

void SamplerSet::create(VkDevice device, VkSampler sampler, const std::vector<std::vector<VkImageView>>& views) {
    std::vector<VkDescriptorSetLayoutBinding> bindings;
    uint32_t total = 0;
    for (size_t b = 0; b < views.size(); ++b) {
        VkDescriptorSetLayoutBinding binding = {};
        binding.binding = uint32_t(b);
        binding.descriptorType = VK_DESCRIPTOR_TYPE_COMBINED_IMAGE_SAMPLER;
        binding.descriptorCount = uint32_t(views[b].size());
        binding.stageFlags = VK_SHADER_STAGE_FRAGMENT_BIT;
        bindings.push_back(binding);
        total += binding.descriptorCount;
    }
    VkDescriptorSetLayoutCreateInfo layoutInfo = {VK_STRUCTURE_TYPE_DESCRIPTOR_SET_LAYOUT_CREATE_INFO};
    layoutInfo.bindingCount = uint32_t(bindings.size());
    layoutInfo.pBindings = bindings.data();
    VKH_CHECK(vkCreateDescriptorSetLayout(device, &layoutInfo, nullptr, &layout));

    const VkDescriptorPoolSize size = {VK_DESCRIPTOR_TYPE_COMBINED_IMAGE_SAMPLER, total};
    VkDescriptorPoolCreateInfo poolInfo = {VK_STRUCTURE_TYPE_DESCRIPTOR_POOL_CREATE_INFO};
    poolInfo.maxSets = 1;
    poolInfo.poolSizeCount = 1;
    poolInfo.pPoolSizes = &size;
    VKH_CHECK(vkCreateDescriptorPool(device, &poolInfo, nullptr, &pool));

    VkDescriptorSetAllocateInfo alloc = {VK_STRUCTURE_TYPE_DESCRIPTOR_SET_ALLOCATE_INFO};
    alloc.descriptorPool = pool;
    alloc.descriptorSetCount = 1;
    alloc.pSetLayouts = &layout;
    VKH_CHECK(vkAllocateDescriptorSets(device, &alloc, &set));

    for (size_t b = 0; b < views.size(); ++b) {
        std::vector<VkDescriptorImageInfo> images;
        for (VkImageView view : views[b]) images.push_back({sampler, view, VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL});
        VkWriteDescriptorSet write = {VK_STRUCTURE_TYPE_WRITE_DESCRIPTOR_SET};
        write.dstSet = set;
        write.dstBinding = uint32_t(b);
        write.descriptorCount = uint32_t(images.size());
        write.descriptorType = VK_DESCRIPTOR_TYPE_COMBINED_IMAGE_SAMPLER;
        write.pImageInfo = images.data();
        vkUpdateDescriptorSets(device, 1, &write, 0, nullptr);
    }
}

void SamplerSet::destroy(VkDevice device) {
    vkDestroyDescriptorPool(device, pool, nullptr);
    vkDestroyDescriptorSetLayout(device, layout, nullptr);
    *this = SamplerSet();
}

VkSampler createSampler(VkDevice device, VkFilter filter) {
    VkSamplerCreateInfo info = {VK_STRUCTURE_TYPE_SAMPLER_CREATE_INFO};
    info.magFilter = filter;
    info.minFilter = filter;
    info.mipmapMode = VK_SAMPLER_MIPMAP_MODE_NEAREST;
    info.addressModeU = VK_SAMPLER_ADDRESS_MODE_CLAMP_TO_EDGE;
    info.addressModeV = VK_SAMPLER_ADDRESS_MODE_CLAMP_TO_EDGE;
    info.addressModeW = VK_SAMPLER_ADDRESS_MODE_CLAMP_TO_EDGE;
    info.maxLod = 0.0f;
    VkSampler sampler = VK_NULL_HANDLE;
    VKH_CHECK(vkCreateSampler(device, &info, nullptr, &sampler));
    return sampler;
}

// ---- GPU time

GpuTimer::GpuTimer(vkh::Context& ctx, const std::string& path, uint32_t maxPasses)
    : device_(ctx.device), maxPasses_(maxPasses) {
    uint32_t count = 0;
    vkGetPhysicalDeviceQueueFamilyProperties(ctx.physicalDevice, &count, nullptr);
    std::vector<VkQueueFamilyProperties> families(count);
    vkGetPhysicalDeviceQueueFamilyProperties(ctx.physicalDevice, &count, families.data());
    const uint32_t bits = families[ctx.queueFamily].timestampValidBits;
    if (bits == 0) {
        vkh::warn("--gpu-time: queue family %u has no timestamps (timestampComputeAndGraphics %u): no GPU times",
                  ctx.queueFamily, ctx.properties.limits.timestampComputeAndGraphics);
        return;
    }
    file_ = std::fopen(path.c_str(), "w");
    if (file_ == nullptr) {
        vkh::warn("--gpu-time: cannot open %s: %s: no GPU times", path.c_str(), std::strerror(errno));
        return;
    }
    mask_ = bits >= 64 ? ~0ull : (1ull << bits) - 1;
    nsPerTick_ = ctx.properties.limits.timestampPeriod;
    VkQueryPoolCreateInfo info = {VK_STRUCTURE_TYPE_QUERY_POOL_CREATE_INFO};
    info.queryType = VK_QUERY_TYPE_TIMESTAMP;
    info.queryCount = 2 * maxPasses;
    VKH_CHECK(vkCreateQueryPool(device_, &info, nullptr, &pool_));
}

GpuTimer::~GpuTimer() {
    if (pool_ != VK_NULL_HANDLE) vkDestroyQueryPool(device_, pool_, nullptr);
    if (file_ != nullptr) std::fclose(file_);
}

void GpuTimer::beginFrame(VkCommandBuffer cmd, uint32_t frame) {
    if (pool_ == VK_NULL_HANDLE) return;
    vkCmdResetQueryPool(cmd, pool_, 0, 2 * maxPasses_);
    frame_ = frame;
    labels_.clear();
    pending_ = true;
}

// Both timestamps wait for all earlier work (BOTTOM_OF_PIPE): a pass is not charged for what the
// one before it still had running when it began.
void GpuTimer::beginPass(VkCommandBuffer cmd, const char* label) {
    if (pool_ == VK_NULL_HANDLE) return;
    if (labels_.size() == maxPasses_) vkh::fail("GpuTimer: more than %u passes in a frame", maxPasses_);
    vkCmdWriteTimestamp(cmd, VK_PIPELINE_STAGE_BOTTOM_OF_PIPE_BIT, pool_, uint32_t(2 * labels_.size()));
    labels_.push_back(label);
}

void GpuTimer::endPass(VkCommandBuffer cmd) {
    if (pool_ == VK_NULL_HANDLE) return;
    vkCmdWriteTimestamp(cmd, VK_PIPELINE_STAGE_BOTTOM_OF_PIPE_BIT, pool_, uint32_t(2 * labels_.size() - 1));
}

void GpuTimer::collect() {
    if (!pending_ || labels_.empty()) return;
    pending_ = false;
    std::vector<uint64_t> ticks(2 * labels_.size());
    VKH_CHECK(vkGetQueryPoolResults(device_, pool_, 0, uint32_t(ticks.size()), ticks.size() * sizeof(uint64_t),
                                    ticks.data(), sizeof(uint64_t), VK_QUERY_RESULT_64_BIT | VK_QUERY_RESULT_WAIT_BIT));
    for (size_t p = 0; p < labels_.size(); ++p) {
        const double ms = double((ticks[2 * p + 1] - ticks[2 * p]) & mask_) * nsPerTick_ / 1e6;
        std::fprintf(file_, "{\"frame\":%u,\"pass\":\"%s\",\"ms\":%.6f}\n", frame_ + 1, labels_[p].c_str(), ms);
    }
    std::fflush(file_);
}

// ---- frames

void Presenter::timePasses(const std::string& path, uint32_t maxPasses) {
    if (!path.empty()) timer_ = std::make_unique<GpuTimer>(ctx_, path, maxPasses);
}

Presenter::Presenter(vkh::Context& ctx, uint32_t width, uint32_t height) : ctx_(ctx) {
    swapchain = ctx.createSwapchain(width, height);
    VkCommandBufferAllocateInfo alloc = {VK_STRUCTURE_TYPE_COMMAND_BUFFER_ALLOCATE_INFO};
    alloc.commandPool = ctx.commandPool;
    alloc.level = VK_COMMAND_BUFFER_LEVEL_PRIMARY;
    alloc.commandBufferCount = 1;
    VKH_CHECK(vkAllocateCommandBuffers(ctx.device, &alloc, &cmd_));
    VkFenceCreateInfo fenceInfo = {VK_STRUCTURE_TYPE_FENCE_CREATE_INFO};
    fenceInfo.flags = VK_FENCE_CREATE_SIGNALED_BIT;
    VKH_CHECK(vkCreateFence(ctx.device, &fenceInfo, nullptr, &fence_));
    VkSemaphoreCreateInfo semInfo = {VK_STRUCTURE_TYPE_SEMAPHORE_CREATE_INFO};
    VKH_CHECK(vkCreateSemaphore(ctx.device, &semInfo, nullptr, &acquired_));
    rendered_.resize(swapchain.images.size());
    for (VkSemaphore& s : rendered_) VKH_CHECK(vkCreateSemaphore(ctx.device, &semInfo, nullptr, &s));
}

Presenter::~Presenter() {
    vkDeviceWaitIdle(ctx_.device);
    for (VkSemaphore s : rendered_) vkDestroySemaphore(ctx_.device, s, nullptr);
    vkDestroySemaphore(ctx_.device, acquired_, nullptr);
    vkDestroyFence(ctx_.device, fence_, nullptr);
    vkFreeCommandBuffers(ctx_.device, ctx_.commandPool, 1, &cmd_);
    ctx_.destroy(swapchain);
}

double Presenter::run(uint32_t frames, const RecordFrame& record, const std::string& png) {
    const auto start = std::chrono::steady_clock::now();
    for (uint32_t frame = 0; frame < frames; ++frame) present(frame, frames, record, png);
    finish();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void Presenter::present(uint32_t frame, uint32_t frames, const RecordFrame& record, const std::string& png) {
    VKH_CHECK(vkWaitForFences(ctx_.device, 1, &fence_, VK_TRUE, UINT64_MAX));
    timer_->collect();
    VKH_CHECK(vkResetFences(ctx_.device, 1, &fence_));
    uint32_t imageIndex = 0;
    VKH_CHECK(vkAcquireNextImageKHR(ctx_.device, swapchain.swapchain, UINT64_MAX, acquired_, VK_NULL_HANDLE,
                                    &imageIndex));

    VkCommandBufferBeginInfo begin = {VK_STRUCTURE_TYPE_COMMAND_BUFFER_BEGIN_INFO};
    begin.flags = VK_COMMAND_BUFFER_USAGE_ONE_TIME_SUBMIT_BIT;
    VKH_CHECK(vkBeginCommandBuffer(cmd_, &begin));
    timer_->beginFrame(cmd_, frame);
    record(cmd_, imageIndex, frame);
    VKH_CHECK(vkEndCommandBuffer(cmd_));

    const VkPipelineStageFlags waitStage = VK_PIPELINE_STAGE_COLOR_ATTACHMENT_OUTPUT_BIT;
    VkSubmitInfo submit = {VK_STRUCTURE_TYPE_SUBMIT_INFO};
    submit.waitSemaphoreCount = 1;
    submit.pWaitSemaphores = &acquired_;
    submit.pWaitDstStageMask = &waitStage;
    submit.commandBufferCount = 1;
    submit.pCommandBuffers = &cmd_;
    submit.signalSemaphoreCount = 1;
    submit.pSignalSemaphores = &rendered_[imageIndex];
    VKH_CHECK(vkQueueSubmit(ctx_.queue, 1, &submit, fence_));

    // A name with "%d" gets every frame, numbered from 1; any other name the last one.
    const bool everyFrame = png.find("%d") != std::string::npos;
    if (!png.empty() && (everyFrame || frame + 1 == frames)) {
        // The image is still ours until it is presented: read it back first.
        VKH_CHECK(vkWaitForFences(ctx_.device, 1, &fence_, VK_TRUE, UINT64_MAX));
        const std::vector<uint8_t> rgba = ctx_.readImageRGBA(swapchain.images[imageIndex], swapchain.format,
                                                             swapchain.extent, VK_IMAGE_LAYOUT_PRESENT_SRC_KHR);
        std::string name = png;
        if (everyFrame) name.replace(name.find("%d"), 2, std::to_string(frame + 1));
        vkh::writePng(name, swapchain.extent.width, swapchain.extent.height, rgba);
    }

    VkPresentInfoKHR present = {VK_STRUCTURE_TYPE_PRESENT_INFO_KHR};
    present.waitSemaphoreCount = 1;
    present.pWaitSemaphores = &rendered_[imageIndex];
    present.swapchainCount = 1;
    present.pSwapchains = &swapchain.swapchain;
    present.pImageIndices = &imageIndex;
    const auto presentStart = std::chrono::steady_clock::now();
    VKH_CHECK(vkQueuePresentKHR(ctx_.queue, &present));
    presentMicros_.push_back(
        std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - presentStart).count());
}

void Presenter::finish() {
    VKH_CHECK(vkQueueWaitIdle(ctx_.queue));
    timer_->collect();
    if (!presentTimesPath.empty()) {
        if (FILE* f = std::fopen(presentTimesPath.c_str(), "w")) {
            for (double us : presentMicros_) std::fprintf(f, "%.1f\n", us);
            std::fclose(f);
        }
    }
}

// ---- recording threads

ThreadPools::ThreadPools(vkh::Context& ctx, uint32_t threads, uint32_t perThread)
    : device_(ctx.device), pools_(threads), secondaries_(threads, std::vector<VkCommandBuffer>(perThread)) {
    for (uint32_t t = 0; t < threads; ++t) {
        VkCommandPoolCreateInfo info = {VK_STRUCTURE_TYPE_COMMAND_POOL_CREATE_INFO};
        info.flags = VK_COMMAND_POOL_CREATE_RESET_COMMAND_BUFFER_BIT;  // each begin resets
        info.queueFamilyIndex = ctx.queueFamily;
        VKH_CHECK(vkCreateCommandPool(device_, &info, nullptr, &pools_[t]));
        VkCommandBufferAllocateInfo alloc = {VK_STRUCTURE_TYPE_COMMAND_BUFFER_ALLOCATE_INFO};
        alloc.commandPool = pools_[t];
        alloc.level = VK_COMMAND_BUFFER_LEVEL_SECONDARY;
        alloc.commandBufferCount = perThread;
        VKH_CHECK(vkAllocateCommandBuffers(device_, &alloc, secondaries_[t].data()));
    }
}

ThreadPools::~ThreadPools() {
    // Destroying a pool frees its command buffers.
    for (VkCommandPool pool : pools_) vkDestroyCommandPool(device_, pool, nullptr);
}

void runOnThreads(uint32_t threads, const std::vector<std::function<void()>>& jobs,
                  const std::function<void()>& beside) {
    if (threads == 0) {
        if (beside) beside();
        for (const auto& job : jobs) job();
        return;
    }
    // Released together, as a job system's workers are, so that the recordings overlap.
    std::atomic<uint32_t> waiting{threads + (beside ? 1 : 0)};
    auto startTogether = [&waiting] {
        waiting.fetch_sub(1);
        while (waiting.load() != 0) std::this_thread::yield();
    };
    std::vector<std::thread> running;
    for (uint32_t t = 0; t < threads; ++t) {
        running.emplace_back([&jobs, &startTogether, threads, t] {
            startTogether();
            for (size_t j = t; j < jobs.size(); j += threads) jobs[j]();
        });
    }
    if (beside) {
        running.emplace_back([&beside, &startTogether] {
            startTogether();
            beside();
        });
    }
    for (std::thread& thread : running) thread.join();
}

}  // namespace scene
