// CSimpleDataContainer: an ordered map from integer keys to CSimpleVariant values that saves
// and loads itself.
//
// Keys are taken as long, the design's signed 32-bit integer (a long beyond that range keeps
// its low 32 bits), widened with sign to the map's unsigned 64-bit keys. The map is ordered by
// that unsigned value, so negative keys sort last. The saved form keeps the low 32 bits of a
// key and the load widens them with zeros: a non-negative key survives a round trip, a
// negative one does not (-1 comes back as 4294967295, which no long key reaches). Only
// non-negative keys are portable.
//
// Serialised form, getSize() = 4 + per entry 4 + the variant's getSize():
//
//   offset 0, 4 bytes: count of entries, low 32 bits
//   offset 4:          per entry, in ascending key order: the key's low 32 bits, 4 bytes,
//                      then the CSimpleVariant form
//
// loadData merges into the map, which it does not clear: each entry read is found or inserted
// with an empty variant, and the variant loads itself from the bytes after the key; the load
// advances by the variant's getSize(). An entry saved as ValEmpty (or with an unknown tag)
// leaves a value already under its key as it was, and the load then advances over that value's
// size. A count of 0 gives true at once. The load fails (false) for a null buffer, fewer than
// 4 bytes, an entry whose key does not lie wholly within the input (no entry is made for it),
// and a variant whose form does not (its entry stays, empty if it was new); the entries loaded
// before are kept in both cases. So a key or value beyond the input fails the load.
//
// Each construction, also by copy, adds 1 to the process-wide instance counter, which starts at
// 0, and takes the new value as the object's instance number (GetInstanceNr); assignment keeps
// the number. The counter takes no lock: its read and its write are separate atomic steps, so
// that constructions on several threads at once may get equal numbers.
//
// Lifetime: a value; copies copy the map.
// Thread safety: none for an object; one thread at a time.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>

#include "tessel/Export.h"
#include "tessel/persistence/IPersistData.h"
#include "tessel/persistence/SimpleVariant.h"
#include "tessel/platform/Strings.h"

class TESSEL_API CSimpleDataContainer : public IPersistData {
  public:
    // Empty, with the next instance number.
    CSimpleDataContainer();
    // The entries of source, with the next instance number.
    CSimpleDataContainer(const CSimpleDataContainer& source);
    // The entries of source; the instance number stays.
    CSimpleDataContainer& operator=(const CSimpleDataContainer& source);
    ~CSimpleDataContainer() override = default;

    // Removes every entry.
    void Clear();

    // Stores value under key, replacing what was there.
    void SetValue(long key, long value);
    void SetValue(long key, long long value);
    void SetValue(long key, double value);
    void SetValue(long key, const CStringA& value);

    // As CSimpleVariant::GetValue on the entry of key; 0 for a key that is not there, with
    // value untouched (also a text).
    int GetValue(long key, long& value) const;
    int GetValue(long key, long long& value) const;
    int GetValue(long key, double& value) const;
    int GetValue(long key, CStringA& value) const;

    // This object's instance number, 1 for the first container of the process.
    std::uint64_t GetInstanceNr() const { return m_ui64InstanceNr; }

    // Merges the entries of the form in buffer, of which size bytes are available; see above.
    bool loadData(const unsigned char* buffer, size_t size) override;
    // Writes the form, getSize() bytes; nothing if buffer is null or they exceed size.
    void saveData(unsigned char* buffer, size_t size) const override;
    // The size of the form in bytes.
    size_t getSize() const override;

  private:
    // Takes the entries of source.
    void Assign(const CSimpleDataContainer& source);

    // The map's key of a key of the interface: its 32 bits, widened with sign.
    static std::uint64_t MapKey(long key);

    template <class T>
    void SetEntry(long key, const T& value);
    template <class T>
    int GetEntry(long key, T& value) const;

    // Constructions so far, process-wide.
    static std::atomic<std::uint64_t> s_InstanceCounter;

    std::map<std::uint64_t, CSimpleVariant> m_mapValues;
    std::uint64_t m_ui64InstanceNr;
};
