#include <binder/IServiceManager.h>

#include <chrono>
#include <thread>

#include "driver.h"

namespace android {

namespace {

class HostServiceManager final : public IServiceManager {
public:
    sp<IBinder> getService(const String16& name) const override {
        // Android waits for a service that is starting; here the wait is the call timeout.
        const hostbinder::Deadline deadline(hostbinder::CallTimeoutMs());
        for (;;) {
            sp<IBinder> service = checkService(name);
            if (service != nullptr || deadline.remainingMs() == 0) {
                return service;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(std::min(50, deadline.remainingMs())));
        }
    }

    sp<IBinder> checkService(const String16& name) const override {
        return hostbinder::Driver::get().lookup(name);
    }

    status_t addService(const String16& name, const sp<IBinder>& service, bool /*allowIsolated*/,
                        int /*dumpsysFlags*/) override {
        return hostbinder::Driver::get().addService(name, service);
    }

protected:
    IBinder* onAsBinder() override {
        return nullptr;  // the directory is the manager: there is no object to hand out
    }
};

}  // namespace

sp<IServiceManager> defaultServiceManager() {
    static const sp<IServiceManager> sManager(new HostServiceManager());
    return sManager;
}

}  // namespace android
