// BasicTimer: a periodic timer on a Boost.Asio io_context, in whole seconds.
//
// Costs no thread of its own: its callback runs on whatever thread runs the context, for
// example a thread of Tessel::CIOCompletionPort. One subscriber (IActiveTimerNotify) gets
// each tick; its argument is true once the context is stopped. The next wait begins when the
// callback has returned, so the period runs from the end of one callback to the next tick and
// a slow callback stretches it. A stopped context ends the timer after the callback.
//
// Lifetime: the object must outlive a pending wait; the destructor cancels it, which holds as
// long as no callback is running at that moment.
//
// Thread safety: none of its own. Callbacks may run in parallel with stop.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <string>

#include "tessel/Export.h"
#include "tessel/threads/IActiveTimerNotify.h"

class TESSEL_API BasicTimer {
  public:
    // A timer named name (kept, not used) on context, ticking every interval once started.
    BasicTimer(std::string name, boost::asio::io_context& context,
               const std::chrono::seconds& interval);
    // stop.
    virtual ~BasicTimer();
    BasicTimer(const BasicTimer&) = delete;
    BasicTimer& operator=(const BasicTimer&) = delete;

    // Stores the one subscriber (null: ticks call nobody).
    void setNotify(IActiveTimerNotify* notify) { m_pNotify = notify; }
    // startAfter(interval).
    void start();
    // The next tick after delay; a wait that is pending is cancelled.
    void startAfter(const std::chrono::seconds& delay);
    // Cancels a pending wait. A failure to cancel throws boost::system::system_error with the
    // text "cancel".
    void stop();

  protected:
    // A tick, or the end of a cancelled wait (error set), which does nothing.
    void timeoutHandler(const boost::system::error_code& error);

  private:
    std::string m_name;
    boost::asio::steady_timer m_timer;
    std::chrono::seconds m_interval;
    IActiveTimerNotify* m_pNotify = nullptr;
};
