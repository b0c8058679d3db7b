// Running a scenario: a fresh database, one handle per started agent object, each step carried out
// in order, each expectation checked after the queued callbacks have been delivered.
#include "Runner.h"

#include "Format.h"
#include "Text.h"

#include <Velta/Agent/Aggregator.h>
#include <Velta/Agent/SubscriptionTranslator.h>
#include <Velta/Host/Debug.h>
#include <Velta/Host/ForwardingVeltaDB.h>

#include <algorithm>
#include <map>
#include <memory>
#include <new>
#include <unordered_map>

namespace VeltaSim {

using Velta::BaseRow;
using Velta::RowType;
using Velta::VeltaDB;
using Velta::VeTableInterface;
using Velta::Agent::Aggregator;
using Velta::Agent::SubscriptionTranslator;
using Velta::Host::Database;

namespace {

// Which agent object bound each interface, for the timeline. Filled as interfaces are bound; an
// address reused by a later interface is relabelled when that interface is bound.
using InterfaceLabels = std::unordered_map<const VeTableInterface*, std::string>;

// The handle an agent object receives: the host's own handle for that agent, which it alone
// references, seen through a layer that notes which object binds which interface.
class LabelledHandle final : public Velta::Host::ForwardingVeltaDB {
public:
    LabelledHandle(VeltaDB::p_t inner, std::string label, InterfaceLabels* labels)
        : ForwardingVeltaDB(std::move(inner)), label_(std::move(label)), labels_(labels) {}

    void bindInterface(VeTableInterface& iface, const std::string& path, bool flag) override {
        if (labels_ != nullptr) (*labels_)[&iface] = label_;
        ForwardingVeltaDB::bindInterface(iface, path, flag);
    }

private:
    std::string label_;
    InterfaceLabels* labels_;
};

std::string keyText(const BaseRow& row) {
    if (row.empty()) return "";
    const auto& keys = row.rowType()->keyFields();
    return formatFields(row, std::vector<std::size_t>(keys.begin(), keys.end()));
}

// The timeline view: every delivery, and under it the changes and host calls it made.
class Timeline {
public:
    using Entry = Velta::Host::EventLog::Entry;
    using Delivery = Velta::Host::EventListener::Delivery;

    Timeline(const InterfaceLabels& labels, std::function<void(const std::string&)> out)
        : labels_(labels), out_(std::move(out)), log_([this](const Entry& e) { show(e); }) {}

    Velta::Host::EventListener* listener() noexcept { return &log_; }

private:
    void show(const Entry& e) {
        switch (e.kind) {
            case Entry::Kind::deliveryBegin:
                out_(deliveryLine(e) + "\n");
                break;
            case Entry::Kind::deliveryEnd:
                break;
            case Entry::Kind::write:
                change(e, "write " + e.path + " " + formatFields(e.row, keyAndSetFields(e.row)));
                break;
            case Entry::Kind::erase:
                change(e, "delete " + e.path + " " + keyText(e.row));
                break;
            case Entry::Kind::hostCall:
                change(e, "call " + formatCall(*e.call));
                break;
            case Entry::Kind::tableCreated:
                change(e, "create table " + e.path);
                break;
            case Entry::Kind::tableDropped:
                change(e, "drop table " + e.path);
                break;
        }
    }

    std::string deliveryLine(const Entry& e) {
        std::string line = "  #" + std::to_string(++count_) + " ";
        if (e.iface == nullptr) return line + "host " + e.what;
        const auto it = labels_.find(e.iface);
        line += (it != labels_.end() ? it->second : std::string("?")) + " " + e.ifName + " [" +
                e.iface->tablePath() + "] ";
        switch (e.delivery) {
            case Delivery::ready:
                return line + "ready";
            case Delivery::row:
                return line + "row " + keyText(e.row);
            case Delivery::rowDelete:
                return line + "delete " + keyText(e.row);
            case Delivery::hostTask:
                return line + "task " + e.what;
        }
        return line;
    }

    // Changes made by a delivery sit under it; those the step made directly sit under the step.
    void change(const Entry& e, const std::string& text) {
        out_((e.depth > 0 ? "      " : "  ") + text + "\n");
    }

    const InterfaceLabels& labels_;
    std::function<void(const std::string&)> out_;
    std::size_t count_ = 0;
    Velta::Host::EventLog log_;
};

std::string entryText(const Velta::Agent::SubscriptionEntry& e) {
    return "{writer: " + std::string(e.writer ? "true" : "false") +
           ", reader: " + (e.reader ? "true" : "false") + ", externalOid: " + std::to_string(e.externalOid) +
           ", tableOid: " + std::to_string(e.tableOid) + ", typeId: " + std::to_string(e.typeId) +
           ", sid: " + std::to_string(e.sid) + "}";
}

std::string expectedEntryText(const ExpectRegistry& x) {
    std::string out;
    auto add = [&out](const char* name, const std::string& value) {
        if (!out.empty()) out += ", ";
        out += std::string(name) + ": " + value;
    };
    if (x.writer) add("writer", *x.writer ? "true" : "false");
    if (x.reader) add("reader", *x.reader ? "true" : "false");
    if (x.externalOid) add("externalOid", std::to_string(*x.externalOid));
    if (x.tableOid) add("tableOid", std::to_string(*x.tableOid));
    if (x.typeId) add("typeId", std::to_string(*x.typeId));
    if (x.sid) add("sid", std::to_string(*x.sid));
    return "{" + out + "}";
}

std::string traceText(const Velta::Host::TraceRecord& r) { return Velta::Host::toString(r); }

std::string describe(const Step& step) {
    struct Describer {
        std::string operator()(const Start& s) const {
            const AgentObject& o = s.object;
            if (o.aggregator.empty()) return "start translator on " + o.agent;
            return "start aggregator " + o.aggregator + " on " + o.agent + " (" + s.inputPrefix + "*" +
                   s.inputSuffix + " -> " + s.output + ")";
        }
        std::string operator()(const Stop& s) const {
            const AgentObject& o = s.object;
            if (o.aggregator.empty()) return "stop translator on " + o.agent;
            return "stop aggregator " + o.aggregator + " on " + o.agent;
        }
        std::string operator()(const Call& s) const {
            const AgentObject& o = s.object;
            if (o.aggregator.empty()) return "call clean on translator of " + o.agent;
            static const char* const names[] = {"clean", "enableIs", "suppressResyncIs", "scheduledIs",
                                                "outputBlocked"};
            return std::string("call ") + names[static_cast<int>(s.op)] + "(" + (s.value ? "true" : "false") +
                   ")" + (s.input.empty() ? "" : " on input " + s.input) + " of aggregator " + o.aggregator +
                   " on " + o.agent;
        }
        std::string operator()(const CreateTable& s) const {
            return "create_table " + s.path + " (" + s.type + ")";
        }
        std::string operator()(const DropTable& s) const { return "drop_table " + s.path; }
        std::string operator()(const Write& s) const { return "write " + s.path; }
        std::string operator()(const Delete& s) const { return "delete " + s.path + " " + formatSpec(s.key); }
        std::string operator()(const Run&) const { return "run"; }
        std::string operator()(const Clock& s) const { return "clock advance " + std::to_string(s.advance); }
        std::string operator()(const CompleteQuery& s) const { return "complete_query " + yamlText(s.text); }
        std::string operator()(const ClearTraces&) const { return "clear_traces"; }
        std::string operator()(const Dump& s) const { return "dump " + s.path; }
        std::string operator()(const ExpectRows& s) const { return "expect_rows " + s.path; }
        std::string operator()(const ExpectRow& s) const {
            return "expect_row " + s.path + " " + formatSpec(s.key);
        }
        std::string operator()(const ExpectCalls&) const { return "expect_calls"; }
        std::string operator()(const ExpectTrace& s) const {
            return "expect_trace " + patternText(s.pattern);
        }
        std::string operator()(const ExpectNoTrace& s) const {
            return "expect_no_trace " + patternText(s.pattern);
        }
        static std::string patternText(const TracePattern& p) {
            return p.channel + "[" + std::to_string(p.level) + "]";
        }
        std::string operator()(const ExpectRegistry& s) const { return "expect_registry on " + s.agent; }
        std::string operator()(const ExpectExternalId& s) const { return "expect_external_id on " + s.agent; }
    };
    return std::visit(Describer{}, step.action);
}

class Runner {
public:
    Runner(const Scenario& scenario, const RunOptions& options) : scenario_(scenario), options_(options) {}

    RunResult run() {
        Velta::Host::debugMasksClear();
        for (const auto& [channel, mask] : scenario_.traceMasks) Velta::Host::debugMaskIs(channel, mask);
        Database::serverProcessIs(scenario_.serverProcess);
        capture_ = std::make_unique<Velta::Host::TraceCapture>();
        bool stopped = false;
        try {
            for (const RowTypeDef& def : scenario_.rowTypes) {
                try {
                    Velta::Host::defineRowType(def.name, def.fields, def.key);
                } catch (const std::invalid_argument&) {
                    // Row types are process-wide: a scenario run earlier in this process (--no-fork)
                    // gave the name another definition.
                    if (Velta::Host::findRowType(def.name) == nullptr) throw;
                    throw std::invalid_argument(
                        "row type " + def.name + " (line " + std::to_string(def.mark.line) +
                        ") is already defined differently by a scenario run earlier in "
                        "this process, as under --no-fork");
                }
            }
            Database::Options dbOptions;
            dbOptions.autoPublish = scenario_.autoPublish;
            dbOptions.manualQueries = scenario_.manualQueries;
            dbOptions.shuffleSeed = options_.shuffleSeed;
            if (options_.deliveryBound != 0) dbOptions.deliveryBound = options_.deliveryBound;
            db_ = Database::create(dbOptions);
            if (options_.timeline) {
                timeline_ =
                    std::make_unique<Timeline>(labels_, [this](const std::string& text) { view(text); });
                db_->listenerIs(timeline_->listener());
            }
            for (const Step& step : scenario_.steps) {
                current_ = &step;
                headerShown_ = false;
                if (options_.onStep) options_.onStep(step);
                if (options_.timeline) stepHeader();
                bool goOn = true;
                try {
                    goOn = perform(step);
                } catch (const std::bad_alloc&) {
                    fail(step, "velta-sim ran out of memory");
                    goOn = false;
                } catch (const std::exception& e) {
                    fail(step, std::string("the host refused: ") + e.what());
                    goOn = false;
                }
                showTraces();
                if (!goOn) {
                    stopped = true;
                    break;
                }
            }
            current_ = nullptr;
            if (options_.dump) dumpAll();
        } catch (const std::exception& e) {
            Failure failure;
            failure.message = std::string("the run could not go on: ") + e.what();
            record(std::move(failure));
            stopped = true;
        }
        teardown();
        result_.completed = !stopped;
        return std::move(result_);
    }

private:
    struct AgentObjects {
        std::unique_ptr<SubscriptionTranslator> translator;
        std::map<std::string, std::unique_ptr<Aggregator>> aggregators;
    };

    const Scenario& scenario_;
    const RunOptions& options_;
    RunResult result_;
    std::shared_ptr<Database> db_;
    std::unique_ptr<Velta::Host::TraceCapture> capture_;
    InterfaceLabels labels_;
    std::unique_ptr<Timeline> timeline_;
    std::map<std::string, AgentObjects> agents_;
    std::size_t callsSeen_ = 0;
    std::size_t tracesShown_ = 0;
    const Step* current_ = nullptr;
    bool headerShown_ = false;

    void teardown() {
        try {
            if (db_) db_->listenerIs(nullptr);
            for (auto& [name, objects] : agents_) {
                objects.aggregators.clear();
                objects.translator.reset();
            }
            agents_.clear();
            db_.reset();
        } catch (const std::exception& e) {
            Failure failure;
            failure.message = std::string("tearing the agents down failed: ") + e.what();
            record(std::move(failure));
        }
        timeline_.reset();
        capture_.reset();
        Velta::Host::debugMasksClear();
        Database::serverProcessIs(false);
    }

    void view(const std::string& text) {
        if (options_.onView)
            options_.onView(text);
        else
            result_.views += text;
    }

    void stepHeader() {
        if (headerShown_ || current_ == nullptr) return;
        headerShown_ = true;
        view("step " + std::to_string(current_->number) + " (line " + std::to_string(current_->mark.line) +
             "): " + describe(*current_) + "\n");
    }

    void record(Failure failure) {
        // The timeline marks the failure where it happened; the report gives it in full above.
        if (options_.timeline && failure.step != 0) view("  failed: " + failure.message + "\n");
        if (options_.onFailure) options_.onFailure(failure);
        result_.failures.push_back(std::move(failure));
    }

    void fail(const Step& step, std::string message, std::vector<std::string> details = {}) {
        Failure failure;
        failure.step = step.number;
        failure.line = step.mark.line;
        failure.keyword = step.keyword;
        failure.message = std::move(message);
        failure.details = std::move(details);
        record(std::move(failure));
    }

    void showTraces() {
        if (!options_.trace || !capture_) return;
        const auto& records = capture_->records();
        if (tracesShown_ >= records.size()) return;
        stepHeader();
        for (; tracesShown_ < records.size(); ++tracesShown_)
            view("  trace " + traceText(records[tracesShown_]) + "\n");
    }

    VeltaDB::p_t handleFor(const std::string& agent, const std::string& label) {
        const AgentDecl& decl = *scenario_.agent(agent);
        Velta::Host::AgentOptions options;
        options.agentName = decl.name;
        options.systemName = decl.system;
        options.serverAgent = decl.serverAgent;
        options.external = decl.external;
        options.standalone = decl.standalone;
        return std::make_shared<LabelledHandle>(db_->connect(options), label, &labels_);
    }

    // Delivers queued callbacks; false (after recording the failure) when they do not settle.
    bool deliver(const Step& step) {
        const std::size_t delivered = db_->runUntilIdle();
        if (db_->settled()) return true;
        fail(step, "did not settle after " + std::to_string(delivered) + " callbacks");
        return false;
    }

    // Carries out one step; false when the run cannot go on.
    bool perform(const Step& step) {
        if (step.isExpectation() && !deliver(step)) return false;
        return std::visit([&](const auto& action) { return perform(step, action); }, step.action);
    }

    bool perform(const Step&, const Start& s) {
        const AgentObject& o = s.object;
        if (o.aggregator.empty()) {
            agents_[o.agent].translator =
                std::make_unique<SubscriptionTranslator>(handleFor(o.agent, o.agent));
            return true;
        }
        agents_[o.agent].aggregators[o.aggregator] = std::make_unique<Aggregator>(
            handleFor(o.agent, o.agent + "/" + o.aggregator), s.inputPrefix, s.inputSuffix, s.output,
            s.rowType, s.deleteWithoutReplacement, s.enabled, s.bindFlag);
        return true;
    }
    bool perform(const Step&, const Stop& s) {
        if (s.object.aggregator.empty())
            agents_[s.object.agent].translator.reset();
        else
            agents_[s.object.agent].aggregators.erase(s.object.aggregator);
        return true;
    }
    bool perform(const Step& step, const Call& s) {
        const AgentObject& o = s.object;
        if (s.op == Call::Op::clean) {
            agents_[o.agent].translator->clean();
            return true;
        }
        Aggregator& aggregator = *agents_[o.agent].aggregators.at(o.aggregator);
        switch (s.op) {
            case Call::Op::clean:
                break;
            case Call::Op::enableIs:
                aggregator.enableIs(s.value);
                break;
            case Call::Op::suppressResyncIs:
                aggregator.suppressResyncIs(s.value);
                break;
            case Call::Op::scheduledIs:
                aggregator.scheduledIs(s.value);
                break;
            case Call::Op::outputBlocked: {
                const auto input = aggregator.inputTable(s.input);
                if (!input) {
                    std::vector<std::string> details;
                    for (const std::string& path : aggregator.inputPaths())
                        details.push_back("  input " + path);
                    fail(step, "aggregator " + o.aggregator + " has no input table " + s.input,
                         std::move(details));
                    break;
                }
                input->outputBlocked(s.value);
                break;
            }
        }
        return true;
    }
    bool perform(const Step& step, const CreateTable& s) {
        // An agent's write makes a dropped table again, with the agent's row type, and the checker
        // cannot see it coming.
        if (const RowType* type = db_->tableType(s.path); type != nullptr && type->name() != s.type)
            fail(step,
                 "table " + s.path + " exists again, with row type " + type->name() + ", not " + s.type);
        else
            db_->createTable(s.path, s.type, s.owner, s.oid);
        return true;
    }
    bool perform(const Step& step, const DropTable& s) {
        if (!db_->dropTable(s.path)) fail(step, "there is no table " + s.path + " to drop");
        return true;
    }
    bool perform(const Step&, const Write& s) {
        for (const RowSpec& row : s.rows) db_->write(s.path, buildRow(row));
        return true;
    }
    bool perform(const Step&, const Delete& s) {
        db_->erase(s.path, buildRow(s.key));
        return true;
    }
    bool perform(const Step& step, const Run&) { return deliver(step); }
    bool perform(const Step&, const Clock& s) {
        db_->clockAdvance(s.advance);
        return true;
    }
    bool perform(const Step& step, const CompleteQuery& s) {
        if (db_->completeQuery(s.text, s.ok, s.error)) return true;
        // A query whose agent object was stopped stays pending for ever: its completion would reach
        // nobody, so the host does not count it.
        std::vector<std::string> details;
        for (const auto& q : db_->queries())
            if (q.state == Velta::Host::QueryInfo::State::pending)
                details.push_back("+ pending: " + yamlText(q.text) +
                                  (q.definerGone ? "   (its agent object was stopped)" : ""));
        if (details.empty()) details.push_back("+ no query is pending");
        fail(step,
             "no pending query with text " + yamlText(s.text) + " whose completion can still be delivered",
             std::move(details));
        return true;
    }
    bool perform(const Step&, const ClearTraces&) {
        showTraces();
        capture_->clear();
        tracesShown_ = 0;
        return true;
    }
    bool perform(const Step&, const Dump& s) {
        stepHeader();
        dumpTable(s.path, true);
        return true;
    }

    bool perform(const Step& step, const ExpectRows& s) {
        const std::vector<BaseRow> found = db_->rows(s.path);
        auto same = [&](const RowSpec& listed, const BaseRow& row) { return holds(s.path, row, listed); };
        bool equal = found.size() == s.rows.size();
        for (std::size_t i = 0; equal && i < found.size(); ++i) equal = same(s.rows[i], found[i]);
        if (equal) return true;
        std::vector<const RowSpec*> specs;
        for (const RowSpec& listed : s.rows) specs.push_back(&listed);
        const ShowAs as(found.empty() ? BaseRow() : found.front(), specs);  // the table's rows share a type
        auto showFound = [&](const BaseRow& row) { return shown(s.path, row, as); };
        auto diff = diffLines(
            s.rows, found, same, [](const RowSpec& listed) { return formatSpec(listed); }, showFound);
        const std::string message = found.size() == s.rows.size()
                                        ? s.path + ": the rows differ"
                                        : s.path + ": " + counted(s.rows.size(), "row") + " expected, " +
                                              std::to_string(found.size()) + " found";
        fail(step, message, std::move(diff));
        return true;
    }

    bool perform(const Step& step, const ExpectRow& s) {
        const BaseRow found = db_->read(s.path, buildRow(s.key), 0);
        const std::string key = formatSpec(s.key);
        if (!s.row) {
            if (!found.empty())
                fail(step, s.path + ": the row with key " + key + " was expected absent",
                     {"+ " + shown(s.path, found, {})});
            return true;
        }
        if (found.empty()) {
            fail(step, s.path + ": no row with key " + key, {"- " + formatSpec(*s.row), "+ (no row)"});
        } else if (!holds(s.path, found, *s.row)) {
            fail(step, s.path + ": the row with key " + key + " differs",
                 {"- " + formatSpec(*s.row), "+ " + shown(s.path, found, {&*s.row})});
        }
        return true;
    }

    bool perform(const Step& step, const ExpectCalls& s) {
        const auto& all = db_->calls();
        const std::vector<Velta::Host::HostCall> found(
            all.begin() + static_cast<std::ptrdiff_t>(std::min(callsSeen_, all.size())), all.end());
        callsSeen_ = all.size();
        const std::size_t sinceStep = callsSeenStep_;
        callsSeenStep_ = step.number;
        bool same = found.size() == s.calls.size();
        for (std::size_t i = 0; same && i < found.size(); ++i) same = matches(found[i], s.calls[i]);
        if (same) return true;
        auto diff = diffLines(
            s.calls, found,
            [](const ExpectedCall& e, const Velta::Host::HostCall& c) { return matches(c, e); },
            [](const ExpectedCall& e) { return formatExpectedCall(e); },
            [](const Velta::Host::HostCall& c) { return formatCall(c) + "   (by " + c.agent + ")"; });
        const std::string message = found.size() == s.calls.size()
                                        ? std::string("the host calls differ")
                                        : counted(s.calls.size(), "host call") + " expected, " +
                                              std::to_string(found.size()) + " made";
        fail(step,
             message + " since " +
                 (sinceStep == 0 ? std::string("the start") : "step " + std::to_string(sinceStep)),
             std::move(diff));
        return true;
    }
    std::size_t callsSeenStep_ = 0;

    static bool traceMatches(const Velta::Host::TraceRecord& r, const TracePattern& p) {
        if (r.channel != p.channel || r.level != p.level) return false;
        if (p.text && r.message != *p.text) return false;
        if (p.contains && r.message.find(*p.contains) == std::string::npos) return false;
        if (p.line && r.line != *p.line) return false;
        if (p.function && r.function != *p.function) return false;
        return true;
    }

    static std::string wantedText(const TracePattern& p) {
        std::string wanted = p.channel + "[" + std::to_string(p.level) + "] " +
                             (p.text ? yamlText(*p.text) : "containing " + yamlText(*p.contains));
        if (p.line) wanted += " at line " + std::to_string(*p.line);
        if (p.function) wanted += " in " + *p.function;
        return wanted;
    }

    bool perform(const Step& step, const ExpectNoTrace& s) {
        std::vector<std::string> details;
        for (const auto& r : capture_->records())
            if (traceMatches(r, s.pattern)) details.push_back("+ " + traceText(r));
        if (!details.empty()) fail(step, "unexpected trace " + wantedText(s.pattern), std::move(details));
        return true;
    }

    bool perform(const Step& step, const ExpectTrace& s) {
        const TracePattern& p = s.pattern;
        const auto& records = capture_->records();
        for (const auto& r : records)
            if (traceMatches(r, p)) return true;
        // Show what was captured instead: of the same level if any, else of the channel; the
        // latest ones, which are the likeliest to be the one meant.
        std::vector<const Velta::Host::TraceRecord*> candidates;
        for (const auto& r : records)
            if (r.channel == p.channel && r.level == p.level) candidates.push_back(&r);
        if (candidates.empty())
            for (const auto& r : records)
                if (r.channel == p.channel) candidates.push_back(&r);
        const std::string wanted = wantedText(p);
        std::vector<std::string> details{"- " + wanted};
        const std::size_t limit = 12;
        if (candidates.size() > limit) {
            details.push_back("+ (" + std::to_string(candidates.size() - limit) +
                              " earlier traces not shown)");
            candidates.erase(candidates.begin(), candidates.end() - static_cast<std::ptrdiff_t>(limit));
        }
        for (const auto* r : candidates) details.push_back("+ " + traceText(*r));
        if (candidates.empty()) details.push_back("+ (no trace of channel " + p.channel + " captured)");
        fail(step, "no trace " + wanted, std::move(details));
        return true;
    }

    bool perform(const Step& step, const ExpectRegistry& s) {
        Velta::External::Subscription key;
        key.system_descriptionIs(s.systemDescription);
        key.outputPathIs(s.outputPath);
        const auto entry = agents_[s.agent].translator->subscription(key);
        const std::string keyText = "{system_description: " + std::to_string(s.systemDescription) +
                                    ", outputPath: " + yamlText(s.outputPath) + "}";
        if (s.absent) {
            if (entry)
                fail(step, "the registry of " + s.agent + " has an entry for " + keyText,
                     {"+ " + entryText(*entry)});
            return true;
        }
        if (!entry) {
            fail(step, "the registry of " + s.agent + " has no entry for " + keyText,
                 {"- " + expectedEntryText(s), "+ (no entry)"});
            return true;
        }
        const bool same = (!s.writer || *s.writer == entry->writer) &&
                          (!s.reader || *s.reader == entry->reader) &&
                          (!s.externalOid || *s.externalOid == entry->externalOid) &&
                          (!s.tableOid || *s.tableOid == entry->tableOid) &&
                          (!s.typeId || *s.typeId == entry->typeId) && (!s.sid || *s.sid == entry->sid);
        if (!same)
            fail(step, "the registry entry of " + s.agent + " for " + keyText + " differs",
                 {"- " + expectedEntryText(s), "+ " + entryText(*entry)});
        return true;
    }

    bool perform(const Step& step, const ExpectExternalId& s) {
        const std::uint32_t found = agents_[s.agent].translator->externalSubscriptionId(s.sid);
        if (found != s.oid)
            fail(step, "externalSubscriptionId(" + std::to_string(s.sid) + ") of " + s.agent + " is " +
                           std::to_string(found) + ", expected " + std::to_string(s.oid));
        return true;
    }

    // Provenance: the input that supplies `row` of `path` as an aggregator writing that table reports
    // it; "" when no running aggregator names one. Of two aggregators writing the table that both
    // name an input for the key, the one whose input row holds the row's values wrote it last.
    std::string sourceOf(const std::string& path, const BaseRow& row) const {
        std::string first;
        for (const auto& [name, objects] : agents_)
            for (const auto& [id, aggregator] : objects.aggregators) {
                if (aggregator->outputPath() != path) continue;
                // Asked in the aggregator's own row type: the table may have been made with another.
                const RowType* type = Velta::Host::findRowType(aggregator->output().rowTypeName());
                const BaseRow key = type != nullptr && type != row.rowType() ? row.as(*type) : row;
                std::string source = aggregator->outputRowSource(key);
                if (source.empty()) continue;
                const BaseRow supplied = db_->read(source, key);
                if (!supplied.empty() && supplied.as(*row.rowType()).equals(row)) return source;
                if (first.empty()) first = std::move(source);
            }
        return first;
    }
    bool writtenByAggregator(const std::string& path) const {
        for (const auto& [name, objects] : agents_)
            for (const auto& [id, aggregator] : objects.aggregators)
                if (aggregator->outputPath() == path) return true;
        return false;
    }

    // True when `row` has the values `listed` names, and the source it names if it names one.
    bool holds(const std::string& path, const BaseRow& row, const RowSpec& listed) const {
        return matches(row, listed) && (!listed.from || *listed.from == sourceOf(path, row));
    }
    // How a diff shows found rows of one type against `specs`: the fields they name (with none, each
    // row's key and set fields), and each row's source when one of them names a source. Worked out
    // once for all the rows of a diff.
    struct ShowAs {
        ShowAs(const BaseRow& sample, const std::vector<const RowSpec*>& specs)
            : named(!specs.empty()),
              fields(named ? fieldsNamed(sample, specs) : std::vector<std::size_t>()),
              withSource(std::any_of(specs.begin(), specs.end(),
                                     [](const RowSpec* listed) { return listed->from.has_value(); })) {}
        bool named;
        std::vector<std::size_t> fields;
        bool withSource;
    };
    std::string shown(const std::string& path, const BaseRow& row,
                      const std::vector<const RowSpec*>& specs) const {
        return shown(path, row, ShowAs(row, specs));
    }
    std::string shown(const std::string& path, const BaseRow& row, const ShowAs& as) const {
        std::string text = formatFields(row, as.named ? as.fields : keyAndSetFields(row));
        if (as.withSource && !row.empty())
            text.insert(text.size() - 1,
                        (text.size() > 2 ? ", from: " : "from: ") + yamlText(sourceOf(path, row)));
        return text;
    }

    void dumpTable(const std::string& path, bool evenEmpty) {
        const Velta::RowType* type = db_->tableType(path);
        if (type == nullptr) {
            view("  table " + path + ": does not exist\n");
            return;
        }
        const std::vector<BaseRow> rows = db_->rows(path);
        if (rows.empty() && !evenEmpty) return;
        view("  table " + path + " (" + type->name() + ", " + counted(rows.size(), "row") + ")\n");
        if (rows.empty()) return;
        ExtraColumn provenance;
        if (writtenByAggregator(path)) {
            provenance.header = "<- input";
            for (const BaseRow& row : rows) {
                const std::string source = sourceOf(path, row);
                provenance.cells.push_back(source.empty() ? "(none)" : source);
            }
        }
        for (const std::string& line : formatTable(*type, rows, provenance)) view("    " + line + "\n");
    }

    void dumpAll() {
        view("tables at the end:\n");
        for (const std::string& path : db_->tablePaths()) dumpTable(path, false);
    }
};

}  // namespace

RunResult runScenario(const Scenario& scenario, const RunOptions& options) {
    try {
        return Runner(scenario, options).run();
    } catch (const std::exception& e) {
        RunResult result;
        Failure failure;
        failure.message = std::string("the run failed: ") + e.what();
        result.failures.push_back(std::move(failure));
        return result;
    }
}

}  // namespace VeltaSim
