// The recording listener of the embedding API.
#include <Velta/Host/Database.h>

#include <utility>

namespace Velta::Host {

void EventLog::add(Entry entry) {
    if (sink_)
        sink_(entry);
    else
        entries_.push_back(std::move(entry));
}

void EventLog::addChange(Entry::Kind kind, const std::string& path, const BaseRow& row) {
    Entry entry;
    entry.kind = kind;
    entry.depth = depth_;
    entry.path = path;
    entry.row = row;
    add(std::move(entry));
}

void EventLog::onDeliveryBegin(Delivery delivery, const VeTableInterface* iface, const BaseRow& row,
                               const std::string& what) {
    Entry entry;
    entry.kind = Entry::Kind::deliveryBegin;
    entry.depth = depth_++;
    entry.delivery = delivery;
    entry.iface = iface;
    if (iface != nullptr) entry.ifName = iface->ifName();
    entry.what = what;
    entry.row = row;
    add(std::move(entry));
}

void EventLog::onDeliveryEnd() {
    if (depth_ > 0) --depth_;  // a log attached during a delivery sees its end without its begin
    Entry entry;
    entry.kind = Entry::Kind::deliveryEnd;
    entry.depth = depth_;
    add(std::move(entry));
}

void EventLog::onWrite(const std::string& path, const BaseRow& row) {
    addChange(Entry::Kind::write, path, row);
}

void EventLog::onDelete(const std::string& path, const BaseRow& row) {
    addChange(Entry::Kind::erase, path, row);
}

void EventLog::onHostCall(const HostCall& call) {
    Entry entry;
    entry.kind = Entry::Kind::hostCall;
    entry.depth = depth_;
    entry.call = call;
    add(std::move(entry));
}

void EventLog::onTableCreated(const std::string& path) {
    addChange(Entry::Kind::tableCreated, path, BaseRow());
}

void EventLog::onTableDropped(const std::string& path) {
    addChange(Entry::Kind::tableDropped, path, BaseRow());
}

}  // namespace Velta::Host
