// Kesto platform support that the agents use: named debug channels and the assertion report.
//
// A channel is one process-wide DebugHandler per name. Its 32-bit mask says which trace levels
// are on (level N is bit N). Callers test the level first and build message text only when the
// level is on; the handler then receives the finished message through emit().
#pragma once

#include <cstdint>
#include <sstream>
#include <string>

namespace Kesto::Platform {

// The message stream of one trace: created empty, written to, handed to emit(), destroyed.
class DebugStream : public std::ostringstream {
public:
    DebugStream() = default;
};

// One debug channel. The host owns every handler; agents only hold pointers to them.
class DebugHandler {
public:
    explicit DebugHandler(std::string name);
    virtual ~DebugHandler();
    DebugHandler(const DebugHandler&) = delete;
    DebugHandler& operator=(const DebugHandler&) = delete;

    const std::string& name() const noexcept { return name_; }

    // The level mask: level N is enabled when bit N is set. Starts at 0.
    std::uint32_t mask() const noexcept { return mask_; }
    void maskIs(std::uint32_t mask) noexcept { mask_ = mask; }

    // One bit test; this is all a disabled trace costs.
    bool enabled(unsigned level) const noexcept { return level < 32 && ((mask_ >> level) & 1u) != 0; }

    // Delivers one finished message to the host's sink (standard error, or a capture).
    virtual void emit(DebugStream& message, unsigned level, const char* file, unsigned line,
                      const char* function);

private:
    std::string name_;
    std::uint32_t mask_ = 0;
};

// The handler of the named channel, created on first use and never destroyed before exit. The
// first call of the process reads KESTO_DEBUG ("Channel=0x31f,Other=7") to set initial masks.
DebugHandler* getDebugHandler(const std::string& name);

// Prints the C runtime's assertion report (expression, file, line, function) and aborts.
[[noreturn]] void assertionFailed(const char* expression, const char* file, unsigned line,
                                  const char* function);

}  // namespace Kesto::Platform
