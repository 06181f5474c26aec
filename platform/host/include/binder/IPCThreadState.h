#pragma once

// Host stand-in for libbinder's per-thread binder state.
#include <sys/types.h>

namespace android {

class IPCThreadState {
public:
    static IPCThreadState* self();

    // The caller of the incoming call this thread is serving; our own ids otherwise.
    pid_t getCallingPid() const;
    uid_t getCallingUid() const;

    // Serves incoming calls on this thread until the process exits.
    void joinThreadPool(bool isMain = true);
    void flushCommands() {}

private:
    friend class IPCThreadStateAccess;
    IPCThreadState() = default;

    pid_t mCallingPid = -1;  // -1: not serving a call
    uid_t mCallingUid = 0;
};

}  // namespace android
