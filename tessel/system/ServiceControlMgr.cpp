#include "tessel/system/ServiceControlMgr.h"

#include <fmt/format.h>

#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tessel/logging/ILogging.h"
#include "tessel/logging/TraceUtil.h"
#include "tessel/platform/Clock.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/Token.h"
#include "tessel/platform/WorkItem.h"

using namespace Tessel::Platform;

IServiceControlMgrNotify::~IServiceControlMgrNotify() = default;

namespace {

constexpr const char* kStartCategory = "CServiceControlMgr::Start";
constexpr const char* kStopCategory = "CServiceControlMgr::Stop";
constexpr const char* kRemoveCategory = "CServiceControlMgr::Remove";
constexpr const char* kInstallCategory = "CServiceControlMgr::Install";

// How one error of a step is reported.
struct ErrorMessage {
    DWORD error;
    ILogging::LogLevels level;
    const char* text;
};

constexpr ErrorMessage kManagerMessages[] = {
    {ERROR_ACCESS_DENIED, ILogging::Info, "The requested access was denied."},
    {ERROR_DATABASE_DOES_NOT_EXIST, ILogging::Info, "The specified database does not exist."},
    {ERROR_INVALID_PARAMETER, ILogging::Info, "A specified parameter is invalid."},
};

constexpr ErrorMessage kServiceMessages[] = {
    {ERROR_ACCESS_DENIED, ILogging::Error, "The handle does not have access to the service."},
    {ERROR_INVALID_HANDLE, ILogging::Error, "The specified handle is invalid."},
    {ERROR_INVALID_NAME, ILogging::Error, "The specified service name is invalid."},
    {ERROR_SERVICE_DOES_NOT_EXIST, ILogging::Error, "The specified service does not exist."},
};

constexpr ErrorMessage kStartMessages[] = {
    {ERROR_FILE_NOT_FOUND, ILogging::Error, "The system cannot find the service specified."},
    {ERROR_ACCESS_DENIED, ILogging::Error,
     "The handle does not have the SERVICE_START access right."},
    {ERROR_INVALID_HANDLE, ILogging::Error, "The handle is invalid."},
    {ERROR_PATH_NOT_FOUND, ILogging::Error, "The service binary file could not be found."},
    {ERROR_SERVICE_ALREADY_RUNNING, ILogging::Info,
     "An instance of the service is already running."},
    {ERROR_SERVICE_DATABASE_LOCKED, ILogging::Error, "The database is locked."},
    {ERROR_SERVICE_DEPENDENCY_DELETED, ILogging::Error,
     "The service depends on a service that does not exist or has been marked for deletion."},
    {ERROR_SERVICE_DEPENDENCY_FAIL, ILogging::Error,
     "The service depends on another service that has failed to start."},
    {ERROR_SERVICE_DISABLED, ILogging::Error, "The service has been disabled."},
    {ERROR_SERVICE_LOGON_FAILED, ILogging::Error,
     "The service did not start due to a logon failure. This error occurs if the service is "
     "configured to run under an account that does not have the \"Log on as a service\" "
     "right."},
    {ERROR_SERVICE_MARKED_FOR_DELETE, ILogging::Error, "The service has been marked for deletion."},
    {ERROR_SERVICE_NO_THREAD, ILogging::Error, "A thread could not be created for the service."},
    {ERROR_SERVICE_REQUEST_TIMEOUT, ILogging::Error,
     "The process for the service was started, but it did not call StartServiceCtrlDispatcher, "
     "or the thread that called StartServiceCtrlDispatcher may be blocked in a control handler "
     "function."},
};

template <std::size_t N>
void LogError(const char* category, const ErrorMessage (&messages)[N], DWORD error,
              ILogging::LogLevels otherLevel, const char* otherFormat) {
    for (const ErrorMessage& message : messages) {
        if (message.error == error) {
            ILogging::getInstance().log(category, message.level, message.text);
            return;
        }
    }
    ILogging::getInstance().log(category, otherLevel,
                                fmt::format(fmt::runtime(otherFormat), error));
}

void Log(const char* category, ILogging::LogLevels level, const std::string& text) {
    ILogging::getInstance().log(category, level, text);
}

// The platform's text of error, without its line end; the number where it has no text.
std::string ErrorText(DWORD error) {
    char text[512] = {};
    CTraceUtil::getLastErrorString(error, text, sizeof text);
    std::string result(text);
    while (!result.empty() && (result.back() == '\n' || result.back() == '\r')) {
        result.pop_back();
    }
    return result.empty() ? std::to_string(error) : result;
}

void Trace(const char* format, ...) __attribute__((format(printf, 1, 2)));
void Trace(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    CTraceUtil::OutputStringEx(0, format, arguments);
    va_end(arguments);
}

void CloseHandles(SC_HANDLE service, SC_HANDLE manager) {
    if (service != nullptr) {
        CloseServiceHandle(service);
    }
    if (manager != nullptr) {
        CloseServiceHandle(manager);
    }
}

void SleepMilliseconds(unsigned long milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

unsigned long TickCount() {
    return GetTickCount();
}

int QueryStatus(SC_HANDLE service, SERVICE_STATUS* status) {
    return QueryServiceStatus(service, status);
}

// The names of all services, or nothing with false when the manager cannot be opened.
bool ListServices(std::vector<std::string>& names) {
    SC_HANDLE manager = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ENUMERATE_SERVICE);
    if (manager == nullptr) {
        return false;
    }
    DWORD needed = 0;
    DWORD count = 0;
    DWORD resume = 0;
    EnumServicesStatusExA(manager, SC_ENUM_PROCESS_INFO, SERVICE_WIN32, SERVICE_STATE_ALL, nullptr,
                          0, &needed, &count, &resume, nullptr);
    if (needed > 0) {
        std::vector<std::uint64_t> buffer((needed + 7) / 8);
        resume = 0;
        if (EnumServicesStatusExA(manager, SC_ENUM_PROCESS_INFO, SERVICE_WIN32, SERVICE_STATE_ALL,
                                  reinterpret_cast<unsigned char*>(buffer.data()), needed, &needed,
                                  &count, &resume, nullptr)) {
            const auto* services = reinterpret_cast<ENUM_SERVICE_STATUS_PROCESSA*>(buffer.data());
            for (DWORD i = 0; i < count; ++i) {
                names.emplace_back(services[i].lpServiceName);
            }
        }
    }
    CloseServiceHandle(manager);
    return true;
}

DWORD StartWork(void* context) {
    auto* copy = static_cast<CServiceControlMgr*>(context);
    copy->Start();
    delete copy;
    return 0;
}

DWORD StopWork(void* context) {
    auto* copy = static_cast<CServiceControlMgr*>(context);
    copy->Stop();
    delete copy;
    return 0;
}

// Tells notify, where there is one, how the operation on name ended: succeeded for a result
// of 0, else failed.
void tell(IServiceControlMgrNotify* notify, const char* name, int result,
          void (IServiceControlMgrNotify::*succeeded)(const char*),
          void (IServiceControlMgrNotify::*failed)(const char*)) {
    if (notify != nullptr) {
        (notify->*(result == 0 ? succeeded : failed))(name);
    }
}

}  // namespace

CServiceControlMgr::Clock& CServiceControlMgr::clock() {
    static Clock functions{&SleepMilliseconds, &TickCount, &QueryStatus};
    return functions;
}

CServiceControlMgr::CServiceControlMgr(char const* name, IServiceControlMgrNotify* notify,
                                       bool includeDependents)
    : m_serviceName(nullptr),
      m_notify(notify),
      m_includeDependents(includeDependents),
      m_ownsName(true) {
    const char* text = name != nullptr ? name : "";
    m_serviceName = new char[std::strlen(text) + 1];
    std::strcpy(m_serviceName, text);
}

CServiceControlMgr::CServiceControlMgr(CServiceControlMgr const& other)
    : m_serviceName(other.m_serviceName),
      m_dependentServices(other.m_dependentServices),
      m_notify(other.m_notify),
      m_includeDependents(other.m_includeDependents),
      m_ownsName(false) {}

CServiceControlMgr& CServiceControlMgr::operator=(CServiceControlMgr const& other) {
    if (this != &other) {
        if (m_ownsName && m_serviceName != other.m_serviceName) {
            delete[] m_serviceName;
        }
        m_ownsName = m_ownsName && m_serviceName == other.m_serviceName;
        m_serviceName = other.m_serviceName;
        m_dependentServices = other.m_dependentServices;
        m_notify = other.m_notify;
        m_includeDependents = other.m_includeDependents;
    }
    return *this;
}

CServiceControlMgr::CServiceControlMgr(CServiceControlMgr const* other)
    : CServiceControlMgr(other->m_serviceName, other->m_notify, other->m_includeDependents) {
    for (const std::string& name : other->m_dependentServices) {
        AddDependentService(name);
    }
}

CServiceControlMgr::~CServiceControlMgr() {
    if (m_ownsName) {
        delete[] m_serviceName;
    }
}

void CServiceControlMgr::AddDependentService(std::string const& name) {
    m_dependentServices.push_back(name);
}

void CServiceControlMgr::AddDependentService(std::vector<std::string> const& names) {
    m_dependentServices.insert(m_dependentServices.end(), names.begin(), names.end());
}

int CServiceControlMgr::Start(std::string const& name, IServiceControlMgrNotify* notify) {
    int result = 0;
    SC_HANDLE service = nullptr;
    SC_HANDLE manager = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT);
    if (manager == nullptr) {
        result = static_cast<int>(GetLastError());
        LogError(kStartCategory, kManagerMessages, result, ILogging::Error,
                 "Open Service Control Manager failed with error code {}");
    } else if ((service = OpenServiceA(manager, name.c_str(), SERVICE_ALL_ACCESS)) == nullptr) {
        result = static_cast<int>(GetLastError());
        LogError(kStartCategory, kServiceMessages, result, ILogging::Error,
                 "Open Service failed with error code {}");
    } else if (!StartServiceA(service, 0, nullptr)) {
        result = static_cast<int>(GetLastError());
        LogError(kStartCategory, kStartMessages, result, ILogging::Error,
                 "Start Service failed with error code {}");
        if (result == static_cast<int>(ERROR_SERVICE_ALREADY_RUNNING)) {
            result = 0;
        }
    } else {
        SERVICE_STATUS status{};
        if (!WaitForServiceToReachState(service, SERVICE_RUNNING, &status)) {
            result = static_cast<int>(GetLastError());
            if (result == static_cast<int>(ERROR_IO_PENDING)) {
                Log(kStartCategory, ILogging::Error, "Start service IO-pending");
            } else if (result == static_cast<int>(ERROR_TIMEOUT)) {
                Log(kStartCategory, ILogging::Error, "Start service timeout!");
            } else if (result != 0) {
                Log(kStartCategory, ILogging::Error,
                    fmt::format("Wait for service to reach state failed with error code {}",
                                result));
            }
        }
    }
    CloseHandles(service, manager);
    tell(notify, name.c_str(), result, &IServiceControlMgrNotify::OnStartSucceeded,
         &IServiceControlMgrNotify::OnStartFailed);
    return result;
}

int CServiceControlMgr::Start() {
    int result = Start(m_serviceName, m_notify);
    if (result != 0 || !m_includeDependents) {
        return result;
    }
    for (const std::string& dependent : m_dependentServices) {
        result = Start(dependent, m_notify);
        if (result != 0) {
            break;
        }
    }
    return result;
}

int CServiceControlMgr::Stop(std::string const& name, IServiceControlMgrNotify* notify) {
    Log(kStopCategory, ILogging::Info, "StopService started!");
    int result = 0;
    SC_HANDLE service = nullptr;
    SC_HANDLE manager = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    if (manager == nullptr) {
        Log(kStopCategory, ILogging::Error, "OpenSCManager failed!");
    } else if ((service = OpenServiceA(manager, name.c_str(), SERVICE_ALL_ACCESS)) == nullptr) {
        Log(kStopCategory, ILogging::Error, "OpenService failed!");
    } else {
        SERVICE_STATUS status{};
        for (int round = 0; round < 5; ++round) {
            if (clock().queryStatus(service, &status) &&
                (status.dwControlsAccepted & SERVICE_ACCEPT_STOP) != 0 &&
                status.dwCurrentState != SERVICE_STOPPED &&
                status.dwCurrentState != SERVICE_STOP_PENDING) {
                break;
            }
            clock().sleep(1000);
        }
        bool wait = false;
        switch (status.dwCurrentState) {
            case SERVICE_STOP_PENDING:
                wait = true;
                break;
            case SERVICE_START_PENDING:
            case SERVICE_RUNNING:
            case SERVICE_CONTINUE_PENDING:
            case SERVICE_PAUSE_PENDING:
            case SERVICE_PAUSED:
                if (ControlService(service, SERVICE_CONTROL_STOP, &status)) {
                    wait = true;
                } else {
                    result = static_cast<int>(GetLastError());
                    Log(kStopCategory, ILogging::Error,
                        fmt::format("Stop Service failed with error code {}", result));
                }
                break;
            default:  // stopped: nothing to do
                break;
        }
        if (wait && !WaitForServiceToReachState(service, SERVICE_STOPPED, &status)) {
            const DWORD error = GetLastError();
            if (error == ERROR_IO_PENDING) {
                clock().sleep(100);
            } else {
                Log(kStopCategory, ILogging::Error,
                    error == ERROR_TIMEOUT ? "Stop service timeouted!"
                                           : "WaitForServiceToReachState failed!");
                result = static_cast<int>(error);
            }
        }
    }
    CloseHandles(service, manager);
    tell(notify, name.c_str(), result, &IServiceControlMgrNotify::OnStopSucceeded,
         &IServiceControlMgrNotify::OnStopFailed);
    return result;
}

int CServiceControlMgr::Stop() {
    if (m_includeDependents) {
        for (const std::string& dependent : m_dependentServices) {
            const int result = Stop(dependent, m_notify);
            if (result != 0) {
                return result;
            }
        }
    }
    return Stop(m_serviceName, m_notify);
}

int CServiceControlMgr::Remove() {
    Log(kRemoveCategory, ILogging::Info, "RemoveService started!");
    SC_HANDLE manager = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    if (manager == nullptr) {
        Log(kRemoveCategory, ILogging::Error, "OpenSCManager failed!");
        return 0;
    }
    SC_HANDLE service = OpenServiceA(manager, m_serviceName, SERVICE_ALL_ACCESS);
    if (service == nullptr) {
        Log(kRemoveCategory, ILogging::Error, "OpenService failed!");
        CloseServiceHandle(manager);
        return 0;
    }
    int result = 0;
    SERVICE_STATUS status{};
    if (clock().queryStatus(service, &status) && status.dwCurrentState != SERVICE_STOPPED) {
        if (!ControlService(service, SERVICE_CONTROL_STOP, &status)) {
            Log(kRemoveCategory, ILogging::Error, "ControlService failed!");
        } else if (!WaitForServiceToReachState(service, SERVICE_STOPPED, &status)) {
            const DWORD error = GetLastError();
            if (error == ERROR_IO_PENDING) {
                clock().sleep(100);
            } else {
                Log(kRemoveCategory, ILogging::Error,
                    error == ERROR_TIMEOUT ? "Stop service timeouted!"
                                           : "WaitForServiceToReachState failed!");
                result = static_cast<int>(error);
            }
        }
    }
    if (!DeleteService(service)) {
        result = static_cast<int>(GetLastError());
        Log(kRemoveCategory, ILogging::Error,
            fmt::format("DeleteService failed! Error : {}", result));
    } else {
        Log(kRemoveCategory, ILogging::Info, "Removed Service successfully!");
    }
    CloseHandles(service, manager);
    return result;
}

int CServiceControlMgr::StartAsync() {
    auto* copy = new CServiceControlMgr(this);
    if (!QueueUserWorkItem(&StartWork, copy, WT_EXECUTELONGFUNCTION)) {
        delete copy;
        return -1;
    }
    return 0;
}

int CServiceControlMgr::StopAsync() {
    auto* copy = new CServiceControlMgr(this);
    if (!QueueUserWorkItem(&StopWork, copy, WT_EXECUTELONGFUNCTION)) {
        delete copy;
        return -1;
    }
    return 0;
}

int CServiceControlMgr::ForEachService(Operation operation) {
    std::vector<std::string> names;
    int result = 0;
    if (ListServices(names)) {
        for (const std::string& name : names) {
            if (name.find(m_serviceName) == std::string::npos) {
                continue;
            }
            CServiceControlMgr member(name.c_str(), nullptr, false);
            const int memberResult = operation == Operation::Start  ? member.Start()
                                     : operation == Operation::Stop ? member.Stop()
                                                                    : member.Remove();
            if (memberResult != 0) {
                result = memberResult;
            }
        }
    }
    return result;
}

int CServiceControlMgr::StartAll() {
    const int result = ForEachService(Operation::Start);
    tell(m_notify, m_serviceName, result, &IServiceControlMgrNotify::OnStartAllSucceeded,
         &IServiceControlMgrNotify::OnStartAllFailed);
    return result;
}

int CServiceControlMgr::StopAll() {
    const int result = ForEachService(Operation::Stop);
    tell(m_notify, m_serviceName, result, &IServiceControlMgrNotify::OnStopAllSucceeded,
         &IServiceControlMgrNotify::OnStopAllFailed);
    return result;
}

int CServiceControlMgr::RemoveAll() {
    return ForEachService(Operation::Remove);
}

int CServiceControlMgr::WaitForServiceToReachState(SC_HANDLE service, unsigned long state,
                                                   SERVICE_STATUS* status) {
    Clock& functions = clock();
    functions.sleep(500);
    unsigned long stallLimit = 10;
    unsigned long stallCount = 0;
    bool deadlineSet = false;
    std::uint32_t deadline = 0;
    DWORD lastState = 0;
    DWORD lastCheckPoint = 0;
    for (;;) {
        if (!functions.queryStatus(service, status)) {
            return 0;
        }
        const auto now = static_cast<std::uint32_t>(functions.tickCount());
        if (status->dwCurrentState == state) {
            return 1;
        }
        if (!deadlineSet) {
            lastState = status->dwCurrentState;
            lastCheckPoint = status->dwCheckPoint;
            deadlineSet = status->dwWaitHint != 0;
            deadline = now + status->dwWaitHint;
        } else if (static_cast<std::int32_t>(now - deadline) > 0) {
            if (status->dwCurrentState != lastState) {
                lastState = status->dwCurrentState;
                lastCheckPoint = status->dwCheckPoint;
                stallCount = 0;
            } else if (status->dwCheckPoint > lastCheckPoint) {
                lastCheckPoint = status->dwCheckPoint;
                stallCount = 0;
            } else if (++stallCount > stallLimit) {
                SetLastError(ERROR_TIMEOUT);
                return 0;
            }
        }
        unsigned long pause = status->dwWaitHint / 10;
        if (pause < 100) {
            pause = 100;
            stallLimit = 10;
        } else if (pause > 1000) {
            pause = 1000;
            stallLimit = status->dwWaitHint / 1000;
        }
        functions.sleep(pause);
    }
}

int CServiceControlMgr::Install(char const* displayName, unsigned long serviceType,
                                unsigned long startType, unsigned long errorControl,
                                char const* binaryPath, char const* user, char const* password,
                                char const* description) {
    if (user == nullptr || *user == '\0' || password == nullptr || *password == '\0') {
        user = nullptr;
        password = nullptr;
    }
    SC_HANDLE manager = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    if (manager == nullptr) {
        const DWORD error = GetLastError();
        Trace("Invalid SCManager :  %s\n", ErrorText(error).c_str());
        return static_cast<int>(error);
    }
    Trace("Installing cluster server \"%s\" with user \"%s\"\n", m_serviceName,
          user != nullptr ? user : "SYSTEM");
    char* dependencies = nullptr;
    GetDependentString(m_dependentServices, &dependencies);
    int result = 0;
    SC_HANDLE service = CreateServiceA(manager, m_serviceName, displayName, SERVICE_ALL_ACCESS,
                                       serviceType, startType, errorControl, binaryPath, nullptr,
                                       nullptr, dependencies, user, password);
    if (service == nullptr) {
        result = static_cast<int>(GetLastError());
        Log(kInstallCategory, ILogging::Error,
            fmt::format("CreateService failed! Error : {}", ErrorText(result)));
    } else {
        const char* delayedFailed =
            "Setting Service to 'Automatic (Delayed start)' failed! LastError value [{}]";
        if (description != nullptr) {
            SERVICE_DESCRIPTIONA text{const_cast<char*>(description)};
            if (!ChangeServiceConfig2A(service, SERVICE_CONFIG_DESCRIPTION, &text)) {
                result = static_cast<int>(GetLastError());
                Log(kInstallCategory, ILogging::Error,
                    fmt::format(fmt::runtime(delayedFailed), result));
            }
        }
        SERVICE_DELAYED_AUTO_START_INFO delayed{TRUE};
        if (!ChangeServiceConfig2A(service, SERVICE_CONFIG_DELAYED_AUTO_START_INFO, &delayed)) {
            result = static_cast<int>(GetLastError());
            Log(kInstallCategory, ILogging::Error,
                fmt::format(fmt::runtime(delayedFailed), result));
        }
    }
    CloseHandles(service, manager);
    DeleteDependentString(dependencies);
    if (result == static_cast<int>(ERROR_IO_PENDING)) {
        clock().sleep(100);
        result = 0;
    }
    return result;
}

int CServiceControlMgr::SetRecoveryOptions(SERVICE_FAILURE_ACTIONSA* actions) {
    if (actions == nullptr) {
        return 0;
    }
    for (DWORD i = 0; i < actions->cActions && actions->lpsaActions != nullptr; ++i) {
        if (actions->lpsaActions[i].Type == SC_ACTION_REBOOT) {
            HANDLE token = nullptr;
            if (OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY,
                                 &token)) {
                TOKEN_PRIVILEGES privileges{};
                privileges.PrivilegeCount = 1;
                privileges.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
                if (LookupPrivilegeValueA(nullptr, SE_SHUTDOWN_NAME,
                                          &privileges.Privileges[0].Luid)) {
                    AdjustTokenPrivileges(token, FALSE, &privileges, 0, nullptr, nullptr);
                }
                CloseHandle(token);
            }
            break;
        }
    }
    int result = 0;
    SC_HANDLE manager = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    if (manager == nullptr) {
        return 0;
    }
    SC_LOCK lock = LockServiceDatabase(manager);
    if (lock != nullptr) {
        SC_HANDLE service = OpenServiceA(manager, m_serviceName, SERVICE_ALL_ACCESS);
        if (service != nullptr) {
            if (!ChangeServiceConfig2A(service, SERVICE_CONFIG_FAILURE_ACTIONS, actions)) {
                result = static_cast<int>(GetLastError());
            }
            CloseServiceHandle(service);
        }
        UnlockServiceDatabase(lock);
    }
    CloseServiceHandle(manager);
    return result;
}

int CServiceControlMgr::SetDefaultRecoveryOptions() {
    SC_ACTION actions[3] = {
        {SC_ACTION_RESTART, 10000},
        {SC_ACTION_RESTART, 10000},
        {SC_ACTION_NONE, 10000},
    };
    char empty[1] = {'\0'};
    SERVICE_FAILURE_ACTIONSA failureActions{86400, nullptr, empty, 3, actions};
    return SetRecoveryOptions(&failureActions);
}

int CServiceControlMgr::SetStartType(unsigned long startType) {
    int result = 0;
    SC_HANDLE manager = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    if (manager == nullptr) {
        return 0;
    }
    SC_LOCK lock = LockServiceDatabase(manager);
    if (lock != nullptr) {
        SC_HANDLE service = OpenServiceA(manager, m_serviceName, SERVICE_ALL_ACCESS);
        if (service != nullptr) {
            if (!ChangeServiceConfigA(service, SERVICE_NO_CHANGE, startType, SERVICE_NO_CHANGE,
                                      nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                      nullptr)) {
                result = static_cast<int>(GetLastError());
            }
            CloseServiceHandle(service);
        }
        UnlockServiceDatabase(lock);
    }
    CloseServiceHandle(manager);
    return result;
}

void CServiceControlMgr::GetServiceInfo(char const* name, bool& available, bool& running) {
    available = false;
    running = true;
    SC_HANDLE manager = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ENUMERATE_SERVICE);
    if (manager == nullptr) {
        return;
    }
    DWORD needed = 0;
    DWORD count = 0;
    DWORD resume = 0;
    EnumServicesStatusExA(manager, SC_ENUM_PROCESS_INFO, SERVICE_WIN32, SERVICE_STATE_ALL, nullptr,
                          0, &needed, &count, &resume, nullptr);
    if (needed == 0) {
        running = false;
    } else {
        std::vector<std::uint64_t> buffer((needed + 7) / 8);
        resume = 0;
        if (EnumServicesStatusExA(manager, SC_ENUM_PROCESS_INFO, SERVICE_WIN32, SERVICE_STATE_ALL,
                                  reinterpret_cast<unsigned char*>(buffer.data()), needed, &needed,
                                  &count, &resume, nullptr)) {
            const auto* services = reinterpret_cast<ENUM_SERVICE_STATUS_PROCESSA*>(buffer.data());
            for (DWORD i = 0; i < count; ++i) {
                if (name != nullptr && std::strstr(services[i].lpServiceName, name) != nullptr) {
                    available = true;
                    if (services[i].ServiceStatusProcess.dwCurrentState != SERVICE_RUNNING) {
                        running = false;
                    }
                }
            }
        }
    }
    CloseServiceHandle(manager);
}

bool CServiceControlMgr::IsServiceAvailble(char const* name) {
    bool available = false;
    bool running = false;
    GetServiceInfo(name, available, running);
    return available;
}

bool CServiceControlMgr::IsServiceRunning(char const* name) {
    bool available = false;
    bool running = false;
    GetServiceInfo(name, available, running);
    return available && running;
}

char* CServiceControlMgr::GetDependentString(std::vector<std::string> const& names, char** buffer) {
    std::size_t size = 0;
    for (const std::string& name : names) {
        if (!name.empty() && name != "NULL") {
            size += name.size() + 1;
        }
    }
    *buffer = nullptr;
    if (size == 0) {
        return nullptr;
    }
    char* list = new char[size + 1]();
    char* next = list;
    for (const std::string& name : names) {
        if (!name.empty() && name != "NULL") {
            std::memcpy(next, name.c_str(), name.size() + 1);
            next += name.size() + 1;
        }
    }
    *buffer = list;
    return list;
}

void CServiceControlMgr::DeleteDependentString(char* buffer) {
    delete[] buffer;
}
