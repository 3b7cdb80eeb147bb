#pragma once
/// @file
/// Runs the body of a test inside a machine root. Expectations made there count: the child prints them and the test
/// fails with it.

#include <gtest/gtest.h>

#include <functional>

#include "simulator/MachineRoot.h"
#include "tests/support/BuildTree.h"

/// A machine root in the working directory of the test, with the libraries and catalogues of this build.
inline MachineRoot MakeTestRoot() {
    return MachineRoot(".", InBuildTree());
}

inline void RunInRoot(const MachineRoot& root, const std::function<void()>& body) {
    const int status = root.Run([&] {
        body();
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(0, status) << "inside the machine root";
}

/// A test all of which runs where the Run of its fixture lets it; its body is a member of the fixture.
#define TEST_ON_MACHINE(Fixture, name)                                                                                 \
    struct name : Fixture {                                                                                            \
        void OnMachine();                                                                                              \
        void TestBody() override {                                                                                     \
            Run([this] { OnMachine(); });                                                                              \
        }                                                                                                              \
    };                                                                                                                 \
    testing::TestInfo* const name##Test = testing::RegisterTest(#Fixture, #name, nullptr, nullptr, __FILE__, __LINE__, \
                                                                []() -> Fixture* { return new name; });                \
    void name::OnMachine()
