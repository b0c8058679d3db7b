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

protected:
    std::shared_ptr<Velta::Host::Database> db_;
};
