// CPrnID: one satellite, named by its satellite system and its number within that system.
//
// Two bytes: the number (prn, 1 to 255; 0 means not set) and the system (type, a PrnType).
// It is saved as those two bytes, in this order, and sorts by system and then by number, so
// that it serves as the key of ordered containers.
//
// The PrnType values are single bits, so that a long holding several of them or-ed together
// is a set of satellite systems; the static operations turn such a set into the texts that
// operators see. PrnTransit and PrnGnss have no letter and no name in these texts.
//
// Note that the default constructor gives prn 0 and type 0, which is not the state after
// Clear (prn 0, type PrnGps).
//
// Lifetime: a value; copies are plain copies. Thread safety: none; the statics touch only
// their arguments.
#pragma once

#include <cstddef>
#include <string>

#include "tessel/Export.h"

class TESSEL_API CPrnID {
  public:
    // The satellite systems, each one bit.
    enum PrnType {
        PrnGps = 1,
        PrnGlonass = 2,
        PrnTransit = 4,
        PrnGalileo = 8,
        PrnSbas = 16,
        PrnBeiDou = 32,
        PrnQzss = 64,
        PrnGnss = 128,
    };
    // The index of each system's bit.
    enum PrnTypeBit {
        PrnGpsBit = 0,
        PrnGlonassBit = 1,
        PrnTransitBit = 2,
        PrnGalileoBit = 3,
        PrnSbasBit = 4,
        PrnBeiDouBit = 5,
        PrnQzssBit = 6,
        PrnGnssBit = 7,
    };

    // Number and type 0.
    CPrnID() = default;
    // The type as given; the number only if it is not 0 (it stays 0 otherwise).
    CPrnID(unsigned char prn, PrnType type);

    bool operator==(const CPrnID& other) const {
        return m_ucPrn == other.m_ucPrn && m_ucType == other.m_ucType;
    }
    bool operator!=(const CPrnID& other) const { return !(*this == other); }
    // By type, and for equal types by number.
    bool operator<(const CPrnID& other) const {
        return m_ucType != other.m_ucType ? m_ucType < other.m_ucType : m_ucPrn < other.m_ucPrn;
    }

    // Number 0, type PrnGps.
    void Clear();

    unsigned char GetPrn() const { return m_ucPrn; }
    PrnType GetPrnType() const { return static_cast<PrnType>(m_ucType); }
    // Stores prn and returns true; 0 is refused with false and the number stays.
    bool SetPrn(unsigned char prn);
    // Stores type and returns true; a value above 128 is refused with false. Several bits
    // are not refused.
    bool SetPrnType(PrnType type);

    // The number is not 0.
    bool IsSet() const { return m_ucPrn != 0; }
    // The number is not 0 and the type neither 0 nor above 128.
    bool IsValid() const;
    // prn is not 0.
    static bool IsValid(unsigned char prn) { return prn != 0; }

    // The letter of the own type, as GetPrnTypeChar(mask).
    char GetPrnTypeChar() const { return GetPrnTypeChar(static_cast<long>(m_ucType)); }
    // The letter of a set of systems: of the first of GPS, Glonass, Galileo, SBAS, BeiDou,
    // QZSS that is in mask, that system's letter (G, R, E, S, C, J) if mask holds it alone,
    // else 'M' (mixed); '-' if mask holds none of them.
    static char GetPrnTypeChar(long mask);
    // Five letters, for GPS, Glonass, Galileo, BeiDou and QZSS in this order, each the
    // system's letter if mask holds it, else "-", with separator between them. SBAS has no
    // place: it has no satellites of its own.
    static std::string GetPrnTypeChar(long mask, const std::string& separator);
    // The names ("GPS", "GLO", "GALILEO", "SBAS", "BDS", "QZSS") of the systems in mask, in
    // this order, with separator between them; "No SatSystem" for mask 0, "" for a mask of
    // other bits only.
    static std::string GetPrnTypeName(long mask, const std::string& separator);
    // As GetPrnTypeName with the short names ("GPS", "GLO", "GAL", "SBAS", "BDS", "QZSS").
    static std::string GetPrnTypeNameShort(long mask, const std::string& separator);
    // The display name ("GPS", "Glonass", "Galileo", "SBAS", "BeiDou", "QZSS") of the last
    // system of that order in mask: a set shows one name only. "No SatSystem" for mask 0.
    static std::string GetPrnTypeDisplayName(long mask);

    // 1 shifted left by bit.
    static PrnType PrnBit2Type(PrnTypeBit bit);
    // The bit index of a single-bit type from 2 to 128; 0 for PrnGps and for any other value.
    static PrnTypeBit PrnType2Bit(PrnType type);

    // Serialised form, 2 bytes: the number, then the type.
    size_t getSize() const { return 2; }
    // Writes the two bytes; nothing for a null buffer or a size below 2.
    void saveData(unsigned char* buffer, size_t size) const;
    // Reads both bytes as they are, without a check; false for a null buffer or a size below
    // 2 (the object is then unchanged).
    bool loadData(const unsigned char* buffer, size_t size);

  private:
    unsigned char m_ucPrn = 0;
    unsigned char m_ucType = 0;
};
