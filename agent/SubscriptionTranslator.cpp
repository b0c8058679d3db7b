// SubscriptionTranslator: external subscriptions in, control subscriptions and publications out.
//
// Invariants (see also the header):
// - Every trace tests its level before any text is built (KESTO_TRACE), and reports the file
//   "SubscriptionTranslator", its fixed line from `Line` below and the short function name.
// - Handlers read the row they are given into a typed record first and work on that record only.
// - Nothing here throws; failures of client data are reported, never thrown.
#include <Velta/Agent/SubscriptionTranslator.h>

// The query runtime's opcode tables: every agent source file carries its own copy.
#include <Velta/VeRT.h>

#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Velta::Agent {

namespace {

constexpr const char* kFile = "SubscriptionTranslator";

// The fixed source line each trace and assertion reports.
namespace Line {
constexpr unsigned ctorStarting = 326;
constexpr unsigned ctorAssert = 327;
constexpr unsigned ctorEntry = 347;
constexpr unsigned notReady = 394;
constexpr unsigned extSubsOnReadyEntry = 417;
constexpr unsigned extSubsEntry = 477;
constexpr unsigned extSubsUnrelated = 520;
constexpr unsigned extSubsServerTable = 547;
constexpr unsigned extSubsTableNotReady = 556;
constexpr unsigned extSubsSubscribe = 593;
constexpr unsigned onTableRowEntry = 641;
constexpr unsigned onTableRowDetail = 642;
constexpr unsigned extSubsDeleteEntry = 652;
constexpr unsigned extSubsDeleteKey = 653;
constexpr unsigned extSubsDeleting = 662;
constexpr unsigned extSubsDeleteLookup = 672;
constexpr unsigned extSubsDeleteNotFound = 679;
constexpr unsigned extSubsRemoveQuery = 683;
constexpr unsigned completeEntry = 695;
constexpr unsigned completeExternalOid = 715;
constexpr unsigned completeSid = 728;
constexpr unsigned pubOnRowEntry = 760;
constexpr unsigned pubOnRowInternalMember = 775;
constexpr unsigned pubOnRowParams = 812;
constexpr unsigned pubOnRowDefineQuery = 822;
constexpr unsigned pubOnDeleteEntry = 846;
constexpr unsigned extPubOnRowEntry = 889;
constexpr unsigned extPubOnRowDetail = 891;
constexpr unsigned extPubOnRowNoSubscription = 897;
constexpr unsigned extPubOnRowNoEntry = 903;
constexpr unsigned extPubOnRowNoCtrl = 909;
constexpr unsigned extPubOnRowNoSystem = 916;
constexpr unsigned extPubOnRowUnrelated = 923;
constexpr unsigned extPubOnDeleteEntry = 950;
constexpr unsigned extPubOnDeleteDetail = 961;
}  // namespace Line

// Full signatures, as the entry traces and assertion reports give them.
constexpr const char* kCtorSignature =
    "Velta::Agent::SubscriptionTranslator::SubscriptionTranslator(Velta::VeltaDB::p_t)";
constexpr const char* kOnTableRowSignature =
    "void Velta::Agent::SubscriptionTranslator::onTableRow(const Velta::BaseRow&)";
constexpr const char* kExtSubsOnRowCommonSignature =
    "void Velta::Agent::SubscriptionTranslator::extSubsOnRowCommon(const Velta::BaseRow&, bool)";
constexpr const char* kExtSubsOnReadySignature =
    "void Velta::Agent::SubscriptionTranslator::extSubsOnReady()";
constexpr const char* kExtSubsOnDeleteSignature =
    "void Velta::Agent::SubscriptionTranslator::extSubsOnDelete(const Velta::BaseRow&)";
constexpr const char* kSubscriptionCompleteSignature =
    "void Velta::Agent::SubscriptionTranslator::subscriptionComplete(Velta::Agent::Subs, "
    "Velta::Agent::TableRow, "
    "bool, bool, bool, Velta::oid_t, Velta::oid_t, const string&)";
constexpr const char* kPubOnRowSignature =
    "void Velta::Agent::SubscriptionTranslator::pubOnRow(const Velta::BaseRow&)";
constexpr const char* kPubOnDeleteSignature =
    "void Velta::Agent::SubscriptionTranslator::pubOnDelete(const Velta::BaseRow&)";
constexpr const char* kExtPubOnRowSignature =
    "void Velta::Agent::SubscriptionTranslator::extPubOnRow(const Velta::BaseRow&)";
constexpr const char* kExtPubOnDeleteSignature =
    "void Velta::Agent::SubscriptionTranslator::extPubOnDelete(const Velta::BaseRow&)";

// A mirrored publication up to this many ptime units older than the internal one counts as current.
constexpr std::uint64_t kPtimeSlack = 50;
// The bit that, set in both flag words, makes a one-shot direct read impossible.
constexpr std::uint16_t kNonMaterializedFlag = 0x40;
// Bit of SystemDescription::properties marking a system whose members are external.
constexpr std::uint32_t kExternalMemberProperty = 1;

// Query texts that address the output table directly instead of defining a query.
constexpr std::string_view kDirectWritePrefix = "SELECT * INTO ";
constexpr std::string_view kDirectReadPrefix = "SELECT * FROM ";

// True when `text` starts with `prefix` and goes on after it.
bool startsWithAndMore(const std::string& text, std::string_view prefix) noexcept {
    return text.size() > prefix.size() && text.compare(0, prefix.size(), prefix) == 0;
}

// The index of a field of the external subscription record, for reading its text in place: the
// record's getters return copies, and the intake reads the same texts several times.
std::size_t subsField(std::string_view name) {
    return static_cast<std::size_t>(Subs::type().fieldIndex(name));
}

// True when `sysDesc` is this agent's own system description.
bool isOwnSystem(const VeltaDB& vdb, const veMetadata::SystemDescription& sysDesc) {
    return vdb.systemName() == sysDesc.sysName() && vdb.agentName() == sysDesc.agentName();
}

// The completion handed to defineQuery: reports the query's outcome for one subscription.
struct QueryCompletion {
    SubscriptionTranslator* translator;
    Subs sub;
    TableRow table;
    bool writer;
    bool reader;
    oid_t sid;
    void operator()(bool ok, unsigned queryId, const std::string& error) const {
        translator->subscriptionComplete(sub, table, writer, reader, ok, queryId, sid, error);
    }
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// Debug channel

SubscriptionTranslator::__kestoDebug::~__kestoDebug() = default;

Kesto::Platform::DebugHandler* SubscriptionTranslator::__kestoDebug::getHandler() {
    static Kesto::Platform::DebugHandler* const handler =
        Kesto::Platform::getDebugHandler("SubscriptionTranslator");
    return handler;
}

// ---------------------------------------------------------------------------------------------
// Assembly and lifecycle

SubscriptionTranslator::SubscriptionTranslator(VeltaDB::p_t vdb)
    : vdb_(std::move(vdb)),
      extSubsObserver_("extSubsObserver_", External::Subscription::rowTypeName(), kObserverMode, this,
                       &SubscriptionTranslator::onTableReady, &SubscriptionTranslator::extSubsOnRow,
                       &SubscriptionTranslator::extSubsOnDelete, nullptr),
      extSubsPerClientObserver_("extSubsPerClientObserver_", External::Subscription::rowTypeName(),
                                kObserverMode, this, &SubscriptionTranslator::onTableReady,
                                &SubscriptionTranslator::extSubsOnClientRow, nullptr, nullptr),
      subsReader("subsReader", veCtrl::subscription::rowTypeName(), kReaderMode, this,
                 &SubscriptionTranslator::onTableReady, nullptr, nullptr, nullptr),
      subsModifier("subsModifier", veCtrl::subscription::rowTypeName(), kModifierMode, this,
                   &SubscriptionTranslator::onTableReady, nullptr, nullptr, nullptr),
      extPubObserver_("extPubObserver_", External::Publication::rowTypeName(), kObserverMode, this,
                      &SubscriptionTranslator::onTableReady, &SubscriptionTranslator::extPubOnRow,
                      &SubscriptionTranslator::extPubOnDelete, nullptr),
      extPubModifier("extPubModifier", External::Publication::rowTypeName(), kModifierMode, this,
                     &SubscriptionTranslator::onTableReady, nullptr, nullptr, nullptr),
      pubObserver_("pubObserver_", veCtrl::publication::rowTypeName(), kObserverMode, this,
                   &SubscriptionTranslator::onTableReady, &SubscriptionTranslator::pubOnRow,
                   &SubscriptionTranslator::pubOnDelete, nullptr),
      pubModifier("pubModifier", veCtrl::publication::rowTypeName(), kModifierMode, this,
                  &SubscriptionTranslator::onTableReady, nullptr, nullptr, nullptr),
      sysDescReader("sysDescReader", veMetadata::SystemDescription::rowTypeName(), kReaderMode, this,
                    &SubscriptionTranslator::onTableReady, nullptr, nullptr, nullptr),
      veTableObserver("veTableObserver", veMetadata::veTable::rowTypeName(), kObserverMode, this,
                      &SubscriptionTranslator::onTableReady, &SubscriptionTranslator::onTableRow, nullptr,
                      nullptr),
      requiredInterfaces_{&extSubsObserver_, &subsReader, &sysDescReader, &subsModifier},
      debugChannel_(__kestoDebug::getHandler(), false) {
    KESTO_TRACE(debugChannel_, 0, kFile, Line::ctorStarting, "SubscriptionTranslator",
                "SubscriptionTranslator starting for " << vdb_->agentName() << ":" << vdb_->systemName());
    KESTO_ASSERT(vdb_->isServerAgent() || vdb_->external(), kFile, Line::ctorAssert, kCtorSignature);

    std::string ctrlSubsPath = "velta/veCtrl/subscription";
    std::string extSubsPath = "velta/External/Subscription";
    const bool standalone = vdb_->standalone();
    if (!standalone) {
        const std::string agentName = vdb_->agentName();
        ctrlSubsPath = "velta/veCtrl/input/" + agentName + "/subscription";
        extSubsPath = "velta/External/input/" + agentName + "/Subscription";
    }

    // An external agent outside the server process writes straight into the server's table.
    if (!VeltaDB::server() && vdb_->external()) {
        vdb_->bindInterface(subsModifier, "velta/veCtrl/subscription", true);
    } else {
        vdb_->bindInterface(subsModifier, ctrlSubsPath, false);
    }
    vdb_->bindInterface(extSubsObserver_, "velta/External/Subscription", false);
    vdb_->bindInterface(subsReader, "velta/veCtrl/subscription", false);
    vdb_->bindInterface(sysDescReader, "velta/metadata/SystemDescription", false);
    sysDescReader.activateIndex(1);

    KESTO_TRACE(debugChannel_, 8, kFile, Line::ctorEntry, "SubscriptionTranslator", kCtorSignature);

    const bool serverAgent = vdb_->isServerAgent();
    if (serverAgent) {
        requiredInterfaces_.push_back(&extPubModifier);
        requiredInterfaces_.push_back(&pubObserver_);
        vdb_->bindInterface(extPubModifier, "velta/External/Publication", false);
        vdb_->bindInterface(pubObserver_, "velta/veCtrl/publication", false);
    } else {
        requiredInterfaces_.push_back(&pubModifier);
        requiredInterfaces_.push_back(&extPubObserver_);
        vdb_->bindInterface(pubModifier, "velta/veCtrl/publication", true);
        vdb_->bindInterface(extPubObserver_, "velta/External/Publication", false);
        requiredInterfaces_.push_back(&veTableObserver);
        vdb_->bindInterface(veTableObserver, "velta/metadata/veTable", false);
        if (!standalone) {
            requiredInterfaces_.push_back(&extSubsPerClientObserver_);
            vdb_->bindInterface(extSubsPerClientObserver_, extSubsPath, false);
        }
    }

    extSubsObserver_.clientReadyIs(true);
    if (serverAgent) {
        pubObserver_.clientReadyIs(true);
    } else {
        if (!standalone) extSubsPerClientObserver_.clientReadyIs(true);
        veTableObserver.clientReadyIs(true);
        extPubObserver_.clientReadyIs(true);
    }
}

SubscriptionTranslator::~SubscriptionTranslator() = default;

void SubscriptionTranslator::clean() {
    requiredInterfaces_.clear();
    subscriptions_.clear();
}

const VeTableInterface* SubscriptionTranslator::tableInterface(const std::string& ifName) const {
    for (const VeTableInterface* iface :
         {&extSubsObserver_, &extSubsPerClientObserver_, &subsReader, &subsModifier, &extPubObserver_,
          &extPubModifier, &pubObserver_, &pubModifier, &sysDescReader, &veTableObserver}) {
        if (iface->ifName() == ifName) return iface;
    }
    return nullptr;
}

void SubscriptionTranslator::onTableReady() {
    for (const VeTableInterface* iface : requiredInterfaces_) {
        if (!iface->ready()) {
            KESTO_TRACE(debugChannel_, 9, kFile, Line::notReady, "onTableReady",
                        iface->ifName() << " not ready");
            return;
        }
    }
    subsReader.activateIndex(1);
    extSubsObserver_.activateIndex(1);
    if (vdb_->standalone()) {
        extSubsOnReady();
    } else {
        subsModifier.activateIndex(1);
        extSubsOnReady();
    }
    if (!vdb_->isServerAgent()) {
        extPubOnReady();
        return;
    }
    pubObserver_.activateIndex(1);
    pubOnReady();
}

void SubscriptionTranslator::onTableRow(const BaseRow& row) {
    const veMetadata::veTable table(row);
    KESTO_TRACE(debugChannel_, 8, kFile, Line::onTableRowEntry, "onTableRow", kOnTableRowSignature << ": ");
    KESTO_TRACE(debugChannel_, 9, kFile, Line::onTableRowDetail, "onTableRow", "  table row: " << table);
    const auto pending = pendingTableSubscriptions_.find(table.tablePath());
    if (pending == pendingTableSubscriptions_.end()) return;
    // The intake decides whether the entry goes; the current row (possibly none) is re-run as it is.
    const External::Subscription current(extSubsObserver_.row(pending->second, 0));
    extSubsOnRow(current);
}

// ---------------------------------------------------------------------------------------------
// Registry

std::uint32_t SubscriptionTranslator::externalSubscriptionId(unsigned sid) const {
    const auto it = externalSubscriptionIds_.find(sid);
    return it == externalSubscriptionIds_.end() ? 0 : it->second;
}

std::shared_ptr<SubscriptionEntry> SubscriptionTranslator::subscription(
    const External::Subscription& sub) const {
    const auto it = subscriptions_.find(sub);
    return it == subscriptions_.end() ? std::shared_ptr<SubscriptionEntry>() : it->second;
}

// ---------------------------------------------------------------------------------------------
// External subscription intake

void SubscriptionTranslator::extSubsOnRow(const BaseRow& row) { extSubsOnRowCommon(row, false); }

void SubscriptionTranslator::extSubsOnClientRow(const BaseRow& row) { extSubsOnRowCommon(row, true); }

void SubscriptionTranslator::extSubsOnRowCommon(const BaseRow& row, bool perClient) {
    External::Subscription sub(row);
    KESTO_TRACE(debugChannel_, 8, kFile, Line::extSubsEntry, "extSubsOnRowCommon",
                kExtSubsOnRowCommonSignature << " (perClient:" << perClient << "): " << sub);
    if (perClient) sub.oidIs(0);

    static const std::size_t kOutputPath = subsField("outputPath");
    static const std::size_t kTypeName = subsField("typeName");
    static const std::size_t kQueryText = subsField("queryText");
    const std::string& outputPath = sub.string(kOutputPath);
    const std::string& typeName = sub.string(kTypeName);
    if (outputPath.empty()) {
        subscriptionComplete(sub, TableRow(), false, false, false, 0, 0, "Output path is empty.");
        return;
    }
    const unsigned typeId = vdb_->tableTypeId(typeName, false);
    if (typeId == VeltaDB::kUnknownTypeId) {
        subscriptionComplete(sub, TableRow(), false, false, false, 0, 0, "Result type undefined.");
        return;
    }
    TableRow table = vdb_->tableInfo(outputPath);

    veMetadata::SystemDescription sysDesc;
    sysDesc.oidIs(sub.system_description());
    sysDesc = veMetadata::SystemDescription(sysDescReader.row(sysDesc, 1));
    if (sysDesc.empty()) {
        subscriptionComplete(sub, TableRow(), false, false, false, 0, 0,
                             "SystemDescription no longer valid.");
        return;
    }

    // A non-server agent serves only its own system's clients; the server serves every system.
    if (!vdb_->isServerAgent() && !isOwnSystem(*vdb_, sysDesc)) {
        KESTO_TRACE(debugChannel_, 9, kFile, Line::extSubsUnrelated, "extSubsOnRowCommon",
                    "Unrelated SystemDescription " << sysDesc.sysName() << "::" << sysDesc.agentName()
                                                   << " [ours: " << vdb_->systemName()
                                                   << "::" << vdb_->agentName() << "]");
        return;
    }

    const std::string& queryText = sub.string(kQueryText);
    const bool writer = startsWithAndMore(queryText, kDirectWritePrefix);
    const bool reader = !writer && startsWithAndMore(queryText, kDirectReadPrefix);

    if (table.empty()) {
        const std::string owner = writer ? sysDesc.agentName() : std::string();
        const auto tableType = static_cast<TableType>(!sub.standing());
        vdb_->registerTable(outputPath, typeName, tableType, sub.desiredFlags(), sub.flags(), owner);
        table = vdb_->tableInfo(outputPath);
        if (table.empty()) {
            // The server registers tables at once; only other agents wait for the metadata row.
            KESTO_ASSERT(!vdb_->isServerAgent(), kFile, Line::extSubsServerTable,
                         kExtSubsOnRowCommonSignature);
            const std::string message = "Table row not ready for " + outputPath;
            KESTO_TRACE(debugChannel_, 4, kFile, Line::extSubsTableNotReady, "extSubsOnRowCommon", message);
            subscriptionComplete(sub, table, writer, reader, false, 0, 0, message);
            pendingTableSubscriptions_[outputPath] = sub;
            return;
        }
    }
    pendingTableSubscriptions_.erase(outputPath);

    const std::uint16_t desiredFlags = sub.desiredFlags();
    if (desiredFlags != 0) {
        if (reader && !sub.standing() && ((desiredFlags & kNonMaterializedFlag) & sub.flags()) != 0) {
            subscriptionComplete(sub, table, writer, true, false, 0, 0,
                                 std::string("Can't do a one-shot read of ") + "non-materialized table. " +
                                     "Issue a standing read, or use a query instead.");
            return;
        }
        if (writer) {
            const std::string owner = table.owner();
            if (!owner.empty() && owner != sysDesc.agentName()) {
                subscriptionComplete(sub, table, writer, reader, false, 0, 0,
                                     "Can't write to table already owned by " + owner);
                return;
            }
        }
    }

    veCtrl::subscription ctrl;
    ctrl.system_descriptionIs(sub.system_description());
    ctrl.connection_idIs(sub.oid());
    ctrl.tableIdIs(table.oid());
    ctrl.writerIs(writer);
    ctrl.typeNameIs(typeName);
    ctrl.featuresIs(sub.features());
    ctrl.type_signatureIs(sub.type_signature());
    ctrl.ptimeIs(sub.ptime());

    if (reader || writer) {
        KESTO_TRACE(debugChannel_, 4, kFile, Line::extSubsSubscribe, "extSubsOnRowCommon",
                    "[" << vdb_->systemName() << ":" << sub.system_description() << "] subscribe "
                        << (reader ? "r" : "") << (writer ? "w" : "") << " " << outputPath);
    }

    subsModifier.rowIs(ctrl);
    ctrl = veCtrl::subscription(subsReader.row(ctrl, 0));
    const oid_t sid = ctrl.empty() ? 0 : ctrl.oid();

    subscriptionComplete(sub, table, writer, reader, true, 0, sid, "");

    if (!vdb_->isServerAgent()) return;

    // The client must see a publication row for its subscription: the mirrored internal one when
    // it exists, else a placeholder until it does.
    External::Publication pub;
    pub.subscription_idIs(sub.oid());
    pub = External::Publication(extPubModifier.row(pub, 0));
    if (!pub.empty() && pub.publication_id() != 0) return;

    veCtrl::publication internalKey;
    internalKey.subscription_idIs(sid);
    const BaseRow internal = pubObserver_.row(internalKey, 0);
    if (!internal.empty()) pubOnRow(internal);

    pub = External::Publication(extPubModifier.row(pub, 0));
    if (pub.empty()) {
        External::Publication placeholder;
        placeholder.publication_idIs(0);
        placeholder.subscription_idIs(sub.oid());
        placeholder.statusIs(true);
        placeholder.tableIdIs(table.oid());
        placeholder.typeIdIs(typeId);
        placeholder.ptimeIs(0);
        extPubModifier.rowIs(placeholder);
    }
}

void SubscriptionTranslator::extSubsOnReady() {
    extSubsObserver_.activate(true);
    const VeRowIterator subsEnd = extSubsObserver_.end(0);
    for (VeRowIterator it = extSubsObserver_.begin(0); it != subsEnd; ++it) extSubsOnRow(*it);

    KESTO_TRACE(debugChannel_, 8, kFile, Line::extSubsOnReadyEntry, "extSubsOnReady",
                kExtSubsOnReadySignature);

    // Control rows survive only for an external member system whose external subscription exists.
    // The lookup keys are reused for every row.
    veMetadata::SystemDescription sysKey;
    External::Subscription extKey;
    const VeRowIterator ctrlEnd = subsModifier.end(0);
    for (VeRowIterator it = subsModifier.begin(0); it != ctrlEnd;) {
        const veCtrl::subscription c(*it);
        sysKey.oidIs(c.system_description());
        const veMetadata::SystemDescription sysDesc(sysDescReader.row(sysKey, 0));
        bool keep = false;
        if (!sysDesc.empty() && (sysDesc.properties() & kExternalMemberProperty) != 0) {
            extKey.oidIs(c.connection_id());
            keep = !extSubsObserver_.row(extKey, 1).empty();
        }
        if (keep) {
            ++it;
        } else {
            it = subsModifier.rowDel(it);
        }
    }

    if (vdb_->isServerAgent()) {
        const VeRowIterator pubEnd = extPubModifier.end(0);
        for (VeRowIterator it = extPubModifier.begin(0); it != pubEnd;) {
            const External::Publication p(*it);
            extKey.oidIs(p.subscription_id());
            if (!extSubsObserver_.row(extKey, 1).empty()) {
                ++it;
            } else {
                it = extPubModifier.rowDel(it);
            }
        }
    }
    extSubsObserver_.activate(false);
}

// ---------------------------------------------------------------------------------------------
// External subscription withdrawal

void SubscriptionTranslator::extSubsOnDelete(const BaseRow& row) {
    const External::Subscription sub(row);
    KESTO_TRACE(debugChannel_, 8, kFile, Line::extSubsDeleteEntry, "extSubsOnDelete",
                kExtSubsOnDeleteSignature << ": ");
    KESTO_TRACE(debugChannel_, 9, kFile, Line::extSubsDeleteKey, "extSubsOnDelete", "  key: " << sub);

    const auto found = subscriptions_.find(sub);
    if (found == subscriptions_.end()) return;
    const External::Subscription key = found->first;
    std::shared_ptr<SubscriptionEntry> entry = found->second;

    KESTO_TRACE(debugChannel_, 4, kFile, Line::extSubsDeleting, "extSubsOnDelete",
                " deleting subscription [" << key.oid() << "] " << key.outputPath());
    subscriptions_.erase(found);
    externalSubscriptionIds_.erase(entry->sid);

    const bool serverAgent = vdb_->isServerAgent();
    if (serverAgent) {
        External::Publication pub;
        pub.subscription_idIs(key.oid());
        extPubModifier.rowDel(pub);
    }

    KESTO_TRACE(debugChannel_, 9, kFile, Line::extSubsDeleteLookup, "extSubsOnDelete",
                "  Lookup sid: " << entry->sid);
    veCtrl::subscription ctrlKey;
    ctrlKey.oidIs(entry->sid);
    const VeRowIterator ctrl = subsModifier.find(ctrlKey, 1);
    if (ctrl != subsModifier.end(1)) {
        const BaseRow ctrlRow = *ctrl;
        subsModifier.rowDel(ctrlRow);
    } else {
        KESTO_TRACE(debugChannel_, 9, kFile, Line::extSubsDeleteNotFound, "extSubsOnDelete", "  Not found");
    }

    // Only a real query was defined for the subscription; direct reads and writes have none.
    if (serverAgent && !entry->writer && !entry->reader) {
        const std::string outputPath = key.outputPath();
        KESTO_TRACE(debugChannel_, 4, kFile, Line::extSubsRemoveQuery, "extSubsOnDelete",
                    "[" << vdb_->systemName() << "] removeQuery " << outputPath);
        vdb_->removeQuery(outputPath);
    }
    entry.reset();
}

// ---------------------------------------------------------------------------------------------
// Subscription completion

void SubscriptionTranslator::subscriptionComplete(Subs sub, TableRow table, bool writer, bool reader, bool ok,
                                                  oid_t /*querySid*/, oid_t sid, const std::string& error) {
    KESTO_TRACE(debugChannel_, 8, kFile, Line::completeEntry, "subscriptionComplete",
                kSubscriptionCompleteSignature << "( ok:" << ok << ", sid:" << sid << ",tr?" << !table.empty()
                                               << "): " << sub << "[" << error << "]");
    const std::uint32_t tableOid = table.empty() ? 0 : table.oid();

    std::shared_ptr<SubscriptionEntry> entry;
    // One walk down the registry: the place found is where a new entry goes.
    const auto found = subscriptions_.lower_bound(sub);
    if (found == subscriptions_.end() || sub < found->first) {
        unsigned typeId = vdb_->tableTypeId(sub.typeName(), false);
        if (typeId == VeltaDB::kUnknownTypeId) typeId = 0;
        entry = std::make_shared<SubscriptionEntry>(writer, reader, sub.oid(), tableOid, typeId);
        subscriptions_.emplace_hint(found, sub, entry);
    } else {
        entry = found->second;
        if (tableOid != 0) entry->tableOid = tableOid;
        // Per-agent tables may re-create an external row under a new oid; follow it there only.
        if (!vdb_->isServerAgent() && !vdb_->standalone() && sub.oid() != entry->externalOid &&
            sub.oid() != 0) {
            KESTO_TRACE(
                debugChannel_, 9, kFile, Line::completeExternalOid, "subscriptionComplete",
                "Updating Sid for " << sub.outputPath() << ", " << entry->externalOid << "=>" << sub.oid());
            entry->externalOid = sub.oid();
            subscriptions_.emplace(sub, entry);
        }
    }

    if (sid != 0 && sid != entry->sid) {
        if (entry->sid != 0) externalSubscriptionIds_.erase(entry->sid);
        KESTO_TRACE(debugChannel_, 9, kFile, Line::completeSid, "subscriptionComplete",
                    "Updating sid for " << sub.outputPath() << ", " << entry->sid << "=>" << sid);
        entry->sid = sid;
        externalSubscriptionIds_[sid] = sub.oid();
    }

    if (ok) return;

    if (!table.empty()) {
        veCtrl::subscription ctrl;
        ctrl.system_descriptionIs(sub.system_description());
        ctrl.connection_idIs(sub.oid());
        ctrl.tableIdIs(tableOid);
        subsModifier.rowDel(ctrl);
        entry->sid = 0;
    }

    if (vdb_->isServerAgent()) {
        // A publication row that already exists (the intake's placeholder, or a mirrored one) wins.
        External::Publication pub;
        pub.subscription_idIs(sub.oid());
        if (extPubModifier.find(pub, 0) == extPubModifier.end(0)) {
            pub.publication_idIs(0);
            pub.connection_idIs(sub.oid());
            pub.tableIdIs(tableOid);
            pub.typeIdIs(entry->typeId);
            pub.statusIs(false);
            pub.errorIs(error);
            extPubModifier.rowIs(pub);
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Internal-to-external publication

void SubscriptionTranslator::pubOnRow(const BaseRow& row) {
    const veCtrl::publication pub(row);
    KESTO_TRACE(debugChannel_, 8, kFile, Line::pubOnRowEntry, "pubOnRow", kPubOnRowSignature << ": " << pub);
    const oid_t sid = pub.subscription_id();
    const std::uint32_t tableId = pub.tableId();

    veCtrl::subscription ctrlKey;
    ctrlKey.oidIs(sid);
    const veCtrl::subscription ctrl(subsReader.row(ctrlKey, 1));
    const TableRow table = vdb_->tableInfo(tableId);
    if (ctrl.empty() || table.empty()) return;

    veMetadata::SystemDescription sysKey;
    sysKey.oidIs(ctrl.system_description());
    const veMetadata::SystemDescription sysDesc(sysDescReader.row(sysKey, 1));
    if (sysDesc.empty()) return;
    if ((sysDesc.properties() & kExternalMemberProperty) == 0) {
        KESTO_TRACE(debugChannel_, 2, kFile, Line::pubOnRowInternalMember, "pubOnRow",
                    "  PublicationTranslator Skipping internal publication: "
                        << ctrl << " for internal member " << sysDesc);
        return;
    }

    External::Subscription subKey;
    subKey.system_descriptionIs(ctrl.system_description());
    subKey.outputPathIs(table.tablePath());
    const External::Subscription extSub(extSubsObserver_.row(subKey, 0));
    if (extSub.empty()) return;

    External::Publication extPubKey;
    extPubKey.subscription_idIs(extSub.oid());
    External::Publication extPub(extPubModifier.row(extPubKey, 0));
    if (extPub.empty()) extPub = extPubKey;

    const bool unchanged = extPub.publication_id() == sid && extPub.ptime() + kPtimeSlack > pub.ptime() &&
                           extPub.status() == pub.status() && extPub.error() == pub.error();
    if (!unchanged) {
        extPub.publication_idIs(sid);
        extPub.tableIdIs(tableId);
        extPub.typeIdIs(pub.typeId());
        extPub.ptimeIs(pub.ptime());
        extPub.statusIs(pub.status());
        extPub.errorIs(pub.error());
        extPubModifier.rowIs(extPub);
    }
    if (publications_.find(pub) == publications_.end()) publications_.insert(pub.clone());

    if (!extPub.status()) return;

    const std::shared_ptr<SubscriptionEntry> entry = subscription(extSub);
    if (!entry) return;  // not handled by this translator: nothing to define
    if (entry->reader || entry->writer) return;

    const std::vector<std::string> pName = extSub.paramName();
    const std::vector<std::string> pValue = extSub.paramValue();
    KESTO_ASSERT(pName.size() == pValue.size(), kFile, Line::pubOnRowParams, kPubOnRowSignature);
    VeltaDB::QueryParams params;
    params.reserve(pName.size());
    for (std::size_t i = 0; i < pName.size(); ++i) params[pName[i]] = pValue[i];

    QueryCompletion done{this, extSub, table, entry->writer, entry->reader, sid};
    const std::string queryText = extSub.queryText();
    KESTO_TRACE(debugChannel_, 4, kFile, Line::pubOnRowDefineQuery, "pubOnRow",
                "[" << vdb_->systemName() << ":" << ctrl.system_description() << "] defineQuery ("
                    << extSub.outputPath() << ") " << queryText);
    vdb_->defineQuery(queryText, pub.typeId(), params, std::move(done), extSub.standing(), std::string());
}

void SubscriptionTranslator::pubOnDelete(const BaseRow& row) {
    KESTO_TRACE(debugChannel_, 8, kFile, Line::pubOnDeleteEntry, "pubOnDelete", kPubOnDeleteSignature);
    const veCtrl::publication pub(row);
    const auto found = publications_.find(pub);
    if (found == publications_.end()) return;

    const std::uint32_t externalId = externalSubscriptionId(found->subscription_id());
    if (externalId != 0) {
        External::Publication key;
        key.subscription_idIs(externalId);
        External::Publication extPub(extPubModifier.row(key, 0));
        if (!extPub.empty() && extPub.status()) {
            extPub.statusIs(false);
            extPub.errorIs("no corresponding publication row");
            extPubModifier.rowIs(extPub);
        }
    }
    publications_.erase(found);
}

void SubscriptionTranslator::pubOnReady() {
    pubObserver_.activate(true);
    const VeRowIterator pubEnd = pubObserver_.end(0);
    for (VeRowIterator it = pubObserver_.begin(0); it != pubEnd; ++it) pubOnRow(*it);

    veCtrl::publication key;
    const VeRowIterator extEnd = extPubModifier.end(0);
    for (VeRowIterator it = extPubModifier.begin(0); it != extEnd; ++it) {
        External::Publication extPub(*it);
        if (extPub.publication_id() == 0) continue;
        key.subscription_idIs(extPub.publication_id());
        const veCtrl::publication internal(pubObserver_.row(key, 0));
        if (!internal.empty()) {
            publications_.insert(internal);
        } else {
            extPub.statusIs(false);
            extPub.errorIs("no corresponding internal publication row");
            extPubModifier.rowIs(extPub);
        }
    }
    pubObserver_.activate(false);
}

// ---------------------------------------------------------------------------------------------
// External-to-internal publication

void SubscriptionTranslator::extPubOnRow(const BaseRow& row) {
    KESTO_TRACE(debugChannel_, 8, kFile, Line::extPubOnRowEntry, "extPubOnRow", kExtPubOnRowSignature);
    const External::Publication extPub(row);
    KESTO_TRACE(debugChannel_, 9, kFile, Line::extPubOnRowDetail, "extPubOnRow",
                " External publication: " << extPub);

    External::Subscription subKey;
    subKey.oidIs(extPub.subscription_id());
    const External::Subscription sub(extSubsObserver_.row(subKey, 1));
    if (sub.empty()) {
        KESTO_TRACE(debugChannel_, 4, kFile, Line::extPubOnRowNoSubscription, "extPubOnRow",
                    "No corresponding external Subscription for " << extPub);
        return;
    }
    const auto found = subscriptions_.find(sub);
    if (found == subscriptions_.end()) {
        KESTO_TRACE(debugChannel_, 4, kFile, Line::extPubOnRowNoEntry, "extPubOnRow",
                    "No internal entry for Subscription " << sub);
        return;
    }
    const oid_t sid = found->second->sid;
    if (sid == 0) {
        KESTO_TRACE(debugChannel_, 4, kFile, Line::extPubOnRowNoCtrl, "extPubOnRow",
                    "No corresponding ctrl subscription for " << extPub);
        return;
    }
    veMetadata::SystemDescription sysKey;
    sysKey.oidIs(sub.system_description());
    const veMetadata::SystemDescription sysDesc(sysDescReader.row(sysKey, 1));
    if (sysDesc.empty()) {
        KESTO_TRACE(debugChannel_, 2, kFile, Line::extPubOnRowNoSystem, "extPubOnRow",
                    "No matching system description for subscription: " << sub);
        return;
    }
    if (!isOwnSystem(*vdb_, sysDesc)) {
        KESTO_TRACE(debugChannel_, 2, kFile, Line::extPubOnRowUnrelated, "extPubOnRow",
                    "  PublicationTranslator Skipping unrelated subscription: " << sub << " (for system: "
                                                                                << sysDesc << ")");
        return;
    }

    veCtrl::publication pub;
    pub.subscription_idIs(sid);
    pub.view_idIs(extPub.view_id());
    pub.connection_idIs(extPub.connection_id());
    pub.tableIdIs(extPub.tableId());
    pub.typeIdIs(extPub.typeId());
    pub.ptimeIs(extPub.ptime());
    pub.system_idIs(sub.system_description());
    pub.statusIs(extPub.status());
    pub.errorIs(extPub.error());
    pubModifier.rowIs(pub);
}

void SubscriptionTranslator::extPubOnDelete(const BaseRow& row) {
    KESTO_TRACE(debugChannel_, 8, kFile, Line::extPubOnDeleteEntry, "extPubOnDelete",
                kExtPubOnDeleteSignature);
    const External::Publication extPub(row);
    // The registry key is read from the publication row itself, through the subscription's key fields.
    const External::Subscription asSubscription(extPub);
    const auto found = subscriptions_.find(asSubscription);
    if (found == subscriptions_.end()) return;

    const oid_t sid = found->second->sid;
    veCtrl::publication key;
    key.subscription_idIs(sid);
    KESTO_TRACE(debugChannel_, 9, kFile, Line::extPubOnDeleteDetail, "extPubOnDelete",
                " deleting internal publication [" << sid << "] "
                                                   << " for external subscription: " << found->first);
    pubModifier.rowDel(key);
}

void SubscriptionTranslator::extPubOnReady() {
    extPubObserver_.activate(true);
    const VeRowIterator extEnd = extPubObserver_.end(0);
    for (VeRowIterator it = extPubObserver_.begin(0); it != extEnd; ++it) extPubOnRow(*it);

    // Collect first, delete after the walk: the walk must see the table as it was.
    std::set<veCtrl::publication> stale;
    External::Publication key;
    const VeRowIterator pubEnd = pubModifier.end(0);
    for (VeRowIterator it = pubModifier.begin(0); it != pubEnd; ++it) {
        const veCtrl::publication pub(*it);
        const std::uint32_t externalId = externalSubscriptionId(pub.subscription_id());
        if (externalId == 0) {
            stale.insert(pub);
            continue;
        }
        key.subscription_idIs(externalId);
        if (extPubModifier.row(key, 0).empty()) stale.insert(pub);
    }
    for (const veCtrl::publication& pub : stale) pubModifier.rowDel(pub);
    extPubObserver_.activate(false);
}

}  // namespace Velta::Agent
