#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "tessel/base/Event.h"
#include "tessel/base/Handle.h"
#include "tessel/platform/Event.h"
#include "tessel/platform/Handle.h"
#include "tessel/platform/LastError.h"

using namespace Tessel::Platform;
using Tessel::CEvent;
using Tessel::CHandle;
using Tessel::CHResultException;

namespace {

HANDLE newEvent() {
    return CreateEventA(nullptr, TRUE, FALSE, nullptr);
}

// Whether handle had been closed already; closes it if not. Call it once the object under
// test is done with the handle.
bool wasClosed(HANDLE handle) {
    if (CloseHandle(handle) != FALSE) {
        return false;
    }
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    return true;
}

bool signalled(HANDLE event) {
    return WaitForSingleObject(event, 0) == WAIT_OBJECT_0;
}

HANDLE raw(const CHandle& handle) {
    return handle;
}

const std::string kOverlongName(261, 'n');  // MAX_PATH is 260

}  // namespace

TEST(Handle, OwnsAndClosesItsHandle) {
    CHandle empty;
    EXPECT_EQ(raw(empty), nullptr);
    empty.Close();

    HANDLE a = newEvent(), b = newEvent(), c = newEvent();
    {
        CHandle first(a);
        first.Close();
        EXPECT_EQ(raw(first), nullptr);
        EXPECT_TRUE(wasClosed(a));

        CHandle attached(b);
        attached.Attach(c);  // does not close b
        EXPECT_EQ(raw(attached), c);
        EXPECT_EQ(attached.Detach(), c);
        EXPECT_EQ(raw(attached), nullptr);
    }
    EXPECT_FALSE(wasClosed(b));
    EXPECT_FALSE(wasClosed(c));
}

TEST(Handle, CopyMovesAndOnlyTheCopyCloses) {
    HANDLE a = newEvent();
    CHandle source(a);
    {
        CHandle copy(source);
        EXPECT_EQ(raw(source), nullptr);
        EXPECT_EQ(raw(copy), a);
    }
    EXPECT_TRUE(wasClosed(a));
}

TEST(Handle, AssignmentClosesTheHeldHandleFirst) {
    HANDLE a = newEvent(), b = newEvent();
    {
        CHandle target(a), source(b);
        target = source;
        EXPECT_EQ(raw(target), b);
        EXPECT_EQ(raw(source), nullptr);
        EXPECT_TRUE(wasClosed(a));

        CHandle& same = target;
        target = same;
        target = std::move(same);
        EXPECT_EQ(raw(target), b);
    }
    EXPECT_TRUE(wasClosed(b));
}

TEST(Event, ConstructorCreatesAtOnce) {
    const struct {
        int manualReset, initialState;
        bool first, second;  // signalled at the first and the second test
    } cases[] = {
        {TRUE, TRUE, true, true},
        {TRUE, FALSE, false, false},
        {FALSE, TRUE, true, false},  // the first test takes it
    };
    for (const auto& c : cases) {
        CEvent event(c.manualReset, c.initialState);
        EXPECT_EQ(signalled(event), c.first) << c.manualReset << c.initialState;
        EXPECT_EQ(signalled(event), c.second) << c.manualReset << c.initialState;
    }
}

TEST(Event, ConstructorThrowsTheLastErrorAsHresult) {
    try {
        CEvent event(nullptr, TRUE, FALSE, kOverlongName.c_str());
        FAIL() << "no exception";
    } catch (const CHResultException& e) {
        EXPECT_EQ(static_cast<std::uint32_t>(e.m_hr), 0x800700CEu);  // error 206
        EXPECT_EQ(e.GetHResult(), e.m_hr);
        EXPECT_STREQ(e.what(), "HRESULT 0x800700CE");
    }
}

TEST(Event, CreateAndOpenStoreOverTheHeldHandleWithoutThrowing) {
    CEvent event(TRUE, FALSE);
    HANDLE first = event;
    ASSERT_NE(event.Create(nullptr, TRUE, FALSE, "TesselThreadsEventTest"), 0);
    HANDLE named = event;

    CEvent opened;
    ASSERT_NE(opened.Open(SYNCHRONIZE, FALSE, "TesselThreadsEventTest"), 0);
    EXPECT_NE(raw(opened), named);
    EXPECT_NE(event.Set(), 0);
    EXPECT_TRUE(signalled(opened));

    EXPECT_EQ(opened.Open(SYNCHRONIZE, FALSE, "TesselThreadsNoSuchEvent"), 0);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(raw(opened), nullptr);
    EXPECT_EQ(event.Create(nullptr, TRUE, FALSE, kOverlongName.c_str()), 0);
    EXPECT_EQ(GetLastError(), ERROR_FILENAME_EXCED_RANGE);
    EXPECT_EQ(raw(event), nullptr);

    EXPECT_FALSE(wasClosed(first));
    EXPECT_FALSE(wasClosed(named));
}

TEST(Event, OperationsForward) {
    CEvent event(TRUE, FALSE);
    EXPECT_NE(event.Set(), 0);
    EXPECT_TRUE(signalled(event));
    EXPECT_NE(event.Reset(), 0);
    EXPECT_FALSE(signalled(event));
    EXPECT_NE(event.Set(), 0);
    EXPECT_NE(event.Pulse(), 0);  // nobody waits: releases nobody, leaves it reset
    EXPECT_FALSE(signalled(event));

    CEvent copy(event);
    EXPECT_EQ(raw(event), nullptr);
    for (auto operation : {&CEvent::Set, &CEvent::Reset, &CEvent::Pulse}) {
        EXPECT_EQ((event.*operation)(), 0);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    }
}
