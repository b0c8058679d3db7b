// Debug channels, trace capture and the assertion report of the in-memory host.
#include "TestSupport.h"

#include <Kesto/DebugSupport.h>
#include <Kesto/Platform.h>
#include <Velta/Scheduler>

#include <cstdlib>
#include <ostream>

namespace Velta::Test {
namespace {

// A value that counts how often it is formatted.
struct Counted {
    static inline int formatted = 0;
};
std::ostream& operator<<(std::ostream& os, const Counted&) {
    ++Counted::formatted;
    return os << "counted";
}

TEST(HostDebug, DisabledLevelBuildsNoText) {
    Kesto::DebugSupport debug(Kesto::Platform::getDebugHandler("DebugTest::Quiet"), false);
    Host::TraceCapture capture;
    Counted::formatted = 0;
    ASSERT_EQ(debug.handler()->mask(), 0u);  // every channel starts silent
    KESTO_TRACE(debug, 9, "DebugTest", 10, "quiet", "value " << Counted{});
    EXPECT_EQ(Counted::formatted, 0);
    EXPECT_TRUE(capture.records().empty());

    ScopedDebugMask on("DebugTest::Quiet", 0x200);
    KESTO_TRACE(debug, 8, "DebugTest", 11, "quiet", "other level " << Counted{});
    EXPECT_EQ(Counted::formatted, 0);
    KESTO_TRACE(debug, 9, "DebugTest", 12, "quiet", "value " << Counted{});
    EXPECT_EQ(Counted::formatted, 1);
    ASSERT_EQ(capture.records().size(), 1u);
    const Host::TraceRecord& r = capture.records()[0];
    EXPECT_EQ(Host::toString(r), "DebugTest::Quiet[9] DebugTest:12 quiet: value counted");
    EXPECT_TRUE(hasTrace(capture, "DebugTest::Quiet", 9, "value counted"));

    // A support without a handler is simply off.
    Kesto::DebugSupport none;
    KESTO_TRACE(none, 0, "DebugTest", 13, "quiet", Counted{});
    EXPECT_EQ(Counted::formatted, 1);
}

// A handler that reports its own destruction.
class TrackedHandler : public Kesto::Platform::DebugHandler {
public:
    explicit TrackedHandler(bool& destroyed) : DebugHandler("DebugTest::Tracked"), destroyed_(destroyed) {}
    ~TrackedHandler() override { destroyed_ = true; }

private:
    bool& destroyed_;
};

TEST(HostDebug, ChannelHandlerIsSharedAndNeverDeletedByItsHolders) {
    Kesto::Platform::DebugHandler* h = Kesto::Platform::getDebugHandler("DebugTest::Shared");
    EXPECT_EQ(Kesto::Platform::getDebugHandler("DebugTest::Shared"), h);
    EXPECT_NE(Kesto::Platform::getDebugHandler("DebugTest::Other"), h);
    {
        Kesto::DebugSupport holder(h, false);
        EXPECT_FALSE(holder.ownsHandler());
    }
    // Still alive and usable after its holder is gone.
    ScopedDebugMask on("DebugTest::Shared", 1);
    Host::TraceCapture capture;
    Kesto::DebugSupport again(Kesto::Platform::getDebugHandler("DebugTest::Shared"), false);
    KESTO_TRACE(again, 0, "f", 1, "fn", "alive");
    EXPECT_EQ(capture.messages("DebugTest::Shared"), std::vector<std::string>{"alive"});

    // Only an owning holder deletes, and only its own handler.
    bool notOwnedDestroyed = false;
    auto* notOwned = new TrackedHandler(notOwnedDestroyed);
    { Kesto::DebugSupport holder(notOwned, false); }
    EXPECT_FALSE(notOwnedDestroyed);
    { Kesto::DebugSupport owner(notOwned, true); }
    EXPECT_TRUE(notOwnedDestroyed);
}

TEST(HostDebug, SchedulableTracesClientReadyAtLevelEight) {
    ScopedDebugMask on("Schedulable", 0x100);
    Host::TraceCapture capture;
    VeTableInterface iface("watcher", "veMetadata::veTable", kObserverMode, {}, {}, {}, {});
    iface.clientReadyIs(true);
    iface.clientReadyIs(true);  // traced again even when nothing changes
    ASSERT_EQ(capture.records().size(), 2u);
    const Host::TraceRecord& r = capture.records()[0];
    EXPECT_EQ(r.channel, "Schedulable");
    EXPECT_EQ(r.level, 8u);
    EXPECT_EQ(r.file, "src-includes/api/Velta/Scheduler");
    EXPECT_EQ(r.line, 103u);
    EXPECT_EQ(r.function, "clientReadyIs");
    EXPECT_EQ(r.message, "virtual void Velta::Schedulable::clientReadyIs(bool) watcher ready: 1");
    EXPECT_TRUE(iface.clientReady());
}

TEST(HostDebug, CapturesNestAndStandardErrorIsTheDefaultSink) {
    ScopedDebugMask on("DebugTest::Sink", 0x7);
    Kesto::DebugSupport debug(Kesto::Platform::getDebugHandler("DebugTest::Sink"), false);
    {
        Host::TraceCapture outer;
        {
            Host::TraceCapture inner;
            KESTO_TRACE(debug, 1, "F", 5, "fn", "to inner");
            EXPECT_EQ(inner.messages(), std::vector<std::string>{"to inner"});
        }
        KESTO_TRACE(debug, 2, "F", 6, "fn", "to outer");
        EXPECT_EQ(outer.messages(), std::vector<std::string>{"to outer"});
        outer.clear();
        EXPECT_TRUE(outer.records().empty());
    }
    testing::internal::CaptureStderr();
    KESTO_TRACE(debug, 2, "Some/File", 77, "someFunction", "on stderr " << 5);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "DebugTest::Sink[2] Some/File:77 someFunction: on stderr 5\n");
}

TEST(HostDebug, MasksFromText) {
    EXPECT_TRUE(Host::debugMasksFromText("DebugTest::A=0x31f, DebugTest::B=7"));
    EXPECT_EQ(Host::debugMask("DebugTest::A"), 0x31fu);
    EXPECT_EQ(Host::debugMask("DebugTest::B"), 7u);
    // Malformed text changes nothing at all.
    for (const char* bad :
         {"DebugTest::A=1,DebugTest::B", "DebugTest::A=zz", "=5", "DebugTest::A=0x1ffffffff",
          "DebugTest::A=-1", "DebugTest::A=1,DebugTest::B=2x"}) {
        EXPECT_FALSE(Host::debugMasksFromText(bad)) << bad;
        EXPECT_EQ(Host::debugMask("DebugTest::A"), 0x31fu) << bad;
        EXPECT_EQ(Host::debugMask("DebugTest::B"), 7u) << bad;
    }
    EXPECT_TRUE(Host::debugMasksFromText(""));
    Host::debugMasksClear();
    EXPECT_EQ(Host::debugMask("DebugTest::A"), 0u);
    EXPECT_EQ(Host::debugMask("DebugTest::B"), 0u);
}

TEST(HostDebugDeathTest, KestoDebugIsReadAtFirstUse) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // a fresh process, where no channel exists yet
    EXPECT_EXIT(
        {
            setenv("KESTO_DEBUG", "SubscriptionTranslator=0x31f,Aggregator=0x3ff", 1);
            const bool ok = Kesto::Platform::getDebugHandler("SubscriptionTranslator")->mask() == 0x31f &&
                            Kesto::Platform::getDebugHandler("Aggregator")->mask() == 0x3ff &&
                            Kesto::Platform::getDebugHandler("Schedulable")->mask() == 0;
            std::exit(ok ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(HostDebugDeathTest, AssertionReportIsTheCRuntimeOne) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        Kesto::Platform::assertionFailed("vdb_->isServerAgent() || vdb_->external()",
                                         "SubscriptionTranslator", 327,
                                         "Velta::Agent::SubscriptionTranslator::SubscriptionTranslator("
                                         "Velta::VeltaDB::p_t)"),
        "SubscriptionTranslator:327: Velta::Agent::SubscriptionTranslator::SubscriptionTranslator\\(Velta::"
        "VeltaDB::p_t\\): Assertion `vdb_->isServerAgent\\(\\) \\|\\| vdb_->external\\(\\)' failed\\.");
    int x = 1;
    EXPECT_DEATH(KESTO_ASSERT(x == 2, "Aggregator", 12, "void f()"),
                 "Aggregator:12: void f\\(\\): Assertion `x == 2' failed");
}

}  // namespace
}  // namespace Velta::Test
