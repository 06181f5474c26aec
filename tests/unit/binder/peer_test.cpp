// What the transport does with peers that do not follow it: frames it refuses to decode, and
// garbage, oversized, truncated or stalled input and strangers at a live service, which must
// cost the service one connection and nothing else.
#include <errno.h>
#include <fcntl.h>
#include <sys/fsuid.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <binder/IServiceManager.h>
#include <gtest/gtest.h>

#include "binder_test_support.h"
#include "platform/host/binder/transport.h"

namespace zovk_test {
namespace {

using android::sp;
using android::String16;
using namespace android::hostbinder;
using Bytes = std::vector<uint8_t>;

Bytes Header(uint32_t kind, uint32_t length, uint32_t objects = 0, uint32_t magic = kFrameMagic) {
    FrameHeader header;
    header.kind = kind;
    header.length = length;
    header.objects = objects;
    Bytes bytes(kFrameHeaderSize);
    EncodeFrameHeader(header, bytes.data());
    bytes[0] = uint8_t(magic);
    bytes[1] = uint8_t(magic >> 8);
    bytes[2] = uint8_t(magic >> 16);
    bytes[3] = uint8_t(magic >> 24);
    return bytes;
}

const char* Decode(const Bytes& bytes) {
    FrameHeader header;
    return DecodeFrameHeader(bytes.data(), &header);
}

Bytes Hello(uint64_t node = 0, uint64_t incarnation = 0) {
    Bytes bytes = Header(kHello, kHelloSize);
    bytes.resize(kFrameHeaderSize + kHelloSize);
    PutU64(bytes.data() + kFrameHeaderSize, node);
    PutU64(bytes.data() + kFrameHeaderSize + 8, incarnation);
    return bytes;
}

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// --- frame headers -------------------------------------------------------------------------

TEST(FrameHeader, WellFormedHeadersDecode) {
    EXPECT_EQ(Decode(Header(kHello, kHelloSize)), nullptr);
    EXPECT_EQ(Decode(Header(kWelcome, kHelloSize)), nullptr);
    EXPECT_EQ(Decode(Header(kCall, 0)), nullptr);
    EXPECT_EQ(Decode(Header(kReply, kMaxFramePayload)), nullptr);
    EXPECT_EQ(Decode(Header(kCall, 32, 1)), nullptr) << "one binder and its offset";

    FrameHeader header;
    header.kind = kReply;
    header.code = uint32_t(android::DEAD_OBJECT);
    header.flags = 0x11;
    header.length = 64;
    header.objects = 2;
    Bytes bytes(kFrameHeaderSize);
    EncodeFrameHeader(header, bytes.data());
    FrameHeader decoded;
    ASSERT_EQ(DecodeFrameHeader(bytes.data(), &decoded), nullptr);
    EXPECT_EQ(decoded.kind, header.kind);
    EXPECT_EQ(int32_t(decoded.code), android::DEAD_OBJECT);
    EXPECT_EQ(decoded.flags, header.flags);
    EXPECT_EQ(decoded.dataSize(), 56u);
}

TEST(FrameHeader, MalformedHeadersAreRefused) {
    EXPECT_STREQ(Decode(Header(kCall, 0, 0, 0x12345678)), "bad frame magic");
    EXPECT_STREQ(Decode(Header(0, 0)), "unknown frame kind");
    EXPECT_STREQ(Decode(Header(5, 0)), "unknown frame kind");
    EXPECT_STREQ(Decode(Header(kHello, kHelloSize + 4)), "bad greeting");
    EXPECT_STREQ(Decode(Header(kWelcome, kHelloSize, 1)), "bad greeting");
    EXPECT_STREQ(Decode(Header(kCall, kMaxFramePayload + 1)), "frame too large");
    EXPECT_STREQ(Decode(Header(kReply, 0xffffffff)), "frame too large");
    EXPECT_STREQ(Decode(Header(kCall, 31, 1)), "too many objects");
    EXPECT_STREQ(Decode(Header(kCall, 100, 0xffffffff)), "too many objects");
}

// --- a live service under abuse ------------------------------------------------------------

class HostilePeers : public testing::Test {
protected:
    void SetUp() override {
        setenv("ZOVK_BINDER_TIMEOUT_MS", "300", 1);  // the child's reads give up this fast
        log_ = dir_.root() + "/service.log";
        child_ = std::make_unique<ChildService>("svc", [] { return sp<android::IBinder>(new TestService()); },
                                                true, log_);
        ASSERT_TRUE(child_->registered());
    }

    // A raw connection to the service; -1 if it cannot be made.
    int Connect() const {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        snprintf(addr.sun_path, sizeof(addr.sun_path), "%s/svc", dir_.path().c_str());
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0) {
            close(fd);
            return -1;
        }
        return fd;
    }

    // Sends the bytes and reports whether the service then hangs up (what it says before is
    // read and dropped; a reset counts: it hung up on bytes it had not read). Gives up after
    // ten seconds.
    static bool HangsUpAfter(int fd, const Bytes& bytes) {
        if (!bytes.empty() && send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) != ssize_t(bytes.size())) {
            return false;
        }
        timeval bound{10, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof(bound));
        uint8_t buf[256];
        for (;;) {
            const ssize_t n = recv(fd, buf, sizeof(buf), 0);
            if (n <= 0) {
                const bool hungUp = n == 0 || errno == ECONNRESET;
                close(fd);
                return hungUp;
            }
        }
    }

    std::string Log() const {
        std::ifstream file(log_);
        std::stringstream text;
        text << file.rdbuf();
        return text.str();
    }

    // The service still serves proper callers.
    void ExpectServing() const {
        const sp<android::IBinder> service = android::defaultServiceManager()->checkService(String16("svc"));
        ASSERT_NE(service, nullptr);
        android::Parcel data;
        android::Parcel reply;
        EXPECT_EQ(service->transact(TestService::WHO, data, &reply), android::OK);
        EXPECT_EQ(reply.readInt32(), child_->pid());
    }

    BinderDir dir_;
    std::string log_;
    std::unique_ptr<ChildService> child_;
};

TEST_F(HostilePeers, GarbageIsLoggedAndDropped) {
    const std::string text = "GET / HTTP/1.0\r\nHost: binder\r\n\r\n";
    EXPECT_TRUE(HangsUpAfter(Connect(), Bytes(text.begin(), text.end())));
    EXPECT_TRUE(HangsUpAfter(Connect(), Hello() + Bytes(64, 0xff)));
    EXPECT_NE(Log().find("libZoVK"), std::string::npos);
    EXPECT_NE(Log().find("bad frame magic"), std::string::npos) << Log();
    ExpectServing();
}

TEST_F(HostilePeers, HugeOrOverfullFramesAreRefusedUnread) {
    EXPECT_TRUE(HangsUpAfter(Connect(), Hello() + Header(kCall, 0xfffffff0)));
    EXPECT_TRUE(HangsUpAfter(Connect(), Hello() + Header(kCall, 64, 1000)));
    EXPECT_NE(Log().find("frame too large"), std::string::npos) << Log();
    EXPECT_NE(Log().find("too many objects"), std::string::npos) << Log();
    ExpectServing();
}

TEST_F(HostilePeers, BadObjectsInACallAreRefused) {
    // 28 bytes of data, one offset.
    const Bytes zeros(28, 0);
    const auto call = [&](uint32_t offset, const Bytes& data) {
        Bytes frame = Hello() + Header(kCall, uint32_t(data.size() + 4), 1) + data;
        frame.resize(frame.size() + 4);
        PutU32(frame.data() + frame.size() - 4, offset);
        return frame;
    };
    EXPECT_TRUE(HangsUpAfter(Connect(), call(2, zeros)));  // misaligned
    EXPECT_TRUE(HangsUpAfter(Connect(), call(8, Bytes(32, 0))));  // runs past the data
    Bytes unknownType(28, 0);
    unknownType[0] = 0x42;
    EXPECT_TRUE(HangsUpAfter(Connect(), call(0, unknownType)));
    EXPECT_NE(Log().find("bad object offset"), std::string::npos) << Log();
    EXPECT_NE(Log().find("bad object in a call"), std::string::npos) << Log();
    ExpectServing();
}

TEST_F(HostilePeers, TruncatedAndStalledFramesAreDropped) {
    const Bytes hello = Hello();
    const int truncated = Connect();
    ASSERT_GE(truncated, 0);
    send(truncated, hello.data(), 10, MSG_NOSIGNAL);
    close(truncated);
    // Half a header, then silence: the service waits its timeout, no longer.
    EXPECT_TRUE(HangsUpAfter(Connect(), Bytes(hello.begin(), hello.begin() + 10)));
    EXPECT_TRUE(Eventually([&] { return Log().find("truncated frame header") != std::string::npos; })) << Log();
    EXPECT_NE(Log().find("stalled"), std::string::npos) << Log();
    ExpectServing();
}

TEST_F(HostilePeers, CallersMustGreetTheRightObject) {
    EXPECT_TRUE(HangsUpAfter(Connect(), Header(kCall, 0)));
    EXPECT_NE(Log().find("did not greet"), std::string::npos) << Log();
    // Another node, or another incarnation of this one: as if this object had died.
    EXPECT_TRUE(HangsUpAfter(Connect(), Hello(12345, 0)));
    EXPECT_TRUE(HangsUpAfter(Connect(), Hello(0, 12345)));
    // A greeting alone is answered with a welcome naming the object.
    const int fd = Connect();
    const Bytes hello = Hello();
    ASSERT_EQ(send(fd, hello.data(), hello.size(), MSG_NOSIGNAL), ssize_t(hello.size()));
    uint8_t welcome[kFrameHeaderSize + kHelloSize];
    ASSERT_EQ(recv(fd, welcome, sizeof(welcome), MSG_WAITALL), ssize_t(sizeof(welcome)));
    FrameHeader header;
    EXPECT_EQ(DecodeFrameHeader(welcome, &header), nullptr);
    EXPECT_EQ(header.kind, uint32_t(kWelcome));
    EXPECT_EQ(GetU64(welcome + kFrameHeaderSize) >> 32, uint64_t(child_->pid()));
    close(fd);
    ExpectServing();
}

// --- strangers -----------------------------------------------------------------------------

TEST(Strangers, ConnectionsFromAnotherUserAreRefused) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "acting as another user needs root";
    }
    BinderDir dir;
    const sp<android::IBinder> service = new TestService();
    ASSERT_EQ(android::defaultServiceManager()->addService(String16("svc"), service), android::OK);
    const std::string path = dir.path() + "/svc";
    const Bytes hello = Hello();

    testing::internal::CaptureStderr();
    const pid_t child = fork();
    if (child == 0) {
        // The credentials a peer shows are its effective ids; the file-system uid stays root
        // so that the private directory and socket can still be reached.
        if (setegid(65534) != 0 || seteuid(65534) != 0) {
            _exit(2);
        }
        setfsuid(0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path.c_str());
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0) {
            _exit(3);
        }
        send(fd, hello.data(), hello.size(), MSG_NOSIGNAL);
        timeval bound{10, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof(bound));
        uint8_t buf[64];
        const ssize_t n = recv(fd, buf, sizeof(buf), 0);
        _exit(n == 0 || (n < 0 && errno == ECONNRESET) ? 0 : 4);  // hung up on, without a welcome
    }
    int status = -1;
    waitpid(child, &status, 0);
    const std::string log = testing::internal::GetCapturedStderr();
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_NE(log.find("runs as uid 65534"), std::string::npos) << log;
}

}  // namespace
}  // namespace zovk_test
