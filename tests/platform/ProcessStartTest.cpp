#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tessel/platform/Handle.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/ProcessStart.h"

using namespace Tessel::Platform;

namespace {

// Starts commandLine; the information is zeroed first.
BOOL start(std::string commandLine, PROCESS_INFORMATION& information,
           const char* environment = nullptr, const char* directory = nullptr) {
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    information = PROCESS_INFORMATION{};
    return CreateProcessA(nullptr, commandLine.data(), nullptr, nullptr, FALSE, 0,
                          const_cast<char*>(environment), directory, &startup, &information);
}

bool exists(const std::string& path) {
    return std::filesystem::exists(path);
}

// Waits, for at most 10 seconds, until condition holds.
template <typename Condition>
bool eventually(Condition condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

class ProcessStart : public ::testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/tmp/tessel-spawn-XXXXXX";
        ASSERT_NE(::mkdtemp(name), nullptr);
        m_dir = name;
    }
    void TearDown() override {
        std::error_code ignored;
        std::filesystem::remove_all(m_dir, ignored);
    }
    std::string m_dir;
};

}  // namespace

TEST_F(ProcessStart, SplitsAtBlanksAndSignalsTheEnd) {
    PROCESS_INFORMATION information;
    ASSERT_EQ(start("touch  " + m_dir + "/a\t" + m_dir + "/b", information), TRUE);
    EXPECT_GT(information.dwProcessId, 0u);
    EXPECT_EQ(information.dwThreadId, information.dwProcessId);
    EXPECT_EQ(information.hThread, nullptr);
    ASSERT_NE(information.hProcess, nullptr);
    EXPECT_EQ(WaitForSingleObject(information.hProcess, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(information.hProcess, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(exists(m_dir + "/a"));
    EXPECT_TRUE(exists(m_dir + "/b"));

    // Reaped without anybody asking: no zombie remains.
    const std::string entry = "/proc/" + std::to_string(information.dwProcessId);
    EXPECT_TRUE(eventually([&] { return !exists(entry); }));
    EXPECT_EQ(CloseHandle(information.hProcess), TRUE);
}

TEST_F(ProcessStart, InheritsOnlyTheStandardDescriptors) {
    // Two inheritable descriptors of a file of the test's own, a low and a high one.
    const std::string marker = m_dir + "/marker";
    const int low = ::open(marker.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_GE(low, 3);
    const int high = ::dup2(low, 200);
    ASSERT_EQ(high, 200);
    PROCESS_INFORMATION information;
    ASSERT_EQ(start("sleep 30", information), TRUE);
    // The program's own start-up may open files of its own meanwhile; none is the marker.
    const std::string folder = "/proc/" + std::to_string(information.dwProcessId) + "/fd";
    std::error_code error;
    for (const auto& fd : std::filesystem::directory_iterator(folder, error)) {
        std::error_code gone;  // a descriptor closed meanwhile
        const std::filesystem::path target = std::filesystem::read_symlink(fd.path(), gone);
        EXPECT_NE(target.string(), marker) << "descriptor " << fd.path().filename();
    }
    EXPECT_FALSE(error) << error.message();
    EXPECT_EQ(::kill(static_cast<pid_t>(information.dwProcessId), SIGTERM), 0);
    EXPECT_EQ(WaitForSingleObject(information.hProcess, INFINITE), WAIT_OBJECT_0);
    CloseHandle(information.hProcess);
    ::close(low);
    ::close(high);
}

TEST_F(ProcessStart, TakesEnvironmentAndFolder) {
    PROCESS_INFORMATION information;
    const char environment[] = "TESSEL_ONE=1\0TESSEL_TWO=two\0";
    ASSERT_EQ(start("sh -c pwd>out;env>>out", information, environment, m_dir.c_str()), TRUE);
    EXPECT_EQ(WaitForSingleObject(information.hProcess, INFINITE), WAIT_OBJECT_0);
    CloseHandle(information.hProcess);
    const std::string out = readFile(m_dir + "/out");
    EXPECT_EQ(out.substr(0, out.find('\n')), std::filesystem::canonical(m_dir).string());
    EXPECT_NE(out.find("TESSEL_ONE=1\n"), std::string::npos);
    EXPECT_NE(out.find("TESSEL_TWO=two\n"), std::string::npos);
}

TEST_F(ProcessStart, ReportsWhatItCannotStart) {
    PROCESS_INFORMATION information;
    EXPECT_EQ(start("tessel-no-such-program-anywhere /x", information), FALSE);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(start("  \t ", information), FALSE);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);

    const std::string notExecutable = m_dir + "/plain";
    std::ofstream(notExecutable) << "text\n";
    EXPECT_EQ(start(notExecutable, information), FALSE);
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
}
