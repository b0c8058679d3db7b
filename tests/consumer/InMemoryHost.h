// The in-memory host as the conformance kit sees it: the adapter a host author writes for a host.
#pragma once

#include <Velta/Conformance/HostConformance.h>
#include <Velta/Host/Database.h>

#include <memory>
#include <string>

class InMemoryHost : public Velta::Conformance::HostAdapter {
public:
    explicit InMemoryHost(Velta::Host::Database::Options options = {})
        : db_(Velta::Host::Database::create(options)) {}
    Velta::VeltaDB::p_t connect(const Velta::Conformance::AgentSpec& a) override {
        return db_->connect({a.agentName, a.systemName, a.serverAgent, a.external, a.standalone});
    }
    void createTable(const std::string& path, const std::string& type) override {
        db_->createTable(path, type);
    }
    void writeRow(const std::string& path, const Velta::BaseRow& row) override { db_->write(path, row); }
    void deleteRow(const std::string& path, const Velta::BaseRow& key) override { db_->erase(path, key); }
    bool dropTable(const std::string& path) override { return db_->dropTable(path); }
    void deliver() override { db_->runUntilIdle(); }
    // A route keyed by prefix and metric, as the aggregator's examples merge them; its oid is the
    // host's to fill, so rows are shown without it.
    Velta::Conformance::OwnRowType ownRowType() override {
        using Velta::FieldKind;
        static const Velta::RowType& route = Velta::Host::defineRowType("Conformance::Route",
                                                                        {{"prefix", FieldKind::string},
                                                                         {"metric", FieldKind::u32},
                                                                         {"nexthop", FieldKind::string},
                                                                         {"oid", FieldKind::u32}},
                                                                        {"prefix", "metric"});
        return {route.name(),
                [](int key, const std::string& value) {
                    Velta::BaseRow row(route);
                    row.stringIs(0, key < 2 ? "10.0.0.0/8" : "172.16.0.0/12");
                    row.numberIs(1, static_cast<unsigned>(key % 2));
                    row.stringIs(2, value);
                    return row;
                },
                [](const Velta::BaseRow& r) {
                    return r.string(0) + " " + std::to_string(r.number(1)) + " " + r.string(2);
                }};
    }

protected:
    std::shared_ptr<Velta::Host::Database> db_;
};
