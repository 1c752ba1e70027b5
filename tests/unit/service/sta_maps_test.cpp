#include "sta_maps.h"

#include <gtest/gtest.h>

#include <array>
#include <set>
#include <string>

namespace {

libhubd::MacAddr mac(unsigned number) {
    return libhubd::MacAddr{{0x02, 0, 0, static_cast<std::uint8_t>(number >> 16),
                             static_cast<std::uint8_t>(number >> 8),
                             static_cast<std::uint8_t>(number)}};
}

TEST(StaTable, IsEmptyAtFirst) {
    const _sta_table<int> table;
    EXPECT_TRUE(table.empty());
    EXPECT_EQ(table.size(), 0U);
    EXPECT_EQ(table.find(mac(1)), nullptr);
}

TEST(StaTable, KeepsOneEntryForEachStation) {
    _sta_table<int> table;
    table[mac(1)] = 10;
    table[mac(2)] = 20;
    table[mac(1)] = 11;
    EXPECT_EQ(table.size(), 2U);
    EXPECT_EQ(*table.find(mac(1)), 11);
    EXPECT_EQ(*table.find(mac(2)), 20);
}

TEST(StaTable, ANewProbeRecordKnowsNothing) {
    _sta_table<sta_prob_info> table;
    const sta_prob_info& record = table[mac(1)];
    EXPECT_EQ(record.rssi, 0);
    EXPECT_EQ(record.timeout, 0);
    EXPECT_EQ(record.vap, 0);
}

TEST(StaTable, AWalkVisitsEachEntryOnceAndErasesWhatThePredicatePicks) {
    _sta_table<int> table;
    for (unsigned i = 0; i < 1000; ++i)
        table[mac(i)] = static_cast<int>(i);
    std::set<std::string> visited;
    table.if_remove([&](const libhubd::MacAddr& station, int& value) {
        visited.insert(station.str());
        return value % 3 == 0;
    });
    EXPECT_EQ(visited.size(), 1000U);
    EXPECT_EQ(table.size(), 666U);
    EXPECT_EQ(table.find(mac(999)), nullptr);
    EXPECT_NE(table.find(mac(998)), nullptr);
}

TEST(StaTable, AWalkMayChangeWhatItKeeps) {
    _sta_table<int> table;
    table[mac(1)] = 5;
    table.if_remove([](const libhubd::MacAddr&, int& value) {
        --value;
        return false;
    });
    EXPECT_EQ(*table.find(mac(1)), 4);
}

TEST(StaTable, AWalkMayEraseEverything) {
    _sta_table<int> table;
    for (unsigned i = 0; i < 100; ++i)
        table[mac(i)] = 1;
    table.if_remove([](const libhubd::MacAddr&, const int&) { return true; });
    EXPECT_TRUE(table.empty());
}

TEST(StaTable, ClearForgetsAllStations) {
    _sta_table<int> table;
    table[mac(1)] = 1;
    table.clear();
    EXPECT_TRUE(table.empty());
    EXPECT_EQ(table.find(mac(1)), nullptr);
}

}  // namespace
