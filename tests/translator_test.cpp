// SubscriptionTranslator flows in a server and a standalone agent (per-agent: the churn's), each one
// transcript; the bindings per kind of agent, the trace mask level by level, contracts that end the process.
#include "TestSupport.h"

#include <Velta/Agent/SubscriptionTranslator.h>

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace Velta::Test {
namespace {

class TranslatorFlowTest : public TranslatorTest {
public:
    std::string out_;   // what a flow saw so far; each flow hands it back and leaves it empty
    std::string held_;  // what happened before a write left out of the transcript
    void mark(const std::string& what) {
        out_ += "== " + what + "\n" + std::exchange(held_, "") + happened();
    }
    void note(const std::string& text) { out_ += std::exchange(held_, "") + happened() + text + "\n"; }
    unsigned sidOf(const External::Subscription& sub) const {
        const auto e = translator_->subscription(sub);
        return e ? e->sid : 0;
    }
    veMetadata::veTable tableRow(const std::string& path) {
        return db_->connect(agentOptions(Kind::standalone, "p", "p"))->tableInfo(path);
    }
    // The database's publication for `sub`'s control row and table, with the fields in `more`.
    veCtrl::publication internal(const External::Subscription& sub, const std::string& more = "") {
        return rowOf<veCtrl::publication>("subscription_id=" + std::to_string(sidOf(sub)) + ";tableId=" +
                                          std::to_string(tableRow(sub.outputPath()).oid()) + more);
    }
    // A client's publication for external subscription `id`, delivered unless `deliver` is false. The
    // write itself stays out of the transcript: the test made it, only what it causes is the agent's.
    void writeClientRow(unsigned id, bool deliver = true) {
        held_ += happened();
        db_->write(kExtPub,
                   rowOf<External::Publication>("subscription_id=" + std::to_string(id) +
                                                ";publication_id=1;view_id=3;connection_id=4;tableId=5;"
                                                "typeId=6;ptime=7;error=client says no"));
        happened();
        if (deliver) run();
    }

    // Server agent: the host answers control subscriptions with publications.
    std::string serverFlow() {
        fresh(true);
        writeSystem(10, "clientSys", "client");
        writeSystem(11, "internalSys", "member", 0);
        db_->createTable("velta/in/items", "Test::Item");
        db_->createTable("velta/out/owned2", "Test::Item", "someone");
        // Left from before: a subscription whose client row names a publication that is gone, a
        // client row of no subscription and control rows of no subscription or system.
        writeSubscription("oid=5;system_description=10;outputPath=velta/out/act;standing=1");
        db_->write(kExtPub, rowOf<External::Publication>("subscription_id=5;publication_id=777;status=1"));
        db_->write(kExtPub, rowOf<External::Publication>("subscription_id=4242;status=1"));
        db_->write(kCtrlSubs, rowOf<veCtrl::subscription>("connection_id=4;system_description=10"));
        db_->write(kCtrlSubs, rowOf<veCtrl::subscription>("connection_id=5;system_description=99"));
        db_->write(kCtrlSubs, rowOf<veCtrl::subscription>("connection_id=5;system_description=11"));
        happened();
        Agent::SubscriptionTranslator& t = start(Kind::server, "server", "serverSys");
        mark("ready");

        db_->clockAdvance(500);
        std::vector<External::Subscription> subs;
        for (const char* sub : {
                 "outputPath=velta/out/q1;queryText=SELECT key FROM velta/in/items;standing=1;features=6;"
                 "type_signature=sig;paramName=[c,a,b,a];paramValue=[0,1,2,3];ptime=42",
                 "outputPath=velta/out/bad;queryText=SELECT key FROM velta/in/missing;standing=1",
                 "outputPath=velta/out/s;system_description=99",  // refused (the others are an example's)
                 // Look-alikes of the refusals, accepted.
                 "outputPath=velta/out/la1;queryText=SELECT * FROM velta/out/la1;desiredFlags=0x40;flags=1",
                 "outputPath=velta/out/la2;queryText=SELECT * FROM velta/out/la2;desiredFlags=1;flags=0x40",
                 "outputPath=velta/out/owned2;queryText=SELECT * INTO velta/out/owned2;flags=0x40",
                 "outputPath=velta/out/la3;queryText=SELECT * FROM ;desiredFlags=0x40;flags=0x40",
                 "outputPath=velta/out/m;queryText=SELECT 1;system_description=11",
             })
            subs.push_back(writeSubscription(std::string("system_description=10;") + sub));
        run();
        mark("intake");
        for (const External::Subscription& s : subs) note(s.outputPath() + " " + entry(s));

        for (const char* pub : {";ptime=549;status=1;system_id=10", ";ptime=550;status=1;system_id=10",
                                ";ptime=549;error=broken;system_id=10"}) {
            db_->write(kCtrlPub, internal(subs[0], pub));
            run();
        }
        db_->erase(kCtrlPub, internal(subs[0]));
        db_->erase(kCtrlPub, internal(subs[4]));
        run();
        db_->write(kCtrlPub, internal(subs[4], ";status=1;ptime=600"));
        db_->write(kCtrlPub, rowOf<veCtrl::publication>("subscription_id=5555;status=1"));
        run();
        // A placeholder in the client's row does not stop the intake mirroring the publication there.
        db_->write(kExtPub,
                   rowOf<External::Publication>("status=1;subscription_id=" + std::to_string(subs[4].oid())));
        db_->write(kExtSubs, subs[4]);
        run();
        mark("publications");

        for (int i : {0, 1}) db_->erase(kExtSubs, subs[i]);
        run();
        mark("withdrawals");

        auto reg = rowOf<External::Subscription>(
            "oid=31;system_description=10;outputPath=velta/out/reg;typeName=Test::Item");
        t.subscriptionComplete(reg, Agent::TableRow(), false, false, true, 0, 5, "");
        t.subscriptionComplete(reg, Agent::TableRow(), true, true, true, 1234, 9, "");
        reg.oidIs(99);  // the same registry key under another oid: it finds the entry of oid 31
        t.subscriptionComplete(reg, Agent::TableRow(), false, false, true, 77, 0, "");
        note(entry(reg) + " ids " + std::to_string(t.externalSubscriptionId(5)) + " " +
             std::to_string(t.externalSubscriptionId(9)));
        t.subscriptionComplete(subs[6], Agent::TableRow(), false, false, false, 0, 0, "no table");
        const unsigned sid = sidOf(subs[6]);
        t.subscriptionComplete(subs[6], tableRow("velta/out/la3"), false, false, false, 0, 0, "gone");
        note(entry(subs[6]) + " old sid maps " +
             std::to_string(t.externalSubscriptionId(sid) == subs[6].oid()));
        db_->erase(kExtPub, rowOf<External::Publication>("subscription_id=" + std::to_string(subs[5].oid())));
        t.subscriptionComplete(subs[5], tableRow("velta/out/owned2"), false, false, false, 0, 0, "lost");
        mark("registry");
        translator_.reset();
        mark("teardown");
        return std::exchange(out_, "") + entryTraces();
    }

    // Standalone non-server agent: tables appear a loop turn after registration.
    std::string standaloneFlow() {
        fresh(false);
        writeSystem(20, "sysA", "A");
        writeSystem(21, "sysA", "B");
        writeSystem(22, "other", "A");
        db_->createTable("velta/out/e", "Test::Item");
        db_->createTable("velta/out/owned", "Test::Item", "someone");
        Agent::SubscriptionTranslator& t = start(Kind::standalone, "A", "sysA");
        mark("ready");
        const std::string late =
            "system_description=20;outputPath=velta/out/late;queryText=SELECT * INTO x;desiredFlags=1";
        writeSubscription("oid=31;" + late);
        writeSubscription(
            "system_description=20;outputPath=velta/out/pr;queryText=SELECT * FROM "
            "x;desiredFlags=0x40;flags=0x40");
        db_->runOne();
        db_->runOne();
        note("parked " + std::to_string(t.pendingTableSubscriptions().size()));
        writeSubscription("oid=33;" + late);  // the client writes its row again, under a new oid
        std::vector<External::Subscription> subs;
        for (const char* sub :
             {"system_description=20;outputPath=velta/out/e;queryText=SELECT * FROM velta/out/e;standing=1",
              "system_description=21;outputPath=velta/out/u1",
              "system_description=22;outputPath=velta/out/u2",
              "system_description=20;outputPath=velta/out/owned;queryText=SELECT * INTO "
              "velta/out/owned;desiredFlags=1"})
            subs.push_back(writeSubscription(sub));
        run();
        mark("intake");
        note("parked " + std::to_string(t.pendingTableSubscriptions().size()));

        const unsigned e = subs[0].oid();
        for (unsigned id : {e, subs[1].oid(), subs[3].oid()}) writeClientRow(id);
        db_->erase("velta/metadata/SystemDescription", rowOf<veMetadata::SystemDescription>("oid=20"));
        writeClientRow(e);
        writeSystem(20, "sysA", "B");
        writeClientRow(e);
        writeSystem(20, "other", "A");
        writeClientRow(e);
        writeSystem(20, "sysA", "A");
        mark("client publications");
        // A deleted client row is looked up through its own (empty) key fields: only the entry of a
        // subscription with no output path and system 0 matches, and its sid 0 names the row deleted.
        const auto clientRow = rowOf<External::Publication>("subscription_id=" + std::to_string(e));
        db_->write(kCtrlPub, rowOf<veCtrl::publication>("subscription_id=0;status=1"));
        db_->erase(kExtPub, clientRow);
        run();
        writeSubscription("system_description=0;outputPath=");
        writeClientRow(e, false);
        db_->erase(kExtPub, clientRow);
        run();
        mark("client publication deleted");

        db_->erase(kExtSubs, subs[0]);
        run();
        writeSubscription("system_description=20;outputPath=velta/out/c;queryText=SELECT 1");
        db_->runOne();
        writeClientRow(e, false);
        db_->write(kCtrlPub, rowOf<veCtrl::publication>("subscription_id=8888;status=1"));
        t.clean();
        note("after clean: required " + std::to_string(t.requiredInterfaces().size()) + ", entries " +
             std::to_string(t.subscriptionCount()) + ", parked " +
             std::to_string(t.pendingTableSubscriptions().size()));
        t.onTableReady();
        run();
        mark("withdrawal, clean and a ready pass");
        return std::exchange(out_, "") + entryTraces();
    }
};

TEST_F(TranslatorFlowTest, ServerAgent) {
    EXPECT_EQ(collapsed(serverFlow()), R"(== ready
L0:326 SubscriptionTranslator starting for server:serverSys
+ctrlPub subscription_id=14 system_id=10 typeId=65535 status=1
+ctrlPub subscription_id=15 system_id=99 typeId=65535 status=1
+ctrlPub subscription_id=16 system_id=11 typeId=65535 status=1
L9:394 extSubsObserver_ not ready (x4)
L9:394 pubObserver_ not ready
call registerTable path=velta/out/act typeName=Test::Item tableType=0 desiredFlags=0 flags=0 owner= agent=server
+ctrlSub oid=18 connection_id=5 system_description=10 typeName=Test::Item tableId=17 @extSubsObserver_
L9:728 Updating sid for velta/out/act, 0=>18
-ctrlSub oid=14 connection_id=4 system_description=10 @extSubsObserver_
-ctrlSub oid=16 connection_id=5 system_description=11 @extSubsObserver_
-ctrlSub oid=15 connection_id=5 system_description=99 @extSubsObserver_
-extPub subscription_id=4242 status=1 @extSubsObserver_
+extPub subscription_id=5 publication_id=777 error=no corresponding internal publication row @pubObserver_
+ctrlPub subscription_id=18 system_id=10 tableId=17 typeId=8 status=1
-ctrlPub subscription_id=14 system_id=10 typeId=65535 status=1
-ctrlPub subscription_id=16 system_id=11 typeId=65535 status=1
-ctrlPub subscription_id=15 system_id=99 typeId=65535 status=1
+extPub subscription_id=5 publication_id=18 tableId=17 typeId=8 status=1
L4:822 [serverSys:10] defineQuery (velta/out/act) 
call defineQuery text="" typeId=8 params={} standing=1 name="" agent=server
== intake
call registerTable path=velta/out/q1 typeName=Test::Item tableType=0 desiredFlags=0 flags=0 owner= agent=server
+ctrlSub oid=28 connection_id=19 system_description=10 typeName=Test::Item type_signature=sig tableId=27 features=6 ptime=42
L9:728 Updating sid for velta/out/q1, 0=>28
+extPub subscription_id=19 tableId=27 typeId=8 status=1
call registerTable path=velta/out/bad typeName=Test::Item tableType=0 desiredFlags=0 flags=0 owner= agent=server
+ctrlSub oid=30 connection_id=20 system_description=10 typeName=Test::Item tableId=29
L9:728 Updating sid for velta/out/bad, 0=>30
+extPub subscription_id=20 tableId=29 typeId=8 status=1
+extPub subscription_id=21 connection_id=21 typeId=8 error=SystemDescription no longer valid.
call registerTable path=velta/out/la1 typeName=Test::Item tableType=1 desiredFlags=64 flags=1 owner= agent=server
L4:593 [serverSys:10] subscribe r velta/out/la1
+ctrlSub oid=32 connection_id=22 system_description=10 typeName=Test::Item tableId=31
L9:728 Updating sid for velta/out/la1, 0=>32
+extPub subscription_id=22 tableId=31 typeId=8 status=1
call registerTable path=velta/out/la2 typeName=Test::Item tableType=1 desiredFlags=1 flags=64 owner= agent=server
L4:593 [serverSys:10] subscribe r velta/out/la2
+ctrlSub oid=34 connection_id=23 system_description=10 typeName=Test::Item tableId=33
L9:728 Updating sid for velta/out/la2, 0=>34
+extPub subscription_id=23 tableId=33 typeId=8 status=1
L4:593 [serverSys:10] subscribe w velta/out/owned2
+ctrlSub oid=35 connection_id=24 system_description=10 typeName=Test::Item tableId=13 writer=1
L9:728 Updating sid for velta/out/owned2, 0=>35
+extPub subscription_id=24 tableId=13 typeId=8 status=1
call registerTable path=velta/out/la3 typeName=Test::Item tableType=1 desiredFlags=64 flags=64 owner= agent=server
+ctrlSub oid=37 connection_id=25 system_description=10 typeName=Test::Item tableId=36
L9:728 Updating sid for velta/out/la3, 0=>37
+extPub subscription_id=25 tableId=36 typeId=8 status=1
call registerTable path=velta/out/m typeName=Test::Item tableType=1 desiredFlags=0 flags=0 owner= agent=server
+ctrlSub oid=39 connection_id=26 system_description=11 typeName=Test::Item tableId=38
L9:728 Updating sid for velta/out/m, 0=>39
+extPub subscription_id=26 tableId=38 typeId=8 status=1
+ctrlPub subscription_id=28 system_id=10 tableId=27 typeId=8 status=1 ptime=500
+ctrlPub subscription_id=30 system_id=10 tableId=29 typeId=8 status=1 ptime=500
+ctrlPub subscription_id=32 system_id=10 tableId=31 typeId=8 status=1 ptime=500
+ctrlPub subscription_id=34 system_id=10 tableId=33 typeId=8 status=1 ptime=500
+ctrlPub subscription_id=35 system_id=10 tableId=13 typeId=8 status=1 ptime=500
+ctrlPub subscription_id=37 system_id=10 tableId=36 typeId=8 status=1 ptime=500
+ctrlPub subscription_id=39 system_id=11 tableId=38 typeId=8 status=1 ptime=500
+extPub subscription_id=19 publication_id=28 tableId=27 typeId=8 status=1 ptime=500
L4:822 [serverSys:10] defineQuery (velta/out/q1) SELECT key FROM velta/in/items
call defineQuery text="SELECT key FROM velta/in/items" typeId=8 params={a=3,b=2,c=0} standing=1 name="" agent=server
+extPub subscription_id=20 publication_id=30 tableId=29 typeId=8 status=1 ptime=500
L4:822 [serverSys:10] defineQuery (velta/out/bad) SELECT key FROM velta/in/missing
call defineQuery text="SELECT key FROM velta/in/missing" typeId=8 params={} standing=1 name="" agent=server
+extPub subscription_id=22 publication_id=32 tableId=31 typeId=8 status=1 ptime=500
+extPub subscription_id=23 publication_id=34 tableId=33 typeId=8 status=1 ptime=500
+extPub subscription_id=24 publication_id=35 tableId=13 typeId=8 status=1 ptime=500
+extPub subscription_id=25 publication_id=37 tableId=36 typeId=8 status=1 ptime=500
L4:822 [serverSys:10] defineQuery (velta/out/la3) SELECT * FROM 
call defineQuery text="SELECT * FROM " typeId=8 params={} standing=0 name="" agent=server
L2:775   PublicationTranslator Skipping internal publication: veCtrl::subscription{oid=39 connection_id=26 system_description=11 typeName="Test::Item" type_signature="" tableId=38 features=0 writer=0 ptime=0} for internal member veMetadata::SystemDescription{oid=11 sysName="internalSys" agentName="member" properties=0}
-ctrlSub oid=30 connection_id=20 system_description=10 typeName=Test::Item tableId=29
-ctrlPub subscription_id=30 system_id=10 tableId=29 typeId=8 status=1 ptime=500
+extPub subscription_id=20 publication_id=30 tableId=29 typeId=8 error=no corresponding publication row ptime=500
velta/out/q1 - 19 27 8 28
velta/out/bad - 20 29 8 0
velta/out/s - 21 0 8 0
velta/out/la1 r 22 31 8 32
velta/out/la2 r 23 33 8 34
velta/out/owned2 w 24 13 8 35
velta/out/la3 - 25 36 8 37
velta/out/m - 26 38 8 39
== publications
+ctrlPub subscription_id=28 system_id=10 tableId=27 status=1 ptime=549
L4:822 [serverSys:10] defineQuery (velta/out/q1) SELECT key FROM velta/in/items
call defineQuery text="SELECT key FROM velta/in/items" typeId=0 params={a=3,b=2,c=0} standing=1 name="" agent=server
+ctrlPub subscription_id=28 system_id=10 tableId=27 status=1 ptime=550
+extPub subscription_id=19 publication_id=28 tableId=27 status=1 ptime=550
L4:822 [serverSys:10] defineQuery (velta/out/q1) SELECT key FROM velta/in/items
call defineQuery text="SELECT key FROM velta/in/items" typeId=0 params={a=3,b=2,c=0} standing=1 name="" agent=server
+ctrlPub subscription_id=28 system_id=10 tableId=27 error=broken ptime=549
+extPub subscription_id=19 publication_id=28 tableId=27 error=broken ptime=549
-ctrlPub subscription_id=28 system_id=10 tableId=27 error=broken ptime=549
-ctrlPub subscription_id=34 system_id=10 tableId=33 typeId=8 status=1 ptime=500
+extPub subscription_id=23 publication_id=34 tableId=33 typeId=8 error=no corresponding publication row ptime=500
+ctrlPub subscription_id=34 tableId=33 status=1 ptime=600
+ctrlPub subscription_id=5555 status=1
+extPub subscription_id=23 publication_id=34 tableId=33 status=1 ptime=600
+extPub subscription_id=23 status=1
L4:593 [serverSys:10] subscribe r velta/out/la2
+ctrlSub oid=34 connection_id=23 system_description=10 typeName=Test::Item tableId=33
+extPub subscription_id=23 publication_id=34 tableId=33 status=1 ptime=600
== withdrawals
L4:662  deleting subscription [19] velta/out/q1
-extPub subscription_id=19 publication_id=28 tableId=27 error=broken ptime=549
L9:672   Lookup sid: 28
-ctrlSub oid=28 connection_id=19 system_description=10 typeName=Test::Item type_signature=sig tableId=27 features=6 ptime=42
L4:683 [serverSys] removeQuery velta/out/q1
call removeQuery name="velta/out/q1" agent=server
L4:662  deleting subscription [20] velta/out/bad
-extPub subscription_id=20 publication_id=30 tableId=29 typeId=8 error=no corresponding publication row ptime=500
L9:672   Lookup sid: 0
L9:679   Not found
L4:683 [serverSys] removeQuery velta/out/bad
call removeQuery name="velta/out/bad" agent=server
L9:728 Updating sid for velta/out/reg, 0=>5
L9:728 Updating sid for velta/out/reg, 5=>9
- 31 0 8 9 ids 0 31
-ctrlSub oid=37 connection_id=25 system_description=10 typeName=Test::Item tableId=36
- 25 36 8 0 old sid maps 1
== registry
-extPub subscription_id=24 publication_id=35 tableId=13 typeId=8 status=1 ptime=500
-ctrlSub oid=35 connection_id=24 system_description=10 typeName=Test::Item tableId=13 writer=1
+extPub subscription_id=24 connection_id=24 tableId=13 typeId=8 error=lost
== teardown
L8: 347x1 417x1 477 (perClient:0)x10 652x2 695( ok:0, sid:#,tr?1)x1 695( ok:0, sid:0,tr?0)x2 695( ok:0, sid:0,tr?1)x2 695( ok:1, sid:#,tr?1)x14 695( ok:1, sid:0,tr?0)x1 695( ok:1, sid:5,tr?0)x1 695( ok:1, sid:9,tr?0)x1 760x20 846x6
)");
}
TEST_F(TranslatorFlowTest, StandaloneNonServerAgent) {
    EXPECT_EQ(collapsed(standaloneFlow()), R"(== ready
L0:326 SubscriptionTranslator starting for A:sysA
L9:394 extSubsObserver_ not ready (x4)
L9:394 extPubObserver_ not ready (x2)
call registerTable path=velta/out/late typeName=Test::Item tableType=1 desiredFlags=1 flags=0 owner=A agent=A
L4:556 Table row not ready for velta/out/late
call registerTable path=velta/out/pr typeName=Test::Item tableType=1 desiredFlags=64 flags=64 owner= agent=A
L4:556 Table row not ready for velta/out/pr
parked 2
== intake
L4:593 [sysA:20] subscribe w velta/out/late
+ctrlSub oid=40 connection_id=33 system_description=20 typeName=Test::Item tableId=38 writer=1
L9:728 Updating sid for velta/out/late, 0=>40
L4:593 [sysA:20] subscribe r velta/out/e
+ctrlSub oid=41 connection_id=34 system_description=20 typeName=Test::Item tableId=23
L9:728 Updating sid for velta/out/e, 0=>41
L9:520 Unrelated SystemDescription sysA::B [ours: sysA::A]
L9:520 Unrelated SystemDescription other::A [ours: sysA::A]
parked 0
== client publications
+ctrlPub subscription_id=41 connection_id=4 system_id=20 tableId=5 typeId=6 view_id=3 error=client says no ptime=7
L4:903 No internal entry for Subscription External::Subscription{oid=35 typeName="Test::Item" type_signature="" queryText="" outputPath="velta/out/u1" system_description=21 flags=0 desiredFlags=0 standing=0 features=0 paramName=[] paramValue=[] ptime=0}
L4:909 No corresponding ctrl subscription for External::Publication{subscription_id=37 publication_id=1 connection_id=4 tableId=5 typeId=6 view_id=3 status=0 error="client says no" ptime=7}
L2:916 No matching system description for subscription: External::Subscription{oid=34 typeName="Test::Item" type_signature="" queryText="SELECT * FROM velta/out/e" outputPath="velta/out/e" system_description=20 flags=0 desiredFlags=0 standing=1 features=0 paramName=[] paramValue=[] ptime=0}
L2:923   PublicationTranslator Skipping unrelated subscription: External::Subscription{oid=34 typeName="Test::Item" type_signature="" queryText="SELECT * FROM velta/out/e" outputPath="velta/out/e" system_description=20 flags=0 desiredFlags=0 standing=1 features=0 paramName=[] paramValue=[] ptime=0} (for system: veMetadata::SystemDescription{oid=20 sysName="sysA" agentName="B" properties=1})
L2:923   PublicationTranslator Skipping unrelated subscription: External::Subscription{oid=34 typeName="Test::Item" type_signature="" queryText="SELECT * FROM velta/out/e" outputPath="velta/out/e" system_description=20 flags=0 desiredFlags=0 standing=1 features=0 paramName=[] paramValue=[] ptime=0} (for system: veMetadata::SystemDescription{oid=20 sysName="other" agentName="A" properties=1})
== client publication deleted
+ctrlPub status=1
-extPub subscription_id=34 publication_id=1 connection_id=4 tableId=5 typeId=6 view_id=3 error=client says no ptime=7 (x2)
+ctrlPub subscription_id=41 connection_id=4 system_id=20 tableId=5 typeId=6 view_id=3 error=client says no ptime=7
L9:961  deleting internal publication [0]  for external subscription: External::Subscription{oid=42 typeName="Test::Item" type_signature="" queryText="" outputPath="" system_description=0 flags=0 desiredFlags=0 standing=0 features=0 paramName=[] paramValue=[] ptime=0}
-ctrlPub status=1
L4:662  deleting subscription [34] velta/out/e
L9:672   Lookup sid: 41
-ctrlSub oid=41 connection_id=34 system_description=20 typeName=Test::Item tableId=23
call registerTable path=velta/out/c typeName=Test::Item tableType=1 desiredFlags=0 flags=0 owner= agent=A
L4:556 Table row not ready for velta/out/c
+ctrlPub subscription_id=8888 status=1
after clean: required 0, entries 0, parked 1
== withdrawal, clean and a ready pass
call registerTable path=velta/out/c typeName=Test::Item tableType=1 desiredFlags=0 flags=0 owner= agent=A
L4:556 Table row not ready for velta/out/c
L4:593 [sysA:20] subscribe w velta/out/late
+ctrlSub oid=40 connection_id=33 system_description=20 typeName=Test::Item tableId=38 writer=1 @extSubsObserver_
L9:728 Updating sid for velta/out/late, 0=>40
L9:520 Unrelated SystemDescription sysA::B [ours: sysA::A]
L9:520 Unrelated SystemDescription other::A [ours: sysA::A]
L4:897 No corresponding external Subscription for External::Publication{subscription_id=34 publication_id=1 connection_id=4 tableId=5 typeId=6 view_id=3 status=0 error="client says no" ptime=7}
L4:903 No internal entry for Subscription External::Subscription{oid=35 typeName="Test::Item" type_signature="" queryText="" outputPath="velta/out/u1" system_description=21 flags=0 desiredFlags=0 standing=0 features=0 paramName=[] paramValue=[] ptime=0}
L4:909 No corresponding ctrl subscription for External::Publication{subscription_id=37 publication_id=1 connection_id=4 tableId=5 typeId=6 view_id=3 status=0 error="client says no" ptime=7}
-ctrlPub subscription_id=41 connection_id=4 system_id=20 tableId=5 typeId=6 view_id=3 error=client says no ptime=7 @extPubObserver_
-ctrlPub subscription_id=8888 status=1 @extPubObserver_
L4:897 No corresponding external Subscription for External::Publication{subscription_id=34 publication_id=1 connection_id=4 tableId=5 typeId=6 view_id=3 status=0 error="client says no" ptime=7}
+ctrlSub oid=45 connection_id=43 system_description=20 typeName=Test::Item tableId=44
L9:728 Updating sid for velta/out/c, 0=>45
L8: 347x1 417x2 477 (perClient:0)x18 641x3 652x1 695( ok:0, sid:0,tr?0)x6 695( ok:0, sid:0,tr?1)x4 695( ok:1, sid:#,tr?1)x4 889x11 950x2
)");
}

// Every trace appears at its own level only, and tracing changes nothing else: each flow run with
// one level on shows exactly the lines of that level (and every change) of the run with all on.
TEST_F(TranslatorFlowTest, TracesFollowTheMaskLevelByLevel) {
    for (auto flow : {&TranslatorFlowTest::serverFlow, &TranslatorFlowTest::standaloneFlow}) {
        const std::string full = (this->*flow)();
        for (unsigned level = 0; level < 10; ++level) {
            if ((kTranscriptLevels & (1u << level)) == 0) continue;
            std::string expected;
            std::istringstream lines(full);
            for (std::string line; std::getline(lines, line);)
                if (line[0] != 'L' || line.rfind("L" + std::to_string(level) + ":", 0) == 0)
                    expected += line + "\n";
            ScopedDebugMask mask("SubscriptionTranslator", 1u << level);
            EXPECT_EQ((this->*flow)(), expected) << "level " << level;
        }
    }
}

// Which interfaces each kind of agent binds, where and with which flag, and which it waits for.
TEST_F(TranslatorFlowTest, BindingsPerKindOfAgent) {
    // "<interface> <mode> <path>[ flag]" for each bound interface, then the readiness list.
    auto bindings = [this](Kind kind, const std::string& name) {
        const Agent::SubscriptionTranslator& t = start(kind, name, "sys");
        std::string out;
        for (const char* ifName : {"extSubsObserver_", "extSubsPerClientObserver_", "subsReader",
                                   "subsModifier", "extPubObserver_", "extPubModifier", "pubObserver_",
                                   "pubModifier", "sysDescReader", "veTableObserver"}) {
            const VeTableInterface* iface = t.tableInterface(ifName);
            if (iface->attachment() != 0)
                out += std::string(ifName) + " " + std::to_string(iface->mode()) + " " +
                       iface->tablePath().substr(6) + (iface->bindFlag() ? " flag" : "") + ", ";
        }
        out += "waits for";
        for (const VeTableInterface* iface : t.requiredInterfaces()) out += " " + iface->ifName();
        return out;
    };
    EXPECT_EQ(bindings(Kind::server, "S"),
              "extSubsObserver_ 5 External/Subscription, subsReader 1 veCtrl/subscription, subsModifier 3 "
              "veCtrl/subscription, extPubModifier 3 External/Publication, pubObserver_ 5 "
              "veCtrl/publication, sysDescReader 1 metadata/SystemDescription, waits for extSubsObserver_ "
              "subsReader sysDescReader subsModifier extPubModifier pubObserver_");
    std::string perAgent =
        "extSubsObserver_ 5 External/Subscription, subsReader 1 veCtrl/subscription, subsModifier 3 "
        "veCtrl/subscription flag, extPubObserver_ 5 External/Publication, pubModifier 3 veCtrl/publication "
        "flag, sysDescReader 1 metadata/SystemDescription, veTableObserver 5 metadata/veTable, waits for "
        "extSubsObserver_ subsReader sysDescReader subsModifier pubModifier extPubObserver_ veTableObserver";
    EXPECT_EQ(bindings(Kind::standalone, "B"), perAgent);
    // A per-agent one also watches its clients' own table, second in the bindings and last in the list.
    perAgent.insert(perAgent.find("subsReader"),
                    "extSubsPerClientObserver_ 5 External/input/C/Subscription, ");
    perAgent += " extSubsPerClientObserver_";
    EXPECT_EQ(bindings(Kind::perAgent, "C"), perAgent);
    // In the server process its control rows go to a table of its own, bound without the flag.
    Host::Database::serverProcessIs(true);
    std::string inServer = perAgent;
    inServer.replace(inServer.find("/C/"), 3, "/D/");
    inServer.replace(inServer.find("veCtrl/subscription flag"), 24, "veCtrl/input/D/subscription");
    EXPECT_EQ(bindings(Kind::perAgent, "D"), inServer);
}

// A host whose registrations never become visible: everything else is the real in-memory host.
class RegistrationLosingHost : public Host::ForwardingVeltaDB {
public:
    using ForwardingVeltaDB::ForwardingVeltaDB;
    void registerTable(const std::string&, const std::string&, TableType, unsigned short, unsigned short,
                       const std::string&) override {}
};

// A server whose registered table is not visible at once, and unequal parameter lists in a query
// subscription, end the process (an agent of neither kind: examples/translator-assertion.yaml).
TEST_F(TranslatorFlowTest, BrokenContractsEndTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    fresh(false);
    writeSystem(10, "clientSys", "client");
    start(Kind::server, "server", "serverSys");
    const External::Subscription unequal = writeSubscription(
        "system_description=10;outputPath=velta/out/u;queryText=SELECT 1;paramName=[a,b];paramValue=[1]");
    run();
    db_->write(kCtrlPub, internal(unequal, ";status=1"));
    EXPECT_DEATH(db_->runUntilIdle(),
                 "SubscriptionTranslator:812: void Velta::Agent::SubscriptionTranslator::pubOnRow\\(const "
                 "Velta::BaseRow&\\): Assertion `pName.size\\(\\) == pValue.size\\(\\)' failed");
    fresh(false);  // the parent still holds what killed the child
    writeSystem(10, "clientSys", "client");
    Agent::SubscriptionTranslator losing(
        std::make_shared<RegistrationLosingHost>(db_->connect(agentOptions(Kind::server, "server2", "s"))));
    run();
    writeSubscription("system_description=10;outputPath=velta/out/nometa;queryText=SELECT 1");
    EXPECT_DEATH(db_->runUntilIdle(),
                 "SubscriptionTranslator:547: void Velta::Agent::SubscriptionTranslator::"
                 "extSubsOnRowCommon\\(const Velta::BaseRow&, bool\\): Assertion "
                 "`!vdb_->isServerAgent\\(\\)' failed");
}

}  // namespace
}  // namespace Velta::Test
