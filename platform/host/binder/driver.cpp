#include "driver.h"

#include <dirent.h>
#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>

#include <binder/IPCThreadState.h>
#include <binder/ProcessState.h>
#include <utils/String8.h>

namespace android {

// Sets the caller identity that IPCThreadState reports while a worker serves a call.
class IPCThreadStateAccess {
public:
    IPCThreadStateAccess(pid_t pid, uid_t uid) : mState(IPCThreadState::self()) {
        mState->mCallingPid = pid;
        mState->mCallingUid = uid;
    }
    ~IPCThreadStateAccess() { mState->mCallingPid = -1; }

private:
    IPCThreadState* mState;
};

namespace hostbinder {

namespace {

constexpr size_t kDefaultMaxThreads = 4;
constexpr size_t kMinThreads = 2;  // one may wait for a peer that is calling us back
constexpr size_t kMaxConns = 1024;
constexpr int kBacklog = 16;
constexpr auto kWorkerIdle = std::chrono::seconds(10);
constexpr auto kShutdownGrace = std::chrono::seconds(2);

std::atomic<Driver*> gDriver{nullptr};
std::mutex gDriverLock;
Driver* gAbandoned = nullptr;  // the chain of drivers left behind by fork, for leak checkers

uint64_t NewIncarnation() {
    uint64_t value = 0;
    while (value == 0) {
        if (getrandom(&value, sizeof(value), 0) != ssize_t(sizeof(value))) {
            value = uint64_t(std::chrono::steady_clock::now().time_since_epoch().count()) ^ uint64_t(getpid()) << 40;
        }
    }
    return value;
}

std::string NodePath(const std::string& dir, uint64_t node) {
    return dir + "/.node-" + std::to_string(node >> 32) + "-" + std::to_string(uint32_t(node));
}

void NameThread(const char* suffix) {
    char name[16];
    snprintf(name, sizeof(name), "binder:%d_%s", int(getpid()), suffix);
    pthread_setname_np(pthread_self(), name);
}

// Sockets of processes that died without cleaning up (SIGKILL, crash).
void SweepStale(const std::string& dir) {
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) {
        return;
    }
    while (const dirent* entry = readdir(d)) {
        unsigned pid = 0;
        unsigned serial = 0;
        char tail = 0;
        if ((sscanf(entry->d_name, ".node-%u-%u%c", &pid, &serial, &tail) == 2 ||
             sscanf(entry->d_name, ".link-%u-%u%c", &pid, &serial, &tail) == 2) &&
            pid_t(pid) != getpid() && kill(pid_t(pid), 0) != 0 && errno == ESRCH) {
            unlinkat(dirfd(d), entry->d_name, 0);
        }
    }
    closedir(d);
}

int Listen(const std::string& path, ino_t* inode) {
    sockaddr_un addr;
    const int fd = UnixSocket(path, &addr);
    if (fd < 0) {
        return -1;
    }
    unlink(path.c_str());
    struct stat st {};
    // The directory is 0700, so nobody else can reach the socket before the chmod.
    if (bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0 || chmod(path.c_str(), 0600) != 0 ||
        listen(fd, kBacklog) != 0 || stat(path.c_str(), &st) != 0) {
        HB_LOG(ERROR, "binder socket %s: %s", path.c_str(), strerror(errno));
        close(fd);
        unlink(path.c_str());
        return -1;
    }
    *inode = st.st_ino;
    return fd;
}

bool ValidServiceName(const std::string& name) {
    // A leading dot is kept for the driver's own files.
    return !name.empty() && name[0] != '.' && name.find('/') == std::string::npos && name.size() <= 80;
}

status_t Greet(int fd, uint64_t node, uint64_t incarnation, const Deadline& deadline, uint64_t* outNode,
               uint64_t* outIncarnation) {
    uint8_t hello[kHelloSize];
    PutU64(hello, node);
    PutU64(hello + 8, incarnation);
    status_t err = SendFrame(fd, FrameHeader{kHello}, hello, sizeof(hello), {}, deadline);
    FrameHeader header;
    std::vector<uint8_t> payload;
    const char* why = nullptr;
    if (err == OK) {
        err = RecvFrame(fd, &header, &payload, deadline, &why);
    }
    if (err == OK && header.kind != kWelcome) {
        why = "expected a welcome";
        err = BAD_VALUE;
    }
    if (err == BAD_VALUE) {
        HB_LOG(ERROR, "binder greeting failed: %s", why);
        return DEAD_OBJECT;
    }
    if (err == OK) {
        *outNode = GetU64(payload.data());
        *outIncarnation = GetU64(payload.data() + 8);
    }
    return err;
}

}  // namespace

Driver::Driver() : mPid(getpid()), mIncarnation(NewIncarnation()), mMaxThreads(kDefaultMaxThreads) {}

Driver& Driver::get() {
    if (Driver* driver = gDriver.load(std::memory_order_acquire)) {
        return *driver;
    }
    std::lock_guard<std::mutex> guard(gDriverLock);
    if (gDriver.load(std::memory_order_relaxed) == nullptr) {
        static const bool registered = [] {
            pthread_atfork(&Driver::BeforeFork, &Driver::AfterForkParent, &Driver::AfterForkChild);
            return true;
        }();
        (void)registered;
        gDriver.store(new Driver(), std::memory_order_release);
        // Destroyed at exit after everything constructed before it, and before leak checks.
        static struct Reaper {
            ~Reaper() { Driver::shutdown(); }
        } reaper;
    }
    return *gDriver.load(std::memory_order_relaxed);
}

void Driver::BeforeFork() {
    gDriverLock.lock();
    if (Driver* driver = gDriver.load(std::memory_order_relaxed)) {
        driver->mLock.lock();
    }
}

void Driver::AfterForkParent() {
    if (Driver* driver = gDriver.load(std::memory_order_relaxed)) {
        driver->mLock.unlock();
    }
    gDriverLock.unlock();
}

// The child has none of the parent's threads, and must neither serve nor remove the parent's
// sockets: it starts over with a driver of its own. Proxies it inherited keep working.
void Driver::AfterForkChild() {
    if (Driver* driver = gDriver.load(std::memory_order_relaxed)) {
        driver->mLock.unlock();
        driver->mPrevious = gAbandoned;
        gAbandoned = driver;
        gDriver.store(nullptr, std::memory_order_relaxed);
    }
    gDriverLock.unlock();
}

void Driver::shutdown() {
    if (Driver* driver = gDriver.load(std::memory_order_acquire)) {
        driver->shutdownThis();
    }
}

void Driver::shutdownThis() {
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (mStopping) {
            return;
        }
        mStopping = true;
        wakeLocked();
        mWork.notify_all();
    }
    if (mPoller.joinable()) {
        mPoller.join();
    }
    std::vector<sp<BBinder>> pins;  // released after the lock: their destructors come back here
    std::map<uint64_t, Conn> conns;
    std::deque<std::function<void()>> jobs;
    std::unique_lock<std::mutex> lock(mLock);
    // A worker stuck in a handler must not hold up exit for ever.
    mWorkersGone.wait_for(lock, kShutdownGrace, [this] { return mWorkers == 0; });
    for (auto& [id, node] : mNodes) {
        removeFilesLocked(node);
        close(node.listenFd);
        pins.push_back(std::move(node.pin));
    }
    mNodes.clear();
    for (auto it = mConns.begin(); it != mConns.end();) {
        if (it->second.busy) {
            ++it;  // its worker still uses the fd
            continue;
        }
        close(it->second.fd);
        conns.insert(mConns.extract(it++));
    }
    for (const int fd : mDoomed) {
        close(fd);
    }
    mDoomed.clear();
    mWatches.clear();
    jobs.swap(mJobs);
    if (mWakeFd >= 0) {
        close(mWakeFd);
        mWakeFd = -1;
    }
    lock.unlock();
}

void Driver::wakeLocked() {
    if (mWakeFd >= 0) {
        const uint64_t one = 1;
        (void)!write(mWakeFd, &one, sizeof(one));
    }
}

void Driver::retireLocked(int fd) {
    if (mThreadsStarted && !mStopping) {
        mDoomed.push_back(fd);  // the poll thread may be polling it right now
        wakeLocked();
    } else {
        close(fd);
    }
}

void Driver::startThreads() {
    std::lock_guard<std::mutex> guard(mLock);
    startThreadsLocked();
}

void Driver::startThreadsLocked() {
    if (mThreadsStarted || mStopping) {
        return;
    }
    mWakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (mWakeFd < 0) {
        HB_LOG(ERROR, "binder threads cannot start: %s", strerror(errno));
        return;
    }
    try {
        mPoller = std::thread(&Driver::pollLoop, this);
    } catch (const std::system_error& e) {
        HB_LOG(ERROR, "binder threads cannot start: %s", e.what());
        close(mWakeFd);
        mWakeFd = -1;
        return;
    }
    mThreadsStarted = true;
}

void Driver::setMaxThreads(size_t count) {
    std::lock_guard<std::mutex> guard(mLock);
    mMaxThreads = std::max(count, kMinThreads);
}

void Driver::enqueueLocked(std::function<void()> job) {
    mJobs.push_back(std::move(job));
    if (mJobs.size() > mIdle && mWorkers < mMaxThreads) {
        try {
            std::thread(&Driver::workerLoop, this, false).detach();
            ++mWorkers;
        } catch (const std::system_error& e) {
            HB_LOG(ERROR, "binder worker cannot start: %s", e.what());
        }
    }
    mWork.notify_one();
}

void Driver::joinPool() {
    startThreads();
    workerLoop(true);
}

void Driver::workerLoop(bool joined) {
    static std::atomic<unsigned> sNext{1};
    NameThread(std::to_string(sNext.fetch_add(1)).c_str());
    std::unique_lock<std::mutex> lock(mLock);
    while (!mStopping) {
        if (mJobs.empty()) {
            ++mIdle;
            bool expired = false;
            if (joined) {
                mWork.wait(lock);
            } else {
                expired = mWork.wait_for(lock, kWorkerIdle) == std::cv_status::timeout;
            }
            --mIdle;
            if (expired && mJobs.empty()) {
                break;  // unused threads go away
            }
            continue;
        }
        std::function<void()> job = std::move(mJobs.front());
        mJobs.pop_front();
        lock.unlock();
        job();
        job = nullptr;  // its captures may hold the last reference to something
        lock.lock();
    }
    if (!joined) {
        --mWorkers;
        mWorkersGone.notify_all();
    }
}

void Driver::pollLoop() {
    NameThread("L");
    std::vector<pollfd>& fds = mPollFds;
    std::vector<PollItem>& items = mPollItems;
    for (;;) {
        fds.clear();
        items.clear();
        {
            std::lock_guard<std::mutex> guard(mLock);
            for (const int fd : mDoomed) {
                close(fd);
            }
            mDoomed.clear();
            if (mStopping) {
                return;
            }
            fds.push_back({mWakeFd, POLLIN, 0});
            items.emplace_back(kWakeItem, 0);
            for (const auto& [id, node] : mNodes) {
                fds.push_back({node.listenFd, POLLIN, 0});
                items.emplace_back(kListenItem, id);
            }
            for (const auto& [id, conn] : mConns) {
                if (!conn.busy) {
                    fds.push_back({conn.fd, POLLIN, 0});
                    items.emplace_back(kConnItem, id);
                }
            }
            for (const auto& [id, watch] : mWatches) {
                fds.push_back({watch.fd, POLLIN, 0});
                items.emplace_back(kWatchItem, id);
            }
        }
        if (poll(fds.data(), fds.size(), -1) < 0) {
            if (errno != EINTR) {
                HB_LOG(ERROR, "binder poll: %s", strerror(errno));
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
            }
            continue;
        }
        std::lock_guard<std::mutex> guard(mLock);
        for (size_t i = 0; i < fds.size(); ++i) {
            if (fds[i].revents == 0) {
                continue;
            }
            // Entries may have gone, and their fd numbers been reused, while we polled:
            // everything is looked up again by id.
            const uint64_t id = items[i].second;
            switch (items[i].first) {
                case kWakeItem: {
                    uint64_t count = 0;
                    (void)!read(mWakeFd, &count, sizeof(count));
                    break;
                }
                case kListenItem:
                    if (auto it = mNodes.find(id); it != mNodes.end()) {
                        acceptLocked(id, it->second.listenFd);
                    }
                    break;
                case kConnItem:
                    if (auto it = mConns.find(id); it != mConns.end() && !it->second.busy) {
                        it->second.busy = true;
                        enqueueLocked([this, id] { serve(id); });
                    }
                    break;
                case kWatchItem:
                    // The owner never writes on this connection: readable means it has gone.
                    if (auto it = mWatches.find(id); it != mWatches.end()) {
                        wp<BpBinder> proxy = it->second.proxy;
                        mWatches.erase(it);
                        enqueueLocked([proxy] {
                            if (const sp<BpBinder> strong = proxy.promote()) {
                                strong->sendObituary();
                            }
                        });
                    }
                    break;
            }
        }
    }
}

void Driver::acceptLocked(uint64_t node, int listenFd) {
    for (;;) {
        const int fd = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED) {
                continue;
            }
            if (errno != EAGAIN && errno != EWOULDBLOCK) {
                HB_LOG(ERROR, "binder accept: %s", strerror(errno));
            }
            return;
        }
        Conn conn;
        conn.fd = fd;
        conn.node = node;
        if (!PeerIsOurUser(fd, &conn.pid, &conn.uid)) {
            close(fd);
            continue;
        }
        if (mConns.size() >= kMaxConns) {
            HB_LOG(ERROR, "binder connection from pid %d refused: %zu connections open", int(conn.pid), mConns.size());
            close(fd);
            continue;
        }
        mConns.emplace(mNextId++, std::move(conn));
    }
}

void Driver::serve(uint64_t connId) {
    Conn conn;
    std::vector<sp<IBinder>> consumed;  // the peer has read our last reply: its objects may go
    {
        std::lock_guard<std::mutex> guard(mLock);
        auto it = mConns.find(connId);
        if (it == mConns.end()) {
            return;
        }
        consumed.swap(it->second.held);
        conn.fd = it->second.fd;
        conn.node = it->second.node;
        conn.pid = it->second.pid;
        conn.uid = it->second.uid;
        conn.greeted = it->second.greeted;
    }
    consumed.clear();
    FrameHeader header;
    std::vector<uint8_t> payload;
    const char* why = nullptr;
    const status_t err = RecvFrame(conn.fd, &header, &payload, Deadline(CallTimeoutMs()), &why);
    bool keep = false;
    if (err == OK && !conn.greeted) {
        keep = greet(connId, conn, header, payload);
    } else if (err == OK && header.kind == kCall) {
        keep = dispatch(connId, conn, header, payload);
    } else if (err == OK) {
        HB_LOG(ERROR, "binder: unexpected frame kind %u from pid %d, connection dropped", header.kind, int(conn.pid));
    } else if (err == BAD_VALUE) {
        HB_LOG(ERROR, "binder: %s from pid %d, connection dropped", why, int(conn.pid));
    } else if (err == TIMED_OUT) {
        HB_LOG(ERROR, "binder: pid %d stalled in the middle of a frame, connection dropped", int(conn.pid));
    }
    if (!keep) {
        dropConn(connId);
        return;
    }
    std::lock_guard<std::mutex> guard(mLock);
    if (auto it = mConns.find(connId); it != mConns.end()) {
        it->second.busy = false;
        wakeLocked();
    }
}

bool Driver::greet(uint64_t connId, const Conn& conn, const FrameHeader& header,
                   const std::vector<uint8_t>& payload) {
    if (header.kind != kHello) {
        HB_LOG(ERROR, "binder: pid %d did not greet, connection dropped", int(conn.pid));
        return false;
    }
    const uint64_t node = GetU64(payload.data());
    const uint64_t incarnation = GetU64(payload.data() + 8);
    sp<BBinder> object;  // declared before the guard: the last reference must drop unlocked
    {
        std::lock_guard<std::mutex> guard(mLock);
        auto n = mNodes.find(conn.node);
        auto c = mConns.find(connId);
        if (n == mNodes.end() || c == mConns.end()) {
            return false;
        }
        // A caller holding an old node id (its owner died and the pid came back) must not
        // reach a stranger: that caller sees the object as dead.
        if ((node != 0 && node != conn.node) || (incarnation != 0 && incarnation != mIncarnation)) {
            HB_LOG(WARN, "binder: pid %d asked for an object that is not here", int(conn.pid));
            return false;
        }
        object = n->second.object.promote();
        if (object == nullptr) {
            return false;
        }
        if (n->second.pin == nullptr) {
            n->second.pin = object;
        }
        ++n->second.refs;
        c->second.greeted = true;
    }
    uint8_t welcome[kHelloSize];
    PutU64(welcome, conn.node);
    PutU64(welcome + 8, mIncarnation);
    return SendFrame(conn.fd, FrameHeader{kWelcome}, welcome, sizeof(welcome), {}, Deadline(CallTimeoutMs())) == OK;
}

bool Driver::dispatch(uint64_t connId, const Conn& conn, const FrameHeader& header,
                      const std::vector<uint8_t>& payload) {
    sp<BBinder> target;
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (auto it = mNodes.find(conn.node); it != mNodes.end()) {
            target = it->second.object.promote();
        }
    }
    const bool oneway = (header.flags & IBinder::FLAG_ONEWAY) != 0;
    Parcel data;
    Parcel reply;
    const char* why = nullptr;
    if (ParcelAccess::adopt(&data, payload, header, &why) != OK) {
        HB_LOG(ERROR, "binder: %s in a call from pid %d, connection dropped", why, int(conn.pid));
        return false;
    }
    const Deadline deadline(CallTimeoutMs());
    if (oneway && (header.flags & kFrameAckObjects) != 0 &&
        SendFrame(conn.fd, FrameHeader{kReply}, nullptr, 0, {}, deadline) != OK) {
        return false;
    }
    status_t result = DEAD_OBJECT;
    if (target != nullptr) {
        IPCThreadStateAccess caller(conn.pid, conn.uid);
        result = target->transact(header.code, data, &reply, header.flags & ~kFrameAckObjects);
    }
    if (oneway) {
        return target != nullptr;
    }
    if (reply.dataSize() + ParcelAccess::offsets(reply).size() * 4 > kMaxFramePayload) {
        HB_LOG(ERROR, "binder reply of %zu bytes to pid %d is too large", reply.dataSize(), int(conn.pid));
        reply.freeData();
        result = FAILED_TRANSACTION;
    }
    FrameHeader out{kReply, uint32_t(result)};
    if (SendFrame(conn.fd, out, reply.data(), reply.dataSize(), ParcelAccess::offsets(reply),
                  Deadline(CallTimeoutMs())) != OK) {
        return false;
    }
    if (!ParcelAccess::objects(reply).empty()) {
        // Keep them until the caller sends again: by then it holds its own references.
        std::vector<sp<IBinder>> objects = ParcelAccess::objects(reply);
        std::lock_guard<std::mutex> guard(mLock);
        if (auto it = mConns.find(connId); it != mConns.end()) {
            it->second.held.swap(objects);
        }
    }
    return target != nullptr;
}

void Driver::dropConn(uint64_t connId) {
    sp<BBinder> unpinned;
    std::vector<sp<IBinder>> held;
    int fd = -1;
    {
        std::lock_guard<std::mutex> guard(mLock);
        auto it = mConns.find(connId);
        if (it == mConns.end()) {
            return;
        }
        fd = it->second.fd;
        held.swap(it->second.held);
        if (it->second.greeted) {
            auto node = mNodes.find(it->second.node);
            if (node != mNodes.end() && --node->second.refs == 0 && !node->second.service) {
                unpinned = std::move(node->second.pin);
            }
        }
        mConns.erase(it);
    }
    close(fd);  // busy: the poll thread is not watching it
}

status_t Driver::publish(BBinder* object, uint64_t* node) {
    std::lock_guard<std::mutex> guard(mLock);
    if (mStopping) {
        return INVALID_OPERATION;
    }
    const uint64_t known = object->mNode.load();
    if (known != 0 && mNodes.count(known) != 0) {
        *node = known;
        return OK;
    }
    std::string dir;
    if (const status_t err = RuntimeDir(true, &dir); err != OK) {
        return err;
    }
    if (dir != mSweptDir) {
        SweepStale(dir);
        mSweptDir = dir;
    }
    const uint64_t id = uint64_t(uint32_t(mPid)) << 32 | mNextSerial++;
    Node entry;
    entry.path = NodePath(dir, id);
    entry.listenFd = Listen(entry.path, &entry.inode);
    if (entry.listenFd < 0) {
        return UNKNOWN_ERROR;
    }
    entry.object = object;
    mNodes.emplace(id, std::move(entry));
    object->mNode.store(id);
    startThreadsLocked();
    wakeLocked();
    *node = id;
    return OK;
}

void Driver::removeFilesLocked(const Node& node) {
    for (const std::string& name : node.names) {
        struct stat st {};
        // Another process may have taken the name over since.
        if (stat(name.c_str(), &st) == 0 && st.st_ino == node.inode) {
            unlink(name.c_str());
        }
    }
    unlink(node.path.c_str());
}

void Driver::unpublish(uint64_t node) {
    std::lock_guard<std::mutex> guard(mLock);
    auto it = mNodes.find(node);
    if (it == mNodes.end()) {
        return;
    }
    removeFilesLocked(it->second);
    retireLocked(it->second.listenFd);
    for (auto c = mConns.begin(); c != mConns.end();) {
        if (c->second.node == node && !c->second.busy) {
            retireLocked(c->second.fd);
            c = mConns.erase(c);
        } else {
            ++c;  // a busy one is dropped by its worker, which will not find the node
        }
    }
    mNodes.erase(it);
}

status_t Driver::addService(const String16& name16, const sp<IBinder>& service) {
    const std::string name(String8(name16).c_str());
    if (!ValidServiceName(name)) {
        HB_LOG(ERROR, "binder service name '%s' refused", name.c_str());
        return BAD_VALUE;
    }
    BBinder* local = service != nullptr ? service->localBinder() : nullptr;
    if (local == nullptr) {
        HB_LOG(ERROR, "binder service %s: only local objects can be registered here", name.c_str());
        return INVALID_OPERATION;
    }
    uint64_t node = 0;
    if (const status_t err = publish(local, &node); err != OK) {
        return err;
    }
    std::lock_guard<std::mutex> guard(mLock);
    auto it = mNodes.find(node);
    if (it == mNodes.end()) {
        return DEAD_OBJECT;
    }
    const std::string& socket = it->second.path;
    const std::string dir = socket.substr(0, socket.rfind('/'));
    const std::string target = dir + "/" + name;
    const std::string temp = dir + "/.link-" + std::to_string(mPid) + "-" + std::to_string(mNextSerial++);
    // A hard link renamed into place: the name changes hands atomically and shares the
    // socket's inode, mode and lifetime.
    const bool linked = link(socket.c_str(), temp.c_str()) == 0 && rename(temp.c_str(), target.c_str()) == 0;
    const int error = errno;
    unlink(temp.c_str());
    if (!linked) {
        HB_LOG(ERROR, "binder service %s cannot be registered: %s", target.c_str(), strerror(error));
        return -error;
    }
    it->second.names.push_back(target);
    it->second.service = true;
    it->second.pin = local;
    return OK;
}

int Driver::connect(uint64_t node, uint64_t incarnation, const Deadline& deadline, status_t* err) {
    std::string dir;
    if ((*err = RuntimeDir(false, &dir)) != OK) {
        *err = DEAD_OBJECT;
        return -1;
    }
    const int fd = Dial(NodePath(dir, node), deadline, err);
    if (fd < 0) {
        return -1;
    }
    uint64_t gotNode = 0;
    uint64_t gotIncarnation = 0;
    *err = Greet(fd, node, incarnation, deadline, &gotNode, &gotIncarnation);
    if (*err == OK && (gotNode != node || gotIncarnation != incarnation)) {
        *err = DEAD_OBJECT;
    }
    if (*err != OK) {
        close(fd);
        return -1;
    }
    return fd;
}

sp<IBinder> Driver::adoptProxy(uint64_t node, uint64_t incarnation, int fd) {
    sp<BpBinder> existing;  // released after the lock, like any reference we may drop
    sp<BpBinder> created;
    {
        std::lock_guard<std::mutex> guard(mLock);
        auto it = mProxies.find({node, incarnation});
        if (it != mProxies.end()) {
            existing = it->second.second.promote();
        }
        if (existing == nullptr) {
            created = new BpBinder(node, incarnation, fd);
            mProxies[{node, incarnation}] = {created.get(), created};
            return created;
        }
    }
    if (fd >= 0) {
        close(fd);  // someone else connected first
    }
    return existing;
}

sp<IBinder> Driver::objectFor(uint64_t node, uint64_t incarnation, status_t* err) {
    *err = OK;
    if (incarnation == mIncarnation) {
        sp<BBinder> local;
        {
            std::lock_guard<std::mutex> guard(mLock);
            if (auto it = mNodes.find(node); it != mNodes.end()) {
                local = it->second.object.promote();
            }
        }
        if (local == nullptr) {
            *err = DEAD_OBJECT;
        }
        return local;
    }
    {
        sp<BpBinder> existing;
        {
            std::lock_guard<std::mutex> guard(mLock);
            if (auto it = mProxies.find({node, incarnation}); it != mProxies.end()) {
                existing = it->second.second.promote();
            }
        }
        if (existing != nullptr) {
            return existing;
        }
    }
    // Connect outside the lock: the owner may be slow to answer. A proxy that could not
    // connect is dead from the start, as a handle to a dead node is on Android.
    status_t connectErr = OK;
    const int fd = connect(node, incarnation, Deadline(CallTimeoutMs()), &connectErr);
    return adoptProxy(node, incarnation, fd);
}

sp<IBinder> Driver::lookup(const String16& name16) {
    const std::string name(String8(name16).c_str());
    std::string dir;
    if (!ValidServiceName(name) || RuntimeDir(false, &dir) != OK) {
        return nullptr;
    }
    const Deadline deadline(CallTimeoutMs());
    status_t err = OK;
    const int fd = Dial(dir + "/" + name, deadline, &err);
    if (fd < 0) {
        return nullptr;
    }
    uint64_t node = 0;
    uint64_t incarnation = 0;
    err = Greet(fd, 0, 0, deadline, &node, &incarnation);
    if (err != OK) {
        if (err == TIMED_OUT) {
            HB_LOG(WARN, "binder service %s does not answer", name.c_str());
        }
        close(fd);
        return nullptr;
    }
    if (incarnation == mIncarnation) {
        close(fd);
        return objectFor(node, incarnation, &err);
    }
    return adoptProxy(node, incarnation, fd);
}

uint64_t Driver::watch(const wp<BpBinder>& proxy, int fd) {
    std::lock_guard<std::mutex> guard(mLock);
    startThreadsLocked();
    if (!mThreadsStarted || mStopping) {
        return 0;
    }
    const uint64_t id = mNextId++;
    mWatches.emplace(id, Watch{proxy, fd});
    wakeLocked();
    return id;
}

void Driver::unwatch(uint64_t id) {
    std::lock_guard<std::mutex> guard(mLock);
    mWatches.erase(id);
}

void Driver::forget(BpBinder* proxy) {
    std::lock_guard<std::mutex> guard(mLock);
    auto it = mProxies.find({proxy->nodeId(), proxy->incarnation()});
    if (it != mProxies.end() && it->second.first == proxy) {
        mProxies.erase(it);
    }
}

}  // namespace hostbinder

sp<ProcessState> ProcessState::self() {
    static const sp<ProcessState> sInstance(new ProcessState());
    return sInstance;
}

void ProcessState::startThreadPool() {
    hostbinder::Driver::get().startThreads();
}

status_t ProcessState::setThreadPoolMaxThreadCount(size_t maxThreads) {
    hostbinder::Driver::get().setMaxThreads(maxThreads);
    return OK;
}

IPCThreadState* IPCThreadState::self() {
    thread_local IPCThreadState sState;
    return &sState;
}

pid_t IPCThreadState::getCallingPid() const {
    return mCallingPid >= 0 ? mCallingPid : getpid();
}

uid_t IPCThreadState::getCallingUid() const {
    return mCallingPid >= 0 ? mCallingUid : getuid();
}

void IPCThreadState::joinThreadPool(bool /*isMain*/) {
    hostbinder::Driver::get().joinPool();
}

}  // namespace android
