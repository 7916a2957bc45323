#include "tessel/monitoring/TelnetConnectionHandler.h"

#include <algorithm>
#include <boost/asio/write.hpp>
#include <boost/bind/bind.hpp>
#include <boost/lexical_cast.hpp>
#include <boost/make_shared.hpp>
#include <cctype>
#include <chrono>
#include <limits>
#include <map>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tessel/logging/ILogging.h"
#include "tessel/monitoring/MonitorElementDatabase.h"
#include "tessel/platform/CrashHandling.h"
#include "tessel/platform/Sockets.h"

namespace {

const std::string CLEAR_SCREEN = "\x1b[2J";
constexpr char ESC = 27;
constexpr char BACKSPACE = 8;

// The blank-separated tokens of line, blanks dropped.
std::vector<std::string> splitAtBlanks(const std::string& line) {
    std::vector<std::string> tokens;
    std::size_t position = 0;
    while (position < line.size()) {
        const std::size_t start = line.find_first_not_of(' ', position);
        if (start == std::string::npos) {
            break;
        }
        std::size_t end = line.find(' ', start);
        if (end == std::string::npos) {
            end = line.size();
        }
        tokens.push_back(line.substr(start, end - start));
        position = end;
    }
    return tokens;
}

// The parameters of a request target's query: the text behind the last '?', split at '&';
// a stretch without '=' is skipped, a later parameter overwrites an earlier one of its name.
// Nothing is percent-decoded. False if the target has no '?'.
bool parseQuery(const std::string& target, std::map<std::string, std::string>& parameters) {
    const std::size_t question = target.rfind('?');
    if (question == std::string::npos) {
        return false;
    }
    std::size_t position = question + 1;
    while (position <= target.size()) {
        std::size_t end = target.find('&', position);
        if (end == std::string::npos) {
            end = target.size();
        }
        const std::string stretch = target.substr(position, end - position);
        const std::size_t equals = stretch.find('=');
        if (equals != std::string::npos) {
            parameters[stretch.substr(0, equals)] = stretch.substr(equals + 1);
        }
        position = end + 1;
    }
    return true;
}

}  // namespace

CTelnetConnectionHandler::pointer CTelnetConnectionHandler::create(boost::asio::io_context& io) {
    return pointer(new CTelnetConnectionHandler(io));
}

CTelnetConnectionHandler::CTelnetConnectionHandler(boost::asio::io_context& io)
    : m_pDatabase(&MonitorElementDatabase::getInstance()),
      m_observer(&m_text),
      m_socket(io),
      m_hostName(Tessel::Platform::GetHostName()),
      m_serverName(std::string("Velkor Monitoring Framework") + " " + "7.7.0" + "." + "9062") {}

// A REPEAT thread blocked in a write to a client that no longer reads would never come back
// to see the stop; shutting the socket down first ends such a write. The socket is closed
// before the end hook runs, so that whoever counts connections counts descriptors too.
CTelnetConnectionHandler::~CTelnetConnectionHandler() {
    m_bRepeatRunning = false;
    boost::system::error_code ignored;
    if (m_repeatThread) {
        m_socket.shutdown(boost::asio::ip::tcp::socket::shutdown_both, ignored);
        {
            boost::lock_guard<boost::mutex> lock(m_repeatWaitLock);
            m_repeatWake.notify_all();
        }
        m_repeatThread->join();
    }
    m_socket.close(ignored);
    if (m_onEnd) {
        m_onEnd();
    }
}

void CTelnetConnectionHandler::setIdleTimeout(std::uint32_t seconds) {
    m_idleTimeout = std::chrono::seconds(seconds);
}

void CTelnetConnectionHandler::setOnEnd(std::function<void()> onEnd) {
    m_onEnd = std::move(onEnd);
}

// Small writes (prompt, clear-screen) go out at once: an operator's console and a monitoring
// tool both wait for the last byte of a reply.
void CTelnetConnectionHandler::start() {
    boost::system::error_code ignored;
    m_socket.set_option(boost::asio::ip::tcp::no_delay(true), ignored);
    m_welcomeTimer = boost::make_shared<boost::asio::deadline_timer>(m_socket.get_executor(),
                                                                     boost::posix_time::seconds(1));
    m_welcomeTimer->async_wait(boost::bind(&CTelnetConnectionHandler::handleWelcomeTimer,
                                           shared_from_this(), boost::placeholders::_1));
    if (m_idleTimeout.count() > 0) {
        m_lastInput = std::chrono::steady_clock::now();
        m_idleTimer = std::make_unique<boost::asio::steady_timer>(m_socket.get_executor());
        startIdleTimer(m_idleTimeout);
    }
    startRead();
}

void CTelnetConnectionHandler::startRead() {
    m_socket.async_read_some(boost::asio::buffer(m_input, sizeof(m_input)),
                             boost::bind(&CTelnetConnectionHandler::handleRead, shared_from_this(),
                                         boost::placeholders::_1, boost::placeholders::_2));
}

void CTelnetConnectionHandler::handleRead(const boost::system::error_code& error,
                                          std::size_t bytes) {
    if (error) {
        // The timers' waits hold the connection too; they end with the reads.
        if (m_welcomeTimer) {
            m_welcomeTimer->cancel();
        }
        if (m_idleTimer) {
            m_idleTimer->cancel();
        }
        return;
    }
    if (m_idleTimer) {
        m_lastInput = std::chrono::steady_clock::now();
    }
    // Bytes behind a QUIT or an over-long request are not looked at: the socket is closed.
    for (std::size_t i = 0; i < bytes && m_socket.is_open(); ++i) {
        handleInput(m_input[i]);
    }
    startRead();
}

void CTelnetConnectionHandler::handleWelcomeTimer(const boost::system::error_code& error) {
    if (error == boost::asio::error::operation_aborted) {
        return;
    }
    m_welcomeTimer.reset();
    sendWelcome();
}

void CTelnetConnectionHandler::startIdleTimer(std::chrono::steady_clock::duration wait) {
    m_idleTimer->expires_after(wait);
    m_idleTimer->async_wait(boost::bind(&CTelnetConnectionHandler::handleIdleTimer,
                                        shared_from_this(), boost::placeholders::_1));
}

// Rather than restarting the timer at every read, the timer looks at the time of the last
// input when it fires and waits for the rest. A running REPEAT counts as input.
void CTelnetConnectionHandler::handleIdleTimer(const boost::system::error_code& error) {
    if (error == boost::asio::error::operation_aborted || !m_socket.is_open()) {
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    if (m_bRepeatActive) {
        m_lastInput = now;
    }
    if (now - m_lastInput >= m_idleTimeout) {
        closeConnection();
        return;
    }
    startIdleTimer(m_lastInput + m_idleTimeout - now);
}

void CTelnetConnectionHandler::closeConnection() {
    boost::lock_guard<boost::mutex> lock(m_connectionLock);
    boost::system::error_code ignored;
    m_socket.close(ignored);
}

void CTelnetConnectionHandler::sendWelcome() {
    send(CLEAR_SCREEN + "Welcome to Velkor telnet server " + m_hostName + "\r\n");
    sendPrompt();
}

void CTelnetConnectionHandler::sendPrompt() {
    send("\r\n" + m_hostName + "> ");
}

void CTelnetConnectionHandler::sendHelp() {
    send(CLEAR_SCREEN +
         "--------------------\r\n"
         "| List of commands | \r\n"
         "--------------------\r\n"
         "(l)list\t\t\t\t - list root elements\r\n"
         "(p)rint <FILTER> \t\t - print values\r\n"
         "(j)son <FILTER> \t\t - print values in JSON format\r\n"
         "(r)epeat [SECONDS=1] \t\t - repeats previous command every [SECONDS]\r\n"
         "(a)ggregate <FILTER> \t\t - aggregate and print values\r\n"
         "(w)atch <FILTER> \t\t - watch values\r\n"
         "(bt)backtrace <FILTER> \t\t - stack trace of given thread and process\r\n"
         "rate <FILTER> \t\t\t - print rate values\r\n"
         "(t)op <FILTER> \t\t\t - print top 10 elements\r\n"
         "reset <FILTER> \t\t\t - reset values\r\n"
         "(q)uit \t\t\t\t - stop telnet session\r\n");
}

// A blocking write of the whole text; a failure is ignored, the read decides the end.
void CTelnetConnectionHandler::send(const std::string& data) {
    if (!m_socket.is_open()) {
        return;
    }
    std::size_t offset = 0;
    while (offset < data.size()) {
        const std::size_t piece = std::min(WRITE_PIECE, data.size() - offset);
        boost::system::error_code error;
        const std::size_t written =
            boost::asio::write(m_socket, boost::asio::buffer(data.data() + offset, piece), error);
        if (error) {
            return;
        }
        offset += written;
    }
}

void CTelnetConnectionHandler::handleInput(char c) {
    if (c == '\n') {
        handleLineEnd();
        return;
    }
    if (c == ESC) {
        m_ullInputState = 1;
        return;
    }
    switch (m_ullInputState) {
        case 1:
            m_ullInputState = c == '[' ? 2 : 0;
            return;
        case 2:
            handleCursorKey(c);
            m_ullInputState = 0;
            return;
        default:
            break;
    }
    if (c == BACKSPACE) {
        if (!m_line.empty()) {
            m_line.pop_back();
            send(std::string(" ") + " " + BACKSPACE + BACKSPACE);
        } else {
            send(" ");
        }
    } else if (c >= 32 && c <= 126) {
        if (m_line.size() >= MAX_REQUEST_LENGTH) {
            closeConnection();
            return;
        }
        m_line += c;
    }
    resetHistoryPosition();
}

void CTelnetConnectionHandler::handleLineEnd() {
    if (m_line.compare(0, 3, "GET") == 0) {
        if (m_welcomeTimer) {
            m_welcomeTimer->cancel();
        }
        m_line += '\n';
        // The length first: empty lines that each answer the request again must not let
        // the request grow without bound either.
        if (m_line.size() > MAX_REQUEST_LENGTH) {
            closeConnection();
        } else if (m_line.compare(m_line.size() - 2, 2, "\n\n") == 0) {
            handleHttpRequest();
        }
        resetHistoryPosition();
        m_ullInputState = 0;
        return;
    }

    addToHistory(m_line);
    std::transform(m_line.begin(), m_line.end(), m_line.begin(),
                   [](unsigned char ch) { return static_cast<char>(std::toupper(ch)); });
    if (!parseCommand()) {
        {
            boost::lock_guard<boost::mutex> lock(m_connectionLock);
            m_observer.setMode(CMonitorElementObserver::None);
        }
        sendHelp();
    } else {
        executeCommand();
    }
    sendPrompt();
    m_line.clear();
    resetHistoryPosition();
    m_ullInputState = 0;
}

void CTelnetConnectionHandler::addToHistory(const std::string& line) {
    if (!line.empty() && m_history.size() < MAX_HISTORY_LINES &&
        line.size() <= MAX_HISTORY_BYTES - m_historyBytes) {
        m_history.push_front(line);
        m_historyBytes += line.size();
    }
}

// One step through the history, newest first; direction 1 goes back in time, -1 forward.
// Stepping forward past the newest line leaves browsing with an empty line.
const std::string& CTelnetConnectionHandler::historyStep(int direction) {
    if (m_ullHistoryPosition == 0 && direction == -1) {
        m_bHistoryBrowsing = false;
        return m_emptyString;
    }
    const std::uint64_t next = m_ullHistoryPosition + direction;
    if (m_bHistoryBrowsing && next < m_history.size()) {
        m_ullHistoryPosition = next;
    }
    m_bHistoryBrowsing = true;
    return m_history[m_ullHistoryPosition];
}

void CTelnetConnectionHandler::resetHistoryPosition() {
    m_ullHistoryPosition = 0;
    m_bHistoryBrowsing = false;
}

// ESC '[' c: 'A' (up) recalls an older line, 'B' (down) a newer one. A line being typed is
// kept in the history before browsing starts.
void CTelnetConnectionHandler::handleCursorKey(char c) {
    if (m_history.empty()) {
        return;
    }
    if (!m_bHistoryBrowsing && !m_line.empty()) {
        addToHistory(m_line);
        historyStep(1);
    }
    if (c == 'A') {
        m_line = historyStep(1);
    } else if (c == 'B') {
        m_line = historyStep(-1);
    }
    send(CLEAR_SCREEN + "\r\n" + m_hostName + "> " + m_line);
}

bool CTelnetConnectionHandler::parseCommand() {
    // Cleared before the lock too, so that a repeat running without pause lets go of the
    // lock at its next turn instead of competing for it.
    m_bRepeatActive = false;
    boost::lock_guard<boost::mutex> lock(m_connectionLock);
    m_bRepeatActive = false;

    const std::vector<std::string> tokens = splitAtBlanks(m_line);
    const std::string command = tokens.empty() ? std::string() : tokens[0];
    const std::string argument = tokens.size() > 1 ? tokens[1] : std::string();

    auto select = [&](CMonitorElementObserver::eObserverMode mode) {
        m_observer.setMode(mode);
        m_observer.setFilter(argument);
        return true;
    };
    if (command == "QUIT" || command == "Q") {
        boost::system::error_code ignored;
        m_socket.close(ignored);
        return true;
    }
    if (command == "PRINT" || command == "P") {
        return select(CMonitorElementObserver::Print);
    }
    if (command == "JSON" || command == "J") {
        return select(CMonitorElementObserver::Json);
    }
    if (command == "BACKTRACE" || command == "BT") {
        return select(CMonitorElementObserver::Backtrace);
    }
    if (command == "TOP" || command == "T") {
        return select(CMonitorElementObserver::Top);
    }
    if (command == "AGGREGATE" || command == "A") {
        return select(CMonitorElementObserver::Aggregate);
    }
    if (command == "WATCH" || command == "W") {
        return select(CMonitorElementObserver::Watch);
    }
    if (command == "LIST" || command == "L") {
        m_observer.setMode(CMonitorElementObserver::List);
        m_observer.setFilter("*");
        return true;
    }
    if (command == "RATE") {
        return select(CMonitorElementObserver::Rate);
    }
    if (command.empty()) {
        return true;
    }
    if (command == "REPEAT" || command == "R") {
        startRepeat(argument);
        return true;
    }
    if (command == "RESET") {
        select(CMonitorElementObserver::Reset);
        m_observer.setResetValue(0.0);
        return true;
    }
    return false;
}

// Called under the connection lock. A missing or unreadable argument means every second;
// 0 or a negative number repeats without a pause.
void CTelnetConnectionHandler::startRepeat(const std::string& argument) {
    std::int64_t seconds = 1;
    if (!argument.empty()) {
        try {
            seconds = std::stoi(argument, nullptr, 10);
        } catch (const std::exception&) {
            seconds = 1;
        }
    }
    if (!m_repeatThread) {
        m_bRepeatRunning = true;
        m_repeatThread =
            std::make_unique<boost::thread>(&CTelnetConnectionHandler::repeatThread, this);
    }
    m_repeatSeconds = seconds;
    m_bRepeatActive = true;
}

void CTelnetConnectionHandler::repeatThread() {
    Tessel::Platform::EnsureAlternateSignalStack();
    while (m_bRepeatRunning) {
        if (m_bRepeatActive) {
            try {
                executeCommand();
            } catch (const std::exception& e) {
                // A pass that throws (a BACKTRACE filter that selects an element without
                // numeric ids) ends the repetition, not the process.
                m_bRepeatActive = false;
                ILogging::getInstance().log("CTelnetConnectionHandler::repeatThread",
                                            ILogging::Error,
                                            std::string("Repeated command failed: ") + e.what());
            }
        }
        const std::int64_t seconds = m_repeatSeconds;
        if (seconds <= 0) {
            std::this_thread::yield();
            continue;
        }
        boost::unique_lock<boost::mutex> lock(m_repeatWaitLock);
        m_repeatWake.wait_for(lock, boost::chrono::seconds(seconds),
                              [this] { return !m_bRepeatRunning; });
    }
}

void CTelnetConnectionHandler::executeCommand() {
    boost::lock_guard<boost::mutex> lock(m_connectionLock);
    send(CLEAR_SCREEN);
    m_text.str(std::string());
    m_text.clear();
    if (m_observer.getMode() != CMonitorElementObserver::None) {
        m_pDatabase->update(m_observer);
        send(m_text.str());
    }
}

// Only the request line is read: the query of its target selects filter, format, limit and
// truncation; headers and version are ignored, and so is the path, except "/metrics", which
// answers in the Prometheus format with the filter "**" unless the query says otherwise.
void CTelnetConnectionHandler::handleHttpRequest() {
    boost::lock_guard<boost::mutex> lock(m_connectionLock);
    auto badRequest = [this] {
        sendHttpResponse("400", "Bad Request", "text/plain", "Bad Request");
    };

    const std::size_t first = m_line.find(' ');
    const std::size_t second = first == std::string::npos ? first : m_line.find(' ', first + 1);
    if (second == std::string::npos) {
        return badRequest();
    }
    const std::string target = m_line.substr(first + 1, second - first - 1);
    std::map<std::string, std::string> parameters;
    const bool metricsPath = target.substr(0, target.find('?')) == "/metrics";
    if (!parseQuery(target, parameters) && !metricsPath) {
        return badRequest();
    }
    if (metricsPath) {
        parameters.emplace("filter", "**");
        parameters.emplace("format", "prometheus");
    }

    auto filter = parameters.find("filter");
    if (filter == parameters.end() || filter->second.empty()) {
        return badRequest();
    }
    m_observer.setFilter(filter->second);

    auto format = parameters.find("format");
    if (format != parameters.end() && format->second == "json") {
        m_observer.setMode(CMonitorElementObserver::Json);
        m_observer.setStripCommonPath(false);
    } else if (format != parameters.end() && format->second == "prtg") {
        m_observer.setMode(CMonitorElementObserver::Prtg);
        m_observer.setStripCommonPath(true);
    } else if (format != parameters.end() && format->second == "prometheus") {
        m_observer.setMode(CMonitorElementObserver::Prometheus);
        m_observer.setStripCommonPath(false);
    } else {
        return badRequest();
    }

    m_observer.setMinimumValue(-std::numeric_limits<double>::infinity());
    auto limit = parameters.find("limit");
    if (limit != parameters.end()) {
        double minimum = 0.0;
        if (!boost::conversion::try_lexical_convert(limit->second, minimum)) {
            return badRequest();
        }
        m_observer.setMinimumValue(minimum);
    }

    auto truncate = parameters.find("truncate");
    if (truncate != parameters.end()) {
        if (truncate->second == "true" || truncate->second == "1") {
            m_observer.setStripCommonPath(true);
        } else if (truncate->second == "false" || truncate->second == "0") {
            m_observer.setStripCommonPath(false);
        } else {
            return badRequest();
        }
    }

    m_text.str(std::string());
    m_text.clear();
    m_pDatabase->update(m_observer);
    sendHttpResponse("200", "OK",
                     m_observer.getMode() == CMonitorElementObserver::Prometheus
                         ? "text/plain; version=0.0.4; charset=utf-8"
                         : "application/json",
                     m_text.str());
}

// The Date header goes out empty; the connection stays open despite "Connection: close"
// until the client closes it.
void CTelnetConnectionHandler::sendHttpResponse(const std::string& status,
                                                const std::string& reason, const std::string& type,
                                                const std::string& body) {
    m_response.str(std::string());
    m_response.clear();
    m_response << "HTTP/1.1 " << status << " " << reason << "\r\n"
               << "Date: "
               << "\r\n"
               << "Server: " << m_serverName << "\r\n"
               << "Cache-Control: no-cache, no-store, must-revalidate\r\n"
               << "Pragma: no-cache\r\n"
               << "Expires: 0\r\n"
               << "Content-Type: " << type << "\r\n"
               << "Content-Length: " << body.size() << "\r\n"
               << "Connection: close\r\n"
               << "\r\n"
               << body;
    send(m_response.str());
}
