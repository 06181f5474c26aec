// Arbitrary bytes through everything that reads what a binder peer sends: as a parcel, every
// read at every position; as a frame, the transport's header decoder and the receiver's
// adoption of the binders a frame names, then the reads again. Nothing may crash, leak,
// allocate without bound or hang.
//
// Input: byte 0 even, the rest is a parcel; byte 0 odd, the rest is a frame (header, payload).
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include <android/log.h>
#include <binder/IBinder.h>
#include <binder/Parcel.h>
#include <binder/Status.h>

#include "platform/host/binder/driver.h"
#include "platform/host/binder/transport.h"

namespace {

using android::Parcel;
using android::sp;
using android::String16;

void ReadEverywhere(const Parcel& parcel) {
    const String16 descriptor("com.veltra.pavune.IPavuneInterface");
    int32_t i32 = 0;
    int64_t i64 = 0;
    String16 text;
    size_t len = 0;
    sp<android::IBinder> binder;
    uint8_t buffer[64];
    const std::function<void()> reads[] = {
        // The other fixed-size reads and the non-nullable binder and exception-code reads wrap these.
        [&] { parcel.readInt32(&i32); },
        [&] { parcel.readInt64(&i64); },
        [&] { parcel.readString16(&text); },
        [&] {
            // Whatever comes back must be readable to its stated length.
            if (const char16_t* str = parcel.readString16Inplace(&len)) {
                String16 copy(str, len);
            }
        },
        [&] {
            if (parcel.readNullableStrongBinder(&binder) == android::OK && binder != nullptr) {
                binder->isBinderAlive();
            }
        },
        [&] {
            android::binder::Status status;
            status.readFromParcel(parcel);
            status.toString8();
        },
        [&] { parcel.enforceInterface(descriptor); },
        [&] { parcel.read(buffer, std::min(parcel.dataAvail(), sizeof(buffer))); },
    };
    const size_t end = std::min<size_t>(parcel.dataSize() + 4, 512);
    for (size_t pos = 0; pos <= end; ++pos) {
        for (const auto& read : reads) {
            parcel.setDataPosition(pos);
            read();
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    // Binders named by the input must find nobody to connect to, at once and without a trace.
    setenv("ZOVK_BINDER_DIR", ("/nonexistent/zovk-parcel-fuzzer-" + std::to_string(getpid())).c_str(), 1);
    setenv("ZOVK_BINDER_TIMEOUT_MS", "50", 1);
    __android_log_set_minimum_priority(ANDROID_LOG_FATAL);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace android::hostbinder;
    Parcel parcel;
    if (size > 0 && (data[0] & 1) == 0) {
        parcel.setData(data + 1, size - 1);
        ReadEverywhere(parcel);
        return 0;
    }
    FrameHeader header;
    if (size < 1 + kFrameHeaderSize || DecodeFrameHeader(data + 1, &header) != nullptr ||
        (header.kind != kCall && header.kind != kReply) || size - 1 - kFrameHeaderSize < header.length) {
        return 0;  // a truncated frame never gets past the transport
    }
    const uint8_t* payload = data + 1 + kFrameHeaderSize;
    const char* why = nullptr;
    if (ParcelAccess::adopt(&parcel, std::vector<uint8_t>(payload, payload + header.length), header, &why) ==
        android::OK) {
        ReadEverywhere(parcel);
    }
    return 0;
}
