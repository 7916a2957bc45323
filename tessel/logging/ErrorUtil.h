// CErrorUtil: the last error text of each thread.
//
// A thread that meets an error stores a text and two numbers; whoever reports the error later
// on the same thread fetches them. Each thread has one entry, overwritten by its next error,
// with no history. SetLast with a non-zero trace argument also writes the entry to the trace
// channel under category 1.
//
// Thread safety: all operations are static and may be called from any thread; the entries are
// guarded by a reader/writer lock.
#pragma once

#include "tessel/Export.h"
#include "tessel/platform/Resources.h"
#include "tessel/platform/Strings.h"

class TESSEL_API CErrorUtil {
  public:
    // Stores text and the two numbers as the calling thread's last error.
    static void SetLast(unsigned int trace, const CStringA& text, unsigned int first,
                        unsigned int second);
    // The same with the text of string resource resourceId of module.
    static void SetLastByRes(unsigned int trace, Tessel::Platform::HINSTANCE module,
                             unsigned int resourceId, unsigned int first, unsigned int second);
    // The calling thread's last error: its text, and the numbers where the pointers are not
    // null. True if the text is not empty; a thread without an entry gets an empty text and 0s.
    static bool GetLast(CStringA& text, unsigned int* first, unsigned int* second);
};
