// The compatibility header of tools/android/check_binder_headers.py, included ahead of every
// source it compiles. No build uses it: it lets the layer's binder code, written against
// libbinder of API 35, compile against Debian's libbinder headers of API 29.
#pragma once

// libbinder's Parcel.h uses std::unique_ptr and std::numeric_limits without including <memory>
// and <limits>: bionic's libc++ headers bring both in along the way, glibc's libstdc++ does not.
#include <limits>
#include <memory>

// Parcel::markForBinder(const sp<IBinder>&) of API 35 (void; it readies a parcel for the binder it
// will be sent to) is not in API 29: the call becomes writeStrongBinder, which API 29 has with the
// same parameter, so the argument is still checked against libbinder's type.
#define markForBinder writeStrongBinder

// binder::Status::writeOverParcel(Parcel*) const of API 35 (it writes the status over the start of
// a reply) is not in API 29: the call becomes writeToParcel, which has the same signature.
#define writeOverParcel writeToParcel
