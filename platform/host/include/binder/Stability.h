#pragma once

// Host stand-in for libbinder's stability marker. One build runs on the host, so there is no
// partition boundary to police: marking is accepted and changes nothing.
namespace android {

class IBinder;

namespace internal {

class Stability final {
public:
    static void markCompilationUnit(IBinder* binder);
    static void markVintf(IBinder* binder);

private:
    Stability() = delete;
};

}  // namespace internal
}  // namespace android
