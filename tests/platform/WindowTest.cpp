// Windows of other processes, against a receiver run by the test.
#include "tessel/platform/Window.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/Eventually.h"
#include "tessel/platform/LastError.h"
#include "tessel/platform/Process.h"

using namespace Tessel::Platform;

namespace {

std::string uniqueTitle(const char* what) {
    static std::atomic<int> counter{0};
    return std::string("tessel-test-window-") + what + "-" + std::to_string(GetCurrentProcessId()) +
           "-" + std::to_string(counter++);
}

// A thread that listens on the window's SOCK_SEQPACKET socket, records every packet and
// answers it with one byte; while answers are held, it only records.
class Receiver {
  public:
    explicit Receiver(const std::string& title)
        : m_listener(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)),
          m_stop(::eventfd(0, EFD_CLOEXEC)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path + 1, title.data(), title.size());
        const auto length =
            static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + title.size());
        EXPECT_EQ(::bind(m_listener, reinterpret_cast<sockaddr*>(&address), length), 0);
        EXPECT_EQ(::listen(m_listener, 16), 0);
        m_thread = std::thread([this] { serve(); });
    }
    ~Receiver() {
        EXPECT_EQ(::eventfd_write(m_stop, 1), 0);
        m_thread.join();
        for (const int fd : m_connections) {
            ::close(fd);
        }
        ::close(m_listener);
        ::close(m_stop);
    }
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;

    std::vector<std::string> packets() {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_packets;
    }
    int accepted() {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_accepted;
    }
    void setAnswer(unsigned char answer) { m_answer = answer; }
    void holdAnswers() {
        std::lock_guard<std::mutex> guard(m_lock);
        m_hold = true;
    }
    // Answers the packets held so far, and those to come.
    void answerHeld() {
        std::lock_guard<std::mutex> guard(m_lock);
        m_hold = false;
        for (const int fd : m_held) {
            answer(fd);
        }
        m_held.clear();
    }

  private:
    void serve() {
        for (;;) {
            std::vector<pollfd> fds{{m_stop, POLLIN, 0}, {m_listener, POLLIN, 0}};
            for (const int fd : m_connections) {
                fds.push_back({fd, POLLIN, 0});
            }
            ::poll(fds.data(), fds.size(), -1);
            if (fds[0].revents != 0) {
                return;
            }
            std::lock_guard<std::mutex> guard(m_lock);
            if (fds[1].revents != 0) {
                m_connections.push_back(::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC));
                ++m_accepted;
            }
            for (auto entry = std::next(fds.begin(), 2); entry != fds.end(); ++entry) {
                if (entry->revents == 0) {
                    continue;
                }
                char packet[4096];
                const ssize_t got = ::recv(entry->fd, packet, sizeof packet, 0);
                if (got <= 0) {
                    ::close(entry->fd);
                    std::erase(m_connections, entry->fd);
                    std::erase(m_held, entry->fd);
                    continue;
                }
                m_packets.emplace_back(packet, static_cast<std::size_t>(got));
                if (m_hold) {
                    m_held.push_back(entry->fd);
                } else {
                    answer(entry->fd);
                }
            }
        }
    }
    void answer(int fd) {
        const unsigned char byte = m_answer;
        EXPECT_EQ(::send(fd, &byte, 1, MSG_NOSIGNAL), 1);
    }

    const int m_listener;
    const int m_stop;
    std::thread m_thread;
    std::atomic<unsigned char> m_answer{1};
    std::mutex m_lock;  // guards what follows; m_connections is the serving thread's
    std::vector<int> m_connections;
    std::vector<int> m_held;
    bool m_hold = false;
    std::vector<std::string> m_packets;
    int m_accepted = 0;
};

LRESULT send(HWND window, ULONG_PTR type, std::string data, DWORD_PTR* result,
             UINT timeoutMs = 5000) {
    COPYDATASTRUCT copyData{type, static_cast<DWORD>(data.size()), data.data()};
    return SendMessageTimeoutA(window, WM_COPYDATA, 0, reinterpret_cast<LPARAM>(&copyData),
                               SMTO_BLOCK | SMTO_ABORTIFHUNG, timeoutMs, result);
}

std::size_t openDescriptors() {
    return static_cast<std::size_t>(
        std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                      std::filesystem::directory_iterator()));
}

TEST(Window, SendsTypeAndDataOverOneSharedConnectionAndReturnsTheAnswer) {
    const std::string title = uniqueTitle("send");
    Receiver receiver(title);
    receiver.setAnswer(0xA5);
    HWND window = FindWindowA(nullptr, title.c_str());
    ASSERT_NE(window, nullptr);
    DWORD_PTR result = 0;
    EXPECT_NE(send(window, 0x0102030405060708u, "record", &result), 0);
    EXPECT_EQ(result, 0xA5u);
    EXPECT_NE(send(window, 3, "", nullptr), 0);
    const std::vector<std::string> packets = receiver.packets();
    ASSERT_EQ(packets.size(), 2u);
    EXPECT_EQ(packets[0], std::string("\x08\x07\x06\x05\x04\x03\x02\x01record", 14));
    EXPECT_EQ(packets[1], std::string("\x03\0\0\0\0\0\0\0", 8));

    // Look-ups hand out the same handle and cost no descriptor.
    const std::size_t descriptors = openDescriptors();
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(FindWindowA(nullptr, title.c_str()), window);
        EXPECT_NE(send(window, 1, "x", &result), 0);
    }
    EXPECT_EQ(openDescriptors(), descriptors);
    EXPECT_EQ(receiver.accepted(), 1);
    EXPECT_EQ(receiver.packets().size(), 102u);
}

TEST(Window, ConnectionsOfGoneReceiversAreClosed) {
    const std::string title = uniqueTitle("closed");
    const std::string other = uniqueTitle("other");
    Receiver stays(other);
    HWND staying = FindWindowA(nullptr, other.c_str());
    ASSERT_NE(staying, nullptr);
    DWORD_PTR result = 0;
    EXPECT_NE(send(staying, 1, "x", &result), 0);  // accepted by now
    const std::size_t descriptors = openDescriptors();
    {
        Receiver receiver(title);
        HWND window = FindWindowA(nullptr, title.c_str());
        ASSERT_NE(window, nullptr);
        EXPECT_NE(send(window, 1, "x", &result), 0);
    }
    // Gone with its receiver: the next look-up of any window closes its connection.
    ASSERT_NE(FindWindowA(nullptr, other.c_str()), nullptr);
    EXPECT_EQ(openDescriptors(), descriptors);
}

TEST(Window, ReceiverThatWentAndCameBack) {
    const std::string title = uniqueTitle("gone");
    EXPECT_EQ(FindWindowA(nullptr, title.c_str()), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    HWND window = nullptr;
    {
        Receiver receiver(title);
        window = FindWindowA(nullptr, title.c_str());
        ASSERT_NE(window, nullptr);
    }
    DWORD_PTR result = 0;
    EXPECT_EQ(send(window, 1, "x", &result), 0);
    EXPECT_EQ(GetLastError(), ERROR_BROKEN_PIPE);
    EXPECT_EQ(FindWindowA(nullptr, title.c_str()), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(send(window, 1, "x", &result), 0);

    Receiver again(title);
    EXPECT_EQ(FindWindowA(nullptr, title.c_str()), window);
    EXPECT_NE(send(window, 2, "y", &result), 0);
    EXPECT_EQ(again.packets().size(), 1u);
}

TEST(Window, LateAnswerIsDroppedAndNotTakenForTheNext) {
    const std::string title = uniqueTitle("late");
    Receiver receiver(title);
    HWND window = FindWindowA(nullptr, title.c_str());
    ASSERT_NE(window, nullptr);
    receiver.holdAnswers();
    receiver.setAnswer(7);
    DWORD_PTR result = 0;
    EXPECT_EQ(send(window, 1, "first", &result, 50), 0);
    EXPECT_EQ(GetLastError(), ERROR_TIMEOUT);
    ASSERT_TRUE(TesselTest::eventually([&] { return receiver.packets().size() == 1; }));
    receiver.answerHeld();  // the answer 7 is on its way now
    receiver.setAnswer(9);
    EXPECT_NE(send(window, 2, "second", &result), 0);
    EXPECT_EQ(result, 9u);
}

TEST(Window, SendersOfManyThreadsTakeTurns) {
    const std::string title = uniqueTitle("threads");
    Receiver receiver(title);
    std::atomic<int> answered{0};
    std::vector<std::thread> senders;
    for (int t = 0; t < 4; ++t) {
        senders.emplace_back([&title, &answered, t] {
            for (int i = 0; i < 25; ++i) {
                HWND window = FindWindowA(nullptr, title.c_str());
                DWORD_PTR result = 0;
                answered += window != nullptr &&
                                    send(window, static_cast<ULONG_PTR>(t), std::to_string(i),
                                         &result) != 0 &&
                                    result == 1
                                ? 1
                                : 0;
            }
        });
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    EXPECT_EQ(answered.load(), 100);
    EXPECT_EQ(receiver.packets().size(), 100u);
}

TEST(Window, RefusesWhatItCannotSend) {
    DWORD_PTR result = 0;
    int notAWindow = 0;
    for (HWND bad : {reinterpret_cast<HWND>(&notAWindow), HWND{nullptr}}) {
        EXPECT_EQ(send(bad, 1, "x", &result), 0);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_WINDOW_HANDLE);
    }
    const std::string title = uniqueTitle("refuse");
    Receiver receiver(title);
    HWND window = FindWindowA(nullptr, title.c_str());
    ASSERT_NE(window, nullptr);
    EXPECT_EQ(SendMessageTimeoutA(window, 0x0010, 0, 0, SMTO_NORMAL, 100, &result), 0);
    EXPECT_EQ(GetLastError(), ERROR_NOT_SUPPORTED);
    EXPECT_EQ(SendMessageTimeoutA(window, WM_COPYDATA, 0, 0, SMTO_NORMAL, 100, &result), 0);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(receiver.packets().empty());

    EXPECT_EQ(FindWindowA(nullptr, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(FindWindowA(nullptr, std::string(108, 't').c_str()), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_FILENAME_EXCED_RANGE);
}

}  // namespace
