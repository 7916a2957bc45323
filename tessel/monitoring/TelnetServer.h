// CTelnetServer: makes the process's element table reachable over TCP.
//
// It listens on up to two ports: the process's own monitor port, and the host info port that
// every process of the machine shares (the kernel hands each new connection to one of the
// listening processes). Each accepted connection is a CTelnetConnectionHandler, which serves
// Telnet commands or one HTTP request per connection. There is no authentication.
//
// Settings, values under the Monitoring key (below), read by start:
//   ListenAddress (REG_SZ): the IPv4 or IPv6 address that both ports listen on; missing or
//     empty: every IPv4 address of the machine.
//   MaxConnections (REG_DWORD): the most connections open at once, the two ports together;
//     a connection beyond it is closed as soon as it is accepted. 0 or missing: no limit.
//   IdleTimeoutSeconds (REG_DWORD): a connection that sends nothing for this long while no
//     REPEAT runs is closed. 0 or missing: never.
// A value that cannot be used (an address that is none, a number of another type) is logged
// and its default used.
//
// A failed accept (the process out of descriptors, for one) does not make the server spin:
// the next accept on that port waits 10 ms, each further failure in a row doubles the pause,
// up to 1 s. A run of failures is logged twice, when it begins (with the error) and when an
// accept succeeds again (with the number of failures).
//
// Metrics, in the element table below the process's own path, counted since construction:
// MonitorServer/RefusedConnections (closed at once for MaxConnections) and
// MonitorServer/FailedAccepts. A second server of the process counts below MonitorServer0,
// and so on. (The number of open connections is no element: it would change with every
// request that reads the table.)
//
// A host process creates one server after MonitorElementDatabase::init and calls start. One
// network thread runs the accepts, reads, timers and command passes of all connections, so a
// long pass on one connection delays the others; a connection that used REPEAT has a thread
// of its own for the repetitions.
//
// Ports: eApplicationsAndPorts names the default port of each server of the family; the
// enumerator's name is also the name of the registry value under
// "SOFTWARE\Tarvo Works\GPS Velkor\Monitoring" that overrides it (getPort).
//
// Lifetime: the destructor stops the network thread and closes the listeners and all
// connections. Must die before the element database. Not copyable.
#pragma once

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/thread.hpp>
#include <chrono>
#include <cstdint>
#include <memory>

#include "tessel/Export.h"
#include "tessel/monitoring/MonitorElementContainer.h"

class CMonitorElement;
class CTelnetConnectionHandler;

// Default monitor ports of the server processes; each name is also its registry value's name.
enum eApplicationsAndPorts {
    HostInfoPort = 9800,
    StationWorkerPort = 9801,
    SolutionWorkerPort = 9802,
    RecorderPort = 9803,
    CorrectionWorkerPort = 9804,
    ConsolePort = 9805,
    CoordinatorPort = 9812,
    QuorvoPort = 9830,
    OndrelProxyPort = 9831,
    OndrelCentralPort = 9832,
    SimulatedRoverPort = 9840,
    ReachabilityPort = 9841
};

class TESSEL_API CTelnetServer {
  public:
    // A server on port, with the host info port of getPort(HostInfoPort, 0). A port of 0 or
    // less has no listener.
    explicit CTelnetServer(int port);
    // A server on port and on hostInfoPort; 0 or less: no listener on that one.
    CTelnetServer(int port, int hostInfoPort);
    CTelnetServer(const CTelnetServer&) = delete;
    CTelnetServer& operator=(const CTelnetServer&) = delete;
    virtual ~CTelnetServer();

    // Reads the settings, opens the listeners and starts the network thread. A failed socket
    // operation throws boost::system::system_error whose text begins with the operation:
    // "open", "set_option", "bind" or "listen" (a port in use: "bind: Address already in
    // use"; a listen address that is not the machine's: "bind: Cannot assign requested
    // address").
    void start();

    // The port of application: the 32-bit registry value of the enumerator's name under
    // "SOFTWARE\Tarvo Works\GPS Velkor\Monitoring", else the enumerator's value (for
    // CoordinatorPort plus instance). A value found in the registry is not offset.
    static int getPort(eApplicationsAndPorts application, int instance);

  private:
    using Acceptor = boost::asio::ip::tcp::acceptor;
    using Connection = boost::shared_ptr<CTelnetConnectionHandler>;

    // The pause of one listener after failed accepts.
    struct AcceptPause {
        explicit AcceptPause(boost::asio::io_context& io) : timer(io) {}
        boost::asio::steady_timer timer;
        std::chrono::milliseconds next{0};  // the coming pause; 0 while accepts succeed
        std::uint64_t failures = 0;         // of the current run
    };

    void readSettings();
    std::unique_ptr<Acceptor> openAcceptor(int port, bool shared);
    void start_accept();
    void start_acceptMachineInfo();
    void handle_accept(Connection connection, const boost::system::error_code& error);
    void handle_acceptMachineInfo(Connection connection, const boost::system::error_code& error);
    // Starts or refuses an accepted connection, or notes a failure. True when the next accept
    // may start at once; false when it must wait for pause.timer.
    bool admit(const Connection& connection, const boost::system::error_code& error,
               AcceptPause& pause, int port);
    void workerThread();

    int m_iPort;
    int m_iHostInfoPort;
    boost::asio::ip::address m_listenAddress;  // set by start
    std::uint32_t m_maxConnections = 0;        // set by start; 0: no limit
    std::uint32_t m_idleTimeoutSeconds = 0;    // set by start; 0: never

    // The metrics, and the number of open connections, which each connection lowers when it
    // goes: declared before the io context, whose destruction destroys the connections still
    // pending.
    CMonitorElementContainer m_metrics;
    CMonitorElement* m_refusedElement;
    CMonitorElement* m_failedAcceptsElement;
    std::atomic<std::uint64_t> m_openConnections{0};
    std::uint64_t m_refused = 0;        // network thread only
    std::uint64_t m_failedAccepts = 0;  // network thread only

    boost::asio::io_context m_ioContext;
    std::unique_ptr<Acceptor> m_acceptor;          // network thread after start
    std::unique_ptr<Acceptor> m_hostInfoAcceptor;  // network thread after start
    boost::thread m_worker;
    std::atomic<int> m_iRunning{0};
    AcceptPause m_acceptPause{m_ioContext};          // network thread after start
    AcceptPause m_hostInfoAcceptPause{m_ioContext};  // network thread after start
};
