// A small renderer of plain-text tables with named columns.
#pragma once

#include "vxExport.h"

#include <cstdint>
#include <list>
#include <ostream>
#include <string>
#include <vector>

namespace libuiTable {

using uiColumnId = unsigned int;

class uiTable;

class VX_API uiColumn
{
public:
    bool last = false;
    uint32_t maxWidth = 0; ///< widest text seen, the name included
    std::string name;

    void setColumnName(const std::string& columnName);
    /** Keeps maxWidth the largest width given. */
    void updateMaxWidth(unsigned int width);
};

class VX_API uiTableCell
{
public:
    uiColumnId column = 0;
    std::string text;
};

class VX_API uiRow
{
public:
    std::vector<uiTableCell> cells;

    explicit uiRow(uiTable& owner);
    /** Sets the cell's text and widens its column as needed; always true. */
    bool Insert(uiColumnId column, const std::string& text);

private:
    uiTable* table;
};

/** Edge and rule strings: the first is each column's left edge, the second closes the line. */
class VX_API uiDecor
{
public:
    std::vector<std::string> strings{"|", "|", "-", "-", "|", "|", "-", "-"};
};

class VX_API uiTable
{
public:
    std::vector<uiColumn> columns;
    std::list<uiRow> rows;
    uiDecor decor;

    /** Appends a column, which becomes the last one. */
    uiColumnId createColumn(const std::string& name);
    /** Appends a row of empty cells, one per existing column. */
    uiRow& createRow();

    /** Accepted and ignored: decoration rows are not drawn. */
    void createDecorRow() {}

    void updateColumnMaxWidth(unsigned int column, unsigned int width);
    /** Writes rule, header, rule, the rows and a closing rule, flushing every line; the stream's
     *  flags and fill are as they were afterwards. */
    void Display(std::ostream& out);

private:
    void displayRule(std::ostream& out) const;
    void displayLine(std::ostream& out, const std::vector<const std::string*>& texts) const;
};

} // namespace libuiTable
