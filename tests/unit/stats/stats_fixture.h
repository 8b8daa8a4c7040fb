// stats_fixture.h - shared set-up of the statistics unit tests: the registry with a running
// wheel timer, emptied after every test, and a scratch folder for what commands write.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "stats_registry.h"

namespace statstest {

// Scratch folder of this process under the build tree, made afresh for every test.
std::string scratch(const std::string &name = "");
// Lines of a file, without their newlines.
std::vector<std::string> read_lines(const std::string &path);

// A shell command that prints the collection protocol's answer for one member.
std::string answer_cmd(const std::string &member, bool more = false);

// The group of timeout and the node of type in it (the caller holds no lock: tests run
// nothing concurrently with these reads).
statistics_params_timer_entry *group_of(const char *timeout);
statistics_params_cb_node *node_of(const char *timeout, const char *type);
// Registers type at timeout without the UCI record.
void add_node(const char *timeout, const char *type, const std::string &get_cb,
              const std::string &success_cb = "");

class StatsTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    // Runs fn with the error switch on and returns what it printed.
    template <typename F>
    std::string errors_of(F fn);
};

void begin_capture();
std::string end_capture();

template <typename F>
std::string StatsTest::errors_of(F fn) {
    begin_capture();
    fn();
    return end_capture();
}

}  // namespace statstest
