// In-game state records as the game service sends them: any bytes must be taken apart
// without a crash, a leak or a hang.
#include <stdlib.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "settings/zovk_app_info_monitor.h"
#include "settings/zovk_settings.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // No game service: the monitor's registration finds nothing and ends.
    static char dir[] = "/tmp/zovk-fuzz-binder-XXXXXX";
    setenv("ZOVK_BINDER_DIR", mkdtemp(dir), 1);
    vulkan::zovk::ZoVkSettings::GetInstance()->IdentifyApplication("com.miHoYo.hkrpg");
    android::ZoVkAppInfoMonitor::GetInstance()->Start();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    android::ZoVkAppInfoMonitor::GetInstance()->UpdateAppInfo(std::string(reinterpret_cast<const char*>(data), size));
    return 0;
}
