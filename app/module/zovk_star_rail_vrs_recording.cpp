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

template <typename Handle>
Handle Lookup(const std::unordered_map<Handle, Handle>& map, Handle game, bool& found) {
    const auto it = map.find(game);
    found = it != map.end();
    return found ? it->second : VK_NULL_HANDLE;
}

}  // namespace

void ZoVkStarRailVRSModule::SetRate(VkCommandBuffer commandBuffer, VkFragmentShadingRateCombinerOpKHR attachmentOp) {
    const PFN_vkCmdSetFragmentShadingRateKHR setRate =
        processor_->GetDeviceInfo()->functions.vkCmdSetFragmentShadingRateKHR;
    if (setRate == nullptr) {
        if (!missingRateCommandLogged_) {
            ZOVK_LOGE("Star Rail VRS: the device has no vkCmdSetFragmentShadingRateKHR");
            missingRateCommandLogged_ = true;
        }
        return;
    }
    const VkExtent2D fullRate{1, 1};
    const VkFragmentShadingRateCombinerOpKHR ops[2] = {VK_FRAGMENT_SHADING_RATE_COMBINER_OP_KEEP_KHR, attachmentOp};
    setRate(commandBuffer, &fullRate, ops);
}

VkResult ZoVkStarRailVRSModule::PreVkBeginCommandBuffer(VkCommandBuffer commandBuffer,
                                                        const VkCommandBufferBeginInfo* pBeginInfo) {
    if (pBeginInfo == nullptr || !Active() || pBeginInfo->pInheritanceInfo == nullptr) {
        return beginCommandBufferNode_.next->Call(commandBuffer, pBeginInfo);
    }
    const VkCommandBufferInheritanceInfo& inheritance = *pBeginInfo->pInheritanceInfo;
    bool passFound = false;
    bool framebufferFound = false;
    VkRenderPass pass = Lookup(mainPassMap, inheritance.renderPass, passFound);
    VkFramebuffer framebuffer = Lookup(mainFramebufferMap, inheritance.framebuffer, framebufferFound);
    const bool main = passFound && framebufferFound;
    if (main) {
        mainSecondaryCommandBuffers.insert(commandBuffer);
        ZOVK_VRS_TRACE(debugLog, "PreVkBeginCommandBuffer, BEGIN MAIN secondary cmb: %llu", HandleNumber(commandBuffer));
    } else {
        pass = Lookup(lightPassMap, inheritance.renderPass, passFound);
        framebuffer = Lookup(lightFramebufferMap, inheritance.framebuffer, framebufferFound);
        if (!passFound || !framebufferFound) {
            return beginCommandBufferNode_.next->Call(commandBuffer, pBeginInfo);
        }
        lightSecondaryCommandBuffers.insert(commandBuffer);
        lightSecondaryRecording = true;
        ZOVK_VRS_TRACE(debugLog, "PreVkBeginCommandBuffer, BEGIN Light secondary cmb: %llu",
                       HandleNumber(commandBuffer));
    }
    if (pass == VK_NULL_HANDLE || framebuffer == VK_NULL_HANDLE) {
        return beginCommandBufferNode_.next->Call(commandBuffer, pBeginInfo);
    }
    VkCommandBufferInheritanceInfo redirected = inheritance;
    redirected.renderPass = pass;
    redirected.framebuffer = framebuffer;
    VkCommandBufferBeginInfo begin = *pBeginInfo;
    begin.pInheritanceInfo = &redirected;
    SetFlags(kSecondaryRedirected);
    return beginCommandBufferNode_.next->Call(commandBuffer, &begin);
}

void ZoVkStarRailVRSModule::PreVkCmdBeginRenderPass(VkCommandBuffer commandBuffer,
                                                    const VkRenderPassBeginInfo* pRenderPassBegin,
                                                    VkSubpassContents contents) {
    const int32_t index = pRenderPassBegin != nullptr && Active()
                              ? ResolutionIndex(pRenderPassBegin->renderArea.extent.width,
                                                pRenderPassBegin->renderArea.extent.height)
                              : -1;
    if (index < 0) {
        beginRenderPassNode_.next->Call(commandBuffer, pRenderPassBegin, contents);
        return;
    }
    const VkRenderPassBeginInfo& info = *pRenderPassBegin;
    bool passFound = false;
    bool framebufferFound = false;
    VkRenderPass pass = Lookup(mainPassMap, info.renderPass, passFound);
    VkFramebuffer framebuffer = Lookup(mainFramebufferMap, info.framebuffer, framebufferFound);
    const char* line = "PreVkCmdBeginRenderPass, BEGIN MAINPASS, rendrpass %llu ----> %llu, framebuffer "
                       "%llu---->%llu, wh: %dx%d";
    if (passFound && framebufferFound) {
        curMainResIndex_ = index;
        mainPassCommandBuffers.insert(commandBuffer);
    } else {
        pass = Lookup(lightPassMap, info.renderPass, passFound);
        framebuffer = Lookup(lightFramebufferMap, info.framebuffer, framebufferFound);
        if (!passFound || !framebufferFound) {
            beginRenderPassNode_.next->Call(commandBuffer, pRenderPassBegin, contents);
            return;
        }
        lightPassCommandBuffers.insert(commandBuffer);
        line = "PreVkCmdBeginRenderPass,  BEGIN LIGHT PASS, renderpass %llu ----> %llu, framebuffer "
               "%llu---->%llu, wh: %dx%d";
    }
    if (pass == VK_NULL_HANDLE || framebuffer == VK_NULL_HANDLE) {
        beginRenderPassNode_.next->Call(commandBuffer, pRenderPassBegin, contents);
        return;
    }
    // The rate attachment is loaded, so the game's clear values still cover every cleared one.
    VkRenderPassBeginInfo begin = info;
    begin.renderPass = pass;
    begin.framebuffer = framebuffer;
    SetFlags(kPassSubstituted);
    ZOVK_VRS_TRACE(debugLog, line, HandleNumber(info.renderPass), HandleNumber(pass), HandleNumber(info.framebuffer),
                   HandleNumber(framebuffer), info.renderArea.extent.width, info.renderArea.extent.height);
    beginRenderPassNode_.next->Call(commandBuffer, &begin, contents);
}

void ZoVkStarRailVRSModule::PostVkCmdEndRenderPass(VkCommandBuffer commandBuffer) {
    if (Active()) {
        if (mainPassCommandBuffers.erase(commandBuffer) != 0) {
            ZOVK_VRS_TRACE(debugLog, "PostVkCmdEndRenderPass, END MAIN PASS, cmb: %llu", HandleNumber(commandBuffer));
        }
        if (lightPassCommandBuffers.erase(commandBuffer) != 0) {
            ZOVK_VRS_TRACE(debugLog, "PostVkCmdEndRenderPass, END LIGHT PASS, cmb: %llu", HandleNumber(commandBuffer));
        }
    }
    endRenderPassNode_.next->Call(commandBuffer);
}

void ZoVkStarRailVRSModule::PreVkCmdBindPipeline(VkCommandBuffer commandBuffer, VkPipelineBindPoint pipelineBindPoint,
                                                 VkPipeline pipeline) {
    if (Active()) {
        bool found = false;
        VkPipeline substitute = VK_NULL_HANDLE;
        // Only secondaries that continue a substituted pass run inside one.
        if (mainSecondaryCommandBuffers.count(commandBuffer) != 0) {
            substitute = Lookup(mainPipelineMap, pipeline, found);
        }
        if (substitute == VK_NULL_HANDLE && lightSecondaryCommandBuffers.count(commandBuffer) != 0) {
            substitute = Lookup(lightPipelineMap, pipeline, found);
        }
        if (substitute != VK_NULL_HANDLE) {
            pipeline = substitute;
        }
    }
    bindPipelineNode_.next->Call(commandBuffer, pipelineBindPoint, pipeline);
}

void ZoVkStarRailVRSModule::PreVkCmdExecuteCommands(VkCommandBuffer commandBuffer, uint32_t commandBufferCount,
                                                    const VkCommandBuffer* pCommandBuffers) {
    constexpr uint32_t kNeeded = kActive | kPassSubstituted | kSecondaryRedirected;
    if ((Flags() & kNeeded) == kNeeded && commandBufferCount != 0 && pCommandBuffers != nullptr) {
        // The rate goes into each secondary after the game finished recording it, just before
        // the primary runs it.
        if (mainPassCommandBuffers.count(commandBuffer) != 0) {
            for (uint32_t i = 0; i < commandBufferCount; ++i) {
                if (mainSecondaryCommandBuffers.erase(pCommandBuffers[i]) != 0) {
                    SetRate(pCommandBuffers[i], VK_FRAGMENT_SHADING_RATE_COMBINER_OP_REPLACE_KHR);
                    SetFlags(kMainRateSet);
                    ZOVK_VRS_TRACE(debugLog, "PreVkCmdExecuteCommands, KEEP-REPLACE, mainpass secondary cmb: %llu",
                                   HandleNumber(pCommandBuffers[i]));
                }
            }
        } else if (lightPassCommandBuffers.count(commandBuffer) != 0) {
            for (uint32_t i = 0; i < commandBufferCount; ++i) {
                if (lightSecondaryCommandBuffers.erase(pCommandBuffers[i]) != 0) {
                    coarseRateActive = true;
                    SetRate(pCommandBuffers[i], VK_FRAGMENT_SHADING_RATE_COMBINER_OP_REPLACE_KHR);
                    SetFlags(kLightRateSet);
                    ZOVK_VRS_TRACE(debugLog, "PreVkCmdExecuteCommands, KEEP-REPLACE, lightpass secondary cmb: %llu",
                                   HandleNumber(pCommandBuffers[i]));
                }
            }
        }
    }
    executeCommandsNode_.next->Call(commandBuffer, commandBufferCount, pCommandBuffers);
}

void ZoVkStarRailVRSModule::PreVkCmdDrawIndexed(VkCommandBuffer commandBuffer, uint32_t indexCount,
                                                uint32_t instanceCount, uint32_t firstIndex, int32_t vertexOffset,
                                                uint32_t firstInstance) {
    if (lightSecondaryRecording && Active()) {
        ++lightDrawCounter;
        // Unsigned comparison on purpose: a negative configured bound reads as a huge one.
        const bool fullRateDraw = static_cast<uint64_t>(moduleData->fullRateDrawFirst) <= lightDrawCounter &&
                                  lightDrawCounter <= static_cast<uint64_t>(moduleData->fullRateDrawLast) &&
                                  indexCount == static_cast<uint32_t>(moduleData->fullRateIndexCount) &&
                                  instanceCount == static_cast<uint32_t>(moduleData->fullRateInstanceCount);
        if (!fullRateDraw && !coarseRateActive) {
            SetRate(commandBuffer, VK_FRAGMENT_SHADING_RATE_COMBINER_OP_REPLACE_KHR);
            coarseRateActive = true;
        } else if (fullRateDraw && coarseRateActive) {
            SetRate(commandBuffer, VK_FRAGMENT_SHADING_RATE_COMBINER_OP_KEEP_KHR);
            coarseRateActive = false;
            SetFlags(kFullRateDrawSwitched);
        }
    }
    drawIndexedNode_.next->Call(commandBuffer, indexCount, instanceCount, firstIndex, vertexOffset, firstInstance);
}

VkResult ZoVkStarRailVRSModule::PreVkEndCommandBuffer(VkCommandBuffer commandBuffer) {
    if (Active() && lightSecondaryCommandBuffers.count(commandBuffer) != 0) {
        lightSecondaryRecording = false;
        lightDrawCounter = 0;
    }
    return endCommandBufferNode_.next->Call(commandBuffer);
}

void ZoVkStarRailVRSModule::PostVkCreateCommandPool(VkDevice device, const VkCommandPoolCreateInfo* pCreateInfo,
                                                    const VkAllocationCallbacks* pAllocator,
                                                    VkCommandPool* pCommandPool, VkResult result) {
    if (result == VK_SUCCESS && pCommandPool != nullptr && *pCommandPool != VK_NULL_HANDLE) {
        renderpassBuilder->SetCommandPool(*pCommandPool);
    }
    createCommandPoolNode_.next->Call(device, pCreateInfo, pAllocator, pCommandPool, result);
}

}  // namespace vulkan::zovk::app::module
