// CTelnetServer: makes the process's element table reachable over TCP.
//
// It listens on up to two ports of all local IPv4 addresses: the process's own monitor port,
// and the host info port that every process of the machine shares (the kernel hands each new
// connection to one of the listening processes). Each accepted connection is a
// CTelnetConnectionHandler, which serves Telnet commands or one HTTP request per connection.
// There is no authentication and no limit on the number of connections.
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
// connections. Not copyable.
#pragma once

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/thread.hpp>
#include <memory>

#include "tessel/Export.h"

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

    // Opens the listeners and starts the network thread. A failed socket operation throws
    // boost::system::system_error whose text begins with the operation: "open",
    // "set_option", "bind" or "listen" (a port in use: "bind: Address already in use").
    void start();

    // The port of application: the 32-bit registry value of the enumerator's name under
    // "SOFTWARE\Tarvo Works\GPS Velkor\Monitoring", else the enumerator's value (for
    // CoordinatorPort plus instance). A value found in the registry is not offset.
    static int getPort(eApplicationsAndPorts application, int instance);

  private:
    using Acceptor = boost::asio::ip::tcp::acceptor;
    using Connection = boost::shared_ptr<CTelnetConnectionHandler>;

    std::unique_ptr<Acceptor> openAcceptor(int port, bool shared);
    void start_accept();
    void start_acceptMachineInfo();
    void handle_accept(Connection connection, const boost::system::error_code& error);
    void handle_acceptMachineInfo(Connection connection, const boost::system::error_code& error);
    void workerThread();

    int m_iPort;
    int m_iHostInfoPort;
    boost::asio::io_context m_ioContext;
    std::unique_ptr<Acceptor> m_acceptor;          // network thread after start
    std::unique_ptr<Acceptor> m_hostInfoAcceptor;  // network thread after start
    boost::thread m_worker;
    std::atomic<int> m_iRunning{0};
};
