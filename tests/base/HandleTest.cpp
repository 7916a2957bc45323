// Tessel::CHandle and Tessel::CEvent: ownership that moves on copy, and the event operations.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "tessel/base/Event.h"
#include "tessel/platform/Event.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/LastError.h"

using namespace Tessel;
using namespace Tessel::Platform;
using namespace ::testing;

const std::string kOverlongName(261, 'n');  // MAX_PATH is 260

TEST(Handle, OwnsItsHandleAndCopyingMovesIt) {
    const auto newEvent = [] { return CreateEventA(nullptr, TRUE, FALSE, nullptr); };
    HANDLE a = newEvent(), b = newEvent(), c = newEvent();
    {
        CHandle source(a);
        CHandle copy(source);
        EXPECT_EQ(source, nullptr);
        EXPECT_EQ(copy, a);
        CHandle target(b);
        target = copy;
        EXPECT_EQ(target, a);
        EXPECT_EQ(copy, nullptr);
        EXPECT_FALSE(CloseHandle(b)) << "assignment closes the handle held";
        CHandle& same = target;
        target = same;
        target = std::move(same);
        EXPECT_EQ(target, a);

        CHandle detached(c);
        EXPECT_EQ(detached.Detach(), c);
        EXPECT_EQ(detached, nullptr);
        CHandle closed(newEvent());
        const HANDLE d = closed;
        closed.Close();
        EXPECT_EQ(closed, nullptr);
        EXPECT_FALSE(CloseHandle(d));  // closed already: the table of open handles knows
        closed.Close();                // empty: nothing happens
    }
    EXPECT_FALSE(CloseHandle(a)) << "closed by its one owner";
    EXPECT_NE(WaitForSingleObject(c, 0), WAIT_FAILED) << "detached";
    CloseHandle(c);
}

TEST(Event, ConstructorsThrowButCreateOpenAndTheOperationsReportByTheirResult) {
    CEvent manualSet(TRUE, TRUE), automaticSet(FALSE, TRUE);
    EXPECT_EQ(WaitForSingleObject(manualSet, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(manualSet, 0), WAIT_OBJECT_0) << "stays signalled";
    EXPECT_EQ(WaitForSingleObject(automaticSet, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(automaticSet, 0), WAIT_TIMEOUT) << "the first test took it";
    const auto overlong = [] { CEvent event(nullptr, TRUE, FALSE, kOverlongName.c_str()); };
    EXPECT_THAT(overlong, ThrowsMessage<CHResultException>(StrEq("HRESULT 0x800700CE")));
    EXPECT_THAT(overlong,
                Throws<CHResultException>(Property(&CHResultException::GetHResult,
                                                   CHResultException::HRESULT(0x800700CE))));

    CEvent original(TRUE, FALSE);
    CEvent event(original);
    EXPECT_EQ(original, nullptr) << "copying moves";
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
    EXPECT_NE(event.Set(), 0);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
    EXPECT_NE(event.Reset(), 0);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
    EXPECT_NE(event.Set(), 0);
    EXPECT_NE(event.Pulse(), 0);  // nobody waits: releases nobody, leaves it reset
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);

    // Create and Open store over the handle held, without closing it, and never throw.
    HANDLE first = event;
    ASSERT_NE(event.Create(nullptr, TRUE, FALSE, "TesselThreadsEventTest"), 0);
    HANDLE named = event;
    CEvent opened;
    ASSERT_NE(opened.Open(SYNCHRONIZE, FALSE, "TesselThreadsEventTest"), 0);
    EXPECT_NE(opened, named);
    EXPECT_NE(event.Set(), 0);
    EXPECT_EQ(WaitForSingleObject(opened, 0), WAIT_OBJECT_0);
    EXPECT_EQ(opened.Open(SYNCHRONIZE, FALSE, "TesselThreadsNoSuchEvent"), 0);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(opened, nullptr);
    EXPECT_EQ(event.Create(nullptr, TRUE, FALSE, kOverlongName.c_str()), 0);
    EXPECT_EQ(GetLastError(), ERROR_FILENAME_EXCED_RANGE);
    EXPECT_EQ(event, nullptr);
    for (auto operation : {&CEvent::Set, &CEvent::Reset, &CEvent::Pulse}) {
        EXPECT_EQ((event.*operation)(), 0);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    }
    EXPECT_NE(WaitForSingleObject(first, 0), WAIT_FAILED);
    EXPECT_NE(WaitForSingleObject(named, 0), WAIT_FAILED);
    CloseHandle(first);
    CloseHandle(named);
}
