// Tessel::CHandle and Tessel::CEvent: ownership that moves on copy, and the event operations.
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

namespace {

HANDLE newEvent() {
    return CreateEventA(nullptr, TRUE, FALSE, nullptr);
}

bool isOpen(HANDLE handle) {
    return WaitForSingleObject(handle, 0) != WAIT_FAILED;
}

bool signalled(HANDLE event) {
    return WaitForSingleObject(event, 0) == WAIT_OBJECT_0;
}

HANDLE raw(const CHandle& handle) {
    return handle;
}

const std::string kOverlongName(261, 'n');  // MAX_PATH is 260

}  // namespace

TEST(Handle, OwnsItsHandleAndCopyingMovesIt) {
    CHandle empty;
    EXPECT_EQ(raw(empty), nullptr);
    empty.Close();

    HANDLE a = newEvent(), b = newEvent(), c = newEvent(), d = newEvent();
    {
        CHandle attached(b);
        attached.Attach(c);
        EXPECT_TRUE(isOpen(b)) << "Attach closes nothing";
        EXPECT_EQ(raw(attached), c);
        EXPECT_EQ(attached.Detach(), c);
        EXPECT_EQ(raw(attached), nullptr);

        CHandle source(a);
        CHandle copy(source);
        EXPECT_EQ(raw(source), nullptr);
        EXPECT_EQ(raw(copy), a);
        CHandle target(b);
        target = copy;
        EXPECT_EQ(raw(target), a);
        EXPECT_EQ(raw(copy), nullptr);
        EXPECT_FALSE(isOpen(b)) << "assignment closes the handle held";
        CHandle& same = target;
        target = same;
        target = std::move(same);
        EXPECT_EQ(raw(target), a);

        CHandle closed(d);
        closed.Close();
        EXPECT_EQ(raw(closed), nullptr);
        EXPECT_FALSE(isOpen(d));
    }
    EXPECT_FALSE(isOpen(a)) << "closed by its one owner";
    EXPECT_TRUE(isOpen(c));
    CloseHandle(c);
}

TEST(Event, ConstructorCreatesAtOnceOrThrowsTheLastErrorAsHresult) {
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
    try {
        CEvent event(nullptr, TRUE, FALSE, kOverlongName.c_str());
        FAIL() << "no exception";
    } catch (const Tessel::CHResultException& e) {
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

    EXPECT_TRUE(isOpen(first));
    EXPECT_TRUE(isOpen(named));
    CloseHandle(first);
    CloseHandle(named);
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
