// Helpers that several monitoring tests share: the element table, the process's own paths,
// elements set to a value and what an observer's pass writes.
#pragma once

#include <unistd.h>

#include <sstream>
#include <string>

#include "tessel/monitoring/MonitorElementDatabase.h"
#include "tessel/monitoring/MonitorElementObserver.h"

namespace MonitorTest {

inline MonitorElementDatabase& db() {
    return MonitorElementDatabase::getInstance();
}

// The path of name under the process's base name "<root>/<pid>/".
inline std::string own(const std::string& name, const std::string& root = "UnknownRootName") {
    return root + "/" + std::to_string(::getpid()) + "/" + name;
}

// The element of absolutePath (without its leading '/'), set to value.
inline CMonitorElement* element(const std::string& absolutePath, const std::string& unit,
                                double value) {
    CMonitorElement* e = db().findOrAdd("/" + absolutePath, unit);
    e->set(value);
    return e;
}

// What one pass of a new observer in mode over filter writes.
inline std::string rendered(CMonitorElementObserver::eObserverMode mode, const std::string& filter,
                            bool strip = false) {
    std::ostringstream text;
    CMonitorElementObserver observer(&text);
    observer.setMode(mode);
    observer.setFilter(filter);
    observer.setStripCommonPath(strip);
    db().update(observer);
    return text.str();
}

}  // namespace MonitorTest
