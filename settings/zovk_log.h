#pragma once

#include <android/log.h>

#include "settings/zovk_log_switch.h"

// Every line of the layer goes through liblog, under "libZoVK" unless a part has its own tag.
// Debug and info lines are written only while "vendor.zovk.log.debug" is on; warnings and
// errors always. ZOVK_LOG writes whatever the switch says, for the few lines that must.
#define ZOVK_LOG_TAG "libZoVK"

#define ZOVK_LOG(priority, tag, ...) ((void)__android_log_print(ANDROID_LOG_##priority, tag, __VA_ARGS__))
#define ZOVK_LOG_DEBUG_ONLY(priority, tag, ...)          \
    do {                                                 \
        if (::vulkan::zovk::IsLogDebug())                \
            ZOVK_LOG(priority, tag, __VA_ARGS__);        \
    } while (0)

#define ZOVK_LOGD(...) ZOVK_LOG_DEBUG_ONLY(DEBUG, ZOVK_LOG_TAG, __VA_ARGS__)
#define ZOVK_LOGI(...) ZOVK_LOG_DEBUG_ONLY(INFO, ZOVK_LOG_TAG, __VA_ARGS__)
#define ZOVK_LOGW(...) ZOVK_LOG(WARN, ZOVK_LOG_TAG, __VA_ARGS__)
#define ZOVK_LOGE(...) ZOVK_LOG(ERROR, ZOVK_LOG_TAG, __VA_ARGS__)
