// Tables with their two indexes, positions in them (VeRowIterator) and table interfaces.
//
// A position keeps the index node it stands on together with the index's version at that time
// and the row it saw. While the version is unchanged the node is used directly; otherwise the
// position re-seeks by the saved row's key (exact for *, successor for ++), which is what makes
// walks survive inserts and deletions, including deletion of the row at the position.
#include "HostInternal.h"

#include <cstring>

namespace Velta::detail {

namespace {

template <class It>
void storeNode(unsigned char (&buf)[sizeof(void*)], It pos) noexcept {
    std::memcpy(buf, &pos, sizeof pos);
}

template <class It>
It loadNode(const unsigned char (&buf)[sizeof(void*)]) noexcept {
    It pos;
    std::memcpy(&pos, buf, sizeof pos);
    return pos;
}

bool prefixIsKey(const RowType& type) noexcept {
    return type.keyFields().size() == 1 && isNumberKind(type.fields()[type.keyFields().front()].kind);
}

std::uint16_t oidSlotOf(const RowType& type) noexcept {
    return type.oidField() >= 0 ? type.fields()[static_cast<std::size_t>(type.oidField())].slot : 0;
}

const TableNode* nodeAt(PrimaryIndex::const_iterator pos) noexcept { return &*pos; }
const TableNode* nodeAt(OidIndex::const_iterator pos) noexcept { return *pos; }

}  // namespace

// The node after the position saved in `buf` in `index` (index number `which` of `t`), saving the
// new position; null at the end. When the index changed since the position was saved, the next
// row is found again from `row`'s key.
template <class Index>
const TableNode* stepForward(const TableState& t, const Index& index, unsigned char which, std::uint64_t& version,
                             unsigned char (&buf)[sizeof(void*)], const BaseRow& row) {
    typename Index::const_iterator pos;
    if (version == t.version(which)) {
        pos = loadNode<typename Index::const_iterator>(buf);
        ++pos;
    } else {
        pos = index.upper_bound(t.probe(row));
        version = t.version(which);
    }
    if (pos == index.end()) return nullptr;
    storeNode(buf, pos);
    return nodeAt(pos);
}

TableState::TableState(const RowType& type, std::string path)
    : type_(&type),
      path_(std::move(path)),
      nodes_(std::make_shared<Host::internal::NodePool>()),
      primary_(PrimaryLess{&type, prefixIsKey(type)}, Host::internal::NodeAllocator<TableNode>(nodes_)),
      byOid_(OidLess{&type, prefixIsKey(type), oidSlotOf(type)}, Host::internal::NodeAllocator<const TableNode*>(nodes_)),
      hashExact_(Host::internal::keyHashExact(type)) {
    const auto& fields = type.fields();
    if (type.oidField() >= 0) {
        hasOid_ = true;
        oidSlot_ = fields[static_cast<std::size_t>(type.oidField())].slot;
    }
    for (const std::uint16_t k : type.keyFields()) {
        if (static_cast<int>(k) == type.oidField()) oidInKey_ = true;
    }
    if (!type.keyFields().empty()) {
        const RowType::Field& first = fields[type.keyFields().front()];
        hasPrefix_ = first.kind != FieldKind::strings;
        prefixKind_ = first.kind;
        prefixSlot_ = first.slot;
    }
}

KeyProbe TableState::probe(const RowData& data) const noexcept {
    KeyProbe p{&data, 0, hasOid_ ? data.numbers[oidSlot_] : 0};
    if (hasPrefix_) {
        if (isNumberKind(prefixKind_)) {
            p.prefix = data.numbers[prefixSlot_];
        } else {
            // The first eight bytes, big-endian and zero-padded: ordered like the strings.
            const std::string& s = data.strings[prefixSlot_];
            const std::size_t n = s.size() < 8 ? s.size() : 8;
            for (std::size_t i = 0; i < n; ++i)
                p.prefix |= static_cast<std::uint64_t>(static_cast<unsigned char>(s[i])) << (56 - 8 * i);
        }
    }
    return p;
}

const TableState::KeyEntry* TableState::entryFor(const RowData& key, std::uint64_t hash) const {
    return byKey_.find(hash, hashExact_, [&](PrimaryIndex::const_iterator pos) {
        return Host::internal::compareKey(*type_, *pos->row.data(), key) == 0;
    });
}

PrimaryIndex::const_iterator TableState::findPos(const BaseRow& key) const {
    const RowData& k = *key.data();
    const KeyEntry* e = entryFor(k, Host::internal::hashKey(*type_, k));
    return e == nullptr ? primary_.end() : e->pos;
}

const TableNode* TableState::findPrimary(const BaseRow& key) const {
    const auto it = findPos(key);
    return it == primary_.end() ? nullptr : &*it;
}

const TableNode* TableState::findIn(const BaseRow& key, unsigned char index) const {
    if (effectiveIndex(index) == 0) return findPrimary(key);
    const auto it = findOid(key);
    return it == byOid_.end() ? nullptr : *it;
}

OidIndex::const_iterator TableState::findOid(const BaseRow& key) const {
    const std::uint64_t oid = key.data()->numbers[oidSlot_];
    auto it = byOid_.lower_bound(OidProbe{oid});
    return it == byOid_.end() || byOid_.key_comp().oidOf(*it) != oid ? byOid_.end() : it;
}

TableState::Spot TableState::locate(const BaseRow& key) const {
    const RowData& k = *key.data();
    const std::uint64_t hash = Host::internal::hashKey(*type_, k);
    const KeyEntry* e = entryFor(k, hash);
    if (e != nullptr) return {e->pos, true, hash};
    // A new key: only now is its place in the order needed.
    return {primary_.lower_bound(probe(k)), false, hash};
}

const TableNode& TableState::put(Spot spot, BaseRow row) {
    if (spot.exists) {
        const TableNode& node = *spot.pos;
        if (hasOid_ && row.data()->numbers[oidSlot_] != node.row.data()->numbers[oidSlot_]) {
            // Out of index 1 while the node still shows the old oid, back in with the new one.
            byOid_.erase(byOid_.find(&node));
            node.row = std::move(row);
            byOid_.insert(&node);
            ++version_[1];
        } else {
            node.row = std::move(row);
        }
        return node;
    }
    const std::uint64_t prefix = probe(row).prefix;
    auto it = primary_.emplace_hint(spot.pos, std::move(row), prefix);
    byKey_.insert(spot.hash, it);
    ++version_[0];
    if (hasOid_) {
        byOid_.insert(&*it);
        ++version_[1];
    }
    return *it;
}

BaseRow TableState::remove(const BaseRow& key) {
    const RowData& k = *key.data();
    const KeyEntry* e = entryFor(k, Host::internal::hashKey(*type_, k));
    if (e == nullptr) return BaseRow();
    const auto it = e->pos;
    byKey_.erase(e);
    if (hasOid_) {
        byOid_.erase(byOid_.find(&*it));
        ++version_[1];
    }
    BaseRow row = std::move(it->row);
    primary_.erase(it);
    ++version_[0];
    return row;
}

void TableState::clear() {
    byKey_.clear();
    byOid_.clear();
    primary_.clear();
    ++version_[0];
    ++version_[1];
}

VeRowIterator HostAccess::primaryAt(const std::shared_ptr<TableState>& table, PrimaryIndex::const_iterator pos) {
    VeRowIterator it;
    if (pos == table->primary().end()) return it;
    it.table_ = table;
    it.index_ = 0;
    it.version_ = table->version(0);
    storeNode(it.node_, pos);
    it.row_ = pos->row;
    return it;
}

VeRowIterator HostAccess::oidAt(const std::shared_ptr<TableState>& table, OidIndex::const_iterator pos) {
    VeRowIterator it;
    if (pos == table->byOid().end()) return it;
    it.table_ = table;
    it.index_ = 1;
    it.version_ = table->version(1);
    storeNode(it.node_, pos);
    it.row_ = (*pos)->row;
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
    const detail::TableNode* node = index_ == 0 ? detail::stepForward(t, t.primary(), 0, version_, node_, row_)
                                                : detail::stepForward(t, t.byOid(), 1, version_, node_, row_);
    if (node == nullptr) {
        row_.clear();
        table_.reset();
        return *this;
    }
    row_ = node->row;
    return *this;
}

const BaseRow& VeRowIterator::operator*() const {
    if (row_.empty()) return row_;
    const TableState& t = *table_;
    const detail::TableNode* node = nullptr;
    if (version_ == t.version(index_)) {
        node = index_ == 0 ? &*detail::loadNode<PrimaryIndex::const_iterator>(node_)
                           : *detail::loadNode<OidIndex::const_iterator>(node_);
    } else if (index_ == 0) {
        // The index changed under the position: find its row again (it may be gone).
        auto pos = t.findPos(row_);
        if (pos != t.primary().end()) {
            detail::storeNode(node_, pos);
            version_ = t.version(0);
            node = &*pos;
        }
    } else {
        auto pos = t.byOid().find(t.probe(row_));
        if (pos != t.byOid().end()) {
            detail::storeNode(node_, pos);
            version_ = t.version(1);
            node = *pos;
        }
    }
    if (node != nullptr && !row_.sameData(node->row)) row_ = node->row;
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

VeTableInterface::VeTableInterface(const std::string& ifName, const std::string& rowTypeName, unsigned char mode,
                                   ReadyCallback ready, RowCallback row, RowCallback rowDelete, FlagCallback flag)
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
BaseRow keyFor(const TableState& t, const BaseRow& key) { return key.rowType() == &t.type() ? key : key.as(t.type()); }

}  // namespace

VeRowIterator VeTableInterface::begin(unsigned char index) const {
    const auto* table = tableOf(attachment_);
    if (table == nullptr) return VeRowIterator();
    if ((*table)->effectiveIndex(index) == 0) return detail::HostAccess::primaryAt(*table, (*table)->primary().begin());
    return detail::HostAccess::oidAt(*table, (*table)->byOid().begin());
}

VeRowIterator VeTableInterface::end(unsigned char) const { return VeRowIterator(); }

VeRowIterator VeTableInterface::find(const BaseRow& key, unsigned char index) const {
    const auto* table = tableOf(attachment_);
    if (table == nullptr || key.empty()) return VeRowIterator();
    const TableState& t = **table;
    const BaseRow k = keyFor(t, key);
    if (t.effectiveIndex(index) == 0) return detail::HostAccess::primaryAt(*table, t.findPos(k));
    const auto pos = t.findOid(k);
    return pos == t.byOid().end() ? VeRowIterator() : detail::HostAccess::oidAt(*table, pos);
}

VeRowIterator VeTableInterface::lower_bound(const BaseRow& key, unsigned char index) const {
    const auto* table = tableOf(attachment_);
    if (table == nullptr) return VeRowIterator();
    const TableState& t = **table;
    if (key.empty()) return begin(index);
    const BaseRow k = keyFor(t, key);
    if (t.effectiveIndex(index) == 0) return detail::HostAccess::primaryAt(*table, t.primary().lower_bound(t.probe(k)));
    return detail::HostAccess::oidAt(*table, t.byOid().lower_bound(t.probe(k)));
}

BaseRow VeTableInterface::row(const BaseRow& key, unsigned char index) const {
    const auto* table = tableOf(attachment_);
    if (table == nullptr || key.empty()) return BaseRow();
    const TableState& t = **table;
    const detail::TableNode* node =
        key.rowType() == &t.type() ? t.findIn(key, index) : t.findIn(key.as(t.type()), index);
    return node == nullptr ? BaseRow() : node->row;
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
    if (table != nullptr && *table == detail::HostAccess::table(position)) attachment_->impl->eraseRow(*attachment_->slot, victim);
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
    head_ = 0;
}

void EventQueue::push(QueuedEvent&& e) { append() = std::move(e); }

QueuedEvent EventQueue::take(std::size_t i) {
    QueuedEvent e = std::move(at(i));
    if (i == 0) {
        head_ = (head_ + 1) & (buf_.size() - 1);
    } else {
        for (std::size_t j = i; j + 1 < size_; ++j) at(j) = std::move(at(j + 1));
        at(size_ - 1) = QueuedEvent{};
    }
    --size_;
    return e;
}

void EventQueue::clear() {
    for (std::size_t i = 0; i < size_; ++i) at(i) = QueuedEvent{};
    head_ = 0;
    size_ = 0;
}

}  // namespace Velta::Host
