// The trim of the camera's sensor-stream boxes that keeps the records of a
// cut, in either byte order, and its refusals of ranges it cannot keep.
#include "BoxWalk.h"
#include "SensorBoxBytes.h"
#include "sensor/SensorStreamBoxes.h"

#include <gtest/gtest.h>

using namespace testsupport;

namespace {

// A compass box of n records numbered by their time stamps.
Bytes compassBox(uint32_t n, Order o, size_t room = 0)
{
    Bytes records;
    for (uint32_t i = 0; i < n; ++i)
        records = cat({records, xyzRecord(i, i + 1, i + 2, 1000 + i, o)});
    return sensorBox("QDTC", 24, n, cat({records, Bytes(room, 0x77)}), o, 9);
}

TEST(SensorBoxes, TrimMovesTheKeptRecordsToTheFrontInTheBoxOrderOrRefuses)
{
    for (Order o : {Order::Little, Order::Big}) {
        Bytes b = compassBox(400, o);
        const Bytes before = b;
        ASSERT_TRUE(SensorStream::trimSensorBox(b.data(), b.size(), 24, 100, 300));
        EXPECT_EQ(slice(b, 4, 20), slice(sensorBox("QDTC", 24, 300, {}, o, 9), 4, 20)); // the new count, in the box's order
        EXPECT_EQ(slice(b, 24, 300 * 24), slice(before, 24 + 100 * 24, 300 * 24));
        EXPECT_EQ(slice(b, 24 + 300 * 24, 100 * 24), Bytes(100 * 24, 0));
    }
    // A cut past the last record keeps the records there are from its start
    // on, none when it starts past them; the count never trusts more records
    // than the box holds.
    Bytes room = compassBox(10, Order::Little, 24 * 100), lying = compassBox(3, Order::Little, 30),
          full = compassBox(100, Order::Little);
    lying[8] = 200; // the count claims more records than the box holds
    const Bytes before[] = {room, lying, full};
    ASSERT_TRUE(SensorStream::trimSensorBox(room.data(), room.size(), 24, 5, 600));
    EXPECT_EQ(get32(room, 8), 0x05000000u);
    EXPECT_EQ(slice(room, 24, 5 * 24), slice(before[0], 24 + 5 * 24, 5 * 24));
    EXPECT_EQ(slice(room, 24 + 5 * 24, room.size() - 24 - 5 * 24), Bytes(room.size() - 24 - 5 * 24, 0));
    ASSERT_TRUE(SensorStream::trimSensorBox(lying.data(), lying.size(), 24, 4, 1));
    EXPECT_EQ(get32(lying, 8), 0u);
    EXPECT_EQ(slice(lying, 24, lying.size() - 24), Bytes(lying.size() - 24, 0));
    EXPECT_FALSE(SensorStream::trimSensorBox(room.data(), 20, 24, 0, 0));            // shorter than its header
    EXPECT_FALSE(SensorStream::trimSensorBox(full.data(), full.size(), 24, 0, 100)); // all kept: nothing to do
    EXPECT_EQ(full, before[2]);
}

} // namespace
