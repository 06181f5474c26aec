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

void ZoVkStarRailVRSModule::SetRate(const VkDeviceFunctionTable& next, VkCommandBuffer commandBuffer,
                                    VkFragmentShadingRateCombinerOpKHR attachmentOp) {
    if (next.vkCmdSetFragmentShadingRateKHR == nullptr) {
        if (!missingRateCommandLogged_) {
            ZOVK_LOGE("Star Rail VRS: the device has no vkCmdSetFragmentShadingRateKHR");
            missingRateCommandLogged_ = true;
        }
        return;
    }
    const VkExtent2D fullRate{1, 1};
    const VkFragmentShadingRateCombinerOpKHR ops[2] = {VK_FRAGMENT_SHADING_RATE_COMBINER_OP_KEEP_KHR, attachmentOp};
    next.vkCmdSetFragmentShadingRateKHR(commandBuffer, &fullRate, ops);
}

ZoVkPassed<VkResult> ZoVkStarRailVRSModule::PreVkBeginCommandBuffer(VkCommandBuffer commandBuffer,
                                                                    const VkCommandBufferBeginInfo* pBeginInfo,
                                                                    ZoVkNext<&T::vkBeginCommandBuffer> next) {
    if (pBeginInfo == nullptr || !Active() || pBeginInfo->pInheritanceInfo == nullptr) {
        return next(commandBuffer, pBeginInfo);
    }
    const VkCommandBufferInheritanceInfo& inheritance = *pBeginInfo->pInheritanceInfo;
    VkRenderPass pass = VK_NULL_HANDLE;
    VkFramebuffer framebuffer = VK_NULL_HANDLE;
    if (FindSubstitutes(mainPass, inheritance.renderPass, inheritance.framebuffer, pass, framebuffer)) {
        mainPass.secondaryCommandBuffers.insert(commandBuffer);
        ZOVK_VRS_TRACE(debugLog, "PreVkBeginCommandBuffer, BEGIN MAIN secondary cmb: %llu", HandleNumber(commandBuffer));
    } else if (FindSubstitutes(lightPass, inheritance.renderPass, inheritance.framebuffer, pass, framebuffer)) {
        lightPass.secondaryCommandBuffers.insert(commandBuffer);
        lightSecondaryRecording = true;
        ZOVK_VRS_TRACE(debugLog, "PreVkBeginCommandBuffer, BEGIN Light secondary cmb: %llu",
                       HandleNumber(commandBuffer));
    } else {
        return next(commandBuffer, pBeginInfo);
    }
    if (pass == VK_NULL_HANDLE || framebuffer == VK_NULL_HANDLE) {
        return next(commandBuffer, pBeginInfo);
    }
    VkCommandBufferInheritanceInfo redirected = inheritance;
    redirected.renderPass = pass;
    redirected.framebuffer = framebuffer;
    VkCommandBufferBeginInfo begin = *pBeginInfo;
    begin.pInheritanceInfo = &redirected;
    SetFlags(kSecondaryRedirected);
    return next(commandBuffer, &begin);
}

ZoVkPassed<void> ZoVkStarRailVRSModule::PreVkCmdBeginRenderPass(VkCommandBuffer commandBuffer,
                                                                const VkRenderPassBeginInfo* pRenderPassBegin,
                                                                VkSubpassContents contents,
                                                                ZoVkNext<&T::vkCmdBeginRenderPass> next) {
    const int32_t index = pRenderPassBegin != nullptr && Active()
                              ? ResolutionIndex(pRenderPassBegin->renderArea.extent.width,
                                                pRenderPassBegin->renderArea.extent.height)
                              : -1;
    if (index < 0) {
        return next(commandBuffer, pRenderPassBegin, contents);
    }
    const VkRenderPassBeginInfo& info = *pRenderPassBegin;
    VkRenderPass pass = VK_NULL_HANDLE;
    VkFramebuffer framebuffer = VK_NULL_HANDLE;
    const char* line = nullptr;
    if (FindSubstitutes(mainPass, info.renderPass, info.framebuffer, pass, framebuffer)) {
        curMainResIndex_ = index;
        mainPass.passCommandBuffers.insert(commandBuffer);
        line = "PreVkCmdBeginRenderPass, BEGIN MAINPASS, rendrpass %llu ----> %llu, framebuffer "
               "%llu---->%llu, wh: %dx%d";
    } else if (FindSubstitutes(lightPass, info.renderPass, info.framebuffer, pass, framebuffer)) {
        lightPass.passCommandBuffers.insert(commandBuffer);
        line = "PreVkCmdBeginRenderPass,  BEGIN LIGHT PASS, renderpass %llu ----> %llu, framebuffer "
               "%llu---->%llu, wh: %dx%d";
    } else {
        return next(commandBuffer, pRenderPassBegin, contents);
    }
    if (pass == VK_NULL_HANDLE || framebuffer == VK_NULL_HANDLE) {
        return next(commandBuffer, pRenderPassBegin, contents);
    }
    // The rate attachment is loaded, so the game's clear values still cover every cleared one.
    VkRenderPassBeginInfo begin = info;
    begin.renderPass = pass;
    begin.framebuffer = framebuffer;
    SetFlags(kPassSubstituted);
    ZOVK_VRS_TRACE(debugLog, line, HandleNumber(info.renderPass), HandleNumber(pass), HandleNumber(info.framebuffer),
                   HandleNumber(framebuffer), info.renderArea.extent.width, info.renderArea.extent.height);
    return next(commandBuffer, &begin, contents);
}

void ZoVkStarRailVRSModule::PostVkCmdEndRenderPass(VkCommandBuffer commandBuffer) {
    if (Active()) {
        if (mainPass.passCommandBuffers.erase(commandBuffer) != 0) {
            ZOVK_VRS_TRACE(debugLog, "PostVkCmdEndRenderPass, END MAIN PASS, cmb: %llu", HandleNumber(commandBuffer));
        }
        if (lightPass.passCommandBuffers.erase(commandBuffer) != 0) {
            ZOVK_VRS_TRACE(debugLog, "PostVkCmdEndRenderPass, END LIGHT PASS, cmb: %llu", HandleNumber(commandBuffer));
        }
    }
}

ZoVkPassed<void> ZoVkStarRailVRSModule::PreVkCmdBindPipeline(VkCommandBuffer commandBuffer,
                                                             VkPipelineBindPoint pipelineBindPoint, VkPipeline pipeline,
                                                             ZoVkNext<&T::vkCmdBindPipeline> next) {
    if (Active()) {
        bool found = false;
        VkPipeline substitute = VK_NULL_HANDLE;
        // Only secondaries that continue a substituted pass run inside one.
        if (mainPass.secondaryCommandBuffers.count(commandBuffer) != 0) {
            substitute = Lookup(mainPass.pipelineMap, pipeline, found);
        }
        if (substitute == VK_NULL_HANDLE && lightPass.secondaryCommandBuffers.count(commandBuffer) != 0) {
            substitute = Lookup(lightPass.pipelineMap, pipeline, found);
        }
        if (substitute != VK_NULL_HANDLE) {
            pipeline = substitute;
        }
    }
    return next(commandBuffer, pipelineBindPoint, pipeline);
}

ZoVkPassed<void> ZoVkStarRailVRSModule::PreVkCmdExecuteCommands(VkCommandBuffer commandBuffer,
                                                                uint32_t commandBufferCount,
                                                                const VkCommandBuffer* pCommandBuffers,
                                                                ZoVkNext<&T::vkCmdExecuteCommands> next) {
    constexpr uint32_t kNeeded = kActive | kPassSubstituted | kSecondaryRedirected;
    if ((Flags() & kNeeded) == kNeeded && commandBufferCount != 0 && pCommandBuffers != nullptr) {
        // The rate goes into each secondary after the game finished recording it, just before
        // the primary runs it.
        const bool main = mainPass.passCommandBuffers.count(commandBuffer) != 0;
        if (main || lightPass.passCommandBuffers.count(commandBuffer) != 0) {
            PassState& pass = main ? mainPass : lightPass;
            for (uint32_t i = 0; i < commandBufferCount; ++i) {
                if (pass.secondaryCommandBuffers.erase(pCommandBuffers[i]) == 0) {
                    continue;
                }
                if (!main) {
                    coarseRateActive = true;
                }
                SetRate(next.NextLayer(), pCommandBuffers[i], VK_FRAGMENT_SHADING_RATE_COMBINER_OP_REPLACE_KHR);
                SetFlags(main ? kMainRateSet : kLightRateSet);
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
    if (lightSecondaryRecording && Active()) {
        ++lightDrawCounter;
        // Unsigned comparison on purpose: a negative configured bound reads as a huge one.
        const bool fullRateDraw = static_cast<uint64_t>(moduleData->fullRateDrawFirst) <= lightDrawCounter &&
                                  lightDrawCounter <= static_cast<uint64_t>(moduleData->fullRateDrawLast) &&
                                  indexCount == static_cast<uint32_t>(moduleData->fullRateIndexCount) &&
                                  instanceCount == static_cast<uint32_t>(moduleData->fullRateInstanceCount);
        if (!fullRateDraw && !coarseRateActive) {
            SetRate(next.NextLayer(), commandBuffer, VK_FRAGMENT_SHADING_RATE_COMBINER_OP_REPLACE_KHR);
            coarseRateActive = true;
        } else if (fullRateDraw && coarseRateActive) {
            SetRate(next.NextLayer(), commandBuffer, VK_FRAGMENT_SHADING_RATE_COMBINER_OP_KEEP_KHR);
            coarseRateActive = false;
            SetFlags(kFullRateDrawSwitched);
        }
    }
    return next(commandBuffer, indexCount, instanceCount, firstIndex, vertexOffset, firstInstance);
}

ZoVkPassed<VkResult> ZoVkStarRailVRSModule::PreVkEndCommandBuffer(VkCommandBuffer commandBuffer,
                                                                  ZoVkNext<&T::vkEndCommandBuffer> next) {
    if (Active() && lightPass.secondaryCommandBuffers.count(commandBuffer) != 0) {
        lightSecondaryRecording = false;
        lightDrawCounter = 0;
    }
    return next(commandBuffer);
}

void ZoVkStarRailVRSModule::PostVkCreateCommandPool(VkDevice device, const VkCommandPoolCreateInfo* pCreateInfo,
                                                    const VkAllocationCallbacks* pAllocator,
                                                    VkCommandPool* pCommandPool, VkResult result) {
    if (result == VK_SUCCESS && pCommandPool != nullptr && *pCommandPool != VK_NULL_HANDLE) {
        renderpassBuilder->SetCommandPool(*pCommandPool);
    }
}

}  // namespace vulkan::zovk::app::module
