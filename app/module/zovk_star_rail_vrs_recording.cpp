// Star Rail VRS while the game records: the game's pass, framebuffer and pipeline handles are
// swapped for the substitutes, the secondaries that carry the passes' contents get the
// attachment rate, and the configured light draw is kept at full rate.
//
// The game's begin and inheritance structures are const: substitutes go down in copies.
#include "app/module/zovk_star_rail_vrs_module.h"
#include "app/module/zovk_star_rail_vrs_trace.h"
#include "layer/zovk_records.h"
#include "settings/zovk_log.h"

namespace vulkan::zovk::app::module {

namespace {

using T = VkDeviceFunctionTable;

template <typename Handle>
Handle Lookup(const std::unordered_map<Handle, Handle>& map, Handle game, bool& found) {
    const auto it = map.find(game);
    found = it != map.end();
    return found ? it->second : VK_NULL_HANDLE;
}

// The substitutes of a game pass and framebuffer in `pass`; false unless both are known
// there (either may still be null: a substitute that could not be made).
bool FindSubstitutes(const ZoVkStarRailVRSModule::PassState& pass, VkRenderPass gamePass,
                     VkFramebuffer gameFramebuffer, VkRenderPass& substitutePass, VkFramebuffer& substituteFramebuffer) {
    bool passFound = false;
    bool framebufferFound = false;
    substitutePass = Lookup(pass.passMap, gamePass, passFound);
    substituteFramebuffer = Lookup(pass.framebufferMap, gameFramebuffer, framebufferFound);
    return passFound && framebufferFound;
}

}  // namespace

void ZoVkStarRailVRSModule::SetRate(DeviceState& state, const VkDeviceFunctionTable& next,
                                    VkCommandBuffer commandBuffer, VkFragmentShadingRateCombinerOpKHR attachmentOp) {
    if (next.vkCmdSetFragmentShadingRateKHR == nullptr) {
        if (!state.missingRateCommandLogged) {
            ZOVK_LOGE("Star Rail VRS: the device has no vkCmdSetFragmentShadingRateKHR");
            state.missingRateCommandLogged = true;
        }
        return;
    }
    const VkExtent2D fullRate{1, 1};
    const VkFragmentShadingRateCombinerOpKHR ops[2] = {VK_FRAGMENT_SHADING_RATE_COMBINER_OP_KEEP_KHR, attachmentOp};
    next.vkCmdSetFragmentShadingRateKHR(commandBuffer, &fullRate, ops);
}

// The calls below run for every pass, secondary and draw of the game. Each first reads the
// counters without the lock: with no device active and no command buffer tracked there is
// nothing to do, and one thread's game pays two loads.

ZoVkPassed<VkResult> ZoVkStarRailVRSModule::PreVkBeginCommandBuffer(VkCommandBuffer commandBuffer,
                                                                    const VkCommandBufferBeginInfo* pBeginInfo,
                                                                    ZoVkNext<&T::vkBeginCommandBuffer> next) {
    if (activeDevices_.load(std::memory_order_relaxed) == 0 &&
        trackedCommandBuffers_.load(std::memory_order_relaxed) == 0) {
        return next(commandBuffer, pBeginInfo);
    }
    VkCommandBufferInheritanceInfo redirected{};
    VkCommandBufferBeginInfo begin{};
    const VkCommandBufferBeginInfo* info = pBeginInfo;
    uint32_t rateFlag = 0;  // the conforming mode's rate for this secondary, set once it records
    {
        std::lock_guard<std::mutex> lock(mutex_);
        DeviceState* state = State(next.Record().device, false);
        if (state != nullptr) {
            // Beginning resets the command buffer: what it was recorded for before is over.
            ForgetCommandBuffer(*state, commandBuffer);
        }
        if (state != nullptr && pBeginInfo != nullptr && Active(*state) && pBeginInfo->pInheritanceInfo != nullptr) {
            const VkCommandBufferInheritanceInfo& inheritance = *pBeginInfo->pInheritanceInfo;
            VkRenderPass pass = VK_NULL_HANDLE;
            VkFramebuffer framebuffer = VK_NULL_HANDLE;
            uint32_t found = 0;  // which pass's secondary: the flag its rate sets
            if (FindSubstitutes(state->mainPass, inheritance.renderPass, inheritance.framebuffer, pass, framebuffer)) {
                Track(state->mainPass.secondaryCommandBuffers, commandBuffer);
                found = kMainRateSet;
                ZOVK_VRS_TRACE(debugLog, "PreVkBeginCommandBuffer, BEGIN MAIN secondary cmb: %llu",
                               HandleNumber(commandBuffer));
            } else if (FindSubstitutes(state->lightPass, inheritance.renderPass, inheritance.framebuffer, pass,
                                       framebuffer)) {
                Track(state->lightPass.secondaryCommandBuffers, commandBuffer);
                StartLightRecording(*state, commandBuffer);
                found = kLightRateSet;
                ZOVK_VRS_TRACE(debugLog, "PreVkBeginCommandBuffer, BEGIN Light secondary cmb: %llu",
                               HandleNumber(commandBuffer));
            }
            if (found != 0 && pass != VK_NULL_HANDLE && framebuffer != VK_NULL_HANDLE) {
                redirected = inheritance;
                redirected.renderPass = pass;
                redirected.framebuffer = framebuffer;
                begin = *pBeginInfo;
                begin.pInheritanceInfo = &redirected;
                info = &begin;
                SetFlags(*state, kSecondaryRedirected);
                rateFlag = conforming_ ? found : 0;
            }
        }
    }
    ZoVkPassed<VkResult> passed = next(commandBuffer, info);
    if (rateFlag != 0 && passed.Result() == VK_SUCCESS) {
        // A secondary inherits no rate from the primary that runs it: its own recording needs one.
        std::lock_guard<std::mutex> lock(mutex_);
        if (DeviceState* state = State(next.Record().device, false)) {
            SetRate(*state, next.NextLayer(), commandBuffer, VK_FRAGMENT_SHADING_RATE_COMBINER_OP_REPLACE_KHR);
            SetFlags(*state, rateFlag);
        }
    }
    return passed;
}

ZoVkPassed<void> ZoVkStarRailVRSModule::PreVkCmdBeginRenderPass(VkCommandBuffer commandBuffer,
                                                                const VkRenderPassBeginInfo* pRenderPassBegin,
                                                                VkSubpassContents contents,
                                                                ZoVkNext<&T::vkCmdBeginRenderPass> next) {
    if (activeDevices_.load(std::memory_order_relaxed) == 0 || pRenderPassBegin == nullptr) {
        return next(commandBuffer, pRenderPassBegin, contents);
    }
    const VkRenderPassBeginInfo& info = *pRenderPassBegin;
    VkRenderPassBeginInfo begin = info;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        DeviceState* state = State(next.Record().device, false);
        const int32_t index = state != nullptr && Active(*state)
                                  ? ResolutionIndex(info.renderArea.extent.width, info.renderArea.extent.height)
                                  : -1;
        VkRenderPass pass = VK_NULL_HANDLE;
        VkFramebuffer framebuffer = VK_NULL_HANDLE;
        const char* line = nullptr;
        if (index < 0) {
            // Not a configured render area: handed on as it came.
        } else if (FindSubstitutes(state->mainPass, info.renderPass, info.framebuffer, pass, framebuffer)) {
            state->curMainResIndex_ = index;
            Track(state->mainPass.passCommandBuffers, commandBuffer);
            line = "PreVkCmdBeginRenderPass, BEGIN MAINPASS, rendrpass %llu ----> %llu, framebuffer "
                   "%llu---->%llu, wh: %dx%d";
        } else if (FindSubstitutes(state->lightPass, info.renderPass, info.framebuffer, pass, framebuffer)) {
            Track(state->lightPass.passCommandBuffers, commandBuffer);
            line = "PreVkCmdBeginRenderPass,  BEGIN LIGHT PASS, renderpass %llu ----> %llu, framebuffer "
                   "%llu---->%llu, wh: %dx%d";
        }
        if (line != nullptr && pass != VK_NULL_HANDLE && framebuffer != VK_NULL_HANDLE) {
            // The rate attachment is loaded, so the game's clear values still cover every cleared one.
            begin.renderPass = pass;
            begin.framebuffer = framebuffer;
            SetFlags(*state, kPassSubstituted);
            ZOVK_VRS_TRACE(debugLog, line, HandleNumber(info.renderPass), HandleNumber(pass),
                           HandleNumber(info.framebuffer), HandleNumber(framebuffer), info.renderArea.extent.width,
                           info.renderArea.extent.height);
        }
    }
    return next(commandBuffer, &begin, contents);
}

void ZoVkStarRailVRSModule::PostVkCmdEndRenderPass(VkCommandBuffer commandBuffer) {
    if (trackedCommandBuffers_.load(std::memory_order_relaxed) == 0) {
        return;
    }
    // Whether or not the device is still active: a pass begun while it was ends now.
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& [device, state] : devices_) {
        if (Untrack(state->mainPass.passCommandBuffers, commandBuffer)) {
            ZOVK_VRS_TRACE(debugLog, "PostVkCmdEndRenderPass, END MAIN PASS, cmb: %llu", HandleNumber(commandBuffer));
        }
        if (Untrack(state->lightPass.passCommandBuffers, commandBuffer)) {
            ZOVK_VRS_TRACE(debugLog, "PostVkCmdEndRenderPass, END LIGHT PASS, cmb: %llu", HandleNumber(commandBuffer));
        }
    }
}

ZoVkPassed<void> ZoVkStarRailVRSModule::PreVkCmdBindPipeline(VkCommandBuffer commandBuffer,
                                                             VkPipelineBindPoint pipelineBindPoint, VkPipeline pipeline,
                                                             ZoVkNext<&T::vkCmdBindPipeline> next) {
    if (activeDevices_.load(std::memory_order_relaxed) != 0 &&
        trackedCommandBuffers_.load(std::memory_order_relaxed) != 0) {
        std::lock_guard<std::mutex> lock(mutex_);
        DeviceState* state = State(next.Record().device, false);
        if (state != nullptr && Active(*state)) {
            bool found = false;
            VkPipeline substitute = VK_NULL_HANDLE;
            // Only secondaries that continue a substituted pass run inside one.
            if (state->mainPass.secondaryCommandBuffers.count(commandBuffer) != 0) {
                substitute = Lookup(state->mainPass.pipelineMap, pipeline, found);
            }
            if (substitute == VK_NULL_HANDLE && state->lightPass.secondaryCommandBuffers.count(commandBuffer) != 0) {
                substitute = Lookup(state->lightPass.pipelineMap, pipeline, found);
            }
            if (substitute != VK_NULL_HANDLE) {
                pipeline = substitute;
            }
        }
    }
    return next(commandBuffer, pipelineBindPoint, pipeline);
}

ZoVkPassed<void> ZoVkStarRailVRSModule::PreVkCmdExecuteCommands(VkCommandBuffer commandBuffer,
                                                                uint32_t commandBufferCount,
                                                                const VkCommandBuffer* pCommandBuffers,
                                                                ZoVkNext<&T::vkCmdExecuteCommands> next) {
    constexpr uint32_t kNeeded = kActive | kPassSubstituted | kSecondaryRedirected;
    if (activeDevices_.load(std::memory_order_relaxed) != 0 && commandBufferCount != 0 && pCommandBuffers != nullptr) {
        std::lock_guard<std::mutex> lock(mutex_);
        DeviceState* state = State(next.Record().device, false);
        // The rate goes into each secondary after the game finished recording it, just before
        // the primary runs it; the conforming mode set it when the secondary began.
        const bool main = state != nullptr && state->mainPass.passCommandBuffers.count(commandBuffer) != 0;
        if (state != nullptr && (state->vrsFlags & kNeeded) == kNeeded &&
            (main || state->lightPass.passCommandBuffers.count(commandBuffer) != 0)) {
            PassState& pass = main ? state->mainPass : state->lightPass;
            for (uint32_t i = 0; i < commandBufferCount; ++i) {
                if (!Untrack(pass.secondaryCommandBuffers, pCommandBuffers[i])) {
                    continue;
                }
                if (conforming_) {
                    continue;
                }
                if (!main) {
                    state->coarseRateActive = true;
                }
                SetRate(*state, next.NextLayer(), pCommandBuffers[i], VK_FRAGMENT_SHADING_RATE_COMBINER_OP_REPLACE_KHR);
                SetFlags(*state, main ? kMainRateSet : kLightRateSet);
                ZOVK_VRS_TRACE(debugLog,
                               main ? "PreVkCmdExecuteCommands, KEEP-REPLACE, mainpass secondary cmb: %llu"
                                    : "PreVkCmdExecuteCommands, KEEP-REPLACE, lightpass secondary cmb: %llu",
                               HandleNumber(pCommandBuffers[i]));
            }
        }
    }
    return next(commandBuffer, commandBufferCount, pCommandBuffers);
}

ZoVkPassed<void> ZoVkStarRailVRSModule::PreVkCmdDrawIndexed(VkCommandBuffer commandBuffer, uint32_t indexCount,
                                                            uint32_t instanceCount, uint32_t firstIndex,
                                                            int32_t vertexOffset, uint32_t firstInstance,
                                                            ZoVkNext<&T::vkCmdDrawIndexed> next) {
    if (lightRecordings_.load(std::memory_order_relaxed) != 0) {
        std::lock_guard<std::mutex> lock(mutex_);
        DeviceState* state = State(next.Record().device, false);
        const auto recording =
            state != nullptr ? state->lightRecordings.find(commandBuffer) : decltype(state->lightRecordings)::iterator();
        if (state != nullptr && recording != state->lightRecordings.end() && Active(*state)) {
            DeviceState::LightRecording& light = recording->second;
            const uint64_t draw = ++light.draws;
            // Unsigned comparison on purpose: a negative configured bound reads as a huge one.
            const bool fullRateDraw = static_cast<uint64_t>(moduleData->fullRateDrawFirst) <= draw &&
                                      draw <= static_cast<uint64_t>(moduleData->fullRateDrawLast) &&
                                      indexCount == static_cast<uint32_t>(moduleData->fullRateIndexCount) &&
                                      instanceCount == static_cast<uint32_t>(moduleData->fullRateInstanceCount);
            if (fullRateDraw == light.coarse) {
                SetRate(*state, next.NextLayer(), commandBuffer,
                        fullRateDraw ? VK_FRAGMENT_SHADING_RATE_COMBINER_OP_KEEP_KHR
                                     : VK_FRAGMENT_SHADING_RATE_COMBINER_OP_REPLACE_KHR);
                light.coarse = !fullRateDraw;
                state->coarseRateActive = light.coarse;
                if (fullRateDraw) {
                    SetFlags(*state, kFullRateDrawSwitched);
                }
            }
        }
    }
    return next(commandBuffer, indexCount, instanceCount, firstIndex, vertexOffset, firstInstance);
}

ZoVkPassed<VkResult> ZoVkStarRailVRSModule::PreVkEndCommandBuffer(VkCommandBuffer commandBuffer,
                                                                  ZoVkNext<&T::vkEndCommandBuffer> next) {
    if (lightRecordings_.load(std::memory_order_relaxed) != 0) {
        // Whether or not the device is still active: a level dropped mid-recording must not
        // leave the light secondary counted as recording.
        std::lock_guard<std::mutex> lock(mutex_);
        if (DeviceState* state = State(next.Record().device, false)) {
            StopLightRecording(*state, commandBuffer);
        }
    }
    return next(commandBuffer);
}

ZoVkPassed<VkResult> ZoVkStarRailVRSModule::PreVkResetCommandBuffer(VkCommandBuffer commandBuffer,
                                                                    VkCommandBufferResetFlags flags,
                                                                    ZoVkNext<&T::vkResetCommandBuffer> next) {
    if (trackedCommandBuffers_.load(std::memory_order_relaxed) != 0) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (DeviceState* state = State(next.Record().device, false)) {
            ForgetCommandBuffer(*state, commandBuffer);
        }
    }
    return next(commandBuffer, flags);
}

ZoVkPassed<void> ZoVkStarRailVRSModule::PreVkFreeCommandBuffers(VkDevice device, VkCommandPool commandPool,
                                                                uint32_t commandBufferCount,
                                                                const VkCommandBuffer* pCommandBuffers,
                                                                ZoVkNext<&T::vkFreeCommandBuffers> next) {
    if (trackedCommandBuffers_.load(std::memory_order_relaxed) != 0 && pCommandBuffers != nullptr) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (DeviceState* state = State(device, false)) {
            for (uint32_t i = 0; i < commandBufferCount; ++i) {
                ForgetCommandBuffer(*state, pCommandBuffers[i]);
            }
        }
    }
    return next(device, commandPool, commandBufferCount, pCommandBuffers);
}

void ZoVkStarRailVRSModule::PostVkCreateCommandPool(VkDevice device, const VkCommandPoolCreateInfo* pCreateInfo,
                                                    const VkAllocationCallbacks* pAllocator,
                                                    VkCommandPool* pCommandPool, VkResult result) {
    if (result == VK_SUCCESS && pCommandPool != nullptr && *pCommandPool != VK_NULL_HANDLE) {
        std::lock_guard<std::mutex> lock(mutex_);
        State(device, true)->renderpassBuilder.SetCommandPool(*pCommandPool);
    }
}

}  // namespace vulkan::zovk::app::module
