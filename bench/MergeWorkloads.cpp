// Merge workloads: the aggregator, a minimal forwarding agent, SQLite and a plain program doing the
// same merge over the same event stream, and the memory an aggregated row costs.
#include "BenchSupport.h"

#include <Velta/Agent/Aggregator.h>

#include <malloc.h>
#include <sqlite3.h>

#include <cstdint>
#include <string>
#include <unordered_map>
#include <utility>

namespace Velta::Bench {
namespace {

// An agent that writes the input tables through one modifier per input.
class Producer {
public:
    Producer(Host::Database& db, unsigned inputs) : handle_(db.connect({"producer", "bench"})) {
        modifiers_.reserve(inputs);
        for (unsigned i = 0; i < inputs; ++i) {
            modifiers_.push_back(std::make_unique<VeTableInterface>("producerModifier", benchRowType().name(),
                                                                    kModifierMode, noReady(), noRow(),
                                                                    noRow(), noFlag()));
            handle_->bindInterface(*modifiers_.back(), mergeInputPath(i), false);
        }
    }
    void apply(MergeEvent& event) {
        if (event.erase)
            modifiers_[event.input]->rowDel(event.row);
        else
            modifiers_[event.input]->rowIs(event.row);
    }

private:
    VeltaDB::p_t handle_;
    std::vector<std::unique_ptr<VeTableInterface>> modifiers_;
};

// The minimal forwarding agent: observes every input and writes each row it gets to the output,
// deleting output rows whose input row goes. No merge bookkeeping at all.
class Forwarder {
public:
    Forwarder(VeltaDB::p_t handle, unsigned inputs, const std::string& outputPath)
        : handle_(std::move(handle)),
          outputModifier_("outputModifier", benchRowType().name(), kModifierMode, noReady(), noRow(), noRow(),
                          noFlag()) {
        handle_->bindInterface(outputModifier_, outputPath, false);
        for (unsigned i = 0; i < inputs; ++i) {
            observers_.push_back(std::make_unique<VeTableInterface>(
                "inputObserver", benchRowType().name(), kObserverMode, noReady(),
                [this](const BaseRow& row) {
                    BaseRow copy(row);
                    outputModifier_.rowIs(copy);
                },
                [this](const BaseRow& row) { outputModifier_.rowDel(row); }, noFlag()));
            handle_->bindInterface(*observers_.back(), mergeInputPath(i), false);
            observers_.back()->clientReadyIs(true);
        }
    }

private:
    VeltaDB::p_t handle_;
    VeTableInterface outputModifier_;
    std::vector<std::unique_ptr<VeTableInterface>> observers_;
};

// A database with the merge tables, one merging agent and a producer; `Agent` is built by
// `makeAgent(handle)` once the input tables exist.
template <class Agent>
class MergeWorld : public Workload {
public:
    template <class MakeAgent>
    MergeWorld(const MergeShape& shape, MakeAgent makeAgent)
        : shape_(shape), db_(Host::Database::create(benchOptions())) {
        for (unsigned i = 0; i < shape_.inputs; ++i)
            db_->createTable(mergeInputPath(i), benchRowType().name());
        agent_ = makeAgent(db_->connect({"merger", "bench"}));
        db_->runUntilIdle();
        producer_ = std::make_unique<Producer>(*db_, shape_.inputs);
        db_->runUntilIdle();
        // Every key in each of its holders; the last holder's row ends in the output.
        std::size_t queued = 0;
        for (std::uint64_t key = 0; key < shape_.keys; ++key) {
            for (unsigned h = 0; h < shape_.holders; ++h) {
                MergeEvent load{holderInput(shape_, key, h), false, benchRow(key, key)};
                producer_->apply(load);
                if (++queued % kLoopBatch == 0) db_->runUntilIdle();
            }
        }
        db_->runUntilIdle();
        if (db_->rowCount(mergeOutputPath()) != shape_.keys)
            worldBroken("merge world: output holds " + std::to_string(db_->rowCount(mergeOutputPath())) +
                        " rows after loading " + std::to_string(shape_.keys) + " keys");
        events_ = MergeEventCursor(makeMergeEvents(shape_));
    }

    double nsPerUnit(std::size_t units) override {
        const double start = nowNs();
        for (std::size_t i = 0; i < units; ++i) {
            producer_->apply(events_.next());
            if ((i + 1) % kLoopBatch == 0) db_->runUntilIdle();
        }
        db_->runUntilIdle();
        return (nowNs() - start) / static_cast<double>(units);
    }

private:
    MergeShape shape_;
    std::shared_ptr<Host::Database> db_;
    std::unique_ptr<Agent> agent_;
    std::unique_ptr<Producer> producer_;
    MergeEventCursor events_;
};

std::unique_ptr<Agent::Aggregator> makeAggregator(VeltaDB::p_t handle) {
    return std::make_unique<Agent::Aggregator>(std::move(handle), kMergePrefix, kMergeSuffix,
                                               mergeOutputPath(), benchRowType().name(), false, true, false);
}

// ---------------------------------------------------------------------------------------------
// SQLite: input rows and output rows with their owner in two tables, upserted per event in one
// transaction per loop batch through prepared statements. A deletion that removes the owner's
// row takes the row of the first input (in path order, which is input number order) that still
// holds the key, or removes the output row.

class Statement {
public:
    Statement(sqlite3* db, const char* sql) {
        if (sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt_, nullptr) != SQLITE_OK)
            worldBroken(std::string("sqlite prepare: ") + sqlite3_errmsg(db));
    }
    ~Statement() { sqlite3_finalize(stmt_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    sqlite3_stmt* get() const noexcept { return stmt_; }

private:
    sqlite3_stmt* stmt_ = nullptr;
};

class SqliteWorld : public Workload {
public:
    explicit SqliteWorld(const MergeShape& shape) : shape_(shape), db_(open()) {
        exec("PRAGMA journal_mode=OFF");
        exec("PRAGMA synchronous=OFF");
        exec("PRAGMA temp_store=MEMORY");
        exec(
            "CREATE TABLE input_rows(id INTEGER NOT NULL, input INTEGER NOT NULL, count INTEGER, label TEXT,"
            " PRIMARY KEY(id, input)) WITHOUT ROWID");
        exec("CREATE TABLE output_rows(id INTEGER PRIMARY KEY, count INTEGER, label TEXT, owner INTEGER)");
        upsertInput_ = std::make_unique<Statement>(
            db_,
            "INSERT INTO input_rows(id, input, count, label) VALUES(?1, ?2, ?3, ?4)"
            " ON CONFLICT(id, input) DO UPDATE SET count = excluded.count, label = excluded.label");
        deleteInput_ =
            std::make_unique<Statement>(db_, "DELETE FROM input_rows WHERE id = ?1 AND input = ?2");
        upsertOutput_ = std::make_unique<Statement>(
            db_,
            "INSERT INTO output_rows(id, count, label, owner) VALUES(?1, ?2, ?3, ?4)"
            " ON CONFLICT(id) DO UPDATE SET count = excluded.count, label = excluded.label,"
            " owner = excluded.owner");
        ownerOf_ = std::make_unique<Statement>(db_, "SELECT owner FROM output_rows WHERE id = ?1");
        firstHolder_ = std::make_unique<Statement>(
            db_, "SELECT input, count, label FROM input_rows WHERE id = ?1 ORDER BY input LIMIT 1");
        deleteOutput_ = std::make_unique<Statement>(db_, "DELETE FROM output_rows WHERE id = ?1");
        begin_ = std::make_unique<Statement>(db_, "BEGIN");
        commit_ = std::make_unique<Statement>(db_, "COMMIT");

        step(begin_->get());
        for (std::uint64_t key = 0; key < shape_.keys; ++key) {
            for (unsigned h = 0; h < shape_.holders; ++h) {
                const BaseRow row = benchRow(key, key);
                write(holderInput(shape_, key, h), row);
            }
        }
        step(commit_->get());
        events_ = MergeEventCursor(makeMergeEvents(shape_));
    }
    ~SqliteWorld() override {
        upsertInput_.reset();
        deleteInput_.reset();
        upsertOutput_.reset();
        ownerOf_.reset();
        firstHolder_.reset();
        deleteOutput_.reset();
        begin_.reset();
        commit_.reset();
        sqlite3_close(db_);
    }

    double nsPerUnit(std::size_t units) override {
        const double start = nowNs();
        step(begin_->get());
        for (std::size_t i = 0; i < units; ++i) {
            events_.playNext(*this);
            if ((i + 1) % kLoopBatch == 0) {
                step(commit_->get());
                step(begin_->get());
            }
        }
        step(commit_->get());
        return (nowNs() - start) / static_cast<double>(units);
    }

private:
    // The cursor does each event through write() and erase().
    friend MergeEventCursor;

    static sqlite3* open() {
        sqlite3* db = nullptr;
        if (sqlite3_open(":memory:", &db) != SQLITE_OK) worldBroken("sqlite open failed");
        return db;
    }
    void exec(const char* sql) {
        if (sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) != SQLITE_OK)
            worldBroken(std::string("sqlite: ") + sqlite3_errmsg(db_));
    }
    // Runs a statement that returns no row and resets it.
    void step(sqlite3_stmt* stmt) {
        if (sqlite3_step(stmt) != SQLITE_DONE)
            worldBroken(std::string("sqlite step: ") + sqlite3_errmsg(db_));
        sqlite3_reset(stmt);
    }
    // `label` must stay valid until the statement has run unless `copyLabel`.
    void upsertOutput(std::int64_t id, std::int64_t count, const char* label, int labelSize,
                      std::int64_t owner, bool copyLabel) {
        sqlite3_stmt* s = upsertOutput_->get();
        sqlite3_bind_int64(s, 1, id);
        sqlite3_bind_int64(s, 2, count);
        sqlite3_bind_text(s, 3, label, labelSize, copyLabel ? SQLITE_TRANSIENT : SQLITE_STATIC);
        sqlite3_bind_int64(s, 4, owner);
        step(s);
    }
    void write(unsigned input, const BaseRow& row) {
        const auto id = static_cast<std::int64_t>(row.number(kIdField));
        const auto count = static_cast<std::int64_t>(row.number(kCountField));
        const std::string& label = row.string(kLabelField);
        sqlite3_stmt* s = upsertInput_->get();
        sqlite3_bind_int64(s, 1, id);
        sqlite3_bind_int64(s, 2, input);
        sqlite3_bind_int64(s, 3, count);
        sqlite3_bind_text(s, 4, label.data(), static_cast<int>(label.size()), SQLITE_STATIC);
        step(s);
        upsertOutput(id, count, label.data(), static_cast<int>(label.size()), input, false);
    }
    void erase(unsigned input, std::uint64_t key) {
        const auto id = static_cast<std::int64_t>(key);
        sqlite3_stmt* del = deleteInput_->get();
        sqlite3_bind_int64(del, 1, id);
        sqlite3_bind_int64(del, 2, input);
        step(del);
        sqlite3_stmt* owner = ownerOf_->get();
        sqlite3_bind_int64(owner, 1, id);
        const bool owned = sqlite3_step(owner) == SQLITE_ROW &&
                           sqlite3_column_int64(owner, 0) == static_cast<std::int64_t>(input);
        sqlite3_reset(owner);
        if (!owned) return;
        sqlite3_stmt* holder = firstHolder_->get();
        sqlite3_bind_int64(holder, 1, id);
        if (sqlite3_step(holder) == SQLITE_ROW) {
            upsertOutput(id, sqlite3_column_int64(holder, 1),
                         reinterpret_cast<const char*>(sqlite3_column_text(holder, 2)),
                         sqlite3_column_bytes(holder, 2), sqlite3_column_int64(holder, 0), true);
            sqlite3_reset(holder);
        } else {
            sqlite3_reset(holder);
            sqlite3_stmt* out = deleteOutput_->get();
            sqlite3_bind_int64(out, 1, id);
            step(out);
        }
    }

    MergeShape shape_;
    sqlite3* db_;
    std::unique_ptr<Statement> upsertInput_, deleteInput_, upsertOutput_, ownerOf_, firstHolder_,
        deleteOutput_, begin_, commit_;
    MergeEventCursor events_;
};

// ---------------------------------------------------------------------------------------------
// The floor: the merge with nothing around it. Each input and the output is a std::unordered_map
// keyed by the number holding the rows (their data shared with the events, as the host shares it
// with its tables); a write stores the row in its input and in the output with the input as owner;
// a deletion removes the input's entry and, when that input owned the output entry, takes the
// first remaining holder in input order or removes the output entry.

class FloorWorld : public Workload {
public:
    explicit FloorWorld(const MergeShape& shape) : shape_(shape), inputs_(shape.inputs) {
        for (std::uint64_t key = 0; key < shape_.keys; ++key) {
            for (unsigned h = 0; h < shape_.holders; ++h)
                write(holderInput(shape_, key, h), benchRow(key, key));
        }
        events_ = MergeEventCursor(makeMergeEvents(shape_));
    }

    double nsPerUnit(std::size_t units) override {
        const double start = nowNs();
        for (std::size_t i = 0; i < units; ++i) {
            events_.playNext(*this);
        }
        const double elapsed = nowNs() - start;
        if (output_.empty()) worldBroken("floor world: output empty");
        return elapsed / static_cast<double>(units);
    }

private:
    // The cursor does each event through write() and erase().
    friend MergeEventCursor;

    struct Owned {
        BaseRow row;
        unsigned owner = 0;
    };

    void write(unsigned input, const BaseRow& row) {
        const std::uint64_t key = row.number(kIdField);
        inputs_[input].insert_or_assign(key, row);
        output_.insert_or_assign(key, Owned{row, input});
    }
    void erase(unsigned input, std::uint64_t key) {
        inputs_[input].erase(key);
        const auto out = output_.find(key);
        if (out == output_.end() || out->second.owner != input) return;
        for (unsigned holder = 0; holder < inputs_.size(); ++holder) {
            const auto held = inputs_[holder].find(key);
            if (held == inputs_[holder].end()) continue;
            out->second = Owned{held->second, holder};
            return;
        }
        output_.erase(out);
    }

    MergeShape shape_;
    std::vector<std::unordered_map<std::uint64_t, BaseRow>> inputs_;
    std::unordered_map<std::uint64_t, Owned> output_;
    MergeEventCursor events_;
};

std::size_t heapInUse() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

}  // namespace

std::unique_ptr<Workload> makeAggregatorWorkload(const MergeShape& shape) {
    return std::make_unique<MergeWorld<Agent::Aggregator>>(shape, makeAggregator);
}

std::unique_ptr<Workload> makeForwarderWorkload(const MergeShape& shape) {
    return std::make_unique<MergeWorld<Forwarder>>(shape, [&shape](VeltaDB::p_t handle) {
        return std::make_unique<Forwarder>(std::move(handle), shape.inputs, mergeOutputPath());
    });
}

std::unique_ptr<Workload> makeSqliteWorkload(const MergeShape& shape) {
    return std::make_unique<SqliteWorld>(shape);
}

std::unique_ptr<Workload> makeFloorWorkload(const MergeShape& shape) {
    return std::make_unique<FloorWorld>(shape);
}

double measureBytesPerRow(std::size_t rows) {
    MergeShape shape;
    shape.keys = rows;
    shape.holders = 1;
    auto db = Host::Database::create(benchOptions());
    for (unsigned i = 0; i < shape.inputs; ++i) db->createTable(mergeInputPath(i), benchRowType().name());
    auto aggregator = makeAggregator(db->connect({"merger", "bench"}));
    db->runUntilIdle();
    Producer producer(*db, shape.inputs);
    db->runUntilIdle();
    // Warm the loop's own buffers with a few rows that are then removed again.
    for (std::uint64_t key = 0; key < kLoopBatch; ++key) {
        MergeEvent load{holderInput(shape, key, 0), false, benchRow(key, key)};
        producer.apply(load);
    }
    db->runUntilIdle();
    for (std::uint64_t key = 0; key < kLoopBatch; ++key) {
        MergeEvent drop{holderInput(shape, key, 0), true, benchRow(key, key)};
        producer.apply(drop);
    }
    db->runUntilIdle();
    if (db->rowCount(mergeOutputPath()) != 0) worldBroken("memory world: output not empty after warm-up");

    const std::size_t before = heapInUse();
    for (std::uint64_t key = 0; key < rows; ++key) {
        MergeEvent load{holderInput(shape, key, 0), false, benchRow(key, key)};
        producer.apply(load);
        if ((key + 1) % kLoopBatch == 0) db->runUntilIdle();
    }
    db->runUntilIdle();
    const std::size_t after = heapInUse();
    if (db->rowCount(mergeOutputPath()) != rows) worldBroken("memory world: output incomplete");
    return static_cast<double>(after - before) / static_cast<double>(rows);
}

}  // namespace Velta::Bench
