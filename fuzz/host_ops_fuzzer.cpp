// Fuzz target: bytes become client and host operations on databases running a server translator, an
// external translator and an aggregator. Nothing may crash, leak or loop; a database that does not
// settle within the delivery bound ends the input (two translators in one database may mirror a
// publication for ever). Left out, as they stop the process by contract: a translator in an agent
// neither server nor external, and parameter lists of unequal length. A translator is destroyed only
// once none of its queries is pending (tests/scenarios/regressions/query-completion-after-stop.yaml).
#include <Velta/Agent/Aggregator.h>
#include <Velta/Agent/SubscriptionTranslator.h>
#include <Velta/Host/Database.h>
#include <Velta/Host/Debug.h>
#include <Velta/Records.h>

#include "ByteReader.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace {

using Velta::BaseRow;
using Velta::FieldKind;
using Velta::RowType;
namespace Host = Velta::Host;
using Velta::Agent::Aggregator;
using Velta::Agent::SubscriptionTranslator;

// clang-format off
const RowType& fuzzRowType() {
    static const RowType& t = Host::defineRowType("Fuzz::Row", {{"key", FieldKind::string}, {"oid", FieldKind::u32},
                                                  {"val", FieldKind::u64}, {"tags", FieldKind::strings}}, {"key"});
    return t;
}
constexpr std::array<const char*, 16> kPaths = {
    "velta/External/Subscription", "velta/External/Publication", "velta/veCtrl/subscription",
    "velta/veCtrl/publication", "velta/metadata/veTable", "velta/metadata/SystemDescription",
    "velta/External/input/edge/Subscription", "velta/veCtrl/input/edge/subscription", "velta/in/a/rows",
    "velta/in/b/rows", "velta/in/a/b/rows", "velta/in//rows", "velta/agg/out", "velta/out/q", "velta/out/r", ""};
constexpr std::array<const char*, 9> kTypes = {
    "External::Subscription", "External::Publication", "veCtrl::subscription", "veCtrl::publication",
    "veMetadata::veTable", "veMetadata::SystemDescription", "Fuzz::Row", "veMetadata::veClass", "No::Such"};
constexpr std::array<const char*, 8> kTexts = {
    "SELECT * FROM velta/out/q", "SELECT * INTO velta/out/q", "SELECT tablePath FROM velta/metadata/veTable",
    "SELECT x FROM velta/nowhere", "SELECT * FROM ", "SELECT * INTO ", "", "FROM"};
// clang-format on

// Every byte is consumed in a statement of its own, never two within one argument list, whose
// order of evaluation differs between compilers: a saved input must decode to the same program in
// the libFuzzer build (clang) and in the replay tests (any compiler).
class Harness {
public:
    explicit Harness(VeltaFuzz::ByteReader& in) : in_(in) {
        fuzzRowType();
        // The first byte: bit 0 the server process, bit 1 one database for all, where the agents'
        // registrations race and clients may damage the metadata (regressions/host_ops/ pins those).
        const int shape = in_.inRange<int>(0, 3);
        Host::Database::serverProcessIs((shape & 1) != 0);
        const bool oneDatabase = (shape & 2) != 0;
        Host::Database::Options options;
        options.autoPublish = in_.boolean();
        options.manualQueries = in_.boolean();
        options.deliveryBound = 20000;
        if (in_.boolean()) options.shuffleSeed = in_.integral<std::uint16_t>() + 1u;
        serverDb_ = Host::Database::create(options);
        edgeDb_ = oneDatabase ? serverDb_ : Host::Database::create(options);
        serverHandle_ = serverDb_->connect({"server", "sysA", true, false, true});
        edgeHandle_ = edgeDb_->connect({"edge", "sysA", false, true, in_.boolean()});
        const std::uint32_t mask = in_.boolean() ? 0xffffffffu : 0u;
        for (const char* channel : {"SubscriptionTranslator", "Aggregator", "Schedulable"})
            Host::debugMaskIs(channel, mask);
        serverTranslator_ = std::make_unique<SubscriptionTranslator>(serverHandle_);
        edgeTranslator_ = std::make_unique<SubscriptionTranslator>(edgeHandle_);
        buildAggregator();
    }
    ~Harness() {
        aggregator_.reset();
        edgeTranslator_.reset();
        serverTranslator_.reset();
        Host::debugMasksClear();
    }

    void run() {
        for (int ops = 0; ops < 256 && in_.remaining() > 0; ++ops) {
            db_ = in_.inRange<int>(0, 2) != 0 ? serverDb_.get() : edgeDb_.get();
            step();
            if (!serverDb_->settled() || !edgeDb_->settled()) return;
        }
        serverDb_->runUntilIdle();
        if (edgeDb_ != serverDb_) edgeDb_->runUntilIdle();
    }

private:
    std::string path() {
        if (in_.inRange<int>(0, 7) == 0) return in_.string(64);
        return kPaths[in_.inRange<std::size_t>(0, kPaths.size() - 1)];
    }
    std::string typeName() {
        if (in_.inRange<int>(0, 15) == 0) return in_.string(32);
        return kTypes[in_.inRange<std::size_t>(0, kTypes.size() - 1)];
    }
    std::string text() {
        const int how = in_.inRange<int>(0, 3);
        if (how == 0) return in_.string(300);
        if (how == 1) return std::string(in_.inRange<std::size_t>(0, 5000), 'x');
        return kTexts[in_.inRange<std::size_t>(0, kTexts.size() - 1)];
    }
    const RowType* rowType() { return Host::findRowType(kTypes[in_.inRange<std::size_t>(0, 6)]); }
    std::string fixedOr(const char* fixed, std::size_t maxLength) {
        return in_.boolean() ? std::string(fixed) : in_.string(maxLength);
    }

    // A row of `type` with fields filled from the input; string lists of equal length wherever
    // a type has two of them (parameter names and values).
    BaseRow row(const RowType& type) {
        BaseRow r(type);
        const std::size_t listLength = in_.inRange<std::size_t>(0, 3);
        for (std::size_t f = 0; f < type.fields().size(); ++f) {
            const FieldKind kind = type.fields()[f].kind;
            if (kind != FieldKind::strings && !in_.boolean()) continue;
            const std::string& name = type.fields()[f].name;
            if (isNumberKind(kind)) {
                r.numberIs(f, in_.inRange<int>(0, 3) == 0 ? in_.integral<std::uint64_t>()
                                                          : in_.inRange<std::uint64_t>(0, 12));
            } else if (kind == FieldKind::string) {
                r.stringIs(f, name == "queryText"                           ? text()
                              : name == "outputPath" || name == "tablePath" ? path()
                              : name == "typeName"                          ? typeName()
                              : name == "sysName"                           ? fixedOr("sysA", 16)
                              : name == "agentName"                         ? fixedOr("edge", 16)
                                                                            : in_.string(24));
            } else {
                std::vector<std::string> list;
                for (std::size_t i = 0; i < listLength; ++i) list.push_back(in_.string(12));
                r.stringsIs(f, std::move(list));
            }
        }
        return r;
    }

    // Fails the agent's pending queries by hand and delivers; false when some are still pending.
    static bool queriesSettled(Host::Database& db, const std::string& agent) {
        auto pending = [&db, &agent]() -> const Host::QueryInfo* {
            for (const Host::QueryInfo& q : db.queries())
                if (q.agent == agent && q.state == Host::QueryInfo::State::pending) return &q;
            return nullptr;
        };
        for (const Host::QueryInfo* q = pending(); q != nullptr; q = pending()) {
            if (!db.completeQuery(std::string(q->text), false, "translator going away")) break;
            db.runUntilIdle();
            if (!db.settled()) break;
        }
        db.runUntilIdle();
        return pending() == nullptr;
    }

    BaseRow pickRow(const std::string& p) {
        const std::vector<BaseRow> rows = db_->rows(p);
        return rows.empty() ? BaseRow() : rows[in_.inRange<std::size_t>(0, rows.size() - 1)];
    }

    void buildAggregator() {
        const bool deleteWithoutReplacement = in_.boolean();
        const bool enabled = in_.inRange<int>(0, 3) != 0;
        const bool bindFlag = in_.boolean();
        aggregator_ = std::make_unique<Aggregator>(edgeHandle_, "velta/in/", "/rows", "velta/agg/out",
                                                   "Fuzz::Row", deleteWithoutReplacement, enabled, bindFlag);
        if (in_.boolean()) aggregator_->suppressResyncIs(true);
    }

    void step() {
        switch (in_.inRange<int>(0, 19)) {
            case 0:
            case 1: {  // a row of a known type into its own kind of table or any other
                const RowType* t = rowType();
                if (!t) return;
                const std::string p = path();
                db_->write(p, row(*t));
                break;
            }
            case 2: {
                const std::string p = path();
                if (const BaseRow victim = pickRow(p); !victim.empty()) db_->erase(p, victim);
                break;
            }
            case 3: {
                const RowType* t = rowType();
                const std::string p = path();
                if (t) db_->erase(p, row(*t));
                break;
            }
            case 4: {
                const std::string t = typeName();
                const std::string p = path();
                const std::string owner = in_.string(8);
                if (Host::findRowType(t)) db_->createTable(p, t, owner);
                break;
            }
            case 5:
                db_->dropTable(path());
                break;
            case 6:
            case 7:
                db_->runUntilIdle();
                break;
            case 8:
                for (int n = in_.inRange<int>(0, 20); n > 0 && db_->runOne();) --n;
                break;
            case 9:
                if (!aggregator_)
                    buildAggregator();
                else if (in_.boolean())
                    aggregator_.reset();
                else
                    aggregator_->enableIs(in_.boolean());
                break;
            case 10:
                if (!aggregator_) break;
                if (const int what = in_.inRange<int>(0, 2); what == 0)
                    aggregator_->suppressResyncIs(in_.boolean());
                else if (what == 1)
                    aggregator_->scheduledIs(in_.boolean());
                else if (auto input = aggregator_->inputTable(path()))
                    input->outputBlocked(in_.boolean());
                break;
            case 11: {
                const bool server = in_.boolean();
                auto& t = server ? serverTranslator_ : edgeTranslator_;
                auto& h = server ? serverHandle_ : edgeHandle_;
                const bool destroyOnly = in_.boolean();
                if (t && !queriesSettled(server ? *serverDb_ : *edgeDb_, h->agentName())) break;
                if (t && destroyOnly)
                    t.reset();
                else
                    t = std::make_unique<SubscriptionTranslator>(h);
                break;
            }
            case 12: {
                auto& t = in_.boolean() ? serverTranslator_ : edgeTranslator_;
                if (!t) break;
                if (in_.inRange<int>(0, 3) == 0)
                    t->clean();
                else
                    t->onTableReady();
                break;
            }
            case 13:
                for (const Host::QueryInfo& q : db_->queries())
                    if (q.state == Host::QueryInfo::State::pending) {
                        const bool ok = in_.boolean();
                        const std::string error = in_.string(20);
                        db_->completeQuery(q.text, ok, error);
                        break;
                    }
                break;
            case 14:
                db_->clockAdvance(in_.integral<std::uint16_t>());
                break;
            case 15: {  // a subscription into the shared or the per-client table
                const char* p = in_.boolean() ? kPaths[0] : kPaths[6];
                db_->write(p, row(*Host::findRowType("External::Subscription")));
                break;
            }
            case 16:  // a system description
                db_->write(kPaths[5], row(*Host::findRowType("veMetadata::SystemDescription")));
                break;
            case 17: {  // an input row for the aggregator
                db_ = edgeDb_.get();
                const std::string p = in_.boolean() ? "velta/in/a/rows" : "velta/in/b/rows";
                if (!db_->hasTable(p)) db_->createTable(p, "Fuzz::Row");
                if (db_->tableType(p) == &fuzzRowType()) db_->write(p, row(fuzzRowType()));
                break;
            }
            case 18: {  // a publication on either side, for an existing subscription
                const BaseRow sub = pickRow(kPaths[in_.boolean() ? 0 : 2]);
                const bool external = in_.boolean();
                BaseRow pub =
                    row(*Host::findRowType(external ? "External::Publication" : "veCtrl::publication"));
                if (!sub.empty()) pub.numberIs(0, sub.number(0));  // subscription_id <- oid
                db_->write(external ? kPaths[1] : kPaths[3], pub);
                break;
            }
            default:  // the output's view: who supplied a row
                db_ = edgeDb_.get();
                if (const BaseRow out = aggregator_ ? pickRow("velta/agg/out") : BaseRow(); !out.empty())
                    (void)aggregator_->outputRowSource(out);
                break;
        }
    }

    VeltaFuzz::ByteReader& in_;
    std::shared_ptr<Host::Database> serverDb_;
    std::shared_ptr<Host::Database> edgeDb_;
    Host::Database* db_ = nullptr;  // the database the current step acts on
    Velta::VeltaDB::p_t serverHandle_;
    Velta::VeltaDB::p_t edgeHandle_;
    std::unique_ptr<SubscriptionTranslator> serverTranslator_;
    std::unique_ptr<SubscriptionTranslator> edgeTranslator_;
    std::unique_ptr<Aggregator> aggregator_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    VeltaFuzz::ByteReader in(data, size);
    Host::TraceCapture capture;  // traces, when on, are kept in memory rather than printed
    Harness harness(in);
    harness.run();
    return 0;
}
