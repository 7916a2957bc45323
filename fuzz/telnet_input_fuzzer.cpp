// Fuzz target over a monitor connection's input handler: any byte stream, fed byte by byte
// to a connection on a real loopback socket, whose peer collects the responses.
//
// Checks that hold for every input:
// - nothing crashes, leaks or hangs: the connection and its REPEAT thread end when it goes;
// - a connection whose input begins with "GET" (and holds no backspace) writes nothing but whole
// HTTP
//   responses, each "HTTP/1.1 200 OK" with a JSON body or "HTTP/1.1 400 Bad Request", with
//   exactly Content-Length bytes of body.
// A BACKTRACE filter that selects elements without numeric ids fails its conversion with
// std::invalid_argument or std::out_of_range, which is how that command is defined.
#include <poll.h>
#include <stdlib.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <thread>

#include "tessel/monitoring/MonitorElementDatabase.h"
#include "tessel/monitoring/TelnetConnectionHandler.h"

namespace {

using boost::asio::ip::tcp;

struct Loopback {
    boost::asio::io_context io;
    tcp::acceptor acceptor{io, tcp::endpoint(boost::asio::ip::address_v4::loopback(), 0)};
};

Loopback& loopback() {
    static Loopback instance;
    return instance;
}

// The whole of a connection's output must be complete HTTP responses.
void checkHttpOutput(const std::string& output) {
    std::size_t at = 0;
    while (at < output.size()) {
        const bool ok = output.compare(at, 17, "HTTP/1.1 200 OK\r\n") == 0;
        const bool bad = output.compare(at, 26, "HTTP/1.1 400 Bad Request\r\n") == 0;
        if (!ok && !bad) {
            std::fprintf(stderr, "not a response at %zu: %s\n", at, output.substr(at, 80).c_str());
            std::abort();
        }
        const std::size_t headEnd = output.find("\r\n\r\n", at);
        const std::size_t field = output.find("Content-Length: ", at);
        if (headEnd == std::string::npos || field == std::string::npos || field > headEnd) {
            std::fprintf(stderr, "incomplete head at %zu\n", at);
            std::abort();
        }
        const std::size_t length = std::stoul(output.substr(field + 16, 20));
        const std::size_t bodyStart = headEnd + 4;
        if (bodyStart + length > output.size()) {
            std::fprintf(stderr, "body shorter than Content-Length at %zu\n", at);
            std::abort();
        }
        const std::string body = output.substr(bodyStart, length);
        if (bad ? body != "Bad Request" : (body.empty() || body[0] != '{')) {
            std::fprintf(stderr, "unexpected body at %zu: %s\n", at, body.substr(0, 80).c_str());
            std::abort();
        }
        at = bodyStart + length;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The log and the registry of this run stay in a folder of its own.
    char folder[] = "/tmp/tessel-fuzz-XXXXXX";
    if (mkdtemp(folder) != nullptr) {
        setenv("TESSEL_REGISTRY_DIR", folder, 1);
        setenv("TMPDIR", folder, 1);
    }
    MonitorElementDatabase& db = MonitorElementDatabase::getInstance();
    db.findOrAdd("/Fz/1/Threads/2/Load", "%")->set(1.5);
    db.findOrAdd("/Fz/1/ProcessInfo/Stats/UpTime", "s")->set(100);
    db.findOrAdd("/Fz/1/ProcessInfo/Stats/HeartBeat", "")->start();
    db.findOrAdd("/Server/Stats/CPU", "%")->set(12);
    db.findOrAdd("/Station/STA1/Epochs", "")->set(42);
    db.findOrAdd("/Station/STA1/Latency", "ms")->set(0.25);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Loopback& net = loopback();
    tcp::socket client(net.io);
    boost::system::error_code failure;
    client.connect(net.acceptor.local_endpoint(), failure);
    if (failure == boost::asio::error::interrupted) {
        // libFuzzer's timer signal cut the wait short; the kernel completes the connection.
        pollfd writable{client.native_handle(), POLLOUT, 0};
        while (::poll(&writable, 1, -1) < 0 && errno == EINTR) {
        }
    } else if (failure) {
        throw boost::system::system_error(failure, "connect");
    }
    CTelnetConnectionHandler::pointer connection = CTelnetConnectionHandler::create(net.io);
    do {
        net.acceptor.accept(connection->socket(), failure);
    } while (failure == boost::asio::error::interrupted);
    if (failure) {
        throw boost::system::system_error(failure, "accept");
    }

    std::string output;
    std::thread drain([&] {
        char chunk[65536];
        boost::system::error_code error;
        while (true) {
            const std::size_t n = client.read_some(boost::asio::buffer(chunk), error);
            if (error) {
                break;
            }
            if (output.size() < (64u << 20)) {
                output.append(chunk, n);
            }
        }
    });

    const std::string input(reinterpret_cast<const char*>(data), size);
    // The read chain stops at a closed socket (QUIT, an over-long request).
    for (std::size_t i = 0; i < input.size() && connection->socket().is_open(); ++i) {
        try {
            connection->handleInput(input[i]);
        } catch (const std::invalid_argument&) {
            break;  // a BACKTRACE of elements without numeric ids ends the connection
        } catch (const std::out_of_range&) {
            break;
        }
    }
    connection.reset();  // stops a REPEAT thread and closes the socket
    drain.join();

    // A backspace is answered on either side and can take "GET" off the line.
    if (input.compare(0, 3, "GET") == 0 && input.find('\b') == std::string::npos) {
        checkHttpOutput(output);
    }
    return 0;
}
