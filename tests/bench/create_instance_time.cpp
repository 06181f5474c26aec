// Loads the layer as a platform loader does and times createInstance, the layer's whole
// start-up work, in this process. Prints microseconds. Run it under the process name to
// measure (exec -a), once per process: only the first call does the work.
#include <dlfcn.h>

#include <chrono>
#include <cstdio>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s LIBZOVK_SO\n", argv[0]);
        return 2;
    }
    void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    auto createInstance = reinterpret_cast<void* (*)()>(dlsym(library, "createInstance"));
    if (createInstance == nullptr) {
        std::fprintf(stderr, "no createInstance in %s\n", argv[1]);
        return 1;
    }
    const auto start = std::chrono::steady_clock::now();
    void* stub = createInstance();
    const auto end = std::chrono::steady_clock::now();
    std::printf("%.1f\n", std::chrono::duration<double, std::micro>(end - start).count());
    return stub != nullptr ? 0 : 1;
}
