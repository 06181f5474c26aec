#include "app/module/zovk_antutu_vrs_module.h"

#include <algorithm>
#include <vector>

#include "app/zovk_processor_data_base.h"
#include "settings/zovk_app_info_monitor.h"
#include "settings/zovk_log.h"
#include "settings/zovk_settings.h"

namespace vulkan::zovk::app::module {

namespace {

using T = VkDeviceFunctionTable;

bool IsSingleAttachmentFormat(VkFormat format) {
    return format == VK_FORMAT_R8G8B8A8_UNORM || format == VK_FORMAT_D24_UNORM_S8_UINT ||
           format == VK_FORMAT_D16_UNORM;
}

// The step machine, walking the benchmark's sequence of pass kinds. At each step, in this
// order: a pass of the stay kind keeps the step, one of the advance kind moves to the next
// step, and any other pass that is not single-attachment gets the other size. Sizes index
// the six configured sizes; a kind of 0 or a size of -1 is no rule.
struct StepRule {
    char stayKind;
    int staySize;
    char advanceKind;
    int advanceSize;
    int otherSize;
};
constexpr StepRule kStepRules[] = {
    {0, -1, 'B', 0, -1},   // 0: the first clear-colour pass
    {'B', 0, 'C', 1, -1},  // 1: clear colour until the first half-float pass
    {'C', 1, 'B', 2, 4},   // 2: half float until clear colour comes back
    {'B', 2, 'C', 3, 4},   // 3: clear colour until half float comes back
    {'C', 3, 0, -1, 5},    // 4: the last step, kept for the rest of the process
};

}  // namespace

ZoVkAntutuVRSModule::ZoVkAntutuVRSModule(ZoVkProcessorBase* processor)
    : ZoVkModuleBase(processor),
      processor_(static_cast<ZoVkAntutuProcessor*>(processor)),
      config_(Json::Value()),
      conforming_(ZoVkSettings::GetInstance()->IsVrsConforming()) {
    const ZoVkProcessorDataBase* data = ZoVkSettings::GetInstance()->GetProcessorData();
    ZoVkModuleDataBase* moduleData = data != nullptr ? data->GetProcessorModuleData(PROCESSOR_MODULE_TYPE) : nullptr;
    if (moduleData == nullptr) {
        valid = false;
    } else {
        config_ = *static_cast<ZoVkAntutuVRSModuleData*>(moduleData);
    }
    for (size_t i = 0; i < ZoVkAntutuVRSModuleData::kRateCodeCount; ++i) {
        fragmentSizes_[i] = GetFramentSizeFromIntConfig(config_.rateCodes[i]);
    }
    if (conforming_ && valid) {
        ZOVK_LOGI("AnTuTu VRS: conforming mode");
    }
}

VkExtent2D ZoVkAntutuVRSModule::GetFramentSizeFromIntConfig(int code) {
    // Codes 3 to 10; 7 and 8 stay at full rate.
    constexpr VkExtent2D kSizes[] = {{1, 2}, {2, 1}, {2, 2}, {2, 4}, {1, 1}, {1, 1}, {4, 2}, {4, 4}};
    return code >= 3 && code <= 10 ? kSizes[code - 3] : VkExtent2D{1, 1};
}

void ZoVkAntutuVRSModule::OnDeviceDestroy(VkDevice device) {
    const auto forget = [device](auto& map, auto deviceOf) {
        for (auto it = map.begin(); it != map.end();) {
            it = deviceOf(it->second) == device ? map.erase(it) : std::next(it);
        }
    };
    const auto itself = [](VkDevice d) { return d; };
    std::lock_guard<std::mutex> lock(mutex_);
    for (PassSet* set : {&singleAttachmentPasses_, &clearColorPasses_, &halfFloatPasses_}) {
        forget(*set, itself);
    }
    forget(ratePipelines_, itself);
    forget(recordings_, [](const Recording& r) { return r.device; });
}

ZoVkPassed<VkResult> ZoVkAntutuVRSModule::PreVkQueuePresentKHR(VkQueue queue, const VkPresentInfoKHR* pPresentInfo,
                                                               ZoVkNext<&T::vkQueuePresentKHR> next) {
    const uint64_t presents = presentCount_.fetch_add(1, std::memory_order_relaxed) + 1;
    if (presents % kSamplingPeriod == 0) {
        const bool enabled = android::ZoVkAppInfoMonitor::GetInstance()->IsVrsEnable();
        vrsEnabled_.store(enabled, std::memory_order_relaxed);
        ZOVK_LOGD("vxxk vflag: %d", enabled ? 1 : 0);
    }
    return next(queue, pPresentInfo);
}

ZoVkPassed<VkResult> ZoVkAntutuVRSModule::PreVkCreateGraphicsPipelines(
    VkDevice device, VkPipelineCache pipelineCache, uint32_t createInfoCount,
    const VkGraphicsPipelineCreateInfo* pCreateInfos, const VkAllocationCallbacks* pAllocator, VkPipeline* pPipelines,
    ZoVkNext<&T::vkCreateGraphicsPipelines> next) {
    if (createInfoCount == 0 || pCreateInfos == nullptr || next.Record().shadingRateOff) {
        return next(device, pipelineCache, createInfoCount, pCreateInfos, pAllocator, pPipelines);
    }
    // The application's structures are const: the extended lists go into copies that live
    // until the next layer has returned.
    std::vector<VkGraphicsPipelineCreateInfo> infos(pCreateInfos, pCreateInfos + createInfoCount);
    std::vector<VkPipelineDynamicStateCreateInfo> blocks(createInfoCount);
    std::vector<std::vector<VkDynamicState>> states(createInfoCount);
    for (uint32_t i = 0; i < createInfoCount; ++i) {
        const VkPipelineDynamicStateCreateInfo* block = pCreateInfos[i].pDynamicState;
        if (block == nullptr) {
            continue;
        }
        std::vector<VkDynamicState>& list = states[i];
        if (block->pDynamicStates != nullptr) {
            list.assign(block->pDynamicStates, block->pDynamicStates + block->dynamicStateCount);
        }
        if (std::find(list.begin(), list.end(), VK_DYNAMIC_STATE_FRAGMENT_SHADING_RATE_KHR) == list.end()) {
            list.push_back(VK_DYNAMIC_STATE_FRAGMENT_SHADING_RATE_KHR);
        }
        blocks[i] = *block;
        blocks[i].dynamicStateCount = static_cast<uint32_t>(list.size());
        blocks[i].pDynamicStates = list.data();
        infos[i].pDynamicState = &blocks[i];
    }
    ZoVkPassed<VkResult> passed = next(device, pipelineCache, createInfoCount, infos.data(), pAllocator, pPipelines);
    if (conforming_ && pPipelines != nullptr) {
        // Also after a partial failure: the pipelines made are in the array, the others null.
        std::lock_guard<std::mutex> lock(mutex_);
        for (uint32_t i = 0; i < createInfoCount; ++i) {
            if (pCreateInfos[i].pDynamicState != nullptr && pPipelines[i] != VK_NULL_HANDLE) {
                ratePipelines_[pPipelines[i]] = device;
            }
        }
    }
    return passed;
}

void ZoVkAntutuVRSModule::PostVkCreateRenderPass(VkDevice device, const VkRenderPassCreateInfo* pCreateInfo,
                                                 const VkAllocationCallbacks* pAllocator, VkRenderPass* pRenderPass,
                                                 VkResult result) {
    if (pCreateInfo != nullptr && result == VK_SUCCESS && pRenderPass != nullptr) {
        Classify(device, *pCreateInfo, *pRenderPass);
    }
}

void ZoVkAntutuVRSModule::Classify(VkDevice device, const VkRenderPassCreateInfo& info, VkRenderPass pass) {
    const VkAttachmentDescription* attachments = info.pAttachments;
    if (attachments == nullptr) {
        return;
    }
    PassSet* set = nullptr;
    char kind = 'O';
    if (info.attachmentCount == 1 && IsSingleAttachmentFormat(attachments[0].format)) {
        set = &singleAttachmentPasses_;
        kind = 'A';
    } else if (info.attachmentCount == 2 && depthFormats_.count(attachments[1].format) != 0) {
        if (attachments[0].loadOp == VK_ATTACHMENT_LOAD_OP_CLEAR && attachments[1].loadOp == VK_ATTACHMENT_LOAD_OP_LOAD &&
            clearColorFormats_.count(attachments[0].format) != 0) {
            set = &clearColorPasses_;
            kind = 'B';
        } else if (halfFloatFormats_.count(attachments[0].format) != 0) {
            set = &halfFloatPasses_;
            kind = 'C';
        }
    }
    if (set == nullptr) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        (*set)[pass] = device;
    }
    ZOVK_LOGD("vxxk c: %p %c", reinterpret_cast<void*>(pass), kind);
}

ZoVkPassed<void> ZoVkAntutuVRSModule::PreVkCmdBeginRenderPass(VkCommandBuffer commandBuffer,
                                                              const VkRenderPassBeginInfo* pRenderPassBegin,
                                                              VkSubpassContents contents,
                                                              ZoVkNext<&T::vkCmdBeginRenderPass> next) {
    if (next.Record().shadingRateOff || pRenderPassBegin == nullptr) {
        return next(commandBuffer, pRenderPassBegin, contents);
    }
    if (vrsEnabled_.load(std::memory_order_relaxed) &&
        config_.InRange(pRenderPassBegin->renderArea.extent.width, pRenderPassBegin->renderArea.extent.height)) {
        const VkExtent2D size = SetRate(next.NextLayer(), commandBuffer, *pRenderPassBegin);
        if (conforming_) {
            std::lock_guard<std::mutex> lock(mutex_);
            Recording& recording = recordings_[commandBuffer];
            recording.device = next.Record().device;
            recording.wanted = recording.inForce = size;
        }
    } else if (conforming_) {
        WantFullRate(next.NextLayer(), commandBuffer, *pRenderPassBegin, next.Record().device);
    }
    return next(commandBuffer, pRenderPassBegin, contents);
}

char ZoVkAntutuVRSModule::KindOf(VkRenderPass pass) const {
    return clearColorPasses_.count(pass) != 0         ? 'B'
           : halfFloatPasses_.count(pass) != 0        ? 'C'
           : singleAttachmentPasses_.count(pass) != 0 ? 'A'
                                                      : 'O';
}

void ZoVkAntutuVRSModule::WantFullRate(const VkDeviceFunctionTable& next, VkCommandBuffer commandBuffer,
                                       const VkRenderPassBeginInfo& begin, VkDevice device) {
    constexpr VkExtent2D kFullRate{1, 1};
    char kind = 'O';
    int step = 0;
    bool coarse = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        Recording& recording = recordings_[commandBuffer];
        recording.device = device;
        recording.wanted = kFullRate;
        coarse = recording.inForce.width * recording.inForce.height > 1;
        if (coarse && next.vkCmdSetFragmentShadingRateKHR != nullptr) {
            recording.inForce = kFullRate;
            kind = KindOf(begin.renderPass);
            step = passStep_;
        }
    }
    if (coarse && next.vkCmdSetFragmentShadingRateKHR != nullptr) {
        ZOVK_LOGD("vxxk r: %llu %c 1x1 %d",
                  static_cast<unsigned long long>(presentCount_.load(std::memory_order_relaxed) + 1), kind, step);
        next.vkCmdSetFragmentShadingRateKHR(commandBuffer, &kFullRate, combinerOps_);
    }
}

ZoVkPassed<void> ZoVkAntutuVRSModule::PreVkCmdBindPipeline(VkCommandBuffer commandBuffer,
                                                           VkPipelineBindPoint pipelineBindPoint, VkPipeline pipeline,
                                                           ZoVkNext<&T::vkCmdBindPipeline> next) {
    if (!conforming_ || pipelineBindPoint != VK_PIPELINE_BIND_POINT_GRAPHICS) {
        return next(commandBuffer, pipelineBindPoint, pipeline);
    }
    VkExtent2D size{0, 0};
    {
        std::lock_guard<std::mutex> lock(mutex_);
        Recording& recording = recordings_[commandBuffer];
        recording.device = next.Record().device;
        if (ratePipelines_.count(pipeline) == 0) {
            // Its own rate overwrites the set one: a later pipeline that takes the rate needs it again.
            recording.inForce = {0, 0};
        } else if (recording.inForce.width != recording.wanted.width ||
                   recording.inForce.height != recording.wanted.height) {
            size = recording.inForce = recording.wanted;
        }
    }
    ZoVkPassed<void> passed = next(commandBuffer, pipelineBindPoint, pipeline);
    const PFN_vkCmdSetFragmentShadingRateKHR setRate = next.NextLayer().vkCmdSetFragmentShadingRateKHR;
    if (size.width != 0 && setRate != nullptr) {
        setRate(commandBuffer, &size, combinerOps_);
    }
    return passed;
}

ZoVkPassed<void> ZoVkAntutuVRSModule::PreVkDestroyPipeline(VkDevice device, VkPipeline pipeline,
                                                           const VkAllocationCallbacks* pAllocator,
                                                           ZoVkNext<&T::vkDestroyPipeline> next) {
    if (conforming_) {
        std::lock_guard<std::mutex> lock(mutex_);
        ratePipelines_.erase(pipeline);
    }
    return next(device, pipeline, pAllocator);
}

void ZoVkAntutuVRSModule::Forget(VkCommandBuffer commandBuffer) {
    std::lock_guard<std::mutex> lock(mutex_);
    recordings_.erase(commandBuffer);
}

// A recording starts with no rate set, a secondary too: it inherits none from its primary.
ZoVkPassed<VkResult> ZoVkAntutuVRSModule::PreVkBeginCommandBuffer(VkCommandBuffer commandBuffer,
                                                                  const VkCommandBufferBeginInfo* pBeginInfo,
                                                                  ZoVkNext<&T::vkBeginCommandBuffer> next) {
    if (conforming_) Forget(commandBuffer);
    return next(commandBuffer, pBeginInfo);
}

ZoVkPassed<VkResult> ZoVkAntutuVRSModule::PreVkEndCommandBuffer(VkCommandBuffer commandBuffer,
                                                                ZoVkNext<&T::vkEndCommandBuffer> next) {
    if (conforming_) Forget(commandBuffer);
    return next(commandBuffer);
}

ZoVkPassed<VkResult> ZoVkAntutuVRSModule::PreVkResetCommandBuffer(VkCommandBuffer commandBuffer,
                                                                  VkCommandBufferResetFlags flags,
                                                                  ZoVkNext<&T::vkResetCommandBuffer> next) {
    if (conforming_) Forget(commandBuffer);
    return next(commandBuffer, flags);
}

ZoVkPassed<void> ZoVkAntutuVRSModule::PreVkFreeCommandBuffers(VkDevice device, VkCommandPool commandPool,
                                                              uint32_t commandBufferCount,
                                                              const VkCommandBuffer* pCommandBuffers,
                                                              ZoVkNext<&T::vkFreeCommandBuffers> next) {
    for (uint32_t i = 0; conforming_ && pCommandBuffers != nullptr && i < commandBufferCount; ++i) {
        Forget(pCommandBuffers[i]);
    }
    return next(device, commandPool, commandBufferCount, pCommandBuffers);
}

VkExtent2D ZoVkAntutuVRSModule::SetRate(const VkDeviceFunctionTable& next, VkCommandBuffer commandBuffer,
                                        const VkRenderPassBeginInfo& begin) {
    const PFN_vkCmdSetFragmentShadingRateKHR setRate = next.vkCmdSetFragmentShadingRateKHR;
    if (setRate == nullptr) {
        return {0, 0};
    }
    VkExtent2D size{1, 1};
    int step = 0;
    bool stepChanged = false;
    char kind = 'O';
    {
        std::lock_guard<std::mutex> lock(mutex_);
        // A handle made again for another kind of pass can be in two sets: the rules see both.
        const bool inA = singleAttachmentPasses_.count(begin.renderPass) != 0;
        const bool inB = clearColorPasses_.count(begin.renderPass) != 0;
        const bool inC = halfFloatPasses_.count(begin.renderPass) != 0;
        kind = KindOf(begin.renderPass);
        const auto in = [&](char set) { return (set == 'B' && inB) || (set == 'C' && inC); };
        const StepRule& rule = kStepRules[passStep_];
        // The first rule that matches wins; a pass that matches none keeps 1x1.
        step = passStep_;
        if (in(rule.stayKind)) {
            size = fragmentSizes_[rule.staySize];
        } else if (in(rule.advanceKind)) {
            size = fragmentSizes_[rule.advanceSize];
            step = passStep_ + 1;
        } else if (rule.otherSize >= 0 && !inA) {
            size = fragmentSizes_[rule.otherSize];
        }
        stepChanged = step != passStep_;
        passStep_ = step;
    }
    const VkExtent2D& area = begin.renderArea.extent;
    if (stepChanged) {
        // The extents are written disguised on purpose; unsigned arithmetic cannot overflow.
        ZOVK_LOGD("vxxk s: px%dx%px%dx%d", step, static_cast<const void*>(&begin),
                  static_cast<int>(area.width * 32u - 23u), static_cast<int>(area.height * 23u + 32u));
    }
    ZOVK_LOGD("vxxk r: %llu %c %ux%u %d",
              static_cast<unsigned long long>(presentCount_.load(std::memory_order_relaxed) + 1), kind, size.width,
              size.height, step);
    setRate(commandBuffer, &size, combinerOps_);
    return size;
}

}  // namespace vulkan::zovk::app::module
