// CMonitorElementObserver: turns one pass over the element table into text.
//
// A visitor with a filter, a rendering mode and an output stream. MonitorElementDatabase::
// update drives a pass: beginUpdate, then updateElement for every element whose path matches
// the filter, in key order, then endUpdate, all under the database's lock. updateElement only
// takes a copy of the element, so that the value rendered and the value aggregated are one
// and the same even while the live element changes; endUpdate renders the copies into the
// stream in the mode's format (plain lines, JSON, PRTG JSON, the Prometheus text format, top
// list, aggregate, watch, rate, process list, stack traces) and writes the mode's closing
// text.
//
// Every connection of the monitor server owns one observer for its whole life: filter, mode,
// minimum value and strip-common-path stay set between passes, which is what lets a command
// be repeated, and the history table keeps the state of Watch and Rate from pass to pass
// (Aggregate and List empty it). Host code may also derive an observer of its own and
// override the three pass operations.
//
// Lines end in CR LF (LF in mode Prometheus). Paths and units are written unescaped, except
// in mode Prometheus, which follows its format's rules.
//
// Thread safety: none of its own. Passes of one observer must be serialised by its owner
// (the monitor server's connection lock); the pass operations run under the database lock,
// so an observer must not wait on another thread that needs the database.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tessel/Export.h"
#include "tessel/monitoring/MonitorElement.h"

namespace Tessel::Monitoring {
class PrometheusText;
}

class TESSEL_API CMonitorElementObserver {
  public:
    // How the elements of a pass are rendered; the values are those of the commands' table.
    enum eObserverMode : std::int32_t {
        None = 0,        // no pass is run
        Print = 1,       // PRINT
        Top = 2,         // TOP: the 10 highest values
        Json = 3,        // JSON, or HTTP format json
        Reset = 4,       // RESET: shows the copies set to the reset value
        Aggregate = 5,   // AGGREGATE: lines and their sum
        Watch = 6,       // WATCH: only what changed since the last pass
        List = 7,        // LIST: process and server overview
        Rate = 8,        // RATE: change per second
        Backtrace = 9,   // BACKTRACE: stack traces of the selected threads
        Prtg = 10,       // HTTP format prtg
        Prometheus = 11  // HTTP format prometheus: the text exposition format 0.0.4, in which
                         // each element is a gauge named by its path (the rule is in the
                         // README, "Prometheus"); lines end in LF alone
    };

    // output: the stream that passes write to; not owned, may be null for an observer
    // whose derived class renders nothing through it.
    explicit CMonitorElementObserver(std::ostream* output = nullptr);
    CMonitorElementObserver(const CMonitorElementObserver&) = delete;
    CMonitorElementObserver& operator=(const CMonitorElementObserver&) = delete;
    virtual ~CMonitorElementObserver();

    // Start of a pass: forgets the previous pass's copies and writes the mode's opening.
    virtual void beginUpdate();
    // One element that passed the filter: dropped if its value is below the minimum value,
    // else copied for endUpdate.
    virtual void updateElement(CMonitorElement& element);
    // End of a pass: renders the copies in order, then the mode's closing text.
    virtual void endUpdate();

    // The filter that elements are matched against (see CMonitorElement::match).
    void setFilter(const std::string& filter) { m_filter = filter; }
    const std::string& getFilter() const { return m_filter; }
    void setMode(eObserverMode mode) { m_eMode = mode; }
    eObserverMode getMode() const { return m_eMode; }
    // The value that mode Reset shows in place of every element's value.
    void setResetValue(double value) { m_resetValue.set(value); }
    // Elements whose value is smaller are dropped; minus infinity (the default) drops none,
    // and a NaN value always passes.
    void setMinimumValue(double value) { m_dMinimumValue = value; }
    double getMinimumValue() const { return m_dMinimumValue; }
    // When set, the leading path elements that all elements of a pass share are cut from
    // the rendered paths.
    void setStripCommonPath(bool strip) { m_bStripCommonPath = strip; }
    bool getStripCommonPath() const { return m_bStripCommonPath; }

  private:
    friend class CMonitorElement;  // reads the filter in place during a pass

    // State of modes Watch, List and Rate for one key element.
    struct HistoryRecord {
        HistoryRecord();
        CMonitorElement first;
        CMonitorElement second;
        std::int64_t time;  // system time in 100 ns ticks
        bool initialised;
    };

    // Orders NaN below every number, so that a NaN value cannot break the table's order.
    struct ValueLess {
        bool operator()(double a, double b) const;
    };

    void updateCommonPath(const CMonitorElement& element);
    void render(CMonitorElement& element);
    void renderRate(const CMonitorElement& element);
    void renderList(const CMonitorElement& element);
    void printLine(const CMonitorElement& element);
    void printJsonLine(const CMonitorElement& element);
    void printPrtgLine(const CMonitorElement& element);
    void writeClosingText(std::uint64_t renderedCount);
    void writeListClosingText();
    HistoryRecord& processEntry(const CMonitorElement& element);

    std::string m_filter;
    eObserverMode m_eMode = None;
    CMonitorElement m_resetValue;
    double m_dMinimumValue;
    bool m_bStripCommonPath = false;
    std::ostream* m_pOutput;
    double m_dAggregateSum = 0.0;
    std::multimap<double, CMonitorElement, ValueLess> m_top;
    std::map<CMonitorElement, HistoryRecord, CMonitorElement> m_history;
    std::uint64_t m_ullRecordCount = 0;
    // The copies of this pass, in key order. A vector that keeps its capacity from pass to
    // pass: a pass then allocates nothing per element.
    std::vector<CMonitorElement> m_pending;
    std::vector<std::string> m_commonPath;
    std::uint64_t m_ullSkipLength = 0;
    // The Prometheus text of mode Prometheus, made on its first pass.
    std::unique_ptr<Tessel::Monitoring::PrometheusText> m_prometheus;
};
