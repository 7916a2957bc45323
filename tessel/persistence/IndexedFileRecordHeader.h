// CIndexedFileRecordHeader: the header in front of each record of a time-indexed data file.
//
// A packed record of 10 bytes that is written to and read from files as it stands:
//
//   offset 0, 4 bytes: the record size in bytes, unsigned
//   offset 4, 2 bytes: the GPS week, unsigned
//   offset 6, 4 bytes: the milliseconds of the GPS week, unsigned
//
// Little-endian, unaligned, no padding. The object holds exactly these 10 bytes (sizeof is
// 10, alignment 1), so a host writes a header with
// WriteToBuffer(reinterpret_cast<const unsigned char*>(&header), sizeof header) and reads one
// by copying 10 bytes of a file into an object; the accessors convert, so the bytes are the
// same on any host.
//
// Plain value: copy and move assignment copy the bytes. No other behaviour; writing the data
// and index files belongs to the host processes.
//
// Thread safety: none; an object belongs to one thread at a time.
#pragma once

#include <cstdint>

#include "tessel/Export.h"
#include "tessel/persistence/PackedField.h"

class TESSEL_API CIndexedFileRecordHeader {
  public:
    // A header for a record of size bytes, GPS week and milliseconds 0.
    explicit CIndexedFileRecordHeader(unsigned int size) { setSize(size); }

    // The record size in bytes, 0 to 2^32 - 1.
    unsigned int getSize() const {
        return Tessel::LoadPackedField<std::uint32_t>(m_abyRecord + kSizeOffset);
    }
    void setSize(unsigned int size) {
        Tessel::StorePackedField<std::uint32_t>(m_abyRecord + kSizeOffset, size);
    }
    // The GPS week, 0 to 65535.
    unsigned short getGPSWeek() const {
        return Tessel::LoadPackedField<std::uint16_t>(m_abyRecord + kWeekOffset);
    }
    void setGPSWeek(unsigned short week) {
        Tessel::StorePackedField<std::uint16_t>(m_abyRecord + kWeekOffset, week);
    }
    // Milliseconds of the GPS week, 0 to 604799999 for a valid time (not checked).
    unsigned int getGPSMsecs() const {
        return Tessel::LoadPackedField<std::uint32_t>(m_abyRecord + kMsecsOffset);
    }
    void setGPSMsecs(unsigned int msecs) {
        Tessel::StorePackedField<std::uint32_t>(m_abyRecord + kMsecsOffset, msecs);
    }

  private:
    static constexpr std::size_t kSizeOffset = 0;
    static constexpr std::size_t kWeekOffset = 4;
    static constexpr std::size_t kMsecsOffset = 6;

    unsigned char m_abyRecord[10] = {};
};

static_assert(sizeof(CIndexedFileRecordHeader) == 10 && alignof(CIndexedFileRecordHeader) == 1);
