// A database handle that forwards every call to another one. Embedders derive from it to watch or
// change one behaviour of the host for an agent (note which object binds which interface, lose a
// registration, fail a comparison) and leave everything else as the real handle does it.
#pragma once

#include <Velta/VeltaDB.h>

#include <memory>
#include <string>
#include <utility>

namespace Velta::Host {

class ForwardingVeltaDB : public VeltaDB {
public:
    // Forwards to `inner`, which it keeps alive.
    explicit ForwardingVeltaDB(VeltaDB::p_t inner) : inner_(std::move(inner)) {}

    std::string agentName() const override { return inner_->agentName(); }
    std::string systemName() const override { return inner_->systemName(); }
    bool isServerAgent() const override { return inner_->isServerAgent(); }
    bool external() const override { return inner_->external(); }
    bool standalone() const override { return inner_->standalone(); }
    void bindInterface(VeTableInterface& iface, const std::string& path, bool flag) override {
        inner_->bindInterface(iface, path, flag);
    }
    void registerTable(const std::string& path, const std::string& typeName, TableType type,
                       unsigned short desiredFlags, unsigned short flags, const std::string& owner) override {
        inner_->registerTable(path, typeName, type, desiredFlags, flags, owner);
    }
    void defineQuery(const std::string& text, unsigned typeId, const QueryParams& params,
                     QueryCompletion done, bool standing, const std::string& name) override {
        inner_->defineQuery(text, typeId, params, std::move(done), standing, name);
    }
    void removeQuery(const std::string& name) override { inner_->removeQuery(name); }
    veMetadata::veTable tableInfo(const std::string& path) const override { return inner_->tableInfo(path); }
    veMetadata::veTable tableInfo(unsigned oid) const override { return inner_->tableInfo(oid); }
    unsigned tableTypeId(const std::string& typeName, bool flag) const override {
        return inner_->tableTypeId(typeName, flag);
    }
    std::shared_ptr<const RowOps> getRowOps(const std::string& typeName, unsigned char index) const override {
        return inner_->getRowOps(typeName, index);
    }

private:
    VeltaDB::p_t inner_;
};

}  // namespace Velta::Host
