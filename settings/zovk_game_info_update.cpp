#include "settings/zovk_game_info_update.h"

#include <string>

#include <binder/Stability.h>
#include <utils/String8.h>

#include "settings/zovk_app_info_monitor.h"
#include "settings/zovk_never_destroyed.h"

namespace com::veltra::pavune {

using android::binder::Status;

namespace {

vulkan::zovk::ZoVkNeverDestroyed<const android::String16> gDescriptor(u"com.veltra.pavune.IGameInfoUpdate");

android::sp<IGameInfoUpdate>& DefaultImpl() {
    static vulkan::zovk::ZoVkNeverDestroyed<android::sp<IGameInfoUpdate>> impl;
    return *impl.Get();
}

}  // namespace

const android::String16& IGameInfoUpdate::descriptor = *gDescriptor.Get();

android::sp<IGameInfoUpdate> IGameInfoUpdate::asInterface(const android::sp<android::IBinder>& binder) {
    if (binder == nullptr) {
        return nullptr;
    }
    android::sp<android::IInterface> local = binder->queryLocalInterface(descriptor);
    if (local != nullptr) {
        return android::sp<IGameInfoUpdate>(static_cast<IGameInfoUpdate*>(local.get()));
    }
    return android::sp<IGameInfoUpdate>(new BpGameInfoUpdate(binder));
}

bool IGameInfoUpdate::setDefaultImpl(android::sp<IGameInfoUpdate> impl) {
    if (impl == nullptr) {
        return false;
    }
    DefaultImpl() = std::move(impl);
    return true;
}

const android::sp<IGameInfoUpdate>& IGameInfoUpdate::getDefaultImpl() {
    return DefaultImpl();
}

const android::String16& IGameInfoUpdate::getInterfaceDescriptor() const {
    return descriptor;
}

BpGameInfoUpdate::BpGameInfoUpdate(const android::sp<android::IBinder>& remote)
    : android::BpInterface<IGameInfoUpdate>(remote) {}

Status BpGameInfoUpdate::sendToZoGL(const android::String16& info) {
    android::Parcel data;
    android::Parcel reply;
    Status status;
    data.markForBinder(remote());
    android::status_t result = data.writeInterfaceToken(getInterfaceDescriptor());
    if (result == android::OK) {
        result = data.writeString16(info);
    }
    if (result == android::OK) {
        result = remote()->transact(TRANSACTION_sendToZoGL, data, &reply, 0);
        if (result == android::UNKNOWN_TRANSACTION && getDefaultImpl() != nullptr) {
            return getDefaultImpl()->sendToZoGL(info);
        }
    }
    if (result == android::OK) {
        result = status.readFromParcel(reply);
    }
    if (result != android::OK) {
        status.setFromStatusT(result);
    }
    return status;
}

BnGameInfoUpdate::BnGameInfoUpdate() {
    android::internal::Stability::markCompilationUnit(this);
}

Status BnGameInfoUpdate::sendToZoGL(const android::String16& info) {
    const android::String8 utf8(info);
    const std::string text(utf8.c_str());  // up to the first NUL
    android::ZoVkAppInfoMonitor::GetInstance()->UpdateAppInfo(text);
    // Malformed records are the monitor's to report; the caller always sees success.
    return Status::ok();
}

android::status_t BnGameInfoUpdate::onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                               uint32_t flags) {
    android::status_t result;
    if (code == TRANSACTION_sendToZoGL) {
        if (!data.checkInterface(this)) {
            result = android::BAD_TYPE;
        } else {
            android::String16 info;
            result = data.readString16(&info);
            if (result == android::OK) {
                result = sendToZoGL(info).writeToParcel(reply);
            }
        }
    } else {
        result = android::BBinder::onTransact(code, data, reply, flags);
    }
    if (result == android::UNEXPECTED_NULL) {
        result = Status::fromExceptionCode(Status::EX_NULL_POINTER).writeOverParcel(reply);
    }
    return result;
}

}  // namespace com::veltra::pavune
