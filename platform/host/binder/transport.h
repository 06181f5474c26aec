#pragma once

// Framing and socket helpers of the host binder. Everything travels over Unix stream sockets as
// frames: a fixed 24-byte header (magic, kind, code, flags, payload length, object count;
// little-endian uint32 each) followed by the payload. A connection starts with HELLO/WELCOME,
// which names the object (node id and process incarnation, see Parcel.h); after that it
// carries CALL frames (code = transaction code) answered by REPLY frames (code = the callee's
// status_t) unless the call is one-way. Their payload is the parcel bytes followed by one
// uint32 offset per strong binder in them, so that the receiver can take its references
// before the sender may drop its own.
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <sys/un.h>

#include <chrono>
#include <string>
#include <vector>

#include <android/log.h>
#include <utils/Errors.h>

namespace android {
namespace hostbinder {

constexpr char kLogTag[] = "libZoVK";
#define HB_LOG(prio, ...) __android_log_print(ANDROID_LOG_##prio, ::android::hostbinder::kLogTag, __VA_ARGS__)

constexpr uint32_t kFrameMagic = 0x5a42564b;  // "KVBZ" on the wire
constexpr size_t kFrameHeaderSize = 24;
constexpr size_t kFlatBinderSize = 28;          // flat object and stability
constexpr size_t kHelloSize = 16;              // node id, incarnation
constexpr uint32_t kMaxFramePayload = 1u << 20;  // libbinder's own transaction buffer size

enum FrameKind : uint32_t { kHello = 1, kWelcome = 2, kCall = 3, kReply = 4 };

// In the flags of a one-way CALL: answer with an empty REPLY once the objects in it are held.
// Binder's own flags leave this bit unused.
constexpr uint32_t kFrameAckObjects = 1u << 31;

struct FrameHeader {
    uint32_t kind = 0;
    uint32_t code = 0;
    uint32_t flags = 0;
    uint32_t length = 0;   // payload bytes, offsets included
    uint32_t objects = 0;  // offsets at the end of the payload

    size_t dataSize() const { return length - size_t(objects) * 4; }
};

// Validates a received header. Null when it is acceptable, otherwise why not (for the log).
const char* DecodeFrameHeader(const uint8_t* bytes, FrameHeader* out);
void EncodeFrameHeader(const FrameHeader& header, uint8_t* bytes);

class Deadline {
public:
    explicit Deadline(int timeoutMs)
        : mEnd(std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs)) {}
    // Milliseconds left, rounded up; 0 once passed.
    int remainingMs() const;

private:
    std::chrono::steady_clock::time_point mEnd;
};

// ZOVK_BINDER_TIMEOUT_MS, or 2000.
int CallTimeoutMs();

// The runtime directory: ZOVK_BINDER_DIR, else $XDG_RUNTIME_DIR/zovk-binder, else
// /tmp/zovk-binder-<uid>. Other users must not be able to plant or reach sockets there, so
// it is used only when it is a real directory of ours with mode 0700 or stricter.
// `create` makes it when missing; otherwise a missing directory is NAME_NOT_FOUND.
status_t RuntimeDir(bool create, std::string* dir);

// Blocking-with-deadline I/O on non-blocking sockets. DEAD_OBJECT when the peer has gone
// (EOF, reset), TIMED_OUT when the deadline passes. `got` receives the bytes read so far.
status_t ReadFull(int fd, void* buf, size_t size, const Deadline& deadline, size_t* got);
status_t WriteFull(int fd, const void* buf, size_t size, const Deadline& deadline);

// Fills in length and objects from the parcel bytes and the binder offsets.
status_t SendFrame(int fd, FrameHeader header, const void* data, size_t size, const std::vector<uint32_t>& offsets,
                   const Deadline& deadline);
// DEAD_OBJECT for a clean EOF between frames, BAD_VALUE (with *why) for malformed or
// truncated input.
status_t RecvFrame(int fd, FrameHeader* header, std::vector<uint8_t>* payload, const Deadline& deadline,
                   const char** why);

// A non-blocking Unix stream socket with its address set to `path`; -1 (logged) when the path
// is too long or no socket could be made.
int UnixSocket(const std::string& path, sockaddr_un* addr);

// Connects to the socket at `path` and checks that its owner runs as our user. Never blocks
// past the deadline: a peer whose backlog is full (stopped process) gives TIMED_OUT.
int Dial(const std::string& path, const Deadline& deadline, status_t* err);

// The peer's credentials if it runs as our effective uid; otherwise false (and logged).
bool PeerIsOurUser(int fd, pid_t* pid, uid_t* uid);

void PutU32(uint8_t* bytes, uint32_t value);
uint32_t GetU32(const uint8_t* bytes);
void PutU64(uint8_t* bytes, uint64_t value);
uint64_t GetU64(const uint8_t* bytes);

}  // namespace hostbinder
}  // namespace android
