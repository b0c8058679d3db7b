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
//       current oid of its output table, and it is exactly the row the subscription asks for.
//       Valid: an output path; a known result type; a system description with bit 0 of properties
//       set; outside the server, one naming this agent's system and agent; not refused (one-shot
//       direct read with bit 0x40 in both flag words, direct write to a table owned by another
//       agent when desiredFlags is set); in the server, a query text the host accepts. Control rows
//       for an older table at the same path may remain: the sweep matches by oid only.
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
#include "TestSupport.h"

#include <Velta/Agent/SubscriptionTranslator.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Velta::BaseRow;
namespace Host = Velta::Host;
namespace External = Velta::External;
namespace veCtrl = Velta::veCtrl;
namespace veMetadata = Velta::veMetadata;
using Velta::Agent::SubscriptionTranslator;
using Velta::Test::makeRecord;
using Velta::Test::rowOf;

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
// The table the translator writes control subscriptions into.
std::string controlPath(const AgentKind& kind) {
    if (!kind.serverAgent && !kind.serverProcess) return kCtrlSubsPath;  // external, not the server process
    if (kind.standalone) return kCtrlSubsPath;
    return "velta/veCtrl/input/" + agentName(kind) + "/subscription";
}

// ---------------------------------------------------------------------------------------------
// Histories

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

// ---------------------------------------------------------------------------------------------

struct Stats {
    std::size_t histories = 0;
    std::size_t liveValid = 0;  // valid live subscriptions checked (C1), summed over checks
    std::size_t controlRows = 0;
};

class ChurnRun {
public:
    explicit ChurnRun(const AgentKind& kind) : kind_(kind) {
        Host::Database::serverProcessIs(kind.serverProcess);
        Host::Database::Options options;
        options.autoPublish = true;
        db_ = Host::Database::create(options);
        Host::AgentOptions agent;
        agent.agentName = agentName(kind);
        agent.systemName = kSystem;
        agent.serverAgent = kind.serverAgent;
        agent.external = !kind.serverAgent;
        agent.standalone = kind.standalone;
        handle_ = db_->connect(agent);
        translator_ = std::make_unique<SubscriptionTranslator>(handle_);
    }
    ~ChurnRun() { translator_.reset(); }

    // Applies one step; returns the violated invariants after a settle, if any.
    std::optional<std::string> apply(const Step& s, Stats* stats) {
        switch (s.op) {
            case Op::writeSub:
                db_->write(kSubsPath, subscriptionRow(s));
                break;
            case Op::deleteSub:
                if (db_->erase(kSubsPath, subscriptionKey(s))) withdrawn_.insert(keyOf(s));
                break;
            case Op::writeClientSub:
                if (kind_.standalone || kind_.serverAgent) return std::nullopt;
                perClientKeys_.insert(keyOf(s));
                db_->write(perClientPath(kind_), subscriptionRow(s));
                break;
            case Op::deleteClientSub:
                if (kind_.standalone || kind_.serverAgent) return std::nullopt;
                db_->erase(perClientPath(kind_), subscriptionKey(s));
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
            case Op::deleteExtPub:
                eraseNth(kPubPath, s.pick);
                break;
            case Op::writeCtrlPub: {
                const std::vector<BaseRow> ctrl = db_->rows(controlPath(kind_));
                veCtrl::publication pub =
                    rowOf<veCtrl::publication>("ptime=" + std::to_string(db_->clock()) +
                                               (s.status ? ";status=1" : ";error=database says no"));
                if (!ctrl.empty() && s.pick % 4 != 0) {
                    const veCtrl::subscription c(ctrl[s.pick % ctrl.size()]);
                    pub.subscription_idIs(c.oid());
                    pub.tableIdIs(c.tableId());
                    pub.system_idIs(c.system_description());
                } else {
                    pub.subscription_idIs(100000 + s.pick % 100);
                    pub.tableIdIs(s.pick % 50);
                }
                db_->write(kCtrlPubPath, pub);
                break;
            }
            case Op::deleteCtrlPub:
                eraseNth(kCtrlPubPath, s.pick);
                break;
            case Op::deleteCtrlSub:
                eraseNth(controlPath(kind_), s.pick);
                break;
            case Op::createTable: {
                static const std::array<const char*, 4> owners = {"", "edge", "other", "server"};
                if (kOutputs[s.output][0] == '\0') return std::nullopt;
                db_->createTable(kOutputs[s.output], "veMetadata::veTable", owners[s.pick % 4]);
                break;
            }
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
                translator_ = std::make_unique<SubscriptionTranslator>(handle_);
                break;
            case Op::settle:
                return settleAndCheck(stats);
        }
        return std::nullopt;
    }

private:
    using Key = std::pair<std::uint32_t, std::string>;  // system_description, outputPath
    static Key keyOf(const Step& s) { return {s.sd, kOutputs[s.output]}; }

    External::Subscription subscriptionRow(const Step& s) {
        std::vector<std::string> names, values;
        for (int i = 0; i < s.params; ++i) {
            names.push_back(i == 1 && s.standing ? "p0"
                                                 : "p" + std::to_string(i));  // a repeated name now and then
            values.push_back(std::to_string(s.pick % 7 + static_cast<std::uint32_t>(i)));
        }
        return makeRecord<External::Subscription>(
            {{"oid", 0u},
             {"system_description", unsigned(s.sd)},
             {"outputPath", kOutputs[s.output]},
             {"typeName", kTypeNames[s.type]},
             {"queryText", kTexts[s.text].text},
             {"desiredFlags", unsigned(kDesiredFlags[s.desired])},
             {"flags", unsigned(kFlags[s.flags])},
             {"standing", s.standing},
             {"type_signature", s.pick % 3 ? "" : "sig" + std::to_string(s.pick % 4)},
             {"features", s.pick % 5},
             {"paramName", names},
             {"paramValue", values},
             {"ptime", db_->clock()}});
    }
    static External::Subscription subscriptionKey(const Step& s) {
        return makeRecord<External::Subscription>(
            {{"system_description", unsigned(s.sd)}, {"outputPath", kOutputs[s.output]}});
    }
    void eraseNth(const std::string& path, std::uint32_t pick) {
        const std::vector<BaseRow> rows = db_->rows(path);
        if (!rows.empty()) db_->erase(path, rows[pick % rows.size()]);
    }

    std::optional<std::string> settleAndCheck(Stats* stats) {
        std::vector<std::string> problems;
        db_->runUntilIdle();
        if (!db_->settled()) return "the host did not settle";
        checkWithdrawals(&problems);
        for (int pass = 0; pass < 2; ++pass) {
            translator_->onTableReady();
            db_->runUntilIdle();
            if (!db_->settled()) return "the host did not settle after a forced ready pass";
        }
        checkWithdrawals(&problems);
        checkAfterPasses(&problems, stats);
        if (problems.empty()) return std::nullopt;
        std::ostringstream os;
        for (const auto& p : problems) os << "  " << p << "\n";
        return os.str();
    }

    // W.
    void checkWithdrawals(std::vector<std::string>* problems) const {
        for (const Key& key : withdrawn_) {
            if (perClientKeys_.count(key)) continue;
            const External::Subscription k = makeRecord<External::Subscription>(
                {{"system_description", key.first}, {"outputPath", key.second}});
            if (!db_->read(kSubsPath, k).empty()) continue;  // written again since
            if (translator_->subscription(k))
                problems->push_back("W: registry entry survives the withdrawal of sd=" +
                                    std::to_string(key.first) + " outputPath=\"" + key.second + "\"");
        }
        for (const veCtrl::publication& pub : translator_->publications()) {
            if (db_->read(kCtrlPubPath, pub).empty())
                problems->push_back("W: deleted control publication still known: " + pub.toString());
        }
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

    bool valid(const External::Subscription& sub, std::string* why) const {
        if (sub.outputPath().empty()) return *why = "no output path", false;
        if (handle_->tableTypeId(sub.typeName(), false) == Velta::VeltaDB::kUnknownTypeId)
            return *why = "unknown type", false;
        const veMetadata::SystemDescription d = sysDesc(sub.system_description());
        if (d.empty()) return *why = "no system description", false;
        if ((d.properties() & 1) == 0) return *why = "internal member system", false;
        if (!kind_.serverAgent && (d.sysName() != kSystem || d.agentName() != agentName(kind_)))
            return *why = "unrelated", false;
        const TextClass cls = classify(sub.queryText());
        const veMetadata::veTable table = handle_->tableInfo(sub.outputPath());
        if (sub.desiredFlags() != 0) {
            if (cls == TextClass::reader && !sub.standing() && (sub.desiredFlags() & 0x40 & sub.flags()) != 0)
                return *why = "one-shot read refused", false;
            if (cls == TextClass::writer && !table.empty() && !table.owner().empty() &&
                table.owner() != d.agentName())
                return *why = "foreign owner refused", false;
        }
        if (kind_.serverAgent && (cls == TextClass::failingQuery || cls == TextClass::uncertain))
            return *why = "query not accepted", false;
        return true;
    }

    // C1, C2, P, R.
    void checkAfterPasses(std::vector<std::string>* problems, Stats* stats) const {
        const std::string ctrlPath = controlPath(kind_);
        std::vector<veCtrl::subscription> controls;
        for (const BaseRow& row : db_->rows(ctrlPath)) controls.emplace_back(row);
        if (stats) stats->controlRows += controls.size();
        std::map<std::uint32_t, External::Subscription> liveByOid;
        for (const BaseRow& row : db_->rows(kSubsPath)) {
            const External::Subscription sub(row);
            liveByOid.emplace(sub.oid(), sub);
        }
        const bool readBack = ctrlPath == kCtrlSubsPath;

        for (const auto& [oid, sub] : liveByOid) {
            const std::string name = "subscription oid=" + std::to_string(oid) +
                                     " sd=" + std::to_string(sub.system_description()) + " outputPath=\"" +
                                     sub.outputPath() + "\" text=\"" + sub.queryText() + "\"";
            if (kind_.serverAgent) {  // P
                const BaseRow pub =
                    db_->read(kPubPath, makeRecord<External::Publication>({{"subscription_id", oid}}));
                if (pub.empty()) problems->push_back("P: no client publication for " + name);
            }
            std::string why;
            if (!valid(sub, &why)) continue;
            if (stats) ++stats->liveValid;
            const veMetadata::veTable table = handle_->tableInfo(sub.outputPath());
            if (table.empty()) {
                problems->push_back("C1: no output table for valid " + name);
                continue;
            }
            std::vector<const veCtrl::subscription*> mine;  // control rows for the current table
            for (const veCtrl::subscription& c : controls)
                if (c.connection_id() == oid && c.system_description() == sub.system_description() &&
                    c.tableId() == table.oid())
                    mine.push_back(&c);
            if (mine.size() != 1) {
                problems->push_back("C1: " + std::to_string(mine.size()) + " control rows for valid " + name);
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
                problems->push_back("C1: control row " + mine.front()->toString() + ", expected " +
                                    expected.toString());
            const auto entry = translator_->subscription(sub);
            if (!entry) {
                problems->push_back("R: no registry entry for valid " + name);
                continue;
            }
            // The entry in brief, against what it should be.
            const auto brief = [](std::uint64_t table, std::uint64_t external, std::uint64_t sid,
                                  std::uint64_t back) {
                return "tableOid " + std::to_string(table) + " externalOid " + std::to_string(external) +
                       " sid " + std::to_string(sid) + " mapping back to " + std::to_string(back);
            };
            const std::uint64_t back = translator_->externalSubscriptionId(entry->sid);
            const std::string found = brief(entry->tableOid, entry->externalOid, entry->sid, back);
            const std::string wanted =
                brief(table.oid(), oid, readBack ? mine.front()->oid() : entry->sid, readBack ? oid : back);
            if (found != wanted)
                problems->push_back("R: entry " + found + ", expected " + wanted + " for " + name);
        }

        for (const veCtrl::subscription& c : controls) {  // C2
            auto live = liveByOid.find(c.connection_id());
            const veMetadata::SystemDescription d = sysDesc(c.system_description());
            if (live == liveByOid.end() || live->second.system_description() != c.system_description())
                problems->push_back("C2: control row oid=" + std::to_string(c.oid()) + " connection_id=" +
                                    std::to_string(c.connection_id()) + " outlives its subscription");
            else if (d.empty() || (d.properties() & 1) == 0)
                problems->push_back("C2: control row oid=" + std::to_string(c.oid()) +
                                    " kept for a system description that is gone or internal");
        }

        if (kind_.serverAgent) {  // P
            for (const BaseRow& row : db_->rows(kPubPath)) {
                const External::Publication pub(row);
                if (!liveByOid.count(pub.subscription_id()))
                    problems->push_back("P: client publication for subscription_id=" +
                                        std::to_string(pub.subscription_id()) + " outlives its subscription");
            }
        }
    }

    AgentKind kind_;
    std::shared_ptr<Host::Database> db_;
    Velta::VeltaDB::p_t handle_;
    std::unique_ptr<SubscriptionTranslator> translator_;
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
    const int roll = pick(100);
    s.op = Op::settle;
    for (std::size_t i = 0; roll >= 16 && s.op == Op::settle; ++i)
        if (roll < kBelow[i]) s.op = static_cast<Op>(i);
    const bool perAgent = !kind.serverAgent && !kind.standalone;
    if (!perAgent && s.op == Op::writeClientSub) s.op = Op::writeSub;
    if (!perAgent && s.op == Op::deleteClientSub) s.op = Op::deleteSub;
    return s;
}

std::vector<Step> drawHistory(std::uint64_t seed, const AgentKind& kind, std::size_t length) {
    std::mt19937_64 rng(seed);
    std::vector<Step> steps;
    // Most histories start with our own system description in place.
    if (rng() % 4 != 0) {
        Step sd;
        sd.op = Op::writeSysDesc;
        steps.push_back(sd);
    }
    while (steps.size() + 1 < length) steps.push_back(drawStep(rng, kind));
    steps.push_back(Step{});  // a final settle and check
    return steps;
}

struct Failure {
    std::size_t step = 0;
    std::string what;
};

std::optional<Failure> replay(const std::vector<Step>& steps, const AgentKind& kind, Stats* stats = nullptr) {
    ChurnRun run(kind);
    for (std::size_t i = 0; i < steps.size(); ++i)
        if (auto bad = run.apply(steps[i], stats)) return Failure{i, *bad};
    return std::nullopt;
}

constexpr std::size_t kHistoryLength = 60;

void churn(const AgentKind& kind, std::uint64_t seedBase) {
    Stats stats;
    std::vector<std::uint64_t> seeds;
    if (const char* one = std::getenv("VELTA_CHURN_SEED"); one && *one) {
        seeds.push_back(std::strtoull(one, nullptr, 10));
    } else {
        const char* histories = std::getenv("VELTA_CHURN_HISTORIES");
        const std::size_t count = histories && *histories ? std::strtoull(histories, nullptr, 10) : 1500;
        for (std::size_t i = 0; i < count; ++i) seeds.push_back(seedBase + 7919ULL * i);
    }
    for (std::uint64_t seed : seeds) {
        const std::vector<Step> steps = drawHistory(seed, kind, kHistoryLength);
        ++stats.histories;
        if (auto failure = replay(steps, kind, &stats)) {
            std::ostringstream os;
            os << kind.label << " agent, history seed " << seed << ": after step " << failure->step + 1
               << " (" << describe(steps[failure->step]) << "):\n"
               << failure->what;
            const std::vector<Step> small = Velta::Test::shrinkHistory(
                steps,
                [&](const std::vector<Step>& candidate) { return replay(candidate, kind).has_value(); });
            os << "shrunk history (" << small.size() << " of " << steps.size()
               << " steps) that still fails:\n";
            for (std::size_t i = 0; i < small.size(); ++i)
                os << "  " << i + 1 << ". " << describe(small[i]) << "\n";
            if (auto again = replay(small, kind)) os << "which reports:\n" << again->what;
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
