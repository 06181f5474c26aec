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
        const MyVkExtent2D size = SetRate(next.NextLayer(), commandBuffer, *pRenderPassBegin);
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

ZoVkAntutuVRSModule::PassClasses ZoVkAntutuVRSModule::ClassesOf(VkRenderPass pass) const {
    return {singleAttachmentPasses_.count(pass) != 0, clearColorPasses_.count(pass) != 0,
            halfFloatPasses_.count(pass) != 0};
}

void ZoVkAntutuVRSModule::WantFullRate(const VkDeviceFunctionTable& next, VkCommandBuffer commandBuffer,
                                       const VkRenderPassBeginInfo& begin, VkDevice device) {
    constexpr VkExtent2D kFullRate{1, 1};
    const bool canSet = next.vkCmdSetFragmentShadingRateKHR != nullptr;
    char kind = 'O';
    int step = 0;
    bool reset = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        Recording& recording = recordings_[commandBuffer];
        recording.device = device;
        recording.wanted = kFullRate;
        reset = canSet && recording.inForce.width * recording.inForce.height > 1;
        if (reset) {
            recording.inForce = kFullRate;
            kind = ClassesOf(begin.renderPass).Kind();
            step = passStep_;
        }
    }
    if (reset) {
        ZOVK_LOGD("vxxk r: %llu %c 1x1 %d",
                  static_cast<unsigned long long>(presentCount_.load(std::memory_order_relaxed) + 1), kind, step);
        next.vkCmdSetFragmentShadingRateKHR(commandBuffer, &kFullRate, combinerOps_);
    }
}

// From here to SetRate: the calls only the conforming mode hooks.

ZoVkPassed<void> ZoVkAntutuVRSModule::PreVkCmdBindPipeline(VkCommandBuffer commandBuffer,
                                                           VkPipelineBindPoint pipelineBindPoint, VkPipeline pipeline,
                                                           ZoVkNext<&T::vkCmdBindPipeline> next) {
    if (pipelineBindPoint != VK_PIPELINE_BIND_POINT_GRAPHICS) {
        return next(commandBuffer, pipelineBindPoint, pipeline);
    }
    MyVkExtent2D size;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        Recording& recording = recordings_[commandBuffer];
        recording.device = next.Record().device;
        if (ratePipelines_.count(pipeline) == 0) {
            // Its own rate overwrites the set one: a later pipeline that takes the rate needs it again.
            recording.inForce = MyVkExtent2D();
        } else if (recording.inForce != recording.wanted) {
            size = recording.inForce = recording.wanted;
        }
    }
    ZoVkPassed<void> passed = next(commandBuffer, pipelineBindPoint, pipeline);
    const PFN_vkCmdSetFragmentShadingRateKHR setRate = next.NextLayer().vkCmdSetFragmentShadingRateKHR;
    if (size.width != 0 && setRate != nullptr) {
        const VkExtent2D rate = size.ToVkExtent2D();
        setRate(commandBuffer, &rate, combinerOps_);
    }
    return passed;
}

ZoVkPassed<void> ZoVkAntutuVRSModule::PreVkDestroyPipeline(VkDevice device, VkPipeline pipeline,
                                                           const VkAllocationCallbacks* pAllocator,
                                                           ZoVkNext<&T::vkDestroyPipeline> next) {
    {
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
    Forget(commandBuffer);
    return next(commandBuffer, pBeginInfo);
}

ZoVkPassed<VkResult> ZoVkAntutuVRSModule::PreVkEndCommandBuffer(VkCommandBuffer commandBuffer,
                                                                ZoVkNext<&T::vkEndCommandBuffer> next) {
    Forget(commandBuffer);
    return next(commandBuffer);
}

ZoVkPassed<VkResult> ZoVkAntutuVRSModule::PreVkResetCommandBuffer(VkCommandBuffer commandBuffer,
                                                                  VkCommandBufferResetFlags flags,
                                                                  ZoVkNext<&T::vkResetCommandBuffer> next) {
    Forget(commandBuffer);
    return next(commandBuffer, flags);
}

ZoVkPassed<void> ZoVkAntutuVRSModule::PreVkFreeCommandBuffers(VkDevice device, VkCommandPool commandPool,
                                                              uint32_t commandBufferCount,
                                                              const VkCommandBuffer* pCommandBuffers,
                                                              ZoVkNext<&T::vkFreeCommandBuffers> next) {
    for (uint32_t i = 0; pCommandBuffers != nullptr && i < commandBufferCount; ++i) {
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
        // The rules see every set the pass is in.
        const PassClasses classes = ClassesOf(begin.renderPass);
        kind = classes.Kind();
        const auto in = [&](char set) { return (set == 'B' && classes.b) || (set == 'C' && classes.c); };
        const StepRule& rule = kStepRules[passStep_];
        // The first rule that matches wins; a pass that matches none keeps 1x1.
        step = passStep_;
        if (in(rule.stayKind)) {
            size = fragmentSizes_[rule.staySize];
        } else if (in(rule.advanceKind)) {
            size = fragmentSizes_[rule.advanceSize];
            step = passStep_ + 1;
        } else if (rule.otherSize >= 0 && !classes.a) {
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
