// The emulation trace: one JSON object per line, appended to the file that ZOVK_FSR_TRACE names.
#pragma once

#include <cstdint>
#include <string>

namespace fsr {

// Builds one line. Keys are written in the order they are added.
class TraceLine {
public:
    explicit TraceLine(const char* event);
    TraceLine& Str(const char* key, const std::string& value);
    TraceLine& Num(const char* key, int64_t value);
    TraceLine& Bool(const char* key, bool value);
    TraceLine& Handle(const char* key, uint64_t handle);  // "0x..." or null
    TraceLine& Raw(const char* key, const std::string& json);
    std::string Text() const { return text_ + "}\n"; }

private:
    void Key(const char* key);
    std::string text_;
};

std::string HandleText(uint64_t handle);
std::string Quote(const std::string& s);

// Whether ZOVK_FSR_TRACE names a file; read once.
bool TraceEnabled();
// Appends the line with a single write, so that lines of concurrent writers (threads or
// processes) never interleave. Opens the file on first use.
void Emit(const TraceLine& line);
// Closes the file; the next Emit opens it again.
void CloseTrace();

}  // namespace fsr
