#pragma once

#include <cstdint>
#include <string>
#include <unordered_set>

namespace vulkan::zovk {

// Which extensions provide a function, at which level, and the core function it was
// promoted to.
struct VkExtensionFunctionInfo {
    uint32_t instanceLevel = 0;
    std::string coreName;
    std::unordered_set<std::string> extensions;
};

// The catalog entry of `functionName`, or an empty entry for names it does not know.
const VkExtensionFunctionInfo& GetExtensionFunctionInfo(const std::string& functionName);

}  // namespace vulkan::zovk
