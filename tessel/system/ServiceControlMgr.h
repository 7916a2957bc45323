// CServiceControlMgr: installs, starts, stops and removes the host's background services.
//
// An object names one service, optionally with a list of dependent services that Start starts
// after it and Stop stops before it (when the include-dependents flag is set), or, for the
// *All operations, a family of services: every service whose name contains the object's name
// (case-sensitive). It also sets a service's recovery actions and start type. The services are
// the platform's (tessel/platform/ServiceControl.h: systemd units).
//
// Every operation opens and closes its own handles; the object keeps no state about the
// service between calls. Results are 0 for success or a platform error number, with the
// deliberate exceptions: a manager or service that cannot be opened in Stop, Remove and the
// *All operations gives 0; Start of a service that runs already gives 0; a wait that ends in
// 997 gives 0 in Stop and Remove, 997 in Start. Each step logs under the category
// "CServiceControlMgr::Start", "::Stop", "::Remove" or "::Install".
//
// Timing: the calls block, for up to the sum of the pauses of the wait rule
// (WaitForServiceToReachState); Stop polls up to five seconds for a service to accept the stop
// control, so Stop of a service that is stopped already takes five seconds.
//
// Lifetime: the notify interface is not owned and must outlive the operations that report to
// it, including those queued by StartAsync and StopAsync, which work on a deep copy of the
// object and so are safe against its end. A copy made with the copy constructor or assignment
// shares its source's name and must not outlive it.
//
// Thread safety: the object has no lock; one object belongs to one thread at a time. The notify
// interface is called on the thread that does the work: a pool thread for the asynchronous
// forms.
#pragma once

#include <string>
#include <vector>

#include "tessel/Export.h"
#include "tessel/platform/ServiceControl.h"

// Tells how an operation on a service ended; every call gets the service name (for the *All
// operations, the family's name).
class TESSEL_API IServiceControlMgrNotify {
  public:
    IServiceControlMgrNotify() = default;
    IServiceControlMgrNotify(const IServiceControlMgrNotify&) = default;
    IServiceControlMgrNotify& operator=(const IServiceControlMgrNotify&) = default;
    virtual ~IServiceControlMgrNotify();

    virtual void OnStartAllSucceeded(char const* name) = 0;
    virtual void OnStartAllFailed(char const* name) = 0;
    virtual void OnStopAllSucceeded(char const* name) = 0;
    virtual void OnStopAllFailed(char const* name) = 0;
    virtual void OnStartSucceeded(char const* name) = 0;
    virtual void OnStartFailed(char const* name) = 0;
    virtual void OnStopSucceeded(char const* name) = 0;
    virtual void OnStopFailed(char const* name) = 0;
};

class TESSEL_API CServiceControlMgr {
  public:
    using SC_HANDLE = Tessel::Platform::SC_HANDLE;
    using SERVICE_STATUS = Tessel::Platform::SERVICE_STATUS;
    using SERVICE_FAILURE_ACTIONSA = Tessel::Platform::SERVICE_FAILURE_ACTIONSA;

    // name is copied (null counts as ""); notify may be null.
    CServiceControlMgr(char const* name, IServiceControlMgrNotify* notify, bool includeDependents);
    // Copies every member; the name is shared with other, not owned.
    CServiceControlMgr(CServiceControlMgr const& other);
    CServiceControlMgr& operator=(CServiceControlMgr const& other);
    // Deep copy: a name of its own, the dependents added one by one.
    explicit CServiceControlMgr(CServiceControlMgr const* other);
    ~CServiceControlMgr();

    // Appends dependent services, in order.
    void AddDependentService(std::string const& name);
    void AddDependentService(std::vector<std::string> const& names);

    // Installs the service with its dependents as dependencies, a description where given, set
    // to delayed automatic start whatever startType says. An empty user or password runs it
    // under the local system account.
    int Install(char const* displayName, unsigned long serviceType, unsigned long startType,
                unsigned long errorControl, char const* binaryPath, char const* user,
                char const* password, char const* description);

    // Starts the service and waits until it runs, then (include-dependents) each dependent;
    // the first failure ends it.
    int Start();
    // Stops the dependents first (include-dependents; a failure leaves the service running),
    // then the service, waiting until it has stopped.
    int Stop();
    // Stops the service where it runs and deletes it; no notification.
    int Remove();

    // Start or Stop on a deep copy, run on a pool thread: 0 queued, -1 not queued. The result
    // reaches the caller only through the notify interface.
    int StartAsync();
    int StopAsync();

    // Start, Stop or Remove of every service whose name contains the object's name; all are
    // tried, the result is the last failure's. StartAll and StopAll notify the family's end.
    int StartAll();
    int StopAll();
    int RemoveAll();

    // Sets the start type (Tessel::Platform::SERVICE_AUTO_START ...).
    int SetStartType(unsigned long startType);
    // Restart after 10 s twice, then nothing; the failure count resets after a day.
    int SetDefaultRecoveryOptions();
    // Sets the failure actions; 0 for null.
    int SetRecoveryOptions(SERVICE_FAILURE_ACTIONSA* actions);

    // available: some service's name contains name; running: every such service runs (true
    // when there is none, false when no service is listed at all).
    static void GetServiceInfo(char const* name, bool& available, bool& running);
    static bool IsServiceAvailble(char const* name);
    static bool IsServiceRunning(char const* name);

  protected:
    // The single-service steps of Start and Stop.
    static int Start(std::string const& name, IServiceControlMgrNotify* notify);
    static int Stop(std::string const& name, IServiceControlMgrNotify* notify);

    // Waits until service reaches state (SERVICE_RUNNING ...), status receiving the last status
    // read. Non-zero when reached; 0 with the last error set when a query failed or the
    // service stalled (ERROR_TIMEOUT).
    static int WaitForServiceToReachState(SC_HANDLE service, unsigned long state,
                                          SERVICE_STATUS* status);

    // The double-NUL-terminated list of names ("" and "NULL" left out) in a zeroed buffer, also
    // stored in *buffer; null when no name is left. Free it with DeleteDependentString.
    char* GetDependentString(std::vector<std::string> const& names, char** buffer);
    void DeleteDependentString(char* buffer);

    // The clock, the sleep and the status query that the operations use; a derived class (a
    // test) may replace them to run the wait rule on a clock of its own. Process-wide, not
    // guarded: replace them only while no operation runs.
    struct Clock {
        void (*sleep)(unsigned long milliseconds);
        unsigned long (*tickCount)();
        int (*queryStatus)(SC_HANDLE service, SERVICE_STATUS* status);
    };
    static Clock& clock();

  private:
    enum class Operation { Start, Stop, Remove };
    int ForEachService(Operation operation);

    char* m_serviceName;
    std::vector<std::string> m_dependentServices;
    IServiceControlMgrNotify* m_notify;
    bool m_includeDependents;
    bool m_ownsName;  // false for a copy that shares its source's name
};
