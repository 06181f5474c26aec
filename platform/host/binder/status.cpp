#include <binder/Status.h>

#include <binder/Parcel.h>
#include <utils/String16.h>

namespace android {
namespace binder {

namespace {

// Skips a block that starts with its int32 size. The fat reply header and parcelable blobs
// count the size field in; the remote stack trace does not. UNKNOWN_ERROR when the size
// cannot be right.
status_t SkipSizedBlock(const Parcel& parcel, bool countsItsSize) {
    const size_t start = parcel.dataPosition();
    int32_t size = 0;
    if (const status_t err = parcel.readInt32(&size); err != OK) {
        return err;
    }
    const size_t from = countsItsSize ? start : parcel.dataPosition();
    if (size < 0 || size_t(size) > parcel.dataSize() - from) {
        return UNKNOWN_ERROR;
    }
    parcel.setDataPosition(from + size_t(size));
    return OK;
}

}  // namespace

Status Status::ok() {
    return Status();
}

Status Status::fromExceptionCode(int32_t exceptionCode) {
    return Status(exceptionCode, exceptionCode == EX_TRANSACTION_FAILED ? FAILED_TRANSACTION : OK);
}

Status Status::fromExceptionCode(int32_t exceptionCode, const String8& message) {
    return Status(exceptionCode, exceptionCode == EX_TRANSACTION_FAILED ? FAILED_TRANSACTION : OK, message);
}

Status Status::fromExceptionCode(int32_t exceptionCode, const char* message) {
    return fromExceptionCode(exceptionCode, String8(message));
}

Status Status::fromServiceSpecificError(int32_t errorCode) {
    return Status(EX_SERVICE_SPECIFIC, errorCode);
}

Status Status::fromServiceSpecificError(int32_t errorCode, const String8& message) {
    return Status(EX_SERVICE_SPECIFIC, errorCode, message);
}

Status Status::fromStatusT(status_t status) {
    Status result;
    result.setFromStatusT(status);
    return result;
}

std::string Status::exceptionToString(int32_t exceptionCode) {
    switch (exceptionCode) {
#define ZOVK_EXCEPTION_NAME(name) \
    case name:                    \
        return #name;
        ZOVK_EXCEPTION_NAME(EX_NONE)
        ZOVK_EXCEPTION_NAME(EX_SECURITY)
        ZOVK_EXCEPTION_NAME(EX_BAD_PARCELABLE)
        ZOVK_EXCEPTION_NAME(EX_ILLEGAL_ARGUMENT)
        ZOVK_EXCEPTION_NAME(EX_NULL_POINTER)
        ZOVK_EXCEPTION_NAME(EX_ILLEGAL_STATE)
        ZOVK_EXCEPTION_NAME(EX_NETWORK_MAIN_THREAD)
        ZOVK_EXCEPTION_NAME(EX_UNSUPPORTED_OPERATION)
        ZOVK_EXCEPTION_NAME(EX_SERVICE_SPECIFIC)
        ZOVK_EXCEPTION_NAME(EX_PARCELABLE)
        ZOVK_EXCEPTION_NAME(EX_HAS_REPLY_HEADER)
        ZOVK_EXCEPTION_NAME(EX_TRANSACTION_FAILED)
#undef ZOVK_EXCEPTION_NAME
        default:
            return std::to_string(exceptionCode);
    }
}

Status::Status(int32_t exceptionCode, int32_t errorCode) : mException(exceptionCode), mErrorCode(errorCode) {}

Status::Status(int32_t exceptionCode, int32_t errorCode, const String8& message)
    : mException(exceptionCode), mErrorCode(errorCode), mMessage(message) {}

status_t Status::readFromParcel(const Parcel& parcel) {
    *this = Status();  // nothing of an earlier value may survive into this one
    status_t err = parcel.readInt32(&mException);
    if (err == OK && mException == EX_HAS_REPLY_HEADER) {
        // Only sent with success; native code has no use for its contents.
        err = SkipSizedBlock(parcel, true);
        mException = EX_NONE;
    }
    if (err != OK || mException == EX_NONE) {
        if (err != OK) {
            setFromStatusT(err);
        }
        return err;
    }
    String16 message;
    err = parcel.readString16(&message);
    if (err == OK) {
        mMessage = String8(message);
        err = SkipSizedBlock(parcel, false);  // the remote stack trace
    }
    if (err == OK && mException == EX_SERVICE_SPECIFIC) {
        err = parcel.readInt32(&mErrorCode);
    } else if (err == OK && mException == EX_PARCELABLE) {
        err = SkipSizedBlock(parcel, true);
    }
    if (err != OK) {
        setFromStatusT(err);
    }
    return err;
}

status_t Status::writeToParcel(Parcel* parcel) const {
    // A failed transaction carries no rich error: the status_t itself is the answer.
    if (mException == EX_TRANSACTION_FAILED) {
        return mErrorCode;
    }
    status_t err = parcel->writeInt32(mException);
    if (err != OK || mException == EX_NONE) {
        return err;
    }
    err = parcel->writeString16(String16(mMessage));
    if (err == OK) {
        err = parcel->writeInt32(0);  // empty remote stack trace
    }
    if (err == OK && mException == EX_SERVICE_SPECIFIC) {
        err = parcel->writeInt32(mErrorCode);
    } else if (err == OK && mException == EX_PARCELABLE) {
        err = parcel->writeInt32(0);  // no parcelable blob
    }
    return err;
}

status_t Status::writeOverParcel(Parcel* parcel) const {
    parcel->setDataSize(0);
    parcel->setDataPosition(0);
    return writeToParcel(parcel);
}

void Status::setException(int32_t ex, const String8& message) {
    mException = ex;
    mErrorCode = ex == EX_TRANSACTION_FAILED ? FAILED_TRANSACTION : OK;
    mMessage = message;
}

void Status::setServiceSpecificError(int32_t errorCode, const String8& message) {
    setException(EX_SERVICE_SPECIFIC, message);
    mErrorCode = errorCode;
}

void Status::setFromStatusT(status_t status) {
    mException = status == OK ? EX_NONE : EX_TRANSACTION_FAILED;
    mErrorCode = status;
    mMessage = String8();
}

String8 Status::toString8() const {
    String8 text;
    if (mException == EX_NONE) {
        text.append("No error");
        return text;
    }
    text.appendFormat("Status(%d, %s): '", mException, exceptionToString(mException).c_str());
    if (mException == EX_SERVICE_SPECIFIC || mException == EX_TRANSACTION_FAILED) {
        text.appendFormat("%d: ", mErrorCode);
    }
    text.append(mMessage);
    text.append("'");
    return text;
}

}  // namespace binder
}  // namespace android
