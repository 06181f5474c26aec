#pragma once

#include <cstdint>

// The game service: its name, its interface token and the transactions the layer sends.
namespace vulkan::zovk::pavune {

inline constexpr char kServiceName[] = "veltra.pavune";
inline constexpr char kInterfaceToken[] = "com.veltra.pavune.IPavuneInterface";

inline constexpr uint32_t kTransactionSceneId = 3;
inline constexpr uint32_t kTransactionMonitorStarted = 29;
inline constexpr uint32_t kTransactionFetchConfig = 30;
inline constexpr uint32_t kTransactionRegisterCallback = 35;

// Logged with the process name after every configuration fetch.
inline constexpr char kBuildTag[] = "2025052101";

}  // namespace vulkan::zovk::pavune
