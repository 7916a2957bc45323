#include "tessel/monitoring/TelnetServer.h"

#include <algorithm>
#include <boost/bind/bind.hpp>
#include <boost/system/system_error.hpp>
#include <chrono>
#include <climits>
#include <string>
#include <thread>

#include "tessel/host/Registry.h"
#include "tessel/logging/ILogging.h"
#include "tessel/monitoring/MonitorElement.h"
#include "tessel/monitoring/TelnetConnectionHandler.h"
#include "tessel/platform/CrashHandling.h"
#include "tessel/platform/Sockets.h"

namespace {

const char* const MONITORING_KEY = "SOFTWARE\\Tarvo Works\\GPS Velkor\\Monitoring";

// The pauses after failed accepts: the first, and the most that doubling reaches.
constexpr std::chrono::milliseconds FIRST_ACCEPT_PAUSE(10);
constexpr std::chrono::milliseconds LONGEST_ACCEPT_PAUSE(1000);

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

// Logs without letting a failure of the log end the network thread: out of descriptors, even
// the log's construction at its first use fails.
void logQuietly(const char* category, ILogging::LogLevels level,
                const std::string& message) noexcept {
    try {
        ILogging::getInstance().log(category, level, message);
    } catch (...) {
    }
}

// A REG_DWORD setting under the Monitoring key, 0 when it is missing or of another type; the
// latter is logged.
std::uint32_t dwordSetting(const char* name) {
    // LONG_MIN is no 32-bit value: the read missed.
    const long value = REG::GetLong(MONITORING_KEY, name, LONG_MIN, false);
    if (value != LONG_MIN) {
        return static_cast<std::uint32_t>(value);
    }
    if (!REG::Get(MONITORING_KEY, name, nullptr).empty()) {
        logQuietly("CTelnetServer::readSettings", ILogging::Warn,
                   std::string("Setting ") + name + " is not a REG_DWORD; its default 0 is used.");
    }
    return 0;
}

// The element, or a stand-in outside the table when the table refused it.
CMonitorElement* orUnlisted(CMonitorElement* element) {
    static CMonitorElement unlisted;
    return element != nullptr ? element : &unlisted;
}

}  // namespace

CTelnetServer::CTelnetServer(int port) : CTelnetServer(port, getPort(HostInfoPort, 0)) {}

CTelnetServer::CTelnetServer(int port, int hostInfoPort)
    : m_iPort(port),
      m_iHostInfoPort(hostInfoPort),
      m_listenAddress(boost::asio::ip::address_v4::any()) {
    m_metrics.setBaseWithUniqeName("MonitorServer");
    m_refusedElement = orUnlisted(m_metrics.add("RefusedConnections", ""));
    m_failedAcceptsElement = orUnlisted(m_metrics.add("FailedAccepts", ""));
}

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
    const boost::asio::ip::tcp::endpoint endpoint(m_listenAddress,
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

void CTelnetServer::readSettings() {
    m_listenAddress = boost::asio::ip::address_v4::any();
    std::string text = REG::Get(MONITORING_KEY, "ListenAddress", nullptr);
    text.erase(0, text.find_first_not_of(" \t"));
    text.erase(text.find_last_not_of(" \t") + 1);
    if (!text.empty()) {
        boost::system::error_code error;
        const boost::asio::ip::address address = boost::asio::ip::make_address(text, error);
        if (error) {
            logQuietly("CTelnetServer::readSettings", ILogging::Warn,
                       "Setting ListenAddress \"" + text +
                           "\" is no IPv4 or IPv6 address; listening on all IPv4 addresses.");
        } else {
            m_listenAddress = address;
        }
    }
    m_maxConnections = dwordSetting("MaxConnections");
    m_idleTimeoutSeconds = dwordSetting("IdleTimeoutSeconds");
}

void CTelnetServer::start() {
    readSettings();
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
    if (admit(connection, error, m_acceptPause, m_iPort)) {
        start_accept();
        return;
    }
    m_acceptPause.timer.async_wait([this](const boost::system::error_code& waited) {
        if (!waited && m_acceptor->is_open()) {
            start_accept();
        }
    });
}

void CTelnetServer::handle_acceptMachineInfo(Connection connection,
                                             const boost::system::error_code& error) {
    if (!m_hostInfoAcceptor->is_open()) {
        return;
    }
    if (admit(connection, error, m_hostInfoAcceptPause, m_iHostInfoPort)) {
        start_acceptMachineInfo();
        return;
    }
    m_hostInfoAcceptPause.timer.async_wait([this](const boost::system::error_code& waited) {
        if (!waited && m_hostInfoAcceptor->is_open()) {
            start_acceptMachineInfo();
        }
    });
}

// A failed accept leaves the waiting connection in the listener's queue, so an accept started
// at once would fail again at once for as long as the cause lasts (no descriptor free).
bool CTelnetServer::admit(const Connection& connection, const boost::system::error_code& error,
                          AcceptPause& pause, int port) {
    if (error) {
        m_failedAcceptsElement->set(static_cast<double>(++m_failedAccepts));
        if (pause.failures++ == 0) {
            logQuietly(
                "CTelnetServer::admit", ILogging::Warn,
                "Accepting a connection on port " + std::to_string(port) +
                    " failed: " + error.message() + ". Accepts are retried after pauses of " +
                    std::to_string(FIRST_ACCEPT_PAUSE.count()) + " ms doubling up to " +
                    std::to_string(LONGEST_ACCEPT_PAUSE.count()) + " ms until one succeeds.");
        }
        pause.next = pause.next.count() == 0 ? FIRST_ACCEPT_PAUSE
                                             : std::min(pause.next * 2, LONGEST_ACCEPT_PAUSE);
        pause.timer.expires_after(pause.next);
        return false;
    }
    if (pause.failures != 0) {
        logQuietly("CTelnetServer::admit", ILogging::Info,
                   "Accepting connections on port " + std::to_string(port) + " works again after " +
                       std::to_string(pause.failures) + " failed accepts.");
        pause.failures = 0;
        pause.next = std::chrono::milliseconds(0);
    }
    if (m_maxConnections != 0 && m_openConnections >= m_maxConnections) {
        m_refusedElement->set(static_cast<double>(++m_refused));
        boost::system::error_code ignored;
        connection->socket().close(ignored);
        return true;
    }
    ++m_openConnections;
    connection->setIdleTimeout(m_idleTimeoutSeconds);
    connection->setOnEnd([this] { --m_openConnections; });
    connection->start();
    return true;
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
            logQuietly("CTelnetServer::workerThread", ILogging::Error,
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
