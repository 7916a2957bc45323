// CMonitorElementContainer: one component's group of monitor elements.
//
// A worker thread, a lock or a publisher creates its elements through a container, under
// the container's base path (and sub-base), and the container removes them again when it is
// destroyed or cleared. Paths that go through a container have every blank and '*' replaced
// by '_', so a wildcard never becomes part of a path.
//
// Lifetime: a container must die before the element database. Elements added with
// removeOnDestruction false outlive the container, and their pointers stay valid.
//
// Thread safety: a container has no lock of its own; it belongs to one component, whose
// thread or construction sequence serialises the calls. The database calls are locked.
#pragma once

#include <map>
#include <string>

#include "tessel/Export.h"
#include "tessel/monitoring/MonitorElement.h"

class MonitorElementDatabase;

class TESSEL_API CMonitorElementContainer {
  public:
    // A container with the given base, taken as it is, and an empty sub-base.
    explicit CMonitorElementContainer(const std::string& base = std::string());
    // Removes the elements added with removeOnDestruction true.
    ~CMonitorElementContainer();

    // Creates an element at buildPath(name) through MonitorElementDatabase::add and keeps it
    // under that path, replacing an entry of the same path. Null for a refused name.
    CMonitorElement* add(const std::string& name, const std::string& unit,
                         bool removeOnDestruction = true);
    // The container's own element of that path, or one through
    // MonitorElementDatabase::findOrAdd, kept under that path. The flag of an entry that
    // exists stays as it was.
    CMonitorElement* findOrAdd(const std::string& name, const std::string& unit,
                               bool removeOnDestruction = true);
    // Removes every own element, whatever its flag. Base and sub-base stay.
    void clear();

    const std::string& getBase() { return m_strBase; }
    // base = buildPath(name) from an empty base, so the new base is sanitised.
    void setBase(const std::string& name);
    // As setBase with an empty sub-base, then made unique by the database.
    void setBaseWithUniqeName(const std::string& name);
    // Stores name as it is.
    void setSubBase(const std::string& name);
    // Sets every own element to value, atomically each.
    void setContainerMonitorElementsToValue(const double& value);

  private:
    CMonitorElementContainer(const CMonitorElementContainer&);
    CMonitorElementContainer& operator=(const CMonitorElementContainer&);

    // One element of the container. The full path is kept so that an element that someone
    // else removed can still be named without reading through its stale pointer.
    struct OwnElement {
        CMonitorElement* element;
        bool removeOnDestruction;
        std::string fullPath;
    };

    std::string buildPath(const std::string& name) const;
    void removeLogged(const OwnElement& own, const char* scope);

    std::string m_strBase;
    std::string m_strSubBase;
    MonitorElementDatabase* m_pDatabase;
    std::map<std::string, OwnElement> m_ownElements;  // keyed by buildPath's result
};
