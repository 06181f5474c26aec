#pragma once

// Host stand-in for libbinder's ProcessState. The binder threads (a poll thread and a few
// workers, "binder:<pid>_N") start by themselves when the process first publishes an object
// or links a death recipient; startThreadPool only makes that happen earlier.
#include <stddef.h>

#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/StrongPointer.h>

namespace android {

class ProcessState : public virtual RefBase {
public:
    static sp<ProcessState> self();

    void startThreadPool();
    // Workers that serve incoming calls at the same time (default 4, at least 1).
    status_t setThreadPoolMaxThreadCount(size_t maxThreads);

private:
    ProcessState() = default;
    ~ProcessState() override = default;
};

}  // namespace android
