// What the process writes into its log files from now on.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace TesselTest {

// Notes the size of every file in the log folder at construction; text() returns all that has
// been appended to the log files since, file by file in the order of their names.
class LogCapture {
  public:
    LogCapture();
    std::string text() const;

    // All that the log files hold, from their beginning.
    static std::string all();

  private:
    std::string m_folder;
    std::map<std::string, std::uintmax_t> m_sizes;
};

}  // namespace TesselTest
