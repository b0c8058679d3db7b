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

TEST(HostDebug, TracesAreBuiltOnlyForEnabledLevelsAndGoToTheInnermostCapture) {
    Kesto::DebugSupport debug(Kesto::Platform::getDebugHandler("DebugTest::Quiet"), false);
    EXPECT_EQ(Kesto::Platform::getDebugHandler("DebugTest::Quiet"), debug.handler());  // one per channel
    EXPECT_FALSE(debug.ownsHandler());
    Host::TraceCapture outer;
    ASSERT_EQ(debug.handler()->mask(), 0u);  // every channel starts silent
    KESTO_TRACE(debug, 9, "DebugTest", 10, "quiet", "value " << Counted{});
    ScopedDebugMask on("DebugTest::Quiet", 0x201);
    KESTO_TRACE(debug, 8, "DebugTest", 11, "quiet", "other level " << Counted{});
    Kesto::DebugSupport none;  // no handler: off
    KESTO_TRACE(none, 0, "DebugTest", 13, "quiet", Counted{});
    EXPECT_EQ(Counted::formatted, 0);
    {
        Host::TraceCapture inner;
        KESTO_TRACE(debug, 9, "DebugTest", 12, "quiet", "value " << Counted{});
        EXPECT_EQ(Counted::formatted, 1);
        ASSERT_EQ(inner.records().size(), 1u);
        EXPECT_EQ(Host::toString(inner.records()[0]),
                  "DebugTest::Quiet[9] DebugTest:12 quiet: value counted");
    }
    KESTO_TRACE(debug, 0, "F", 6, "fn", "to outer");
    EXPECT_EQ(outer.messages("DebugTest::Quiet"), std::vector<std::string>{"to outer"});
    outer.clear();
    EXPECT_TRUE(outer.records().empty());

    // The interface traces client-ready at level 8 of "Schedulable", also when nothing changes.
    ScopedDebugMask schedulable("Schedulable", 0x100);
    VeTableInterface iface("watcher", "veMetadata::veTable", kObserverMode, {}, {}, {}, {});
    iface.clientReadyIs(true);
    iface.clientReadyIs(true);
    ASSERT_EQ(outer.records().size(), 2u);
    EXPECT_EQ(Host::toString(outer.records()[1]),
              "Schedulable[8] src-includes/api/Velta/Scheduler:103 clientReadyIs: virtual void "
              "Velta::Schedulable::clientReadyIs(bool) watcher ready: 1");
}

TEST(HostDebug, MasksFromTextAndTheDefaultSink) {
    EXPECT_TRUE(Host::debugMasksFromText("DebugTest::A=0x31f, DebugTest::B=7"));
    Kesto::DebugSupport a(Kesto::Platform::getDebugHandler("DebugTest::A"), false);
    testing::internal::CaptureStderr();  // standard error when nothing captures
    KESTO_TRACE(a, 2, "Some/File", 77, "someFunction", "on stderr " << 5);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "DebugTest::A[2] Some/File:77 someFunction: on stderr 5\n");
    // Malformed text changes nothing at all.
    for (const char* bad :
         {"DebugTest::A=1,DebugTest::B", "DebugTest::A=zz", "=5", "DebugTest::A=0x1ffffffff",
          "DebugTest::A=-1", "DebugTest::A=1,DebugTest::B=2x"}) {
        EXPECT_FALSE(Host::debugMasksFromText(bad)) << bad;
        EXPECT_EQ(Host::debugMask("DebugTest::A") * 10 + Host::debugMask("DebugTest::B"), 0x31fu * 10 + 7)
            << bad;
    }
    EXPECT_TRUE(Host::debugMasksFromText(""));
    Host::debugMasksClear();
    EXPECT_EQ(Host::debugMask("DebugTest::A") + Host::debugMask("DebugTest::B"), 0u);
}

TEST(HostDebugDeathTest, KestoDebugIsReadAtFirstUseAndAssertionsReportAsTheCRuntime) {
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
    int x = 1;
    EXPECT_DEATH(KESTO_ASSERT(x == 2, "Aggregator", 12, "void f()"),
                 "Aggregator:12: void f\\(\\): Assertion `x == 2' failed\\.");
}

}  // namespace
}  // namespace Velta::Test
