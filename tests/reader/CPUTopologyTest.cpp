#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <climits>
#include <fstream>
#include <iterator>

#include "CPUTopology.h"

namespace {

using Engine::CPUTopology;

TEST(CPUTopologyTest, GrammarAcceptsAndRefuses) {
    struct Case {
        std::string text;
        bool accepted;
        std::vector<int> written;  // also what a refused text leaves behind
    };
    const std::vector<Case> cases = {
        {"0-3\n", true, {0, 1, 2, 3}},
        {"0\n", true, {0}},
        {" 0 - 2 , 5 \n", true, {0, 1, 2, 5}},
        {"\t0-1,\n3\r\n", true, {0, 1, 3}},
        {"0-3,8-11", true, {0, 1, 2, 3, 8, 9, 10, 11}},
        {"3-1", true, {}},
        {"3-1,4", true, {4}},
        {"1,1,0", true, {1, 1, 0}},
        {"3,0-1,1", true, {3, 0, 1, 1}},
        {"+2", true, {2}},
        {"-1", true, {-1}},
        {"2--1", true, {}},
        {"2147483647", true, {INT_MAX}},
        {"2147483646-2147483647", true, {INT_MAX - 1, INT_MAX}},
        {"-2147483648", true, {INT_MIN}},
        {"", false, {}},
        {"\n", false, {}},
        {"0-3,", false, {0, 1, 2, 3}},
        {"0,,1", false, {0}},
        {"a", false, {}},
        {"0-3x", false, {0, 1, 2, 3}},
        {"0-", false, {0}},
        {"- 1", false, {}},
        {"2147483648", false, {}},
        {"-2147483649", false, {}},
        {"1-2147483648", false, {1}},
        {"1\xa0", false, {1}},  // bytes of 128 and more are never blanks
    };
    for (const Case& c : cases) {
        SCOPED_TRACE("text \"" + c.text + "\"");
        std::vector<int> out;
        EXPECT_EQ(c.accepted, CPUTopology::ParseCPUs(c.text.begin(), c.text.end(), std::back_inserter(out)));
        EXPECT_EQ(c.written, out);
    }
}

TEST(CPUTopologyTest, GetCPUsReadsTheFileAndDropsPartialResults) {
    char path[] = "/tmp/ftrace-cpus-XXXXXX";
    ::close(::mkstemp(path));
    std::ofstream(path) << "0-2,7\n";
    EXPECT_EQ(std::vector<int>({0, 1, 2, 7}), CPUTopology::GetCPUs(path));
    std::ofstream(path) << "0-3,x\n";
    EXPECT_EQ(std::vector<int>(), CPUTopology::GetCPUs(path));
    ::unlink(path);
    EXPECT_EQ(std::vector<int>(), CPUTopology::GetCPUs(path));
    EXPECT_EQ(std::vector<int>(), CPUTopology::GetCPUs("/tmp"));  // a directory cannot be read
}

TEST(CPUTopologyTest, OnlineCPUsMatchTheKernel) {
    const std::vector<int> cpus = CPUTopology::GetOnlineCPUs();
    EXPECT_EQ(static_cast<size_t>(sysconf(_SC_NPROCESSORS_ONLN)), cpus.size());
}

}  // namespace
