// Windows of other processes, against a receiving end that the test drives itself while the
// message is sent from a thread of its own.
#include "tessel/platform/Window.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "platform/PlatformTest.h"
#include "support/WaitProbe.h"

using namespace Tessel::Platform;
using PlatformTest::failureOf;

namespace {

// The listening socket of a window and the connection that this process makes to it.
class Receiver {
  public:
    explicit Receiver(const std::string& title)
        : m_listener(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
        EXPECT_EQ(PlatformTest::bindAbstract(m_listener, title), 0);
        EXPECT_EQ(::listen(m_listener, 16), 0);
    }
    ~Receiver() {
        ::close(m_connection);
        ::close(m_listener);
    }
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;

    // The next packet, "" when none comes within timeoutMs.
    std::string receive(int timeoutMs = 5000) {
        if (m_connection < 0 && ready(m_listener, timeoutMs)) {
            m_connection = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        }
        char packet[4096];
        const ssize_t got =
            ready(m_connection, timeoutMs) ? ::recv(m_connection, packet, sizeof packet, 0) : 0;
        return std::string(packet, got > 0 ? static_cast<std::size_t>(got) : 0);
    }
    void answer(unsigned char byte) { EXPECT_EQ(::send(m_connection, &byte, 1, MSG_NOSIGNAL), 1); }
    // Whether a second connection waits to be accepted.
    bool anotherConnection() const { return ready(m_listener, 0); }

  private:
    static bool ready(int fd, int timeoutMs) {
        pollfd entry{fd, POLLIN, 0};
        return ::poll(&entry, 1, timeoutMs) == 1;
    }

    const int m_listener;
    int m_connection = -1;
};

LRESULT send(HWND window, ULONG_PTR type, std::string data, DWORD_PTR* result,
             UINT timeoutMs = 5000) {
    COPYDATASTRUCT copyData{type, static_cast<DWORD>(data.size()), data.data()};
    return SendMessageTimeoutA(window, WM_COPYDATA, 0, reinterpret_cast<LPARAM>(&copyData),
                               SMTO_BLOCK | SMTO_ABORTIFHUNG, timeoutMs, result);
}

// Sends from a thread of its own while receiver takes the packet (into *packet) and answers.
LRESULT exchange(HWND window, Receiver& receiver, ULONG_PTR type, const std::string& data,
                 unsigned char answer, DWORD_PTR* result, std::string* packet = nullptr) {
    TesselTest::AsyncCall call([&] { return send(window, type, data, result) != 0 ? 1u : 0u; });
    const std::string received = receiver.receive();
    receiver.answer(answer);
    EXPECT_TRUE(call.finishes());
    if (packet != nullptr) {
        *packet = received;
    }
    return call.result();
}

TEST(Window, SendsForAllThreadsOverOneConnectionDropsLateAnswersAndRefusesWhatItCannot) {
    const std::string title = PlatformTest::uniqueName("tessel-test-window");
    Receiver receiver(title);
    HWND window = FindWindowA(nullptr, title.c_str());
    ASSERT_NE(window, nullptr);
    DWORD_PTR result = 0;
    std::string packet;
    EXPECT_EQ(exchange(window, receiver, 0x0102030405060708u, "record", 0xA5, &result, &packet), 1);
    EXPECT_EQ(result, 0xA5u);
    EXPECT_EQ(packet, std::string("\x08\x07\x06\x05\x04\x03\x02\x01record", 14));
    EXPECT_EQ(exchange(window, receiver, 3, "", 1, nullptr, &packet), 1);
    EXPECT_EQ(packet, std::string("\x03\0\0\0\0\0\0\0", 8));

    // Senders of several threads find the same handle and take turns on its one connection.
    const std::size_t descriptors = PlatformTest::descriptorTargets().size();
    std::atomic<int> answered{0};
    std::vector<std::thread> senders;
    for (int t = 0; t < 4; ++t) {
        senders.emplace_back([&, t] {
            for (int i = 0; i < 25; ++i) {
                DWORD_PTR answer = 0;
                if (FindWindowA(nullptr, title.c_str()) == window &&
                    send(window, static_cast<ULONG_PTR>(t), "x", &answer) && answer == 1) {
                    ++answered;
                }
            }
        });
    }
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(receiver.receive().size(), 9u) << i;
        receiver.answer(1);
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    EXPECT_EQ(answered.load(), 100);
    EXPECT_EQ(PlatformTest::descriptorTargets().size(), descriptors);
    EXPECT_FALSE(receiver.anotherConnection());

    // An answer that comes after the time-out is not taken for the next message's.
    TesselTest::AsyncCall late([&] { return failureOf(send(window, 1, "late", &result, 50)); });
    EXPECT_EQ(receiver.receive().substr(8), "late");
    ASSERT_TRUE(late.finishes());
    EXPECT_EQ(late.result(), ERROR_TIMEOUT);
    receiver.answer(7);
    EXPECT_EQ(exchange(window, receiver, 2, "next", 9, &result), 1);
    EXPECT_EQ(result, 9u);

    EXPECT_EQ(failureOf(SendMessageTimeoutA(window, 0x0010, 0, 0, SMTO_NORMAL, 100, &result)),
              ERROR_NOT_SUPPORTED);
    EXPECT_EQ(failureOf(SendMessageTimeoutA(window, WM_COPYDATA, 0, 0, SMTO_NORMAL, 100, &result)),
              ERROR_INVALID_PARAMETER);
    int notAWindow = 0;
    for (HWND bad : {reinterpret_cast<HWND>(&notAWindow), HWND{nullptr}}) {
        EXPECT_EQ(failureOf(send(bad, 1, "x", &result)), ERROR_INVALID_WINDOW_HANDLE);
    }
    EXPECT_EQ(receiver.receive(0), "");  // nothing reached the receiver
    EXPECT_EQ(failureOf(FindWindowA(nullptr, nullptr)), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(failureOf(FindWindowA(nullptr, std::string(108, 't').c_str())),
              ERROR_FILENAME_EXCED_RANGE);
}

TEST(Window, ReceiverThatWentAndCameBack) {
    const std::string other = PlatformTest::uniqueName("tessel-test-window");
    Receiver stays(other);
    ASSERT_NE(FindWindowA(nullptr, other.c_str()), nullptr);
    const std::size_t descriptors = PlatformTest::descriptorTargets().size();
    const std::string title = PlatformTest::uniqueName("tessel-test-window");
    EXPECT_EQ(failureOf(FindWindowA(nullptr, title.c_str())), ERROR_FILE_NOT_FOUND);
    HWND window = nullptr;
    DWORD_PTR result = 0;
    {
        Receiver receiver(title);  // goes without accepting the connection
        window = FindWindowA(nullptr, title.c_str());
        ASSERT_NE(window, nullptr);
    }
    EXPECT_EQ(failureOf(send(window, 1, "x", &result)), ERROR_BROKEN_PIPE);
    // The next look-up of any window closes the connection of the gone receiver.
    ASSERT_NE(FindWindowA(nullptr, other.c_str()), nullptr);
    EXPECT_EQ(PlatformTest::descriptorTargets().size(), descriptors);
    EXPECT_EQ(failureOf(send(window, 1, "x", &result)), ERROR_BROKEN_PIPE);
    EXPECT_EQ(failureOf(FindWindowA(nullptr, title.c_str())), ERROR_FILE_NOT_FOUND);

    Receiver again(title);
    EXPECT_EQ(FindWindowA(nullptr, title.c_str()), window);
    std::string packet;
    EXPECT_EQ(exchange(window, again, 2, "y", 1, &result, &packet), 1);
    EXPECT_EQ(packet.substr(8), "y");
}

}  // namespace
