// CMonitorElementObserver: the visitor that MonitorElementDatabase::update drives.
//
// A pass calls beginUpdate, then updateElement for every element whose path matches the
// observer's filter, in key order, then endUpdate, all under the database's lock: an
// observer must not wait on another thread that needs the database. This base renders
// nothing; derived observers override the three operations.
//
// Thread safety: an observer belongs to one thread at a time.
#pragma once

#include <string>

#include "tessel/Export.h"

class CMonitorElement;

class TESSEL_API CMonitorElementObserver {
  public:
    CMonitorElementObserver() = default;
    CMonitorElementObserver(const CMonitorElementObserver&) = delete;
    CMonitorElementObserver& operator=(const CMonitorElementObserver&) = delete;
    virtual ~CMonitorElementObserver();

    // Start of a pass.
    virtual void beginUpdate();
    // One element that passed the filter.
    virtual void updateElement(CMonitorElement& element);
    // End of a pass.
    virtual void endUpdate();

    // The filter that elements are matched against (see CMonitorElement::match).
    void setFilter(const std::string& filter) { m_filter = filter; }
    const std::string& getFilter() const { return m_filter; }

  private:
    friend class CMonitorElement;  // reads the filter in place during a pass

    std::string m_filter;
};
