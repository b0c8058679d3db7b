// The host conformance kit from the installed package, run against the installed in-memory host.
#include "InMemoryHost.h"

#include <gtest/gtest.h>

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    Velta::Conformance::registerHostConformance("InMemoryHost",
                                                [] { return std::make_unique<InMemoryHost>(); });
    return RUN_ALL_TESTS();
}
