// CTempDirectory: where the process may write its temporary files and its log.
//
// The temp directory is the registry value "TempPath" below
// SOFTWARE\Tarvo Works\GPS Velkor in the local machine hive, by default the current user's
// temp folder (TMPDIR, else /tmp/); '\' becomes '/', and it always ends in '/'. The second
// temp directory, of the Ondrel component, is "TempPath" below that key's "ONDREL" sub-key,
// empty by default. Both are read once, when the process first asks; SetTempDirectory
// replaces the first as given.
//
// Lifetime: one instance per process, made at first use and kept to the end of the process.
//
// Thread safety: the instance and the current user's folder are made under guards of their
// own. GetTempDirectory returns a reference to the stored name outside the guard, so a
// concurrent SetTempDirectory is not protected against it.
#pragma once

#include <cstddef>
#include <string>
#include <utility>

#include "tessel/Export.h"

class TESSEL_API CTempDirectory {
  public:
    virtual ~CTempDirectory();

    // The temp directory, ending in '/'. Without an instance (allocation failed) the current
    // user's folder.
    static const std::string& GetTempDirectory();
    // The temp directory printed into buffer of size characters, cut to fit; the number of
    // characters of that print, -1 when it was cut.
    static int GetTempDirectory(std::size_t size, char* buffer);
    static int GetTempDirectoryA(std::size_t size, char* buffer);
    // The current user's temp folder, ending in '/'; read once and kept ("" if unknown).
    static const std::string& GetTempDirectoryCurrentUser();
    // Replaces the temp directory with directory, taken as it is.
    static void SetTempDirectory(const std::string& directory);
    // The second temp directory, "" if none is configured.
    static std::string GetOndrelTempDirectory();

  protected:
    CTempDirectory();

    std::string GetTempDirectoryName() const { return m_strTempDirectory; }
    std::string GetOndrelTempDirectoryName() const { return m_strOndrelTempDirectory; }
    void SetTempDirectoryName(std::string name) { m_strTempDirectory = std::move(name); }
    void SetOndrelTempDirectoryName(std::string name) {
        m_strOndrelTempDirectory = std::move(name);
    }
    void InitTempDirectory();
    void InitOndrelTempDirectory();

  private:
    CTempDirectory(const CTempDirectory&) = delete;
    CTempDirectory& operator=(const CTempDirectory&) = delete;

    static CTempDirectory* Instance();

    std::string m_strTempDirectory;
    std::string m_strOndrelTempDirectory;
};

// The free forms of CTempDirectory::GetTempDirectory(size, buffer).
TESSEL_API int GetTempDirectory(std::size_t size, char* buffer);
TESSEL_API int GetTempDirectoryA(std::size_t size, char* buffer);
