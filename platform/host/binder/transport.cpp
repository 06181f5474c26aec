#include "transport.h"

#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

namespace android {
namespace hostbinder {

uint32_t GetU32(const uint8_t* bytes) {
    return uint32_t(bytes[0]) | uint32_t(bytes[1]) << 8 | uint32_t(bytes[2]) << 16 | uint32_t(bytes[3]) << 24;
}

void PutU32(uint8_t* bytes, uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        bytes[i] = uint8_t(value >> (8 * i));
    }
}

namespace {

// Waits for `events` on fd until the deadline. OK, TIMED_OUT, or DEAD_OBJECT on poll failure.
status_t WaitFor(int fd, short events, const Deadline& deadline) {
    for (;;) {
        pollfd p{fd, events, 0};
        const int n = poll(&p, 1, deadline.remainingMs());
        if (n > 0) {
            return OK;
        }
        if (n == 0) {
            return TIMED_OUT;
        }
        if (errno != EINTR) {
            return DEAD_OBJECT;
        }
    }
}

}  // namespace

void PutU64(uint8_t* bytes, uint64_t value) {
    PutU32(bytes, uint32_t(value));
    PutU32(bytes + 4, uint32_t(value >> 32));
}

uint64_t GetU64(const uint8_t* bytes) {
    return uint64_t(GetU32(bytes)) | uint64_t(GetU32(bytes + 4)) << 32;
}

const char* DecodeFrameHeader(const uint8_t* bytes, FrameHeader* out) {
    if (GetU32(bytes) != kFrameMagic) {
        return "bad frame magic";
    }
    out->kind = GetU32(bytes + 4);
    out->code = GetU32(bytes + 8);
    out->flags = GetU32(bytes + 12);
    out->length = GetU32(bytes + 16);
    out->objects = GetU32(bytes + 20);
    switch (out->kind) {
        case kHello:
        case kWelcome:
            return out->length == kHelloSize && out->objects == 0 ? nullptr : "bad greeting";
        case kCall:
        case kReply:
            if (out->length > kMaxFramePayload) {
                return "frame too large";
            }
            // Each object needs its offset and its own bytes in the data.
            return out->objects <= out->length / (4 + kFlatBinderSize) ? nullptr : "too many objects";
        default:
            return "unknown frame kind";
    }
}

void EncodeFrameHeader(const FrameHeader& header, uint8_t* bytes) {
    PutU32(bytes, kFrameMagic);
    PutU32(bytes + 4, header.kind);
    PutU32(bytes + 8, header.code);
    PutU32(bytes + 12, header.flags);
    PutU32(bytes + 16, header.length);
    PutU32(bytes + 20, header.objects);
}

int Deadline::remainingMs() const {
    const auto left = mEnd - std::chrono::steady_clock::now();
    if (left <= std::chrono::steady_clock::duration::zero()) {
        return 0;
    }
    const auto ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
    return int(std::min<int64_t>(ms, 1 << 30));
}

int CallTimeoutMs() {
    const char* text = getenv("ZOVK_BINDER_TIMEOUT_MS");
    if (text != nullptr && *text != '\0') {
        char* end = nullptr;
        const long value = strtol(text, &end, 10);
        if (*end == '\0' && value > 0 && value <= 3600 * 1000) {
            return int(value);
        }
        HB_LOG(WARN, "ZOVK_BINDER_TIMEOUT_MS=%s ignored", text);
    }
    return 2000;
}

status_t RuntimeDir(bool create, std::string* dir) {
    const char* env = getenv("ZOVK_BINDER_DIR");
    const char* xdg = getenv("XDG_RUNTIME_DIR");
    if (env != nullptr && *env != '\0') {
        *dir = env;
    } else if (xdg != nullptr && *xdg != '\0') {
        *dir = std::string(xdg) + "/zovk-binder";
    } else {
        *dir = "/tmp/zovk-binder-" + std::to_string(geteuid());
    }
    if (create && mkdir(dir->c_str(), 0700) == 0) {
        chmod(dir->c_str(), 0700);  // the umask may have narrowed it further; never widened
    }
    struct stat st {};
    if (lstat(dir->c_str(), &st) != 0) {
        if (errno == ENOENT && !create) {
            return NAME_NOT_FOUND;
        }
        HB_LOG(ERROR, "binder directory %s unusable: %s", dir->c_str(), strerror(errno));
        return NAME_NOT_FOUND;
    }
    if (!S_ISDIR(st.st_mode) || st.st_uid != geteuid() || (st.st_mode & 077) != 0) {
        HB_LOG(ERROR,
               "binder directory %s refused: must be a directory owned by uid %u with mode 0700 "
               "(is %s, uid %u, mode %04o)",
               dir->c_str(), unsigned(geteuid()), S_ISDIR(st.st_mode) ? "a directory" : "not a directory",
               unsigned(st.st_uid), unsigned(st.st_mode & 07777));
        return PERMISSION_DENIED;
    }
    return OK;
}

status_t ReadFull(int fd, void* buf, size_t size, const Deadline& deadline, size_t* got) {
    auto* bytes = static_cast<uint8_t*>(buf);
    *got = 0;
    while (*got < size) {
        const ssize_t n = recv(fd, bytes + *got, size - *got, 0);
        if (n > 0) {
            *got += size_t(n);
        } else if (n == 0) {
            return DEAD_OBJECT;
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            if (const status_t err = WaitFor(fd, POLLIN, deadline); err != OK) {
                return err;
            }
        } else if (errno != EINTR) {
            return DEAD_OBJECT;
        }
    }
    return OK;
}

status_t WriteFull(int fd, const void* buf, size_t size, const Deadline& deadline) {
    const auto* bytes = static_cast<const uint8_t*>(buf);
    size_t done = 0;
    while (done < size) {
        const ssize_t n = send(fd, bytes + done, size - done, MSG_NOSIGNAL);
        if (n >= 0) {
            done += size_t(n);
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            if (const status_t err = WaitFor(fd, POLLOUT, deadline); err != OK) {
                return err;
            }
        } else if (errno != EINTR) {
            return DEAD_OBJECT;
        }
    }
    return OK;
}

status_t SendFrame(int fd, FrameHeader header, const void* data, size_t size, const std::vector<uint32_t>& offsets,
                   const Deadline& deadline) {
    const size_t length = size + offsets.size() * 4;
    if (length > kMaxFramePayload) {
        HB_LOG(ERROR, "binder parcel of %zu bytes exceeds the %u-byte limit", length, kMaxFramePayload);
        return FAILED_TRANSACTION;
    }
    header.length = uint32_t(length);
    header.objects = uint32_t(offsets.size());
    // One buffer and one write: a stalled send never leaves half a header behind.
    std::vector<uint8_t> frame(kFrameHeaderSize + length);
    EncodeFrameHeader(header, frame.data());
    if (size != 0) {
        memcpy(frame.data() + kFrameHeaderSize, data, size);
    }
    for (size_t i = 0; i < offsets.size(); ++i) {
        PutU32(frame.data() + kFrameHeaderSize + size + 4 * i, offsets[i]);
    }
    return WriteFull(fd, frame.data(), frame.size(), deadline);
}

status_t RecvFrame(int fd, FrameHeader* header, std::vector<uint8_t>* payload, const Deadline& deadline,
                   const char** why) {
    uint8_t bytes[kFrameHeaderSize];
    size_t got = 0;
    status_t err = ReadFull(fd, bytes, sizeof(bytes), deadline, &got);
    if (err == DEAD_OBJECT && got != 0) {
        *why = "truncated frame header";
        return BAD_VALUE;
    }
    if (err != OK) {
        return err;
    }
    if ((*why = DecodeFrameHeader(bytes, header)) != nullptr) {
        return BAD_VALUE;
    }
    // The length was bounded by the decoder: this allocation is at most kMaxFramePayload.
    payload->resize(header->length);
    err = ReadFull(fd, payload->data(), payload->size(), deadline, &got);
    if (err == DEAD_OBJECT) {
        *why = "truncated frame";
        return BAD_VALUE;
    }
    return err;
}

bool PeerIsOurUser(int fd, pid_t* pid, uid_t* uid) {
    ucred cred{};
    socklen_t len = sizeof(cred);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) {
        HB_LOG(ERROR, "binder peer credentials unavailable: %s", strerror(errno));
        return false;
    }
    *pid = cred.pid;
    *uid = cred.uid;
    if (cred.uid != geteuid()) {
        HB_LOG(ERROR, "binder connection refused: peer pid %d runs as uid %u, not %u", int(cred.pid),
               unsigned(cred.uid), unsigned(geteuid()));
        return false;
    }
    return true;
}

int UnixSocket(const std::string& path, sockaddr_un* addr) {
    *addr = sockaddr_un{};
    addr->sun_family = AF_UNIX;
    if (path.size() >= sizeof(addr->sun_path)) {
        HB_LOG(ERROR, "binder socket path too long: %s", path.c_str());
        return -1;
    }
    memcpy(addr->sun_path, path.c_str(), path.size() + 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        HB_LOG(ERROR, "binder socket: %s", strerror(errno));
    }
    return fd;
}

int Dial(const std::string& path, const Deadline& deadline, status_t* err) {
    sockaddr_un addr;
    const int fd = UnixSocket(path, &addr);
    if (fd < 0) {
        *err = path.size() >= sizeof(addr.sun_path) ? BAD_VALUE : NO_MEMORY;
        return -1;
    }
    for (;;) {
        if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) == 0) {
            break;
        }
        // A full backlog means the owner is not accepting (stopped or swamped): retry, bounded.
        if (errno == EAGAIN && deadline.remainingMs() > 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(std::min(10, deadline.remainingMs())));
            continue;
        }
        if (errno == EINTR) {
            continue;
        }
        *err = errno == EAGAIN ? TIMED_OUT : errno == EACCES || errno == EPERM ? PERMISSION_DENIED : DEAD_OBJECT;
        close(fd);
        return -1;
    }
    pid_t pid = 0;
    uid_t uid = 0;
    if (!PeerIsOurUser(fd, &pid, &uid)) {
        close(fd);
        *err = PERMISSION_DENIED;
        return -1;
    }
    *err = OK;
    return fd;
}

}  // namespace hostbinder
}  // namespace android
