// CStreamToFileWriter: the byte sink of IBinaryWrite on a file.
//
// Init names the file and opens it; StreamWrite gathers the bytes in a CFileWriteBuffer of
// 4096 bytes, which writes them to the file when full, on a flush request and on Close.
// Open replaces an existing file (truncate), shares it for reading and writing with other
// handles and makes its folders first: a name written with '/' makes them by its form with
// '\' (CFileHelper::DirectoryCreate takes both), and the file is opened under the name as
// given.
//
// Results: 0 success, 1 write failed or nothing to write to, 2 file could not be opened,
// 4 folder could not be created, 5 Init on an initialised writer.
//
// Lifetime: the name is not copied: the caller's text must outlive the writer (or its Close).
// The file buffer is made by the first Open, kept across Close for a later Open, and deleted
// by the destructor, which closes first. Copying copies the three members as they are, the
// pointer to the file buffer included, so that two writers share one buffer and both would
// delete it: copying a writer that has been opened is not a supported use.
//
// Thread safety: none; a writer belongs to one thread at a time.
#pragma once

#include "tessel/Export.h"
#include "tessel/persistence/IBinaryWrite.h"

class CFileWriteBuffer;

class TESSEL_API CStreamToFileWriter : public IBinaryWrite {
  public:
    CStreamToFileWriter() = default;
    CStreamToFileWriter(const CStreamToFileWriter& source) = default;
    CStreamToFileWriter& operator=(const CStreamToFileWriter& source) = default;
    // Closes and deletes the file buffer, if there is one.
    ~CStreamToFileWriter() override;

    // Creates the file buffer if there is none and opens the file of the name given to Init
    // (replacing its contents). 0, 2 (not opened) or 4 (folder not made).
    int Open() override;
    // Writes size bytes of data to the buffer, then flushes it to the file if flush is true.
    // 0, or 1 with no file buffer, with no file open, or for a null data.
    int StreamWrite(const unsigned char* data, unsigned int size, bool flush) override;
    // Closes the file (writing what is buffered), forgets the name and clears the
    // initialised state; the buffer is kept. 0.
    int Close() override;
    // Keeps fileName (not copied; null counts as an empty name), marks the writer initialised
    // and returns Open(). 5, changing nothing, if the writer is initialised already.
    virtual int Init(const char* fileName);
    // Set by Init, cleared by Close.
    virtual bool IsInitialised() const { return m_bInitialised; }

  private:
    // The name given to Init; an empty text at first and after Close.
    const char* m_pszFileName = "";
    bool m_bInitialised = false;
    // Made by the first Open; owned.
    CFileWriteBuffer* m_pFileBuffer = nullptr;
};
