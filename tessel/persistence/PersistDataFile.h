// CPersistDataFile: a file that holds a sequence of persistable objects.
//
// File form: a 16-bit little-endian version word, 3, then the objects' serialised forms one
// after the other, without count, checksum or end mark; the reader gives the same objects in
// the same order as the writer did.
//
// Name: a name without a folder ("state.dat") lands beside the executable (the application
// directory, see tessel/platform/Process.h); a name with a folder is used as it is, relative
// ones from the working directory. '\' separates folders as '/' does. Names are cut to 255
// characters.
//
// The file is opened by the constructor with read and write access, write-through and shared
// with no other handle (also in other processes), if it exists; otherwise the first Save makes
// it. The object keeps its handle, and with it the file to itself, until Delete or its end.
//
// Save replaces the file as a whole: the new content goes to a file beside it (the name with
// ".tmp" appended), written through to the device, which is then renamed over the file. A
// process that ends during Save, even by SIGKILL, leaves either the old file or the new one,
// never a mixture; the object then holds the new file.
//
// Load reads the whole file with one read; an object that finds fewer bytes than its form
// needs reacts as its class says, and once the bytes are used up the following objects are
// handed 0 bytes, never a count that runs past the file.
//
// Copying moves: the copy constructor and the assignment take the handle of their source,
// leaving it empty, and copy the name.
//
// Thread safety: none; one thread at a time per object.
#pragma once

#include <cstdint>

#include "tessel/Export.h"
#include "tessel/base/Handle.h"
#include "tessel/persistence/IPersistData.h"

class TESSEL_API CPersistDataFile {
  public:
    // The version word that Save writes and Load expects.
    static constexpr std::uint16_t FILE_VERSION = 3;

    // Resolves fileName as said above and opens the file if it exists; a file that cannot
    // be opened leaves the object without a handle, silently.
    explicit CPersistDataFile(const char* fileName);
    // Takes the handle of source, leaving it empty, and copies the name.
    CPersistDataFile(CPersistDataFile& source);
    // Closes the handle held, takes the one of source and copies the name; assignment to
    // itself does nothing.
    CPersistDataFile& operator=(CPersistDataFile& source);
    // Closes the handle.
    virtual ~CPersistDataFile();

    // Reads the count objects of items from the file, in order. 1 if the file was read;
    // 0 if items is null, count is 0, there is no handle, the file is shorter than the
    // version word or cannot be read whole. A file with another version word is deleted and
    // gives 1 with the items untouched. What each object's loadData says is not examined.
    int Load(IPersistData** items, unsigned int count);
    // Writes the version word and the count objects of items as the new content of the file,
    // making it where needed. 1 on success; 0 if items is null, count is 0, the storage or the
    // file cannot be had, or the file cannot be written. If every object has size 0, the file
    // is deleted and 0 returned.
    int Save(IPersistData** items, unsigned int count);
    // Closes the handle and deletes the file.
    void Delete();
    // The file's size in bytes; 0 without a handle or on failure.
    std::uint64_t GetFileSizeEx() const;

    // The resolved file name.
    const char* GetFileName() const { return m_szFileName; }

  private:
    // Opens the file by name into m_hFile with the given creation disposition.
    bool Open(unsigned long creationDisposition);

    Tessel::CHandle m_hFile;
    char m_szFileName[256];
};
