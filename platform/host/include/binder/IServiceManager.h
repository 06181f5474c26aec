#pragma once

// Host stand-in for libbinder's service manager. There is no manager process: a service is a
// socket named after it in the runtime directory (ZOVK_BINDER_DIR, else
// $XDG_RUNTIME_DIR/zovk-binder, else /tmp/zovk-binder-<uid>).
#include <binder/IInterface.h>
#include <utils/String16.h>

namespace android {

class IServiceManager : public IInterface {
public:
    enum {
        DUMP_FLAG_PRIORITY_CRITICAL = 1 << 0,
        DUMP_FLAG_PRIORITY_HIGH = 1 << 1,
        DUMP_FLAG_PRIORITY_NORMAL = 1 << 2,
        DUMP_FLAG_PRIORITY_DEFAULT = 1 << 3,
    };

    // Waits for the service up to the call timeout (ZOVK_BINDER_TIMEOUT_MS, 2000 ms).
    virtual sp<IBinder> getService(const String16& name) const = 0;
    // No waiting: null unless the service is registered and answering now.
    virtual sp<IBinder> checkService(const String16& name) const = 0;
    // Local objects only. A name already taken is taken over, as on Android.
    virtual status_t addService(const String16& name, const sp<IBinder>& service, bool allowIsolated = false,
                                int dumpsysFlags = DUMP_FLAG_PRIORITY_DEFAULT) = 0;
};

sp<IServiceManager> defaultServiceManager();

template <typename INTERFACE>
status_t getService(const String16& name, sp<INTERFACE>* outService) {
    const sp<IBinder> binder = defaultServiceManager()->getService(name);
    if (binder == nullptr) {
        return NAME_NOT_FOUND;
    }
    *outService = interface_cast<INTERFACE>(binder);
    return OK;
}

}  // namespace android
