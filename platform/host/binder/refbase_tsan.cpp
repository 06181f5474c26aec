// ThreadSanitizer builds only. Debian's libutils is not built with TSan, so the atomic
// reference counts that order an object's last release before its destruction are invisible
// to it, and every RefBase object released on two threads (binders, proxies, death
// recipients) reads as a race on its vptr. This stands in front of libutils' decStrong and
// tells TSan what the count already guarantees: each release happens before the destruction.
#if defined(__SANITIZE_THREAD__)
#define ZOVK_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ZOVK_TSAN 1
#endif
#endif

#ifdef ZOVK_TSAN

#include <dlfcn.h>
#include <stdlib.h>

#include <sanitizer/tsan_interface.h>
#include <utils/RefBase.h>

namespace android {

void RefBase::decStrong(const void* id) const {
    using DecStrong = void (*)(const RefBase*, const void*);
    static const auto real = reinterpret_cast<DecStrong>(dlsym(RTLD_NEXT, "_ZNK7android7RefBase9decStrongEPKv"));
    if (real == nullptr) {
        abort();
    }
    void* sync = const_cast<RefBase*>(this);
    __tsan_release(sync);  // what this thread did to the object comes before...
    __tsan_acquire(sync);  // ...and, if this is the last release, the destruction comes after all
    real(this, id);
}

}  // namespace android

#endif  // ZOVK_TSAN
