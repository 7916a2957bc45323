// The configuration check of a host process: its services must not run while the software
// installed is newer than the configuration that the operator last completed.
//
// CConfigurationMissingDlgHelper::ShowIfNeeded compares the configured version (registry
// value "VersionConfigured" under SOFTWARE\Tarvo Works\GPS Velkor, "0.0.0.0" when missing)
// with the version of this build of the library. When the configuration is behind, it says
// so, and the operator is told on a thread of its own through CConfigurationMissingDlg:
// both versions and the place of the configuration tool, with the offer to start the tool.
// A file "version.ignore" beside the executable (in the application directory) switches the
// check off.
//
// A server has no desktop, so the dialog shows itself through a presenter
// (IConfigurationMissingPresenter). The default presenter writes the versions and the tool's
// path to the log (category "CConfigurationMissingDlg", level error) and to standard error,
// and sets them as the service's status text where the process runs under systemd; it starts
// nothing. Hosts with an operator at hand, and tests, set a presenter of their own.
//
// The configuration tool is the file "Tarvo.Velkor.Tools.Configuration" in a folder
// "ConfigurationTool" below the first of these that has it: the application directory, its
// parent, the parent of that, and the registry value "InstallPath" under
// SOFTWARE\Tarvo Works\GPS Velkor\Installation (default "/opt/tarvo-works/gnss-velkor/").
//
// Thread safety: ShowIfNeeded belongs to one thread at a time (the host's start); the
// dialog's presentation runs on a thread of the work-item pool. SetPresenter may be called
// at any time; a presentation that has begun keeps the presenter it found.
#pragma once

#include <atomic>
#include <string>

#include "tessel/Export.h"
#include "tessel/host/Version.h"
#include "tessel/platform/Types.h"

// What the operator chose in the dialog.
enum class ConfigurationMissingChoice {
    Close,      // closed the dialog (control 2, cancel)
    StartTool,  // pressed the button 6012: start the configuration tool
};

// Shows the operator that the configuration is behind the installed software.
class TESSEL_API IConfigurationMissingPresenter {
  public:
    virtual ~IConfigurationMissingPresenter();

    // Shows the configured and the installed version ("a.b.c.d") and the path of the
    // configuration tool ("" when it was not found), and returns when the operator is done,
    // with the operator's choice. Called on the dialog's thread; may block as long as the
    // operator needs.
    virtual ConfigurationMissingChoice Present(const std::string& configuredVersion,
                                               const std::string& installedVersion,
                                               const std::string& toolPath) = 0;
};

// The dialog: the two version texts and the path of the configuration tool, found when it is
// made. Modal: DoModal returns when the presenter does.
class TESSEL_API CConfigurationMissingDlg {
  public:
    // The dialog's resource (its title is string 6011) and the id of its button.
    static constexpr int IDD = 6011;
    static constexpr int IDC_START_TOOL = 6012;
    static constexpr int IDCANCEL = 2;

    // The file name of the configuration tool and the folder below each base that holds it.
    static constexpr const char* kToolFileName = "Tarvo.Velkor.Tools.Configuration";
    static constexpr const char* kToolFolder = "ConfigurationTool";
    // The installation folder when the registry names none.
    static constexpr const char* kDefaultInstallPath = "/opt/tarvo-works/gnss-velkor/";

    // Keeps the two version texts and looks for the configuration tool.
    CConfigurationMissingDlg(const std::string& configured, const std::string& installed);

    // Shows the dialog through the presenter and acts on the choice. Returns the control
    // that closed the dialog: IDC_START_TOOL when the tool was started, IDCANCEL otherwise
    // (also when the choice was to start the tool but none was found).
    int DoModal();

    // The dialog's button: starts the configuration tool, without waiting for it or looking
    // at the result of the start. False, and nothing started, when no tool was found.
    bool StartConfigurationTool();

    const std::string& GetConfiguredVersion() const { return m_Configured; }
    const std::string& GetInstalledVersion() const { return m_Installed; }
    // The tool's path, '/'-separated; "" when none of the bases has it.
    const std::string& GetToolPath() const { return m_ToolPath; }

    // The presenter of every dialog from now on; null restores the default. The presenter
    // is not owned and must outlive the presentations that use it.
    static void SetPresenter(IConfigurationMissingPresenter* presenter);

  private:
    std::string m_Configured;
    std::string m_Installed;
    std::string m_ToolPath;
};

// The check itself; all static.
class TESSEL_API CConfigurationMissingDlgHelper {
  public:
    // True when the services may run: the dialog is already shown, "version.ignore" exists,
    // or the configured version is at or above the installed one. Otherwise queues the
    // dialog on a thread of its own (it does not wait for it) and returns false.
    static bool ShowIfNeeded();

    // As the last ShowIfNeeded that got as far as reading them found them.
    static CVersion m_ConfiguredVersion;
    static CVersion m_InstalledVersion;
    // True while the dialog is shown.
    static std::atomic<bool> m_bIsMissingConfigurationDlgVisible;

  private:
    // True when a file "version.ignore" exists in the application directory; its content
    // is not read.
    static bool ShouldIgnoreVersion();
    // The work item: context is the two version texts, which it frees. Result 0.
    static Tessel::Platform::DWORD ShowIfNeededAsync(void* context);
};
