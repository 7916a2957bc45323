// daily_size_limited_file_sink: the rotating file sink of the log.
//
// The log of a process is a series of files: a new one at the daily rotation time (local
// midnight in the library's use) and a new one whenever a message would take the current
// file above the size limit. From the base file name "<folder>/<stem>.log" (never a file
// itself) the sink names its files "<stem><yyyy-mm-dd>.log" for index 0, the first file of a
// day, and "<stem><yyyy-mm-dd>.<index>.log" for the following ones, with the date of the
// message in local time.
//
// The rule, for each message: the size counts the formatted message; the size is exceeded if
// the limit is not 0 and the count is above it (equality does not exceed); the day is over if
// the message's own time stamp is at or past the next rotation time. The day rule wins and
// starts index 0; otherwise an exceeded size takes the next index. The message that rotates
// is the first one in the new file, whose count starts from it, also when that file exists
// and is appended to. A message larger than the limit is written whole.
//
// The files are opened for appending (or truncated, if asked) by spdlog's file_helper, with
// 5 tries 10 ms apart; other processes may read and write them meanwhile. Errors are
// spdlog_ex exceptions with the texts of the library.
//
// Thread safety: none of its own; the logger that owns it serialises it (Mutex is normally
// spdlog's null_mutex).
#pragma once

#include <fmt/format.h>
#include <spdlog/common.h>
#include <spdlog/details/file_helper.h>
#include <spdlog/details/null_mutex.h>
#include <spdlog/details/os.h>
#include <spdlog/sinks/base_sink.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <string>
#include <tuple>

template <typename Mutex>
class daily_size_limited_file_sink final : public spdlog::sinks::base_sink<Mutex> {
  public:
    // Opens the file of today with fileIndex and counts its present length against
    // maximumSize (bytes, 0 for no limit). rotationHour 0..23, rotationMinute 0..59.
    daily_size_limited_file_sink(std::string baseFileName, std::uint64_t maximumSize,
                                 std::uint64_t fileIndex, int rotationHour, int rotationMinute,
                                 bool truncate = false)
        : m_baseFileName(std::move(baseFileName)),
          m_rotationHour(rotationHour),
          m_rotationMinute(rotationMinute),
          m_truncate(truncate),
          m_maximumSize(maximumSize),
          m_fileIndex(fileIndex) {
        if (rotationHour < 0 || rotationHour > 23 || rotationMinute < 0 || rotationMinute > 59) {
            throw spdlog::spdlog_ex("daily_size_limited_file_sink: Invalid rotation time in ctor");
        }
        const auto now = spdlog::log_clock::now();
        m_fileHelper.open(fileName(localDate(now), m_fileIndex), m_truncate);
        m_currentSize = m_fileHelper.size();
        m_nextRotation = nextRotation();
    }

    // The file being written.
    const std::string& filename() const { return m_fileHelper.filename(); }
    // The index of the file being written.
    std::uint64_t fileIndex() const { return m_fileIndex; }
    // The bytes counted in the file being written.
    std::uint64_t currentSize() const { return m_currentSize; }

    // The name of the file of date with index, from baseFileName.
    static std::string fileName(const std::string& baseFileName, const std::tm& date,
                                std::uint64_t index) {
        std::string stem, extension;
        std::tie(stem, extension) = spdlog::details::file_helper::split_by_extension(baseFileName);
        const std::string day =
            fmt::format("{:04d}-{:02d}-{:02d}", date.tm_year + 1900, date.tm_mon + 1, date.tm_mday);
        if (index == 0) {
            return fmt::format("{}{}{}", stem, day, extension);
        }
        return fmt::format("{}{}.{}{}", stem, day, index, extension);
    }

  protected:
    void sink_it_(const spdlog::details::log_msg& message) override {
        spdlog::memory_buf_t formatted;
        spdlog::sinks::base_sink<Mutex>::formatter_->format(message, formatted);
        m_currentSize += formatted.size();
        const bool sizeExceeded = m_maximumSize != 0 && m_currentSize > m_maximumSize;
        const bool dayOver = message.time >= m_nextRotation;
        if (dayOver || sizeExceeded) {
            m_fileIndex = dayOver ? 0 : m_fileIndex + 1;
            m_fileHelper.open(fileName(localDate(message.time), m_fileIndex), m_truncate);
            m_currentSize = formatted.size();
            m_nextRotation = nextRotation();
        }
        m_fileHelper.write(formatted);
    }

    void flush_() override { m_fileHelper.flush(); }

  private:
    static std::tm localDate(spdlog::log_clock::time_point time) {
        return spdlog::details::os::localtime(spdlog::log_clock::to_time_t(time));
    }

    std::string fileName(const std::tm& date, std::uint64_t index) const {
        return fileName(m_baseFileName, date, index);
    }

    // The next rotation time after now, in local time. On a day of a daylight-saving change
    // it lies one hour off, which is accepted.
    spdlog::log_clock::time_point nextRotation() const {
        const auto now = spdlog::log_clock::now();
        std::tm date = localDate(now);
        date.tm_hour = m_rotationHour;
        date.tm_min = m_rotationMinute;
        date.tm_sec = 0;
        const auto rotation = spdlog::log_clock::from_time_t(std::mktime(&date));
        return rotation > now ? rotation : rotation + std::chrono::hours(24);
    }

    const std::string m_baseFileName;
    const int m_rotationHour;
    const int m_rotationMinute;
    spdlog::log_clock::time_point m_nextRotation;
    spdlog::details::file_helper m_fileHelper;
    const bool m_truncate;
    const std::uint64_t m_maximumSize;
    std::uint64_t m_currentSize = 0;
    std::uint64_t m_fileIndex;
};

using daily_size_limited_file_sink_st = daily_size_limited_file_sink<spdlog::details::null_mutex>;
using daily_size_limited_file_sink_mt = daily_size_limited_file_sink<std::mutex>;
