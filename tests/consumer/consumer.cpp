// Builds a server agent's translator on the installed host and serves one direct-read subscription;
// an aggregator beside it compiles against the installed headers as the library was built.
#include <Velta/Agent/Aggregator.h>
#include <Velta/Agent/SubscriptionTranslator.h>
#include <Velta/Host/Database.h>

#include <iostream>

int main() {
    using namespace Velta;
    auto db = Host::Database::create();
    auto translator = std::make_unique<Agent::SubscriptionTranslator>(
        db->connect({.agentName = "srv", .systemName = "sysA", .serverAgent = true}));
    veMetadata::SystemDescription system;
    system.oidIs(1);
    system.sysNameIs("sysA");
    system.agentNameIs("cli");
    system.propertiesIs(1);
    db->write("velta/metadata/SystemDescription", system);
    db->createTable("velta/data/routes", "veMetadata::veTable");
    External::Subscription sub;
    sub.oidIs(7);
    sub.system_descriptionIs(1);
    sub.outputPathIs("velta/data/routes");
    sub.typeNameIs("veMetadata::veTable");
    sub.queryTextIs("SELECT * FROM velta/data/routes");
    sub.standingIs(true);
    db->write("velta/External/Subscription", sub);
    Agent::Aggregator aggregator(db->connect({.agentName = "agg", .systemName = "sysA"}), "velta/data/", "",
                                 "velta/merged", "veMetadata::veTable", false, true, false);
    db->runUntilIdle();
    const auto controls = db->rowCount("velta/veCtrl/subscription");
    const auto inputs = aggregator.inputPaths().size();
    std::cout << "control subscriptions: " << controls << ", aggregated inputs: " << inputs << "\n";
    return controls == 1 && inputs == 1 ? 0 : 1;
}
