// Running scenarios in child processes: an assertion or a crash of an agent ends only the child.
//
// A child streams what it finds over a pipe as it goes (a seed starting, a step starting, a
// failure, view text, the end of a run), so whatever happened before an abort still reaches the
// report; its standard error goes to a second pipe, where an assertion report lands.
#include "Runner.h"
#include "Text.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <optional>
#include <sstream>

#if defined(__SANITIZE_ADDRESS__)
#define VELTA_SIM_LEAK_CHECK 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VELTA_SIM_LEAK_CHECK 1
#endif
#endif
#ifdef VELTA_SIM_LEAK_CHECK
#include <sanitizer/lsan_interface.h>
#endif

namespace VeltaSim {

namespace {

// How a child that ran to its end says that its leak check found memory nothing refers to.
constexpr int kLeakStatus = 3;
constexpr const char* kLeakMessage = "memory leaked in the run";

// The child's records: a kind byte, a 4-byte length, the payload.
enum : char { kSeed = 'R', kStep = 'S', kFailure = 'F', kView = 'V', kEnd = 'E' };

void putString(std::string& out, const std::string& text) {
    const auto size = static_cast<std::uint32_t>(text.size());
    out.append(reinterpret_cast<const char*>(&size), sizeof size);
    out += text;
}

bool getString(const std::string& in, std::size_t& at, std::string& text) {
    std::uint32_t size = 0;
    if (in.size() - at < sizeof size) return false;
    std::memcpy(&size, in.data() + at, sizeof size);
    at += sizeof size;
    if (in.size() - at < size) return false;
    text.assign(in, at, size);
    at += size;
    return true;
}

void writeAll(int fd, const std::string& data) {
    std::size_t done = 0;
    while (done < data.size()) {
        const ssize_t n = ::write(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        done += static_cast<std::size_t>(n);
    }
}

void sendRecord(int fd, char kind, const std::string& payload) {
    std::string record(1, kind);
    putString(record, payload);
    writeAll(fd, record);
}

std::string encodeFailure(const Failure& f) {
    std::string out;
    putString(out, std::to_string(f.step));
    putString(out, std::to_string(f.line));
    putString(out, f.keyword);
    putString(out, f.message);
    for (const std::string& line : f.details) putString(out, line);
    return out;
}

Failure decodeFailure(const std::string& payload) {
    Failure f;
    std::size_t at = 0;
    std::string text;
    if (getString(payload, at, text)) f.step = std::strtoul(text.c_str(), nullptr, 10);
    if (getString(payload, at, text)) f.line = static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
    getString(payload, at, f.keyword);
    getString(payload, at, f.message);
    while (getString(payload, at, text)) f.details.push_back(text);
    return f;
}

// Runs `scenario` in the child, streaming to `fd`, and ends the run with an end record.
void runStreamed(const Scenario& scenario, RunOptions options, int fd) {
    options.onStep = [fd](const Step& step) { sendRecord(fd, kStep, std::to_string(step.number)); };
    options.onFailure = [fd](const Failure& f) { sendRecord(fd, kFailure, encodeFailure(f)); };
    options.onView = [fd](const std::string& text) { sendRecord(fd, kView, text); };
    const RunResult result = runScenario(scenario, options);
    sendRecord(fd, kEnd, result.completed ? "1" : "0");
}

struct Child {
    bool started = false;
    std::string error;    // why no child could be started
    std::string records;  // what it streamed
    std::string errors;   // its standard error
    int status = 0;       // as waitpid reports it
};

// Runs `body(fd)` in a child process and collects what it streams and writes to standard error.
// The child ends with status 0, or kLeakStatus when a requested leak check found leaks.
Child spawn(const std::function<void(int)>& body, bool leakCheck) {
    Child child;
    int resultPipe[2];
    int errorPipe[2];
    if (::pipe(resultPipe) != 0) {
        child.error = std::strerror(errno);
        return child;
    }
    if (::pipe(errorPipe) != 0) {
        child.error = std::strerror(errno);
        ::close(resultPipe[0]);
        ::close(resultPipe[1]);
        return child;
    }
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid < 0) {
        child.error = std::strerror(errno);
        for (int fd : {resultPipe[0], resultPipe[1], errorPipe[0], errorPipe[1]}) ::close(fd);
        return child;
    }
    if (pid == 0) {
        ::close(resultPipe[0]);
        ::close(errorPipe[0]);
        ::dup2(errorPipe[1], STDERR_FILENO);
        ::close(errorPipe[1]);
        body(resultPipe[1]);
        int status = 0;
#ifdef VELTA_SIM_LEAK_CHECK
        if (leakCheck && __lsan_do_recoverable_leak_check() != 0) status = kLeakStatus;
#else
        (void)leakCheck;
#endif
        std::fflush(stderr);
        ::_exit(status);
    }
    child.started = true;
    ::close(resultPipe[1]);
    ::close(errorPipe[1]);

    // Read both pipes until the child closes them, so that it never blocks on a full pipe.
    pollfd fds[2] = {{resultPipe[0], POLLIN, 0}, {errorPipe[0], POLLIN, 0}};
    int open = 2;
    char buffer[65536];
    while (open > 0) {
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
            const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
            if (n > 0) {
                (i == 0 ? child.records : child.errors).append(buffer, static_cast<std::size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                ::close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            }
        }
    }
    for (const pollfd& p : fds)
        if (p.fd >= 0) ::close(p.fd);
    while (::waitpid(pid, &child.status, 0) < 0 && errno == EINTR) {
    }
    return child;
}

std::vector<std::string> lines(const std::string& text, std::size_t limit) {
    std::vector<std::string> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line))
        if (!line.empty()) out.push_back(line);
    if (out.size() > limit) {
        const std::size_t dropped = out.size() - limit;
        out.resize(limit);
        out.push_back("(" + counted(dropped, "more line") + ")");
    }
    return out;
}

std::string signalName(int signal) {
    const char* name = ::strsignal(signal);
    return "signal " + std::to_string(signal) +
           (name != nullptr ? std::string(" (") + name + ")" : std::string());
}

// Appends a failure of the run as a whole, attributed to the step during which it happened.
void addFailure(const Scenario& scenario, Outcome& outcome, std::size_t step, std::string message,
                std::vector<std::string> details) {
    Failure f;
    f.step = step;
    if (step > 0 && step <= scenario.steps.size()) f.line = scenario.steps[step - 1].mark.line;
    f.keyword = scenario.expectAbort ? "expect_abort" : (step > 0 ? scenario.steps[step - 1].keyword : "");
    f.message = std::move(message);
    f.details = std::move(details);
    outcome.failures.push_back(std::move(f));
}

// How one run ended, judged against the scenario's expect_abort. `completed` is what the run's end
// record said (every step ran, or a step stopped it), none when the run sent no end record.
void judgeEnd(const Scenario& scenario, Outcome& outcome, const Child& child, std::size_t lastStep,
              std::optional<bool> completed) {
    const bool ended = completed.has_value();
    const int status = child.status;
    const bool aborted = WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
    if (scenario.expectAbort) {
        const std::string& expression = *scenario.expectAbort;
        if (aborted && child.errors.find(expression) != std::string::npos) return;
        std::vector<std::string> details{(aborted ? "- " : "- abort: ") + expression};
        if (!aborted && !WIFSIGNALED(status))
            details.push_back(!ended       ? "+ exit status " + std::to_string(WEXITSTATUS(status))
                              : *completed ? std::string("+ every step ran to its end")
                                           : "+ the run stopped at step " + std::to_string(lastStep));
        for (const std::string& line : lines(child.errors, 20)) details.push_back("+ " + line);
        if (aborted)
            addFailure(scenario, outcome, lastStep,
                       "the run aborted, but its report does not name the expected assertion",
                       std::move(details));
        else if (WIFSIGNALED(status))
            addFailure(scenario, outcome, lastStep,
                       "the run ended with " + signalName(WTERMSIG(status)) + " instead of the assertion",
                       std::move(details));
        else
            addFailure(scenario, outcome, lastStep,
                       "expected the run to end in the assertion, but it did not abort", std::move(details));
    } else if (WIFSIGNALED(status)) {
        addFailure(scenario, outcome, lastStep, "the run ended with " + signalName(WTERMSIG(status)),
                   lines(child.errors, 40));
    } else if (ended && WEXITSTATUS(status) == kLeakStatus) {
        addFailure(scenario, outcome, lastStep, kLeakMessage, lines(child.errors, 40));
    } else if (!ended || WEXITSTATUS(status) != 0) {
        addFailure(scenario, outcome, lastStep,
                   "the run ended unexpectedly with exit status " + std::to_string(WEXITSTATUS(status)),
                   lines(child.errors, 40));
    } else if (!child.errors.empty()) {
        // Nothing failed, but whatever the run wrote to standard error is not hidden.
        std::fwrite(child.errors.data(), 1, child.errors.size(), stderr);
    }
}

Outcome inProcess(const Scenario& scenario, const RunOptions& options) {
    Outcome outcome;
    RunResult result = runScenario(scenario, options);
    outcome.failures = std::move(result.failures);
    outcome.views = std::move(result.views);
    outcome.passed = outcome.failures.empty();
    return outcome;
}

}  // namespace

Outcome runIsolated(const Scenario& scenario, const RunOptions& options, bool isolate) {
    if (!isolate && !scenario.expectAbort) return inProcess(scenario, options);
    Outcome outcome;
    const Child child = spawn([&](int fd) { runStreamed(scenario, options, fd); }, options.leakCheck);
    if (!child.started) {
        addFailure(scenario, outcome, 0, "cannot run the scenario in a child process: " + child.error, {});
        return outcome;
    }
    std::size_t lastStep = 0;
    std::optional<bool> completed;
    std::string payload;
    for (std::size_t at = 0; at < child.records.size();) {
        const char kind = child.records[at++];
        if (!getString(child.records, at, payload)) break;
        switch (kind) {
            case kStep:
                lastStep = std::strtoul(payload.c_str(), nullptr, 10);
                break;
            case kFailure:
                outcome.failures.push_back(decodeFailure(payload));
                break;
            case kView:
                outcome.views += payload;
                break;
            case kEnd:
                completed = payload == "1";
                break;
            default:
                break;
        }
    }
    judgeEnd(scenario, outcome, child, lastStep, completed);
    outcome.passed = outcome.failures.empty();
    return outcome;
}

std::vector<SeedOutcome> runSeeds(const Scenario& scenario, const RunOptions& options, std::uint64_t first,
                                  std::uint64_t last, bool isolate) {
    std::vector<SeedOutcome> outcomes;
    RunOptions seeded = options;
    if (!isolate && !scenario.expectAbort) {
        for (std::uint64_t seed = first; seed <= last && seed != 0; ++seed) {
            seeded.shuffleSeed = seed;
            outcomes.push_back({seed, inProcess(scenario, seeded)});
        }
        return outcomes;
    }
    if (scenario.expectAbort) {
        // Each run is meant to end the process: one child per seed.
        for (std::uint64_t seed = first; seed <= last && seed != 0; ++seed) {
            seeded.shuffleSeed = seed;
            outcomes.push_back({seed, runIsolated(scenario, seeded, true)});
        }
        return outcomes;
    }
    // One child runs the seeds one after the other; when a run ends the child, the next child
    // takes up with the following seed.
    std::uint64_t next = first;
    while (next != 0 && next <= last) {
        const std::uint64_t from = next;
        const Child child = spawn(
            [&](int fd) {
                for (std::uint64_t seed = from; seed <= last && seed != 0; ++seed) {
                    sendRecord(fd, kSeed, std::to_string(seed));
                    seeded.shuffleSeed = seed;
                    runStreamed(scenario, seeded, fd);
                }
            },
            options.leakCheck);
        if (!child.started) {
            SeedOutcome failed{from, {}};
            addFailure(scenario, failed.outcome, 0,
                       "cannot run the scenario in a child process: " + child.error, {});
            outcomes.push_back(std::move(failed));
            return outcomes;
        }
        bool open = false;  // a seed started and did not end
        std::size_t lastStep = 0;
        std::string payload;
        for (std::size_t at = 0; at < child.records.size();) {
            const char kind = child.records[at++];
            if (!getString(child.records, at, payload)) break;
            switch (kind) {
                case kSeed:
                    outcomes.push_back({std::strtoull(payload.c_str(), nullptr, 10), {}});
                    open = true;
                    lastStep = 0;
                    break;
                case kStep:
                    lastStep = std::strtoul(payload.c_str(), nullptr, 10);
                    break;
                case kFailure:
                    if (!outcomes.empty()) outcomes.back().outcome.failures.push_back(decodeFailure(payload));
                    break;
                case kEnd:
                    if (!outcomes.empty())
                        outcomes.back().outcome.passed = outcomes.back().outcome.failures.empty();
                    open = false;
                    break;
                default:
                    break;
            }
        }
        if (open) {
            // The child ended inside this seed's run.
            judgeEnd(scenario, outcomes.back().outcome, child, lastStep, std::nullopt);
            outcomes.back().outcome.passed = false;
            next = outcomes.back().seed + 1;
        } else if (outcomes.empty() || outcomes.back().seed < last) {
            // The child ended between runs without a report: count the seed it should have run.
            SeedOutcome failed{outcomes.empty() ? from : outcomes.back().seed + 1, {}};
            judgeEnd(scenario, failed.outcome, child, 0, std::nullopt);
            failed.outcome.passed = false;
            next = failed.seed + 1;
            outcomes.push_back(std::move(failed));
        } else {
            next = 0;
        }
        if (!open && WIFEXITED(child.status) && WEXITSTATUS(child.status) == kLeakStatus) {
            // One check at the end of a child serves all its seeds while none leaks; when one did,
            // each of them runs again alone with its own check, to say which.
            for (SeedOutcome& run : outcomes) {
                if (run.seed < from) continue;
                seeded.shuffleSeed = run.seed;
                Outcome alone = runIsolated(scenario, seeded, true);
                for (Failure& f : alone.failures)
                    if (f.message == kLeakMessage) run.outcome.failures.push_back(std::move(f));
                run.outcome.passed = run.outcome.failures.empty();
            }
        }
    }
    return outcomes;
}

}  // namespace VeltaSim
