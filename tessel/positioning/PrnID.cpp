#include "tessel/positioning/PrnID.h"

namespace {

// One satellite system's texts. Transit and GNSS have none.
struct SystemText {
    long bit;
    char letter;
    const char* name;
    const char* shortName;
    const char* displayName;
};

// In the order in which the texts list the systems.
constexpr SystemText kSystems[] = {
    {CPrnID::PrnGps, 'G', "GPS", "GPS", "GPS"},
    {CPrnID::PrnGlonass, 'R', "GLO", "GLO", "Glonass"},
    {CPrnID::PrnGalileo, 'E', "GALILEO", "GAL", "Galileo"},
    {CPrnID::PrnSbas, 'S', "SBAS", "SBAS", "SBAS"},
    {CPrnID::PrnBeiDou, 'C', "BDS", "BDS", "BeiDou"},
    {CPrnID::PrnQzss, 'J', "QZSS", "QZSS", "QZSS"},
};

constexpr const char* kNoSystem = "No SatSystem";

std::string JoinNames(long mask, const std::string& separator, const char* SystemText::*name) {
    if (mask == 0) {
        return kNoSystem;
    }
    std::string text;
    for (const SystemText& system : kSystems) {
        if ((mask & system.bit) != 0) {
            if (!text.empty()) {
                text += separator;
            }
            text += system.*name;
        }
    }
    return text;
}

}  // namespace

CPrnID::CPrnID(unsigned char prn, PrnType type) : m_ucType(static_cast<unsigned char>(type)) {
    SetPrn(prn);
}

void CPrnID::Clear() {
    m_ucPrn = 0;
    m_ucType = PrnGps;
}

bool CPrnID::SetPrn(unsigned char prn) {
    if (prn == 0) {
        return false;
    }
    m_ucPrn = prn;
    return true;
}

bool CPrnID::SetPrnType(PrnType type) {
    if (static_cast<unsigned int>(type) > PrnGnss) {
        return false;
    }
    m_ucType = static_cast<unsigned char>(type);
    return true;
}

bool CPrnID::IsValid() const {
    return m_ucPrn != 0 && m_ucType != 0 && m_ucType <= PrnGnss;
}

char CPrnID::GetPrnTypeChar(long mask) {
    for (const SystemText& system : kSystems) {
        if ((mask & system.bit) != 0) {
            return mask == system.bit ? system.letter : 'M';
        }
    }
    return '-';
}

std::string CPrnID::GetPrnTypeChar(long mask, const std::string& separator) {
    static constexpr struct {
        long bit;
        char letter;
    } kPositions[] = {
        {PrnGps, 'G'}, {PrnGlonass, 'R'}, {PrnGalileo, 'E'}, {PrnBeiDou, 'C'}, {PrnQzss, 'J'}};
    std::string text;
    for (const auto& position : kPositions) {
        if (!text.empty()) {
            text += separator;
        }
        text += (mask & position.bit) != 0 ? position.letter : '-';
    }
    return text;
}

std::string CPrnID::GetPrnTypeName(long mask, const std::string& separator) {
    return JoinNames(mask, separator, &SystemText::name);
}

std::string CPrnID::GetPrnTypeNameShort(long mask, const std::string& separator) {
    return JoinNames(mask, separator, &SystemText::shortName);
}

std::string CPrnID::GetPrnTypeDisplayName(long mask) {
    std::string text = kNoSystem;
    for (const SystemText& system : kSystems) {
        if ((mask & system.bit) != 0) {
            text = system.displayName;
        }
    }
    return text;
}

CPrnID::PrnType CPrnID::PrnBit2Type(PrnTypeBit bit) {
    return static_cast<PrnType>(1u << bit);
}

CPrnID::PrnTypeBit CPrnID::PrnType2Bit(PrnType type) {
    for (unsigned bit = 1; bit < 8; ++bit) {
        if (type == (1u << bit)) {
            return static_cast<PrnTypeBit>(bit);
        }
    }
    return PrnGpsBit;
}

void CPrnID::saveData(unsigned char* buffer, size_t size) const {
    if (buffer == nullptr || size < 2) {
        return;
    }
    buffer[0] = m_ucPrn;
    buffer[1] = m_ucType;
}

bool CPrnID::loadData(const unsigned char* buffer, size_t size) {
    if (buffer == nullptr || size < 2) {
        return false;
    }
    m_ucPrn = buffer[0];
    m_ucType = buffer[1];
    return true;
}
