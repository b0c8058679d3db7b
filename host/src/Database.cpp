// The database core: tables by path, writes and deletions with their notifications, interface
// binding and readiness, the event loop, host calls (registration, queries), control
// publications, and the embedding facade and agent handles around it.
//
// Work that happens "one loop turn later" is a host task on the same FIFO queue as callbacks.
#include "HostInternal.h"

#include <Kesto/DebugSupport.h>
#include <Velta/Host/Database.h>

#include <absl/cleanup/cleanup.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdlib>
#include <limits>
#include <sstream>
#include <stdexcept>

namespace Velta::Host {

using Velta::detail::Attachment;
using Velta::detail::HostAccess;
using Velta::detail::RowRef;
using Velta::detail::Slot;
using Velta::detail::TableState;

namespace {

constexpr const char* kVeTablePath = "velta/metadata/veTable";
constexpr const char* kCtrlSubscriptionPath = "velta/veCtrl/subscription";
constexpr const char* kCtrlPublicationPath = "velta/veCtrl/publication";

// Tables every database starts with, metadata first so that each gets its metadata row.
constexpr std::pair<const char*, BuiltinRow> kStartTables[] = {
    {"velta/metadata/veTable", BuiltinRow::veTable},
    {"velta/metadata/SystemDescription", BuiltinRow::systemDescription},
    {"velta/External/Subscription", BuiltinRow::externalSubscription},
    {"velta/External/Publication", BuiltinRow::externalPublication},
    {"velta/veCtrl/subscription", BuiltinRow::ctrlSubscription},
    {"velta/veCtrl/publication", BuiltinRow::ctrlPublication},
};

std::atomic<bool> serverProcessFlag{false};

const BaseRow kNoRow;

std::uint64_t oidOf(const BaseRow& row) noexcept {
    const RowType* t = row.rowType();
    if (t == nullptr || t->oidField() < 0) return 0;
    return row.number(static_cast<std::size_t>(t->oidField()));
}

// The table path named after the first word FROM (in any case, followed by any blank), up to a
// blank, ';', ',' or ')'; empty when there is none.
std::string fromTable(const std::string& text) {
    const auto blank = [&](std::size_t i) { return std::isspace(static_cast<unsigned char>(text[i])) != 0; };
    for (std::size_t p = 0; p + 5 <= text.size(); ++p) {
        if ((p > 0 && !blank(p - 1)) || !blank(p + 4)) continue;
        if (!std::equal(text.begin() + static_cast<std::ptrdiff_t>(p),
                        text.begin() + static_cast<std::ptrdiff_t>(p + 4), "FROM",
                        [](char a, char b) { return std::toupper(static_cast<unsigned char>(a)) == b; }))
            continue;
        std::size_t b = p + 5;
        while (b < text.size() && blank(b)) ++b;
        std::size_t e = b;
        while (e < text.size() && !blank(e) && text[e] != ';' && text[e] != ',' && text[e] != ')') ++e;
        return text.substr(b, e - b);
    }
    return {};
}

EventListener::Delivery deliveryOf(QueuedEvent::Kind kind) noexcept {
    switch (kind) {
        case QueuedEvent::Kind::ready:
            return EventListener::Delivery::ready;
        case QueuedEvent::Kind::row:
            return EventListener::Delivery::row;
        case QueuedEvent::Kind::rowDelete:
            return EventListener::Delivery::rowDelete;
        case QueuedEvent::Kind::task:
            break;
    }
    return EventListener::Delivery::hostTask;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Impl: tables

Database::Impl::Impl(Database& db, Options opts) : owner(db), options(opts), shuffle_(opts.shuffleSeed) {
    for (const auto& [path, which] : kStartTables) createTable(slotFor(path), builtinRowType(which), "", 0);
}

Database::Impl::~Impl() {
    queue.clear();
    seededQueue.clear();
}

Slot& Database::Impl::slotFor(const std::string& path) {
    auto it = slots.find(path);
    if (it != slots.end()) return it->second;
    Slot& s = slots[path];
    s.path = path;
    s.controlSubscriptions = path == kCtrlSubscriptionPath;
    return s;
}

Slot* Database::Impl::findSlot(std::string_view path) noexcept {
    auto it = slots.find(absl::string_view(path.data(), path.size()));
    return it == slots.end() ? nullptr : &it->second;
}

const Slot* Database::Impl::findSlot(std::string_view path) const noexcept {
    auto it = slots.find(absl::string_view(path.data(), path.size()));
    return it == slots.end() ? nullptr : &it->second;
}

const RowType* Database::Impl::rowTypeNamed(const std::string& name) {
    if (const auto it = typesByName_.find(name); it != typesByName_.end()) return it->second;
    const RowType* type = findRowType(name);
    if (type != nullptr) typesByName_.emplace(name, type);
    return type;
}

void Database::Impl::eraseSlotIfUnused(Slot& slot) {
    if (slot.table || !slot.attachments.empty()) return;
    if (&slot == veTableSlot_) veTableSlot_ = nullptr;
    slots.erase(slots.find(slot.path));
}

void Database::Impl::changedFromAHook(const char* function) noexcept {
    KESTO_ASSERT(!"a listener hook must not change the database", __FILE__, __LINE__, function);
    std::abort();  // the assertion ends the process; this says so to the compiler
}

bool Database::Impl::createTable(Slot& slot, const RowType& type, const std::string& ownerName,
                                 unsigned oid) {
    hookNotRunning(__PRETTY_FUNCTION__);
    if (slot.table) return false;
    slot.table = std::make_shared<TableState>(type, slot.path);
    tell([&](EventListener& l) { l.onTableCreated(slot.path); });
    if (Slot* meta = findSlot(kVeTablePath); meta != nullptr && meta->table) {
        veMetadata::veTable row;
        row.oidIs(oid);
        row.tablePathIs(slot.path);
        row.typeNameIs(type.name());
        row.ownerIs(ownerName);
        writeRow(*meta, row);
    }
    return true;
}

void Database::Impl::restoreMetadataRow(Slot& slot, const std::string& ownerName) {
    Slot& meta = slotFor(kVeTablePath);
    if (!meta.table) createTable(meta, veMetadata::veTable::type(), "", 0);
    veMetadata::veTable key;
    key.tablePathIs(slot.path);
    // Looked up as a row of the table's own type: a client may have made it again with another.
    if (!lookupIn(&meta, key, 0).empty()) return;
    veMetadata::veTable row;
    row.tablePathIs(slot.path);
    row.typeNameIs(slot.table->type().name());
    row.ownerIs(ownerName);
    writeRow(meta, row);
}

bool Database::Impl::dropTable(const std::string& path) {
    hookNotRunning(__PRETTY_FUNCTION__);
    Slot* slot = findSlot(path);
    if (slot == nullptr || !slot->table) return false;
    std::shared_ptr<TableState> table = std::move(slot->table);
    if (slot->controlSubscriptions && options.autoPublish)  // every control row goes at once
        for (const Velta::detail::OrderKey& key : table->primary())
            controlSubscriptionRemoved(table->oidOf(*table->rowAt(key)));
    table->clear();  // positions still holding the table now see it empty
    tell([&](EventListener& l) { l.onTableDropped(path); });
    if (Slot* meta = findSlot(kVeTablePath); meta != nullptr && meta->table) {
        veMetadata::veTable key;
        key.tablePathIs(path);
        eraseRow(*meta, key);
    }
    eraseSlotIfUnused(*slot);
    return true;
}

const RowData* Database::Impl::writeRow(Slot& slot, BaseRow& row) {
    hookNotRunning(__PRETTY_FUNCTION__);
    if (row.empty()) return nullptr;
    TableState& t = *slot.table;
    BaseRow converted;
    BaseRow* target = &row;
    if (row.rowType() != &t.type()) {
        converted = row.as(t.type());
        target = &converted;
    }
    std::optional<std::uint64_t> replacedOid;  // none: a new row (or one whose store waits)
    bool added = false;
    if (t.defersWrites() && !slot.controlSubscriptions) {
        t.defer(*target->data());  // storing it tells the writer nothing: it waits while its entry is fetched
    } else {
        replacedOid = storeNow(t, row, *target);
        added = !replacedOid;
    }
    notify(slot, QueuedEvent::Kind::row, *target);
    tell([&](EventListener& l) { l.onWrite(slot.path, *target); });
    const bool publishes = slot.controlSubscriptions && options.autoPublish;
    if (publishes && added) controlSubscriptionAdded(*target);
    // A rewrite under another oid: the row the publication answered is gone as far as it goes.
    if (publishes && replacedOid && *replacedOid != oidOf(*target)) controlSubscriptionRemoved(*replacedOid);
    return target->data();  // the table holds it too
}

std::optional<std::uint64_t> Database::Impl::storeNow(TableState& t, BaseRow& row, BaseRow& target) {
    const int oidField = t.type().oidField();
    bool oidAssigned = false;
    const auto oidAt = static_cast<std::size_t>(oidField);
    if (oidField >= 0 && t.oidInKey() && target.number(oidAt) == 0) {
        // The oid is the key: a row without one is always new.
        newOidIs(t, target, oidAt);
        oidAssigned = true;
    }
    const TableState::Spot spot = t.locate(*target.data());
    if (oidField >= 0 && target.number(oidAt) == 0) {
        if (spot.stored != nullptr)
            target.numberIs(oidAt, t.oidOf(*spot.stored));
        else
            newOidIs(t, target, oidAt);
        oidAssigned = true;
    }
    if (oidAssigned && &target != &row) {
        // Tell the caller the oid as well, when its own row has one.
        const RowType& callerType = *row.rowType();
        const int f = callerType.fieldIndex("oid");
        if (f >= 0 && isNumberKind(callerType.fields()[static_cast<std::size_t>(f)].kind))
            row.numberIs(static_cast<std::size_t>(f), oidOf(target));
    }
    std::optional<std::uint64_t> replacedOid;
    if (spot.stored != nullptr) replacedOid = t.oidOf(*spot.stored);
    t.put(spot, target);
    return replacedOid;
}

void Database::Impl::newOidIs(const TableState& t, BaseRow& target, std::size_t oidField) {
    // The field holds what it can of the counter: past its width the numbers come round again, and
    // those still taken are passed over like any other.
    do target.numberIs(oidField, ++nextOid_);
    while (target.number(oidField) == 0 || t.hasOid(target.number(oidField)));
}

bool Database::Impl::eraseRow(Slot& slot, const BaseRow& key) {
    hookNotRunning(__PRETTY_FUNCTION__);
    if (!slot.table || key.empty()) return false;
    TableState& t = *slot.table;
    const BaseRow removed = RowRef::adopt(key.rowType() == &t.type() ? t.remove(*key.data())
                                                                     : t.remove(*key.as(t.type()).data()));
    if (removed.empty()) return false;
    notify(slot, QueuedEvent::Kind::rowDelete, removed);
    tell([&](EventListener& l) { l.onDelete(slot.path, removed); });
    if (slot.controlSubscriptions && options.autoPublish) controlSubscriptionRemoved(oidOf(removed));
    return true;
}

BaseRow Database::Impl::lookup(std::string_view path, const BaseRow& key, unsigned char index) const {
    return lookupIn(findSlot(path), key, index);
}

BaseRow Database::Impl::lookupIn(const Slot* slot, const BaseRow& key, unsigned char index) {
    if (slot == nullptr || !slot->table || key.empty()) return BaseRow();
    return RowRef::share(slot->table->lookup(key, index));
}

veMetadata::veTable Database::Impl::tableInfo(const std::string& path) const {
    // The key row is kept for these lookups (nothing else shares it): setting its path reuses its
    // storage.
    tableKey_.tablePathIs(path);
    return veMetadata::veTable(lookupIn(veTableSlot(), tableKey_, 0));
}

const Slot* Database::Impl::veTableSlot() const noexcept {
    if (veTableSlot_ == nullptr) veTableSlot_ = findSlot(kVeTablePath);
    return veTableSlot_;
}

veMetadata::veTable Database::Impl::tableInfo(unsigned oid) const {
    veMetadata::veTable key;
    key.oidIs(oid);
    return veMetadata::veTable(lookupIn(veTableSlot(), key, 1));
}

// ---------------------------------------------------------------------------------------------
// Impl: interfaces and the queue

void Database::Impl::bind(VeTableInterface& iface, const std::string& path, bool flag,
                          const std::string& agentName) {
    hookNotRunning(__PRETTY_FUNCTION__);
    // Bound already: the first binding goes with what it queued; bound() below resets the rest.
    if (std::shared_ptr<Attachment>& old = HostAccess::attachment(iface)) {
        std::shared_ptr<Attachment> previous = std::move(old);
        detach(*previous);
    }
    Slot& slot = slotFor(path);
    if (!slot.table) {
        if (const RowType* type = findRowType(iface.rowTypeName())) createTable(slot, *type, agentName, 0);
    }
    auto att = std::make_shared<Attachment>();
    att->database = owner.shared_from_this();
    att->impl = this;
    att->slot = &slot;
    att->iface = &iface;
    att->id = ++attachIds_;
    att->observing = (iface.mode() & kModeObserve) != 0;
    att->agentName = agentName;
    slot.attachments.push_back(att.get());
    HostAccess::bound(iface, path, flag, att->id);
    HostAccess::attachment(iface) = att;
    considerReady(*att);
}

void Database::Impl::detach(Attachment& att) {
    Slot& slot = *att.slot;
    std::erase(slot.attachments, &att);
    std::erase(slot.observers, &att);
    if (att.queued != 0) {
        const auto isAtt = [&att](const QueuedEvent& e) { return e.att == &att; };
        if (options.shuffleSeed != 0)
            seededQueue.removeIf(isAtt);
        else
            queue.removeIf(isAtt);
        att.queued = 0;
    }
    att.iface = nullptr;
    eraseSlotIfUnused(slot);
}

void Database::Impl::considerReady(Attachment& att) {
    if (att.readyQueued || att.iface == nullptr) return;
    if (att.observing && !att.iface->clientReady()) return;
    att.readyQueued = true;
    if (att.observing) att.slot->observers.push_back(&att);
    push(QueuedEvent{&att, QueuedEvent::Kind::ready, BaseRow(), nullptr});
}

void Database::Impl::notify(Slot& slot, QueuedEvent::Kind kind, const BaseRow& row) {
    if (options.shuffleSeed != 0) {
        for (Attachment* att : slot.observers) {
            ++att->queued;
            seededQueue.pushRow(att, kind, row);
        }
        return;
    }
    for (Attachment* att : slot.observers) {
        ++att->queued;
        queue.pushRow(att, kind, row);
    }
}

void Database::Impl::push(QueuedEvent&& e) {
    hookNotRunning(__PRETTY_FUNCTION__);
    if (e.att != nullptr) ++e.att->queued;
    if (options.shuffleSeed != 0)
        seededQueue.push(std::move(e));
    else
        queue.push(std::move(e));
}

void Database::Impl::queueTask(const char* kind, std::string subject, std::function<void()> run) {
    auto task = std::make_unique<HostTask>();
    task->kind = kind;
    task->subject = std::move(subject);
    task->run = std::move(run);
    push(QueuedEvent{nullptr, QueuedEvent::Kind::task, BaseRow(), std::move(task)});
}

bool Database::Impl::runOne() {
    if ((queue.empty() && seededQueue.empty()) || delivering) return false;
    QueuedEvent e = options.shuffleSeed != 0 ? takeSeeded() : takeNext();
    if (e.att != nullptr) --e.att->queued;
    delivering = true;
    const absl::Cleanup delivered = [this] { delivering = false; };  // a callback's throw included
    deliver(e);
    return true;
}

QueuedEvent Database::Impl::takeNext() {
    lookAhead();
    return queue.takeFront();
}

QueuedEvent Database::Impl::takeSeeded() {
    // Draw a waiting event, then deliver the oldest event of the same receiver, which keeps each
    // interface's callbacks (and the host tasks) in their own order.
    std::size_t pick = 0;
    if (seededQueue.size() > 1)
        pick = std::uniform_int_distribution<std::size_t>(0, seededQueue.size() - 1)(shuffle_);
    return seededQueue.takeOldestOfReceiverAt(pick);
}

void Database::Impl::lookAhead() noexcept {
    constexpr std::size_t kRowAhead = 8;
    constexpr std::size_t kHookAhead = 4;
    if (queue.size() > kRowAhead) {
        if (const RowData* data = queue.at(kRowAhead).row.data()) {
            internal::prefetchLine(data);
            internal::prefetchLine(reinterpret_cast<const char*>(data) + 64);
        }
    }
    if (queue.size() > kHookAhead) {
        const QueuedEvent& e = queue.at(kHookAhead);
        if (e.att != nullptr && e.att->lookahead != nullptr && !e.row.empty())
            e.att->lookahead(e.att->lookaheadContext, e.row);
    }
}

void Database::Impl::deliver(QueuedEvent& e) {
    // The listener hears of the delivery's end however the callback ends, a throw included, so that
    // its begins and ends stay paired.
    EventListener* const l = listener;
    const auto ended = [l] {
        if (l != nullptr) l->onDeliveryEnd();
    };
    if (e.att == nullptr) {
        if (l != nullptr)
            l->onDeliveryBegin(EventListener::Delivery::hostTask, nullptr, kNoRow, e.task->what());
        const absl::Cleanup end = ended;
        if (e.task->run) e.task->run();
        return;
    }
    VeTableInterface& iface = *e.att->iface;
    static const std::string kNoWhat;
    if (l != nullptr) l->onDeliveryBegin(deliveryOf(e.kind), &iface, e.row, kNoWhat);
    const absl::Cleanup end = ended;
    switch (e.kind) {
        case QueuedEvent::Kind::ready:
            HostAccess::readyIs(iface);
            if (const auto& cb = HostAccess::onReady(iface)) cb();
            break;
        case QueuedEvent::Kind::row:
            if (const auto& cb = HostAccess::onRow(iface)) cb(e.row);
            break;
        case QueuedEvent::Kind::rowDelete:
            if (const auto& cb = HostAccess::onDelete(iface)) cb(e.row);
            break;
        case QueuedEvent::Kind::task:
            break;
    }
}

void Database::Impl::handleGone(std::uint64_t handle) {
    std::erase_if(completions_, [this, handle](const auto& entry) {
        if (entry.second.handle != handle) return false;
        query(entry.first).definerGone = true;
        return true;
    });
}

// ---------------------------------------------------------------------------------------------
// Impl: host calls

void Database::Impl::logCall(HostCall call) {
    hookNotRunning(__PRETTY_FUNCTION__);
    calls.push_back(std::move(call));
    tell([&](EventListener& l) { l.onHostCall(calls.back()); });
}

void Database::Impl::registerTable(const AgentHandle& handle, const std::string& path,
                                   const std::string& typeName, TableType type, unsigned short desiredFlags,
                                   unsigned short flags, const std::string& ownerName) {
    HostCall call;
    call.kind = HostCall::Kind::registerTable;
    call.agent = handle.options().agentName;
    call.path = path;
    call.typeName = typeName;
    call.tableType = type;
    call.desiredFlags = desiredFlags;
    call.flags = flags;
    call.owner = ownerName;
    logCall(std::move(call));

    Slot* existing = findSlot(path);
    const bool exists = existing != nullptr && existing->table;
    const RowType* rowType = findRowType(typeName);
    if (handle.isServerAgent()) {
        // The server's registration is visible at once whatever else is under way: another agent's
        // registration of the same path still travelling, or a metadata row (or the whole metadata
        // table) that a client removed. The server agent relies on finding the row right after.
        if (!exists && rowType == nullptr) return;  // no table can be made of an unknown type
        Slot& slot = exists ? *existing : slotFor(path);
        if (!exists) createTable(slot, *rowType, ownerName, 0);
        restoreMetadataRow(slot, ownerName);
        return;
    }
    if (exists || inFlight_.count(path) != 0) return;
    if (rowType == nullptr) return;  // no table can be made of an unknown type
    inFlight_.insert(path);
    queueTask("registerTable", path, [this, path, rowType, ownerName] {
        inFlight_.erase(path);
        Slot& slot = slotFor(path);
        if (!slot.table) createTable(slot, *rowType, ownerName, 0);
    });
}

void Database::Impl::defineQuery(const AgentHandle& handle, const std::string& text, unsigned typeId,
                                 const VeltaDB::QueryParams& params, VeltaDB::QueryCompletion done,
                                 bool standing, const std::string& name) {
    HostCall call;
    call.kind = HostCall::Kind::defineQuery;
    call.agent = handle.options().agentName;
    call.text = text;
    call.typeId = typeId;
    call.params.insert(params.begin(), params.end());
    call.standing = standing;
    call.name = name;
    logCall(std::move(call));

    QueryInfo q;
    q.agent = handle.options().agentName;
    q.text = text;
    q.typeId = typeId;
    q.standing = standing;
    q.name = name;
    const std::size_t index = queryBase_ + queries.size();
    queries.push_back(std::move(q));
    completions_[index] = PendingCompletion{handle.id(), std::move(done)};
    if (options.manualQueries) {
        awaitingByText_[text].push_back(index);
        return;
    }
    queueTask("query", text, [this, index] {
        const std::string table = fromTable(query(index).text);
        const Slot* slot = table.empty() ? nullptr : findSlot(table);
        if (!table.empty() && (slot == nullptr || !slot->table))
            finishQuery(index, false, "No such table: " + table);
        else
            finishQuery(index, true, "");
    });
}

void Database::Impl::removeQuery(const AgentHandle& handle, const std::string& name) {
    HostCall call;
    call.kind = HostCall::Kind::removeQuery;
    call.agent = handle.options().agentName;
    call.name = name;
    logCall(std::move(call));
}

bool Database::Impl::completeQuery(const std::string& text, bool ok, const std::string& error) {
    hookNotRunning(__PRETTY_FUNCTION__);
    const auto awaiting = awaitingByText_.find(text);
    if (awaiting == awaitingByText_.end()) return false;
    std::deque<std::size_t>& indexes = awaiting->second;
    while (!indexes.empty() && query(indexes.front()).definerGone) indexes.pop_front();
    if (indexes.empty()) {
        awaitingByText_.erase(awaiting);
        return false;
    }
    const std::size_t i = indexes.front();
    indexes.pop_front();
    queueTask("completeQuery", text, [this, i, ok, error] { finishQuery(i, ok, error); });
    return true;
}

void Database::Impl::queriesClear() {
    hookNotRunning(__PRETTY_FUNCTION__);
    const auto firstPending = std::find_if(queries.begin(), queries.end(), [](const QueryInfo& q) {
        return q.state == QueryInfo::State::pending;
    });
    queryBase_ += static_cast<std::size_t>(firstPending - queries.begin());
    queries.erase(queries.begin(), firstPending);
}

void Database::Impl::finishQuery(std::size_t index, bool ok, const std::string& error) {
    QueryInfo& q = query(index);
    q.state = ok ? QueryInfo::State::completed : QueryInfo::State::failed;
    q.id = ok ? ++queryIds_ : 0;
    q.error = ok ? std::string() : error;
    const unsigned id = q.id;
    auto it = completions_.find(index);
    if (it == completions_.end()) return;  // its handle is gone
    VeltaDB::QueryCompletion done = std::move(it->second.done);
    completions_.erase(it);
    if (done) done(ok, id, ok ? std::string() : error);
}

// ---------------------------------------------------------------------------------------------
// Impl: control publications

void Database::Impl::controlSubscriptionAdded(const BaseRow& row) {
    const BaseRow key = row;
    const std::uint64_t oid = oidOf(row);
    queueTask("control publication", std::to_string(oid), [this, key, oid] {
        Slot* subs = findSlot(kCtrlSubscriptionPath);
        // A table of another type there now (the control table was dropped and a client's write
        // made it again) holds no control row.
        if (subs == nullptr || !subs->table || &subs->table->type() != key.rowType()) return;
        const BaseRow stored = RowRef::share(subs->table->find(*key.data()));
        if (stored.empty() || oidOf(stored) != oid) return;  // the control row went meanwhile
        const veCtrl::subscription sub(stored);
        const veMetadata::veTable info = tableInfo(sub.tableId());
        const RowType* resultType = info.empty() ? nullptr : findRowType(info.typeName());
        veCtrl::publication pub;
        pub.subscription_idIs(sub.oid());
        pub.tableIdIs(sub.tableId());
        pub.typeIdIs(resultType != nullptr ? resultType->id() : VeltaDB::kUnknownTypeId);
        pub.system_idIs(sub.system_description());
        pub.statusIs(true);
        pub.errorIs("");
        pub.ptimeIs(clock);
        Slot& pubs = slotFor(kCtrlPublicationPath);
        if (!pubs.table) createTable(pubs, veCtrl::publication::type(), "", 0);
        writeRow(pubs, pub);
    });
}

void Database::Impl::controlSubscriptionRemoved(std::uint64_t oid) {
    queueTask("control publication removal", std::to_string(oid), [this, oid] {
        Slot* pubs = findSlot(kCtrlPublicationPath);
        if (pubs == nullptr) return;
        veCtrl::publication key;
        key.subscription_idIs(static_cast<std::uint32_t>(oid));
        eraseRow(*pubs, key);
    });
}

// ---------------------------------------------------------------------------------------------
// Agent handles

AgentHandle::AgentHandle(std::shared_ptr<Database> db, AgentOptions options)
    : db_(std::move(db)), impl_(&db_->impl()), options_(std::move(options)), id_(impl_->newHandleId()) {}

AgentHandle::~AgentHandle() { impl_->handleGone(id_); }

void AgentHandle::bindInterface(VeTableInterface& iface, const std::string& path, bool flag) {
    impl_->bind(iface, path, flag, options_.agentName);
}

void AgentHandle::registerTable(const std::string& path, const std::string& typeName, TableType type,
                                unsigned short desiredFlags, unsigned short flags, const std::string& owner) {
    impl_->registerTable(*this, path, typeName, type, desiredFlags, flags, owner);
}

void AgentHandle::defineQuery(const std::string& text, unsigned typeId, const QueryParams& params,
                              QueryCompletion done, bool standing, const std::string& name) {
    impl_->defineQuery(*this, text, typeId, params, std::move(done), standing, name);
}

void AgentHandle::removeQuery(const std::string& name) { impl_->removeQuery(*this, name); }

veMetadata::veTable AgentHandle::tableInfo(const std::string& path) const { return impl_->tableInfo(path); }

veMetadata::veTable AgentHandle::tableInfo(unsigned oid) const { return impl_->tableInfo(oid); }

unsigned AgentHandle::tableTypeId(const std::string& typeName, bool) const {
    const RowType* t = impl_->rowTypeNamed(typeName);
    return t != nullptr ? t->id() : VeltaDB::kUnknownTypeId;
}

std::shared_ptr<const RowOps> AgentHandle::getRowOps(const std::string& typeName, unsigned char index) const {
    return internal::rowOpsFor(findRowType(typeName), index);
}

void AgentHandle::lookaheadIs(VeTableInterface& observer, Hook hook, void* context) {
    const std::shared_ptr<Attachment>& att = HostAccess::attachment(observer);
    if (!att || att->impl != impl_) return;
    att->lookahead = hook;
    att->lookaheadContext = context;
}

}  // namespace Velta::Host

namespace Velta::HostCapability {

void Lookahead::prefetchKey(const VeTableInterface& iface, const BaseRow& key) noexcept {
    using Velta::detail::Attachment;
    using Velta::detail::HostAccess;
    const std::shared_ptr<Attachment>& att = HostAccess::attachment(iface);
    if (!att || !att->slot->table || key.rowType() != &att->slot->table->type()) return;
    att->slot->table->prefetchKey(*key.data());
}

}  // namespace Velta::HostCapability

namespace Velta::Host {

// ---------------------------------------------------------------------------------------------
// The embedding facade

std::string toString(const HostCall& call) {
    std::ostringstream os;
    switch (call.kind) {
        case HostCall::Kind::registerTable:
            os << "registerTable path=" << call.path << " typeName=" << call.typeName
               << " tableType=" << static_cast<unsigned>(call.tableType)
               << " desiredFlags=" << call.desiredFlags << " flags=" << call.flags << " owner=" << call.owner;
            break;
        case HostCall::Kind::defineQuery: {
            os << "defineQuery text=\"" << call.text << "\" typeId=" << call.typeId << " params={";
            bool first = true;
            for (const auto& [k, v] : call.params) {
                os << (first ? "" : ",") << k << '=' << v;
                first = false;
            }
            os << "} standing=" << (call.standing ? 1 : 0) << " name=\"" << call.name << '"';
            break;
        }
        case HostCall::Kind::removeQuery:
            os << "removeQuery name=\"" << call.name << '"';
            break;
    }
    os << " agent=" << call.agent;
    std::string line;
    internal::appendOneLine(line, os.str());
    return line;
}

std::shared_ptr<Database> Database::create(Options options) {
    std::shared_ptr<Database> db(new Database(options));
    return db;
}

Database::Database(Options options) : impl_(std::make_unique<Impl>(*this, options)) {}

Database::~Database() = default;

void Database::serverProcessIs(bool value) { serverProcessFlag.store(value); }
bool Database::serverProcess() { return serverProcessFlag.load(); }
void Database::copyOnWriteIs(bool value) { internal::copyOnWrite.store(value); }

VeltaDB::p_t Database::connect(const AgentOptions& options) {
    return std::make_shared<AgentHandle>(shared_from_this(), options);
}

std::size_t Database::runUntilIdle() {
    impl_->hookNotRunning(__PRETTY_FUNCTION__);
    if (impl_->delivering) return 0;  // never deliver from inside a callback
    // Judged however the run ends, a callback's throw included.
    const absl::Cleanup judged = [this] {
        impl_->settled = impl_->queue.empty() && impl_->seededQueue.empty();
    };
    std::size_t n = 0;
    const std::size_t bound = impl_->options.deliveryBound;
    while (n < bound && impl_->runOne()) ++n;
    return n;
}

bool Database::settled() const noexcept { return impl_->settled; }

bool Database::runOne() {
    impl_->hookNotRunning(__PRETTY_FUNCTION__);
    return impl_->runOne();
}

std::size_t Database::pending() const noexcept { return impl_->queue.size() + impl_->seededQueue.size(); }

void Database::createTable(const std::string& path, const std::string& typeName, const std::string& owner,
                           unsigned oid) {
    const RowType* type = findRowType(typeName);
    if (type == nullptr) throw std::invalid_argument("unknown row type: " + typeName);
    impl_->createTable(impl_->slotFor(path), *type, owner, oid);
}

bool Database::dropTable(const std::string& path) { return impl_->dropTable(path); }

bool Database::hasTable(const std::string& path) const {
    const Slot* slot = impl_->findSlot(path);
    return slot != nullptr && slot->table != nullptr;
}

const RowType* Database::tableType(const std::string& path) const {
    const Slot* slot = impl_->findSlot(path);
    return slot != nullptr && slot->table ? &slot->table->type() : nullptr;
}

BaseRow Database::write(const std::string& path, const BaseRow& row) {
    if (row.empty()) return BaseRow();
    Slot& slot = impl_->slotFor(path);
    if (!slot.table) impl_->createTable(slot, *row.rowType(), "", 0);
    BaseRow copy = row;
    return RowRef::share(impl_->writeRow(slot, copy));
}

bool Database::erase(const std::string& path, const BaseRow& key) {
    Slot* slot = impl_->findSlot(path);
    return slot != nullptr && impl_->eraseRow(*slot, key);
}

BaseRow Database::read(const std::string& path, const BaseRow& key, unsigned char index) const {
    return impl_->lookup(path, key, index);
}

std::vector<BaseRow> Database::rows(const std::string& path) const {
    std::vector<BaseRow> out;
    const Slot* slot = impl_->findSlot(path);
    if (slot == nullptr || !slot->table) return out;
    out.reserve(slot->table->size());
    const TableState& t = *slot->table;
    for (const Velta::detail::OrderKey& key : t.primary()) out.push_back(RowRef::share(t.rowAt(key)));
    return out;
}

std::size_t Database::rowCount(const std::string& path) const {
    const Slot* slot = impl_->findSlot(path);
    return slot != nullptr && slot->table ? slot->table->size() : 0;
}

std::vector<std::string> Database::tablePaths() const {
    std::vector<std::string> out;
    for (const auto& [path, slot] : impl_->slots) {
        if (slot.table) out.push_back(path);
    }
    std::sort(out.begin(), out.end());
    return out;
}

std::uint64_t Database::clock() const noexcept { return impl_->clock; }

void Database::clockAdvance(std::uint64_t amount) noexcept {
    impl_->hookNotRunning(__PRETTY_FUNCTION__);
    std::uint64_t& clock = impl_->clock;
    clock = amount > std::numeric_limits<std::uint64_t>::max() - clock
                ? std::numeric_limits<std::uint64_t>::max()
                : clock + amount;
}

const std::vector<HostCall>& Database::calls() const noexcept { return impl_->calls; }

void Database::callsClear() {
    impl_->hookNotRunning(__PRETTY_FUNCTION__);
    impl_->calls.clear();
}

void Database::queriesClear() { impl_->queriesClear(); }

const std::vector<QueryInfo>& Database::queries() const noexcept { return impl_->queries; }

bool Database::completeQuery(const std::string& text, bool ok, const std::string& error) {
    return impl_->completeQuery(text, ok, error);
}

void Database::listenerIs(EventListener* listener) noexcept { impl_->listener = listener; }

const Database::Options& Database::options() const noexcept { return impl_->options; }

}  // namespace Velta::Host

namespace Velta {

bool VeltaDB::server() { return Host::serverProcessFlag.load(); }

}  // namespace Velta
