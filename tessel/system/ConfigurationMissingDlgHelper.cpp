// The configuration check, its dialog and the default presenter.
#include "tessel/system/ConfigurationMissingDlgHelper.h"

#include <cstdio>
#include <filesystem>
#include <memory>
#include <utility>

#include "tessel/host/Registry.h"
#include "tessel/host/StringFormat.h"
#include "tessel/logging/ILogging.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/Process.h"
#include "tessel/platform/ProcessStart.h"
#include "tessel/platform/Resources.h"
#include "tessel/platform/ServiceStatus.h"
#include "tessel/platform/WorkItem.h"

namespace {

constexpr const char* kVelkorKey = "SOFTWARE\\Tarvo Works\\GPS Velkor";
constexpr const char* kInstallationKey = "SOFTWARE\\Tarvo Works\\GPS Velkor\\Installation";

// The dialog's texts that have no number of their own.
constexpr const char* kExplanation =
    "The configuration of the currently installed GNSS Velkor version was not completed, "
    "services cannot be started. Please complete the configuration using the Velkor "
    "Configuration Tool.";
constexpr const char* kConfiguredLabel = "Configured Velkor Version:";
constexpr const char* kInstalledLabel = "Installed Velkor Version: ";
// The report's own line for the tool, which the dialog offers through its button.
constexpr const char* kToolLabel = "Velkor Configuration Tool: ";

// Tells the operator through the log, standard error and the service's status text.
class ReportingPresenter : public IConfigurationMissingPresenter {
  public:
    ConfigurationMissingChoice Present(const std::string& configuredVersion,
                                       const std::string& installedVersion,
                                       const std::string& toolPath) override {
        const Tessel::Platform::HINSTANCE library = Tessel::Platform::LibraryModule();
        const std::string title = Tessel::LoadStringA(library, CConfigurationMissingDlg::IDD);
        const std::string versions = std::string(kConfiguredLabel) + " " + configuredVersion +
                                     ", " + kInstalledLabel + installedVersion;
        const std::string tool =
            std::string(kToolLabel) + (toolPath.empty() ? "not found" : toolPath);
        ILogging::getInstance().log("CConfigurationMissingDlg", ILogging::Error,
                                    title + ". " + versions + ". " + tool);
        std::fprintf(stderr, "%s\n%s\n%s %s\n%s%s\n%s\n", title.c_str(), kExplanation,
                     kConfiguredLabel, configuredVersion.c_str(), kInstalledLabel,
                     installedVersion.c_str(), tool.c_str());
        std::fflush(stderr);
        Tessel::Platform::SetServiceStatusText((title + ": " + versions).c_str());
        return ConfigurationMissingChoice::Close;
    }
};

ReportingPresenter g_reportingPresenter;
std::atomic<IConfigurationMissingPresenter*> g_presenter{nullptr};

// base '/' kToolFolder '/' kToolFileName, where base may end in either separator.
std::string toolPathBelow(std::string base) {
    for (char& c : base) {
        if (c == '\\') {
            c = '/';
        }
    }
    if (!base.empty() && base.back() != '/') {
        base += '/';
    }
    return base + CConfigurationMissingDlg::kToolFolder + "/" +
           CConfigurationMissingDlg::kToolFileName;
}

bool exists(const std::string& path) {
    std::error_code error;
    return std::filesystem::exists(path, error);
}

}  // namespace

IConfigurationMissingPresenter::~IConfigurationMissingPresenter() = default;

CConfigurationMissingDlg::CConfigurationMissingDlg(const std::string& configured,
                                                   const std::string& installed)
    : m_Configured(configured), m_Installed(installed) {
    const std::filesystem::path application(Tessel::Platform::GetApplicationDirectory());
    const std::string bases[] = {
        application.string(),
        application.parent_path().string(),
        application.parent_path().parent_path().string(),
        REG::Get(kInstallationKey, "InstallPath", kDefaultInstallPath),
    };
    for (const std::string& base : bases) {
        const std::string candidate = toolPathBelow(base);
        if (exists(candidate)) {
            m_ToolPath = candidate;
            break;
        }
    }
}

int CConfigurationMissingDlg::DoModal() {
    IConfigurationMissingPresenter* presenter = g_presenter.load();
    if (presenter == nullptr) {
        presenter = &g_reportingPresenter;
    }
    if (presenter->Present(m_Configured, m_Installed, m_ToolPath) ==
            ConfigurationMissingChoice::StartTool &&
        StartConfigurationTool()) {
        return IDC_START_TOOL;
    }
    return IDCANCEL;
}

bool CConfigurationMissingDlg::StartConfigurationTool() {
    if (m_ToolPath.empty()) {
        return false;
    }
    std::string commandLine = "\"" + m_ToolPath + "\"";
    Tessel::Platform::STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    Tessel::Platform::PROCESS_INFORMATION information{};
    if (Tessel::Platform::CreateProcessA(m_ToolPath.c_str(), commandLine.data(), nullptr, nullptr,
                                         Tessel::Platform::FALSE, 0, nullptr, nullptr, &startup,
                                         &information)) {
        if (information.hProcess != nullptr) {
            Tessel::Platform::CloseHandle(information.hProcess);
        }
    }
    return true;
}

void CConfigurationMissingDlg::SetPresenter(IConfigurationMissingPresenter* presenter) {
    g_presenter.store(presenter);
}

CVersion CConfigurationMissingDlgHelper::m_ConfiguredVersion;
CVersion CConfigurationMissingDlgHelper::m_InstalledVersion;
std::atomic<bool> CConfigurationMissingDlgHelper::m_bIsMissingConfigurationDlgVisible{false};

bool CConfigurationMissingDlgHelper::ShowIfNeeded() {
    if (m_bIsMissingConfigurationDlgVisible.load() || ShouldIgnoreVersion()) {
        return true;
    }
    m_ConfiguredVersion = CVersion(REG::Get(kVelkorKey, "VersionConfigured", "0.0.0.0"));
    m_InstalledVersion = CVersion(TESSEL_PRODUCT_VERSION);
    if (m_ConfiguredVersion >= m_InstalledVersion) {
        return true;
    }
    // The texts go along as copies: the statics may change while the dialog is shown.
    auto versions = std::make_unique<std::pair<std::string, std::string>>(
        m_ConfiguredVersion.ToString(), m_InstalledVersion.ToString());
    if (Tessel::Platform::QueueUserWorkItem(&ShowIfNeededAsync, versions.get(),
                                            Tessel::Platform::WT_EXECUTELONGFUNCTION)) {
        versions.release();
    }
    return false;
}

bool CConfigurationMissingDlgHelper::ShouldIgnoreVersion() {
    return exists(Tessel::Platform::GetApplicationDirectory() + "/version.ignore");
}

Tessel::Platform::DWORD CConfigurationMissingDlgHelper::ShowIfNeededAsync(void* context) {
    const std::unique_ptr<std::pair<std::string, std::string>> versions(
        static_cast<std::pair<std::string, std::string>*>(context));
    CConfigurationMissingDlg dialog(versions->first, versions->second);
    m_bIsMissingConfigurationDlgVisible.store(true);
    dialog.DoModal();
    m_bIsMissingConfigurationDlgVisible.store(false);
    return 0;
}
