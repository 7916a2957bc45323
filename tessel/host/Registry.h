// REG: the library's access to the registry.
//
// Typed reads and writes of named values below the local machine hive, sub-key listing,
// deletion, a priority read across two keys, and an event-driven cached double word. Key
// paths are relative to the local machine hive unless an operation takes a hive, and are
// opened in the 32-bit view unless told otherwise (the two views share one key space here).
//
// Conventions, which hold for every setting of the system:
//   - Numbers are kept as text (REG_SZ: "%ld", "%lf", "TRUE"/"FALSE") unless GetLong and
//     WriteLong are used, which keep a REG_DWORD.
//   - A string read takes at most 255 characters; a longer value, a value of another type,
//     or an unterminated text is a miss.
//   - A read that misses with writeDefault true plants the default in the local machine
//     hive, so that the operator finds the setting and can change it.
//   - Reads never fail: every failure yields the default. Write with text always reports
//     true; the binary write, WriteLong, DeleteEntry, DeleteKey and the listings report
//     failure. Only the binary read and write log (at trace level). Nothing throws.
//
// Thread safety: the functions take no lock of their own and may be called from any thread.
// A CRegistryKeyDWordEventHelper is for one reading thread at a time.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tessel/Export.h"
#include "tessel/base/Event.h"
#include "tessel/platform/Registry.h"

namespace REG {

using HKEY = Tessel::Platform::HKEY;

// --- Reads ---

// The text of value name of key in hive, or defaultValue ("" when null) on any miss; with
// writeDefault true a miss stores defaultValue (if not null) as text in the local machine
// hive. use64BitView selects the 64-bit view, falling back to no view flag.
TESSEL_API std::string Get(HKEY hive, const std::string& key, const std::string& name,
                           const char* defaultValue, bool use64BitView = false,
                           bool writeDefault = false);
// The same in the local machine hive.
TESSEL_API std::string Get(const std::string& key, const std::string& name,
                           const char* defaultValue, bool use64BitView = false,
                           bool writeDefault = false);
// Kept for host code written to the design, where it returns the other string class; both
// are std::string here, so it is Get.
inline std::string Get2(const std::string& key, const std::string& name, const char* defaultValue,
                        bool use64BitView = false, bool writeDefault = false) {
    return Get(key, name, defaultValue, use64BitView, writeDefault);
}
// The text printed into buffer of size bytes, cut to fit.
TESSEL_API void Get(const std::string& key, const std::string& name, const char* defaultValue,
                    char* buffer, std::size_t size, bool use64BitView = false,
                    bool writeDefault = false);
// A number kept as text: the default printed with "%ld", the text read back with atol.
TESSEL_API long Get(const std::string& key, const std::string& name, long defaultValue,
                    bool use64BitView = false, bool writeDefault = false);
// A number kept as text with "%lf", read back with atof.
TESSEL_API double Get(const std::string& key, const std::string& name, double defaultValue);
// "TRUE" (in any case) is true, any other text false; the default as "TRUE" or "FALSE".
TESSEL_API bool Get(const std::string& key, const std::string& name, bool defaultValue);
// A binary value into buffer, whose capacity *size gives and whose length it receives.
// 1 on success, 0 on failure (logged at trace level under "REG::Get").
TESSEL_API int Get(const std::string& key, const std::string& name, unsigned char* buffer,
                   unsigned long* size);
// A REG_DWORD value. On a miss the default; with repair, a value of another type is deleted
// and the default written, and a missing key gets the default written.
TESSEL_API long GetLong(const std::string& key, const std::string& name, long defaultValue,
                        bool repair = false);

// The first non-empty text of name in key1 and key2, else the default; an empty value counts
// as missing.
TESSEL_API std::string PrioGet(const std::string& key1, const std::string& key2,
                               const std::string& name, const char* defaultValue,
                               bool use64BitView = false);
TESSEL_API long PrioGet(const std::string& key1, const std::string& key2, const std::string& name,
                        long defaultValue, bool use64BitView = false);
TESSEL_API bool PrioGet(const std::string& key1, const std::string& key2, const std::string& name,
                        bool defaultValue);

// Appends the names of the sub-keys of "SOFTWARE\Tarvo Works\" + subKey to names. false if
// the key does not open.
TESSEL_API bool GetSubDir(const char* subKey, std::vector<std::string>& names);
// Appends the value names of key to names. Each name is fetched with room for the length of
// the one before it (256 for the first), so the listing ends at the first name that is not
// shorter than its predecessor, as if there were no more. false if the key does not open.
TESSEL_API bool GetKeyValues(const std::string& key, std::vector<std::string>& names,
                             bool use64BitView = false);

// --- Writes and deletions ---

// Stores text as REG_SZ in key of hive, creating the key; with timestamp true as
// "<text> <dd.mm.yyyy hh:mm:ss.mmm>". Trailing white space is cut first, in the caller's
// own buffer for the overloads that take a char*. Always true.
TESSEL_API bool Write(HKEY hive, const std::string& key, const std::string& name, const char* text,
                      bool timestamp = false);
TESSEL_API bool Write(HKEY hive, const std::string& key, const std::string& name, char* text,
                      bool timestamp = false);
TESSEL_API bool Write(const std::string& key, const std::string& name, const char* text,
                      bool timestamp = false);
TESSEL_API bool Write(const std::string& key, const std::string& name, char* text,
                      bool timestamp = false);
// Numbers and flags as text: "%ld", "%lf", "TRUE"/"FALSE".
TESSEL_API bool Write(const std::string& key, const std::string& name, long value);
TESSEL_API bool Write(const std::string& key, const std::string& name, double value);
TESSEL_API bool Write(const std::string& key, const std::string& name, bool value);
// A REG_BINARY value; true on success, a failure is logged at trace level under "REG::Write".
TESSEL_API bool Write(const std::string& key, const std::string& name, const unsigned char* data,
                      unsigned long size);
// A REG_DWORD value; true on success.
TESSEL_API bool WriteLong(const std::string& key, const std::string& name, long value);
// Creates key; the result is not reported.
TESSEL_API void CreateSubKey(const std::string& key);
// Deletes value name; true on success.
TESSEL_API bool DeleteEntry(const std::string& key, const std::string& name);
TESSEL_API bool DeleteEntry(HKEY hive, const std::string& key, const std::string& name);
// Deletes the sub-key of key that has the same relative name as key, below key itself; a
// key without such a sub-key stays and the result is false. RecurseDeleteKey removes a key.
TESSEL_API bool DeleteKey(const std::string& key);
// Deletes key with all its sub-keys.
TESSEL_API void RecurseDeleteKey(const std::string& key);

// A watched REG_DWORD value of the local machine hive, and its cached value, which is also
// the default.
struct CRegistryDWord {
    bool m_bCreate;  // a missing value is written back with m_dwValue
    unsigned long m_dwValue;
    std::string m_strKey;
    std::string m_strName;
    unsigned long m_dwType = Tessel::Platform::REG_DWORD;
};

// Keeps a CRegistryDWord up to date at the cost of one event poll while nothing changed: the
// registry is read again only after its key was changed, by any process.
//
// Lifetime: the record outlives the helper. Copying moves the event and the watched key
// from the source, which is left inert.
class TESSEL_API CRegistryKeyDWordEventHelper {
  public:
    explicit CRegistryKeyDWordEventHelper(CRegistryDWord& record);
    CRegistryKeyDWordEventHelper(CRegistryKeyDWordEventHelper& source);
    CRegistryKeyDWordEventHelper& operator=(const CRegistryKeyDWordEventHelper&) = delete;
    ~CRegistryKeyDWordEventHelper();

    // Updates the record if its key changed since the last call (the first call always
    // reads), then sets value to the record's value. True if value changed by that.
    bool GetRegistryValue(unsigned long& value);

  protected:
    // Reads the record's value if the key changed, and arms the next notification. True when
    // nothing had to be read or the last step succeeded.
    bool UpdateRegistryValue();

  private:
    CRegistryDWord& m_record;
    Tessel::CEvent m_event;
    HKEY m_hNotifyKey = nullptr;  // the key whose change notification is armed
};

}  // namespace REG
