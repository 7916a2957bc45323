// CFileWriteBuffer: a file writer that gathers writes in memory.
//
// Writes go to a buffer of the size given to Open and reach the file in one write when the
// buffer cannot take the next one, on FlushBuffer and on Close. A reservation (GetBuffer)
// lets the caller fill the bytes in place; one larger than the buffer grows the buffer for
// good. Besides the buffered stream at the file's end the writer reaches into the file at any
// position: WriteAtFilePosition patches bytes (a header at the head of a growing file),
// WriteUnbuffered writes at once, Read reads at the present position.
//
// The head word. Open can put a 32-bit word at the head of a new file and read it back on
// reopening an existing one; CFileReadBuffer::Open reads the same word.
//
// A mapped file. Where the file to be replaced (truncate true) is mapped by a reader, also in
// another process, the platform refuses to cut it (ERROR_USER_MAPPED_FILE, 1224); Open then
// opens it with its contents kept and writes behind them.
//
// Failures are reported by bool only; nothing is logged. A flush that fails drops the bytes
// it held: they are not written again. No exception comes from this class except from a
// failed allocation of the buffer outside Allocate. A reservation that grows the buffer fails
// when that allocation fails, and never hands out fewer bytes than asked for.
//
// Copying moves the file: the copy constructor and the assignment take the file handle of
// their source and leave it empty; the buffer, the count of bytes used and the name are
// copied. The assignment closes the target first (its pending bytes reach its file).
//
// Lifetime: closed, then open from a successful Open to Close or the destructor, which
// closes. Open on an open object closes it first.
//
// Thread safety: none; an object belongs to one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tessel/Export.h"
#include "tessel/base/Handle.h"
#include "tessel/persistence/MemoryBuffer.h"

class TESSEL_API CFileWriteBuffer {
  public:
    // The longest file name kept, with its terminating NUL.
    static constexpr size_t kFileNameSize = 260;

    CFileWriteBuffer() = default;
    // Takes the file of source and leaves source without one; copies the rest.
    CFileWriteBuffer(CFileWriteBuffer& source);
    // Closes this writer, then as the copy constructor. Assignment to itself does nothing.
    CFileWriteBuffer& operator=(CFileWriteBuffer& source);
    // As Close.
    virtual ~CFileWriteBuffer();

    // Closes and releases the buffer, then opens fileName for reading and writing, making its
    // folders first (CFileHelper::DirectoryCreate). truncate false keeps an existing file and
    // writes behind its contents; truncate true replaces it with an empty one, unless the
    // file is mapped (see above). shareMode: FILE_SHARE_* of the platform, 0 for none.
    // bufferSize: bytes gathered before a write, 0 to 2^32 - 1. unused has no effect.
    // header, if given: on an existing file of at least 4 bytes *header receives its first
    // 32-bit word (little-endian); on an empty file *header is written as its first 4 bytes
    // at once; on a file of 1 to 3 bytes nothing happens to either. false for a null or empty
    // name, a name of 260 characters or more (an invalid parameter, see CheckedPrint.h), a
    // folder that cannot be made, a file that cannot be opened, or a buffer that cannot be
    // allocated.
    bool Open(const char* fileName, unsigned int bufferSize, unsigned int unused, bool truncate,
              unsigned long shareMode, unsigned int* header);
    // Whether a file is open.
    bool IsOpen() const { return m_hFile != nullptr; }

    // Reserves size bytes of the buffer for the caller to fill, at data. Flushes first where
    // the room left is too small, and grows the buffer to size where size exceeds it. false
    // with no file open, when that flush fails (its bytes are lost) or when the buffer cannot
    // grow. unused has no effect and is not written to.
    bool GetBuffer(unsigned int size, unsigned char*& data, bool* unused);
    // Copies size bytes from data into the buffer, as GetBuffer reserves them. false for a
    // null data, and as GetBuffer.
    bool WriteToBuffer(const unsigned char* data, unsigned int size, bool* unused);
    // Writes the buffered bytes to the file when one is open; a failure is not reported.
    void FlushBuffer();
    // Flushes and closes the file when one is open; a flush failure is not reported. The
    // buffer stays allocated.
    void Close();

    // Appends the whole file of other to this one and closes other. When other's buffer is
    // exactly full, its buffer goes straight to this file (its file is taken to have held
    // nothing yet) and the result is whether all of it was written. Otherwise other is
    // closed, its file read by name through a CFileReadBuffer (no sharing) and copied in
    // chunks of 512 KiB; the copy ends early where a chunk cannot be mapped, and the result is
    // true. false for a null other, with no file open here, or when other's file cannot be
    // opened for reading (an empty file cannot be).
    bool Append(CFileWriteBuffer* other);

    // Flushes, then stores the present file position in bytes. false on failure, and for a
    // position whose low 32 bits are all ones, which counts as a failure.
    bool GetFilePosition(size_t& position);
    // Moves the file position by distance bytes from method: FILE_BEGIN 0, FILE_CURRENT 1,
    // FILE_END 2. Bytes in the buffer are not flushed first: they are written at the position
    // in force when they are. false on failure.
    bool SetFilePosition(std::int64_t distance, unsigned long method);
    // Flushes, writes size bytes of data at position (bytes from the file's start), then
    // moves back to the file's end. size goes to the write as 32 bits. true if all were
    // written and the position is back at the end; false for a null data.
    bool WriteAtFilePosition(const size_t& position, const unsigned char* data, size_t size);
    // Writes size bytes of data at the present position at once, ahead of the bytes in the
    // buffer, which it does not flush. false for a null data, a size of 0, or when not all
    // bytes were written.
    bool WriteUnbuffered(const unsigned char* data, size_t size);
    // Reads size bytes at the present position into data, past the buffer. true if all came.
    bool Read(unsigned char* data, unsigned long size);

    // Copy the name given to the last Open into target of targetSize characters (a name that
    // does not fit is an invalid parameter, see CheckedPrint.h). true if the name is not
    // empty.
    bool GetFileName(char* target, size_t targetSize) const;
    bool GetFileNameA(char* target, size_t targetSize) const;
    // The size of the file on disk in bytes, without the bytes still in the buffer; 0 with no
    // file open or on failure.
    size_t GetFileSizeEx() const;

  private:
    // Writes the used bytes of the buffer to the file in one write. Used becomes 0 whatever
    // the outcome; true only if all bytes were written (true at once when nothing is used).
    bool WriteBufferToFile();

    // The file; empty when closed.
    Tessel::CHandle m_hFile;
    // The write buffer; its size is the buffer's capacity for writes.
    CMemoryBuffer m_Buffer;
    // Bytes of the buffer not yet written to the file.
    std::uint32_t m_ui32Used = 0;
    // The name as given to Open.
    char m_szFileName[kFileNameSize] = {};
};
