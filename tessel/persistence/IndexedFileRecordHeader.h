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

#include <bit>
#include <cstdint>
#include <cstring>

#include "tessel/Export.h"

class TESSEL_API CIndexedFileRecordHeader {
  public:
    // A header for a record of size bytes, GPS week and milliseconds 0.
    explicit CIndexedFileRecordHeader(unsigned int size) { setSize(size); }

    // The record size in bytes, 0 to 2^32 - 1.
    unsigned int getSize() const { return get<std::uint32_t>(kSizeOffset); }
    void setSize(unsigned int size) { put<std::uint32_t>(kSizeOffset, size); }
    // The GPS week, 0 to 65535.
    unsigned short getGPSWeek() const { return get<std::uint16_t>(kWeekOffset); }
    void setGPSWeek(unsigned short week) { put<std::uint16_t>(kWeekOffset, week); }
    // Milliseconds of the GPS week, 0 to 604799999 for a valid time (not checked).
    unsigned int getGPSMsecs() const { return get<std::uint32_t>(kMsecsOffset); }
    void setGPSMsecs(unsigned int msecs) { put<std::uint32_t>(kMsecsOffset, msecs); }

  private:
    static_assert(std::endian::native == std::endian::little,
                  "the record is kept in the byte order of its files");

    static constexpr std::size_t kSizeOffset = 0;
    static constexpr std::size_t kWeekOffset = 4;
    static constexpr std::size_t kMsecsOffset = 6;

    template <class Field>
    Field get(std::size_t offset) const {
        Field value;
        std::memcpy(&value, m_abyRecord + offset, sizeof value);
        return value;
    }
    template <class Field>
    void put(std::size_t offset, Field value) {
        std::memcpy(m_abyRecord + offset, &value, sizeof value);
    }

    unsigned char m_abyRecord[10] = {};
};

static_assert(sizeof(CIndexedFileRecordHeader) == 10 && alignof(CIndexedFileRecordHeader) == 1);
