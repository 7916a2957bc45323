// IDataLog: the text of a data log file, given by the user of CDataLogger.
//
// CDataLogger gathers records in their serialised form while a run lasts and turns them into
// a text file at its end (CDataLogger::CreateLogFile). The text comes from this interface: the
// file's head once, then the text of every record in the order in which the records were
// added. The texts are written as they are, with no line end added.
//
// Lifetime: an interface without data; the implementation belongs to its user and must live
// through the CreateLogFile that it is given to.
// Thread safety: called on the thread that calls CreateLogFile only.
#pragma once

#include "tessel/Export.h"
#include "tessel/platform/Strings.h"

class TESSEL_API IDataLog {
  public:
    virtual ~IDataLog() = default;

    // Fills text, given empty, with the head of the file.
    virtual void GetHeadText(CStringA& text) = 0;
    // Fills text, given empty, with the text of one record: data holds what the record's
    // saveData wrote, length bytes of it. length is the record's size, or the record's size
    // plus 4 where the record is followed by the 4-byte size of the next one, which then
    // lies in the last 4 bytes. data is valid during the call only.
    virtual void GetRecordText(const unsigned char* data, unsigned int length, CStringA& text) = 0;

  protected:
    IDataLog() = default;
    IDataLog(const IDataLog&) = default;
    IDataLog& operator=(const IDataLog&) = default;
};
