#include "tessel/platform/UdpSocket.h"

#include <gtest/gtest.h>

using namespace Tessel::Platform;

namespace {

// The platform's select fails on a socket that is not open; poll alone would wait.
TEST(UdpSocket, NoSocketFailsAtOnceInsteadOfWaiting) {
    EXPECT_EQ(WaitReadable(INVALID_SOCKET, 600000), SOCKET_ERROR);
    EXPECT_EQ(RecvFrom(INVALID_SOCKET, nullptr, 0), SOCKET_ERROR);
    EXPECT_NE(TakeSocketError(INVALID_SOCKET), 0);
    EXPECT_EQ(InetAddr("localhost"), ADDRESS_NONE);
}

}  // namespace
