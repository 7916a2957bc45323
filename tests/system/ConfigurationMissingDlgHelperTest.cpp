#include "tessel/system/ConfigurationMissingDlgHelper.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <unistd.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>

#include "platform/PlatformTest.h"
#include "support/Eventually.h"
#include "tessel/host/Registry.h"

namespace fs = std::filesystem;
using Helper = CConfigurationMissingDlgHelper;

namespace {

// Records each presentation as "configured installed tool"; holds it while hold is set.
struct RecordingPresenter : IConfigurationMissingPresenter {
    std::mutex lock;
    std::condition_variable changed;
    std::vector<std::string> calls;
    bool hold = false;
    ConfigurationMissingChoice choice = ConfigurationMissingChoice::Close;

    ConfigurationMissingChoice Present(const std::string& configured, const std::string& installed,
                                       const std::string& tool) override {
        std::unique_lock<std::mutex> guard(lock);
        calls.push_back(configured + " " + installed + " " + tool);
        changed.notify_all();
        changed.wait(guard, [this] { return !hold; });
        return choice;
    }
    void waitForCalls(std::size_t count, bool holdNext) {
        std::unique_lock<std::mutex> guard(lock);
        changed.wait(guard, [&] { return calls.size() >= count; });
        hold = holdNext;
        changed.notify_all();
    }
};

void configure(const char* version) {
    REG::Write("SOFTWARE\\Tarvo Works\\GPS Velkor", "VersionConfigured", version, false);
}

bool dialogClosed() {
    return TesselTest::eventually([] { return !Helper::m_bIsMissingConfigurationDlgVisible; });
}

// A fresh folder a/b/application below the temp directory, named as TESSEL_APP_DIR.
fs::path useApplicationFolder() {
    const fs::path folder = fs::temp_directory_path() / "a" / "b" / "application";
    fs::create_directories(folder);
    ::setenv("TESSEL_APP_DIR", folder.c_str(), 1);
    return folder;
}

}  // namespace

TEST(ConfigurationMissingDlgHelperTest, VersionDecisionAndTheMarkerFile) {
    RecordingPresenter presenter;
    CConfigurationMissingDlg::SetPresenter(&presenter);
    EXPECT_FALSE(Helper::ShowIfNeeded());  // empty registry: 0.0.0.0
    presenter.waitForCalls(1, true);
    const std::string installed = Helper::m_InstalledVersion.ToString();
    EXPECT_NE(installed, "0.0.0.0");
    EXPECT_EQ(presenter.calls[0], "0.0.0.0 " + installed + " ");
    ASSERT_TRUE(dialogClosed());
    for (const std::string& configured : {installed, std::string("99999")}) {
        configure(configured.c_str());
        EXPECT_TRUE(Helper::ShowIfNeeded()) << configured;
    }
    configure("0.0.0.1");
    EXPECT_FALSE(Helper::ShowIfNeeded());
    presenter.waitForCalls(2, true);
    EXPECT_TRUE(Helper::ShowIfNeeded());  // while it is shown, nothing more opens
    presenter.waitForCalls(0, false);
    ASSERT_TRUE(dialogClosed());
    std::ofstream(useApplicationFolder() / "version.ignore");
    EXPECT_TRUE(Helper::ShowIfNeeded());
    EXPECT_EQ(presenter.calls.size(), 2u);
    CConfigurationMissingDlg::SetPresenter(nullptr);
}

TEST(ConfigurationMissingDlgHelperTest, ToolIsFoundInTheFirstBaseThatHasItAndStarted) {
    const fs::path application = useApplicationFolder();
    const fs::path installed = fs::temp_directory_path() / "installed";
    REG::Write("SOFTWARE\\Tarvo Works\\GPS Velkor\\Installation", "InstallPath",
               (installed.string() + "\\").c_str(), false);
    EXPECT_EQ(CConfigurationMissingDlg("1", "2").GetToolPath(), "");
    // Placed from the last base to the first, each found before those after it.
    for (const fs::path& base : {installed, application.parent_path().parent_path(),
                                 application.parent_path(), application}) {
        const fs::path tool = base / "ConfigurationTool" / "Tarvo.Velkor.Tools.Configuration";
        fs::create_directories(tool.parent_path());
        std::ofstream(tool) << "#!/bin/sh\ntouch \"$0.ran\"\n";
        fs::permissions(tool, fs::perms::owner_all);
        EXPECT_EQ(CConfigurationMissingDlg("1", "2").GetToolPath(), tool.string());
    }
    RecordingPresenter presenter;
    presenter.choice = ConfigurationMissingChoice::StartTool;
    CConfigurationMissingDlg::SetPresenter(&presenter);
    CConfigurationMissingDlg dialog("1.0.0.0", "2.0.0.0");
    EXPECT_EQ(dialog.DoModal(), CConfigurationMissingDlg::IDC_START_TOOL);
    EXPECT_TRUE(TesselTest::eventually([&] { return fs::exists(dialog.GetToolPath() + ".ran"); }));
    CConfigurationMissingDlg::SetPresenter(nullptr);
}

TEST(ConfigurationMissingDlgHelperTest, DefaultPresenterSetsTheServiceStatus) {
    const std::string name = PlatformTest::uniqueName("notify");
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(PlatformTest::bindAbstract(fd, name), 0);
    ::setenv("NOTIFY_SOCKET", ("@" + name).c_str(), 1);
    EXPECT_FALSE(Helper::ShowIfNeeded());
    pollfd readable{fd, POLLIN, 0};
    ASSERT_EQ(::poll(&readable, 1, 60000), 1);
    char datagram[512] = {};
    ASSERT_GT(::recv(fd, datagram, sizeof datagram - 1, 0), 0);
    EXPECT_EQ(std::string(datagram),
              "STATUS=GNSS Velkor configuration not complete: Configured Velkor Version: 0.0.0.0, "
              "Installed Velkor Version: " +
                  Helper::m_InstalledVersion.ToString());
    ::close(fd);
}
