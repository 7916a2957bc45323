#include "tessel/host/DiskSpace.h"

#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "tessel/host/DiskSpaceUtil.h"

namespace {

namespace fs = std::filesystem;

// The mount point of path, as stat(1) reports it.
std::string mountPointByStat(const std::string& path) {
    std::string command = "stat -c %m '" + path + "'";
    FILE* output = popen(command.c_str(), "r");
    char line[4096] = {};
    if (output == nullptr || fgets(line, sizeof line, output) == nullptr) {
        ADD_FAILURE() << "stat -c %m failed";
    }
    if (output != nullptr) {
        pclose(output);
    }
    std::string text = line;
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

class DiskSpaceOnThisMachine : public testing::Test {
  protected:
    void SetUp() override {
        folder_ = (fs::temp_directory_path() / ("disk-space-" + std::to_string(getpid()))).string();
        fs::create_directories(folder_);
        struct statvfs space {};
        ASSERT_EQ(statvfs(folder_.c_str(), &space), 0);
        free_ = static_cast<unsigned long long>(space.f_bavail) * space.f_frsize;
        total_ = static_cast<unsigned long long>(space.f_blocks) * space.f_frsize;
        ASSERT_GT(free_, 1000u);
    }
    void TearDown() override { fs::remove_all(folder_); }

    std::string folder_;
    unsigned long long free_ = 0;
    unsigned long long total_ = 0;
};

TEST_F(DiskSpaceOnThisMachine, EveryStateIsReachedByTheLimitsAndTheLastStateFollows) {
    CDiskSpace space;
    // The minimum limit and the state it gives; each leaves the free space a margin of a
    // quarter, for what other processes write meanwhile.
    const struct {
        unsigned long long minimum;
        CDiskSpace::StateType state;
    } steps[] = {
        {free_ / 4, CDiskSpace::StateNormal},   // low limit free / 2
        {free_ * 3 / 4, CDiskSpace::StateLow},  // low limit 1.5 free
        {free_ * 2, CDiskSpace::StateCritical},
        {0, CDiskSpace::StateNormal},
    };
    CDiskSpace::StateType before = CDiskSpace::StateUnknown;
    for (const auto& step : steps) {
        SCOPED_TRACE(step.minimum);
        space.SetGeneralDefaultLowLimit(step.minimum);
        EXPECT_EQ(space.GetMinLimit(), step.minimum);
        EXPECT_EQ(space.GetLowLimit(), step.minimum * 2);
        std::string disk;
        unsigned long long total = 0;
        unsigned long long freeBytes = 0;
        CDiskSpace::StateType last = CDiskSpace::StateFailed;
        EXPECT_EQ(space.CheckDiskSpaceState(folder_ + "/", &disk, &total, &freeBytes, &last),
                  step.state);
        EXPECT_EQ(last, before);
        EXPECT_EQ(disk, mountPointByStat(folder_));
        EXPECT_EQ(total, total_);
        EXPECT_GT(freeBytes, free_ * 3 / 4);
        EXPECT_LT(freeBytes, free_ * 5 / 4);
        EXPECT_EQ(space.GetLastDiskSpaceState(folder_), step.state);
        before = step.state;
    }
}

TEST_F(DiskSpaceOnThisMachine, PathsWithoutADiskFailAndLeaveTheOutputsAlone) {
    CDiskSpace space;
    for (const std::string& path :
         {folder_ + "/missing/file", std::string("relative/dir"), std::string("C:\\Data"),
          std::string(""), std::string("//no-such-server/share/dir"),
          std::string("\\\\no-such-server\\share")}) {
        SCOPED_TRACE(path);
        std::string disk = "untouched";
        unsigned long long total = 7;
        unsigned long long freeBytes = 8;
        CDiskSpace::StateType last = CDiskSpace::StateLow;
        EXPECT_EQ(space.CheckDiskSpaceState(path, &disk, &total, &freeBytes, &last),
                  CDiskSpace::StateFailed);
        EXPECT_EQ(disk, "untouched");
        EXPECT_EQ(total, 7u);
        EXPECT_EQ(freeBytes, 8u);
        EXPECT_EQ(last, CDiskSpace::StateLow);
        EXPECT_EQ(space.GetLastDiskSpaceState(path), CDiskSpace::StateFailed);
    }
    // A failed check is not remembered: the first good one still finds no earlier state.
    CDiskSpace::StateType last = CDiskSpace::StateFailed;
    EXPECT_EQ(space.CheckDiskSpaceState(folder_, nullptr, nullptr, nullptr, &last),
              CDiskSpace::StateNormal);
    EXPECT_EQ(last, CDiskSpace::StateUnknown);
}

TEST_F(DiskSpaceOnThisMachine, TheProcessInstanceStartsWithTheDefaultLimits) {
    CDiskSpace::StateType state = CDiskSpaceUtil::GetDiskSpaceLastState(folder_);
    EXPECT_EQ(state, free_ >= 204800000ULL   ? CDiskSpace::StateNormal
                     : free_ >= 102400000ULL ? CDiskSpace::StateLow
                                             : CDiskSpace::StateCritical);
    CDiskSpaceUtil::SetGeneralDefaultLowLimit(free_ * 2);
    CDiskSpace::StateType last = CDiskSpace::StateFailed;
    EXPECT_EQ(CDiskSpaceUtil::CheckDiskSpaceState(folder_, nullptr, nullptr, nullptr, &last),
              CDiskSpace::StateCritical);
    EXPECT_EQ(last, state);
}

}  // namespace
