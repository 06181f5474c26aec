#include "fsr_trace.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace fsr {

namespace {

std::mutex g_traceLock;
int g_fd = -1;
bool g_openFailed = false;

const char* TracePath() {
    static const char* path = [] {
        const char* p = std::getenv("ZOVK_FSR_TRACE");
        return (p != nullptr && *p != '\0') ? p : nullptr;
    }();
    return path;
}

}  // namespace

TraceLine::TraceLine(const char* event) { text_ = "{\"event\":" + Quote(event); }

void TraceLine::Key(const char* key) {
    text_ += ',';
    text_ += Quote(key);
    text_ += ':';
}

TraceLine& TraceLine::Str(const char* key, const std::string& value) {
    Key(key);
    text_ += Quote(value);
    return *this;
}

TraceLine& TraceLine::Num(const char* key, int64_t value) {
    Key(key);
    text_ += std::to_string(value);
    return *this;
}

TraceLine& TraceLine::Bool(const char* key, bool value) {
    Key(key);
    text_ += value ? "true" : "false";
    return *this;
}

TraceLine& TraceLine::Handle(const char* key, uint64_t handle) {
    Key(key);
    text_ += handle ? Quote(HandleText(handle)) : "null";
    return *this;
}

TraceLine& TraceLine::Raw(const char* key, const std::string& json) {
    Key(key);
    text_ += json;
    return *this;
}

std::string HandleText(uint64_t handle) {
    char buf[24];
    std::snprintf(buf, sizeof buf, "0x%" PRIx64, handle);
    return buf;
}

std::string Quote(const std::string& s) {
    std::string out = "\"";
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04x", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

bool TraceEnabled() { return TracePath() != nullptr; }

void Emit(const TraceLine& line) {
    if (!TraceEnabled()) return;
    const std::string text = line.Text();
    std::lock_guard<std::mutex> lock(g_traceLock);
    if (g_fd < 0) {
        if (g_openFailed) return;
        g_fd = open(TracePath(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (g_fd < 0) {
            g_openFailed = true;
            std::fprintf(stderr, "zovk_fsr_emulation: cannot open trace file %s: errno %d\n", TracePath(), errno);
            return;
        }
    }
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = write(g_fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
}

void CloseTrace() {
    std::lock_guard<std::mutex> lock(g_traceLock);
    if (g_fd >= 0) close(g_fd);
    g_fd = -1;
}

}  // namespace fsr
