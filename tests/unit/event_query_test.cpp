// The query for the service control manager's events.

#include "event_query.h"

#include <string>

#include <gtest/gtest.h>

#include "windows/utf.h"

namespace {

TEST(EventQuery, AsksForTheEventsOfTheServiceAlone) {
    EXPECT_EQ(
        ToUtf8(EventQuery(L"OrvikService", L"Orvik Camera Service")),
        "*[System[Provider[@Name='Service Control Manager'] and (EventID=7000 or EventID=7009 "
        "or EventID=7031 or EventID=7034)] and EventData[Data='OrvikService' or "
        "Data='Orvik Camera Service']]");
    EXPECT_TRUE(
        EventQuery(L"OrvikService", L"Ann's camera").ends_with(L" or Data=\"Ann's camera\"]]"));
}

}  // namespace
