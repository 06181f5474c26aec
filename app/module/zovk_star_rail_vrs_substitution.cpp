// Star Rail VRS: recognising the main scene pass and the light pass as the game creates them,
// making substitutes with a shading-rate attachment beside the game's objects, and destroying
// the substitutes with them.
#include "app/module/zovk_star_rail_vrs_module.h"

#include <initializer_list>

#include "app/module/zovk_star_rail_vrs_trace.h"
#include "layer/zovk_records.h"

namespace vulkan::zovk::app::module {

namespace {

using T = VkDeviceFunctionTable;

bool Is(const VkAttachmentDescription& a, VkFormat format, VkAttachmentLoadOp loadOp) {
    return a.format == format && a.loadOp == loadOp;
}

// The main pass: the two G-buffer colours first and depth-stencil last, all with `loadOp`.
// Nothing else of the pass is compared.
bool IsMainPass(const VkRenderPassCreateInfo& info, VkAttachmentLoadOp loadOp) {
    const uint32_t n = info.attachmentCount;
    return n >= 2 && info.pAttachments != nullptr && Is(info.pAttachments[0], VK_FORMAT_R8G8B8A8_SRGB, loadOp) &&
           Is(info.pAttachments[1], VK_FORMAT_R8G8B8A8_UNORM, loadOp) &&
           Is(info.pAttachments[n - 1], VK_FORMAT_D24_UNORM_S8_UINT, loadOp);
}

// The light pass: the lighting target and the main pass's depth-stencil.
bool IsLightPass(const VkRenderPassCreateInfo& info, VkAttachmentLoadOp colorLoadOp, VkAttachmentLoadOp depthLoadOp) {
    return info.attachmentCount == 2 && info.pAttachments != nullptr &&
           Is(info.pAttachments[0], VK_FORMAT_B10G11R11_UFLOAT_PACK32, colorLoadOp) &&
           Is(info.pAttachments[1], VK_FORMAT_D24_UNORM_S8_UINT, depthLoadOp);
}

template <typename Handle>
Handle Lookup(const std::unordered_map<Handle, Handle>& map, Handle game) {
    const auto it = map.find(game);
    return it == map.end() ? VK_NULL_HANDLE : it->second;
}

// Stores `substitute` under `game`. A failed substitute is stored as null all the same: the
// later steps read null as "no substitute". An entry left by a game handle that was reused
// without passing the destroy hook loses its substitute first.
template <typename Handle, typename Destroy>
void Remember(std::unordered_map<Handle, Handle>& map, Handle game, Handle substitute, VkDevice device,
              Destroy destroy) {
    Handle& slot = map[game];
    if (slot != VK_NULL_HANDLE && destroy != nullptr) {
        destroy(device, slot, nullptr);
    }
    slot = substitute;
}

// Destroys the substitute of `game` in `map`, if the map has the game's handle.
template <typename Handle, typename Destroy>
bool Forget(std::unordered_map<Handle, Handle>& map, Handle game, VkDevice device, Destroy destroy) {
    const auto it = map.find(game);
    if (it == map.end()) {
        return false;
    }
    if (it->second != VK_NULL_HANDLE) {
        destroy(device, it->second, nullptr);
    }
    map.erase(it);
    return true;
}

// Destroys the substitutes of `game` in every map that has it, with the next layer's destroy call.
template <typename Handle, typename Destroy>
void ForgetEverywhere(Destroy destroy, VkDevice device, Handle game,
                      std::initializer_list<std::unordered_map<Handle, Handle>*> maps) {
    if (game == VK_NULL_HANDLE) {
        return;
    }
    for (auto* map : maps) {
        Forget(*map, game, device, destroy);
    }
}

// The next layer's destroy call of `device`, for the post hooks, which see no ZoVkNext.
template <auto Slot>
detail::PfnOf<Slot> DestroyFunction(VkDevice device) {
    const ZoVkDeviceInfo* record = ZoVkContextManager::GetInstance()->GetDeviceInfo(GetDispatchKey(device));
    return record != nullptr ? record->functions.*Slot : nullptr;
}

}  // namespace

void ZoVkStarRailVRSModule::ReadTexelSize(DeviceState& state) {
    const ZoVkInstanceInfo* instance = processor_->GetInstanceInfo();
    const ZoVkDeviceInfo* device = ZoVkContextManager::GetInstance()->GetDeviceInfo(GetDispatchKey(state.device));
    MyVkExtent2D& texelSize = state.texelSize;
    PFN_vkGetPhysicalDeviceProperties2 properties2 = nullptr;
    if (instance != nullptr) {
        properties2 = instance->functions.vkGetPhysicalDeviceProperties2 != nullptr
                          ? instance->functions.vkGetPhysicalDeviceProperties2
                          : instance->functions.vkGetPhysicalDeviceProperties2KHR;
    }
    if (device == nullptr || device->shadingRateOff || device->physicalDevice == VK_NULL_HANDLE ||
        properties2 == nullptr) {
        texelSize = MyVkExtent2D();
        return;
    }
    VkPhysicalDeviceFragmentShadingRatePropertiesKHR rate{};
    rate.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FRAGMENT_SHADING_RATE_PROPERTIES_KHR;
    VkPhysicalDeviceProperties2 properties{};
    properties.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_PROPERTIES_2;
    properties.pNext = &rate;
    properties2(device->physicalDevice, &properties);
    texelSize = rate.maxFragmentShadingRateAttachmentTexelSize;
    if (texelSize.width == 0 || texelSize.height == 0) {
        if (!state.zeroTexelSizeLogged) {
            ZOVK_LOGW("Star Rail VRS: the device reports a shading-rate attachment texel size of %ux%u: "
                      "no substitution until it reports one",
                      texelSize.width, texelSize.height);
            state.zeroTexelSizeLogged = true;
        }
        return;
    }
    SetFlags(state, kTexelSizeKnown);
    ZOVK_LOGD("Star Rail VRS: shading-rate texel size %ux%u", texelSize.width, texelSize.height);
}

void ZoVkStarRailVRSModule::PostVkCreateRenderPass(VkDevice device, const VkRenderPassCreateInfo* pCreateInfo,
                                                   const VkAllocationCallbacks* pAllocator, VkRenderPass* pRenderPass,
                                                   VkResult result) {
    std::lock_guard<std::mutex> lock(mutex_);
    DeviceState& state = *State(device, true);
    if ((state.vrsFlags & kTexelSizeKnown) == 0) {
        ReadTexelSize(state);
    }
    if ((state.vrsFlags & kTexelSizeKnown) != 0 && result == VK_SUCCESS && pCreateInfo != nullptr &&
        pRenderPass != nullptr && *pRenderPass != VK_NULL_HANDLE) {
        const VkRenderPassCreateInfo& info = *pCreateInfo;
        const VkRenderPass game = *pRenderPass;
        const auto destroy = DestroyFunction<&T::vkDestroyRenderPass>(device);
        auto substitute = [&] { return state.renderpassBuilder.createShadingRateRenderpass(info, state.texelSize); };
        PassState& mainPass = state.mainPass;
        PassState& lightPass = state.lightPass;
        if (info.attachmentCount == static_cast<uint32_t>(moduleData->mainPassAttachmentCount)) {
            if (IsMainPass(info, VK_ATTACHMENT_LOAD_OP_CLEAR)) {
                const VkRenderPass made = substitute();
                Remember(mainPass.passMap, game, made, device, destroy);
                ZOVK_VRS_TRACE(debugLog, "PostVkCreateRenderPass111, create main pass: %llu---->%llu",
                               HandleNumber(game), HandleNumber(made));
            } else if (IsMainPass(info, VK_ATTACHMENT_LOAD_OP_DONT_CARE)) {
                const VkRenderPass made = substitute();
                Remember(mainPass.framebufferPassMap, game, made, device, destroy);
                ZOVK_VRS_TRACE(debugLog, "PostVkCreateRenderPass222, create main pass for fbo: %llu-----> %llu",
                               HandleNumber(game), HandleNumber(made));
            }
        } else if (info.attachmentCount == 2) {
            if (IsLightPass(info, VK_ATTACHMENT_LOAD_OP_CLEAR, VK_ATTACHMENT_LOAD_OP_LOAD)) {
                const VkRenderPass made = substitute();
                Remember(lightPass.passMap, game, made, device, destroy);
                state.lightPassSubstitute = made;
                ZOVK_VRS_TRACE(debugLog, "PostVkCreateRenderPass111, create light pass: %llu---->%llu",
                               HandleNumber(game), HandleNumber(made));
            } else if (IsLightPass(info, VK_ATTACHMENT_LOAD_OP_DONT_CARE, VK_ATTACHMENT_LOAD_OP_DONT_CARE)) {
                const VkRenderPass made = substitute();
                Remember(lightPass.framebufferPassMap, game, made, device, destroy);
                ZOVK_VRS_TRACE(debugLog, "PostVkCreateRenderPass222, create light pass for fbo: %llu---->%llu",
                               HandleNumber(game), HandleNumber(made));
            }
        }
    }
}

void ZoVkStarRailVRSModule::PostVkCreateFramebuffer(VkDevice device, const VkFramebufferCreateInfo* pCreateInfo,
                                                    const VkAllocationCallbacks* pAllocator,
                                                    VkFramebuffer* pFramebuffer, VkResult result) {
    std::lock_guard<std::mutex> lock(mutex_);
    DeviceState& state = *State(device, true);
    // The images are made here; their first uploads wait for a present, where the game's queue
    // may be used, and substitution starts once they are submitted.
    if ((state.vrsFlags & kTexelSizeKnown) != 0 && !state.imagesMade) {
        state.imagesMade = initShadingRateImages(state);
    }
    const int32_t index = pCreateInfo != nullptr ? ResolutionIndex(pCreateInfo->width, pCreateInfo->height) : -1;
    if (state.imagesMade && result == VK_SUCCESS && pFramebuffer != nullptr && *pFramebuffer != VK_NULL_HANDLE &&
        index >= 0 && static_cast<size_t>(index) < state.mainPass.images.size() &&
        state.mainPass.images[index].image != VK_NULL_HANDLE) {
        const VkFramebufferCreateInfo& info = *pCreateInfo;
        const VkFramebuffer game = *pFramebuffer;
        // The clear variant of the pass wins; the game may create its framebuffers on either.
        auto substitute = [&](PassState& pass, const char* clearLine, const char* framebufferLine) {
            VkRenderPass substitutePass = Lookup(pass.passMap, info.renderPass);
            const char* line = clearLine;
            if (substitutePass == VK_NULL_HANDLE) {
                substitutePass = Lookup(pass.framebufferPassMap, info.renderPass);
                line = framebufferLine;
            }
            if (substitutePass == VK_NULL_HANDLE) {
                return;
            }
            const VkFramebuffer made =
                state.renderpassBuilder.createVRSFramebuffer(substitutePass, info, pass.images[index]);
            Remember(pass.framebufferMap, game, made, device, DestroyFunction<&T::vkDestroyFramebuffer>(device));
            ZOVK_VRS_TRACE(debugLog, line, HandleNumber(game), HandleNumber(made), info.width, info.height);
        };
        if (info.attachmentCount == static_cast<uint32_t>(moduleData->mainPassAttachmentCount)) {
            substitute(state.mainPass, "PostVkCreateFramebuffer 111, old new main framebuffer: %llu---->%llu, wh: %dx%d",
                       "PostVkCreateFramebuffer 222, old new main framebuffer: %llu---->%llu, wh: %dx%d");
        } else if (info.attachmentCount == 2) {
            substitute(state.lightPass, "PostVkCreateFramebuffer 111, old new light framebuffer: %llu---->%llu, wh: %dx%d",
                       "PostVkCreateFramebuffer 222, old new light framebuffer: %llu---->%llu, wh: %dx%d");
        }
    }
}

void ZoVkStarRailVRSModule::PostVkCreateGraphicsPipelines(VkDevice device, VkPipelineCache pipelineCache,
                                                          uint32_t createInfoCount,
                                                          const VkGraphicsPipelineCreateInfo* pCreateInfos,
                                                          const VkAllocationCallbacks* pAllocator,
                                                          VkPipeline* pPipelines, VkResult result) {
    std::lock_guard<std::mutex> lock(mutex_);
    DeviceState& state = *State(device, true);
    const auto destroy = DestroyFunction<&T::vkDestroyPipeline>(device);
    for (uint32_t i = 0; pCreateInfos != nullptr && pPipelines != nullptr && i < createInfoCount; ++i) {
        const VkPipeline game = pPipelines[i];
        if (game == VK_NULL_HANDLE) {
            continue;  // not made (a failed or deferred create)
        }
        // Only the framebuffer variants of the passes name pipelines. The substitute gets no
        // allocator: the module destroys it without one.
        const bool main = Lookup(state.mainPass.framebufferPassMap, pCreateInfos[i].renderPass) != VK_NULL_HANDLE;
        PassState& kind = main ? state.mainPass : state.lightPass;
        if (const VkRenderPass pass = Lookup(kind.framebufferPassMap, pCreateInfos[i].renderPass)) {
            const VkPipeline made =
                state.renderpassBuilder.createVRSPipelineCreateInfo(pipelineCache, nullptr, pCreateInfos[i], pass);
            Remember(kind.pipelineMap, game, made, device, destroy);
            ZOVK_VRS_TRACE(debugLog,
                           main ? "PostVkCreateGraphicsPipelines, main pipeline: %llu ----> %llu"
                                : "PostVkCreateGraphicsPipelines, light pipeline: %llu ----> %llu",
                           HandleNumber(game), HandleNumber(made));
        }
    }
}

ZoVkPassed<void> ZoVkStarRailVRSModule::PreVkDestroyPipeline(VkDevice device, VkPipeline pipeline,
                                                             const VkAllocationCallbacks* pAllocator,
                                                             ZoVkNext<&T::vkDestroyPipeline> next) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (DeviceState* state = State(device, false)) {
            ForgetEverywhere(next.NextLayer().vkDestroyPipeline, device, pipeline,
                             {&state->mainPass.pipelineMap, &state->lightPass.pipelineMap});
        }
    }
    return next(device, pipeline, pAllocator);
}

ZoVkPassed<void> ZoVkStarRailVRSModule::PreVkDestroyFramebuffer(VkDevice device, VkFramebuffer framebuffer,
                                                                const VkAllocationCallbacks* pAllocator,
                                                                ZoVkNext<&T::vkDestroyFramebuffer> next) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (DeviceState* state = State(device, false)) {
            ForgetEverywhere(next.NextLayer().vkDestroyFramebuffer, device, framebuffer,
                             {&state->mainPass.framebufferMap, &state->lightPass.framebufferMap});
        }
    }
    return next(device, framebuffer, pAllocator);
}

ZoVkPassed<void> ZoVkStarRailVRSModule::PreVkDestroyRenderPass(VkDevice device, VkRenderPass renderPass,
                                                               const VkAllocationCallbacks* pAllocator,
                                                               ZoVkNext<&T::vkDestroyRenderPass> next) {
    std::unique_lock<std::mutex> lock(mutex_);
    DeviceState* state = State(device, false);
    if (renderPass != VK_NULL_HANDLE && state != nullptr) {
        const auto destroy = next.NextLayer().vkDestroyRenderPass;
        if (Lookup(state->lightPass.passMap, renderPass) == state->lightPassSubstitute) {
            state->lightPassSubstitute = VK_NULL_HANDLE;
        }
        if (!Forget(state->mainPass.passMap, renderPass, device, destroy)) {
            Forget(state->lightPass.passMap, renderPass, device, destroy);
        }
        if (!Forget(state->mainPass.framebufferPassMap, renderPass, device, destroy)) {
            Forget(state->lightPass.framebufferPassMap, renderPass, device, destroy);
        }
    }
    lock.unlock();
    return next(device, renderPass, pAllocator);
}

}  // namespace vulkan::zovk::app::module
