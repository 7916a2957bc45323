// CFileReadBuffer: random read access to a file of any size through a moving mapped window.
//
// Open maps the whole file, whose size it fixes; GetBuffer hands out a pointer to the bytes
// asked for, without copying. Only a window of the file is mapped at a time: a range that
// lies within the window is served from it; any other moves the window to exactly what that
// range needs, its start rounded down and its end rounded up to the allocation granularity
// (64 KiB) and capped at the file size. There is no read-ahead. A pointer stays valid until
// the next GetBuffer that moves the window, or Close.
//
// While the buffer is open, its mapping holds a read lock of the file, so that another
// handle, also of another process, that would cut the file (SetEndOfFile, CreateFileA with
// CREATE_ALWAYS) fails with ERROR_USER_MAPPED_FILE (1224) instead of pulling the bytes away
// from under the window. The size stays the one of Open even where the file grows.
//
// Ranges are checked against the file size without wrapping: a range whose end would lie
// beyond 2^64 fails like one beyond the file's end, and never yields a pointer.
//
// Results are bool (false for failure); nothing is logged and nothing is thrown.
//
// Copying moves the mapping: the copy constructor and the assignment take the mapping handle
// of their source and leave it empty; window, file size, granularity and the view pointer are
// copied, and the source keeps its view pointer, so that both would unmap the view. Copying
// an open buffer is therefore not a supported use. The assignment closes the target first.
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

class TESSEL_API CFileReadBuffer {
  public:
    // Closed; the granularity is read from the system.
    CFileReadBuffer();
    // Takes the mapping of source and leaves source without one; copies the rest.
    CFileReadBuffer(CFileReadBuffer& source);
    // Closes this buffer, then as the copy constructor. Assignment to itself does nothing.
    CFileReadBuffer& operator=(CFileReadBuffer& source);
    // As Close.
    virtual ~CFileReadBuffer();

    // Closes, then opens fileName for reading with shareMode (FILE_SHARE_* of the platform,
    // 0: no other handle may be open) and maps all of it. If header is given and the file has
    // at least 8 bytes, *header receives the file's first 32-bit word (little-endian); with
    // fewer than 8 bytes *header stays as it was. false if the file cannot be opened or
    // mapped: a missing file, an empty one (an empty file cannot be mapped).
    bool Open(const char* fileName, unsigned long shareMode, unsigned int* header);
    // Points data at the length bytes of the file from offset. true if they lie within the
    // window, or if the window could be moved to them; false without a mapping, for a range
    // that ends beyond the file size (the old window then stays mapped), and when mapping the
    // new window fails (there is no window afterwards). A range of length 0 at the end of
    // the file succeeds only when the window holds its offset.
    bool GetBuffer(size_t offset, size_t length, unsigned char*& data);
    // The file size in bytes, as fixed by the last successful Open; 0 before one.
    size_t GetSize() const { return static_cast<size_t>(m_ui64FileSize); }
    // The size in bytes of the file of the handle file, in size. false if it cannot be read.
    bool GetFileSizeEx(Tessel::CHandle& file, size_t& size) const;
    // Resets the window, unmaps the view and closes the mapping. Nothing happens when closed.
    void Close();

  private:
    // The file-mapping object; empty when closed. The file handle itself is closed once the
    // mapping exists: the mapping keeps the file open.
    Tessel::CHandle m_hMapping;
    // File offsets of the mapped view's first byte and behind its last, in bytes.
    std::uint64_t m_ui64WindowStart = 0;
    std::uint64_t m_ui64WindowEnd = 0;
    // Bytes of the file, fixed at Open.
    std::uint64_t m_ui64FileSize = 0;
    // The system's allocation granularity in bytes, read at construction.
    std::uint64_t m_ui64Granularity = 0;
    // The mapped view, or null.
    unsigned char* m_pView = nullptr;
};
