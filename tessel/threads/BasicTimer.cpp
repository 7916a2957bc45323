#include "tessel/threads/BasicTimer.h"

#include <boost/system/system_error.hpp>

BasicTimer::BasicTimer(std::string name, boost::asio::io_context& context,
                       const std::chrono::seconds& interval)
    : m_name(std::move(name)), m_timer(context), m_interval(interval) {}

BasicTimer::~BasicTimer() {
    stop();
}

void BasicTimer::start() {
    startAfter(m_interval);
}

void BasicTimer::startAfter(const std::chrono::seconds& delay) {
    m_timer.expires_after(delay);
    // A cancelled wait still calls its handler, possibly after this object is gone: the
    // handler looks at its error before it touches the object.
    m_timer.async_wait([this](const boost::system::error_code& error) {
        if (!error) {
            timeoutHandler(error);
        }
    });
}

void BasicTimer::stop() {
    try {
        m_timer.cancel();
    } catch (const boost::system::system_error& failure) {
        throw boost::system::system_error(failure.code(), "cancel");
    }
}

void BasicTimer::timeoutHandler(const boost::system::error_code& error) {
    if (error) {
        return;
    }
    auto& context = static_cast<boost::asio::io_context&>(m_timer.get_executor().context());
    if (m_pNotify != nullptr) {
        m_pNotify->OnActiveTimer([&context] { return context.stopped(); });
    }
    if (!context.stopped()) {
        start();
    }
}
