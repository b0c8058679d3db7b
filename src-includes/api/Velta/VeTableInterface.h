// Table interfaces: one agent's attachment to one table, and positions in a table's indexes.
//
// Invariants:
// - Callbacks come one at a time, never from inside one of these operations made during a callback.
//   Whether a host calls back from inside one made outside every callback (a client's write, a
//   constructor's binding) is its own choice.
// - A position stays usable while the table changes: if its row is deleted, ++ moves to the row
//   that follows it in the index; if its row is replaced, * shows the current row.
// - Destroying an interface detaches it: callbacks still queued for it are dropped.
#pragma once

#include <Velta/BaseRow.h>
#include <Velta/Scheduler>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>

namespace Velta {

namespace detail {
class TableState;
class Attachment;
struct HostAccess;
}  // namespace detail

// A position in one index of one table. The end position of every table compares equal to a
// default-constructed iterator.
class VeRowIterator {
public:
    VeRowIterator() noexcept = default;
    VeRowIterator(const VeRowIterator&) = default;
    VeRowIterator& operator=(const VeRowIterator&) = default;
    ~VeRowIterator() = default;

    // Moves to the next row in index order (the end stays the end).
    VeRowIterator& operator++();
    // The row at the position: the table's current row for that key, or, when it has been deleted
    // meanwhile, the row as it was when the position reached it. Empty at the end.
    const BaseRow& operator*() const;
    const BaseRow* operator->() const { return &**this; }
    bool atEnd() const noexcept { return row_.empty(); }

    friend bool operator==(const VeRowIterator& a, const VeRowIterator& b) noexcept;
    friend bool operator!=(const VeRowIterator& a, const VeRowIterator& b) noexcept { return !(a == b); }

private:
    friend struct detail::HostAccess;
    std::shared_ptr<detail::TableState> table_;
    mutable BaseRow row_;     // row at the position; empty at the end
    std::uint64_t seen_ = 0;  // the table's change count when pos_ and row_ were read
    alignas(void*) unsigned char pos_[2 * sizeof(void*)] = {};  // host index position
    const void* ahead_[4] = {};  // the host's read-ahead of the rows that follow
    unsigned char index_ = 0;
    unsigned char aheadNext_ = 0;  // ahead_[aheadNext_, aheadCount_) are valid
    unsigned char aheadCount_ = 0;
};

// Access-mode bits of an interface.
inline constexpr unsigned char kModeRead = 1;
inline constexpr unsigned char kModeWrite = 2;
inline constexpr unsigned char kModeObserve = 4;
// The mode bytes the agents build their interfaces with.
inline constexpr unsigned char kReaderMode = kModeRead;                   // 1: reads rows
inline constexpr unsigned char kModifierMode = kModeRead | kModeWrite;    // 3: also writes rows
inline constexpr unsigned char kObserverMode = kModeRead | kModeObserve;  // 5: also gets row callbacks

class VeTableInterface : public Schedulable {
public:
    using ReadyCallback = std::function<void()>;
    using RowCallback = std::function<void(const BaseRow&)>;
    using FlagCallback = std::function<void(bool)>;

    // `mode`: 1 reader, 3 modifier, 5 observer. Empty callbacks are never called.
    VeTableInterface(const std::string& ifName, const std::string& rowTypeName, unsigned char mode,
                     ReadyCallback ready, RowCallback row, RowCallback rowDelete, FlagCallback flag);

    // Wraps each non-null member function of `owner` into a callback; a null one gives none.
    template <class Owner>
    VeTableInterface(const std::string& ifName, const std::string& rowTypeName, unsigned char mode,
                     Owner* owner, void (std::type_identity_t<Owner>::*ready)(),
                     void (std::type_identity_t<Owner>::*row)(const BaseRow&),
                     void (std::type_identity_t<Owner>::*rowDelete)(const BaseRow&),
                     void (std::type_identity_t<Owner>::*flag)(bool))
        : VeTableInterface(
              ifName, rowTypeName, mode,
              ready ? ReadyCallback([owner, ready] { (owner->*ready)(); }) : ReadyCallback(),
              row ? RowCallback([owner, row](const BaseRow& r) { (owner->*row)(r); }) : RowCallback(),
              rowDelete ? RowCallback([owner, rowDelete](const BaseRow& r) { (owner->*rowDelete)(r); })
                        : RowCallback(),
              flag ? FlagCallback([owner, flag](bool v) { (owner->*flag)(v); }) : FlagCallback()) {}

    // Detaches from the host; queued callbacks for this interface are dropped.
    ~VeTableInterface() override;

    // The agents call activate(true) before a whole pass over the interface's rows and
    // activate(false) after it, and deactivate(true) when an output reports itself blocked; what a
    // host does with them beyond activated() is its own.
    void activate(bool value);
    void deactivate(bool value);
    // True between activate(true) and activate(false); what deactivate does to it is the host's.
    bool activated() const noexcept { return activated_; }
    // Makes the secondary index `index` usable for lookups (the agents switch on index 1, by oid).
    void activateIndex(unsigned char index);

    // Whole-table iteration in the order of `index` (0 primary key, 1 oid then key).
    VeRowIterator begin(unsigned char index) const;
    VeRowIterator end(unsigned char index) const;
    // Position of the row whose key in `index` equals `key`'s, or end. Index 1 finds the first
    // row with that oid.
    VeRowIterator find(const BaseRow& key, unsigned char index) const;
    // First position not ordered before `key`.
    VeRowIterator lower_bound(const BaseRow& key, unsigned char index) const;
    // The row whose key in `index` equals `key`'s; an empty row when there is none. What it gives
    // for an empty key row, or on an interface never bound, is the host's choice (the agents
    // handle an empty row).
    BaseRow row(const BaseRow& key, unsigned char index) const;

    // Inserts `row`, or replaces the row with its primary key. A new row whose oid is 0 gets one
    // that no other row of the table has, written back into `row`; whether a row rewritten with oid
    // 0 keeps the oid of the row it replaces is the host's choice.
    void rowIs(BaseRow& row);
    // Removes the row with `key`'s primary key, if any.
    void rowDel(const BaseRow& key);
    // Removes the row at `position`; returns the position after it.
    VeRowIterator rowDel(VeRowIterator& position);

    // True once the host has reported the interface ready.
    bool ready() const noexcept { return ready_; }
    // The change notification of the client-ready flag.
    void onClientReady() override;

    const std::string& tablePath() const noexcept { return tablePath_; }
    const std::string& ifName() const noexcept { return name(); }
    const std::string& rowTypeName() const noexcept { return rowTypeName_; }
    unsigned char mode() const noexcept { return mode_; }
    // Non-zero once the interface is bound to a table.
    std::uint64_t attachment() const noexcept { return attachmentValue_; }
    // The flag given to bindInterface.
    bool bindFlag() const noexcept { return bindFlag_; }

    const ReadyCallback& readyCallback() const noexcept { return onReady_; }
    const RowCallback& rowCallback() const noexcept { return onRow_; }
    const RowCallback& deleteCallback() const noexcept { return onDelete_; }
    const FlagCallback& flagCallback() const noexcept { return onFlag_; }

protected:
    void _considerRunnability() override;

private:
    friend struct detail::HostAccess;
    std::string rowTypeName_;
    std::string tablePath_;
    unsigned char mode_;
    bool ready_ = false;
    bool activated_ = false;
    bool bindFlag_ = false;
    std::uint64_t attachmentValue_ = 0;
    ReadyCallback onReady_;
    RowCallback onRow_;
    RowCallback onDelete_;
    FlagCallback onFlag_;
    std::shared_ptr<detail::Attachment> attachment_;  // host state while bound
};

}  // namespace Velta
