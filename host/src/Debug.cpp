// Debug channels: one handler per channel name for the process, masks, sinks and trace capture.
//
// Handlers are created on first use and never destroyed (agents keep plain pointers to them in
// function-local statics). KESTO_DEBUG is read once, when the channel registry is first touched.
#include <Velta/Host/Debug.h>

#include "HostInternal.h"

#include <Kesto/DebugSupport.h>

#include <absl/strings/ascii.h>
#include <absl/strings/str_split.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

// The C runtime's assertion report; <assert.h> declares it only when assertions are compiled
// in, but the report is wanted in every build.
extern "C" void __assert_fail(const char* assertion, const char* file, unsigned int line,
                              const char* function) noexcept __attribute__((__noreturn__));

namespace Velta::Host {

struct TraceSinkAccess {
    static std::vector<TraceRecord>& records(TraceCapture& c) noexcept { return c.records_; }
    static TraceCapture*& previous(TraceCapture& c) noexcept { return c.previous_; }
};

namespace {

struct ChannelRegistry {
    std::mutex mutex;
    std::map<std::string, Kesto::Platform::DebugHandler*, std::less<>> handlers;

    Kesto::Platform::DebugHandler* get(const std::string& name) {
        auto it = handlers.find(name);
        if (it != handlers.end()) return it->second;
        auto* h = new Kesto::Platform::DebugHandler(name);
        handlers.emplace(name, h);
        return h;
    }
};

// "A=0x31f,B=7" -> pairs; nullopt when any part is malformed. Blanks around names, values and
// commas are allowed, and so are empty items.
std::optional<std::vector<std::pair<std::string, std::uint32_t>>> parseMasks(const std::string& text) {
    std::vector<std::pair<std::string, std::uint32_t>> out;
    for (absl::string_view item : absl::StrSplit(text, ',')) {
        item = absl::StripAsciiWhitespace(item);
        if (item.empty()) continue;
        const std::vector<absl::string_view> parts = absl::StrSplit(item, absl::MaxSplits('=', 1));
        if (parts.size() != 2) return std::nullopt;
        const std::string name(absl::StripAsciiWhitespace(parts[0]));
        const std::string value(absl::StripAsciiWhitespace(parts[1]));
        if (name.empty() || value.empty() || value[0] == '-' || value[0] == '+') return std::nullopt;
        errno = 0;
        char* end = nullptr;
        const unsigned long long v = std::strtoull(value.c_str(), &end, 0);  // decimal or 0x hex
        if (errno != 0 || end == nullptr || *end != '\0' || v > 0xffffffffull) return std::nullopt;
        out.emplace_back(name, static_cast<std::uint32_t>(v));
    }
    return out;
}

// Never destroyed, like the handlers it holds.
ChannelRegistry& channels() {
    static ChannelRegistry* const r = [] {
        auto* reg = new ChannelRegistry;
        if (const char* env = std::getenv("KESTO_DEBUG"); env != nullptr) {
            if (auto masks = parseMasks(env)) {
                for (const auto& [name, mask] : *masks) reg->get(name)->maskIs(mask);
            } else {
                std::fprintf(stderr, "KESTO_DEBUG is malformed and was ignored: %s\n", env);
            }
        }
        return reg;
    }();
    return *r;
}

std::mutex& captureMutex() {
    static std::mutex m;
    return m;
}
TraceCapture* currentCapture = nullptr;

}  // namespace

void debugMaskIs(const std::string& channel, std::uint32_t mask) {
    Kesto::Platform::getDebugHandler(channel)->maskIs(mask);
}

std::uint32_t debugMask(const std::string& channel) {
    return Kesto::Platform::getDebugHandler(channel)->mask();
}

bool debugMasksFromText(const std::string& text) {
    const auto masks = parseMasks(text);
    if (!masks) return false;
    for (const auto& [name, mask] : *masks) debugMaskIs(name, mask);
    return true;
}

void debugMasksClear() {
    ChannelRegistry& r = channels();
    std::lock_guard lock(r.mutex);
    for (auto& [name, handler] : r.handlers) handler->maskIs(0);
}

TraceCapture::TraceCapture() {
    std::lock_guard lock(captureMutex());
    previous_ = currentCapture;
    currentCapture = this;
}

TraceCapture::~TraceCapture() {
    std::lock_guard lock(captureMutex());
    if (currentCapture == this) {
        currentCapture = previous_;
        return;
    }
    // Ended out of order: unlink it from the chain.
    for (TraceCapture* c = currentCapture; c != nullptr; c = c->previous_) {
        if (c->previous_ == this) {
            c->previous_ = previous_;
            break;
        }
    }
}

std::vector<std::string> TraceCapture::messages(const std::string& channel) const {
    std::vector<std::string> out;
    for (const TraceRecord& r : records_) {
        if (channel.empty() || r.channel == channel) out.push_back(r.message);
    }
    return out;
}

void internal::appendOneLine(std::string& out, std::string_view text) {
    for (const char c : text) {
        if (c == '\n')
            out += "\\n";
        else if (c == '\r')
            out += "\\r";
        else
            out += c;
    }
}

std::string toString(const TraceRecord& record) {
    std::string out = record.channel + "[" + std::to_string(record.level) + "] " + record.file + ":" +
                      std::to_string(record.line) + " " + record.function + ": ";
    internal::appendOneLine(out, record.message);
    return out;
}

}  // namespace Velta::Host

namespace Kesto::Platform {

DebugHandler::DebugHandler(std::string name) : name_(std::move(name)) {}

DebugHandler::~DebugHandler() = default;

void DebugHandler::emit(DebugStream& message, unsigned level, const char* file, unsigned line,
                        const char* function) {
    Velta::Host::TraceRecord record{name_,        level, file ? file : "", line, function ? function : "",
                                    message.str()};
    {
        std::lock_guard lock(Velta::Host::captureMutex());
        if (Velta::Host::currentCapture != nullptr) {
            Velta::Host::TraceSinkAccess::records(*Velta::Host::currentCapture).push_back(std::move(record));
            return;
        }
    }
    const std::string text = Velta::Host::toString(record) + "\n";
    std::fwrite(text.data(), 1, text.size(), stderr);
}

DebugHandler* getDebugHandler(const std::string& name) {
    auto& r = Velta::Host::channels();
    std::lock_guard lock(r.mutex);
    return r.get(name);
}

void assertionFailed(const char* expression, const char* file, unsigned line, const char* function) {
    std::fflush(stdout);
    __assert_fail(expression, file, line, function);
}

}  // namespace Kesto::Platform
