// Per-class debug channel plumbing, and the trace and assertion helpers the agents use.
//
// Every tracing class nests a `__kestoDebug` derived from DebugSupport whose handler comes from a
// function-local static (one lookup per class per process). Objects never own the shared handler.
#pragma once

#include <Kesto/Platform.h>

namespace Kesto {

class DebugSupport {
public:
    DebugSupport() noexcept = default;
    DebugSupport(Platform::DebugHandler* handler, bool ownsHandler) noexcept
        : handler_(handler), ownsHandler_(ownsHandler) {}
    DebugSupport(const DebugSupport&) = delete;
    DebugSupport& operator=(const DebugSupport&) = delete;
    // Deletes the handler only when it is owned and present; agents never set the flag.
    virtual ~DebugSupport();

    Platform::DebugHandler* handler() const noexcept { return handler_; }
    bool ownsHandler() const noexcept { return ownsHandler_; }
    bool enabled(unsigned level) const noexcept { return handler_ != nullptr && handler_->enabled(level); }

private:
    Platform::DebugHandler* handler_ = nullptr;
    bool ownsHandler_ = false;
};

inline DebugSupport::~DebugSupport() {
    if (ownsHandler_ && handler_ != nullptr) delete handler_;
}

}  // namespace Kesto

// Emits one trace on `debug` (a DebugSupport) at `level`, reported as `file`:`line` in `function`.
// `message` is a stream expression (`"a " << x << "b"`) and is evaluated only when the level is on.
#define KESTO_TRACE(debug, level, file, line, function, message)                        \
    do {                                                                                \
        if ((debug).enabled(level)) {                                                   \
            ::Kesto::Platform::DebugStream kestoStream_;                                \
            kestoStream_ << message;                                                    \
            (debug).handler()->emit(kestoStream_, (level), (file), (line), (function)); \
        }                                                                               \
    } while (0)

// An internal contract: when `expression` is false the process ends with the standard report,
// naming the given file, line and full function signature. Never compiled out.
#define KESTO_ASSERT(expression, file, line, function) \
    ((expression) ? static_cast<void>(0)               \
                  : ::Kesto::Platform::assertionFailed(#expression, (file), (line), (function)))
