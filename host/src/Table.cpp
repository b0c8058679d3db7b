// Tables with their indexes, positions in them (VeRowIterator) and table interfaces.
//
// A position keeps the ordered-index entry it stands on together with the table's change count at
// that time and the row it saw. While the count is unchanged the entry is stepped from directly and
// the row is the table's; otherwise the position re-seeks by the saved row's key (successor for ++),
// which is what makes walks survive inserts and deletions, including deletion of the row at the
// position, and the row it shows (*) is found again by its key in the hash index, so a replaced row
// shows its replacement and a deleted one stays as it was seen.
#include "HostInternal.h"

#include <cstring>
#include <iterator>

namespace Velta::detail {

namespace {

template <class It>
void storePos(unsigned char (&buf)[2 * sizeof(void*)], It pos) noexcept {
    std::memcpy(buf, &pos, sizeof pos);
}

template <class It>
It loadPos(const unsigned char (&buf)[2 * sizeof(void*)]) noexcept {
    It pos;
    std::memcpy(&pos, buf, sizeof pos);
    return pos;
}

const OrderKey& orderKeyOf(const OrderKey& k) noexcept { return k; }
const OrderKey& orderKeyOf(const OidKey& k) noexcept { return k.key; }

}  // namespace

// A walk reads the rows of consecutive keys, which lie anywhere in memory. When a position has used
// up its read-ahead, standing at `pos`, it reads the rows of the next kAhead keys into ahead_
// (their hash-index entries were fetched into the cache the time before) and fetches their row data
// and the hash-index entries of the kAhead keys after those, so that the steps that follow find
// their rows without a lookup and their data in the cache instead of waiting for memory. Only for
// keys of one number field, whose hash needs nothing but the ordered entry.
template <class Index>
void HostAccess::readAhead(VeRowIterator& it, const TableState& t, const Index& index,
                           typename Index::const_iterator pos) {
    constexpr unsigned kAhead = sizeof it.ahead_ / sizeof it.ahead_[0];
    const auto end = index.end();
    unsigned n = 0;
    for (unsigned i = 1; i <= 2 * kAhead; ++i) {
        if (++pos == end) break;
        if (i <= kAhead) {
            const RowData* row = t.rowAt(orderKeyOf(*pos));
            Host::internal::prefetchLine(row);
            it.ahead_[n++] = row;
        } else {
            t.prefetchEntry(orderKeyOf(*pos));
        }
    }
    it.aheadNext_ = 0;
    it.aheadCount_ = static_cast<unsigned char>(n);
}

// Moves `it` to the next row of `index`, or to the end. While the table is unchanged since the
// position was saved, it steps from there (taking the row from the read-ahead when it has one);
// otherwise it finds the successor of its row's key again.
template <class Index>
void HostAccess::step(VeRowIterator& it, const TableState& t, const Index& index) {
    using Pos = typename Index::const_iterator;
    Pos pos;
    const RowData* next = nullptr;
    if (it.seen_ == t.changes()) {
        pos = loadPos<Pos>(it.pos_);
        ++pos;
        if (it.aheadNext_ < it.aheadCount_) next = static_cast<const RowData*>(it.ahead_[it.aheadNext_++]);
    } else {
        pos = index.upper_bound(t.probe(*it.row_.data()));
        it.aheadNext_ = it.aheadCount_ = 0;
    }
    if (pos == index.end()) {
        it.row_.clear();
        it.table_.reset();
        return;
    }
    storePos(it.pos_, pos);
    if (next == nullptr) next = t.rowAt(orderKeyOf(*pos));
    if (it.aheadNext_ == it.aheadCount_ && t.exactKeys()) readAhead(it, t, index, pos);
    it.row_ = RowRef::share(next);
    it.seen_ = t.changes();
}

TableState::TableState(const RowType& type, std::string path)
    : type_(&type),
      path_(std::move(path)),
      layout_(type),
      prefixIsKey_(layout_.exact()),
      rows_(0, SlotHash{}, SlotEq{&layout_, prefixIsKey_}),
      primary_(PrimaryLess{&layout_, prefixIsKey_}),
      byOid_(OidLess{PrimaryLess{&layout_, prefixIsKey_}}) {
    const auto& fields = type.fields();
    if (type.oidField() >= 0) {
        hasOid_ = true;
        oidSlot_ = fields[static_cast<std::size_t>(type.oidField())].slot;
    }
    for (const std::uint16_t k : type.keyFields()) {
        if (static_cast<int>(k) == type.oidField()) oidInKey_ = true;
    }
    if (prefixIsKey_) prefixSlot_ = fields[type.keyFields().front()].slot;
}

TableState::~TableState() {
    for (unsigned i = 0; i < pendingCount_; ++i) releaseRow(pending_[(pendingFirst_ + i) % kPending].row);
    for (const RowSlot& s : rows_) releaseRow(s.row);
    for (const OrderKey& k : primary_) {
        if (k.key != nullptr) releaseRow(const_cast<RowData*>(k.key));
    }
}

KeyProbe TableState::probe(const RowData& data) const noexcept {
    return KeyProbe{&data, prefixIsKey_ ? data.numbers[prefixSlot_] : layout_.prefix(data), oidOf(data)};
}

const RowData* TableState::find(const RowData& key) const {
    settle();
    const auto it = rows_.find(SlotProbe{hashOf(key), &key});
    return it == rows_.end() ? nullptr : it->row;
}

void TableState::prefetchEntry(const OrderKey& key) const { rows_.prefetch(SlotProbe{hashOf(key), key.key}); }

const RowData* TableState::findByOid(const RowData& key) const {
    const auto it = findOid(key);
    return it == byOid_.end() ? nullptr : rowAt(it->key);
}

OidIndex::const_iterator TableState::findOid(const RowData& key) const {
    settle();
    return oidEntry(key.numbers[oidSlot_]);
}

bool TableState::hasOid(std::uint64_t oid) const {
    settle();
    // A new oid is nearly always past the table's greatest: that answer needs no walk.
    if (byOid_.empty() || std::prev(byOid_.end())->oid < oid) return false;
    return oidEntry(oid) != byOid_.end();
}

TableState::Spot TableState::locate(const RowData& key) {
    settle();
    return spotOf(hashOf(key), key);
}

TableState::Spot TableState::spotOf(std::uint64_t hash, const RowData& key) {
    const auto it = rows_.find(SlotProbe{hash, &key}, hash);
    return {it, hash, it == rows_.end() ? nullptr : it->row};
}

void TableState::defer(const RowData& row) noexcept {
    if (pendingCount_ == kPending) storeOldest();  // its entry was fetched kPending writes ago
    const std::uint64_t hash = hashOf(row);
    rows_.prefetch(SlotProbe{hash, &row});
    pending_[(pendingFirst_ + pendingCount_++) % kPending] = PendingWrite{hash, retainRow(&row)};
}

void TableState::storePending() noexcept {
    while (pendingCount_ != 0) storeOldest();
}

void TableState::storeOldest() noexcept {
    const PendingWrite w = pending_[pendingFirst_];
    pendingFirst_ = (pendingFirst_ + 1) % kPending;
    --pendingCount_;
    store(spotOf(w.hash, *w.row), w.row);
}

void TableState::store(const Spot& spot, RowData* row) noexcept {
    const RowData& data = *row;
    if (spot.stored != nullptr) {
        RowData* old = spot.slot->row;
        if (hasOid_ && oidOf(data) != oidOf(*old)) {
            // Index 1 follows the oid: out under the old one, back in under the new.
            const auto at = byOid_.find(probe(*old));
            const OrderKey key = at->key;
            byOid_.erase(at);
            byOid_.insert(OidKey{oidOf(data), key});
        }
        spot.slot->row = row;
        ++changes_;
        retired_.retire(old);
        return;
    }
    ++changes_;
    rows_.insert(RowSlot{spot.hash, row});
    const OrderKey key{probe(data).prefix, prefixIsKey_ ? nullptr : retainRow(&data)};
    primary_.insert(key);
    // A new row's oid is mostly the database's newest, so its entry goes last; the hint costs one
    // comparison when it does not.
    if (hasOid_) byOid_.insert(byOid_.end(), OidKey{oidOf(data), key});
}

RowData* TableState::remove(const RowData& key) noexcept {
    settle();
    const auto it = rows_.find(SlotProbe{hashOf(key), &key});
    if (it == rows_.end()) return nullptr;
    RowData* row = it->row;
    rows_.erase(it);
    ++changes_;
    const auto at = primary_.find(probe(key));
    const RowData* keyObject = at->key;
    primary_.erase(at);
    if (hasOid_) byOid_.erase(probe(*row));
    if (keyObject != nullptr) releaseRow(const_cast<RowData*>(keyObject));
    return row;
}

void TableState::clear() {
    settle();
    for (const RowSlot& s : rows_) releaseRow(s.row);
    for (const OrderKey& k : primary_) {
        if (k.key != nullptr) releaseRow(const_cast<RowData*>(k.key));
    }
    rows_.clear();
    byOid_.clear();
    primary_.clear();
    ++changes_;
}

VeRowIterator HostAccess::primaryAt(const std::shared_ptr<TableState>& table,
                                    PrimaryIndex::const_iterator pos) {
    VeRowIterator it;
    if (pos == table->primary().end()) return it;
    it.table_ = table;
    it.index_ = 0;
    storePos(it.pos_, pos);
    it.row_ = RowRef::share(table->rowAt(*pos));
    it.seen_ = table->changes();
    return it;
}

VeRowIterator HostAccess::oidAt(const std::shared_ptr<TableState>& table, OidIndex::const_iterator pos) {
    VeRowIterator it;
    if (pos == table->byOid().end()) return it;
    it.table_ = table;
    it.index_ = 1;
    storePos(it.pos_, pos);
    it.row_ = RowRef::share(table->rowAt(pos->key));
    it.seen_ = table->changes();
    return it;
}

VeRowIterator HostAccess::primaryOn(const std::shared_ptr<TableState>& table, const RowData* row) {
    VeRowIterator it;
    if (row == nullptr) return it;
    it.table_ = table;
    it.index_ = 0;
    it.seen_ = 0;  // counts start at 1: the position is found by the row's key when it moves
    it.row_ = RowRef::share(row);
    return it;
}

}  // namespace Velta::detail

namespace Velta {

using detail::OidIndex;
using detail::PrimaryIndex;
using detail::TableState;

VeRowIterator& VeRowIterator::operator++() {
    if (row_.empty()) return *this;
    const TableState& t = *table_;
    if (index_ == 0)
        detail::HostAccess::step(*this, t, t.primary());
    else
        detail::HostAccess::step(*this, t, t.byOid());
    return *this;
}

const BaseRow& VeRowIterator::operator*() const {
    if (row_.empty()) return row_;
    // The table's current row with the position's key; in index 1 only while it keeps its oid (a
    // row that changed its oid has left this place in the order).
    const TableState& t = *table_;
    if (seen_ == t.changes()) return row_;
    const RowData* seen = row_.data();
    const RowData* current = t.find(*seen);
    if (current != nullptr && current != seen && (index_ == 0 || t.oidOf(*current) == t.oidOf(*seen)))
        row_ = detail::RowRef::share(current);
    return row_;
}

bool operator==(const VeRowIterator& a, const VeRowIterator& b) noexcept {
    if (a.row_.empty() || b.row_.empty()) return a.row_.empty() && b.row_.empty();
    if (a.table_ != b.table_ || a.index_ != b.index_) return false;
    if (a.row_.sameData(b.row_)) return true;
    const RowType& type = a.table_->type();
    return (a.index_ == 0 ? Host::internal::compareKey(type, *a.row_.data(), *b.row_.data())
                          : Host::internal::compareOidKey(type, *a.row_.data(), *b.row_.data())) == 0;
}

VeTableInterface::VeTableInterface(const std::string& ifName, const std::string& rowTypeName,
                                   unsigned char mode, ReadyCallback ready, RowCallback row,
                                   RowCallback rowDelete, FlagCallback flag)
    : Schedulable(ifName),
      rowTypeName_(rowTypeName),
      mode_(mode),
      onReady_(std::move(ready)),
      onRow_(std::move(row)),
      onDelete_(std::move(rowDelete)),
      onFlag_(std::move(flag)) {}

VeTableInterface::~VeTableInterface() {
    if (attachment_) {
        // Keep the attachment (and through it the database) alive until detaching is done.
        std::shared_ptr<detail::Attachment> att = std::move(attachment_);
        att->impl->detach(*att);
    }
}

void VeTableInterface::activate(bool value) { activated_ = value; }

void VeTableInterface::deactivate(bool value) {
    if (value) activated_ = false;
}

void VeTableInterface::activateIndex(unsigned char) {
    // Index 1 is always maintained; nothing to switch on.
}

namespace {

const std::shared_ptr<TableState>* tableOf(const std::shared_ptr<detail::Attachment>& att) noexcept {
    if (!att || !att->slot->table) return nullptr;
    return &att->slot->table;
}

// `key` as a row of the table's type (shared when it already is one).
BaseRow keyFor(const TableState& t, const BaseRow& key) {
    return key.rowType() == &t.type() ? key : key.as(t.type());
}

}  // namespace

VeRowIterator VeTableInterface::begin(unsigned char index) const {
    const auto* table = tableOf(attachment_);
    if (table == nullptr) return VeRowIterator();
    if ((*table)->effectiveIndex(index) == 0)
        return detail::HostAccess::primaryAt(*table, (*table)->primary().begin());
    return detail::HostAccess::oidAt(*table, (*table)->byOid().begin());
}

VeRowIterator VeTableInterface::end(unsigned char) const { return VeRowIterator(); }

VeRowIterator VeTableInterface::find(const BaseRow& key, unsigned char index) const {
    const auto* table = tableOf(attachment_);
    if (table == nullptr || key.empty()) return VeRowIterator();
    const TableState& t = **table;
    const BaseRow k = keyFor(t, key);
    if (t.effectiveIndex(index) == 0) return detail::HostAccess::primaryOn(*table, t.find(*k.data()));
    const auto pos = t.findOid(*k.data());
    return pos == t.byOid().end() ? VeRowIterator() : detail::HostAccess::oidAt(*table, pos);
}

VeRowIterator VeTableInterface::lower_bound(const BaseRow& key, unsigned char index) const {
    const auto* table = tableOf(attachment_);
    if (table == nullptr) return VeRowIterator();
    const TableState& t = **table;
    if (key.empty()) return begin(index);
    const BaseRow k = keyFor(t, key);
    if (t.effectiveIndex(index) == 0)
        return detail::HostAccess::primaryAt(*table, t.primary().lower_bound(t.probe(*k.data())));
    return detail::HostAccess::oidAt(*table, t.byOid().lower_bound(t.probe(*k.data())));
}

BaseRow VeTableInterface::row(const BaseRow& key, unsigned char index) const {
    const auto* table = tableOf(attachment_);
    if (table == nullptr || key.empty()) return BaseRow();
    return detail::RowRef::share((*table)->lookup(key, index));
}

void VeTableInterface::rowIs(BaseRow& row) {
    if (!attachment_ || row.empty()) return;
    detail::Attachment& att = *attachment_;
    detail::Slot& slot = *att.slot;
    if (!slot.table) {
        // The table was dropped: writing through the interface creates it again.
        const RowType* type = Host::findRowType(rowTypeName_);
        att.impl->createTable(slot, type != nullptr ? *type : *row.rowType(), att.agentName, 0);
    }
    att.impl->writeRow(slot, row);
}

void VeTableInterface::rowDel(const BaseRow& key) {
    if (!attachment_ || key.empty()) return;
    attachment_->impl->eraseRow(*attachment_->slot, key);
}

VeRowIterator VeTableInterface::rowDel(VeRowIterator& position) {
    if (position.atEnd()) return VeRowIterator();
    VeRowIterator next = position;
    ++next;
    const BaseRow victim = *position;
    const auto* table = tableOf(attachment_);
    if (table != nullptr && *table == detail::HostAccess::table(position))
        attachment_->impl->eraseRow(*attachment_->slot, victim);
    return next;
}

void VeTableInterface::onClientReady() {
    // Readiness is decided in _considerRunnability, which clientReadyIs(true) calls next.
}

void VeTableInterface::_considerRunnability() {
    if (attachment_) attachment_->impl->considerReady(*attachment_);
}

}  // namespace Velta

namespace Velta::Host {

void EventQueue::grow() {
    std::vector<QueuedEvent> bigger(buf_.empty() ? 64 : buf_.size() * 2);
    for (std::size_t i = 0; i < size_; ++i) bigger[i] = std::move(at(i));
    buf_.swap(bigger);
    mask_ = buf_.size() - 1;
    head_ = 0;
}

void EventQueue::push(QueuedEvent&& e) { append() = std::move(e); }

void EventQueue::clear() {
    for (std::size_t i = 0; i < size_; ++i) at(i) = QueuedEvent{};
    head_ = 0;
    size_ = 0;
}

void SeededEventQueue::link(Chain& chain, std::size_t slot) noexcept {
    if (chain.last == kEnd)
        chain.first = slot;
    else
        entries_[chain.last].next = slot;
    chain.last = slot;
}

void SeededEventQueue::count(std::size_t slot, int delta) noexcept {
    for (std::size_t i = slot + 1; i <= capacity_; i += i & (~i + 1))
        tree_[i] += static_cast<std::size_t>(delta);
}

SeededEventQueue::Entry& SeededEventQueue::append(Velta::detail::Attachment* att) {
    if (entries_.size() == capacity_) {
        if (capacity_ != 0 && size_ <= capacity_ / 2) {
            compact([](const QueuedEvent&) { return false; });
        } else {
            capacity_ = capacity_ == 0 ? 64 : capacity_ * 2;
            entries_.reserve(capacity_);
            recount();
        }
    }
    Chain& chain = chains_[att];  // before the slot, which then cannot fail to be chained
    const std::size_t slot = entries_.size();
    Entry& e = entries_.emplace_back();
    link(chain, slot);
    count(slot, +1);
    ++size_;
    return e;
}

std::size_t SeededEventQueue::slotOf(std::size_t pick) const noexcept {
    // Descends the tree to the last position whose prefix holds at most `pick` live slots; the
    // slot after it is the pick-th.
    std::size_t pos = 0;
    std::size_t rest = pick;
    for (std::size_t step = capacity_; step != 0; step >>= 1) {
        if (pos + step <= capacity_ && tree_[pos + step] <= rest) {
            pos += step;
            rest -= tree_[pos];
        }
    }
    return pos;
}

QueuedEvent SeededEventQueue::takeOldestOfReceiverAt(std::size_t pick) {
    const auto chain = chains_.find(entries_[slotOf(pick)].event.att);
    const std::size_t slot = chain->second.first;
    Entry& e = entries_[slot];
    if (e.next == kEnd)
        chains_.erase(chain);
    else
        chain->second.first = e.next;
    e.next = kHole;
    count(slot, -1);
    QueuedEvent taken = std::move(e.event);
    e.event.att = nullptr;
    e.event.kind = QueuedEvent::Kind::task;
    if (--size_ == 0) entries_.clear();  // all holes: the slots start again from the first
    return taken;
}

void SeededEventQueue::relink() {
    chains_.clear();
    for (std::size_t slot = 0; slot < entries_.size(); ++slot) {
        link(chains_[entries_[slot].event.att], slot);
    }
    recount();
}

void SeededEventQueue::recount() {
    tree_.assign(capacity_ + 1, 0);
    for (std::size_t slot = 0; slot < entries_.size(); ++slot)
        if (entries_[slot].next != kHole) tree_[slot + 1] = 1;
    for (std::size_t i = 1; i <= capacity_; ++i) {
        const std::size_t parent = i + (i & (~i + 1));
        if (parent <= capacity_) tree_[parent] += tree_[i];
    }
}

void SeededEventQueue::clear() {
    entries_.clear();
    chains_.clear();
    tree_.assign(tree_.size(), 0);
    size_ = 0;
}

}  // namespace Velta::Host
