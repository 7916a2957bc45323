// A scripted AT modem on a pseudo-terminal, for the tests of the telephony functions.
//
// The line side is the pseudo-terminal's slave (device(), for SetModemDevices); the modem's
// thread reads the master. In command mode it takes CR-terminated commands, echoes them until
// a command with "E0" turns the echo off, records them and answers by its script, each reply
// line as "\r\n<line>\r\n": by default "ATE0V1" and "ATH0" get "OK", other AT commands
// "ERROR", and ATD... the dial result (answerDial). A CR alone while a dial is unanswered
// aborts it with "NO CARRIER". After a result starting with "CONNECT" the modem passes data:
// what the line sends is collected (received), send() writes to the line, and "+++" returns
// to command mode with "OK". hangUp() closes the master: the line sees a hang-up.
//
// The modem keeps a descriptor of the slave open itself, so that the terminal lives on
// between the lines that open and close it. Thread safety: all members may be called from any
// thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace TesselTest {

class PtyModem {
  public:
    PtyModem();
    ~PtyModem();
    PtyModem(const PtyModem&) = delete;
    PtyModem& operator=(const PtyModem&) = delete;

    // The slave's device node.
    const std::string& device() const { return m_device; }

    // Answers command (as sent, without its CR) with lines; no lines: silence.
    void answer(const std::string& command, std::vector<std::string> lines);
    // The result of ATD...: "CONNECT 115200", "BUSY", ...; "" for silence. "CONNECT" unless set.
    void answerDial(std::string result);

    // The commands seen so far: "" for a CR alone, "+++" for the escape.
    std::vector<std::string> commands() const;
    // Waits up to limit until a command that starts with prefix was seen.
    bool saw(const std::string& prefix,
             std::chrono::milliseconds limit = std::chrono::milliseconds(5000)) const;

    // The data that the line sent while connected.
    std::string received() const;
    // Waits up to limit until received() holds data.
    bool receives(const std::string& data,
                  std::chrono::milliseconds limit = std::chrono::milliseconds(5000)) const;
    // Sends data to the line.
    void send(const std::string& data);

    // Stops the modem and closes the master.
    void hangUp();

  private:
    void run();
    void handle(const std::string& command);
    void reply(const std::string& line);
    void stop();

    int m_master = -1;
    int m_slave = -1;
    int m_stop[2] = {-1, -1};
    std::string m_device;

    mutable std::mutex m_lock;
    mutable std::condition_variable m_changed;
    // Guarded by m_lock.
    std::map<std::string, std::vector<std::string>> m_script;
    std::string m_dialResult = "CONNECT 115200";
    std::vector<std::string> m_commands;
    std::string m_received;
    bool m_echo = true;
    bool m_dialling = false;
    bool m_connected = false;

    std::string m_command;  // the modem thread's command so far
    std::thread m_thread;
};

}  // namespace TesselTest
