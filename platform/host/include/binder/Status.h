#pragma once

// Host stand-in for libbinder's binder::Status: an exception code, a status_t for transaction
// failures or the service-specific code, and a message, written to replies as libbinder
// writes them (int32 exception; for anything but EX_NONE a String16 message, an int32 0
// remote stack trace header, and the service-specific code or an empty parcelable size).
#include <stdint.h>

#include <string>

#include <utils/Errors.h>
#include <utils/String8.h>

namespace android {

class Parcel;

namespace binder {

class Status final {
public:
    enum Exception {
        EX_NONE = 0,
        EX_SECURITY = -1,
        EX_BAD_PARCELABLE = -2,
        EX_ILLEGAL_ARGUMENT = -3,
        EX_NULL_POINTER = -4,
        EX_ILLEGAL_STATE = -5,
        EX_NETWORK_MAIN_THREAD = -6,
        EX_UNSUPPORTED_OPERATION = -7,
        EX_SERVICE_SPECIFIC = -8,
        EX_PARCELABLE = -9,
        EX_HAS_REPLY_HEADER = -128,  // a header to skip, then as EX_NONE
        EX_TRANSACTION_FAILED = -129,  // never written: the status_t itself is the result
    };

    static Status ok();
    static Status fromExceptionCode(int32_t exceptionCode);
    static Status fromExceptionCode(int32_t exceptionCode, const String8& message);
    static Status fromExceptionCode(int32_t exceptionCode, const char* message);
    static Status fromServiceSpecificError(int32_t errorCode);
    static Status fromServiceSpecificError(int32_t errorCode, const String8& message);
    static Status fromStatusT(status_t status);
    static std::string exceptionToString(int32_t exceptionCode);

    Status() = default;

    status_t readFromParcel(const Parcel& parcel);
    status_t writeToParcel(Parcel* parcel) const;
    // Empties the parcel first, for replies whose body was partly written already.
    status_t writeOverParcel(Parcel* parcel) const;

    void setException(int32_t ex, const String8& message);
    void setServiceSpecificError(int32_t errorCode, const String8& message);
    void setFromStatusT(status_t status);

    bool isOk() const { return mException == EX_NONE; }
    int32_t exceptionCode() const { return mException; }
    const String8& exceptionMessage() const { return mMessage; }
    status_t transactionError() const { return mException == EX_TRANSACTION_FAILED ? mErrorCode : OK; }
    int32_t serviceSpecificErrorCode() const { return mException == EX_SERVICE_SPECIFIC ? mErrorCode : 0; }

    String8 toString8() const;

private:
    Status(int32_t exceptionCode, int32_t errorCode);
    Status(int32_t exceptionCode, int32_t errorCode, const String8& message);

    int32_t mException = EX_NONE;
    int32_t mErrorCode = 0;
    String8 mMessage;
};

}  // namespace binder
}  // namespace android
