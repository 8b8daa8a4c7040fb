// proc_name_test.cpp - process name lookup through /proc.
#include "proc_name.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <string>
#include <unistd.h>

TEST(ProcName, ReadsTheKernelNameAndCutsToTheBuffer)
{
    std::string comm;
    std::getline(std::ifstream("/proc/self/comm"), comm);
    ASSERT_FALSE(comm.empty());

    char name[64];
    ASSERT_EQ(get_proc_name_by_pid(getpid(), name, sizeof name), 0);
    EXPECT_EQ(std::string(name), comm);

    char small[5];
    memset(small, 'X', sizeof small);
    ASSERT_EQ(get_proc_name_by_pid(getpid(), small, 4), 0);
    EXPECT_EQ(std::string(small), comm.substr(0, 3));
    EXPECT_EQ(small[4], 'X');
}

TEST(ProcName, RefusesBadInputAndLeavesTheBuffer)
{
    char name[16] = "untouched";
    EXPECT_EQ(get_proc_name_by_pid(-1, name, sizeof name), -1);
    EXPECT_EQ(get_proc_name_by_pid(0x7fffffff, name, sizeof name), -1);
    EXPECT_EQ(get_proc_name_by_pid(getpid(), name, 0), -1);
    EXPECT_STREQ(name, "untouched");
    EXPECT_EQ(get_proc_name_by_pid(getpid(), nullptr, 16), -1);
}
