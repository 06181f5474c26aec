#pragma once

// Host stand-in for libbinder's remote proxy. A BpBinder names an object of another process by
// its node id and that process's incarnation (see Parcel.h). It holds one connection to the
// object's socket for as long as it lives: that connection is the remote reference keeping the
// object alive, and, while death recipients are linked, the death watch (EOF means the owner
// died). Calls go over further pooled connections, one call at a time each.
#include <stdint.h>

#include <atomic>
#include <mutex>
#include <vector>

#include <binder/IBinder.h>

namespace android {

namespace hostbinder {
class Deadline;
class Driver;
}

class BpBinder : public IBinder {
public:
    // Asks the object (INTERFACE_TRANSACTION) once and keeps the answer; empty if it fails.
    const String16& getInterfaceDescriptor() const override;
    bool isBinderAlive() const override;
    status_t pingBinder() override;
    // DEAD_OBJECT once the owner has gone, TIMED_OUT if it does not answer in time.
    status_t transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags = 0) override;

    status_t linkToDeath(const sp<DeathRecipient>& recipient, void* cookie = nullptr, uint32_t flags = 0) override;
    status_t unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie = nullptr, uint32_t flags = 0,
                           wp<DeathRecipient>* outRecipient = nullptr) override;

    BpBinder* remoteBinder() override;

    uint64_t nodeId() const { return mNode; }
    uint64_t incarnation() const { return mIncarnation; }

protected:
    ~BpBinder() override;

private:
    friend class hostbinder::Driver;
    struct Obituary {
        wp<DeathRecipient> recipient;
        void* cookie;
        uint32_t flags;
    };

    // refFd < 0 makes a proxy that is dead from the start.
    BpBinder(uint64_t node, uint64_t incarnation, int refFd);
    BpBinder(const BpBinder&) = delete;
    BpBinder& operator=(const BpBinder&) = delete;

    void sendObituary();
    int takeConnection(const hostbinder::Deadline& deadline, status_t* err);
    void returnConnection(int fd);

    const uint64_t mNode;
    const uint64_t mIncarnation;
    const int mRefFd;
    std::atomic<bool> mAlive;

    mutable std::mutex mLock;
    std::vector<int> mIdle;  // call connections not in use
    std::vector<Obituary> mObituaries;
    uint64_t mWatch = 0;  // the driver's watch on mRefFd while recipients are linked
    bool mObitsSent = false;
    mutable bool mHaveDescriptor = false;
    mutable String16 mDescriptor;  // written once, under mLock
};

}  // namespace android
