#include "tessel/monitoring/TelnetServer.h"

#include <boost/bind/bind.hpp>
#include <boost/system/system_error.hpp>
#include <chrono>
#include <string>
#include <thread>

#include "tessel/host/Registry.h"
#include "tessel/logging/ILogging.h"
#include "tessel/monitoring/TelnetConnectionHandler.h"
#include "tessel/platform/CrashHandling.h"
#include "tessel/platform/Sockets.h"

namespace {

const char* const MONITORING_KEY = "SOFTWARE\\Tarvo Works\\GPS Velkor\\Monitoring";

void throwOnError(const boost::system::error_code& error, const char* operation) {
    if (error) {
        throw boost::system::system_error(error, operation);
    }
}

const char* registryName(eApplicationsAndPorts application) {
    switch (application) {
        case HostInfoPort:
            return "HostInfoPort";
        case StationWorkerPort:
            return "StationWorkerPort";
        case SolutionWorkerPort:
            return "SolutionWorkerPort";
        case RecorderPort:
            return "RecorderPort";
        case CorrectionWorkerPort:
            return "CorrectionWorkerPort";
        case ConsolePort:
            return "ConsolePort";
        case CoordinatorPort:
            return "CoordinatorPort";
        case QuorvoPort:
            return "QuorvoPort";
        case OndrelProxyPort:
            return "OndrelProxyPort";
        case OndrelCentralPort:
            return "OndrelCentralPort";
        case SimulatedRoverPort:
            return "SimulatedRoverPort";
        case ReachabilityPort:
            return "ReachabilityPort";
    }
    return "";
}

}  // namespace

CTelnetServer::CTelnetServer(int port) : CTelnetServer(port, getPort(HostInfoPort, 0)) {}

CTelnetServer::CTelnetServer(int port, int hostInfoPort)
    : m_iPort(port), m_iHostInfoPort(hostInfoPort) {}

CTelnetServer::~CTelnetServer() {
    m_iRunning = 0;
    m_ioContext.stop();
    if (m_worker.joinable()) {
        m_worker.join();
    }
    m_hostInfoAcceptor.reset();
    m_acceptor.reset();
}

int CTelnetServer::getPort(eApplicationsAndPorts application, int instance) {
    long defaultPort = application;
    if (application == CoordinatorPort) {
        defaultPort += instance;
    }
    return static_cast<int>(
        REG::GetLong(MONITORING_KEY, registryName(application), defaultPort, false));
}

// The listener binds with address reuse, so that a restart finds its port free of the
// previous run's closing connections, and keeps it: address reuse never lets a second
// listener onto the port, while a listener without it would pass its setting on to the
// connections it accepts and block the next run's bind for as long as connections that the
// server closed (QUIT) linger. Only the host info port is shared with the other processes of
// the machine.
std::unique_ptr<CTelnetServer::Acceptor> CTelnetServer::openAcceptor(int port, bool shared) {
    auto acceptor = std::make_unique<Acceptor>(m_ioContext);
    const boost::asio::ip::tcp::endpoint endpoint(boost::asio::ip::tcp::v4(),
                                                  static_cast<unsigned short>(port));
    boost::system::error_code error;
    acceptor->open(endpoint.protocol(), error);
    throwOnError(error, "open");
    acceptor->set_option(Acceptor::reuse_address(true), error);
    throwOnError(error, "set_option");
    if (shared) {
        Tessel::Platform::SetSharedPort(*acceptor, true, error);
        throwOnError(error, "set_option");
    }
    acceptor->bind(endpoint, error);
    throwOnError(error, "bind");
    acceptor->listen(boost::asio::socket_base::max_listen_connections, error);
    throwOnError(error, "listen");
    return acceptor;
}

void CTelnetServer::start() {
    if (m_iPort > 0) {
        m_acceptor = openAcceptor(m_iPort, false);
        start_accept();
    }
    if (m_iHostInfoPort > 0) {
        m_hostInfoAcceptor = openAcceptor(m_iHostInfoPort, true);
        start_acceptMachineInfo();
    }
    m_iRunning = 1;
    m_worker = boost::thread(&CTelnetServer::workerThread, this);
}

void CTelnetServer::start_accept() {
    Connection connection = CTelnetConnectionHandler::create(m_ioContext);
    m_acceptor->async_accept(
        connection->socket(),
        boost::bind(&CTelnetServer::handle_accept, this, connection, boost::placeholders::_1));
}

void CTelnetServer::start_acceptMachineInfo() {
    Connection connection = CTelnetConnectionHandler::create(m_ioContext);
    m_hostInfoAcceptor->async_accept(connection->socket(),
                                     boost::bind(&CTelnetServer::handle_acceptMachineInfo, this,
                                                 connection, boost::placeholders::_1));
}

void CTelnetServer::handle_accept(Connection connection, const boost::system::error_code& error) {
    if (!m_acceptor->is_open()) {
        return;
    }
    if (!error) {
        connection->start();
    }
    start_accept();
}

void CTelnetServer::handle_acceptMachineInfo(Connection connection,
                                             const boost::system::error_code& error) {
    if (!m_hostInfoAcceptor->is_open()) {
        return;
    }
    if (!error) {
        connection->start();
    }
    start_acceptMachineInfo();
}

// Runs the connections until the server is destroyed. A command pass that throws (a
// BACKTRACE filter selecting an element without numeric ids) ends its connection, whose read
// chain it interrupted, and is logged; the server goes on with the others.
void CTelnetServer::workerThread() {
    Tessel::Platform::EnsureAlternateSignalStack();
    while (m_iRunning == 1) {
        boost::system::error_code error;
        std::size_t handlers = 0;
        try {
            handlers = m_ioContext.run(error);
        } catch (const std::exception& e) {
            ILogging::getInstance().log("CTelnetServer::workerThread", ILogging::Error,
                                        std::string("Command failed: ") + e.what());
            continue;
        }
        if (error) {
            throw boost::system::system_error(error);
        }
        if (m_iRunning != 1) {
            break;
        }
        // Nothing to do (no listener): wait instead of spinning.
        m_ioContext.restart();
        if (handlers == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
}
