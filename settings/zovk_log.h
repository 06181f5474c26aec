#pragma once

#include <android/log.h>

#include "settings/zovk_settings.h"

// Every line of the layer goes through liblog under one tag. Debug and info lines are
// written only while "vendor.zovk.log.debug" is on; warnings and errors always.
#define ZOVK_LOG_TAG "libZoVK"

#define ZOVK_LOGD(...)                                                              \
    do {                                                                            \
        if (::vulkan::zovk::ZoVkSettings::GetInstance()->IsLogDebug())              \
            __android_log_print(ANDROID_LOG_DEBUG, ZOVK_LOG_TAG, __VA_ARGS__);      \
    } while (0)
#define ZOVK_LOGI(...)                                                              \
    do {                                                                            \
        if (::vulkan::zovk::ZoVkSettings::GetInstance()->IsLogDebug())              \
            __android_log_print(ANDROID_LOG_INFO, ZOVK_LOG_TAG, __VA_ARGS__);       \
    } while (0)
#define ZOVK_LOGW(...) __android_log_print(ANDROID_LOG_WARN, ZOVK_LOG_TAG, __VA_ARGS__)
#define ZOVK_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, ZOVK_LOG_TAG, __VA_ARGS__)
