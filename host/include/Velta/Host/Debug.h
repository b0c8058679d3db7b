// Debug channels as the in-memory host keeps them: masks, sinks and trace capture.
#pragma once

#include <Kesto/Platform.h>

#include <cstdint>
#include <string>
#include <vector>

namespace Velta::Host {

// One emitted trace.
struct TraceRecord {
    std::string channel;
    unsigned level = 0;
    std::string file;
    unsigned line = 0;
    std::string function;
    std::string message;
};

// Sets the mask of a channel (creating its handler if needed).
void debugMaskIs(const std::string& channel, std::uint32_t mask);
std::uint32_t debugMask(const std::string& channel);
// Sets masks from text of the form "Channel=0x31f,Other=7"; false (nothing changed) when malformed.
bool debugMasksFromText(const std::string& text);
// Sets every known channel's mask to 0.
void debugMasksClear();

// While alive, enabled traces are recorded here instead of going to standard error. Captures nest:
// the innermost one receives.
class TraceCapture {
public:
    TraceCapture();
    ~TraceCapture();
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;

    const std::vector<TraceRecord>& records() const noexcept { return records_; }
    void clear() noexcept { records_.clear(); }
    // Messages only, in order, optionally of one channel.
    std::vector<std::string> messages(const std::string& channel = "") const;

private:
    friend struct TraceSinkAccess;
    std::vector<TraceRecord> records_;
    TraceCapture* previous_;
};

// One line as standard error shows it: "Channel[level] file:line function: message".
std::string toString(const TraceRecord& record);

}  // namespace Velta::Host
