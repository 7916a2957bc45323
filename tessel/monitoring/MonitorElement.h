// CMonitorElement: one published metric of a process.
//
// A named, hierarchically addressed number with a unit that any thread may update at any
// time without a lock, and that the monitor server reads and renders on request. It is a
// flat, fixed-size value: no base class, no virtual operations, no heap. The name is kept
// parsed inside the object, so that the filter match that runs over every element on every
// monitor request touches no allocator.
//
// Counters, gauges, ratios and stop-watches are four ways of writing the same double: the
// owner's choice of operation and the unit text give the meaning.
//
// Paths: path elements joined by '/', the first being the root name (the process name).
// A name must be shorter than MAX_NAME_LENGTH (200) bytes and have at most 20 path elements;
// the constructor refuses a longer one with an error line in the log and leaves the element
// without a path (IsValidName tells in advance).
//
// Thread safety: the value is the only member touched concurrently. Writes use an atomic
// exchange or a compare-and-swap loop on the double's 64-bit word, and get() is a plain
// aligned load; no operation takes a lock or allocates. The start and stop times are
// relaxed atomic words: one thread at a time sets them (a publisher refreshing a heartbeat),
// while a monitor pass may copy the element at any moment. Identifier and unit are written only by
// the constructors and by setRootName, which the element database runs under its lock.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>

#include "tessel/Export.h"

class CMonitorElementObserver;

class TESSEL_API CMonitorElement {
  public:
    static constexpr char DELIMITER = '/';
    static constexpr char WILDCARD = '*';
    static constexpr std::uint64_t MAX_NAME_LENGTH = 200;
    static constexpr std::uint64_t MAX_PATH_ELEMENTS = 20;

    // A path in parsed form: the text with every delimiter replaced by NUL, so that each
    // path element is a NUL-terminated string in place, and the offset of each element.
    struct CMonitorElementIdentifier {
        char m_szText[MAX_NAME_LENGTH];
        unsigned char m_aElementOffsets[MAX_PATH_ELEMENTS];
        unsigned char m_ucElementCount;
    };

    // Calls for iterateIdentifier: index, element count, element text. Return false to stop.
    using IdentifierVisitor =
        std::function<bool(unsigned char index, unsigned char count, const char* element)>;

    // An empty element: value, times, identifier and unit all zero.
    CMonitorElement();
    // An element named name (see the class comment) with at most the first 10 bytes of unit.
    CMonitorElement(const std::string& name, const std::string& unit);
    // Copies identifier, unit and times; the value by an atomic exchange on this element.
    CMonitorElement(const CMonitorElement& other);
    // As the copy constructor; returns a copy of this element by value.
    CMonitorElement operator=(const CMonitorElement& other);

    // True when name is shorter than MAX_NAME_LENGTH and has at most MAX_PATH_ELEMENTS
    // path elements.
    static bool IsValidName(const std::string& name);

    // --- Writing the value: safe from any thread, no allocation. ---

    // value = v, by atomic exchange.
    void set(double v);
    // value = 0.0.
    void reset();
    // value += n converted to double; a large n rounds in the conversion.
    void increment(std::uint64_t n);
    // value -= n converted to double; there is no floor, the value may turn negative.
    void decrement(std::uint64_t n);
    // value += 1.0 and value -= 1.0.
    CMonitorElement& operator++();
    CMonitorElement& operator--();
    // value = part / whole * 100.0 if whole > 0.0, else 0.0 (also for a NaN whole).
    void setRatio(double part, double whole);
    // start time = now (system time in 100 ns ticks); the value is untouched.
    void start();
    // stop time = now; value = seconds from the start time to the stop time.
    void stop();
    // value, start and stop time from other; identifier and unit stay.
    void synchronize(CMonitorElement& other);

    // --- Reading. ---

    // The value.
    double get() const;
    // Seconds from the start time to now; the start time is not altered.
    double getTimeDiffFromStart() const;
    // The path element at index, or "" when index >= the element count.
    std::string getPathElement(unsigned char index) const;
    // All path elements joined by '/', without a leading or trailing delimiter.
    std::string getPath() const;
    // getPath's text, less its first skip characters when 0 < skip < its length.
    std::string getIdentifier(std::uint64_t skip) const;
    // The unit text.
    std::string getUnit() const;
    // Calls visitor for each path element from the first, until it returns false.
    void iterateIdentifier(const IdentifierVisitor& visitor) const;
    // True when the path matches filter: '/' separates path elements, '*' matches a run of
    // characters inside one element, a double star a run across elements, a trailing star
    // everything that remains; case is ignored. A filter of 200 or more characters, or one
    // holding a NUL, never matches. Allocates nothing.
    bool match(const std::string& filter) const;
    // Matches against the observer's filter; on a match hands this element to the
    // observer's updateElement and returns true.
    bool update(CMonitorElementObserver& observer);
    // Replaces the first path element by root. Const because it is applied to elements that
    // serve as map keys; the identifier is mutable. A result that would exceed the limits
    // of a name is refused with an error line in the log, leaving the path as it was.
    void setRootName(const std::string& root) const;

    // --- Ordering by identifier only: path element by path element, unsigned bytes, and
    // a path that is a prefix of another sorts first. ---
    bool operator==(const CMonitorElement& other) const;
    // Comparator form: true if a sorts before b. An element serves as its own comparator.
    bool operator()(const CMonitorElement& a, const CMonitorElement& b) const;

    // --- Printing onto a stream. Numbers with a positive fractional part print in fixed
    // notation with 6 decimals, all others as the value truncated to a 64-bit integer, so
    // -1.5 prints as -1 and 1.5 as 1.500000. The manipulators stay set on the stream. ---

    // The path, inserted as one string so that a field width applies to it as a whole.
    void printIdentifier(std::ostream& stream) const;
    // The number in a field of width 20, a blank, the unit.
    void printCounter(std::ostream& stream) const;
    // "number" if valueOnly, else ["number","unit"]; the unit is written raw.
    void printCounterForJSON(std::ostream& stream, bool valueOnly) const;
    // The bare number.
    void printCounterForPRTG(std::ostream& stream) const;

  private:
    static constexpr std::uint64_t MAX_UNIT_SIZE = 10;

    static bool Less(const CMonitorElementIdentifier& a, const CMonitorElementIdentifier& b);
    static void Parse(const std::string& name, CMonitorElementIdentifier& identifier);
    void printNumber(std::ostream& stream, int width) const;
    void add(double delta);

    // The double's bits. Relaxed throughout: each value stands alone, and nothing else is
    // published through it, so a reader needs only an untorn value.
    std::atomic<std::uint64_t> m_value;
    // Tick stamps, relaxed for the same reason: a pass may copy them while they are set.
    std::atomic<std::int64_t> m_llStartTime;
    std::atomic<std::int64_t> m_llStopTime;
    mutable CMonitorElementIdentifier m_identifier;
    char m_szUnit[MAX_UNIT_SIZE + 1];
};
