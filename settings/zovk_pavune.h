#pragma once

#include <cstdint>
#include <string>

#include <binder/IBinder.h>

// The game service: its name, its interface token, the transactions the layer sends, and the
// one client that sends them.
namespace vulkan::zovk::pavune {

inline constexpr char kServiceName[] = "veltra.pavune";
inline constexpr char kInterfaceToken[] = "com.veltra.pavune.IPavuneInterface";

inline constexpr uint32_t kTransactionSceneId = 3;
inline constexpr uint32_t kTransactionMonitorStarted = 29;
inline constexpr uint32_t kTransactionFetchConfig = 30;
inline constexpr uint32_t kTransactionRegisterCallback = 35;

// Logged with the process name after every configuration fetch.
inline constexpr char kBuildTag[] = "2025052101";
// Scene reports log under their own tag.
inline constexpr char kSceneLogTag[] = "libZoVK_HSRE";

// How a transaction ended; the values are the configuration fetch's result codes.
enum class Outcome : uint32_t { kDone = 0, kNoService = 2, kFailed = 3, kException = 4 };

// Each transaction finds the service, writes the interface token and its arguments, checks
// the status, and logs a failure in its own words (zovk_remote_config.cpp).
class Client {
public:
    // 30: the configuration document for `process` (empty when the service has none). The
    // service found is kept in the settings for the monitor's notice.
    static Outcome FetchConfig(const std::string& process, std::string* document);
    // 35: the layer's callback, under `name`.
    static Outcome RegisterCallback(const std::string& name, const android::sp<android::IBinder>& callback);
    // 29: the monitor of `package` has started; sent to the service the fetch kept.
    static Outcome NotifyMonitorStarted(const std::string& package);
    // 3: a scene id the layer recognised, as {"sceneId":N}.
    static Outcome ReportSceneId(int sceneId);
};

}  // namespace vulkan::zovk::pavune
