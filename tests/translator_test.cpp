// SubscriptionTranslator flows in a server and a standalone agent, each one transcript; the bindings per
// kind of agent, the trace mask level by level, contracts that end the process; churn in every kind.
#include "TestSupport.h"

#include <array>
#include <iostream>
#include <random>

namespace Velta::Test {
namespace {

class TranslatorFlowTest : public TranslatorTest {
protected:
    std::string out_;   // what a flow saw so far; each flow hands it back and leaves it empty
    std::string held_;  // what happened before a write left out of the transcript

public:
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
        db_->erase(kSysDesc, rowOf<veMetadata::SystemDescription>("oid=20"));
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
+ctrlPub subscription_id=9 system_id=10 typeId=65535 status=1
+ctrlPub subscription_id=10 system_id=99 typeId=65535 status=1
+ctrlPub subscription_id=11 system_id=11 typeId=65535 status=1
L9:394 extSubsObserver_ not ready (x4)
L9:394 pubObserver_ not ready
call registerTable path=velta/out/act typeName=Test::Item tableType=0 desiredFlags=0 flags=0 owner= agent=server
+ctrlSub oid=13 connection_id=5 system_description=10 typeName=Test::Item tableId=12 @extSubsObserver_
L9:728 Updating sid for velta/out/act, 0=>13
-ctrlSub oid=9 connection_id=4 system_description=10 @extSubsObserver_
-ctrlSub oid=11 connection_id=5 system_description=11 @extSubsObserver_
-ctrlSub oid=10 connection_id=5 system_description=99 @extSubsObserver_
-extPub subscription_id=4242 status=1 @extSubsObserver_
+extPub subscription_id=5 publication_id=777 error=no corresponding internal publication row @pubObserver_
+ctrlPub subscription_id=13 system_id=10 tableId=12 typeId=8 status=1
-ctrlPub subscription_id=9 system_id=10 typeId=65535 status=1
-ctrlPub subscription_id=11 system_id=11 typeId=65535 status=1
-ctrlPub subscription_id=10 system_id=99 typeId=65535 status=1
+extPub subscription_id=5 publication_id=13 tableId=12 typeId=8 status=1
L4:822 [serverSys:10] defineQuery (velta/out/act) 
call defineQuery text="" typeId=8 params={} standing=1 name="" agent=server
== intake
call registerTable path=velta/out/q1 typeName=Test::Item tableType=0 desiredFlags=0 flags=0 owner= agent=server
+ctrlSub oid=23 connection_id=14 system_description=10 typeName=Test::Item type_signature=sig tableId=22 features=6 ptime=42
L9:728 Updating sid for velta/out/q1, 0=>23
+extPub subscription_id=14 tableId=22 typeId=8 status=1
call registerTable path=velta/out/bad typeName=Test::Item tableType=0 desiredFlags=0 flags=0 owner= agent=server
+ctrlSub oid=25 connection_id=15 system_description=10 typeName=Test::Item tableId=24
L9:728 Updating sid for velta/out/bad, 0=>25
+extPub subscription_id=15 tableId=24 typeId=8 status=1
+extPub subscription_id=16 connection_id=16 typeId=8 error=SystemDescription no longer valid.
call registerTable path=velta/out/la1 typeName=Test::Item tableType=1 desiredFlags=64 flags=1 owner= agent=server
L4:593 [serverSys:10] subscribe r velta/out/la1
+ctrlSub oid=27 connection_id=17 system_description=10 typeName=Test::Item tableId=26
L9:728 Updating sid for velta/out/la1, 0=>27
+extPub subscription_id=17 tableId=26 typeId=8 status=1
call registerTable path=velta/out/la2 typeName=Test::Item tableType=1 desiredFlags=1 flags=64 owner= agent=server
L4:593 [serverSys:10] subscribe r velta/out/la2
+ctrlSub oid=29 connection_id=18 system_description=10 typeName=Test::Item tableId=28
L9:728 Updating sid for velta/out/la2, 0=>29
+extPub subscription_id=18 tableId=28 typeId=8 status=1
L4:593 [serverSys:10] subscribe w velta/out/owned2
+ctrlSub oid=30 connection_id=19 system_description=10 typeName=Test::Item tableId=8 writer=1
L9:728 Updating sid for velta/out/owned2, 0=>30
+extPub subscription_id=19 tableId=8 typeId=8 status=1
call registerTable path=velta/out/la3 typeName=Test::Item tableType=1 desiredFlags=64 flags=64 owner= agent=server
+ctrlSub oid=32 connection_id=20 system_description=10 typeName=Test::Item tableId=31
L9:728 Updating sid for velta/out/la3, 0=>32
+extPub subscription_id=20 tableId=31 typeId=8 status=1
call registerTable path=velta/out/m typeName=Test::Item tableType=1 desiredFlags=0 flags=0 owner= agent=server
+ctrlSub oid=34 connection_id=21 system_description=11 typeName=Test::Item tableId=33
L9:728 Updating sid for velta/out/m, 0=>34
+extPub subscription_id=21 tableId=33 typeId=8 status=1
+ctrlPub subscription_id=23 system_id=10 tableId=22 typeId=8 status=1 ptime=500
+ctrlPub subscription_id=25 system_id=10 tableId=24 typeId=8 status=1 ptime=500
+ctrlPub subscription_id=27 system_id=10 tableId=26 typeId=8 status=1 ptime=500
+ctrlPub subscription_id=29 system_id=10 tableId=28 typeId=8 status=1 ptime=500
+ctrlPub subscription_id=30 system_id=10 tableId=8 typeId=8 status=1 ptime=500
+ctrlPub subscription_id=32 system_id=10 tableId=31 typeId=8 status=1 ptime=500
+ctrlPub subscription_id=34 system_id=11 tableId=33 typeId=8 status=1 ptime=500
+extPub subscription_id=14 publication_id=23 tableId=22 typeId=8 status=1 ptime=500
L4:822 [serverSys:10] defineQuery (velta/out/q1) SELECT key FROM velta/in/items
call defineQuery text="SELECT key FROM velta/in/items" typeId=8 params={a=3,b=2,c=0} standing=1 name="" agent=server
+extPub subscription_id=15 publication_id=25 tableId=24 typeId=8 status=1 ptime=500
L4:822 [serverSys:10] defineQuery (velta/out/bad) SELECT key FROM velta/in/missing
call defineQuery text="SELECT key FROM velta/in/missing" typeId=8 params={} standing=1 name="" agent=server
+extPub subscription_id=17 publication_id=27 tableId=26 typeId=8 status=1 ptime=500
+extPub subscription_id=18 publication_id=29 tableId=28 typeId=8 status=1 ptime=500
+extPub subscription_id=19 publication_id=30 tableId=8 typeId=8 status=1 ptime=500
+extPub subscription_id=20 publication_id=32 tableId=31 typeId=8 status=1 ptime=500
L4:822 [serverSys:10] defineQuery (velta/out/la3) SELECT * FROM 
call defineQuery text="SELECT * FROM " typeId=8 params={} standing=0 name="" agent=server
L2:775   PublicationTranslator Skipping internal publication: veCtrl::subscription{oid=34 connection_id=21 system_description=11 typeName="Test::Item" type_signature="" tableId=33 features=0 writer=0 ptime=0} for internal member veMetadata::SystemDescription{oid=11 sysName="internalSys" agentName="member" properties=0}
-ctrlSub oid=25 connection_id=15 system_description=10 typeName=Test::Item tableId=24
-ctrlPub subscription_id=25 system_id=10 tableId=24 typeId=8 status=1 ptime=500
+extPub subscription_id=15 publication_id=25 tableId=24 typeId=8 error=no corresponding publication row ptime=500
velta/out/q1 - 14 22 8 23
velta/out/bad - 15 24 8 0
velta/out/s - 16 0 8 0
velta/out/la1 r 17 26 8 27
velta/out/la2 r 18 28 8 29
velta/out/owned2 w 19 8 8 30
velta/out/la3 - 20 31 8 32
velta/out/m - 21 33 8 34
== publications
+ctrlPub subscription_id=23 system_id=10 tableId=22 status=1 ptime=549
L4:822 [serverSys:10] defineQuery (velta/out/q1) SELECT key FROM velta/in/items
call defineQuery text="SELECT key FROM velta/in/items" typeId=0 params={a=3,b=2,c=0} standing=1 name="" agent=server
+ctrlPub subscription_id=23 system_id=10 tableId=22 status=1 ptime=550
+extPub subscription_id=14 publication_id=23 tableId=22 status=1 ptime=550
L4:822 [serverSys:10] defineQuery (velta/out/q1) SELECT key FROM velta/in/items
call defineQuery text="SELECT key FROM velta/in/items" typeId=0 params={a=3,b=2,c=0} standing=1 name="" agent=server
+ctrlPub subscription_id=23 system_id=10 tableId=22 error=broken ptime=549
+extPub subscription_id=14 publication_id=23 tableId=22 error=broken ptime=549
-ctrlPub subscription_id=23 system_id=10 tableId=22 error=broken ptime=549
-ctrlPub subscription_id=29 system_id=10 tableId=28 typeId=8 status=1 ptime=500
+extPub subscription_id=18 publication_id=29 tableId=28 typeId=8 error=no corresponding publication row ptime=500
+ctrlPub subscription_id=29 tableId=28 status=1 ptime=600
+ctrlPub subscription_id=5555 status=1
+extPub subscription_id=18 publication_id=29 tableId=28 status=1 ptime=600
+extPub subscription_id=18 status=1
L4:593 [serverSys:10] subscribe r velta/out/la2
+ctrlSub oid=29 connection_id=18 system_description=10 typeName=Test::Item tableId=28
+extPub subscription_id=18 publication_id=29 tableId=28 status=1 ptime=600
== withdrawals
L4:662  deleting subscription [14] velta/out/q1
-extPub subscription_id=14 publication_id=23 tableId=22 error=broken ptime=549
L9:672   Lookup sid: 23
-ctrlSub oid=23 connection_id=14 system_description=10 typeName=Test::Item type_signature=sig tableId=22 features=6 ptime=42
L4:683 [serverSys] removeQuery velta/out/q1
call removeQuery name="velta/out/q1" agent=server
L4:662  deleting subscription [15] velta/out/bad
-extPub subscription_id=15 publication_id=25 tableId=24 typeId=8 error=no corresponding publication row ptime=500
L9:672   Lookup sid: 0
L9:679   Not found
L4:683 [serverSys] removeQuery velta/out/bad
call removeQuery name="velta/out/bad" agent=server
L9:728 Updating sid for velta/out/reg, 0=>5
L9:728 Updating sid for velta/out/reg, 5=>9
- 31 0 8 9 ids 0 31
-ctrlSub oid=32 connection_id=20 system_description=10 typeName=Test::Item tableId=31
- 20 31 8 0 old sid maps 1
== registry
-extPub subscription_id=19 publication_id=30 tableId=8 typeId=8 status=1 ptime=500
-ctrlSub oid=30 connection_id=19 system_description=10 typeName=Test::Item tableId=8 writer=1
+extPub subscription_id=19 connection_id=19 tableId=8 typeId=8 error=lost
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
+ctrlSub oid=16 connection_id=33 system_description=20 typeName=Test::Item tableId=14 writer=1
L9:728 Updating sid for velta/out/late, 0=>16
L4:593 [sysA:20] subscribe r velta/out/e
+ctrlSub oid=17 connection_id=10 system_description=20 typeName=Test::Item tableId=7
L9:728 Updating sid for velta/out/e, 0=>17
L9:520 Unrelated SystemDescription sysA::B [ours: sysA::A]
L9:520 Unrelated SystemDescription other::A [ours: sysA::A]
parked 0
== client publications
+ctrlPub subscription_id=17 connection_id=4 system_id=20 tableId=5 typeId=6 view_id=3 error=client says no ptime=7
L4:903 No internal entry for Subscription External::Subscription{oid=11 typeName="Test::Item" type_signature="" queryText="" outputPath="velta/out/u1" system_description=21 flags=0 desiredFlags=0 standing=0 features=0 paramName=[] paramValue=[] ptime=0}
L4:909 No corresponding ctrl subscription for External::Publication{subscription_id=13 publication_id=1 connection_id=4 tableId=5 typeId=6 view_id=3 status=0 error="client says no" ptime=7}
L2:916 No matching system description for subscription: External::Subscription{oid=10 typeName="Test::Item" type_signature="" queryText="SELECT * FROM velta/out/e" outputPath="velta/out/e" system_description=20 flags=0 desiredFlags=0 standing=1 features=0 paramName=[] paramValue=[] ptime=0}
L2:923   PublicationTranslator Skipping unrelated subscription: External::Subscription{oid=10 typeName="Test::Item" type_signature="" queryText="SELECT * FROM velta/out/e" outputPath="velta/out/e" system_description=20 flags=0 desiredFlags=0 standing=1 features=0 paramName=[] paramValue=[] ptime=0} (for system: veMetadata::SystemDescription{oid=20 sysName="sysA" agentName="B" properties=1})
L2:923   PublicationTranslator Skipping unrelated subscription: External::Subscription{oid=10 typeName="Test::Item" type_signature="" queryText="SELECT * FROM velta/out/e" outputPath="velta/out/e" system_description=20 flags=0 desiredFlags=0 standing=1 features=0 paramName=[] paramValue=[] ptime=0} (for system: veMetadata::SystemDescription{oid=20 sysName="other" agentName="A" properties=1})
== client publication deleted
+ctrlPub status=1
-extPub subscription_id=10 publication_id=1 connection_id=4 tableId=5 typeId=6 view_id=3 error=client says no ptime=7 (x2)
+ctrlPub subscription_id=17 connection_id=4 system_id=20 tableId=5 typeId=6 view_id=3 error=client says no ptime=7
L9:961  deleting internal publication [0]  for external subscription: External::Subscription{oid=18 typeName="Test::Item" type_signature="" queryText="" outputPath="" system_description=0 flags=0 desiredFlags=0 standing=0 features=0 paramName=[] paramValue=[] ptime=0}
-ctrlPub status=1
L4:662  deleting subscription [10] velta/out/e
L9:672   Lookup sid: 17
-ctrlSub oid=17 connection_id=10 system_description=20 typeName=Test::Item tableId=7
call registerTable path=velta/out/c typeName=Test::Item tableType=1 desiredFlags=0 flags=0 owner= agent=A
L4:556 Table row not ready for velta/out/c
+ctrlPub subscription_id=8888 status=1
after clean: required 0, entries 0, parked 1
== withdrawal, clean and a ready pass
call registerTable path=velta/out/c typeName=Test::Item tableType=1 desiredFlags=0 flags=0 owner= agent=A
L4:556 Table row not ready for velta/out/c
L4:593 [sysA:20] subscribe w velta/out/late
+ctrlSub oid=16 connection_id=33 system_description=20 typeName=Test::Item tableId=14 writer=1 @extSubsObserver_
L9:728 Updating sid for velta/out/late, 0=>16
L9:520 Unrelated SystemDescription sysA::B [ours: sysA::A]
L9:520 Unrelated SystemDescription other::A [ours: sysA::A]
L4:897 No corresponding external Subscription for External::Publication{subscription_id=10 publication_id=1 connection_id=4 tableId=5 typeId=6 view_id=3 status=0 error="client says no" ptime=7}
L4:903 No internal entry for Subscription External::Subscription{oid=11 typeName="Test::Item" type_signature="" queryText="" outputPath="velta/out/u1" system_description=21 flags=0 desiredFlags=0 standing=0 features=0 paramName=[] paramValue=[] ptime=0}
L4:909 No corresponding ctrl subscription for External::Publication{subscription_id=13 publication_id=1 connection_id=4 tableId=5 typeId=6 view_id=3 status=0 error="client says no" ptime=7}
-ctrlPub subscription_id=17 connection_id=4 system_id=20 tableId=5 typeId=6 view_id=3 error=client says no ptime=7 @extPubObserver_
-ctrlPub subscription_id=8888 status=1 @extPubObserver_
L4:897 No corresponding external Subscription for External::Publication{subscription_id=10 publication_id=1 connection_id=4 tableId=5 typeId=6 view_id=3 status=0 error="client says no" ptime=7}
+ctrlSub oid=21 connection_id=19 system_description=20 typeName=Test::Item tableId=20
L9:728 Updating sid for velta/out/c, 0=>21
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

// Translator churn: random streams of valid and invalid subscriptions, deletions, system
// descriptions that come and go, output tables created and dropped, and publications written and
// deleted on both sides, in all three kinds of agent. Nothing may crash or fail to settle, and:
//
// After every settle:
//   W. No registry entry survives its withdrawal: a key whose row was deleted from the shared table
//      (and is not there now) has no entry. Keys ever written through the per-client table are left
//      out (rows deleted there have no delete callback). Relies on every query being completed
//      within the settle that defined it. No control publication stays known once it is deleted.
//
// After two forced ready passes (onTableReady(), each followed by a settle; in a non-server agent
// one pass may register a table whose metadata row arrives only after the pass's sweep), W again and:
//   C1. Every valid live subscription of the shared table has exactly one control row for the
//       current oid of its output table, and it is exactly the row the subscription asks for
//       (valid() below says which are valid). Control rows for an older table at the same path may
//       remain: the sweep matches by oid only.
//   C2. No control row outlives its subscription or its system description (bit 0 set).
//       Per-client subscriptions, handled with oid 0, have none after a pass.
//   P.  Server agent: every live subscription has exactly one client publication row, and every
//       client publication row belongs to a live subscription.
//   R.  Each valid subscription of C1 has a registry entry with the table's oid and its own oid and,
//       where the control row is read back from the table it was written to, the control row's oid
//       as sid, which maps back through externalSubscriptionId. (A per-agent translator in the
//       server process reads back from the shared table and records sid 0.)
//
// The streams keep to the contracts: host-side publications name a control row and its table, or
// none (one naming another table's id would complete that other subscription, which voids R), and
// parameter lists have equal lengths (unequal ones stop the process).
//
// VELTA_CHURN_SEED=S replays one history; VELTA_CHURN_HISTORIES=N sets the count per agent kind.

constexpr const char* kSystem = "sysA";

constexpr std::array<const char*, 4> kOutputs = {"velta/out/a", "velta/out/b", "velta/out/c", ""};
constexpr std::array<const char*, 3> kTypeNames = {"veMetadata::veTable", "External::Publication",
                                                   "No::Such"};
constexpr int kKnownTypes = 2;

enum class TextClass { reader, writer, query, failingQuery, uncertain };
struct QueryText {
    const char* text;
    TextClass cls;
};
// Direct-access texts also read a table that always exists, so that they succeed when a registry
// entry created by an earlier text of the same key makes the translator define them as queries.
constexpr std::array<QueryText, 6> kTexts = {{
    {"SELECT * FROM velta/metadata/veTable", TextClass::reader},
    {"SELECT * INTO velta/out/x FROM velta/metadata/veTable", TextClass::writer},
    {"SELECT tablePath FROM velta/metadata/veTable", TextClass::query},
    {"", TextClass::query},
    {"SELECT x FROM velta/nowhere", TextClass::failingQuery},
    {"SELECT * FROM ", TextClass::uncertain},  // exactly the prefix: a query naming no table
}};
constexpr std::array<std::uint16_t, 3> kDesiredFlags = {0, 0x40, 0x41};
constexpr std::array<std::uint16_t, 2> kFlags = {0, 0x40};

struct AgentKind {
    const char* label;
    bool serverAgent;
    bool standalone;
    bool serverProcess;
    const char* testName;    // of its instance of the churn test
    std::uint64_t seedBase;  // of its histories
};

std::string agentName(const AgentKind& kind) { return kind.serverAgent ? "server" : "edge"; }
std::string perClientPath(const AgentKind& kind) {
    return "velta/External/input/" + agentName(kind) + "/Subscription";
}
// The table the translator writes control subscriptions into: the shared one, unless a per-agent
// translator runs in the server agent or in the server process.
std::string controlPath(const AgentKind& kind) {
    if (kind.standalone || (!kind.serverAgent && !kind.serverProcess)) return kCtrlSubs;
    return "velta/veCtrl/input/" + agentName(kind) + "/subscription";
}

// clang-format off
enum class Op : std::uint8_t {
    writeSub, deleteSub, writeClientSub, deleteClientSub, writeSysDesc, deleteSysDesc, writeExtPub,
    deleteExtPub, writeCtrlPub, deleteCtrlPub, deleteCtrlSub, createTable, dropTable, clock, clean, rebuild,
    settle
};
// clang-format on

struct Step {
    Op op = Op::settle;
    std::uint8_t sd = 1;      // system description oid (1-4 may exist, 5 never)
    std::uint8_t output = 0;  // kOutputs
    std::uint8_t type = 0;    // kTypeNames
    std::uint8_t text = 0;    // kTexts
    std::uint8_t desired = 0;
    std::uint8_t flags = 0;
    std::uint8_t params = 0;  // number of parameters (equal lists)
    bool standing = false;
    bool ours = true;  // system description: our system and agent
    bool ourAgent = true;
    std::uint8_t props = 1;
    std::uint32_t pick = 0;  // which existing row a publication or deletion step targets
    bool status = true;
};

std::string describe(const Step& s) {
    // The operations' names, in the order of Op.
    std::istringstream names(
        "write subscription|delete subscription|write per-client subscription|delete per-client subscription|"
        "write system description|delete system description|client writes publication|client deletes "
        "publication|database writes control publication|database deletes control publication|database "
        "deletes control subscription|create table|drop table|clock advance|clean()|destroy and rebuild the "
        "translator|settle and check");
    std::string name;
    for (int i = 0; i <= static_cast<int>(s.op); ++i) std::getline(names, name, '|');
    std::ostringstream os;
    os << name << ": sd=" << int(s.sd) << " outputPath=\"" << kOutputs[s.output]
       << "\" type=" << kTypeNames[s.type] << " text=\"" << kTexts[s.text].text
       << "\" desiredFlags=" << kDesiredFlags[s.desired] << " flags=" << kFlags[s.flags]
       << " standing=" << s.standing << " params=" << int(s.params) << " ours=" << s.ours
       << " ourAgent=" << s.ourAgent << " properties=" << int(s.props) << " pick=" << s.pick
       << " status=" << s.status;
    return os.str();
}

struct Stats {
    std::size_t liveValid = 0;  // valid live subscriptions checked (C1), summed over checks
    std::size_t controlRows = 0;
};

class ChurnRun {
public:
    explicit ChurnRun(const AgentKind& kind) : kind_(kind) {
        Host::Database::serverProcessIs(kind.serverProcess);
        db_ = Host::Database::create({.autoPublish = true});
        handle_ = db_->connect({.agentName = agentName(kind),
                                .systemName = kSystem,
                                .serverAgent = kind.serverAgent,
                                .external = !kind.serverAgent,
                                .standalone = kind.standalone});
        translator_ = std::make_unique<Agent::SubscriptionTranslator>(handle_);
    }

    // Applies one step; returns the violated invariants after a settle, if any.
    std::optional<std::string> apply(const Step& s, Stats* stats) {
        switch (s.op) {
            case Op::writeSub:
                db_->write(kExtSubs, subscriptionRow(s));
                break;
            case Op::deleteSub:
                if (db_->erase(kExtSubs, keyRow(keyOf(s)))) withdrawn_.insert(keyOf(s));
                break;
            case Op::writeClientSub:  // drawn only where there is a per-client table
                perClientKeys_.insert(keyOf(s));
                db_->write(perClientPath(kind_), subscriptionRow(s));
                break;
            case Op::deleteClientSub:
                db_->erase(perClientPath(kind_), keyRow(keyOf(s)));
                break;
            case Op::writeSysDesc:
                db_->write(kSysDesc,
                           rowOf<veMetadata::SystemDescription>(
                               "oid=" + std::to_string(s.sd) + ";sysName=" + (s.ours ? kSystem : "sysB") +
                               ";agentName=" + (s.ourAgent ? agentName(kind_) : "other") +
                               ";properties=" + std::to_string(s.props)));
                break;
            case Op::deleteSysDesc:
                db_->erase(kSysDesc, rowOf<veMetadata::SystemDescription>("oid=" + std::to_string(s.sd)));
                break;
            case Op::writeExtPub: {
                // For a live subscription, or for one that never existed.
                const std::vector<BaseRow> subs = db_->rows(kExtSubs);
                const std::uint32_t id = !subs.empty() && s.pick % 4 != 0
                                             ? External::Subscription(subs[s.pick % subs.size()]).oid()
                                             : 90000 + s.pick % 100;
                db_->write(kExtPub, rowOf<External::Publication>(
                                        "subscription_id=" + std::to_string(id) +
                                        ";publication_id=" + std::to_string(s.pick % 3 ? 0u : id) +
                                        ";ptime=" + std::to_string(db_->clock()) +
                                        (s.status ? ";status=1" : ";error=client says no")));
                break;
            }
            case Op::writeCtrlPub: {
                // For a control row, naming its table and system, or for ids that name no row.
                const std::vector<BaseRow> ctrl = db_->rows(controlPath(kind_));
                const veCtrl::subscription c =
                    !ctrl.empty() && s.pick % 4 != 0
                        ? veCtrl::subscription(ctrl[s.pick % ctrl.size()])
                        : makeRecord<veCtrl::subscription>(
                              {{"oid", 100000 + s.pick % 100}, {"tableId", s.pick % 50}});
                db_->write(kCtrlPub,
                           rowOf<veCtrl::publication>("subscription_id=" + std::to_string(c.oid()) +
                                                      ";tableId=" + std::to_string(c.tableId()) +
                                                      ";system_id=" + std::to_string(c.system_description()) +
                                                      ";ptime=" + std::to_string(db_->clock()) +
                                                      (s.status ? ";status=1" : ";error=database says no")));
                break;
            }
            case Op::deleteExtPub:
            case Op::deleteCtrlPub:
            case Op::deleteCtrlSub: {  // one of the rows there, if any
                const std::string path = s.op == Op::deleteExtPub    ? kExtPub
                                         : s.op == Op::deleteCtrlPub ? kCtrlPub
                                                                     : controlPath(kind_);
                const std::vector<BaseRow> rows = db_->rows(path);
                if (!rows.empty()) db_->erase(path, rows[s.pick % rows.size()]);
                break;
            }
            case Op::createTable:
                if (kOutputs[s.output][0] == '\0') return std::nullopt;
                db_->createTable(kOutputs[s.output], "veMetadata::veTable",
                                 std::array{"", "edge", "other", "server"}[s.pick % 4]);  // the owner
                break;
            case Op::dropTable:
                if (kOutputs[s.output][0] == '\0') return std::nullopt;
                db_->dropTable(kOutputs[s.output]);
                break;
            case Op::clock:
                db_->clockAdvance(s.pick % 120);
                break;
            case Op::clean:
                translator_->clean();
                break;
            case Op::rebuild:
                translator_.reset();
                translator_ = std::make_unique<Agent::SubscriptionTranslator>(handle_);
                break;
            case Op::settle:
                return settleAndCheck(stats);
        }
        return std::nullopt;
    }

private:
    using Key = std::pair<std::uint32_t, std::string>;  // system_description, outputPath
    static Key keyOf(const Step& s) { return {s.sd, kOutputs[s.output]}; }
    static External::Subscription keyRow(const Key& key) {
        return makeRecord<External::Subscription>(
            {{"system_description", key.first}, {"outputPath", key.second}});
    }

    External::Subscription subscriptionRow(const Step& s) {
        std::string names, values;  // a repeated name now and then
        for (int i = 0; i < s.params; ++i) {
            names += (i ? "," : "") + (i == 1 && s.standing ? "p0" : "p" + std::to_string(i));
            values += (i ? "," : "") + std::to_string(s.pick % 7 + static_cast<std::uint32_t>(i));
        }
        return rowOf<External::Subscription>(
            "system_description=" + std::to_string(s.sd) + ";outputPath=" + kOutputs[s.output] +
            ";typeName=" + kTypeNames[s.type] + ";queryText=" + kTexts[s.text].text +
            ";desiredFlags=" + std::to_string(kDesiredFlags[s.desired]) +
            ";flags=" + std::to_string(kFlags[s.flags]) + ";standing=" + std::to_string(s.standing) +
            ";type_signature=" + (s.pick % 3 ? "" : "sig" + std::to_string(s.pick % 4)) +
            ";features=" + std::to_string(s.pick % 5) + ";paramName=[" + names + "];paramValue=[" + values +
            "];ptime=" + std::to_string(db_->clock()));
    }

    // A settle, W, two forced ready passes, W and the rest.
    std::optional<std::string> settleAndCheck(Stats* stats) {
        std::ostringstream problems;
        for (int pass = 0; pass < 3; ++pass) {
            if (pass > 0) translator_->onTableReady();
            db_->runUntilIdle();
            if (!db_->settled())
                return pass ? "the host did not settle after a forced ready pass" : "the host did not settle";
            if (pass != 1) checkWithdrawals(problems);
        }
        checkAfterPasses(problems, stats);
        return problems.str().empty() ? std::nullopt : std::optional(problems.str());
    }

    // W.
    void checkWithdrawals(std::ostream& problems) const {
        for (const Key& key : withdrawn_) {
            const External::Subscription k = keyRow(key);
            if (!perClientKeys_.count(key) && db_->read(kExtSubs, k).empty() && translator_->subscription(k))
                problems << "  W: registry entry survives the withdrawal of sd=" << key.first
                         << " outputPath=\"" << key.second << "\"\n";
        }
        for (const veCtrl::publication& pub : translator_->publications())
            if (db_->read(kCtrlPub, pub).empty())
                problems << "  W: deleted control publication still known: " << pub.toString() << "\n";
    }

    // The system description with that oid, or an empty one.
    veMetadata::SystemDescription sysDesc(std::uint32_t oid) const {
        return veMetadata::SystemDescription(
            db_->read(kSysDesc, rowOf<veMetadata::SystemDescription>("oid=" + std::to_string(oid))));
    }

    static TextClass classify(const std::string& text) {
        for (const QueryText& t : kTexts)
            if (text == t.text) return t.cls;
        return TextClass::uncertain;
    }

    // Whether the translator must serve `sub` (C1).
    bool valid(const External::Subscription& sub) const {
        if (sub.outputPath().empty()) return false;
        if (handle_->tableTypeId(sub.typeName(), false) == VeltaDB::kUnknownTypeId) return false;
        const veMetadata::SystemDescription d = sysDesc(sub.system_description());
        if (d.empty() || (d.properties() & 1) == 0) return false;  // gone, or an internal member system
        if (!kind_.serverAgent && (d.sysName() != kSystem || d.agentName() != agentName(kind_)))
            return false;  // unrelated
        const TextClass cls = classify(sub.queryText());
        const veMetadata::veTable table = handle_->tableInfo(sub.outputPath());
        const bool oneShotRead =
            cls == TextClass::reader && !sub.standing() && (sub.desiredFlags() & 0x40 & sub.flags()) != 0;
        const bool foreignWrite = cls == TextClass::writer && !table.empty() && !table.owner().empty() &&
                                  table.owner() != d.agentName();
        if (sub.desiredFlags() != 0 && (oneShotRead || foreignWrite)) return false;  // refused
        return !kind_.serverAgent || (cls != TextClass::failingQuery && cls != TextClass::uncertain);
    }

    // C1, C2, P, R.
    void checkAfterPasses(std::ostream& problems, Stats* stats) const {
        const std::string ctrlPath = controlPath(kind_);
        std::vector<veCtrl::subscription> controls;
        for (const BaseRow& row : db_->rows(ctrlPath)) controls.emplace_back(row);
        if (stats) stats->controlRows += controls.size();
        std::map<std::uint32_t, External::Subscription> liveByOid;
        for (const BaseRow& row : db_->rows(kExtSubs))
            liveByOid.emplace(External::Subscription(row).oid(), row);
        const bool readBack = ctrlPath == kCtrlSubs;

        for (const auto& [oid, sub] : liveByOid) {
            const std::string name = "subscription oid=" + std::to_string(oid) +
                                     " sd=" + std::to_string(sub.system_description()) + " outputPath=\"" +
                                     sub.outputPath() + "\" text=\"" + sub.queryText() + "\"";
            if (kind_.serverAgent &&
                db_->read(kExtPub, makeRecord<External::Publication>({{"subscription_id", oid}})).empty())
                problems << "  P: no client publication for " << name << "\n";
            if (!valid(sub)) continue;
            if (stats) ++stats->liveValid;
            const veMetadata::veTable table = handle_->tableInfo(sub.outputPath());
            if (table.empty()) {
                problems << "  C1: no output table for valid " << name << "\n";
                continue;
            }
            std::vector<const veCtrl::subscription*> mine;  // control rows for the current table
            for (const veCtrl::subscription& c : controls)
                if (c.connection_id() == oid && c.system_description() == sub.system_description() &&
                    c.tableId() == table.oid())
                    mine.push_back(&c);
            if (mine.size() != 1) {
                problems << "  C1: " << mine.size() << " control rows for valid " << name << "\n";
                continue;
            }
            const veCtrl::subscription expected =
                makeRecord<veCtrl::subscription>({{"oid", mine.front()->oid()},
                                                  {"connection_id", oid},
                                                  {"system_description", sub.system_description()},
                                                  {"typeName", sub.typeName()},
                                                  {"type_signature", sub.type_signature()},
                                                  {"tableId", table.oid()},
                                                  {"features", sub.features()},
                                                  {"writer", classify(sub.queryText()) == TextClass::writer},
                                                  {"ptime", sub.ptime()}});
            if (!mine.front()->equals(expected))
                problems << "  C1: control row " << mine.front()->toString() << ", expected "
                         << expected.toString() << "\n";
            const auto entry = translator_->subscription(sub);
            if (!entry) {
                problems << "  R: no registry entry for valid " << name << "\n";
                continue;
            }
            const auto brief = [](auto table, auto external, auto sid, auto back) {
                return "tableOid " + std::to_string(table) + " externalOid " + std::to_string(external) +
                       " sid " + std::to_string(sid) + " mapping back to " + std::to_string(back);
            };
            const std::uint64_t back = translator_->externalSubscriptionId(entry->sid);
            const std::string found = brief(entry->tableOid, entry->externalOid, entry->sid, back);
            const std::string wanted =
                brief(table.oid(), oid, readBack ? mine.front()->oid() : entry->sid, readBack ? oid : back);
            if (found != wanted)
                problems << "  R: entry " << found << ", expected " << wanted << " for " << name << "\n";
        }

        for (const veCtrl::subscription& c : controls) {  // C2
            auto live = liveByOid.find(c.connection_id());
            const veMetadata::SystemDescription d = sysDesc(c.system_description());
            if (live == liveByOid.end() || live->second.system_description() != c.system_description())
                problems << "  C2: control row oid=" << c.oid() << " connection_id=" << c.connection_id()
                         << " outlives its subscription\n";
            else if (d.empty() || (d.properties() & 1) == 0)
                problems << "  C2: control row oid=" << c.oid()
                         << " kept for a system description that is gone or internal\n";
        }

        if (kind_.serverAgent)  // P
            for (const BaseRow& row : db_->rows(kExtPub))
                if (const External::Publication pub(row); !liveByOid.count(pub.subscription_id()))
                    problems << "  P: client publication for subscription_id=" << pub.subscription_id()
                             << " outlives its subscription\n";
    }

    AgentKind kind_;
    std::shared_ptr<Host::Database> db_;
    VeltaDB::p_t handle_;
    std::unique_ptr<Agent::SubscriptionTranslator> translator_;
    std::set<Key> withdrawn_;
    std::set<Key> perClientKeys_;
};

Step drawStep(std::mt19937_64& rng, const AgentKind& kind) {
    auto pick = [&rng](int n) { return static_cast<int>(rng() % static_cast<std::uint64_t>(n)); };
    Step s;
    s.sd = static_cast<std::uint8_t>(1 + (pick(10) < 8 ? pick(2) : pick(5)));
    s.output = static_cast<std::uint8_t>(pick(10) < 9 ? pick(3) : 3);
    s.type = static_cast<std::uint8_t>(pick(10) < 9 ? pick(kKnownTypes) : 2);
    s.text = static_cast<std::uint8_t>(pick(static_cast<int>(kTexts.size())));
    s.desired = static_cast<std::uint8_t>(pick(3));
    s.flags = static_cast<std::uint8_t>(pick(2));
    s.params = static_cast<std::uint8_t>(pick(3));
    s.standing = pick(3) != 0;
    s.ours = pick(5) != 0;
    s.ourAgent = pick(5) != 0;
    s.props = static_cast<std::uint8_t>(pick(6) == 0 ? 0 : (pick(2) ? 1 : 3));
    s.pick = static_cast<std::uint32_t>(rng() % 1000);
    s.status = pick(4) != 0;
    // Upper bounds of each operation's share of the rolls 16 to 99, in the order of Op (rolls below
    // 16 settle); per-client steps fall back to shared ones where there is no per-client table.
    static constexpr std::array<int, 16> kBelow = {40, 48, 54, 57, 65, 69, 74, 77,
                                                   82, 85, 87, 91, 94, 97, 98, 100};
    if (const int roll = pick(100); roll >= 16)
        s.op = static_cast<Op>(std::upper_bound(kBelow.begin(), kBelow.end(), roll) - kBelow.begin());
    if (kind.serverAgent || kind.standalone)
        s.op = s.op == Op::writeClientSub ? Op::writeSub : s.op == Op::deleteClientSub ? Op::deleteSub : s.op;
    return s;
}

std::vector<Step> drawHistory(std::uint64_t seed, const AgentKind& kind, std::size_t length) {
    std::mt19937_64 rng(seed);
    std::vector<Step> steps;
    if (rng() % 4 != 0) steps.push_back({.op = Op::writeSysDesc});  // mostly our own system is in place
    while (steps.size() + 1 < length) steps.push_back(drawStep(rng, kind));
    steps.push_back(Step{});  // a final settle and check
    return steps;
}

// What goes wrong in `steps`, if anything, and at which step's index.
std::optional<std::string> replay(const std::vector<Step>& steps, const AgentKind& kind,
                                  Stats* stats = nullptr, std::size_t* at = nullptr) {
    ChurnRun run(kind);
    for (std::size_t i = 0; i < steps.size(); ++i)
        if (auto bad = run.apply(steps[i], stats)) {
            if (at) *at = i;
            return bad;
        }
    return std::nullopt;
}

constexpr std::size_t kHistoryLength = 60;

void PrintTo(const AgentKind& kind, std::ostream* os) { *os << kind.label; }

class TranslatorChurn : public ::testing::TestWithParam<AgentKind> {};

TEST_P(TranslatorChurn, Histories) {
    const AgentKind& kind = GetParam();
    Stats stats;
    const auto history = [&](std::uint64_t seed) -> std::optional<FailedHistory<Step>> {
        std::vector<Step> steps = drawHistory(seed, kind, kHistoryLength);
        std::size_t at = 0;
        const std::optional<std::string> failure = replay(steps, kind, &stats, &at);
        if (!failure) return std::nullopt;
        std::ostringstream os;
        os << kind.label << " agent, history seed " << seed << ": after step " << at + 1 << " ("
           << describe(steps[at]) << "):\n"
           << *failure;
        return FailedHistory<Step>{std::move(steps), os.str()};
    };
    const std::size_t histories = runSeededHistories<Step>(
        "VELTA_CHURN_SEED", "VELTA_CHURN_HISTORIES", 1500, 1,
        [&](std::size_t i) { return kind.seedBase + 7919ULL * i; }, history,
        [&](const std::vector<Step>& steps) { return replay(steps, kind); }, describe);
    std::cout << "translator churn (" << kind.label << "): " << histories << " histories, " << stats.liveValid
              << " valid live subscriptions and " << stats.controlRows << " control rows checked\n";
    // The streams must reach the interesting states, or the invariants check nothing (not asked of
    // a single replayed history).
    if (histories >= 50) {
        EXPECT_GT(stats.liveValid, histories);
        EXPECT_GT(stats.controlRows, histories);
    }
}

INSTANTIATE_TEST_SUITE_P(
    , TranslatorChurn,
    ::testing::Values(AgentKind{"server", true, true, true, "ServerAgent", 11},
                      AgentKind{"standalone non-server", false, true, false, "StandaloneNonServerAgent", 23},
                      AgentKind{"per-agent non-server", false, false, false, "PerAgentNonServerAgent", 37},
                      AgentKind{"per-agent non-server (server process)", false, false, true,
                                "PerAgentNonServerAgentInTheServerProcess", 41}),
    [](const ::testing::TestParamInfo<AgentKind>& info) { return info.param.testName; });

}  // namespace
}  // namespace Velta::Test
