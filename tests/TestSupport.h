// Helpers shared by the tests, through the embedding API (Velta/Host/*.h) and the host interface only:
// rows from field/value pairs, scoped debug masks, a fixture with one database and one with a translator.
#pragma once

#include <Velta/Agent/SubscriptionTranslator.h>
#include <Velta/BaseRow.h>
#include <Velta/Host/Database.h>
#include <Velta/Host/Debug.h>
#include <Velta/Host/ForwardingVeltaDB.h>
#include <Velta/Records.h>
#include <Velta/VeltaDB.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace Velta::Test {

// One field value for makeRow: a number (any integer or bool), a string or a list of strings.
struct FieldValue {
    std::variant<std::uint64_t, std::string, std::vector<std::string>> value;

    template <std::integral T>
    FieldValue(T v) : value(static_cast<std::uint64_t>(v)) {}        // NOLINT
    FieldValue(const char* v) : value(std::string(v)) {}             // NOLINT
    FieldValue(std::string v) : value(std::move(v)) {}               // NOLINT
    FieldValue(std::vector<std::string> v) : value(std::move(v)) {}  // NOLINT
    FieldValue(std::initializer_list<const char*> v)                 // NOLINT
        : value(std::vector<std::string>(v.begin(), v.end())) {}
};

using FieldValues = std::vector<std::pair<std::string, FieldValue>>;

// A row of `type` with the given fields set, others zero (throws for an unknown field or a wrong kind).
inline BaseRow makeRow(const RowType& type, const FieldValues& values) {
    BaseRow row(type);
    for (const auto& [name, fv] : values) {
        const int index = type.fieldIndex(name);
        if (index < 0) throw std::invalid_argument("no field " + name + " in " + type.name());
        const auto field = static_cast<std::size_t>(index);
        const FieldKind kind = type.fields()[field].kind;
        if (isNumberKind(kind))
            row.numberIs(field, std::get<std::uint64_t>(fv.value));
        else if (kind == FieldKind::string)
            row.stringIs(field, std::get<std::string>(fv.value));
        else
            row.stringsIs(field, std::get<std::vector<std::string>>(fv.value));
    }
    return row;
}

// A typed record built from field/value pairs, e.g. makeRecord<External::Publication>({...}).
template <class RecordT>
RecordT makeRecord(const FieldValues& values) {
    return RecordT(makeRow(RecordT::type(), values));
}

// Sets a channel's mask for the lifetime of the object, then restores the previous one.
class ScopedDebugMask {
public:
    ScopedDebugMask(std::string channel, std::uint32_t mask)
        : channel_(std::move(channel)), previous_(Host::debugMask(channel_)) {
        Host::debugMaskIs(channel_, mask);
    }
    ~ScopedDebugMask() { Host::debugMaskIs(channel_, previous_); }
    ScopedDebugMask(const ScopedDebugMask&) = delete;
    ScopedDebugMask& operator=(const ScopedDebugMask&) = delete;

private:
    std::string channel_;
    std::uint32_t previous_;
};

// Shrinks a failing history: drops chunks of steps, then single steps, while `stillFails(candidate)`.
template <class Step, class StillFails>
std::vector<Step> shrinkHistory(std::vector<Step> steps, StillFails stillFails) {
    for (std::size_t chunk = std::max<std::size_t>(steps.size() / 2, 1);; chunk /= 2) {
        bool removed = true;
        while (removed) {
            removed = false;
            for (std::size_t start = 0; start < steps.size();) {
                std::vector<Step> candidate(steps.begin(),
                                            steps.begin() + static_cast<std::ptrdiff_t>(start));
                const std::size_t end = std::min(steps.size(), start + chunk);
                candidate.insert(candidate.end(), steps.begin() + static_cast<std::ptrdiff_t>(end),
                                 steps.end());
                if (stillFails(candidate)) {
                    steps = std::move(candidate);
                    removed = true;
                } else {
                    start += chunk;
                }
            }
        }
        if (chunk == 1) break;
    }
    return steps;
}

// A count or seed from the environment variable `name`, or `fallback` when it is unset or empty.
inline std::size_t envCount(const char* name, std::size_t fallback) {
    const char* text = std::getenv(name);
    return text == nullptr || *text == '\0' ? fallback
                                            : static_cast<std::size_t>(std::strtoull(text, nullptr, 10));
}

// A seeded history that failed: its steps and the report's head (the seed, the step, what went wrong).
template <class Step>
struct FailedHistory {
    std::vector<Step> steps;
    std::string report;
};

// Runs seeded histories: the one seed in `seedVariable`, else as many as `countVariable` says (`count`
// when unset), the i-th with seed `seedOf(i)`, until `reports` failed (shrinking each takes time).
// `history(seed)` runs one and returns it if it fails; `replay(steps)` runs steps afresh and says what
// fails, if anything; `describe(step)` is a step's line. A failure is reported with a shrunk history
// that still fails and the variable that replays it. Returns how many histories ran.
template <class Step, class SeedOf, class History, class Replay, class Describe>
std::size_t runSeededHistories(const char* seedVariable, const char* countVariable, std::size_t count,
                               std::size_t reports, SeedOf seedOf, History history, Replay replay,
                               Describe describe) {
    const std::size_t one = envCount(seedVariable, 0), total = one ? 1 : envCount(countVariable, count);
    std::size_t ran = 0;
    for (std::size_t failures = 0; ran < total && failures < reports; ++ran) {
        const std::uint64_t seed = one ? one : seedOf(ran);
        const std::optional<FailedHistory<Step>> failed = history(seed);
        if (!failed) continue;
        const std::vector<Step> small =
            shrinkHistory(failed->steps, [&](const std::vector<Step>& c) { return replay(c).has_value(); });
        std::ostringstream os;
        os << failed->report << "shrunk history (" << small.size() << " of " << failed->steps.size()
           << " steps) that still fails:\n";
        for (std::size_t i = 0; i < small.size(); ++i)
            os << "  " << i + 1 << ". " << describe(small[i]) << "\n";
        if (const std::optional<std::string> again = replay(small)) os << "which reports:\n" << *again;
        ADD_FAILURE() << os.str() << "replay with " << seedVariable << "=" << seed << "\n";
        ++failures;
    }
    return ran;
}

// The tables the translator reads and writes, and the metadata tables.
inline const std::string kExtSubs = "velta/External/Subscription";
inline const std::string kExtPub = "velta/External/Publication";
inline const std::string kCtrlSubs = "velta/veCtrl/subscription";
inline const std::string kCtrlPub = "velta/veCtrl/publication";
inline const std::string kSysDesc = "velta/metadata/SystemDescription";
inline const std::string kVeTable = "velta/metadata/veTable";

// A number-keyed row type, or its twin: the same key layout under another type, whose rows hash alike.
inline const RowType& numType(bool twin = false) {
    return Host::defineRowType(twin ? "Test::Twin" : "Test::Num",
                               {{"k", FieldKind::u64}, {"v", FieldKind::u32}}, {"k"});
}

// A fixture with one database (reset() for another) and helpers to connect agents.
class HostTest : public ::testing::Test {
protected:
    HostTest() : db_(Host::Database::create()) {}

    // Replaces the database with a fresh one made with `options`. Earlier handles stay valid
    // (they keep their own database alive) but no longer reach db_.
    void reset(const Host::Database::Options& options) { db_ = Host::Database::create(options); }

    VeltaDB::p_t connect(const std::string& agentName, bool serverAgent = false, bool external = false) {
        return db_->connect({agentName, agentName, serverAgent, external});
    }

    // Delivers everything queued and checks that the loop settled.
    std::size_t run() {
        const std::size_t n = db_->runUntilIdle();
        EXPECT_TRUE(db_->settled());
        return n;
    }

    std::shared_ptr<Host::Database> db_;
};

// The fields of `row` that are not zero, false or empty, as "name=value ..." (lists as [a,b]).
inline std::string brief(const BaseRow& row) {
    std::string out;
    const RowType* type = row.rowType();
    for (std::size_t i = 0; type != nullptr && i < type->fields().size(); ++i) {
        const RowType::Field& f = type->fields()[i];
        std::string value;
        if (isNumberKind(f.kind)) {
            if (row.number(i) != 0) value = std::to_string(row.number(i));
        } else if (f.kind == FieldKind::string) {
            value = row.string(i);
        } else {
            for (const std::string& item : row.strings(i)) value += (value.empty() ? "[" : ",") + item;
            if (!value.empty()) value += "]";
        }
        if (!value.empty()) out += (out.empty() ? "" : " ") + f.name + "=" + value;
    }
    return out;
}

// A record from "name=value;..." (numbers in any base, lists as [a,b]): brief() the other way round.
template <class RecordT>
RecordT rowOf(const std::string& text) {
    FieldValues values;
    std::istringstream in(text);
    for (std::string item; std::getline(in, item, ';');) {
        const std::string name = item.substr(0, item.find('=')), value = item.substr(name.size() + 1);
        const int index = RecordT::type().fieldIndex(name);
        const FieldKind kind =
            index < 0 ? FieldKind::string : RecordT::type().fields()[static_cast<std::size_t>(index)].kind;
        if (isNumberKind(kind)) {
            values.emplace_back(name, std::stoull(value, nullptr, 0));
        } else if (kind == FieldKind::string) {
            values.emplace_back(name, value);
        } else {
            std::vector<std::string> list;
            std::istringstream items(value.substr(1, value.size() - 2));
            for (std::string v; std::getline(items, v, ',');) list.push_back(v);
            values.emplace_back(name, list);
        }
    }
    return makeRecord<RecordT>(values);
}

// One translator in an agent of a chosen kind, the row type "Test::Item", its traces on, and a transcript
// in order: writes and deletions of the subscription and publication tables (with the active observers),
// host calls and traces.
class TranslatorTest : public HostTest {
protected:
    enum class Kind { server, standalone, perAgent };

    TranslatorTest() { Host::Database::serverProcessIs(false); }
    ~TranslatorTest() override {
        translator_.reset();
        db_->listenerIs(nullptr);
        Host::Database::serverProcessIs(false);
    }

    static const RowType& itemType() {
        return Host::defineRowType("Test::Item", {{"key", FieldKind::string}, {"value", FieldKind::u32}},
                                   {"key"});
    }

    static Host::AgentOptions agentOptions(Kind kind, const std::string& agentName,
                                           const std::string& systemName) {
        return {agentName, systemName, kind == Kind::server, kind != Kind::server, kind != Kind::perAgent};
    }

    // A fresh database (auto-publishing or not, outside the server process) with the transcript
    // attached, emptied, and no translator.
    void fresh(bool autoPublish) {
        translator_.reset();
        Host::Database::serverProcessIs(false);
        Host::Database::Options options;
        options.autoPublish = autoPublish;
        reset(options);
        itemType();
        db_->listenerIs(&log_);
        happened();
        entryTraces();
    }

    // Builds a translator in a new agent of `kind` and runs the loop, so its ready pass is done.
    Agent::SubscriptionTranslator& start(Kind kind, const std::string& agentName = "A",
                                         const std::string& systemName = "sysA") {
        db_->listenerIs(&log_);
        translator_ = std::make_unique<Agent::SubscriptionTranslator>(
            db_->connect(agentOptions(kind, agentName, systemName)));
        run();
        return *translator_;
    }

    void writeSystem(unsigned oid, const std::string& sysName, const std::string& agentName,
                     unsigned properties = 1) {
        db_->write(
            kSysDesc,
            makeRecord<veMetadata::SystemDescription>(
                {{"oid", oid}, {"sysName", sysName}, {"agentName", agentName}, {"properties", properties}}));
    }

    // Writes an external subscription given as for rowOf (typeName defaults to "Test::Item") and
    // returns it as stored.
    External::Subscription writeSubscription(const std::string& text, const std::string& path = kExtSubs) {
        const std::string typed = text.find("typeName=") == std::string::npos ? ";typeName=Test::Item" : "";
        return External::Subscription(db_->write(path, rowOf<External::Subscription>(text + typed)));
    }

    // The transcript since the last call, one line per event: "+ctrlSub <brief row> @<active
    // observer>", "-extPub <brief row>", "call <host call>", "L<level>:<line> <message>". Changes of
    // the clients' subscription table (the tests make them) and traces that only echo the row
    // delivered are left out.
    std::string happened() {
        flushTraces();
        return std::exchange(happened_, "");
    }
    // The function-entry traces (level 8) since the last call, as "L8: <line><flags>x<count> ...", or
    // "": the flags are what the trace says between the signature and the row, numbers of two digits
    // or more written "#".
    std::string entryTraces() {
        flushTraces();
        std::string out;
        for (const auto& [what, count] : entryTraces_) out += " " + what + "x" + std::to_string(count);
        entryTraces_.clear();
        return out.empty() ? "" : "L8:" + out + "\n";
    }
    // `transcript` with each run of equal lines written once, followed by " (xN)".
    static std::string collapsed(const std::string& transcript) {
        std::vector<std::pair<std::string, int>> runs;
        std::istringstream in(transcript);
        for (std::string line; std::getline(in, line);) {
            if (!runs.empty() && runs.back().first == line)
                ++runs.back().second;
            else
                runs.emplace_back(line, 1);
        }
        std::string out;
        for (const auto& [line, n] : runs)
            out += line + (n > 1 ? " (x" + std::to_string(n) + ")" : "") + "\n";
        return out;
    }

    // The registry entry of `sub` in brief: "w/r/- externalOid tableOid typeId sid", or "none".
    std::string entry(const External::Subscription& sub) const {
        const std::shared_ptr<Agent::SubscriptionEntry> e = translator_->subscription(sub);
        if (!e) return "none";
        return std::string(e->writer ? "w" : "") + (e->reader ? "r" : "") +
               (e->writer || e->reader ? "" : "-") + " " + std::to_string(e->externalOid) + " " +
               std::to_string(e->tableOid) + " " + std::to_string(e->typeId) + " " + std::to_string(e->sid);
    }

    static constexpr std::uint32_t kTranscriptLevels = 0x3ff;
    inline static const std::set<std::string> kEntrySignatures = [] {
        std::set<std::string> out{
            "Velta::Agent::SubscriptionTranslator::SubscriptionTranslator(Velta::VeltaDB::p_t)",
            "void Velta::Agent::SubscriptionTranslator::subscriptionComplete(Velta::Agent::Subs, "
            "Velta::Agent::TableRow, bool, bool, bool, Velta::oid_t, Velta::oid_t, const string&)",
            "void Velta::Agent::SubscriptionTranslator::extSubsOnReady()",
            "void Velta::Agent::SubscriptionTranslator::extSubsOnRowCommon(const Velta::BaseRow&, bool)"};
        for (const char* f :
             {"onTableRow", "extSubsOnDelete", "pubOnRow", "pubOnDelete", "extPubOnRow", "extPubOnDelete"})
            out.insert(std::string("void Velta::Agent::SubscriptionTranslator::") + f +
                       "(const Velta::BaseRow&)");
        return out;
    }();

    std::unique_ptr<Agent::SubscriptionTranslator> translator_;

private:
    void flushTraces() {
        const std::vector<Host::TraceRecord>& records = capture_.records();
        for (; traced_ < records.size(); ++traced_) {
            const Host::TraceRecord& r = records[traced_];
            if (r.channel != "SubscriptionTranslator") continue;
            EXPECT_EQ(r.file, "SubscriptionTranslator");
            if (r.level == 8) {  // function entries: counted by line and flags, the row left out
                const std::string head = r.message.substr(0, r.message.find('{'));
                const std::size_t close = head.find(')') + 1, colon = head.rfind(": ");
                // The signature, as a trace reader greps for it, names the function reported.
                EXPECT_TRUE(kEntrySignatures.contains(head.substr(0, close))) << head;
                EXPECT_NE(head.find("SubscriptionTranslator::" + r.function + "("), std::string::npos)
                    << head;
                const std::string flags = colon > close ? head.substr(close, colon - close) : "";
                std::string key = std::to_string(r.line);
                for (std::size_t i = 0; i < flags.size();) {
                    const std::size_t end = std::min(flags.find_first_not_of("0123456789", i), flags.size());
                    key += end - i >= 2 ? "#" : flags.substr(i, std::max<std::size_t>(end - i, 1));
                    i = std::max(end, i + 1);
                }
                ++entryTraces_[key];
                continue;
            }
            if (r.level == 9 && (r.line == 642 || r.line == 653 || r.line == 891))
                continue;  // echoes of the row
            std::string message = r.message;
            for (const std::string prefix : {"Velta::Agent::SubscriptionTranslator::", "Velta::"})
                for (std::size_t at; (at = message.find(prefix)) != std::string::npos;)
                    message.erase(at, prefix.size());
            happened_ += "L" + std::to_string(r.level) + ":" + std::to_string(r.line) + " " + message + "\n";
        }
    }
    void record(const Host::EventLog::Entry& e) {
        using EntryKind = Host::EventLog::Entry::Kind;
        flushTraces();
        if (e.kind == EntryKind::hostCall) happened_ += "call " + Host::toString(*e.call) + "\n";
        if ((e.kind != EntryKind::write && e.kind != EntryKind::erase) || e.path == kExtSubs) return;
        std::string table = e.path == kExtPub                                    ? "extPub"
                            : e.path == kCtrlSubs                                ? "ctrlSub"
                            : e.path == kCtrlPub                                 ? "ctrlPub"
                            : e.path.find("/veCtrl/input/") != std::string::npos ? e.path
                                                                                 : "";
        if (table.empty()) return;
        happened_ += (e.kind == EntryKind::write ? "+" : "-") + table + " " + brief(e.row);
        for (const char* name : {"extSubsObserver_", "pubObserver_", "extPubObserver_"})
            if (translator_ && translator_->tableInterface(name)->activated())
                happened_ += std::string(" @") + name;
        happened_ += "\n";
    }

    ScopedDebugMask mask_{"SubscriptionTranslator", kTranscriptLevels};
    Host::TraceCapture capture_;
    std::size_t traced_ = 0;
    std::map<std::string, unsigned> entryTraces_;
    std::string happened_;
    Host::EventLog log_{[this](const Host::EventLog::Entry& e) { record(e); }};
};

}  // namespace Velta::Test
