#pragma once

// Host stand-in for libbinder's local object (BBinder) and BpRefBase. The remote proxy is in
// BpBinder.h, included here as users of this header expect both.
#include <stdint.h>

#include <atomic>

#include <binder/BpBinder.h>
#include <binder/IBinder.h>

namespace android {

namespace hostbinder {
class Driver;
}

class BBinder : public IBinder {
public:
    BBinder();

    const String16& getInterfaceDescriptor() const override;  // empty unless overridden
    bool isBinderAlive() const override;
    status_t pingBinder() override;
    // Answers PING_TRANSACTION itself; everything else goes to onTransact.
    status_t transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags = 0) final;

    // Local objects never die under their own process: INVALID_OPERATION, as on Android.
    status_t linkToDeath(const sp<DeathRecipient>& recipient, void* cookie = nullptr, uint32_t flags = 0) override;
    status_t unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie = nullptr, uint32_t flags = 0,
                           wp<DeathRecipient>* outRecipient = nullptr) override;

    BBinder* localBinder() override;

protected:
    ~BBinder() override;

    // INTERFACE_TRANSACTION writes the descriptor, PING_TRANSACTION succeeds, any other code
    // is UNKNOWN_TRANSACTION.
    virtual status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags = 0);

private:
    friend class hostbinder::Driver;
    BBinder(const BBinder&) = delete;
    BBinder& operator=(const BBinder&) = delete;

    std::atomic<uint64_t> mNode{0};  // host node id once the object has been published
};

class BpRefBase : public virtual RefBase {
public:
    IBinder* remote() const { return mRemote.get(); }
    sp<IBinder> remoteStrong() const { return mRemote; }

protected:
    explicit BpRefBase(const sp<IBinder>& remote);
    ~BpRefBase() override;

private:
    BpRefBase(const BpRefBase&) = delete;
    BpRefBase& operator=(const BpRefBase&) = delete;

    const sp<IBinder> mRemote;
};

}  // namespace android
