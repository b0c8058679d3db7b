// Translator churn: random streams of valid and invalid subscriptions, deletions, system
// descriptions that come and go, output tables created and dropped, and publications written and
// deleted on both sides, in all three kinds of agent. Nothing may crash or fail to settle, and:
//
// After every settle:
//   W. No registry entry survives its withdrawal: a key whose row was deleted from the shared table
//      (and is not there now) has no entry. Keys ever written through the per-client table are left
//      out (rows deleted there have no delete callback). Relies on every query being completed
//      within the settle that defined it. No control publication stays known once it is deleted.
//
// After two forced ready passes (onTableReady(), each followed by a settle; in a non-server agent
// one pass may register a table whose metadata row arrives only after the pass's sweep), W again and:
//   C1. Every valid live subscription of the shared table has exactly one control row for the
//       current oid of its output table, and it is exactly the row the subscription asks for
//       (valid() below says which are valid). Control rows for an older table at the same path may
//       remain: the sweep matches by oid only.
//   C2. No control row outlives its subscription or its system description (bit 0 set).
//       Per-client subscriptions, handled with oid 0, have none after a pass.
//   P.  Server agent: every live subscription has exactly one client publication row, and every
//       client publication row belongs to a live subscription.
//   R.  Each valid subscription of C1 has a registry entry with the table's oid and its own oid and,
//       where the control row is read back from the table it was written to, the control row's oid
//       as sid, which maps back through externalSubscriptionId. (A per-agent translator in the
//       server process reads back from the shared table and records sid 0.)
//
// The streams keep to the contracts: host-side publications name a control row and its table, or
// none (one naming another table's id would complete that other subscription, which voids R), and
// parameter lists have equal lengths (unequal ones stop the process).
//
// VELTA_CHURN_SEED=S replays one history; VELTA_CHURN_HISTORIES=N sets the count per agent kind.
#include "TestSupport.h"  // also the standard headers its helpers use: strings, streams, containers

#include <Velta/Agent/SubscriptionTranslator.h>

#include <array>
#include <iostream>
#include <optional>
#include <random>
#include <set>

namespace {

using namespace Velta;
using Test::makeRecord;
using Test::rowOf;

constexpr const char* kSubsPath = "velta/External/Subscription";
constexpr const char* kPubPath = "velta/External/Publication";
constexpr const char* kCtrlSubsPath = "velta/veCtrl/subscription";
constexpr const char* kCtrlPubPath = "velta/veCtrl/publication";
constexpr const char* kSysDescPath = "velta/metadata/SystemDescription";
constexpr const char* kSystem = "sysA";

constexpr std::array<const char*, 4> kOutputs = {"velta/out/a", "velta/out/b", "velta/out/c", ""};
constexpr std::array<const char*, 3> kTypeNames = {"veMetadata::veTable", "External::Publication",
                                                   "No::Such"};
constexpr int kKnownTypes = 2;

enum class TextClass { reader, writer, query, failingQuery, uncertain };
struct QueryText {
    const char* text;
    TextClass cls;
};
// Direct-access texts also read a table that always exists, so that they succeed when a registry
// entry created by an earlier text of the same key makes the translator define them as queries.
constexpr std::array<QueryText, 6> kTexts = {{
    {"SELECT * FROM velta/metadata/veTable", TextClass::reader},
    {"SELECT * INTO velta/out/x FROM velta/metadata/veTable", TextClass::writer},
    {"SELECT tablePath FROM velta/metadata/veTable", TextClass::query},
    {"", TextClass::query},
    {"SELECT x FROM velta/nowhere", TextClass::failingQuery},
    {"SELECT * FROM ", TextClass::uncertain},  // exactly the prefix: a query naming no table
}};
constexpr std::array<std::uint16_t, 3> kDesiredFlags = {0, 0x40, 0x41};
constexpr std::array<std::uint16_t, 2> kFlags = {0, 0x40};

struct AgentKind {
    const char* label;
    bool serverAgent;
    bool standalone;
    bool serverProcess;
};

std::string agentName(const AgentKind& kind) { return kind.serverAgent ? "server" : "edge"; }
std::string perClientPath(const AgentKind& kind) {
    return "velta/External/input/" + agentName(kind) + "/Subscription";
}
// The table the translator writes control subscriptions into: the shared one, unless a per-agent
// translator runs in the server agent or in the server process.
std::string controlPath(const AgentKind& kind) {
    if (kind.standalone || (!kind.serverAgent && !kind.serverProcess)) return kCtrlSubsPath;
    return "velta/veCtrl/input/" + agentName(kind) + "/subscription";
}

// clang-format off
enum class Op : std::uint8_t {
    writeSub, deleteSub, writeClientSub, deleteClientSub, writeSysDesc, deleteSysDesc, writeExtPub,
    deleteExtPub, writeCtrlPub, deleteCtrlPub, deleteCtrlSub, createTable, dropTable, clock, clean, rebuild,
    settle
};
// clang-format on

struct Step {
    Op op = Op::settle;
    std::uint8_t sd = 1;      // system description oid (1-4 may exist, 5 never)
    std::uint8_t output = 0;  // kOutputs
    std::uint8_t type = 0;    // kTypeNames
    std::uint8_t text = 0;    // kTexts
    std::uint8_t desired = 0;
    std::uint8_t flags = 0;
    std::uint8_t params = 0;  // number of parameters (equal lists)
    bool standing = false;
    bool ours = true;  // system description: our system and agent
    bool ourAgent = true;
    std::uint8_t props = 1;
    std::uint32_t pick = 0;  // which existing row a publication or deletion step targets
    bool status = true;
};

std::string describe(const Step& s) {
    // The operations' names, in the order of Op.
    std::istringstream names(
        "write subscription|delete subscription|write per-client subscription|delete per-client subscription|"
        "write system description|delete system description|client writes publication|client deletes "
        "publication|database writes control publication|database deletes control publication|database "
        "deletes control subscription|create table|drop table|clock advance|clean()|destroy and rebuild the "
        "translator|settle and check");
    std::string name;
    for (int i = 0; i <= static_cast<int>(s.op); ++i) std::getline(names, name, '|');
    std::ostringstream os;
    os << name << ": sd=" << int(s.sd) << " outputPath=\"" << kOutputs[s.output]
       << "\" type=" << kTypeNames[s.type] << " text=\"" << kTexts[s.text].text
       << "\" desiredFlags=" << kDesiredFlags[s.desired] << " flags=" << kFlags[s.flags]
       << " standing=" << s.standing << " params=" << int(s.params) << " ours=" << s.ours
       << " ourAgent=" << s.ourAgent << " properties=" << int(s.props) << " pick=" << s.pick
       << " status=" << s.status;
    return os.str();
}

struct Stats {
    std::size_t histories = 0;
    std::size_t liveValid = 0;  // valid live subscriptions checked (C1), summed over checks
    std::size_t controlRows = 0;
};

struct ChurnRun {
    explicit ChurnRun(const AgentKind& kind) : kind_(kind) {
        Host::Database::serverProcessIs(kind.serverProcess);
        db_ = Host::Database::create({.autoPublish = true});
        handle_ = db_->connect({.agentName = agentName(kind),
                                .systemName = kSystem,
                                .serverAgent = kind.serverAgent,
                                .external = !kind.serverAgent,
                                .standalone = kind.standalone});
        translator_ = std::make_unique<Agent::SubscriptionTranslator>(handle_);
    }

    // Applies one step; returns the violated invariants after a settle, if any.
    std::optional<std::string> apply(const Step& s, Stats* stats) {
        switch (s.op) {
            case Op::writeSub:
                db_->write(kSubsPath, subscriptionRow(s));
                break;
            case Op::deleteSub:
                if (db_->erase(kSubsPath, keyRow(keyOf(s)))) withdrawn_.insert(keyOf(s));
                break;
            case Op::writeClientSub:  // drawn only where there is a per-client table
                perClientKeys_.insert(keyOf(s));
                db_->write(perClientPath(kind_), subscriptionRow(s));
                break;
            case Op::deleteClientSub:
                db_->erase(perClientPath(kind_), keyRow(keyOf(s)));
                break;
            case Op::writeSysDesc:
                db_->write(kSysDescPath,
                           rowOf<veMetadata::SystemDescription>(
                               "oid=" + std::to_string(s.sd) + ";sysName=" + (s.ours ? kSystem : "sysB") +
                               ";agentName=" + (s.ourAgent ? agentName(kind_) : "other") +
                               ";properties=" + std::to_string(s.props)));
                break;
            case Op::deleteSysDesc:
                db_->erase(kSysDescPath, rowOf<veMetadata::SystemDescription>("oid=" + std::to_string(s.sd)));
                break;
            case Op::writeExtPub: {
                // For a live subscription, or for one that never existed.
                const std::vector<BaseRow> subs = db_->rows(kSubsPath);
                const std::uint32_t id = !subs.empty() && s.pick % 4 != 0
                                             ? External::Subscription(subs[s.pick % subs.size()]).oid()
                                             : 90000 + s.pick % 100;
                db_->write(kPubPath, rowOf<External::Publication>(
                                         "subscription_id=" + std::to_string(id) +
                                         ";publication_id=" + std::to_string(s.pick % 3 ? 0u : id) +
                                         ";ptime=" + std::to_string(db_->clock()) +
                                         (s.status ? ";status=1" : ";error=client says no")));
                break;
            }
            case Op::writeCtrlPub: {
                // For a control row, naming its table and system, or for ids that name no row.
                const std::vector<BaseRow> ctrl = db_->rows(controlPath(kind_));
                const veCtrl::subscription c =
                    !ctrl.empty() && s.pick % 4 != 0
                        ? veCtrl::subscription(ctrl[s.pick % ctrl.size()])
                        : makeRecord<veCtrl::subscription>(
                              {{"oid", 100000 + s.pick % 100}, {"tableId", s.pick % 50}});
                db_->write(kCtrlPubPath,
                           rowOf<veCtrl::publication>("subscription_id=" + std::to_string(c.oid()) +
                                                      ";tableId=" + std::to_string(c.tableId()) +
                                                      ";system_id=" + std::to_string(c.system_description()) +
                                                      ";ptime=" + std::to_string(db_->clock()) +
                                                      (s.status ? ";status=1" : ";error=database says no")));
                break;
            }
            case Op::deleteExtPub:
            case Op::deleteCtrlPub:
            case Op::deleteCtrlSub: {  // one of the rows there, if any
                const std::string path = s.op == Op::deleteExtPub    ? kPubPath
                                         : s.op == Op::deleteCtrlPub ? kCtrlPubPath
                                                                     : controlPath(kind_);
                const std::vector<BaseRow> rows = db_->rows(path);
                if (!rows.empty()) db_->erase(path, rows[s.pick % rows.size()]);
                break;
            }
            case Op::createTable:
                if (kOutputs[s.output][0] == '\0') return std::nullopt;
                db_->createTable(kOutputs[s.output], "veMetadata::veTable",
                                 std::array{"", "edge", "other", "server"}[s.pick % 4]);  // the owner
                break;
            case Op::dropTable:
                if (kOutputs[s.output][0] == '\0') return std::nullopt;
                db_->dropTable(kOutputs[s.output]);
                break;
            case Op::clock:
                db_->clockAdvance(s.pick % 120);
                break;
            case Op::clean:
                translator_->clean();
                break;
            case Op::rebuild:
                translator_.reset();
                translator_ = std::make_unique<Agent::SubscriptionTranslator>(handle_);
                break;
            case Op::settle:
                return settleAndCheck(stats);
        }
        return std::nullopt;
    }

    using Key = std::pair<std::uint32_t, std::string>;  // system_description, outputPath
    static Key keyOf(const Step& s) { return {s.sd, kOutputs[s.output]}; }
    static External::Subscription keyRow(const Key& key) {
        return makeRecord<External::Subscription>(
            {{"system_description", key.first}, {"outputPath", key.second}});
    }

    External::Subscription subscriptionRow(const Step& s) {
        std::string names, values;  // a repeated name now and then
        for (int i = 0; i < s.params; ++i) {
            names += (i ? "," : "") + (i == 1 && s.standing ? "p0" : "p" + std::to_string(i));
            values += (i ? "," : "") + std::to_string(s.pick % 7 + static_cast<std::uint32_t>(i));
        }
        return rowOf<External::Subscription>(
            "system_description=" + std::to_string(s.sd) + ";outputPath=" + kOutputs[s.output] +
            ";typeName=" + kTypeNames[s.type] + ";queryText=" + kTexts[s.text].text +
            ";desiredFlags=" + std::to_string(kDesiredFlags[s.desired]) +
            ";flags=" + std::to_string(kFlags[s.flags]) + ";standing=" + std::to_string(s.standing) +
            ";type_signature=" + (s.pick % 3 ? "" : "sig" + std::to_string(s.pick % 4)) +
            ";features=" + std::to_string(s.pick % 5) + ";paramName=[" + names + "];paramValue=[" + values +
            "];ptime=" + std::to_string(db_->clock()));
    }

    // A settle, W, two forced ready passes, W and the rest.
    std::optional<std::string> settleAndCheck(Stats* stats) {
        std::ostringstream problems;
        for (int pass = 0; pass < 3; ++pass) {
            if (pass > 0) translator_->onTableReady();
            db_->runUntilIdle();
            if (!db_->settled())
                return pass ? "the host did not settle after a forced ready pass" : "the host did not settle";
            if (pass != 1) checkWithdrawals(problems);
        }
        checkAfterPasses(problems, stats);
        return problems.str().empty() ? std::nullopt : std::optional(problems.str());
    }

    // W.
    void checkWithdrawals(std::ostream& problems) const {
        for (const Key& key : withdrawn_) {
            const External::Subscription k = keyRow(key);
            if (!perClientKeys_.count(key) && db_->read(kSubsPath, k).empty() && translator_->subscription(k))
                problems << "  W: registry entry survives the withdrawal of sd=" << key.first
                         << " outputPath=\"" << key.second << "\"\n";
        }
        for (const veCtrl::publication& pub : translator_->publications())
            if (db_->read(kCtrlPubPath, pub).empty())
                problems << "  W: deleted control publication still known: " << pub.toString() << "\n";
    }

    // The system description with that oid, or an empty one.
    veMetadata::SystemDescription sysDesc(std::uint32_t oid) const {
        return veMetadata::SystemDescription(
            db_->read(kSysDescPath, rowOf<veMetadata::SystemDescription>("oid=" + std::to_string(oid))));
    }

    static TextClass classify(const std::string& text) {
        for (const QueryText& t : kTexts)
            if (text == t.text) return t.cls;
        return TextClass::uncertain;
    }

    // Whether the translator must serve `sub` (C1).
    bool valid(const External::Subscription& sub) const {
        if (sub.outputPath().empty()) return false;
        if (handle_->tableTypeId(sub.typeName(), false) == VeltaDB::kUnknownTypeId) return false;
        const veMetadata::SystemDescription d = sysDesc(sub.system_description());
        if (d.empty() || (d.properties() & 1) == 0) return false;  // gone, or an internal member system
        if (!kind_.serverAgent && (d.sysName() != kSystem || d.agentName() != agentName(kind_)))
            return false;  // unrelated
        const TextClass cls = classify(sub.queryText());
        const veMetadata::veTable table = handle_->tableInfo(sub.outputPath());
        const bool oneShotRead =
            cls == TextClass::reader && !sub.standing() && (sub.desiredFlags() & 0x40 & sub.flags()) != 0;
        const bool foreignWrite = cls == TextClass::writer && !table.empty() && !table.owner().empty() &&
                                  table.owner() != d.agentName();
        if (sub.desiredFlags() != 0 && (oneShotRead || foreignWrite)) return false;  // refused
        return !kind_.serverAgent || (cls != TextClass::failingQuery && cls != TextClass::uncertain);
    }

    // C1, C2, P, R.
    void checkAfterPasses(std::ostream& problems, Stats* stats) const {
        const std::string ctrlPath = controlPath(kind_);
        std::vector<veCtrl::subscription> controls;
        for (const BaseRow& row : db_->rows(ctrlPath)) controls.emplace_back(row);
        if (stats) stats->controlRows += controls.size();
        std::map<std::uint32_t, External::Subscription> liveByOid;
        for (const BaseRow& row : db_->rows(kSubsPath))
            liveByOid.emplace(External::Subscription(row).oid(), row);
        const bool readBack = ctrlPath == kCtrlSubsPath;

        for (const auto& [oid, sub] : liveByOid) {
            const std::string name = "subscription oid=" + std::to_string(oid) +
                                     " sd=" + std::to_string(sub.system_description()) + " outputPath=\"" +
                                     sub.outputPath() + "\" text=\"" + sub.queryText() + "\"";
            if (kind_.serverAgent &&
                db_->read(kPubPath, makeRecord<External::Publication>({{"subscription_id", oid}})).empty())
                problems << "  P: no client publication for " << name << "\n";
            if (!valid(sub)) continue;
            if (stats) ++stats->liveValid;
            const veMetadata::veTable table = handle_->tableInfo(sub.outputPath());
            if (table.empty()) {
                problems << "  C1: no output table for valid " << name << "\n";
                continue;
            }
            std::vector<const veCtrl::subscription*> mine;  // control rows for the current table
            for (const veCtrl::subscription& c : controls)
                if (c.connection_id() == oid && c.system_description() == sub.system_description() &&
                    c.tableId() == table.oid())
                    mine.push_back(&c);
            if (mine.size() != 1) {
                problems << "  C1: " << mine.size() << " control rows for valid " << name << "\n";
                continue;
            }
            const veCtrl::subscription expected =
                makeRecord<veCtrl::subscription>({{"oid", mine.front()->oid()},
                                                  {"connection_id", oid},
                                                  {"system_description", sub.system_description()},
                                                  {"typeName", sub.typeName()},
                                                  {"type_signature", sub.type_signature()},
                                                  {"tableId", table.oid()},
                                                  {"features", sub.features()},
                                                  {"writer", classify(sub.queryText()) == TextClass::writer},
                                                  {"ptime", sub.ptime()}});
            if (!mine.front()->equals(expected))
                problems << "  C1: control row " << mine.front()->toString() << ", expected "
                         << expected.toString() << "\n";
            const auto entry = translator_->subscription(sub);
            if (!entry) {
                problems << "  R: no registry entry for valid " << name << "\n";
                continue;
            }
            const auto brief = [](auto table, auto external, auto sid, auto back) {
                return "tableOid " + std::to_string(table) + " externalOid " + std::to_string(external) +
                       " sid " + std::to_string(sid) + " mapping back to " + std::to_string(back);
            };
            const std::uint64_t back = translator_->externalSubscriptionId(entry->sid);
            const std::string found = brief(entry->tableOid, entry->externalOid, entry->sid, back);
            const std::string wanted =
                brief(table.oid(), oid, readBack ? mine.front()->oid() : entry->sid, readBack ? oid : back);
            if (found != wanted)
                problems << "  R: entry " << found << ", expected " << wanted << " for " << name << "\n";
        }

        for (const veCtrl::subscription& c : controls) {  // C2
            auto live = liveByOid.find(c.connection_id());
            const veMetadata::SystemDescription d = sysDesc(c.system_description());
            if (live == liveByOid.end() || live->second.system_description() != c.system_description())
                problems << "  C2: control row oid=" << c.oid() << " connection_id=" << c.connection_id()
                         << " outlives its subscription\n";
            else if (d.empty() || (d.properties() & 1) == 0)
                problems << "  C2: control row oid=" << c.oid()
                         << " kept for a system description that is gone or internal\n";
        }

        if (kind_.serverAgent)  // P
            for (const BaseRow& row : db_->rows(kPubPath))
                if (const External::Publication pub(row); !liveByOid.count(pub.subscription_id()))
                    problems << "  P: client publication for subscription_id=" << pub.subscription_id()
                             << " outlives its subscription\n";
    }

    AgentKind kind_;
    std::shared_ptr<Host::Database> db_;
    VeltaDB::p_t handle_;
    std::unique_ptr<Agent::SubscriptionTranslator> translator_;
    std::set<Key> withdrawn_;
    std::set<Key> perClientKeys_;
};

Step drawStep(std::mt19937_64& rng, const AgentKind& kind) {
    auto pick = [&rng](int n) { return static_cast<int>(rng() % static_cast<std::uint64_t>(n)); };
    Step s;
    s.sd = static_cast<std::uint8_t>(1 + (pick(10) < 8 ? pick(2) : pick(5)));
    s.output = static_cast<std::uint8_t>(pick(10) < 9 ? pick(3) : 3);
    s.type = static_cast<std::uint8_t>(pick(10) < 9 ? pick(kKnownTypes) : 2);
    s.text = static_cast<std::uint8_t>(pick(static_cast<int>(kTexts.size())));
    s.desired = static_cast<std::uint8_t>(pick(3));
    s.flags = static_cast<std::uint8_t>(pick(2));
    s.params = static_cast<std::uint8_t>(pick(3));
    s.standing = pick(3) != 0;
    s.ours = pick(5) != 0;
    s.ourAgent = pick(5) != 0;
    s.props = static_cast<std::uint8_t>(pick(6) == 0 ? 0 : (pick(2) ? 1 : 3));
    s.pick = static_cast<std::uint32_t>(rng() % 1000);
    s.status = pick(4) != 0;
    // Upper bounds of each operation's share of the rolls 16 to 99, in the order of Op (rolls below
    // 16 settle); per-client steps fall back to shared ones where there is no per-client table.
    static constexpr std::array<int, 16> kBelow = {40, 48, 54, 57, 65, 69, 74, 77,
                                                   82, 85, 87, 91, 94, 97, 98, 100};
    if (const int roll = pick(100); roll >= 16)
        s.op = static_cast<Op>(std::upper_bound(kBelow.begin(), kBelow.end(), roll) - kBelow.begin());
    if (kind.serverAgent || kind.standalone)
        s.op = s.op == Op::writeClientSub ? Op::writeSub : s.op == Op::deleteClientSub ? Op::deleteSub : s.op;
    return s;
}

std::vector<Step> drawHistory(std::uint64_t seed, const AgentKind& kind, std::size_t length) {
    std::mt19937_64 rng(seed);
    std::vector<Step> steps;
    if (rng() % 4 != 0) steps.push_back({.op = Op::writeSysDesc});  // mostly our own system is in place
    while (steps.size() + 1 < length) steps.push_back(drawStep(rng, kind));
    steps.push_back(Step{});  // a final settle and check
    return steps;
}

using Failure = std::pair<std::size_t, std::string>;  // the failing step's index, what went wrong

std::optional<Failure> replay(const std::vector<Step>& steps, const AgentKind& kind, Stats* stats = nullptr) {
    ChurnRun run(kind);
    for (std::size_t i = 0; i < steps.size(); ++i)
        if (auto bad = run.apply(steps[i], stats)) return Failure{i, *bad};
    return std::nullopt;
}

constexpr std::size_t kHistoryLength = 60;

void churn(const AgentKind& kind, std::uint64_t seedBase) {
    Stats stats;
    const std::uint64_t one = Test::envCount("VELTA_CHURN_SEED", 0);
    const std::size_t count = one ? 1 : Test::envCount("VELTA_CHURN_HISTORIES", 1500);
    for (std::size_t i = 0; i < count; ++i) {
        const std::uint64_t seed = one ? one : seedBase + 7919ULL * i;
        const std::vector<Step> steps = drawHistory(seed, kind, kHistoryLength);
        ++stats.histories;
        if (auto failure = replay(steps, kind, &stats)) {
            std::ostringstream os;
            os << kind.label << " agent, history seed " << seed << ": after step " << failure->first + 1
               << " (" << describe(steps[failure->first]) << "):\n"
               << failure->second;
            const auto fails = [&](const std::vector<Step>& c) { return replay(c, kind).has_value(); };
            const std::vector<Step> small = Test::shrinkHistory(steps, fails);
            os << "shrunk history (" << small.size() << " of " << steps.size()
               << " steps) that still fails:\n";
            for (std::size_t i = 0; i < small.size(); ++i)
                os << "  " << i + 1 << ". " << describe(small[i]) << "\n";
            if (auto again = replay(small, kind)) os << "which reports:\n" << again->second;
            os << "replay with VELTA_CHURN_SEED=" << seed << "\n";
            ADD_FAILURE() << os.str();
            break;
        }
    }
    std::cout << "translator churn (" << kind.label << "): " << stats.histories << " histories, "
              << stats.liveValid << " valid live subscriptions and " << stats.controlRows
              << " control rows checked\n";
    // The streams must reach the interesting states, or the invariants check nothing (not asked of
    // a single replayed history).
    if (stats.histories >= 50) {
        EXPECT_GT(stats.liveValid, stats.histories);
        EXPECT_GT(stats.controlRows, stats.histories);
    }
}

TEST(TranslatorChurn, ServerAgent) { churn({"server", true, true, true}, 11); }
TEST(TranslatorChurn, StandaloneNonServerAgent) { churn({"standalone non-server", false, true, false}, 23); }
TEST(TranslatorChurn, PerAgentNonServerAgent) { churn({"per-agent non-server", false, false, false}, 37); }
TEST(TranslatorChurn, PerAgentNonServerAgentInTheServerProcess) {
    churn({"per-agent non-server (server process)", false, false, true}, 41);
}

}  // namespace
