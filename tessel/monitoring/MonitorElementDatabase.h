// MonitorElementDatabase: the process-wide table of all monitor elements.
//
// It gives every element its full path (root name, process id, then the application's
// path), keeps names unique on request, hands out element pointers that stay valid until the
// element is removed, and walks the table for an observer in key order. Components create
// and remove their elements through a CMonitorElementContainer; the monitor server walks the
// table with update().
//
// Lifetime: a function-local singleton, created at first use and destroyed at process
// exit; containers must die before it. init(rootName) moves the table from the root name
// "UnknownRootName" to the process's name; elements keep their addresses.
//
// Thread safety: every operation takes one recursive lock for its whole length; it is the
// innermost lock of the monitoring paths. Value updates through element pointers take no
// lock. An observer runs under the lock.
#pragma once

#include <boost/thread/recursive_mutex.hpp>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "tessel/Export.h"
#include "tessel/monitoring/MonitorElement.h"

class CMonitorElementObserver;
class MonitorProcess;

class TESSEL_API MonitorElementDatabase {
  public:
    MonitorElementDatabase(const MonitorElementDatabase&) = delete;
    MonitorElementDatabase& operator=(const MonitorElementDatabase&) = delete;

    // The singleton.
    static MonitorElementDatabase& getInstance();

    // Moves every element to root name rootName (the process name) and starts the process
    // monitor. A host process calls it once at start.
    static void init(const std::string& rootName);

    // Creates an element. A name with a leading '/' is the full path less that character;
    // any other name goes behind the base name "<root>/<pid>". The full path is made unique
    // by generateUniqueName; if the result exists already, that element is returned. A full
    // path of 200 bytes or more or of more than 20 path elements is refused: an error line
    // in the log and a null result.
    CMonitorElement* add(const std::string& name, const std::string& unit);
    // Returns the element of that full path, or creates it; no uniqueness step, and the unit
    // of an existing element stays. Refuses names as add does.
    CMonitorElement* findOrAdd(const std::string& name, const std::string& unit);
    // name unchanged the first time; afterwards name followed by 0, 1, 2, ...
    std::string generateUniqueName(const std::string& name);
    // Removes the element; true if it was in the table. The pointer is invalid afterwards.
    // A pointer that is not a live element of the table (one removed before) is never read:
    // the result is false.
    bool remove(CMonitorElement* element);
    // Forgets a name of generateUniqueName that never had a duplicate; true if it did so.
    bool removeBaseName(const std::string& name);
    // One pass of observer over the table (beginUpdate, matching elements, endUpdate).
    void update(CMonitorElementObserver& observer);
    // Number of elements.
    std::uint64_t getLocalElementCount();
    // Number of elements of the process's one table; equals getLocalElementCount.
    std::uint64_t getGlobalElementCount();
    // The process metrics publisher, or null before init. Valid until the next init or the
    // end of the process; the observer calls it under the database lock, which init's
    // replacement also takes.
    MonitorProcess* getProcessMonitor();

    // A process-wide recursive mutex kept for host code that expects it; the library itself
    // never takes it.
    static boost::recursive_mutex gProcessMutex;

  private:
    MonitorElementDatabase();
    ~MonitorElementDatabase();

    // Stops the process monitor's update thread, then deletes the monitor under the lock.
    void stop();
    // stop(), then a new process monitor, started.
    void startIPC();
    void replaceDefaultRootName(const std::string& root);
    static void getBaseName(const std::string& name, std::string& out);
    std::string fullPath(const std::string& name) const;
    CMonitorElement* insert(const std::string& fullPath, const std::string& unit);

    // Key and mapped value are two copies of one element: the key orders, the mapped value
    // is the live element whose address is handed out. Map nodes never move.
    using ElementTable = std::map<CMonitorElement, CMonitorElement, CMonitorElement>;

    std::string m_baseName;                             // guarded by m_mutex
    std::unordered_set<const CMonitorElement*> m_live;  // guarded by m_mutex; mapped values
    std::map<std::string, std::uint64_t> m_nameCounts;  // guarded by m_mutex
    // The process metrics publisher; null until init. Guarded by m_mutex.
    std::unique_ptr<MonitorProcess> m_processMonitor;
    ElementTable m_elements;                          // guarded by m_mutex
    std::vector<ElementTable::node_type> m_unlisted;  // guarded by m_mutex
    boost::recursive_mutex m_mutex;
};
