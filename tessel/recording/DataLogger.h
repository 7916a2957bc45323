// CDataLogger: records gathered at full speed in a temporary file, turned into text at the end.
//
// A run goes StartAddData, many AddData, CreateLogFile, CloseLogFile. StartAddData makes a new
// temporary file "tvw<hex>.tmp" in the present folder (the one at that moment; the name is
// kept relative). AddData has each record serialise itself in place into the temporary file's
// write buffer, behind its size, with no allocation and no copy. CreateLogFile stops adding
// and writes the text file fileName in the application directory (the folder of the
// executable, or TESSEL_APP_DIR): the head text, then the text of every record, both from an
// IDataLog. CloseLogFile writes a tail text, closes the text file and deletes the temporary
// file.
//
// The temporary file is a sequence of records without a header, each the record's getSize()
// as 4 bytes (little-endian) followed by the bytes of its saveData. Its records are walked by
// 64-bit positions, so a file of 4 GiB and more is walked whole.
//
// Results are ints, 1 for success and 0 for failure; failures that an operator should see go
// to ILogging under "CDataLogger::<operation>" at error level with the file name and the
// platform's error text: a temporary file that cannot be made or opened, a text file that
// cannot be opened or written, the temporary file that cannot be read back, and a record that
// cannot be reserved in the temporary file (logged once per run, however often it happens).
// Where CreateLogFile fails, CloseLogFile is still needed to remove the temporary file.
//
// Copying takes the files over: the copy constructor and the assignment take the open files
// and the temporary file's name from their source, which is left with neither and with adding
// disabled. The assignment ends the target's own run first, as CloseLogFile("") does.
//
// Lifetime: the destructor calls CloseLogFile(""): the text file is closed and the temporary
// file deleted.
//
// Thread safety: AddData is called by one thread at a time. EnableAddData and CanAddData may be
// called from any thread at any time. StartAddData, StopAddData, CreateLogFile and CloseLogFile
// are called by one thread at a time, which may be another than the adding one and may call
// them while AddData runs: AddData holds a small spin guard while it touches the temporary
// file, and StartAddData and StopAddData (also within the others) take it before they open or
// close that file. Copying and destruction need every other call to have returned.
#pragma once

#include <atomic>
#include <cstdint>

#include "tessel/Export.h"
#include "tessel/persistence/FileWriteBuffer.h"
#include "tessel/persistence/IPersistData.h"
#include "tessel/platform/Strings.h"
#include "tessel/recording/IDataLog.h"

class TESSEL_API CDataLogger {
  public:
    // No files; adding disabled.
    CDataLogger() = default;
    // Takes the files, the temporary file's name and the enabled state of source, which keeps
    // neither file and has adding disabled afterwards.
    CDataLogger(CDataLogger& source);
    // CloseLogFile("") on this logger, then as the copy constructor. Assignment to itself does
    // nothing.
    CDataLogger& operator=(CDataLogger& source);
    // CloseLogFile("").
    ~CDataLogger();

    // Ends a former run (stops adding and deletes its temporary file), makes a new temporary
    // file in the present folder and opens it with a write buffer of bufferSize bytes (0 to
    // 2^32 - 1; a record larger than the buffer grows it) and no sharing. Adding is enabled
    // on success; on failure it stays disabled and the failure is logged.
    void StartAddData(unsigned int bufferSize);
    // Appends data's serialised form to the temporary file: its getSize() n as 4 bytes, then
    // the n bytes of its saveData. 1 if the record was taken; 0 for a null data, while adding
    // is disabled or no temporary file is open, for a record of more than 2^32 - 5 bytes, and
    // when the room cannot be reserved (a full buffer that cannot be written, the bytes of
    // which are lost; a buffer that cannot grow). Accepted records reach the file when the
    // buffer is full and when adding stops.
    int AddData(IPersistData* data);
    // 1 while adding is enabled, else 0.
    int CanAddData() const;
    // Enables adding (enable non-zero) or pauses it (0), leaving the temporary file open, so
    // that AddData returns 0 until it is enabled again.
    void EnableAddData(int enable);
    // Disables adding and closes the temporary file, writing the records still buffered.
    void StopAddData();

    // Stops adding, then writes the text file: the application directory with a trailing '/'
    // followed by fileName (a path of 260 characters or more is an invalid parameter, see
    // CheckedPrint.h), replaced if it exists, written through a buffer of 65536 bytes and not
    // shared. Writes log's head text, then the text of each record of the temporary file, in
    // order, and tells the watchdog of this thread every 6002 records that it is in a long
    // operation (CWatchdogClient::NotifyWatchdogLongOperationIsOk with 0). The text file stays
    // open for CloseLogFile.
    // 1 when the records have been walked; where a record's text cannot be written the walk
    // ends there, which is logged, and the result is still 1. 0 when the temporary file
    // cannot be opened, the text file cannot be opened or its head not written (logged), and
    // when the temporary file holds no records, in which case the head text stands in the
    // text file.
    int CreateLogFile(const CStringA& fileName, IDataLog& log);
    // Writes tail to the text file unless it is empty, closes the text file and deletes the
    // temporary file. Failures are not reported.
    void CloseLogFile(const CStringA& tail);

  private:
    // Stops adding, deletes the temporary file if there is a name, and forgets the name.
    void Clear();
    // Takes the files and the name of source, leaving it without them.
    void TakeOver(CDataLogger& source);

    // The temporary file; touched under the guard only while a run may be adding.
    CFileWriteBuffer m_DataFile;
    // The text file.
    CFileWriteBuffer m_LogFile;
    // The temporary file's name, as made in the present folder; empty without one.
    CStringA m_strTempFileName;
    // Whether AddData takes records, 1 or 0. Publishes no data of its own: the buffer is
    // reached under m_bAdding only, so relaxed loads and stores are enough (a stale 1 sends
    // AddData to the check under the guard, a stale 0 is an add that lost a race with the
    // enabling, as it may).
    std::atomic<int> m_iAddEnabled{0};
    // The spin guard of m_DataFile and m_bReserveFailureLogged: true while held. Taken by an
    // acquiring exchange and given back by a releasing store, so that each holder sees all
    // that the former holder did to the buffer.
    std::atomic<bool> m_bAdding{false};
    // Whether this run logged a failed reservation already; reset by StartAddData.
    bool m_bReserveFailureLogged = false;
};
