// Rendering of plain-text tables.
#include "uiTable.h"

#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace {

using libuiTable::uiTable;

/** Fills a cell, which always succeeds. */
void put(libuiTable::uiRow& row, libuiTable::uiColumnId column, const std::string& text)
{
    EXPECT_TRUE(row.Insert(column, text));
}

std::string render(uiTable& table)
{
    std::ostringstream out;
    table.Display(out);
    return out.str();
}

TEST(uiTable, RendersExactly)
{
    const auto oneColumn = [](uiTable& t, bool decor) {
        const auto name = t.createColumn("Name");
        if (decor) {
            t.createDecorRow();
        }
        put(t.createRow(), name, "one");
        if (decor) {
            t.createDecorRow();
            t.createDecorRow();
        }
        put(t.createRow(), name, "two");
        EXPECT_EQ(t.rows.size(), 2U);
    };
    const std::string oneColumnText = "|------|\n"
                                      "| Name |\n"
                                      "|------|\n"
                                      "| one  |\n"
                                      "| two  |\n"
                                      "|------|\n";

    const struct
    {
        const char* title;
        std::function<void(uiTable&)> build;
        std::string expected;
    } rows[] = {
        {"no rows",
         [](uiTable& t) {
             t.createColumn("A");
             t.createColumn("Name");
         },
         "|---|------|\n"
         "| A | Name |\n"
         "|---|------|\n"
         "|---|------|\n"},
        {"a long cell widens its column, rules included",
         [](uiTable& t) {
             const auto id = t.createColumn("Id");
             put(t.createRow(), id, "abcdef");
         },
         "|--------|\n"
         "| Id     |\n"
         "|--------|\n"
         "| abcdef |\n"
         "|--------|\n"},
        {"two columns of widths 4 and 2",
         [](uiTable& t) {
             const auto name = t.createColumn("Name");
             const auto id = t.createColumn("Id");
             libuiTable::uiRow& first = t.createRow();
             put(first, name, "ab");
             put(first, id, "1");
             libuiTable::uiRow& second = t.createRow();
             put(second, name, "abcd");
             put(second, id, "22");
         },
         "|------|----|\n"
         "| Name | Id |\n"
         "|------|----|\n"
         "| ab   | 1  |\n"
         "| abcd | 22 |\n"
         "|------|----|\n"},
        {"unfilled cells are blank",
         [](uiTable& t) {
             t.createColumn("Left");
             const auto right = t.createColumn("R");
             t.createRow();
             put(t.createRow(), right, "xyz");
         },
         "|------|-----|\n"
         "| Left | R   |\n"
         "|------|-----|\n"
         "|      |     |\n"
         "|      | xyz |\n"
         "|------|-----|\n"},
        {"a row created before a later column still prints",
         [](uiTable& t) {
             const auto a = t.createColumn("A");
             put(t.createRow(), a, "x");
             const auto b = t.createColumn("B");
             libuiTable::uiRow& second = t.createRow();
             put(second, a, "y");
             put(second, b, "z");
         },
         "|---|---|\n"
         "| A | B |\n"
         "|---|---|\n"
         "| x |   |\n"
         "| y | z |\n"
         "|---|---|\n"},
        {"plain rows", [&](uiTable& t) { oneColumn(t, false); }, oneColumnText},
        {"decor rows change nothing", [&](uiTable& t) { oneColumn(t, true); }, oneColumnText},
    };

    for (const auto& r : rows) {
        uiTable table;
        r.build(table);
        EXPECT_EQ(render(table), r.expected) << r.title;
    }
}

} // namespace
