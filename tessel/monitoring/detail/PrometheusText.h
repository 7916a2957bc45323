// The Prometheus text exposition format (version 0.0.4) of one pass over the element table
// (private to the library).
//
// Every element is a gauge. Its metric name is "tessel" followed by its path in snake case:
// path elements, and the words inside them, joined by '_' ("EpochsReceived" is
// "epochs_received", "CPULoad" "cpu_load"), letters made small, every run of characters
// outside [a-zA-Z0-9] a single '_'; a name ending in "_total", "_count", "_sum" or
// "_bucket", which the format's conventions keep for counters, histograms and summaries,
// gets "_value" added ("Server/DumpCount" is "tessel_server_dump_count_value"). A path that begins
// with a process name and a process id
// ("station-server/4711/Station/STA1/Latency") gives these two as the labels process and pid,
// and its name is made of the rest
// ("tessel_station_sta1_latency{process="station-server",pid="4711"}"). The HELP line holds
// the path without process and id, and the unit ("Station/STA1/Latency, in ms"). Two paths
// that the rule turns into one name ("STA1" and "Sta1", a blank and a dot in the same place)
// keep apart: the one met second gets the suffix "_2", a third "_3", and so on. The samples of
// one name are written together, names in the order first met. Values: shortest round-trip
// decimal, NaN, +Inf, -Inf.
//
// What is made of a path once (its name, HELP and TYPE lines) is kept for the whole process,
// shared by all observers, so that a scrape makes no new text but the samples, also on a new
// connection, and a name once given stays that path's name. That store grows with the paths
// ever rendered, as the element table does.
//
// Thread safety: none of its own; one pass at a time, as the observer that owns it. The
// store of names is shared under a lock of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace Tessel::Monitoring {

struct PrometheusFamily;

class PrometheusText {
  public:
    // Starts a pass.
    void begin();
    // One element of the pass: its whole path, the number of leading path elements that the
    // name leaves out (those that all elements share, when the observer cuts them; never the
    // last), its unit and value.
    void add(std::string_view path, std::size_t skipElements, std::string_view unit, double value);
    // Writes the pass.
    void write(std::ostream& out);

  private:
    // One sample: the rank of its family in this pass and its text after the name.
    struct Sample {
        std::uint32_t rank;
        std::uint32_t begin;
        std::uint32_t length;
    };

    // The families of the last pass's elements by position: a pass over an unchanged table
    // finds each family by one comparison, without the shared store.
    struct Known {
        std::string key;
        const PrometheusFamily* family;
    };

    std::uint64_t m_pass = 0;
    std::vector<Known> m_known;
    std::size_t m_position = 0;  // of the next element in m_known
    std::uint32_t m_hint = 0;    // the family that the shared store is asked for next
    std::vector<const PrometheusFamily*> m_families;  // of this pass, by rank (order first met)
    std::vector<std::uint64_t> m_seenPass;            // by family id: the last pass that met it
    std::vector<std::uint32_t> m_rank;                // by family id: its rank in that pass
    std::vector<Sample> m_samples;
    bool m_ranksInOrder = true;  // the samples came in the order of their families' ranks
    std::string m_sampleText;    // the samples' texts, one after the other
    std::string m_text;          // the text of write; the buffers keep their capacity
    std::vector<std::string_view> m_elements;  // scratch for add
};

}  // namespace Tessel::Monitoring
