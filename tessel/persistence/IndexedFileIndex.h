// CIndexedFileIndex: one entry of the index of a time-indexed data file, a GPS time against
// the file position of the record that carries it.
//
// A packed record of 14 bytes that is written to and read from files as it stands:
//
//   offset 0, 2 bytes: the GPS week, unsigned
//   offset 2, 4 bytes: the milliseconds of the GPS week, unsigned
//   offset 6, 8 bytes: the file position of the record in bytes, unsigned (unaligned)
//
// Little-endian, unaligned, no padding. The object holds exactly these 14 bytes (sizeof is
// 14, alignment 1), so a host writes an entry with
// WriteToBuffer(reinterpret_cast<const unsigned char*>(&index), sizeof index) and reads one by
// copying 14 bytes of a file into an object; the accessors convert, so the bytes are the same
// on any host.
//
// Plain value: copy and move assignment copy the bytes. No other behaviour.
//
// Thread safety: none; an object belongs to one thread at a time.
#pragma once

#include <cstdint>

#include "tessel/Export.h"
#include "tessel/persistence/PackedField.h"

class TESSEL_API CIndexedFileIndex {
  public:
    // An entry for GPS week and milliseconds of the week at file position filePos (bytes).
    explicit CIndexedFileIndex(unsigned short week = 0, unsigned int msecs = 0,
                               std::uint64_t filePos = 0) {
        setGPSTime(week, msecs);
        setUi64FilePos(filePos);
    }

    // The GPS week, 0 to 65535.
    unsigned short getGPSWeek() const {
        return Tessel::LoadPackedField<std::uint16_t>(m_abyRecord + kWeekOffset);
    }
    // Milliseconds of the GPS week, 0 to 604799999 for a valid time (not checked).
    unsigned int getGPSMsecs() const {
        return Tessel::LoadPackedField<std::uint32_t>(m_abyRecord + kMsecsOffset);
    }
    // Sets both time fields.
    void setGPSTime(unsigned short week, unsigned int msecs) {
        Tessel::StorePackedField<std::uint16_t>(m_abyRecord + kWeekOffset, week);
        Tessel::StorePackedField<std::uint32_t>(m_abyRecord + kMsecsOffset, msecs);
    }
    // The file position of the record, in bytes from the start of the data file.
    std::uint64_t getUi64FilePos() const {
        return Tessel::LoadPackedField<std::uint64_t>(m_abyRecord + kFilePosOffset);
    }
    void setUi64FilePos(std::uint64_t filePos) {
        Tessel::StorePackedField<std::uint64_t>(m_abyRecord + kFilePosOffset, filePos);
    }

  private:
    static constexpr std::size_t kWeekOffset = 0;
    static constexpr std::size_t kMsecsOffset = 2;
    static constexpr std::size_t kFilePosOffset = 6;

    unsigned char m_abyRecord[14] = {};
};

static_assert(sizeof(CIndexedFileIndex) == 14 && alignof(CIndexedFileIndex) == 1);
