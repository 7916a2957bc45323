// CUtil: small static helpers shared by the rest of the library.
//
// A bag of static operations grouped by topic: text, sleeping, the process's identity (its
// application name, whether a user can see it) and the list of data dispatchers that the host
// registers. Each operation states its results; none throws unless it says so.
//
// Text: narrow strings are UTF-8, and the byte operations below see a multi-byte character
// as bytes of 128 and above, which they leave alone. Wide strings hold one code point per
// wchar_t.
//
// Thread safety: the text operations hold no state and may be called from any thread. The
// list of data dispatchers is guarded by its own mutex. The application name and the
// interactive flag are not guarded: set the name before other threads read it.
#pragma once

#include <boost/thread/mutex.hpp>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tessel/Export.h"
#include "tessel/platform/WindowStation.h"

class TESSEL_API CUtil {
  public:
    // One data dispatcher of the host process: a name for people, and the two keys by which
    // hasDataDispatcher finds it.
    struct DataDispatcherInfo {
        std::string name;
        std::uint32_t dispatcherType = 0;  // first key
        std::uint32_t dispatcherId = 0;    // second key
    };

    // The size argument of the text operations that means "no limit": the text ends at its
    // NUL only.
    static constexpr std::size_t NO_SIZE_LIMIT = static_cast<std::size_t>(-1);

    // --- Text ---

    // Cuts text at its first control character (a byte below 32: line breaks, tabs, ...),
    // which becomes NUL. Looks at the first min(strlen(text), size - 1) bytes only, so
    // size is the size of the buffer text lies in, in bytes, and bytes past a NUL are never
    // read; NO_SIZE_LIMIT scans to the NUL. Returns 1 if the text was cut, 0 if it was left
    // alone: it had no control character within the limit, size was 0 or text null.
    // Meant for the message texts of the platform, which end in "\r\n".
    static int CleanUnprintableString(char* text, std::size_t size);
    // The same for a narrow text; CleanUnprintableString is its general name.
    static int CleanUnprintableStringA(char* text, std::size_t size);

    // 1 if text matches pattern, in which '*' stands for any run of bytes (also none) and '?'
    // for one byte; 0 otherwise, and for a null argument. Case counts.
    static int CompWithWildCard(const char* pattern, const char* text);

    // The Base64 form of the bytes of data (RFC 4648, with '=' padding, no line breaks).
    static std::string Base64Encode(const std::string& data);

    // The UTF-8 text as a wide string; invalid sequences become U+FFFD. Null gives "".
    static std::wstring AnsiToWString(const char* text);

    // Copies the wide text source into target, a buffer of size bytes, in UTF-8 and always
    // NUL-terminated: what does not fit in size - 1 bytes is cut before the first character
    // that would not fit whole. A null source gives "". Nothing is written for a null target
    // or a size below 1.
    static void CopyBSTR2TCHAR(wchar_t* source, char* target, int size);

    // ms as "hh:mm:ss.mmm": hours (at least two digits, more when needed), minutes, seconds,
    // milliseconds. 3723004 gives "01:02:03.004". A negative ms gives negative fields.
    static std::wstring MilliSecToTimespanWString(long ms);

    // --- Process ---

    // Sleeps the calling thread until the steady clock has advanced by ms milliseconds,
    // without spinning; a signal or a change of the system time does not shorten it.
    static void SleepNoCpuUsage(unsigned long ms);

    // True while the process can be seen by a user: it has a controlling terminal (see
    // WindowStation.h), read once per session. Once false, it stays false for the life of the
    // process.
    static bool IsUserInteractive();

    // Copies "Send email" (GetSendEventText) or "Send email." (GetSendEventDesc) into text, a
    // buffer of size bytes, cut to size - 1 bytes and NUL-terminated. Nothing is written for
    // a null text or a size below 1.
    static void GetSendEventText(char* text, int size);
    static void GetSendEventDesc(char* text, int size);

    // The name that the host gave its application; "" until it sets one.
    static std::string getApplicationName();
    static void setApplicationName(const std::string& name);

    // Appends info to the process-wide list of data dispatchers (duplicates are kept).
    static void addDataDispatcherInfo(const DataDispatcherInfo& info);
    // True when the list holds a dispatcher with the keys dispatcherType and dispatcherId.
    static bool hasDataDispatcher(unsigned long dispatcherType, unsigned int dispatcherId);

    // --- Satellite systems ---

    // The names of the satellite systems in mask, a set of CPrnID::PrnType bits, joined by
    // commas in the order of their bits: "Gps", "Glonass", "Transit", "Galileo", "SBAS",
    // "BeiDou", "QZSS", "GNSS". Other bits count for nothing; "" for none.
    static std::wstring SatelliteSystemToWString(long mask);

  private:
    // The dispatchers, guarded by s_AvailableDispatchersGuard.
    static std::vector<DataDispatcherInfo> s_AvailableDataDispatchers;
    static boost::mutex s_AvailableDispatchersGuard;
    static std::string s_applicationName;
    // The station whose flags were read last (0: none yet), and whether one was invisible.
    static Tessel::Platform::HWINSTA s_CurrentWindowStation;
    static bool s_IsUserNonInteractive;
};
