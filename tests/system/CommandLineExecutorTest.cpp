#include "tessel/system/CommandLineExecutor.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include "support/Eventually.h"
#include "support/TestSupport.h"
#include "tessel/host/TempDirectory.h"

namespace {

namespace fs = std::filesystem;
using TesselTest::eventually;
using namespace std::chrono_literals;

struct Report {
    int status;
    std::string command, message;
    int exitCode;
};

// Counts its releases.
struct Param : ICommandLineExecutorNotifyParam {
    std::atomic<int> releases{0};
    void Release() override { ++releases; }
};

// Records the reports; waits for them.
struct Recorder : ICommandLineExecutorNotify {
    void OnCommandLineExecuted(int status, const std::string& command, const std::string& message,
                               int exitCode, ICommandLineExecutorNotifyParam* param) override {
        std::lock_guard<std::mutex> lock(mutex);
        EXPECT_EQ(static_cast<Param*>(param)->releases.load(), 0) << "released before the report";
        reports.push_back({status, command, message, exitCode});
        changed.notify_all();
    }
    // The only report, once it is there.
    Report wait() {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait_for(lock, 60s, [&] { return !reports.empty(); });
        EXPECT_EQ(reports.size(), 1u);
        return reports.empty() ? Report{-1, "", "", 0} : reports.front();
    }
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Report> reports;
};

class CommandLineExecutorTest : public testing::Test {
  protected:
    // Runs command for product; the report, after the parameter's one release.
    Report run(const std::string& command, const std::string& product = "/data/a.rnx",
               unsigned long timeoutMs = 60000) {
        CCommandLineExecutor executor(product, &recorder);
        executor.AddVariableArgument("mine", "value");
        executor.AddVariableArgument("Upper", "value");
        created = executor.Execute(command, timeoutMs, &param);
        const Report report = recorder.wait();
        EXPECT_TRUE(eventually([&] { return param.releases.load() == 1; }));
        return report;
    }
    // A script in the test's folder.
    std::string script(const std::string& name, const std::string& text) {
        std::ofstream(dir + name) << text;
        return dir + name;
    }
    static std::string contents(const std::string& file) {
        std::stringstream text;
        text << std::ifstream(file).rdbuf();
        return text.str();
    }
    // Waits for every process of the group started by the script that wrote its pid to file
    // (the test adopts the orphans, since this machine's init may not reap them).
    static void expectGroupGone(const std::string& file) {
        const pid_t group = std::stoi(contents(file));
        EXPECT_TRUE(eventually([&] {
            while (::waitpid(-group, nullptr, WNOHANG) > 0) {
            }
            return ::kill(-group, 0) == -1 && errno == ESRCH;
        }));
    }

    std::string dir = fs::temp_directory_path().string() + "/";
    Recorder recorder;
    Param param;
    int created = -1;
};

TEST_F(CommandLineExecutorTest, ProgramsThatEndReportFinishedWithoutTheirExitCode) {
    for (const char* program : {"/bin/true", "/bin/false"}) {
        recorder.reports.clear();
        param.releases = 0;
        const Report report = run(program);
        EXPECT_NE(created, 0);
        EXPECT_EQ(report.status, CmdStatusFinished);
        EXPECT_EQ(report.command, program);
        EXPECT_EQ(report.message, "");
        EXPECT_EQ(report.exitCode, -1);
    }
}

TEST_F(CommandLineExecutorTest, VariablesAreSubstitutedOrTheSyntaxErrorIsReported) {
    const struct {
        std::string product, command;
        int status;
        std::string result;
        int exitCode;
    } cases[] = {
        {"C:\\data\\a.rnx", "/bin/true $(productname)$(productext)", 1, "/bin/true a.rnx", -1},
        {"C:\\data\\a.rnx", "  /bin/true $(PRODUCT) $(productpath)\t", 1,
         "/bin/true C:/data/a.rnx C:/data/", -1},
        {"/data/a.rnx", "\"/bin/true\" x$(mine)y", 1, "\"/bin/true\" xvaluey", -1},
        {"/data/a.rnx", "/bin/true (a)", 1, "/bin/true (a)", -1},
        {"", "/bin/true", 1, "/bin/true", -1},
        {"/data/a.rnx", "/bin/true $(nosuch)", 3, "", 18},
        {"/data/a.rnx", "/bin/true $(upper)", 3, "", 17},
        {"/data/a.rnx", "/bin/true $x", 3, "", 11},
        {"/data/a.rnx", "/bin/true (a) $(product)", 3, "", 10},
        {"/data/a.rnx", "/bin/true $(product", 3, "", 19},
        {"", "/bin/true $(x) ($", 3, "", 13},
        {"/data/a.rnx", "", 3, "", 0},
        {"", "/bin/true $(product)", 2, "", -1},  // valid, but no product: nothing runs
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.command);
        recorder.reports.clear();
        param.releases = 0;
        const Report report = run(c.command, c.product);
        EXPECT_EQ(created, c.status == 1 ? 1 : 0);
        EXPECT_EQ(report.status, c.status);
        EXPECT_EQ(report.command, c.result);
        EXPECT_EQ(report.exitCode, c.exitCode);
        const std::string syntax = "Could not execute command, syntax error near character ";
        EXPECT_EQ(report.message, c.status == 1 ? ""
                                  : c.status == 2
                                      ? "Could not execute command, but syntax seems to be valid."
                                      : syntax + std::to_string(c.exitCode));
    }
}

TEST_F(CommandLineExecutorTest, ArgumentsReachTheProgramByTheQuotingRules) {
    const std::string args = script("args.sh", "printf '[%s]\\n' \"$@\" >\"$1\"\n");
    const Report report =
        run("/bin/sh " + args + " $(productpath)out \"a b\" c\\\"d \"\" x\\y", dir + "a.rnx");
    EXPECT_EQ(report.status, CmdStatusFinished);
    EXPECT_EQ(contents(dir + "out"), "[" + dir + "out]\n[a b]\n[c\"d]\n[]\n[x\\y]\n");
}

TEST_F(CommandLineExecutorTest, AMissingProgramIsAnErrorWithThePlatformsText) {
    const Report report = run("/nonexistent/tessel-no-such-program arg");
    EXPECT_EQ(created, 0);
    EXPECT_EQ(report.status, CmdStatusError);
    EXPECT_EQ(report.message, "The system cannot find the file specified.");
    EXPECT_EQ(report.exitCode, -1);
}

TEST_F(CommandLineExecutorTest, BatchTextRunsWithTheShellAndItsFileIsDeleted) {
    CTempDirectory::SetTempDirectory(dir);
    CCommandLineExecutor executor("", &recorder);
    ASSERT_NE(executor.ExecuteAsBat("echo ran >\"" + dir + "bat.out\"\n", 60000, &param), 0);
    const Report report = recorder.wait();
    EXPECT_TRUE(eventually([&] { return param.releases.load() == 1; }));
    EXPECT_EQ(report.status, CmdStatusFinished);
    EXPECT_EQ(report.command, "\"" + dir + "CmdLineWrapper.bat\"");
    EXPECT_EQ(contents(dir + "bat.out"), "ran\n");
    EXPECT_FALSE(fs::exists(dir + "CmdLineWrapper.bat"));
}

// A command that starts two children and waits: the group leader's pid goes to its argument.
const char* const kTree = "echo $$ >\"$1\"; sleep 300 & sleep 300 & wait\n";

TEST_F(CommandLineExecutorTest, SlowATimeOutOfZeroIsTenSecondsAndKillsTheWholeGroup) {
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    const Report report = run("/bin/sh " + script("tree.sh", kTree) + " " + dir + "pid", "", 0);
    EXPECT_EQ(report.status, CmdStatusTimedOut);
    EXPECT_EQ(report.message, "Terminated process, it exceeded the time out limit of 10sec.");
    EXPECT_EQ(report.exitCode, -1);
    expectGroupGone(dir + "pid");
}

TEST_F(CommandLineExecutorTest, AbortFromAnotherThreadKillsTheGroupAndReports) {
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    const TesselTest::DebugOutputCapture trace;
    CCommandLineExecutor executor("", &recorder);
    ASSERT_NE(
        executor.Execute("/bin/sh " + script("tree.sh", kTree) + " " + dir + "pid", 600000, &param),
        0);
    ASSERT_TRUE(eventually([&] { return !contents(dir + "pid").empty(); }));
    std::thread(&CCommandLineExecutor::AbortPendingProcess).join();
    const Report report = recorder.wait();
    EXPECT_EQ(report.status, CmdStatusAborted);
    EXPECT_EQ(report.message, "Terminated process on system shutdown.");
    EXPECT_EQ(report.exitCode, 0);
    EXPECT_TRUE(eventually([&] { return param.releases.load() == 1; }));
    expectGroupGone(dir + "pid");
    CCommandLineExecutor::AbortPendingProcess();  // nothing pending
    const std::string text = trace.joined();
    for (const char* line :
         {"pending threads before abort : 1\n", "pending threads after abort : 0\n",
          "pending threads before abort : 0\n"}) {
        EXPECT_NE(text.find(std::string("CCommandLineExecutor::AbortPendingProcess() ") + line),
                  std::string::npos)
            << text;
    }
}

}  // namespace
