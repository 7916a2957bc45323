// CTelnetConnectionHandler: one connection of the monitor server.
//
// A connection speaks two protocols at once, and its first line decides which: a line that
// begins with "GET" makes it an HTTP connection that answers the request's query (filter,
// format json or prtg, limit, truncate) with a JSON rendering of the element table; any other
// line is a command of the Telnet language (PRINT, JSON, TOP, AGGREGATE, WATCH, LIST, RATE,
// RESET, BACKTRACE, REPEAT, QUIT) for an operator at a console. A connection that stays silent
// for one second is greeted with the Telnet banner; an HTTP request line normally arrives
// before that and cancels the greeting.
//
// Input is read as it arrives and fed byte by byte to handleInput, a small state machine
// with a line buffer, a command history of at most 1000 lines (and at most 4 MiB in all) and
// the cursor keys Up and Down. A line, Telnet command or HTTP request, of more than 4 MiB
// closes the connection the moment it passes the limit, so a client cannot make the line
// grow without bound. Typed characters are not echoed: a Telnet client echoes locally. Output
// of a command is built completely in memory by the connection's observer and written in one
// blocking write, in pieces of at most 65,536 bytes; a failed write is ignored and the
// connection goes on until its read fails. By default there are no time-outs and a silent
// client keeps its connection; setIdleTimeout closes one that sends nothing for a while.
//
// Lifetime: always held by a boost::shared_ptr (create); every pending asynchronous operation
// holds one, so the connection lives until its last operation has ended; a failed read ends
// the timers' waits too. The destructor stops and joins the REPEAT thread, closes the socket
// and then calls the end hook (setOnEnd).
//
// Thread safety: the server's network thread runs the reads, the timers and handleInput; the
// REPEAT thread runs the execute step alone. The connection lock serialises command parsing,
// passes and HTTP handling; it is taken before the element database's lock.
#pragma once

#include <atomic>
#include <boost/asio/deadline_timer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/thread.hpp>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <sstream>
#include <string>

#include "tessel/Export.h"
#include "tessel/monitoring/MonitorElementObserver.h"

class MonitorElementDatabase;

class TESSEL_API CTelnetConnectionHandler
    : public boost::enable_shared_from_this<CTelnetConnectionHandler> {
  public:
    using pointer = boost::shared_ptr<CTelnetConnectionHandler>;

    // Longest line, and longest HTTP request with its line ends, in bytes: 4 MiB. One byte
    // more closes the connection.
    static constexpr std::size_t MAX_REQUEST_LENGTH = 4194304;
    // Most lines that the command history keeps.
    static constexpr std::size_t MAX_HISTORY_LINES = 1000;
    // Most bytes that the lines of the command history hold together: 4 MiB.
    static constexpr std::size_t MAX_HISTORY_BYTES = 4194304;
    // Bytes per system call of a write.
    static constexpr std::size_t WRITE_PIECE = 65536;

    // A connection whose socket belongs to io; not yet connected.
    static pointer create(boost::asio::io_context& io);

    CTelnetConnectionHandler(const CTelnetConnectionHandler&) = delete;
    CTelnetConnectionHandler& operator=(const CTelnetConnectionHandler&) = delete;
    virtual ~CTelnetConnectionHandler();

    // The socket that an acceptor connects.
    boost::asio::ip::tcp::socket& socket() { return m_socket; }

    // Closes the connection once it has received nothing for seconds while no REPEAT runs
    // (a connection with a REPEAT running is never idle); 0, the default, never. Call before
    // start.
    void setIdleTimeout(std::uint32_t seconds);
    // onEnd is called once, by the destructor, on the thread that lets go of the last
    // reference (the server's network thread, or the thread that destroys the server). Call
    // before start.
    void setOnEnd(std::function<void()> onEnd);

    // Starts a connected connection: the one-second welcome timer, the idle timer if set and
    // the byte-wise reads.
    void start();

    // Hands one received byte to the input handler; the read chain calls it for every byte.
    void handleInput(char c);

  private:
    explicit CTelnetConnectionHandler(boost::asio::io_context& io);

    void startRead();
    void handleRead(const boost::system::error_code& error, std::size_t bytes);
    void handleWelcomeTimer(const boost::system::error_code& error);
    void startIdleTimer(std::chrono::steady_clock::duration wait);
    void handleIdleTimer(const boost::system::error_code& error);
    // Closes the socket under the connection lock, which a running REPEAT's writes hold.
    void closeConnection();
    void sendWelcome();
    void sendPrompt();
    void sendHelp();
    void send(const std::string& data);

    void handleLineEnd();
    void handleCursorKey(char c);
    void addToHistory(const std::string& line);
    const std::string& historyStep(int direction);
    void resetHistoryPosition();

    bool parseCommand();
    void executeCommand();
    void startRepeat(const std::string& argument);
    void repeatThread();
    void handleHttpRequest();
    void sendHttpResponse(const std::string& status, const std::string& reason,
                          const std::string& type, const std::string& body);

    std::stringstream m_text;  // guarded by m_connectionLock
    MonitorElementDatabase* m_pDatabase;
    std::string m_line;                  // network thread only
    CMonitorElementObserver m_observer;  // guarded by m_connectionLock

    std::deque<std::string> m_history;  // network thread only; newest first
    std::size_t m_historyBytes = 0;     // network thread only; of the lines in m_history
    std::uint64_t m_ullHistoryPosition = 0;
    bool m_bHistoryBrowsing = false;
    const std::string m_emptyString;

    boost::mutex m_connectionLock;

    // The REPEAT task: its thread runs the execute step every m_repeatSeconds while active.
    std::unique_ptr<boost::thread> m_repeatThread;  // guarded by m_connectionLock
    std::atomic<bool> m_bRepeatActive{false};
    std::atomic<std::int64_t> m_repeatSeconds{1};
    std::atomic<bool> m_bRepeatRunning{false};
    boost::mutex m_repeatWaitLock;
    boost::condition_variable m_repeatWake;  // ends a pause early when the connection goes

    char m_input[4096];  // network thread only; target of the reads
    boost::asio::ip::tcp::socket m_socket;
    std::string m_hostName;
    std::uint64_t m_ullInputState = 0;                              // network thread only
    boost::shared_ptr<boost::asio::deadline_timer> m_welcomeTimer;  // network thread only
    std::string m_serverName;
    std::stringstream m_response;  // guarded by m_connectionLock

    std::chrono::seconds m_idleTimeout{0};                   // 0: none
    std::chrono::steady_clock::time_point m_lastInput;       // network thread only
    std::unique_ptr<boost::asio::steady_timer> m_idleTimer;  // network thread only
    std::function<void()> m_onEnd;
};
