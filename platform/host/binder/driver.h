#pragma once

// The process's side of the host binder: the objects it has published with their sockets,
// the proxies it holds, and the binder threads (one poll thread, workers on demand) that
// accept connections, serve incoming calls and deliver deaths.
//
// Object lifetime follows binder's: every greeted connection to a node is a remote
// reference, and while a node has any, the node holds the object strongly. A published
// object whose last reference goes away takes its socket with it.
#include <poll.h>
#include <stdint.h>
#include <sys/types.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <binder/Binder.h>
#include <binder/BpBinder.h>
#include <binder/Parcel.h>

#include "transport.h"

namespace android {
namespace hostbinder {

class Driver {
public:
    // The current process's driver (a forked child gets a fresh one).
    static Driver& get();
    // At exit: stops the threads, closes the sockets and removes their files.
    static void shutdown();

    uint64_t incarnation() const { return mIncarnation; }

    // Gives the object a node and a listening socket once, and starts the binder threads.
    status_t publish(BBinder* object, uint64_t* node);
    // From ~BBinder.
    void unpublish(uint64_t node);
    // The object a flat binder names: the local object for our own incarnation (null and
    // DEAD_OBJECT once it has gone), otherwise a proxy, connected when first seen.
    sp<IBinder> objectFor(uint64_t node, uint64_t incarnation, status_t* err);
    // By service name, without waiting; null unless registered and answering.
    sp<IBinder> lookup(const String16& name);
    status_t addService(const String16& name, const sp<IBinder>& service);

    // A greeted connection to the node, or -1 with *err.
    int connect(uint64_t node, uint64_t incarnation, const Deadline& deadline, status_t* err);
    // Polls fd for the proxy's death until unwatched; 0 if the threads cannot run.
    uint64_t watch(const wp<BpBinder>& proxy, int fd);
    void unwatch(uint64_t id);
    // From ~BpBinder.
    void forget(BpBinder* proxy);

    void startThreads();
    void joinPool();
    void setMaxThreads(size_t count);

private:
    struct Node {
        wp<BBinder> object;
        sp<BBinder> pin;  // while refs > 0, and for good once it is a service
        int listenFd = -1;
        ino_t inode = 0;
        std::string path;
        std::vector<std::string> names;  // service names linked to the socket
        int refs = 0;
        bool service = false;
    };
    struct Conn {  // an accepted connection
        int fd = -1;
        uint64_t node = 0;
        pid_t pid = 0;
        uid_t uid = 0;
        bool greeted = false;
        bool busy = false;  // a worker owns it; otherwise the poll thread watches it
        std::vector<sp<IBinder>> held;  // objects of our last reply, until the peer reads on
    };
    struct Watch {
        wp<BpBinder> proxy;
        int fd;
    };
    using ProxyKey = std::pair<uint64_t, uint64_t>;
    enum PollKind { kWakeItem, kListenItem, kConnItem, kWatchItem };
    using PollItem = std::pair<PollKind, uint64_t>;

    Driver();
    Driver(const Driver&) = delete;
    Driver& operator=(const Driver&) = delete;
    ~Driver() = delete;  // lives until exit: proxies and objects may outlive static teardown

    static void BeforeFork();
    static void AfterForkParent();
    static void AfterForkChild();

    void shutdownThis();
    void startThreadsLocked();
    void wakeLocked();
    void retireLocked(int fd);
    void enqueueLocked(std::function<void()> job);
    void acceptLocked(uint64_t node, int listenFd);
    void removeFilesLocked(const Node& node);
    sp<IBinder> adoptProxy(uint64_t node, uint64_t incarnation, int fd);

    void pollLoop();
    void workerLoop(bool joined);
    void serve(uint64_t connId);
    bool greet(uint64_t connId, const Conn& conn, const FrameHeader& header, const std::vector<uint8_t>& payload);
    bool dispatch(uint64_t connId, const Conn& conn, const FrameHeader& header, const std::vector<uint8_t>& payload);
    void dropConn(uint64_t connId);

    const pid_t mPid;
    const uint64_t mIncarnation;
    Driver* mPrevious = nullptr;  // a parent's driver abandoned at fork, kept reachable

    std::mutex mLock;
    std::condition_variable mWork;     // workers wait for jobs
    std::condition_variable mWorkersGone;
    std::map<uint64_t, Node> mNodes;
    std::map<uint64_t, Conn> mConns;
    std::map<uint64_t, Watch> mWatches;
    std::map<ProxyKey, std::pair<BpBinder*, wp<BpBinder>>> mProxies;
    std::deque<std::function<void()>> mJobs;
    std::vector<int> mDoomed;  // closed by the poll thread before it polls again
    uint64_t mNextId = 1;
    uint32_t mNextSerial = 1;
    size_t mMaxThreads;
    size_t mWorkers = 0;  // spawned workers, not joined threads
    size_t mIdle = 0;
    bool mThreadsStarted = false;
    bool mStopping = false;
    int mWakeFd = -1;
    std::thread mPoller;
    // The poll thread's working set. Members rather than locals: a child forked meanwhile
    // keeps them reachable through its abandoned copy of this driver.
    std::vector<pollfd> mPollFds;
    std::vector<PollItem> mPollItems;
    std::string mSweptDir;  // where leftovers of dead processes were last cleared
};

// What the transport needs of Parcel beyond its public interface.
struct ParcelAccess {
    static const std::vector<uint32_t>& offsets(const Parcel& parcel) { return parcel.mObjectOffsets; }
    static const std::vector<sp<IBinder>>& objects(const Parcel& parcel) { return parcel.mObjects; }
    // Loads a received CALL or REPLY payload and takes a reference to every object it names.
    // BAD_VALUE (with *why) when the offsets or the objects are malformed.
    static status_t adopt(Parcel* parcel, const std::vector<uint8_t>& payload, const FrameHeader& header,
                          const char** why);
};

}  // namespace hostbinder
}  // namespace android
