// Host liblog drops debug lines by default. On a device logcat filters; here the
// layer's own switches decide what is written, so let everything through once at load.
#include <android/log.h>

namespace {

__attribute__((constructor)) void OpenHostLog() {
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
}

}  // namespace
